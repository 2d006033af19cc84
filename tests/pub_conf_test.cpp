// Tests of the configuration bootstrap: the properties preset table, the receiver address
// (parser and set_dg_address; only literal addresses and "localhost"), and, in a private
// installation home, the first-start config file, the logging set-up and update_vklog
// re-applying a changed table value.
#include "pub_conf.h"

#include "global_var.h"
#include "pub_func.h"
#include "vk_string.h"
#include "vklog.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace
{

std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(PropertiesPreset, FirstValueWinsAndValuesMustFit)
{
    ASSERT_EQ(init_properties_preset(), 0);
    char buf[16];
    EXPECT_EQ(get_properties_preset("KEY", buf, sizeof(buf)), 0);
    ASSERT_EQ(set_properties_preset("KEY", 3, "first", 5), 0);
    ASSERT_EQ(set_properties_preset("KEY", 3, "second", 6), 0);
    EXPECT_EQ(get_properties_preset("KEY", buf, sizeof(buf)), 5);
    EXPECT_STREQ(buf, "first");

    // key_len and value_len cut the texts.
    ASSERT_EQ(set_properties_preset("CUTKEY-IGNORED", 6, "abcdef", 3), 0);
    EXPECT_EQ(get_properties_preset("CUTKEY", buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "abc");

    // A value that does not fit counts as absent and leaves dest alone.
    ASSERT_EQ(set_properties_preset("LONG", 4, "0123456789abcdef", 16), 0);
    strcpy(buf, "untouched");
    EXPECT_EQ(get_properties_preset("LONG", buf, 16), 0);
    EXPECT_STREQ(buf, "untouched");
    char big[17];
    EXPECT_EQ(get_properties_preset("LONG", big, sizeof(big)), 16);

    // Values keep at most 1023 characters, keys 127.
    std::string huge(2000, 'v'), long_key(200, 'k');
    ASSERT_EQ(set_properties_preset(long_key.c_str(), 200, huge.c_str(), 2000), 0);
    char out[1100];
    EXPECT_EQ(get_properties_preset(long_key.substr(0, 127).c_str(), out, sizeof(out)), 1023);
    EXPECT_EQ(get_properties_preset(nullptr, out, sizeof(out)), -1);
    EXPECT_EQ(set_properties_preset(nullptr, 1, "x", 1), -1);

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
    uint32_t ip = 0;
    int32_t port = 0;
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:7000", &ip, 4, &port), 0);
    EXPECT_EQ(dotted(ip), "10.0.0.1");
    EXPECT_EQ(port, 7000);

    ip = 0;
    port = 0;
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1", &ip, 4, &port), -2);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:0", &ip, 4, &port), -3);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:65536", &ip, 4, &port), -3);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:", &ip, 4, &port), -3);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:-80", &ip, 4, &port), -3);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(ip, 0u);

    EXPECT_EQ(setDGAddrFromStr("10.0.0.2:80abc", &ip, 4, &port), 0);
    EXPECT_EQ(dotted(ip), "10.0.0.2");
    EXPECT_EQ(port, 80);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.3:65535", &ip, 4, &port), 0);
    EXPECT_EQ(port, 65535);

    // Split at the last colon; an IPv6 literal resolves but is not an IPv4 receiver.
    ip = 0;
    EXPECT_EQ(setDGAddrFromStr("::1:90", &ip, 4, &port), -5);
    EXPECT_EQ(port, 90) << "the port is stored before the address is checked";
    EXPECT_EQ(ip, 0u);
    EXPECT_EQ(setDGAddrFromStr("10.0.0.1:80", &ip, 16, &port), -5);

    EXPECT_EQ(setDGAddrFromStr("localhost:7000", &ip, 4, &port), 0);
    EXPECT_EQ(dotted(ip), "127.0.0.1");
    EXPECT_EQ(setDGAddrFromStr(nullptr, &ip, 4, &port), -1);
}

TEST(ReceiverAddress, SetFromThePresetTable)
{
    ASSERT_EQ(init_properties_preset(), 0);
    EXPECT_EQ(set_dg_address(), 0);
    EXPECT_EQ(g_dgconn_slave_info.ip, 0u);

    ASSERT_EQ(set_properties_preset("MGR_RECEIVER_ADDR", 17, "10.0.0.1:7000", 13), 0);
    EXPECT_EQ(set_dg_address(), 0);
    EXPECT_EQ(dotted(g_dgconn_slave_info.ip), "10.0.0.1");
    EXPECT_EQ(g_dgconn_slave_info.port, 7000);
    EXPECT_STREQ(g_dgconn_slave_info.addr_text, "10.0.0.1:7000");

    // 31 characters still fit; 32 count as not configured.
    for (size_t len : {31u, 32u}) {
        std::string addr = "localhost:" + std::string(len - 14, '0') + "7001"; // port with leading zeros
        ASSERT_EQ(addr.size(), len);
        ASSERT_EQ(init_properties_preset(), 0);
        ASSERT_EQ(set_properties_preset("MGR_RECEIVER_ADDR", 17, addr.c_str(), static_cast<int>(len)), 0);
        EXPECT_EQ(set_dg_address(), 0);
        if (len == 31) {
            EXPECT_EQ(dotted(g_dgconn_slave_info.ip), "127.0.0.1");
            EXPECT_EQ(g_dgconn_slave_info.port, 7001);
            EXPECT_EQ(std::string(g_dgconn_slave_info.addr_text), addr);
        } else {
            EXPECT_EQ(g_dgconn_slave_info.ip, 0u);
            EXPECT_EQ(g_dgconn_slave_info.port, 0);
        }
    }

    ASSERT_EQ(init_properties_preset(), 0);
    ASSERT_EQ(set_properties_preset("MGR_RECEIVER_ADDR", 17, "10.0.0.1", 8), 0);
    EXPECT_EQ(set_dg_address(), 0);
    EXPECT_EQ(g_dgconn_slave_info.ip, 0u);
    EXPECT_STREQ(g_dgconn_slave_info.addr_text, "");
    ASSERT_EQ(init_properties_preset(), 0);
}

// A private installation home with MGR_QUIL_MANAGER_HOME pointing at its manager directory.
class BootstrapTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/pub_conf_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        home = tmpl;
        manager = home + "/manager";
        ASSERT_EQ(init_global_var(home.c_str()), 0);
        ASSERT_EQ(mkdir(manager.c_str(), 0700), 0);
        ASSERT_EQ(mkdir((manager + "/data").c_str(), 0700), 0);
        setenv("MGR_QUIL_MANAGER_HOME", manager.c_str(), 1);
    }
    void TearDown() override
    {
        vklog_fini();
        destroy_configure(g_conf_handle);
        g_conf_handle = nullptr;
        unsetenv("MGR_QUIL_MANAGER_HOME");
        std::string cmd = "rm -rf '" + home + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    std::string log_text() { return read_file(manager + "/log/quil-manager-agent.log"); }

    std::string home;
    std::string manager;
};

TEST_F(BootstrapTest, FirstStartWritesDefaultsAndSetsUpTheLog)
{
    std::string config = manager + "/data/config";
    testing::internal::CaptureStdout();
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[main] (" + config + ") file already exists.\n");
    EXPECT_EQ(read_file(config), "MGR_INTERVAL_INFO_LOG=300\n"
                                 "MGR_LOG_DIRECTORY=${MGR_QUIL_MANAGER_HOME}/log\n"
                                 "MGR_LOG_FILENAME=quil-manager-agent.log\n"
                                 "MGR_LOG_LEVEL=info\n"
                                 "MGR_INTERVAL_GARBAGE_COLLECT=86400\n");
    vklog_t *log = g_vklog.load();
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(g_vklog_console_debug.load(), log) << "without -d the console debug lines go to the file";
    EXPECT_EQ(log->level.load().value, VKLOG_LEVEL_INFO);
    EXPECT_NE(log_text().find("[print_configure] config MGR_LOG_LEVEL=[info]\n"), std::string::npos);

    // A second bootstrap finds the file, prints nothing and takes its values.
    vklog_fini();
    std::ofstream(config, std::ios::app) << "MGR_LOG_LEVEL=warn\n";
    testing::internal::CaptureStdout();
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    ASSERT_NE(g_vklog.load(), nullptr);
    EXPECT_EQ(g_vklog.load()->level.load().value, VKLOG_LEVEL_WARN);
}

TEST_F(BootstrapTest, UpdateVklogAppliesAChangedTableValue)
{
    testing::internal::CaptureStdout();
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    testing::internal::GetCapturedStdout();
    vklog_t *log = g_vklog.load();
    ASSERT_NE(log, nullptr);
    ASSERT_EQ(log->level.load().value, VKLOG_LEVEL_INFO);

    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "debug", 5), 0);
    EXPECT_EQ(log->level.load().value, VKLOG_LEVEL_INFO) << "nothing changes before the refresh";
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_EQ(g_vklog.load()->level.load().value, VKLOG_LEVEL_DEBUG);
    VKLOG_DEBUG(g_vklog.load(), "[pub_conf_test] debug line after refresh\n");

    // A directory that does not exist is reported and the current one kept.
    std::string missing = home + "/nowhere";
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_DIRECTORY", missing.c_str(),
                                        static_cast<int>(missing.size())),
              0);
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "info", 4), 0);
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_EQ(g_vklog.load()->level.load().value, VKLOG_LEVEL_INFO);
    std::string text = log_text();
    EXPECT_NE(text.find("[pub_conf_test] debug line after refresh\n"), std::string::npos);
    EXPECT_NE(text.find("[update_vklog] directory does not exist. config[" + missing + "] convert[" +
                        missing + "]\n"),
              std::string::npos);
    EXPECT_NE(access(missing.c_str(), F_OK), 0);

    // An unexpandable directory stops the refresh before anything is applied.
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
    testing::internal::CaptureStdout();
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "debug", 5), 0);
    ASSERT_EQ(update_vklog(), 0);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, VK_THREAD_STACK_SIZE);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // Static: the detached thread may outlive this test's frame on a slow machine.
    static std::atomic<int> started{0};
    pthread_t tid;
    EXPECT_EQ(run_thread(&tid, &attr, note_started, &started, "THR_TEST"), 0);
    for (int i = 0; i < 5000 && started.load() == 0; i++)
        usleep(2000);
    EXPECT_EQ(started.load(), 1);

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
