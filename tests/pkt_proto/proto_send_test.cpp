// The messages the agent builds for the DG, read back with Google's protobuf library: the
// handshake's agent information and the target agent list.
#include <gtest/gtest.h>

#include <mutex>

#include "agent_home.h"
#include "dg_capture.h"
#include "global_var.h"
#include "pkt_proto/proto_send.h"
#include "vk_address_info.h"
#include "vk_os_info.h"

namespace
{

using daemon_support::write_file;
using dg_capture::fake_dg;

class ProtoSend : public agent_home::AgentHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::AgentHomeTest::SetUp();
        dg.publish();
    }
    fake_dg dg;
};

TEST_F(ProtoSend, AgentInformationCarriesTheHostAndTheStoredManagerId)
{
    clear_ip_list(&g_ip_list);
    clear_mac_list(&g_mac_list);
    ASSERT_EQ(initialize_agent_info(), 0);
    g_agent_boot_time = 1700000000123;
    ASSERT_EQ(send_manager_agent_info(dg.agent), 0);
    auto packets = dg.drain();
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].type(), 10043);
    EXPECT_EQ(packets[0].header[18], 2) << "body kind";
    auto info = packets[0].decode<dg::common_req_agent_info_message>();
    EXPECT_EQ(info.agent_type_name(), "quil-manager-agent");
    EXPECT_EQ(info.agent_kind(), 4);
    EXPECT_EQ(info.agent_mode(), 1);
    EXPECT_EQ(info.protocol_version(), 20241111u);
    EXPECT_EQ(info.os_kind(), 4);
    EXPECT_EQ(info.host_name(), hostname);
    EXPECT_EQ(info.os_version(), osVersion);
    EXPECT_EQ(info.machine_id(), "");
    EXPECT_EQ(info.cpu_count() + info.cpu_core_count() + info.cpu_thread_count(), 0u);
    EXPECT_EQ(info.boot_time(), 1700000000123);
    EXPECT_EQ(info.custom_infos_size(), 0) << "no manager id assigned yet";
    bool loopback = false;
    for (const auto &ip : info.ip_infos()) {
        EXPECT_EQ(ip.ip_address().size(), ip.ip_version() == 4 ? 4u : 16u);
        loopback |= ip.ip_version() == 4 && ip.ip_address() == std::string("\x7f\0\0\x01", 4);
    }
    EXPECT_TRUE(loopback);
    EXPECT_EQ(info.ip_infos_size(), g_ip_list.count);
    for (const auto &mac : info.mac_infos())
        EXPECT_EQ(mac.mac_address().size(), 6u);

    write_file(manager + "/data/manager_id", "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47\n");
    ASSERT_EQ(send_manager_agent_info(dg.agent), 0);
    packets = dg.drain();
    ASSERT_EQ(packets.size(), 1u);
    info = packets[0].decode<dg::common_req_agent_info_message>();
    ASSERT_EQ(info.custom_infos_size(), 1);
    EXPECT_EQ(info.custom_infos().at("manager_id"), "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47");
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    EXPECT_EQ(send_manager_agent_info(pair[0]), -7) << "the peer is gone";
    close(pair[0]);
}

TEST_F(ProtoSend, TargetAgentListCarriesItsOwnStamp)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_count = 0;
    }
    write_file(home + "/a.id", "aaaaaaaa-0000-4000-8000-000000000001\n");
    write_file(manager + "/data/agent_config.json", R"({"g": [{"path": ")" + home + R"(/a.id"}]})");
    ASSERT_EQ(send_target_agent_info(), 0);
    auto packets = dg.drain();
    ASSERT_EQ(packets.size(), 1u);
    const auto &h = packets[0].header;
    EXPECT_EQ(packets[0].type(), 60003);
    EXPECT_EQ(h[18], 1) << "body kind";
    EXPECT_EQ((h[19] << 24) | (h[20] << 16) | (h[21] << 8) | h[22], 60003) << "protocol stamp";
    auto list = packets[0].decode<dg::target_agent_info_message>();
    ASSERT_EQ(list.target_agent_infos_size(), 1);
    EXPECT_EQ(list.target_agent_infos(0).agent_id(), "aaaaaaaa-0000-4000-8000-000000000001");

    write_file(manager + "/data/agent_config.json", "not json");
    EXPECT_EQ(send_target_agent_info(), -2);
    EXPECT_TRUE(dg.drain().empty()) << "nothing is sent for that period";
}

} // namespace
