// Tests of the start-up helpers: ${NAME} expansion, the single-instance guard on the pid
// file (fresh, stale, live process, locked by another starter, unopenable) and the drop
// report's wrap-around. The manager home is a private temporary directory.
#include "util.h"

#include "daemon_support.h"
#include "global_var.h"
#include "vk_string.h"

#include <sys/stat.h>

#include <cstring>

namespace
{

using namespace daemon_support;

TEST(ConvertEnvPath, ExpansionAndFailureCodes)
{
    setenv("UTIL_A", "/opt/a", 1);
    setenv("UTIL_B", "b", 1);
    setenv("UTIL_EMPTY", "", 1);
    setenv("UTIL_LONG", std::string(256, 'l').c_str(), 1);
    unsetenv("UTIL_UNSET");
    const struct {
        const char *source;
        int ret;
        const char *result; // checked on success
    } cases[] = {{"${UTIL_A}${UTIL_B}/x", 0, "/opt/ab/x"},
                 {"pre/${UTIL_B}/mid/${UTIL_A}", 0, "pre/b/mid//opt/a"},
                 {"plain/path}", 0, "plain/path}"},
                 {"${UTIL_A/x", -2, ""},
                 {"${UTIL_UNSET}/log", -3, ""},
                 {"${UTIL_EMPTY}/log", -3, ""},
                 {"${UTIL_LONG}/log", -3, ""}};
    for (const auto &c : cases) {
        char dest[512] = {};
        EXPECT_EQ(convert_env_path(c.source, dest, sizeof(dest)), c.ret) << c.source;
        if (c.ret == 0) {
            EXPECT_STREQ(dest, c.result);
        }
    }
    char dest[512] = "held";
    EXPECT_EQ(convert_env_path("+", dest, sizeof(dest)), 0);
    EXPECT_STREQ(dest, "held+") << "the result is appended to what dest holds";
    char small[8] = {}; // bounded by dest_size, terminated
    EXPECT_EQ(convert_env_path("${UTIL_A}/log", small, sizeof(small)), -4);
    EXPECT_STREQ(small, "/opt/a/");
    EXPECT_EQ(convert_env_path(nullptr, dest, sizeof(dest)), -1);
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
    write_file(pid_path, "garbage");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(read_file(pid_path).substr(0, 32), own);
}

TEST_F(PidGuardTest, LiveProcessRefusesOnlyWhenItsCommandLineHasTheName)
{
    child_process child({"/bin/sleep", "30"});
    ASSERT_GT(child.pid, 0);
    ASSERT_TRUE(eventually([&] { // wait for the exec to show
        return read_file("/proc/" + std::to_string(child.pid) + "/cmdline").find("sleep") !=
               std::string::npos;
    }));
    write_file(pid_path, std::to_string(child.pid));
    EXPECT_EQ(check_double_execution("sleep", "quil-manager-agent"), 3);
    EXPECT_EQ(read_file(pid_path), std::to_string(child.pid)) << "a refused start leaves the record alone";
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(read_file(pid_path), own);
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
    EXPECT_EQ(check(), 2);
    EXPECT_EQ(write(release[1], "x", 1), 1);
    waitpid(child, nullptr, 0);
    for (int fd : {ready[0], ready[1], release[0], release[1]})
        close(fd);
    EXPECT_EQ(check(), 0);

    vk_strlcpy(g_vk_manager_home, (dir.path + "/missing").c_str(), sizeof(g_vk_manager_home));
    EXPECT_EQ(check(), 1);
}

TEST(Util, InfoLogCountsDropsWithWrapAround)
{
    g_info_log.store(0);
    info_log(); // sync with whatever an earlier test left
    const std::pair<uint32_t, uint32_t> steps[] = {
        {10, 10}, {10, 0}, {25, 15}, {5, (4294967295u - 25u) + 5u}}; // backwards: a wrap, one short
    for (const auto &[counter, reported] : steps) {
        g_info_log.store(counter);
        EXPECT_EQ(info_log(), reported) << counter;
    }
    g_info_log.store(0);
    info_log();
}

} // namespace
