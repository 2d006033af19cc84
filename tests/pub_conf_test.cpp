// The configuration bootstrap: the properties presets, the receiver address, and the config
// file's values reaching the log in a private installation home.
#include "pub_conf.h"

#include "agent_home.h"
#include "global_var.h"
#include "pub_func.h"
#include "vklog.h"

#include <arpa/inet.h>
#include <sys/stat.h>

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
    // A value that does not fit counts as absent and leaves dest alone.
    ASSERT_EQ(set_properties_preset("LONG", 4, "0123456789abcdef", 16), 0);
    EXPECT_EQ(get_properties_preset("LONG", strcpy(buf, "untouched"), 16), 0);
    EXPECT_STREQ(buf, "untouched");
    // Values keep at most 1023 characters, keys 127.
    std::string huge(2000, 'v'), long_key(200, 'k');
    ASSERT_EQ(set_properties_preset(long_key.c_str(), 200, huge.c_str(), 2000), 0);
    char out[1100];
    EXPECT_EQ(get_properties_preset(long_key.substr(0, 127).c_str(), out, sizeof(out)), 1023);
    ASSERT_EQ(init_properties_preset(), 0);
}

std::string dotted(uint32_t ip)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, text, sizeof(text));
    return text;
}

// "<ret> <ip>:<port>" of the parser on `text`, from a zeroed address and port.
std::string parsed(const char *text, int ip_size = 4)
{
    uint32_t ip = 0;
    int32_t port = 0;
    int ret = setDGAddrFromStr(text, &ip, ip_size, &port);
    return std::to_string(ret) + " " + dotted(ip) + ":" + std::to_string(port);
}

TEST(ReceiverAddress, ParserCases)
{
    // Split at the last colon; an IPv6 literal resolves but is not an IPv4 receiver, and the
    // port is stored before the address is checked.
    const std::pair<const char *, const char *> cases[] = {
        {"10.0.0.1:7000", "0 10.0.0.1:7000"}, {"10.0.0.1", "-2 0.0.0.0:0"},
        {"10.0.0.1:0", "-3 0.0.0.0:0"},       {"10.0.0.1:65536", "-3 0.0.0.0:0"},
        {"10.0.0.1:", "-3 0.0.0.0:0"},        {"10.0.0.1:-80", "-3 0.0.0.0:0"},
        {"10.0.0.2:80abc", "0 10.0.0.2:80"},  {"10.0.0.3:65535", "0 10.0.0.3:65535"},
        {"::1:90", "-5 0.0.0.0:90"},          {"localhost:7000", "0 127.0.0.1:7000"}};
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(parsed(text), expected) << text;
    EXPECT_EQ(parsed("10.0.0.1:80", 16), "-5 0.0.0.0:80");
    EXPECT_EQ(parsed(nullptr), "-1 0.0.0.0:0");
}

TEST(ReceiverAddress, SetFromThePresetTable)
{
    // 31 characters still fit, 32 count as not configured (ports with leading zeros).
    const std::string fits = "localhost:" + std::string(17, '0') + "7001";
    const std::pair<std::string, std::string> cases[] = {{"", "0.0.0.0:0 []"},
                                                         {"10.0.0.1:7000", "10.0.0.1:7000 [10.0.0.1:7000]"},
                                                         {fits, "127.0.0.1:7001 [" + fits + "]"},
                                                         {"localhost:0" + fits.substr(10), "0.0.0.0:0 []"}};
    for (const auto &[addr, expected] : cases) {
        ASSERT_EQ(init_properties_preset(), 0);
        int size = static_cast<int>(addr.size());
        ASSERT_EQ(size > 0 ? set_properties_preset("MGR_RECEIVER_ADDR", 17, addr.c_str(), size) : 0, 0);
        EXPECT_EQ(set_dg_address(), 0);
        EXPECT_EQ(dotted(g_dgconn_slave_info.ip) + ":" + std::to_string(g_dgconn_slave_info.port) + " [" +
                      g_dgconn_slave_info.addr_text + "]",
                  expected);
    }
    ASSERT_EQ(init_properties_preset(), 0);
}

using BootstrapTest = agent_home::AgentHomeTest;

TEST_F(BootstrapTest, FileAndTableValuesReachTheLog)
{
    vklog_fini(); // a second bootstrap takes the file's values
    std::ofstream(manager + "/data/config", std::ios::app) << "MGR_LOG_LEVEL=warn\n";
    ASSERT_EQ(initialize_configure_manager_agent(0), 0);
    auto level = [] { return g_vklog.load()->level.load().value; };
    EXPECT_EQ(level(), VKLOG_LEVEL_WARN);

    // update_vklog applies what the table holds.
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "debug", 5), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_WARN) << "nothing changes before the refresh";
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_DEBUG);
    VKLOG_DEBUG(g_vklog.load(), "[pub_conf_test] debug line after refresh\n");
    EXPECT_TRUE(contains(log_text(), "[pub_conf_test] debug line after refresh\n"));

    // A value the library does not know keeps the level and is said once per value.
    const std::string unknown = "[update_vklog] unknown MGR_LOG_LEVEL value[INFO]; the level used is [<debug].\n";
    ASSERT_EQ(update_conf_value_for_key(g_conf_handle, "MGR_LOG_LEVEL", "INFO", 4), 0);
    ASSERT_EQ(update_vklog(), 0);
    ASSERT_EQ(update_vklog(), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_DEBUG);
    std::string text = log_text();
    size_t at = text.find(unknown);
    EXPECT_NE(at, std::string::npos) << text;
    EXPECT_EQ(text.find(unknown, at + 1), std::string::npos) << "once per value";
}

} // namespace
