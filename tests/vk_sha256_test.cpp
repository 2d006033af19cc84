// SHA-256 against the published vectors with both block functions, whole and in pieces across
// block edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "vk_sha256.h"

namespace
{

std::string hex_of(const std::string &data, size_t piece)
{
    vk_sha256_t ctx;
    vk_sha256_init(&ctx);
    for (size_t at = 0; at < data.size(); at += piece)
        vk_sha256_update(&ctx, data.data() + at, std::min(piece, data.size() - at));
    uint8_t digest[32];
    vk_sha256_final(&ctx, digest);
    char hex[65];
    vk_sha256_hex(digest, hex);
    return hex;
}

TEST(VkSha256, KnownVectorsInAnyPiecesWithBothBlockFunctions)
{
    const struct {
        std::string data, hex;
    } vectors[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    std::string random(200003, '\0');
    for (size_t i = 0; i < random.size(); i++)
        random[i] = static_cast<char>((i * 2654435761u) >> 13);
    vk_sha256_use_portable(true);
    const std::string random_hex = hex_of(random, random.size());
    for (bool portable : {false, true}) {
        vk_sha256_use_portable(portable);
        for (const auto &v : vectors)
            for (size_t piece : {size_t{1000000}, size_t{1}, size_t{63}, size_t{65}}) {
                EXPECT_EQ(hex_of(v.data, piece), v.hex) << "portable " << portable << " piece " << piece;
            }
        for (size_t piece : {size_t{7}, size_t{64}, size_t{65536}})
            EXPECT_EQ(hex_of(random, piece), random_hex) << "portable " << portable << " piece " << piece;
    }
    vk_sha256_use_portable(false);
}

} // namespace
