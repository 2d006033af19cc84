// Tests of the version texts: the compiler date conversion and the exact banner. What the
// binary prints for -v and -h is checked by the daemon scenario tests.
#include "version.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace
{

TEST(Version, ConvertsTheCompilerDate)
{
    const std::pair<const char *, const char *> cases[] = {
        {"Feb 18 2025", "25-02-18"}, {"Dec  1 2009", "09-12-01"}, {"Jan 31 2100", "00-01-31"},
        {"Foo 18 2025", "25-00-18"}, // unknown month: 0
        {"", "00-00-00"}};
    for (const auto &[date, expected] : cases)
        EXPECT_STREQ(conv_manager_build_version_string(date), expected) << date;
}

TEST(Version, TextsHaveTheirExactShapes)
{
    EXPECT_STREQ(get_manager_agent_version(), "3.0.11 (mc: 0xd6f006f, cc: 0x2e71ff7, pc: 0xdb3edcf)");
    std::string build = get_manager_build_version_string();
    const std::string shape = "99-99-99 99:99:99";
    ASSERT_EQ(build.size(), shape.size()) << build;
    for (size_t i = 0; i < shape.size(); i++)
        EXPECT_EQ(shape[i] == '9', isdigit(static_cast<unsigned char>(build[i])) != 0) << build;
    EXPECT_EQ(std::string(get_manager_full_version_string()),
              "<Tarvane 3.0> quil-manager-agent 3.0.11 [linux x86_64 64bit] Build " + build +
                  " (mc:0xd6f006f,cc:0x2e71ff7,pc:0xdb3edcf)");
}

} // namespace
