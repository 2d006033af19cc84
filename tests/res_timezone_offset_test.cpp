// Cross-checks of res_timezone_offset_message (40001) against libprotobuf.
#include "res_timezone_offset.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const auto codec = AGENT_CODEC(res_timezone_offset_message);

void same(const res_timezone_offset_message_t *record_p, const dg::res_timezone_offset_message &ref)
{
    SAME(offset_kind), SAME(current_time), SAME(offset);
}

// West of UTC the offset travels as a two's complement uint64 (ten bytes); offset_kind is 0
// and so never reaches the wire, but agrees when a peer does set it.
TEST(res_timezone_offset_message, OffsetsAgreeAndOffsetKindStaysOffTheWire)
{
    check_defaults<dg::res_timezone_offset_message>(codec, same);
    for (int64_t offset : {int64_t{-18000000}, int64_t{32400000}, INT64_MIN}) {
        workspace ws;
        res_timezone_offset_message_t *record_p = ws.fresh(codec);
        ASSERT_NE(record_p, nullptr);
        record_p->current_time = 1739869550123;
        record_p->offset = static_cast<uint64_t>(offset);
        cross_check<dg::res_timezone_offset_message>(codec, record_p, same);
        EXPECT_EQ(agent_encode(codec, record_p)[0], 0x10) << "field 1 is never written";
        record_p->offset_kind = UINT32_MAX;
        cross_check<dg::res_timezone_offset_message>(codec, record_p, same);
    }
}

} // namespace
