// Tests of the codec runtime: workspace heap, encoder limits, error texts, and the decoder's
// handling of corrupt, truncated and unexpected input, each with its exact error code.
#include "pbtools.h"

#include "command.h"
#include "common_agent_info.h"
#include "req_time_sync.h"
#include "pb_crosscheck.h"

#include <cstring>

namespace
{

const auto command_codec = AGENT_CODEC(req_command_message);

// Nothing in the agent prints these texts: one smoke check of the lookup and its bound.
TEST(pbtools, ErrorTexts)
{
    EXPECT_STREQ(pbtools_error_code_to_string(-PBTOOLS_LENGTH_DELIMITED_OVERFLOW), "Length delimited overflow");
    EXPECT_STREQ(pbtools_error_code_to_string(INT32_MIN), "Unknown error");
}

// A heap needs 16 bytes, a record its heap and itself; allocations that do not fit leave the
// field unchanged. Every encode buffer shorter than the encoding fails with -4.
TEST(pbtools, NewAllocAndEncodeNeedRoom)
{
    alignas(8) uint8_t area[16 + sizeof(req_command_message_t)];
    EXPECT_EQ(pbtools_heap_new(area, 15), nullptr);
    EXPECT_EQ(req_command_message_new(area, sizeof(area) - 1), nullptr);
    req_command_message_t *m = req_command_message_new(area, sizeof(area));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(req_command_message_target_file_info_alloc(m), -PBTOOLS_OUT_OF_MEMORY);
    EXPECT_EQ(m->target_file_info, nullptr);
    EXPECT_EQ(req_command_message_target_agent_infos_alloc(m, -1), -PBTOOLS_OUT_OF_MEMORY);
    EXPECT_EQ(req_command_message_target_agent_infos_alloc(m, 1), -PBTOOLS_OUT_OF_MEMORY);
    EXPECT_EQ(m->target_agent_infos.length, 0);

    m->execution_id = "e1";
    m->timeout = 1000;
    uint8_t buf[7];
    for (size_t size = 0; size < sizeof(buf); size++) {
        EXPECT_EQ(req_command_message_encode(m, buf, size), -PBTOOLS_ENCODE_BUFFER_FULL) << size;
    }
    ASSERT_EQ(req_command_message_encode(m, buf, sizeof(buf)), 7);
    EXPECT_EQ(bytes_t(buf, buf + 7), (bytes_t{0x0A, 2, 'e', '1', 0x50, 0xE8, 0x07}));
}

// The primitive writers (no message uses them; one smoke test) put fields in call order at the
// buffer start; the _always writers keep defaults, the plain ones drop them; a buffer one
// byte short fails with -4.
TEST(pbtools, EncoderPrimitivesWriteInCallOrder)
{
    const pbtools_bytes_t bytes = {const_cast<uint8_t *>(reinterpret_cast<const uint8_t *>("xyz")), 3};
    const pbtools_bytes_t no_bytes = {nullptr, 0};
    auto write_all = [&](uint8_t *buf, size_t size) {
        pbtools_encoder_t enc;
        pbtools_encoder_init(&enc, buf, size);
        pbtools_encoder_write_int32(&enc, 1, -1);
        pbtools_encoder_write_uint32(&enc, 2, 0);
        pbtools_encoder_write_uint32_always(&enc, 3, 0);
        pbtools_encoder_write_string(&enc, 4, "");
        pbtools_encoder_write_string_always(&enc, 5, nullptr);
        pbtools_encoder_write_bytes(&enc, 6, &no_bytes);
        pbtools_encoder_write_bytes(&enc, 2000, &bytes);
        pbtools_encoder_write_int64_always(&enc, 7, 0);
        pbtools_encoder_write_uint64(&enc, 8, 300);
        return pbtools_encoder_get_result(&enc);
    };
    const bytes_t expected = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x18, 0,
                              0x2A, 0,    0x82, 0x7D, 3,    'x',  'y',  'z',  0x38, 0,    0x40, 0xAC, 0x02};
    bytes_t buf(expected.size());
    ASSERT_EQ(write_all(buf.data(), buf.size()), static_cast<int>(expected.size()));
    EXPECT_EQ(buf, expected);
    EXPECT_EQ(write_all(buf.data(), buf.size() - 1), -PBTOOLS_ENCODE_BUFFER_FULL);
}

// Decodes into a record of a workspace of ws_size bytes.
int decode_command(const bytes_t &data, req_command_message_t **m_pp = nullptr, size_t ws_size = 65536)
{
    static workspace ws(1 << 20);
    req_command_message_t *m = req_command_message_new(ws.data(), ws_size);
    if (m_pp != nullptr) {
        *m_pp = m;
    }
    return m == nullptr ? -100 : req_command_message_decode(m, data.data(), data.size());
}

bytes_t operator+(bytes_t a, const bytes_t &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Field 1 "ab", field 10 = 5, one map entry k=v.
const bytes_t k_command = {0x0A, 2, 'a', 'b', 0x50, 5, 0x5A, 6, 0x0A, 1, 'k', 0x12, 1, 'v'};

TEST(pbtools, UnknownFieldsOfEachWireTypeAreSkipped)
{
    const bytes_t unknown[] = {
        {0xF8, 0x06, 0x96, 0x01},             // field 111, varint
        {0xF9, 0x06, 1, 2, 3, 4, 5, 6, 7, 8}, // field 111, 64-bit
        {0xFA, 0x06, 3, 'x', 'y', 'z'},       // field 111, length-delimited
        {0xFD, 0x06, 1, 2, 3, 4},             // field 111, 32-bit
        {0x98, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, // field 19, 10-byte varint
    };
    for (const bytes_t &field : unknown) {
        bytes_t data = field + k_command + field;
        req_command_message_t *m;
        ASSERT_EQ(decode_command(data, &m), static_cast<int>(data.size()));
        EXPECT_STREQ(m->execution_id, "ab");
        EXPECT_EQ(m->timeout, 5u);
        EXPECT_EQ(m->target_agent_infos.length, 1);
    }
}

// Each body follows a valid prefix, so the error is found mid-message.
TEST(pbtools, CorruptBodiesHaveTheirCodes)
{
    const struct {
        bytes_t data;
        int code;
    } cases[] = {
        {{0xFB, 0x06}, -PBTOOLS_BAD_WIRE_TYPE},                            // unknown field, group start
        {{0xFE, 0x06, 0}, -PBTOOLS_BAD_WIRE_TYPE},                         // unknown field, wire type 6
        {{0xFF, 0x06, 0}, -PBTOOLS_BAD_WIRE_TYPE},                         // unknown field, wire type 7
        {{0x08, 0x01}, -PBTOOLS_BAD_WIRE_TYPE},                            // string field 1 as a varint
        {{0x52, 0x01, 0x05}, -PBTOOLS_BAD_WIRE_TYPE},                      // uint32 field 10 length-delimited
        {{0x0E}, -PBTOOLS_BAD_WIRE_TYPE},                                  // known field 1, wire type 6
        {{0x57}, -PBTOOLS_BAD_WIRE_TYPE},                                  // known field 10, wire type 7
        {{0x5A, 2, 0x0E, 0x00}, -PBTOOLS_BAD_WIRE_TYPE},                   // inside a map entry
        {{0x00, 0x00}, -PBTOOLS_BAD_FIELD_NUMBER},                         // field 0
        {{0x80, 0x00}, -PBTOOLS_BAD_FIELD_NUMBER},                         // field 0 in a padded varint
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, -PBTOOLS_BAD_FIELD_NUMBER}, // tag beyond 32 bits
        {{0x62, 2, 0x00, 0x00}, -PBTOOLS_BAD_FIELD_NUMBER},                // inside the file information
        {{0x50, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x81, 0x00}, -PBTOOLS_VARINT_OVERFLOW},
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, -PBTOOLS_VARINT_OVERFLOW}, // tag
        {{0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x07}, -PBTOOLS_LENGTH_DELIMITED_OVERFLOW}, // 0x7FFFFFFF
        {{0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01},
         -PBTOOLS_LENGTH_DELIMITED_OVERFLOW},
        {{0xFA, 0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0x07}, -PBTOOLS_LENGTH_DELIMITED_OVERFLOW}, // unknown field
        {{0x5A, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, -PBTOOLS_LENGTH_DELIMITED_OVERFLOW},       // map item
        {{0x0A, 0xFE, 0xFF, 0xFF, 0xFF, 0x07, 'a'}, -PBTOOLS_OUT_OF_DATA},                // 0x7FFFFFFE
        {{0x62, 3, 0x0A, 5, 'a'}, -PBTOOLS_OUT_OF_DATA}, // string longer than its sub-message
    };
    for (const auto &c : cases) {
        EXPECT_EQ(decode_command(k_command + c.data), c.code) << testing::PrintToString(c.data);
    }
    // Ten bytes are fine: a uint32 keeps the low 32 bits, as libprotobuf does.
    req_command_message_t *m;
    ASSERT_EQ(decode_command({0x50, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, &m), 11);
    EXPECT_EQ(m->timeout, UINT32_MAX);
    // Null data is an empty body only when its size is 0; a size of 0x7FFFFFFF is refused.
    workspace ws;
    req_time_sync_t *sync_p = ws.fresh(AGENT_CODEC(req_time_sync));
    ASSERT_NE(sync_p, nullptr);
    EXPECT_EQ(req_time_sync_decode(sync_p, nullptr, 0), 0);
    EXPECT_EQ(req_time_sync_decode(sync_p, nullptr, 1), -PBTOOLS_OUT_OF_DATA);
    uint8_t byte = 0;
    EXPECT_EQ(req_time_sync_decode(sync_p, &byte, 0x7FFFFFFF), -PBTOOLS_LENGTH_DELIMITED_OVERFLOW);
}

// Every cut of a valid body either ends on a field boundary (and decodes) or fails with -2.
TEST(pbtools, TruncatedInput)
{
    bytes_t data =
        k_command + bytes_t{0x62, 9, 0x0A, 2, 'f', 'n', 0x1A, 3, 1, 2, 3, 0xF9, 0x06, 1, 2, 3, 4, 5, 6, 7};
    const size_t boundaries[] = {0, 4, 6, 14, 25};
    for (size_t cut = 0; cut < data.size(); cut++) {
        bytes_t part(data.begin(), data.begin() + static_cast<long>(cut));
        bool boundary = std::find(std::begin(boundaries), std::end(boundaries), cut) != std::end(boundaries);
        EXPECT_EQ(decode_command(part), boundary ? static_cast<int>(cut) : -PBTOOLS_OUT_OF_DATA) << cut;
    }
    EXPECT_EQ(decode_command(data + bytes_t{8}), static_cast<int>(data.size() + 1));
}

// Every workspace size, each ending where its allocation ends (so ASan sees any write past
// it): a body either decodes completely or fails with -3, and once a size fits, every larger
// one fits too. The bodies allocate texts, item arrays, nested items and a sub-message.
template <typename T> void check_every_workspace_size(const agent_codec<T> &codec, const bytes_t &data)
{
    bool fitted[2] = {false, false}; // per start alignment: an odd start loses up to 7 bytes
    for (size_t size = 0; size < 1024; size++) {
        std::vector<uint8_t> area(size + size % 2); // odd sizes start 1 byte past the alignment
        T *m = codec.new_fn(area.data() + size % 2, size);
        int result = m == nullptr ? -PBTOOLS_OUT_OF_MEMORY : codec.decode_fn(m, data.data(), data.size());
        ASSERT_TRUE(result == static_cast<int>(data.size()) ||
                    (!fitted[size % 2] && result == -PBTOOLS_OUT_OF_MEMORY))
            << size << ": " << result;
        fitted[size % 2] = result >= 0;
    }
    EXPECT_TRUE(fitted[0] && fitted[1]);
}

TEST(pbtools, WorkspaceTooSmall)
{
    check_every_workspace_size(AGENT_CODEC(common_req_agent_info_message),
                               {0x12, 3,    'a',  'b',  'c', 0x72, 6,    0x08, 4,    0x12, 2, 1,
                                2,    0x72, 0,    0x7A, 3,   0x0A, 1,    9,    0x82, 0x01, 6, 0x0A,
                                1,    'k',  0x12, 1,    'v', 0x82, 0x01, 0,    0x58, 8});
    check_every_workspace_size(
        command_codec, k_command + bytes_t{0x62, 9, 0x0A, 2, 'f', 'n', 0x1A, 3, 1, 2, 3, 0x3A, 1, 'p'});
    // A 9,215-character text needs 9,216 bytes of heap.
    bytes_t data = bytes_t{0x3A, 0xFF, 0x47} + bytes_t(9215, 's');
    req_command_message_t *m;
    ASSERT_EQ(decode_command(data, &m, 16 + sizeof(req_command_message_t) + 9216),
              static_cast<int>(data.size()));
    EXPECT_EQ(strlen(m->install_path), 9215u);
    EXPECT_EQ(decode_command(data, &m, 16 + sizeof(req_command_message_t) + 9215), -PBTOOLS_OUT_OF_MEMORY);
}

// A record made by M_new takes any number of decodes in turn: each gives back the heap of the
// one before. A sub-record decoded on its own takes fresh heap and leaves its parent intact.
TEST(pbtools, DecodingAgainReusesTheWorkspace)
{
    bytes_t text(1000, 't');
    bytes_t data =
        k_command + bytes_t{0x3A, 0xE8, 0x07} + text + bytes_t{0x62, 9, 0x0A, 2, 'f', 'n', 0x1A, 3, 1, 2, 3};
    workspace ws(4096);
    req_command_message_t *m = ws.fresh(command_codec);
    ASSERT_NE(m, nullptr);
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(req_command_message_decode(m, data.data(), data.size()), static_cast<int>(data.size()))
            << round;
        EXPECT_STREQ(m->execution_id, "ab");
        EXPECT_EQ(strlen(m->install_path), text.size());
        ASSERT_EQ(m->target_agent_infos.length, 1);
        EXPECT_STREQ(m->target_agent_infos.items_p[0].value, "v");
        ASSERT_NE(m->target_file_info, nullptr);
        EXPECT_STREQ(m->target_file_info->file_name, "fn");
    }
    const bytes_t file = {0x0A, 3, 'n', 'e', 'w', 0x10, 7};
    ASSERT_EQ(file_info_decode(m->target_file_info, file.data(), file.size()), static_cast<int>(file.size()));
    EXPECT_STREQ(m->target_file_info->file_name, "new");
    EXPECT_EQ(m->target_file_info->file_size, 7u);
    EXPECT_EQ(strlen(m->install_path), text.size());
    EXPECT_STREQ(m->target_agent_infos.items_p[0].key, "k");
}

} // namespace
