// Cross-checks of req_time_sync (40006) against libprotobuf.
#include "req_time_sync.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const agent_codec<req_time_sync_t> codec = {req_time_sync_new, req_time_sync_encode, req_time_sync_decode};

void same(const req_time_sync_t *record_p, const dg::req_time_sync &ref)
{
    EXPECT_EQ(record_p->server_time, ref.server_time());
}

TEST(req_time_sync, DefaultsAreOmitted)
{
    check_defaults<dg::req_time_sync>(codec, same);
}

TEST(req_time_sync, ClockValuesAgreeWithLibprotobuf)
{
    for (uint64_t value : {uint64_t{1}, uint64_t{127}, uint64_t{128}, uint64_t{1739869550123}, UINT64_MAX}) {
        workspace ws;
        req_time_sync_t *record_p = req_time_sync_new(ws.data(), ws.size);
        ASSERT_NE(record_p, nullptr);
        record_p->server_time = value;
        cross_check<dg::req_time_sync>(codec, record_p, same);
    }
}

TEST(req_time_sync, MaximumIsTenByteVarint)
{
    workspace ws;
    req_time_sync_t *record_p = req_time_sync_new(ws.data(), ws.size);
    ASSERT_NE(record_p, nullptr);
    record_p->server_time = UINT64_MAX;
    bytes_t expected = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};
    EXPECT_EQ(agent_encode(codec, record_p), expected);
}

// The tenth byte of a varint can only carry bit 63; libprotobuf accepts the other bits there
// and drops them. The agent must read the same clock, not refuse the body or shift in garbage.
TEST(req_time_sync, TenthVarintByteKeepsOnlyBit63LikeLibprotobuf)
{
    const struct {
        uint8_t last;
        uint64_t value;
    } cases[] = {{0x01, UINT64_MAX}, {0x7F, UINT64_MAX}, {0x7E, INT64_MAX}, {0x00, INT64_MAX}};
    for (const auto &c : cases) {
        bytes_t data = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, c.last};
        dg::req_time_sync ref;
        ASSERT_TRUE(ref.ParseFromArray(data.data(), static_cast<int>(data.size())));
        EXPECT_EQ(ref.server_time(), c.value);
        workspace ws;
        int result;
        req_time_sync_t *record_p = agent_decode(codec, ws, data, &result);
        ASSERT_EQ(result, 11) << static_cast<int>(c.last);
        EXPECT_EQ(record_p->server_time, c.value) << static_cast<int>(c.last);
    }
}

} // namespace
