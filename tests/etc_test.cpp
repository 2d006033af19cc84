// The kstrtok tokenizer: the date split the version texts rely on.
#include "etc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

TEST(Kstrtok, SkipsRunsOfDelimitersAndEndsWithNull)
{
    int ctx = kstrtokbegin();
    char date[] = "  Feb  8 2025 ";
    std::vector<std::string> out;
    for (char *t = kstrtok(ctx, date, " "); t != nullptr; t = kstrtok(ctx, nullptr, " "))
        out.emplace_back(t);
    EXPECT_EQ(out, (std::vector<std::string>{"Feb", "8", "2025"}));
    EXPECT_EQ(kstrtok(ctx, nullptr, " "), nullptr); // stays at the end
    char only[] = ",,,";
    EXPECT_EQ(kstrtok(ctx, only, ","), nullptr);
    kstrtokend(ctx);
    EXPECT_EQ(kstrtok(-1, date, ","), nullptr);
    EXPECT_EQ(kstrtok(KSTRTOK_MAX_CONTEXT, date, ","), nullptr);
}

} // namespace
