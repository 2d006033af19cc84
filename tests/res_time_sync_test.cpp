// Cross-checks of res_time_sync_message (50020) against libprotobuf.
#include "res_time_sync.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const auto codec = AGENT_CODEC(res_time_sync_message);

void same(const res_time_sync_message_t *record_p, const dg::res_time_sync_message &ref)
{
    SAME(agent_time), SAME(dg_time);
}

TEST(res_time_sync_message, ValuesAgreeWithLibprotobuf)
{
    check_defaults<dg::res_time_sync_message>(codec, same);
    const uint64_t pairs[][2] = {{1739869550123, 1739869549000}, {UINT64_MAX, 0}, {0, UINT64_MAX}};
    for (const auto &pair : pairs) {
        workspace ws;
        res_time_sync_message_t *record_p = ws.fresh(codec);
        ASSERT_NE(record_p, nullptr);
        record_p->agent_time = pair[0];
        record_p->dg_time = pair[1];
        cross_check<dg::res_time_sync_message>(codec, record_p, same);
    }
}

} // namespace
