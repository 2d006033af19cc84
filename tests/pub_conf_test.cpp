// Tests of the configuration bootstrap: the properties preset table, the receiver address
// (parser and set_dg_address; only literal addresses and "localhost"), and, in a private
// installation home, the config file's values reaching the log, update_vklog re-applying a
// changed table value, and run_thread's reports.
#include "pub_conf.h"

#include "daemon_support.h"
#include "global_var.h"
#include "pub_func.h"
#include "vklog.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>

namespace
{

using namespace daemon_support;

TEST(PropertiesPreset, FirstValueWinsAndValuesMustFit)
{
    ASSERT_EQ(init_properties_preset(), 0);
    char buf[16];
    ASSERT_EQ(set_properties_preset("KEY", 3, "first", 5), 0);
    ASSERT_EQ(set_properties_preset("KEY", 3, "second", 6), 0);
    EXPECT_EQ(get_properties_preset("KEY", buf, sizeof(buf)), 5);
    EXPECT_STREQ(buf, "first");
    ASSERT_EQ(set_properties_preset("CUTKEY-IGNORED", 6, "abcdef", 3), 0); // the lengths cut the texts
    EXPECT_EQ(get_properties_preset("CUTKEY", buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "abc");

    // A value that does not fit counts as absent and leaves dest alone.
    ASSERT_EQ(set_properties_preset("LONG", 4, "0123456789abcdef", 16), 0);
    strcpy(buf, "untouched");
    EXPECT_EQ(get_properties_preset("LONG", buf, 16), 0);
    EXPECT_STREQ(buf, "untouched");

    // Values keep at most 1023 characters, keys 127.
    std::string huge(2000, 'v'), long_key(200, 'k');
    ASSERT_EQ(set_properties_preset(long_key.c_str(), 200, huge.c_str(), 2000), 0);
    char out[1100];
    EXPECT_EQ(get_properties_preset(long_key.substr(0, 127).c_str(), out, sizeof(out)), 1023);
    ASSERT_EQ(init_properties_preset(), 0);
    EXPECT_EQ(get_properties_preset("KEY", buf, sizeof(buf)), 0) << "init empties the table";
}

std::string dotted(uint32_t ip)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, text, sizeof(text));
    return text;
}

TEST(ReceiverAddress, ParserCases)
{
    // Split at the last colon; an IPv6 literal resolves but is not an IPv4 receiver, and the
    // port is stored before the address is checked.
    const struct {
        const char *text;
        int ret;
        const char *ip;
        int32_t port;
    } cases[] = {{"10.0.0.1:7000", 0, "10.0.0.1", 7000}, {"10.0.0.1", -2, "0.0.0.0", 0},
                 {"10.0.0.1:0", -3, "0.0.0.0", 0},       {"10.0.0.1:65536", -3, "0.0.0.0", 0},
                 {"10.0.0.1:", -3, "0.0.0.0", 0},        {"10.0.0.1:-80", -3, "0.0.0.0", 0},
                 {"10.0.0.2:80abc", 0, "10.0.0.2", 80},  {"10.0.0.3:65535", 0, "10.0.0.3", 65535},
                 {"::1:90", -5, "0.0.0.0", 90},          {"localhost:7000", 0, "127.0.0.1", 7000}};
    for (const auto &c : cases) {
        uint32_t ip = 0;
        int32_t port = 0;
        EXPECT_EQ(setDGAddrFromStr(c.text, &ip, 4, &port), c.ret) << c.text;
        EXPECT_EQ(dotted(ip), c.ip) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
    uint32_t ip = 0;
    int32_t port = 0;
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:80", &ip, 16, &port), -5);
    EXPECT_EQ(setDGAddrFromStr(nullptr, &ip, 4, &port), -1);
}

TEST(ReceiverAddress, SetFromThePresetTable)
{
    // 31 characters still fit, 32 count as not configured (ports with leading zeros).
    const std::string fits = "localhost:" + std::string(17, '0') + "7001";
    const struct {
        std::string addr;
        const char *ip;
        int32_t port;
        std::string text;
    } cases[] = {{"", "0.0.0.0", 0, ""},
                 {"10.0.0.1:7000", "10.0.0.1", 7000, "10.0.0.1:7000"},
                 {fits, "127.0.0.1", 7001, fits},
                 {"localhost:0" + fits.substr(10), "0.0.0.0", 0, ""},
                 {"10.0.0.1", "0.0.0.0", 0, ""}};
    for (const auto &c : cases) {
        ASSERT_EQ(init_properties_preset(), 0);
        int size = static_cast<int>(c.addr.size());
        ASSERT_EQ(size > 0 ? set_properties_preset("MGR_RECEIVER_ADDR", 17, c.addr.c_str(), size) : 0, 0);
        EXPECT_EQ(set_dg_address(), 0);
        EXPECT_EQ(dotted(g_dgconn_slave_info.ip), c.ip) << c.addr;
        EXPECT_EQ(g_dgconn_slave_info.port, c.port) << c.addr;
        EXPECT_EQ(std::string(g_dgconn_slave_info.addr_text), c.text) << c.addr;
    }
    ASSERT_EQ(init_properties_preset(), 0);
}

// A private installation home with MGR_QUIL_MANAGER_HOME pointing at its manager directory,
// bootstrapped once with the defaults.
class BootstrapTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path.empty());
        ASSERT_EQ(init_global_var(dir.path.c_str()), 0);
        ASSERT_EQ(mkdir(manager.c_str(), 0700), 0);
        ASSERT_EQ(mkdir((manager + "/data").c_str(), 0700), 0);
        setenv("MGR_QUIL_MANAGER_HOME", manager.c_str(), 1);
        testing::internal::CaptureStdout();
        ASSERT_EQ(initialize_configure_manager_agent(0), 0);
        testing::internal::GetCapturedStdout();
        ASSERT_NE(g_vklog.load(), nullptr);
    }
    void TearDown() override
    {
        vklog_fini();
        destroy_configure(g_conf_handle);
        g_conf_handle = nullptr;
        unsetenv("MGR_QUIL_MANAGER_HOME");
    }
    int level() { return g_vklog.load()->level.load().value; }
    std::string log_text() { return read_file(manager + "/log/quil-manager-agent.log"); }

    temp_dir dir{"pub_conf_test"};
    std::string manager = dir.path + "/manager";
};

TEST_F(BootstrapTest, FileAndTableValuesReachTheLog)
{
    EXPECT_EQ(g_vklog_console_debug.load(), g_vklog.load())
        << "without -d the console debug lines go to the file";
    EXPECT_EQ(level(), VKLOG_LEVEL_INFO);
    EXPECT_NE(log_text().find("[print_configure] config MGR_LOG_LEVEL=[info]\n"), std::string::npos);

    // A second bootstrap takes the file's values.
    vklog_fini();
    std::ofstream(manager + "/data/config", std::ios::app) << "MGR_LOG_LEVEL=warn\n";
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_WARN);

    // update_vklog applies what the table holds.
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "debug", 5), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_WARN) << "nothing changes before the refresh";
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_DEBUG);
    VKLOG_DEBUG(g_vklog.load(), "[pub_conf_test] debug line after refresh\n");
    EXPECT_NE(log_text().find("[pub_conf_test] debug line after refresh\n"), std::string::npos);

    // A directory that does not exist is reported and the current one kept; an unexpandable
    // one stops the refresh.
    std::string missing = dir.path + "/nowhere";
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_DIRECTORY", missing.c_str(),
                                        static_cast<int>(missing.size())),
              0);
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_NE(log_text().find("[update_vklog] directory does not exist. config[" + missing + "] convert[" +
                              missing + "]\n"),
              std::string::npos);
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_DIRECTORY", "${PUB_CONF_UNSET}", 17), 0);
    unsetenv("PUB_CONF_UNSET");
    EXPECT_EQ(update_vklog(), -1);
}

void *note_started(void *arg)
{
    static_cast<std::atomic<int> *>(arg)->store(1);
    return nullptr;
}

TEST_F(BootstrapTest, RunThreadLogsSuccessAndFailure)
{
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "debug", 5), 0);
    ASSERT_EQ(update_vklog(), 0);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, VK_THREAD_STACK_SIZE);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    static std::atomic<int> started{0}; // the detached thread may outlive this frame
    pthread_t tid;
    EXPECT_EQ(run_thread(&tid, &attr, note_started, &started, "THR_TEST"), 0);
    EXPECT_TRUE(eventually([] { return started.load() == 1; }));

    // A stack no system can give makes pthread_create fail; the caller goes on.
    pthread_attr_setstacksize(&attr, size_t{1} << 50);
    int ret = run_thread(&tid, &attr, note_started, &started, "THR_HUGE");
    pthread_attr_destroy(&attr);
    ASSERT_NE(ret, 0);
    std::string text = log_text();
    EXPECT_NE(text.find("[run_thread] create success. THR_TEST (0)\n"), std::string::npos);
    EXPECT_NE(text.find("[KTR-OSM-00010030] Failed to create thread. thread_name:THR_HUGE (" +
                        std::to_string(ret) + ")\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("[run_thread] create failed. THR_HUGE (" + std::to_string(ret) + ":" + strerror(ret) +
                        ")\n"),
              std::string::npos);
}

} // namespace
