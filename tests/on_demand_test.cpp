// Tests of the dispatcher and the small exchanges it serves: the ping answer, the timezone
// offset, the handshake reply with the manager-id file, the time-sync round, and a type the
// agent does not know. Packets come from a fake DG over a socketpair.
#include "on_demand.h"

#include <sys/stat.h>

#include "agent_home.h"
#include "dg_capture.h"
#include "pkt_proto/proto_send.h"
#include "pub_func.h"

using daemon_support::read_file;

namespace
{

using dg_capture::dg_packet;
using dg_capture::fake_dg;

class Dispatch : public agent_home::AgentHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::AgentHomeTest::SetUp();
        dg.publish();
    }
    // Dispatches one DG packet of `type` as the connection thread would.
    int dispatch(int type, const std::string &body = "")
    {
        std::string packet = dg_packet(type, body);
        return read_msg_nio(packet.data(), &dg.agent);
    }
    fake_dg dg;
};

TEST_F(Dispatch, PingIsAnsweredAtOnceAndUnknownTypesKeepTheConnection)
{
    EXPECT_EQ(dispatch(50000, "ignored body"), 0);
    char answer[64];
    ASSERT_EQ(read(dg.dg, answer, sizeof(answer)), 23) << "written directly, not queued";
    const unsigned char expected[23] = {0xF9, 0xF2, 0xF8, 0, 4, 0, 0, 0, 0, 0, 0, 11, 0x9C, 0x40,
                                        0,    0,    0,    0, 4, 0x01, 0x23, 0xC6, 0x25};
    EXPECT_EQ(memcmp(answer + 4, expected + 4, 19), 0) << "type 40000, body kind 4, stamp 19121701";

    EXPECT_EQ(dispatch(12345), 0);
    EXPECT_EQ(log_count("[KTR-OSM-00060080] Packet processing failed.(12345)"), 1u);
}

TEST_F(Dispatch, TimezoneOffsetIsTakenAtTheEpochInstant)
{
    const char *old = getenv("TZ");
    std::string saved = old != nullptr ? old : "";
    for (auto [zone, offset] : {std::pair{"Asia/Seoul", 32400000LL}, {"America/New_York", -18000000LL}}) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(dispatch(50001), 0);
        auto packets = dg.drain();
        ASSERT_EQ(packets.size(), 1u);
        EXPECT_EQ(packets[0].type(), 40001);
        auto body = packets[0].decode<dg::res_timezone_offset_message>();
        EXPECT_EQ(static_cast<int64_t>(body.offset()), offset) << zone;
        EXPECT_EQ(body.offset_kind(), 0u);
        EXPECT_NEAR(static_cast<double>(body.current_time()), static_cast<double>(now_time()), 5000.0);
    }
    old != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

TEST_F(Dispatch, HandshakeReplyStoresTheIdOrRefusesAnEmptyOne)
{
    dg::common_res_agent_info_message reply;
    reply.set_manager_id("3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47-and-more");
    EXPECT_EQ(dispatch(50036, reply.SerializeAsString()), 0);
    EXPECT_EQ(read_file(manager + "/data/manager_id"), "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47\n") << "cut at 36";
    EXPECT_FALSE(std::ifstream(manager + "/data/manager_id.tmp").good());

    reply.set_manager_id("");
    EXPECT_EQ(dispatch(50036, reply.SerializeAsString()), -3);
    EXPECT_EQ(log_count("[process_res_common_agent_info] wrong manager id"), 1u);
    EXPECT_EQ(dispatch(50036, "\x0a\x05" "ab"), -2) << "a body cut short does not decode";
}

TEST_F(Dispatch, TimeSyncRoundsOfTenGiveTheTrimmedMean)
{
    // The sample is the agent's clock minus the DG's; each reply but the tenth asks again.
    g_ncnt_timesync = 0;
    const int skews[] = {5, 1, 9, 3, 7, 2, 8, 4, 6, 100};
    for (int i = 0; i < 10; i++) {
        dg::res_time_sync_message reply;
        reply.set_agent_time(1000000 + skews[i]);
        reply.set_dg_time(1000000);
        EXPECT_EQ(dispatch(50020, reply.SerializeAsString()), 0);
        EXPECT_EQ(dg.drain().size(), i < 9 ? 1u : 0u) << "request " << i;
    }
    EXPECT_EQ(g_ndif_timesync.load(), 5) << "(3+4+5+6+7+8)/6";
    EXPECT_EQ(log_count("[process_res_timesync] timesync diff:5"), 1u);
    EXPECT_EQ(dispatch(50020, "\x08"), -2);

    for (int sample : {-1, -1, -1, -1, -1, -2, -10, -10, 50, 60})
        diff_time_sync(sample);
    EXPECT_EQ(g_ndif_timesync.load(), -1) << "-7 / 6 truncates toward zero";
    set_DG_difftime(0);
    EXPECT_EQ(get_diff_timesync(), 0);
    EXPECT_NEAR(static_cast<double>(get_dgtime()), static_cast<double>(now_time()), 1000.0);
    set_DG_difftime(1);
    EXPECT_EQ(get_diff_timesync(), -1);
}

} // namespace
