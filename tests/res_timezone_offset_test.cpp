// Cross-checks of res_timezone_offset_message (40001) against libprotobuf.
#include "res_timezone_offset.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const agent_codec<res_timezone_offset_message_t> codec = {
    res_timezone_offset_message_new, res_timezone_offset_message_encode, res_timezone_offset_message_decode};

void same(const res_timezone_offset_message_t *record_p, const dg::res_timezone_offset_message &ref)
{
    EXPECT_EQ(record_p->offset_kind, ref.offset_kind());
    EXPECT_EQ(record_p->current_time, ref.current_time());
    EXPECT_EQ(record_p->offset, ref.offset());
}

TEST(res_timezone_offset_message, DefaultsAreOmitted)
{
    check_defaults<dg::res_timezone_offset_message>(codec, same);
}

// West of UTC the offset travels as a two's complement uint64 (ten bytes); offset_kind is 0
// and so never reaches the wire.
TEST(res_timezone_offset_message, NegativeOffsetWithoutOffsetKind)
{
    for (int64_t offset : {int64_t{-18000000}, int64_t{32400000}, int64_t{-1}, INT64_MIN}) {
        workspace ws;
        res_timezone_offset_message_t *record_p = res_timezone_offset_message_new(ws.data(), ws.size);
        ASSERT_NE(record_p, nullptr);
        record_p->current_time = 1739869550123;
        record_p->offset = static_cast<uint64_t>(offset);
        cross_check<dg::res_timezone_offset_message>(codec, record_p, same);
        bytes_t encoded = agent_encode(codec, record_p);
        ASSERT_FALSE(encoded.empty());
        EXPECT_EQ(encoded[0], 0x10) << "field 2 comes first: field 1 is never written";
        if (offset < 0) {
            EXPECT_EQ(encoded.size(), 1 + 6 + 1 + 10u);
        }
    }
}

TEST(res_timezone_offset_message, OffsetKindAgreesWhenSet)
{
    workspace ws;
    res_timezone_offset_message_t *record_p = res_timezone_offset_message_new(ws.data(), ws.size);
    ASSERT_NE(record_p, nullptr);
    record_p->offset_kind = UINT32_MAX;
    cross_check<dg::res_timezone_offset_message>(codec, record_p, same);
}

} // namespace
