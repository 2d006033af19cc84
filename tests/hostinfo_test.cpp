// The host-identity helpers (nothing in the agent calls them: one smoke test), and the bounds
// of the host id's hex-appending step and of the user-name lookup.
#include "hostinfo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <pwd.h>
#include <string>
#include <unistd.h>

namespace
{

TEST(HostInfo, SmokeAndBounds)
{
    std::unique_ptr<char, decltype(&free)> id(getUNIXHostID(), free), key(getHostKey(), free),
        name(getOSMHostName(), free);
    ASSERT_TRUE(id && key && name);
    EXPECT_NE(std::string(id.get()).find("000000000000"), std::string::npos) << "the loopback";
    EXPECT_STREQ(key.get(), id.get());
    char host[64] = {};
    ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
    EXPECT_STREQ(name.get(), host);
    char text[] = ".a.b..c.";
    EXPECT_EQ(getCntOfChr(text, '.'), 5);
    removeChar(text, '.');
    EXPECT_STREQ(text, "abc");

    // 22 six-byte addresses need 264 digits: only 127 whole bytes fit in 256.
    char hex[HOST_ID_SIZE] = {};
    const unsigned char mac[6] = {0xAB, 0x01, 0xFF, 0x00, 0x9c, 0x10};
    for (int i = 0; i < 22; i++)
        host_id_append_hex(hex, sizeof(hex), mac, sizeof(mac));
    EXPECT_EQ(strlen(hex), 254u);
    EXPECT_EQ(std::string(hex, 12), "ab01ff009c10");
    char small[6] = "x";
    EXPECT_EQ(host_id_append_hex(small, sizeof(small), mac, sizeof(mac)), 5u);
    EXPECT_STREQ(small, "xab01");

    ASSERT_EQ(getpwuid(3999999), nullptr);
    char user[8];
    memset(user, 'Z', sizeof(user));
    EXPECT_EQ(vk_username(3999999, user, 4), 0);
    EXPECT_STREQ(user, "399");
    EXPECT_EQ(user[4], 'Z') << "nothing beyond len";
    vk_username(0, user, sizeof(user));
    EXPECT_STREQ(user, "root");
}

} // namespace
