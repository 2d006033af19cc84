// Tests of the start-up helpers: ${NAME} expansion, the single-instance guard on the pid
// file (fresh, stale, live agent, locked by another starter, unopenable), the root flag and
// the drop report's wrap-around. The manager home is a private temporary directory.
#include "util.h"

#include "global_var.h"
#include "vk_string.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace
{

TEST(ConvertEnvPath, ExpandsEveryReference)
{
    setenv("UTIL_A", "/opt/a", 1);
    setenv("UTIL_B", "b", 1);
    char dest[512] = {};
    EXPECT_EQ(convert_env_path("${UTIL_A}${UTIL_B}/x", dest, sizeof(dest)), 0);
    EXPECT_STREQ(dest, "/opt/ab/x");

    memset(dest, 0, sizeof(dest));
    EXPECT_EQ(convert_env_path("pre/${UTIL_B}/mid/${UTIL_A}", dest, sizeof(dest)), 0);
    EXPECT_STREQ(dest, "pre/b/mid//opt/a");

    memset(dest, 0, sizeof(dest));
    EXPECT_EQ(convert_env_path("plain/path}", dest, sizeof(dest)), 0);
    EXPECT_STREQ(dest, "plain/path}");

    // The result is appended to what dest holds.
    EXPECT_EQ(convert_env_path("+", dest, sizeof(dest)), 0);
    EXPECT_STREQ(dest, "plain/path}+");
    unsetenv("UTIL_A");
    unsetenv("UTIL_B");
}

TEST(ConvertEnvPath, FailureCodes)
{
    setenv("UTIL_A", "/opt/a", 1);
    setenv("UTIL_EMPTY", "", 1);
    setenv("UTIL_LONG", std::string(256, 'l').c_str(), 1);
    unsetenv("UTIL_UNSET");
    char dest[512] = {};
    EXPECT_EQ(convert_env_path("${UTIL_A/x", dest, sizeof(dest)), -2);
    memset(dest, 0, sizeof(dest));
    EXPECT_EQ(convert_env_path("${UTIL_UNSET}/log", dest, sizeof(dest)), -3);
    EXPECT_EQ(convert_env_path("${UTIL_EMPTY}/log", dest, sizeof(dest)), -3);
    EXPECT_EQ(convert_env_path("${UTIL_LONG}/log", dest, sizeof(dest)), -3);
    EXPECT_EQ(convert_env_path(nullptr, dest, sizeof(dest)), -1);
    EXPECT_EQ(convert_env_path("x", nullptr, 512), -1);

    // Output bounded by dest_size, terminated.
    char small[8] = {};
    EXPECT_EQ(convert_env_path("${UTIL_A}/log", small, sizeof(small)), -4);
    EXPECT_STREQ(small, "/opt/a/");
    unsetenv("UTIL_A");
    unsetenv("UTIL_EMPTY");
    unsetenv("UTIL_LONG");
}

// A manager home with a data directory, installed into g_vk_manager_home.
class PidGuardTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/util_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        home = tmpl;
        ASSERT_EQ(init_global_var(home.c_str()), 0);
        ASSERT_EQ(mkdir((home + "/manager").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((home + "/manager/data").c_str(), 0700), 0);
        pid_path = home + "/manager/data/manager_agent_pid";
    }
    void TearDown() override
    {
        std::string cmd = "rm -rf '" + home + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    std::string pid_record()
    {
        std::ifstream in(pid_path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void write_record(const std::string &text)
    {
        std::ofstream out(pid_path, std::ios::binary | std::ios::trunc);
        out << text;
    }

    std::string home;
    std::string pid_path;
};

std::string expected_record(pid_t pid)
{
    std::string digits = std::to_string(pid);
    return digits + std::string(32 - digits.size(), '\0');
}

TEST_F(PidGuardTest, WritesA32ByteRecordOverStaleOnes)
{
    // Created with mode 0666 before the umask: 0664 under umask 002.
    mode_t saved = umask(002);
    int ret = check_double_execution("quil-manager-agent", "quil-manager-agent");
    umask(saved);
    ASSERT_EQ(ret, 0);
    EXPECT_EQ(pid_record(), expected_record(getpid()));
    struct stat st {
    };
    ASSERT_EQ(stat(pid_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);

    // A longer stale record keeps its tail: only the first 32 bytes are rewritten.
    write_record("999999999" + std::string(23, '\0') + "TAIL");
    ASSERT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 0);
    EXPECT_EQ(pid_record(), expected_record(getpid()) + "TAIL");

    write_record("garbage");
    EXPECT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 0);
    EXPECT_EQ(pid_record().substr(0, 32), expected_record(getpid()));
}

TEST_F(PidGuardTest, LiveProcessRefusesOnlyWhenItsCommandLineHasTheName)
{
    std::string a0 = "/bin/sleep", a1 = "30";
    char *argv[] = {a0.data(), a1.data(), nullptr};
    pid_t child = -1;
    ASSERT_EQ(posix_spawn(&child, argv[0], nullptr, nullptr, argv, environ), 0);
    for (int i = 0; i < 200; i++) { // wait for the exec to show
        std::ifstream in("/proc/" + std::to_string(child) + "/cmdline");
        std::string s((std::istreambuf_iterator<char>(in)), {});
        if (s.find("sleep") != std::string::npos)
            break;
        usleep(10000);
    }
    write_record(std::to_string(child));
    EXPECT_EQ(check_double_execution("sleep", "quil-manager-agent"), 3);
    EXPECT_EQ(pid_record(), std::to_string(child)) << "a refused start leaves the record alone";
    EXPECT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 0);
    EXPECT_EQ(pid_record(), expected_record(getpid()));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(PidGuardTest, LockHeldByAnotherStarterAndUnopenableFile)
{
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int fd = open(pid_path.c_str(), O_RDWR | O_CREAT, 0666);
        char c = lockf(fd, F_TLOCK, 0) == 0 ? 'y' : 'n';
        (void)!write(ready[1], &c, 1);
        (void)!read(release[0], &c, 1);
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    EXPECT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 2);
    EXPECT_EQ(write(release[1], "x", 1), 1);
    waitpid(child, nullptr, 0);
    for (int fd : {ready[0], ready[1], release[0], release[1]})
        close(fd);
    EXPECT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 0);

    vk_strlcpy(g_vk_manager_home, (home + "/missing").c_str(), sizeof(g_vk_manager_home));
    EXPECT_EQ(check_double_execution("quil-manager-agent", "quil-manager-agent"), 1);
}

TEST(Util, SudoFlagFollowsTheEffectiveUser)
{
    EXPECT_EQ(init_sudo_flag(), static_cast<int>(geteuid()));
    EXPECT_EQ(g_sudo_flag.load(), geteuid() == 0 ? 1 : 0);
}

TEST(Util, InfoLogCountsDropsWithWrapAround)
{
    info_log(); // sync with whatever an earlier test left
    g_info_log.store(0);
    info_log();
    g_info_log.store(10);
    EXPECT_EQ(info_log(), 10u);
    EXPECT_EQ(info_log(), 0u);
    g_info_log.store(25);
    EXPECT_EQ(info_log(), 15u);
    // Going backwards counts as a wrap, one short of the modular difference.
    g_info_log.store(5);
    EXPECT_EQ(info_log(), (4294967295u - 25u) + 5u);
    g_info_log.store(0);
    info_log();
}

} // namespace
