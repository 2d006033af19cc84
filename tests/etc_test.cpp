// Tests of the kstrtok tokenizer: empty tokens, saved positions per context, and the pool
// rule that a 33rd simultaneous context shares context 0.
#include "etc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

std::vector<std::string> tokens(int ctx, char *text, const char *delims)
{
    std::vector<std::string> out;
    for (char *t = kstrtok(ctx, text, delims); t != nullptr; t = kstrtok(ctx, nullptr, delims))
        out.emplace_back(t);
    return out;
}

TEST(Kstrtok, SkipsRunsOfDelimitersAndEndsWithNull)
{
    int ctx = kstrtokbegin();
    char a[] = "a,,b";
    EXPECT_EQ(tokens(ctx, a, ","), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(kstrtok(ctx, nullptr, ","), nullptr); // stays at the end

    char b[] = "  Feb  8 2025 ";
    EXPECT_EQ(tokens(ctx, b, " "), (std::vector<std::string>{"Feb", "8", "2025"}));
    char c[] = ",,,";
    EXPECT_EQ(kstrtok(ctx, c, ","), nullptr);
    char d[] = "one";
    EXPECT_EQ(tokens(ctx, d, ""), (std::vector<std::string>{"one"}));
    kstrtokend(ctx);
    EXPECT_EQ(kstrtok(-1, d, ","), nullptr);
    EXPECT_EQ(kstrtok(KSTRTOK_MAX_CONTEXT, d, ","), nullptr);
}

TEST(Kstrtok, ContextsKeepTheirOwnPositions)
{
    int c1 = kstrtokbegin(), c2 = kstrtokbegin();
    ASSERT_NE(c1, c2);
    char x[] = "x1 x2", y[] = "y1,y2";
    EXPECT_STREQ(kstrtok(c1, x, " "), "x1");
    EXPECT_STREQ(kstrtok(c2, y, ","), "y1");
    EXPECT_STREQ(kstrtok(c1, nullptr, " "), "x2");
    EXPECT_STREQ(kstrtok(c2, nullptr, ","), "y2");
    kstrtokend(c1);
    kstrtokend(c2);
}

TEST(Kstrtok, ThirtyThirdContextSharesContextZero)
{
    std::vector<int> taken;
    for (int i = 0; i < KSTRTOK_MAX_CONTEXT; i++)
        taken.push_back(kstrtokbegin());
    for (int i = 0; i < KSTRTOK_MAX_CONTEXT; i++)
        EXPECT_EQ(taken[i], i) << "lowest free context first";
    EXPECT_EQ(kstrtokbegin(), 0); // nothing reserved
    kstrtokend(5);
    EXPECT_EQ(kstrtokbegin(), 5);
    for (int c : taken)
        kstrtokend(c);
    EXPECT_EQ(kstrtokbegin(), 0);
    kstrtokend(0);
}

} // namespace
