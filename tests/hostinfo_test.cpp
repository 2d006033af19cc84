// Tests of the host identity: the host ID from the real interfaces (loopback included), its
// bound shown through the hex-appending step, the host key, the user-name lookup with tiny
// buffers and the two string helpers.
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

struct free_deleter {
    void operator()(char *p) const { free(p); }
};
using owned = std::unique_ptr<char, free_deleter>;

bool all_hex(const std::string &s)
{
    return s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST(HostInfo, HostIdListsLoopbackAsLowerCaseHexAndIsTheHostKey)
{
    owned id(getUNIXHostID());
    ASSERT_NE(id, nullptr);
    std::string text(id.get());
    EXPECT_NE(text.find("000000000000"), std::string::npos) << text;
    EXPECT_TRUE(all_hex(text)) << text;
    EXPECT_EQ(text.size() % 2, 0u);
    EXPECT_LT(text.size(), HOST_ID_SIZE);
    owned key(getHostKey());
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(std::string(key.get()), text);
}

TEST(HostInfo, HexAppendingStopsAtTheLastWholePairThatFits)
{
    // 22 six-byte addresses need 264 digits: only 127 whole bytes fit in 256.
    char id[HOST_ID_SIZE] = {};
    const unsigned char mac[6] = {0xAB, 0x01, 0xFF, 0x00, 0x9c, 0x10};
    size_t len = 0;
    for (int i = 0; i < 22; i++)
        len = host_id_append_hex(id, sizeof(id), mac, sizeof(mac));
    EXPECT_EQ(len, 254u);
    EXPECT_EQ(strlen(id), 254u);
    EXPECT_TRUE(all_hex(id));
    EXPECT_EQ(std::string(id, 12), "ab01ff009c10");

    char small[6] = "x";
    EXPECT_EQ(host_id_append_hex(small, sizeof(small), mac, sizeof(mac)), 5u);
    EXPECT_STREQ(small, "xab01");
    EXPECT_EQ(host_id_append_hex(nullptr, 8, mac, 1), 0u);
}

TEST(HostInfo, HostNameIsGethostname)
{
    char expected[64] = {};
    ASSERT_EQ(gethostname(expected, sizeof(expected) - 1), 0);
    owned name(getOSMHostName());
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name.get(), expected);
}

TEST(HostInfo, UserNameOrNumberAlwaysTerminated)
{
    uid_t unknown = 3999999;
    ASSERT_EQ(getpwuid(unknown), nullptr);
    const struct {
        uid_t uid;
        size_t len;
        const char *expected;
    } cases[] = {{0, 24, "root"}, {0, 3, "ro"}, {unknown, 24, "3999999"}, {unknown, 4, "399"}, {0, 1, ""}};
    for (const auto &c : cases) {
        char buf[32];
        memset(buf, 'Z', sizeof(buf));
        EXPECT_EQ(vk_username(c.uid, buf, c.len), 0);
        EXPECT_EQ(buf[c.len - 1], '\0');
        EXPECT_STREQ(buf, c.expected) << c.uid << " len " << c.len;
        EXPECT_EQ(buf[c.len], 'Z'); // nothing beyond len
    }
}

TEST(HostInfo, CountAndRemoveCharacters)
{
    EXPECT_EQ(getCntOfChr("a.b..c.", '.'), 4);
    EXPECT_EQ(getCntOfChr("abc", '.'), 0);
    EXPECT_EQ(getCntOfChr(nullptr, '.'), 0);
    char text[] = ".a.b..c.";
    removeChar(text, '.');
    EXPECT_STREQ(text, "abc");
    removeChar(nullptr, '.');
}

} // namespace
