// The dispatcher's small exchanges beyond what the scenario tests show, from a fake DG over a
// socketpair.
#include "on_demand.h"

#include <sys/stat.h>

#include "agent_home.h"
#include "pkt_proto/proto_send.h"
#include "pub_func.h"

using daemon_support::read_file;

namespace
{

class Dispatch : public agent_home::CommandHomeTest
{
  protected:
    // Dispatches one DG packet of `type` as the connection thread would.
    int dispatch(int type, const std::string &body = "")
    {
        std::string packet = dg_capture::dg_packet(type, body);
        return read_msg_nio(packet.data(), &dg.agent);
    }
};

TEST_F(Dispatch, PingAndTimezoneAnswers)
{
    EXPECT_EQ(dispatch(50000, "ignored body"), 0);
    char answer[64];
    ASSERT_EQ(read(dg.dg, answer, sizeof(answer)), 23) << "written directly, not queued";
    const unsigned char expected[19] = {4, 0, 0, 0, 0, 0, 0, 11, 0x9C, 0x40, 0, 0, 0, 0, 4, 0x01, 0x23, 0xC6, 0x25};
    EXPECT_EQ(memcmp(answer + 4, expected, 19), 0) << "type 40000, body kind 4, stamp 19121701";

    const char *old = getenv("TZ");
    std::string saved = old != nullptr ? old : "";
    setenv("TZ", "America/New_York", 1); // -4 h now in summer, -5 h at the epoch
    EXPECT_EQ(dispatch(50001), 0);
    old != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
    auto packets = dg.drain();
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].type(), 40001);
    auto body = packets[0].decode<dg::res_timezone_offset_message>();
    EXPECT_EQ(static_cast<int64_t>(body.offset()), -18000000);
    EXPECT_NEAR(static_cast<double>(body.current_time()), static_cast<double>(now_time()), 5000.0);
}

TEST_F(Dispatch, HandshakeReplyStoresTheIdCutAndKeepsItOnAFailedWrite)
{
    dg::common_res_agent_info_message reply;
    reply.set_manager_id("3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47-and-more");
    EXPECT_EQ(dispatch(50036, reply.SerializeAsString()), 0);
    EXPECT_EQ(read_file(manager + "/data/manager_id"), "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47\n") << "cut at 36";
    EXPECT_EQ(dispatch(50036, "\x0a\x05" "ab"), -2) << "a body cut short does not decode";
}

TEST_F(Dispatch, TimeSyncMeanTruncatesTowardZero)
{
    EXPECT_EQ(dispatch(50020, "\x08"), -2);
    g_ncnt_timesync = 0;
    for (int sample : {-1, -1, -1, -1, -1, -2, -10, -10, 50, 60})
        diff_time_sync(sample);
    EXPECT_EQ(g_ndif_timesync.load(), -1) << "-7 / 6";
    set_DG_difftime(1); // no caller in the agent yet: a smoke check
    EXPECT_EQ(get_diff_timesync(), -1);
    EXPECT_NEAR(static_cast<double>(get_dgtime()), static_cast<double>(now_time()), 1000.0);
}

} // namespace
