// Tests of the Linux start-up helpers: environment readers, the umask rules looked up in the
// properties preset table, and /proc command lines of child processes. The uname lines are
// checked by the scenario test of -c.
#include "os/linux/olv_linux.h"
#include "pub_conf.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

extern char **environ;

namespace
{

// A child process (`path` run with `args`, args[0] included) that lives until the object
// goes away. Its standard descriptors are /dev/null, so it never holds the test runner's
// output pipe open, even if this process dies first.
struct child_process {
    pid_t pid = -1;
    child_process(const char *path, std::vector<std::string> args)
    {
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd < 3; fd++)
            posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
        if (posix_spawn(&pid, path, &actions, nullptr, argv.data(), environ) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~child_process()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// Restores the process umask.
struct umask_guard {
    mode_t saved = umask(0);
    ~umask_guard() { umask(saved); }
};

// Polls `done` every 10 ms for up to 10 s (a freshly spawned child may still be in exec).
bool eventually(const std::function<bool()> &done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(10000);
    }
    return true;
}

mode_t current_umask()
{
    mode_t m = umask(0);
    umask(m);
    return m;
}

TEST(OlvLinux, GetenvBoundsAndCodes)
{
    char buf[8];
    unsetenv("OLV_TEST_VAR");
    EXPECT_EQ(getenv_vk(buf, sizeof(buf), "OLV_TEST_VAR"), 0);
    EXPECT_STREQ(buf, "");
    setenv("OLV_TEST_VAR", "1234567", 1);
    EXPECT_EQ(getenv_vk(buf, sizeof(buf), "OLV_TEST_VAR"), 7);
    EXPECT_STREQ(buf, "1234567");
    setenv("OLV_TEST_VAR", "12345678", 1);
    EXPECT_EQ(getenv_vk(buf, sizeof(buf), "OLV_TEST_VAR"), -3);
    EXPECT_EQ(getenv_vk(nullptr, sizeof(buf), "OLV_TEST_VAR"), -1);
    EXPECT_EQ(getenv_vk(buf, 0, "OLV_TEST_VAR"), -1);
    unsetenv("OLV_TEST_VAR");
}

TEST(OlvLinux, EnvironmentGoesToThePresetTable)
{
    ASSERT_EQ(init_properties_preset(), 0);
    setenv("MGR_QUIL_HOME", "/opt/x", 1);
    setenv("MGR_RECEIVER_ADDR", "\"10.0.0.1:7000\"", 1);
    char home[256];
    testing::internal::CaptureStdout();
    EXPECT_EQ(init_environment(home, sizeof(home)), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_STREQ(home, "/opt/x");
    EXPECT_EQ(out, "env MGR_QUIL_HOME(6)[/opt/x]\nenv MGR_RECEIVER_ADDR(256)[\"10.0.0.1:7000\"]\n");
    char addr[64];
    EXPECT_EQ(get_properties_preset("MGR_RECEIVER_ADDR", addr, sizeof(addr)), 13);
    EXPECT_STREQ(addr, "10.0.0.1:7000");

    // A 256-character home is refused with the exact text on standard error.
    setenv("MGR_QUIL_HOME", std::string(256, 'h').c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(init_environment(home, sizeof(home)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:-3]\n");
    setenv("MGR_QUIL_HOME", "", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(init_environment(home, sizeof(home)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:0]\n");

    // A too long variable is reported and leaves the table alone.
    setenv("OLV_TEST_LONG", std::string(256, 'a').c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set_config_by_env("OLV_TEST_LONG", "OLV_TEST_LONG", 13), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010010][ERROR] Failed to get environment variable OLV_TEST_LONG.[ret:-3]\n");
    EXPECT_EQ(get_properties_preset("OLV_TEST_LONG", addr, sizeof(addr)), 0);
    unsetenv("OLV_TEST_LONG");
    unsetenv("MGR_QUIL_HOME");
    unsetenv("MGR_RECEIVER_ADDR");
    ASSERT_EQ(init_properties_preset(), 0);
}

TEST(OlvLinux, UmaskRulesComeFromThePresetTable)
{
    umask_guard guard;
    ASSERT_EQ(init_properties_preset(), 0);
    umask(077);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 0) << "no keys: umask 0";

    // The environment itself is not consulted.
    setenv("PERM_FILE_OTHER_WR", "false", 1);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 0);
    unsetenv("PERM_FILE_OTHER_WR");

    ASSERT_EQ(set_properties_preset("PERM_FILE_OTHER_WR", 18, "false", 5), 0);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 02);

    ASSERT_EQ(set_properties_preset("REMOVE_PERM_OTHER", 17, "write,exec,read", 15), 0);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 06) << "the remove keys win over PERM_FILE_OTHER_WR";
    ASSERT_EQ(set_properties_preset("REMOVE_PERM_GROUP", 17, "write", 5), 0);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 026);

    ASSERT_EQ(init_properties_preset(), 0);
    ASSERT_EQ(set_properties_preset("PERM_FILE_OTHER_WR", 18, "maybe", 5), 0);
    umask(077);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set_umask_from_env(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010011][ERROR] environment variable PERM_FILE_OTHER_WR is wrong.[maybe]\n");
    EXPECT_EQ(current_umask(), 077);
    ASSERT_EQ(init_properties_preset(), 0);
}

TEST(OlvLinux, ProcCommandLineOfLiveAndGoneProcesses)
{
    child_process child("/bin/sleep", {"/bin/sleep", "30"});
    ASSERT_GT(child.pid, 0);
    char buf[4096] = {};
    int n = -1;
    // The child may still be in exec: wait until its command line is the new one.
    ASSERT_TRUE(eventually([&] {
        memset(buf, 0, sizeof(buf));
        n = _get_proc_cmdline(child.pid, buf, sizeof(buf));
        return n == 14 && strcmp(buf, "/bin/sleep 30") == 0;
    }));
    ASSERT_EQ(n, 14);
    EXPECT_EQ(std::string(buf, 14), std::string("/bin/sleep 30\0", 14));

    char out[256];
    ASSERT_EQ(get_process_cmd_by_pid(child.pid, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "/bin/sleep 30");
    char small[6];
    ASSERT_EQ(get_process_cmd_by_pid(child.pid, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "/bin/");
    EXPECT_EQ(process_check(child.pid, "sleep"), 1);
    EXPECT_EQ(process_check(child.pid, "quil-manager-agent"), 0);
    EXPECT_EQ(process_check(child.pid, ""), 0);
    EXPECT_EQ(process_check(0, "sleep"), 0);

    pid_t gone = child.pid;
    kill(gone, SIGKILL);
    waitpid(gone, nullptr, 0);
    child.pid = -1;
    EXPECT_EQ(_get_proc_cmdline(gone, buf, sizeof(buf)), -2);
    EXPECT_EQ(get_process_cmd_by_pid(gone, out, sizeof(out)), -1);
    EXPECT_EQ(process_check(gone, "sleep"), 0);
}

TEST(OlvLinux, CommandLinesOf4095BytesAreRefused)
{
    // sleep itself carries the long command line (argv[0] is free text), so no shell and no
    // grandchild is involved: killing the child ends everything it started. The name is at
    // the start, so only the length check can refuse it. "sleep-xx..x\0" "30\0" is
    // `length` bytes in /proc.
    for (int length : {4094, 4095}) {
        child_process child("/bin/sleep", {"sleep-" + std::string(length - 10, 'x'), "30"});
        ASSERT_GT(child.pid, 0);
        char buf[4096];
        ASSERT_TRUE(eventually([&] {
            return _get_proc_cmdline(child.pid, buf, sizeof(buf)) == length &&
                   strncmp(buf, "sleep-x", 7) == 0;
        }));
        char out[256];
        bool refused = length >= 4095;
        EXPECT_EQ(get_process_cmd_by_pid(child.pid, out, sizeof(out)), refused ? -2 : 0) << length;
        EXPECT_EQ(process_check(child.pid, "sleep"), refused ? 0 : 1) << length;
    }
}

} // namespace
