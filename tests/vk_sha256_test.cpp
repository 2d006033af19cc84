// SHA-256 against the published test vectors and against sha256sum, fed in one piece and in
// pieces that straddle block boundaries, with both block functions.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
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

std::string sha256sum(const std::string &data)
{
    char path[] = "/tmp/vk_sha256.XXXXXX";
    int fd = mkstemp(path);
    EXPECT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(fd);
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(("sha256sum " + std::string(path)).c_str(), "r"), pclose);
    char out[65] = {};
    EXPECT_EQ(fread(out, 1, 64, pipe.get()), 64u);
    unlink(path);
    return out;
}

TEST(VkSha256, KnownVectorsAndSha256sumInAnyPieces)
{
    struct {
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
    const std::string random_sum = sha256sum(random);
    for (bool portable : {false, true}) {
        vk_sha256_use_portable(portable);
        for (const auto &v : vectors)
            for (size_t piece : {size_t{1000000}, size_t{1}, size_t{63}, size_t{65}}) {
                EXPECT_EQ(hex_of(v.data, piece), v.hex) << "portable " << portable << " piece " << piece;
            }
        for (size_t piece : {size_t{7}, size_t{64}, size_t{65536}, random.size()})
            EXPECT_EQ(hex_of(random, piece), random_sum) << "portable " << portable << " piece " << piece;
    }
    vk_sha256_use_portable(false);
}

} // namespace
