// Tests of the Linux start-up helpers: environment readers, the umask rules looked up in the
// properties preset table, and /proc command lines of child processes. The uname lines are
// checked by the scenario test of -c.
#include "os/linux/olv_linux.h"
#include "pub_conf.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char **environ;

namespace
{

// A child process that lives until the object goes away.
struct child_process {
    pid_t pid = -1;
    explicit child_process(std::vector<std::string> args)
    {
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
            pid = -1;
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
    child_process child({"/bin/sleep", "30"});
    ASSERT_GT(child.pid, 0);
    char buf[4096] = {};
    int n = -1;
    // The child may still be in exec: wait until its command line is the new one.
    for (int i = 0; i < 200; i++) {
        memset(buf, 0, sizeof(buf));
        n = _get_proc_cmdline(child.pid, buf, sizeof(buf));
        if (n == 14 && strcmp(buf, "/bin/sleep 30") == 0)
            break;
        usleep(10000);
    }
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
    // The shell stays (a command follows sleep), so its own long command line stays visible.
    std::string filler(4100, 'x');
    child_process child({"/bin/sh", "-c", "sleep 30; :", "sleep", filler});
    ASSERT_GT(child.pid, 0);
    char buf[4096];
    int n = 0;
    for (int i = 0; i < 200 && n < 4096; i++) {
        n = _get_proc_cmdline(child.pid, buf, sizeof(buf));
        usleep(10000);
    }
    EXPECT_EQ(n, 4096);
    char out[256];
    EXPECT_EQ(get_process_cmd_by_pid(child.pid, out, sizeof(out)), -2);
    EXPECT_EQ(process_check(child.pid, "sleep"), 0);
}

} // namespace
