// Cross-checks of req_time_sync (40006) against libprotobuf.
#include "req_time_sync.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const auto codec = AGENT_CODEC(req_time_sync);

void same(const req_time_sync_t *record_p, const dg::req_time_sync &ref)
{
    SAME(server_time);
}

// The all-default body is empty; uint64 up to its maximum (a ten-byte varint) agrees byte for byte.
TEST(req_time_sync, ValuesAgreeWithLibprotobuf)
{
    check_defaults<dg::req_time_sync>(codec, same);
    for (uint64_t value : {uint64_t{1}, uint64_t{127}, uint64_t{128}, uint64_t{1739869550123}, UINT64_MAX}) {
        workspace ws;
        req_time_sync_t *record_p = ws.fresh(codec);
        ASSERT_NE(record_p, nullptr);
        record_p->server_time = value;
        cross_check<dg::req_time_sync>(codec, record_p, same);
    }
}

// The tenth byte of a varint can only carry bit 63; libprotobuf accepts the other bits there
// and drops them. The agent must read the same clock, not refuse the body or shift in garbage.
TEST(req_time_sync, TenthVarintByteKeepsOnlyBit63LikeLibprotobuf)
{
    for (uint8_t last : {0x01, 0x7F, 0x7E, 0x00}) {
        bytes_t data = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, last};
        dg::req_time_sync ref;
        ASSERT_TRUE(ref.ParseFromArray(data.data(), static_cast<int>(data.size())));
        EXPECT_EQ(ref.server_time(), (last & 1) ? UINT64_MAX : INT64_MAX);
        workspace ws;
        int result;
        req_time_sync_t *record_p = agent_decode(codec, ws, data, &result);
        ASSERT_EQ(result, 11);
        same(record_p, ref);
    }
}

} // namespace
