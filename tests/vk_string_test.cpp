// Tests of the bounded copy and trimming helpers that every fixed-size field relies on.
#include "vk_string.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{

TEST(VkString, BoundedCopyAlwaysTerminates)
{
    char dst[5];
    memset(dst, 'x', sizeof dst);
    EXPECT_EQ(vk_strlcpy(dst, "abcdefgh", sizeof dst), 4u);
    EXPECT_STREQ(dst, "abcd");
    EXPECT_EQ(vk_strlcpy(dst, "ab", sizeof dst), 2u);
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(vk_strlcpy(dst, static_cast<const char *>(nullptr), sizeof dst), 0u);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(vk_strlcpy(dst, "abc", 0), 0u);

    // A source without terminator is never read past the destination's size.
    const char unterminated[4] = {'w', 'x', 'y', 'z'};
    char small[3];
    EXPECT_EQ(vk_strlcpy(small, unterminated, sizeof small), 2u);
    EXPECT_STREQ(small, "wx");
    char arr[8];
    EXPECT_EQ(vk_strlcpy(arr, std::string_view("0123456789", 10)), 7u);
    EXPECT_STREQ(arr, "0123456");
}

TEST(VkString, TrimRemovesTheSetFromBothEnds)
{
    char q[] = "\"\"/opt/x\"";
    EXPECT_EQ(vk_trim_ex(q, "\""), 6u);
    EXPECT_STREQ(q, "/opt/x");
    char inner[] = "a\"b";
    EXPECT_EQ(vk_trim_ex(inner, "\""), 3u); // only the ends
    char all[] = "\"\"\"";
    EXPECT_EQ(vk_trim_ex(all, "\""), 0u);
    EXPECT_STREQ(all, "");
    char ws[] = " \t value = x \r\n";
    EXPECT_EQ(vk_trim(ws), 9u);
    EXPECT_STREQ(ws, "value = x");
    EXPECT_EQ(vk_trim_view("  k  "), "k");
    EXPECT_EQ(vk_trim_view("   "), "");
    EXPECT_EQ(vk_trim_ex(nullptr, " "), 0u);
}

} // namespace
