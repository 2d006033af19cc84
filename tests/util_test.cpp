// The start-up helpers: ${NAME} expansion, the single-instance guard on the pid file and the drop
// report's wrap-around, in a private manager home.
#include "util.h"

#include "daemon_support.h"
#include "global_var.h"
#include "vk_string.h"

#include <sys/stat.h>

namespace
{

using namespace daemon_support;

// "0 <result>" on success, else the code.
std::string expanded(const char *source)
{
    char dest[512] = {};
    int ret = convert_env_path(source, dest, sizeof(dest));
    return ret == 0 ? "0 " + std::string(dest) : std::to_string(ret);
}

TEST(ConvertEnvPath, ExpansionAndFailureCodes)
{
    setenv("UTIL_A", "/opt/a", 1);
    setenv("UTIL_B", "b", 1);
    setenv("UTIL_EMPTY", "", 1);
    setenv("UTIL_LONG", std::string(256, 'l').c_str(), 1);
    unsetenv("UTIL_UNSET");
    const std::pair<const char *, const char *> cases[] = {
        {"${UTIL_A}${UTIL_B}/x", "0 /opt/ab/x"},
        {"pre/${UTIL_B}/mid/${UTIL_A}", "0 pre/b/mid//opt/a"},
        {"plain/path}", "0 plain/path}"},
        {"${UTIL_A/x", "-2"},
        {"${UTIL_UNSET}/log", "-3"},
        {"${UTIL_EMPTY}/log", "-3"},
        {"${UTIL_LONG}/log", "-3"},
        {nullptr, "-1"}};
    for (const auto &[source, expected] : cases)
        EXPECT_EQ(expanded(source), expected) << (source ? source : "null");
    char small[8] = {}; // bounded by dest_size, terminated
    EXPECT_EQ(convert_env_path("${UTIL_A}/log", small, sizeof(small)), -4);
    EXPECT_STREQ(small, "/opt/a/");
    for (const char *name : {"UTIL_A", "UTIL_B", "UTIL_EMPTY", "UTIL_LONG"})
        unsetenv(name);
}

// A manager home with a data directory, installed into g_vk_manager_home.
class PidGuardTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path.empty());
        ASSERT_EQ(init_global_var(dir.path.c_str()), 0);
        ASSERT_EQ(mkdir((dir.path + "/manager").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((dir.path + "/manager/data").c_str(), 0700), 0);
    }
    int check() { return check_double_execution("quil-manager-agent", "quil-manager-agent"); }

    temp_dir dir{"util_test"};
    std::string pid_path = dir.path + "/manager/data/manager_agent_pid";
    // Our own record: the pid's digits padded with NULs to 32 bytes.
    std::string own = std::to_string(getpid()) + std::string(32 - std::to_string(getpid()).size(), '\0');
};

TEST_F(PidGuardTest, WritesA32ByteRecordOverStaleOnes)
{
    mode_t saved = umask(002); // created with mode 0666 before the umask
    int ret = check();
    umask(saved);
    ASSERT_EQ(ret, 0);
    EXPECT_EQ(read_file(pid_path), own);
    struct stat st {
    };
    ASSERT_EQ(stat(pid_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);

    // A longer stale record keeps its tail: only the first 32 bytes are rewritten.
    write_file(pid_path, "999999999" + std::string(23, '\0') + "TAIL");
    ASSERT_EQ(check(), 0);
    EXPECT_EQ(read_file(pid_path), own + "TAIL");
}

TEST_F(PidGuardTest, LockHeldByAnotherStarterAndUnopenableFile)
{
    EXPECT_EQ(check(), 0);
    pid_t second = fork(); // another starter meets the lock this process keeps after its check
    ASSERT_GE(second, 0);
    if (second == 0)
        _exit(check());
    int status = 0;
    ASSERT_EQ(waitpid(second, &status, 0), second);
    EXPECT_EQ(WEXITSTATUS(status), 2);
    vk_strlcpy(g_vk_manager_home, (dir.path + "/missing").c_str(), sizeof(g_vk_manager_home));
    EXPECT_EQ(check(), 1);
}

// A restart that got the same pid again (pid 1 in a container) finds its own number in the
// surviving pid file: that is not a second instance. Another live process of the name is.
TEST_F(PidGuardTest, OwnPidIsNoSecondInstance)
{
    write_file(pid_path, std::to_string(getpid()));
    EXPECT_EQ(check_double_execution("agent_tests", "agent_tests"), 0);
    EXPECT_EQ(read_file(pid_path), own);
    child_process other{spawn({"/bin/sleep", "60"})};
    ASSERT_GT(other.pid, 0);
    EXPECT_TRUE(eventually([&] { // once the child has become sleep
        write_file(pid_path, std::to_string(other.pid));
        return check_double_execution("sleep", "sleep") == 3;
    }));
}

TEST(Util, InfoLogCountsDropsWithWrapAround)
{
    g_info_log.store(0);
    info_log(0); // sync with whatever an earlier test left
    const std::pair<uint32_t, uint32_t> steps[] = {
        {10, 10}, {10, 0}, {25, 15}, {5, (4294967295u - 25u) + 5u}}; // backwards: a wrap, one short
    for (const auto &[counter, reported] : steps) {
        g_info_log.store(counter);
        EXPECT_EQ(info_log(0), reported) << counter;
    }
}

} // namespace
