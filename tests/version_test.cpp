// Tests of the version texts: date conversion, the exact banner and usage text of the
// binary, and that each getter formats only once.
#include "version.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace
{

// Runs the agent binary with `args`, returns its standard output; *status gets the exit code.
std::string run_agent(const std::string &args, int *status)
{
    std::string cmd = std::string("env -u MGR_QUIL_HOME ") + QUIL_AGENT_BIN + " " + args;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return {};
    std::string out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    int rc = pclose(p);
    *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

TEST(Version, ConvertsTheCompilerDate)
{
    EXPECT_STREQ(conv_manager_build_version_string("Feb 18 2025"), "25-02-18");
    EXPECT_STREQ(conv_manager_build_version_string("Dec  1 2009"), "09-12-01");
    EXPECT_STREQ(conv_manager_build_version_string("Jan 31 2100"), "00-01-31");
    EXPECT_STREQ(conv_manager_build_version_string("Foo 18 2025"), "25-00-18"); // unknown month: 0
    EXPECT_STREQ(conv_manager_build_version_string(""), "00-00-00");
}

TEST(Version, TextsHaveTheirExactShapes)
{
    EXPECT_STREQ(get_manager_agent_version(), "3.0.11 (mc: 0xd6f006f, cc: 0x2e71ff7, pc: 0xdb3edcf)");
    std::string build = get_manager_build_version_string();
    // "YY-MM-DD hh:mm:ss"
    const std::string shape = "99-99-99 99:99:99";
    ASSERT_EQ(build.size(), shape.size()) << build;
    for (size_t i = 0; i < shape.size(); i++)
        EXPECT_EQ(shape[i] == '9', isdigit(static_cast<unsigned char>(build[i])) != 0) << build;
    EXPECT_EQ(std::string(get_manager_full_version_string()),
              "<Tarvane 3.0> quil-manager-agent 3.0.11 [linux x86_64 64bit] Build " + build +
                  " (mc:0xd6f006f,cc:0x2e71ff7,pc:0xdb3edcf)");
}

TEST(Version, EachGetterFormatsOnce)
{
    // In a re-executed child, so that no earlier test has formatted anything yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            bool ok = version_format_count() == 0;
            std::vector<std::thread> threads;
            std::vector<const char *> seen(8);
            for (int i = 0; i < 8; i++)
                threads.emplace_back([&seen, i] { seen[i] = get_manager_full_version_string(); });
            for (auto &t : threads)
                t.join();
            for (const char *s : seen)
                ok = ok && s == seen[0];
            ok = ok && version_format_count() == 2; // the banner and the build string it embeds
            const char *agent = get_manager_agent_version();
            ok = ok && agent == get_manager_agent_version() && version_format_count() == 3;
            ok = ok && get_manager_build_version_string() == get_manager_build_version_string();
            ok = ok && version_format_count() == 3;
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(Version, BinaryPrintsBannerAndUsage)
{
    int status = -1;
    std::string banner = std::string(get_manager_full_version_string()) + "\n";
    EXPECT_EQ(run_agent("-v", &status), banner);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(run_agent("-v -D", &status), banner); // later arguments are not looked at
    EXPECT_EQ(status, 0);

    std::string usage = banner + "[usage] " + QUIL_AGENT_BIN +
                        " [-D][-d][-v|-h]\n"
                        " D : daemonize\n"
                        " d : debug\n"
                        " v : print version\n"
                        " c : print os information.\n"
                        " h : print this message\n"
                        "\n";
    EXPECT_EQ(run_agent("-h", &status), usage);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(run_agent("-x -h", &status), usage); // unknown arguments are ignored
}

} // namespace
