// Tests of the Linux start-up helpers: environment readers, the umask rules looked up in the
// properties preset table, and /proc command lines of child processes.
#include "os/linux/olv_linux.h"

#include "daemon_support.h"
#include "pub_func.h"

#include <sys/stat.h>

#include <cstring>
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

// The printed lines and the MGR_QUIL_HOME errors are the daemon scenario's part; here the
// quotes a value loses on its way into the preset table, and the umask rules read from that
// table (no key: the floor of 022 alone; the remove keys win over PERM_FILE_OTHER_WR; a bad value changes
// nothing).
TEST(OlvLinux, EnvironmentAndUmaskRulesGoThroughThePresetTable)
{
    ASSERT_EQ(init_properties_preset(), 0);
    setenv("MGR_QUIL_HOME", "/opt/x", 1);
    setenv("MGR_RECEIVER_ADDR", "\"10.0.0.1:7000\"", 1);
    setenv("PERM_FILE_OTHER_WR", "false", 1); // the environment itself is not consulted
    char home[256], addr[64];
    testing::internal::CaptureStdout();
    EXPECT_EQ(init_environment(home, sizeof(home)), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(home, "/opt/x");
    EXPECT_EQ(get_properties_preset("MGR_RECEIVER_ADDR", addr, sizeof(addr)), 13);
    EXPECT_STREQ(addr, "10.0.0.1:7000");
    for (const char *name : {"MGR_QUIL_HOME", "MGR_RECEIVER_ADDR", "PERM_FILE_OTHER_WR"})
        unsetenv(name);

    const mode_t saved = current_umask();
    ASSERT_EQ(init_properties_preset(), 0);
    // Each row adds a key to the table; the remove keys win over PERM_FILE_OTHER_WR, and
    // group and others never get write permission (a floor of 022).
    const std::tuple<const char *, const char *, mode_t> rules[] = {{"", "", 022},
                                                                    {"PERM_FILE_OTHER_WR", "false", 022},
                                                                    {"REMOVE_PERM_OTHER", "write,exec,read", 026},
                                                                    {"REMOVE_PERM_GROUP", "read", 066}};
    for (const auto &[key, value, mask] : rules) {
        ASSERT_EQ(*key == '\0' ? 0 : put(key, value), 0);
        umask(077);
        EXPECT_EQ(set_umask_from_env(), 0);
        EXPECT_EQ(current_umask(), mask) << key;
    }
    ASSERT_EQ(init_properties_preset(), 0);
    ASSERT_EQ(put("PERM_FILE_OTHER_WR", "maybe"), 0);
    umask(077);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set_umask_from_env(), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(current_umask(), 077);
    ASSERT_EQ(init_properties_preset(), 0);
    umask(saved);
}

// sleep's own argv[0] carries the long command lines, with the name at their start, so only
// the length check can refuse them: "sleep-xx..x\0" "30\0" is `length` bytes in /proc. A
// cut copy is terminated; a gone process has no command line. Live agents and stale pid
// files are the scenario tests' part.
TEST(OlvLinux, ProcCommandLines)
{
    const std::tuple<std::string, int, int, int> cases[] = {// argv[0], length, reader's result, check
                                                            {"/bin/sleep", 14, 0, 1},
                                                            {"sleep-" + std::string(4084, 'x'), 4094, 0, 1},
                                                            {"sleep-" + std::string(4085, 'x'), 4095, -2, 0}};
    pid_t gone = -1;
    for (const auto &[arg0, length, ret, found] : cases) {
        child_process child{spawn({arg0, "30"}, {}, "", "", "/bin/sleep")};
        char buf[4096], out[256], small[6];
        ASSERT_TRUE(eventually([&] { // the child may still be in exec
            return _get_proc_cmdline(child.pid, buf, sizeof(buf)) == length &&
                   strncmp(buf, arg0.c_str(), 7) == 0;
        })) << length;
        EXPECT_EQ(get_process_cmd_by_pid(child.pid, out, sizeof(out)), ret) << length;
        EXPECT_EQ(process_check(child.pid, "sleep"), found) << length;
        if (ret == 0) {
            EXPECT_EQ(get_process_cmd_by_pid(child.pid, small, sizeof(small)), 0);
            EXPECT_EQ(std::string(small), arg0.substr(0, 5)) << "cut and terminated";
        }
        gone = child.pid;
    } // each child is killed and reaped here
    char buf[64];
    EXPECT_EQ(_get_proc_cmdline(gone, buf, sizeof(buf)), -2);
    EXPECT_EQ(get_process_cmd_by_pid(gone, buf, sizeof(buf)), -1);
}

} // namespace
