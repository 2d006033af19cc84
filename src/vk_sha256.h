// vk_sha256: SHA-256 (FIPS 180-4) for the digests of patch files, fed as the chunks arrive.
// Uses the processor's SHA extensions when it has them (chosen once, at run time), else a
// portable implementation; both give the same digest.
#pragma once

#include <cstddef>
#include <cstdint>

struct vk_sha256_t {
    uint32_t state[8];
    uint64_t length;    // bytes hashed so far
    uint8_t block[64];  // a partial block waiting for more bytes
    size_t block_len;
};

void vk_sha256_init(vk_sha256_t *ctx);
void vk_sha256_update(vk_sha256_t *ctx, const void *data, size_t size);
// Finishes the digest: 32 bytes into digest. The context must be initialised again for reuse.
void vk_sha256_final(vk_sha256_t *ctx, uint8_t digest[32]);
// Chooses the portable block function even where the SHA extensions exist (on), or the
// fastest one again (off); for comparing the two.
void vk_sha256_use_portable(bool on);
// Lowercase hex of a digest, terminated (65 bytes).
void vk_sha256_hex(const uint8_t digest[32], char hex[65]);
