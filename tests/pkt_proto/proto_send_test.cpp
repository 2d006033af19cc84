// The messages the agent builds for the DG, read back with Google's protobuf library: the
// handshake's agent information and the target agent list, for what the scenarios leave out.
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

// The header, the host name and release, the stored manager id and the loopback addresses
// are checked in the handshake by the scenario tests; here the rest of the body.
TEST_F(ProtoSend, AgentInformationFields)
{
    clear_ip_list(&g_ip_list);
    clear_mac_list(&g_mac_list);
    ASSERT_EQ(initialize_agent_info(), 0);
    g_agent_boot_time = 1700000000123;
    ASSERT_EQ(send_manager_agent_info(dg.agent), 0);
    auto packets = dg.drain();
    ASSERT_EQ(packets.size(), 1u);
    auto info = packets[0].decode<dg::common_req_agent_info_message>();
    EXPECT_EQ(info.agent_kind() * 100 + info.agent_mode() * 10 + info.os_kind(), 414);
    EXPECT_EQ(info.machine_id(), "");
    EXPECT_EQ(info.cpu_count() + info.cpu_core_count() + info.cpu_thread_count(), 0u);
    EXPECT_EQ(info.boot_time(), 1700000000123);
    EXPECT_EQ(info.ip_infos_size(), g_ip_list.count);
    for (const auto &ip : info.ip_infos())
        EXPECT_EQ(ip.ip_address().size(), ip.ip_version() == 4 ? 4u : 16u);
    for (const auto &mac : info.mac_infos())
        EXPECT_EQ(mac.mac_address().size(), 6u);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    EXPECT_EQ(send_manager_agent_info(pair[0]), -7) << "the peer is gone";
    close(pair[0]);
}

// The list's stamp and ids are the scenario tests'; a broken agent_config.json sends nothing.
TEST_F(ProtoSend, TargetAgentListNotSentForABrokenConfig)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_count = 0;
    }
    write_file(manager + "/data/agent_config.json", "not json");
    EXPECT_EQ(send_target_agent_info(), -2);
    EXPECT_TRUE(dg.drain().empty());
}

} // namespace
