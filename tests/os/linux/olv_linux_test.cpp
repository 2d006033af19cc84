// Tests of the Linux start-up helpers: environment readers, the umask rules looked up in the
// properties preset table, and /proc command lines of child processes. The uname lines and
// the MGR_QUIL_HOME errors are checked by the scenario tests against the real binary.
#include "os/linux/olv_linux.h"

#include "daemon_support.h"
#include "pub_conf.h"

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <tuple>

namespace
{

using namespace daemon_support;

int put(const char *key, const char *value)
{
    return set_properties_preset(key, static_cast<int>(strlen(key)), value, static_cast<int>(strlen(value)));
}

mode_t current_umask()
{
    mode_t m = umask(0);
    umask(m);
    return m;
}

TEST(OlvLinux, EnvironmentReadersAndThePresetTable)
{
    char buf[8]; // a value must leave room for its terminator
    setenv("OLV_TEST_VAR", "1234567", 1);
    EXPECT_EQ(getenv_vk(buf, sizeof(buf), "OLV_TEST_VAR"), 7);
    setenv("OLV_TEST_VAR", "12345678", 1);
    EXPECT_EQ(getenv_vk(buf, sizeof(buf), "OLV_TEST_VAR"), -3);
    unsetenv("OLV_TEST_VAR");

    // Quotes around a value are dropped on the way into the table.
    ASSERT_EQ(init_properties_preset(), 0);
    setenv("MGR_QUIL_HOME", "/opt/x", 1);
    setenv("MGR_RECEIVER_ADDR", "\"10.0.0.1:7000\"", 1);
    char home[256];
    testing::internal::CaptureStdout();
    EXPECT_EQ(init_environment(home, sizeof(home)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "env MGR_QUIL_HOME(6)[/opt/x]\nenv MGR_RECEIVER_ADDR(256)[\"10.0.0.1:7000\"]\n");
    EXPECT_STREQ(home, "/opt/x");
    char addr[64];
    EXPECT_EQ(get_properties_preset("MGR_RECEIVER_ADDR", addr, sizeof(addr)), 13);
    EXPECT_STREQ(addr, "10.0.0.1:7000");

    // A too long variable is reported and leaves the table alone.
    setenv("OLV_TEST_LONG", std::string(256, 'a').c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set_config_by_env("OLV_TEST_LONG", "OLV_TEST_LONG", 13), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010010][ERROR] Failed to get environment variable OLV_TEST_LONG.[ret:-3]\n");
    EXPECT_EQ(get_properties_preset("OLV_TEST_LONG", addr, sizeof(addr)), 0);
    for (const char *name : {"OLV_TEST_LONG", "MGR_QUIL_HOME", "MGR_RECEIVER_ADDR"})
        unsetenv(name);
    ASSERT_EQ(init_properties_preset(), 0);
}

TEST(OlvLinux, UmaskRulesComeFromThePresetTable)
{
    const mode_t saved = current_umask();
    ASSERT_EQ(init_properties_preset(), 0);
    setenv("PERM_FILE_OTHER_WR", "false", 1); // the environment itself is not consulted
    umask(077);
    EXPECT_EQ(set_umask_from_env(), 0);
    EXPECT_EQ(current_umask(), 0) << "no keys: umask 0";
    unsetenv("PERM_FILE_OTHER_WR");

    // Each row adds a key to the table; the remove keys win over PERM_FILE_OTHER_WR.
    const std::tuple<const char *, const char *, mode_t> rules[] = {
        {"PERM_FILE_OTHER_WR", "false", 02},
        {"REMOVE_PERM_OTHER", "write,exec,read", 06},
        {"REMOVE_PERM_GROUP", "write", 026}};
    for (const auto &[key, value, mask] : rules) {
        ASSERT_EQ(put(key, value), 0);
        EXPECT_EQ(set_umask_from_env(), 0);
        EXPECT_EQ(current_umask(), mask) << key;
    }
    ASSERT_EQ(init_properties_preset(), 0);
    ASSERT_EQ(put("PERM_FILE_OTHER_WR", "maybe"), 0);
    umask(077);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set_umask_from_env(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[KTR-OSM-00010011][ERROR] environment variable PERM_FILE_OTHER_WR is wrong.[maybe]\n");
    EXPECT_EQ(current_umask(), 077);
    ASSERT_EQ(init_properties_preset(), 0);
    umask(saved);
}

TEST(OlvLinux, ProcCommandLineOfLiveAndGoneProcesses)
{
    auto child = std::make_unique<child_process>(std::vector<std::string>{"/bin/sleep", "30"});
    const pid_t pid = child->pid;
    ASSERT_GT(pid, 0);
    char buf[4096] = {};
    ASSERT_TRUE(eventually([&] { // the child may still be in exec
        memset(buf, 0, sizeof(buf));
        return _get_proc_cmdline(pid, buf, sizeof(buf)) == 14;
    }));
    EXPECT_EQ(std::string(buf, 14), std::string("/bin/sleep 30\0", 14));

    char out[256], small[6];
    ASSERT_EQ(get_process_cmd_by_pid(pid, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "/bin/sleep 30");
    ASSERT_EQ(get_process_cmd_by_pid(pid, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "/bin/");
    EXPECT_EQ(process_check(pid, "sleep"), 1);
    EXPECT_EQ(process_check(pid, "quil-manager-agent"), 0);
    EXPECT_EQ(process_check(pid, ""), 0);
    EXPECT_EQ(process_check(0, "sleep"), 0);

    child.reset(); // killed and reaped
    EXPECT_EQ(_get_proc_cmdline(pid, buf, sizeof(buf)), -2);
    EXPECT_EQ(get_process_cmd_by_pid(pid, out, sizeof(out)), -1);
    EXPECT_EQ(process_check(pid, "sleep"), 0);
}

TEST(OlvLinux, CommandLinesOf4095BytesAreRefused)
{
    // sleep's own argv[0] carries the long command line, with the name at its start, so only
    // the length check can refuse it: "sleep-xx..x\0" "30\0" is `length` bytes in /proc.
    for (int length : {4094, 4095}) {
        child_process child({"sleep-" + std::string(length - 10, 'x'), "30"}, "/bin/sleep");
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
