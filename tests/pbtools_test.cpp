// The codec runtime (heap, encoder limits, bad input with its exact codes) and the fifteen DG
// messages, cross-checked against libprotobuf (dg_protocol.proto) both ways.
#include "pbtools.h"

#include "command.h"
#include "common_agent_info.h"
#include "req_time_sync.h"
#include "res_time_sync.h"
#include "res_timezone_offset.h"

#include "dg_protocol.pb.h"

#include <gtest/gtest.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace
{

using bytes_t = std::vector<uint8_t>;

// The three operations of one agent message.
template <typename T> struct agent_codec {
    T *(*new_fn)(void *, size_t);
    int (*encode_fn)(const T *, uint8_t *, size_t);
    int (*decode_fn)(T *, const uint8_t *, size_t);
};
#define AGENT_CODEC(name) (agent_codec<name##_t>{name##_new, name##_encode, name##_decode})

// An 8-byte aligned workspace of the given size.
struct workspace {
    explicit workspace(size_t size = 65536) : words((size + 7) / 8), size(size) {}
    void *data() { return words.data(); }
    // A fresh record of this workspace (null only if the workspace cannot hold it).
    template <typename T> T *fresh(const agent_codec<T> &codec) { return codec.new_fn(data(), size); }
    std::vector<uint64_t> words;
    size_t size;
};

// Decodes into a fresh record of ws; the result code goes to *result_p.
template <typename T>
T *agent_decode(const agent_codec<T> &codec, workspace &ws, const bytes_t &data, int *result_p)
{
    T *record_p = ws.fresh(codec);
    *result_p =
        record_p == nullptr ? -PBTOOLS_OUT_OF_MEMORY : codec.decode_fn(record_p, data.data(), data.size());
    return record_p;
}

// libprotobuf's deterministic output: fields in number order, map entries sorted by key.
inline bytes_t ref_encode(const google::protobuf::MessageLite &message)
{
    std::string out;
    {
        google::protobuf::io::StringOutputStream stream(&out);
        google::protobuf::io::CodedOutputStream coded(&stream);
        coded.SetSerializationDeterministic(true);
        EXPECT_TRUE(message.SerializeToCodedStream(&coded));
    }
    return bytes_t(out.begin(), out.end());
}

// One field of an agent record against libprotobuf's value: numbers as they are, texts and
// bytes as strings, maps as sets (libprotobuf keeps no entry order).
template <typename A, typename B> void expect_same(const A &ours, const B &theirs, const char *name)
{
    EXPECT_EQ(ours, theirs) << name;
}
inline void expect_same(const char *ours, const std::string &theirs, const char *name)
{
    EXPECT_STREQ(ours, theirs.c_str()) << name;
}
inline void expect_same(const pbtools_bytes_t &ours, const std::string &theirs, const char *name)
{
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(ours.buf_p), ours.size), theirs) << name;
}
inline void expect_same(const pbtools_repeated<pbtools_map_entry_t> &ours,
                        const google::protobuf::Map<std::string, std::string> &theirs, const char *name)
{
    std::map<std::string, std::string> ours_set;
    for (int32_t i = 0; i < ours.length; i++)
        ours_set[ours.items_p[i].key] = ours.items_p[i].value;
    EXPECT_EQ(ours_set, (std::map<std::string, std::string>(theirs.begin(), theirs.end()))) << name;
}
// Used inside a `same(record_p, ref)` comparison: SAME(a), SAME(b), ... lists the fields.
#define SAME(field) expect_same(record_p->field, ref.field(), #field)

// Repeated sub-messages item by item, with the message's own comparison.
template <typename T, typename Items, typename Same>
void same_items(const pbtools_repeated<T> &ours, const Items &theirs, Same same)
{
    ASSERT_EQ(ours.length, theirs.size());
    for (int i = 0; i < theirs.size(); i++)
        same(&ours.items_p[i], theirs.Get(i));
}

// Each text (libprotobuf's text format; the empty text, all defaults, is always tried first)
// is encoded by libprotobuf, decoded by the agent and compared field by field, then encoded
// again by the agent: libprotobuf must read that back as the same message and, when
// `canonical`, the bytes must be identical.
template <typename Ref, typename T, typename Same>
void cross_check(const agent_codec<T> &codec, Same same, std::vector<std::string> texts, bool canonical = true)
{
    texts.insert(texts.begin(), "");
    for (const std::string &text : texts) {
        SCOPED_TRACE(Ref().GetTypeName() + " { " + text.substr(0, 200) + " }");
        Ref ref;
        ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &ref));
        const bytes_t theirs = ref_encode(ref);
        workspace ws(theirs.size() * 2 + 65536);
        int result;
        T *record_p = agent_decode(codec, ws, theirs, &result);
        ASSERT_EQ(result, static_cast<int>(theirs.size())) << pbtools_error_code_to_string(result);
        same(record_p, ref);
        bytes_t ours(theirs.size() + 1024);
        int size = codec.encode_fn(record_p, ours.data(), ours.size());
        ASSERT_GE(size, 0) << pbtools_error_code_to_string(size);
        ours.resize(static_cast<size_t>(size));
        Ref back;
        ASSERT_TRUE(back.ParseFromArray(ours.data(), size));
        EXPECT_EQ(ref_encode(back), theirs);
        EXPECT_TRUE(!(canonical || text.empty()) || ours == theirs) << "not libprotobuf's bytes";
    }
}

const auto command_codec = AGENT_CODEC(req_command_message);

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

// Smoke test of the primitive writers and error texts, which nothing in the agent uses: the
// _always writers keep defaults, the plain ones drop them; one byte short fails with -4.
TEST(pbtools, EncoderPrimitivesSmoke)
{
    EXPECT_STREQ(pbtools_error_code_to_string(-PBTOOLS_LENGTH_DELIMITED_OVERFLOW), "Length delimited overflow");
    EXPECT_STREQ(pbtools_error_code_to_string(INT32_MIN), "Unknown error");
    const pbtools_bytes_t bytes = {const_cast<uint8_t *>(reinterpret_cast<const uint8_t *>("xyz")), 3}, none = {};
    auto write_all = [&](uint8_t *buf, size_t size) {
        pbtools_encoder_t enc;
        pbtools_encoder_init(&enc, buf, size);
        pbtools_encoder_write_int32(&enc, 1, -1);
        pbtools_encoder_write_uint32(&enc, 2, 0);
        pbtools_encoder_write_uint32_always(&enc, 3, 0);
        pbtools_encoder_write_string(&enc, 4, "");
        pbtools_encoder_write_string_always(&enc, 5, nullptr);
        pbtools_encoder_write_bytes(&enc, 6, &none);
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
        {{0x08, 0x01}, -PBTOOLS_BAD_WIRE_TYPE},                            // string field 1 as a varint
        {{0x52, 0x01, 0x05}, -PBTOOLS_BAD_WIRE_TYPE},                      // uint32 field 10 length-delimited
        {{0x0E}, -PBTOOLS_BAD_WIRE_TYPE},                                  // known field 1, wire type 6
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

// Repeated decodes into one record (the agent uses a fresh workspace per packet): 20 rounds fit
// a workspace that holds only a few, so each gives back the heap of the one before.
TEST(pbtools, DecodingAgainReusesTheWorkspace)
{
    bytes_t data = k_command + bytes_t{0x3A, 0xE8, 0x07} + bytes_t(1000, 't') + bytes_t{0x62, 3, 0x0A, 1, 'f'};
    workspace ws(4096);
    req_command_message_t *m = ws.fresh(command_codec);
    ASSERT_NE(m, nullptr);
    for (int round = 0; round < 20; round++)
        ASSERT_EQ(req_command_message_decode(m, data.data(), data.size()), static_cast<int>(data.size())) << round;
    EXPECT_EQ(strlen(m->install_path), 1000u);
}

#define CROSS_CHECK(name, ...) cross_check<dg::name>(AGENT_CODEC(name), same_##name, __VA_ARGS__)
// The field-by-field comparison of one message: SAME_AS(name) { SAME(field), ...; }
#define SAME_AS(name) void same_##name(const name##_t *record_p, const dg::name &ref)

SAME_AS(req_time_sync) { SAME(server_time); }
SAME_AS(res_time_sync_message) { SAME(agent_time), SAME(dg_time); }
SAME_AS(res_timezone_offset_message) { SAME(offset_kind), SAME(current_time), SAME(offset); }
SAME_AS(common_ip_info) { SAME(ip_version), SAME(ip_address), SAME(ip_extra); }
SAME_AS(common_mac_info) { SAME(mac_address); }
SAME_AS(common_req_agent_info_message)
{
    SAME(agent_time), SAME(agent_type_name), SAME(agent_version), SAME(agent_kind), SAME(agent_mode);
    SAME(protocol_version), SAME(host_name), SAME(machine_id), SAME(os_kind), SAME(os_version);
    SAME(cpu_count), SAME(cpu_core_count), SAME(cpu_thread_count), SAME(custom_infos), SAME(boot_time);
    same_items(record_p->ip_infos, ref.ip_infos(), same_common_ip_info);
    same_items(record_p->mac_infos, ref.mac_infos(), same_common_mac_info);
}
SAME_AS(common_res_agent_info_message) { SAME(manager_id), SAME(protocol_version), SAME(dg_protocol_version); }
SAME_AS(common_req_agent_config_message) { SAME(config_name); }
SAME_AS(common_res_agent_config_message) { SAME(configs); }
SAME_AS(file_info) { SAME(file_name), SAME(file_size), SAME(file_data); }
// A missing sub-message is null on the agent's side and absent on libprotobuf's.
void same_file_field(const file_info_t *record_p, bool ref_has, const dg::file_info &ref)
{
    ASSERT_EQ(record_p != nullptr, ref_has);
    if (record_p != nullptr)
        same_file_info(record_p, ref);
}
SAME_AS(req_command_message)
{
    SAME(execution_id), SAME(command_id), SAME(cmd_type), SAME(agent_id), SAME(agent_type);
    SAME(install_username), SAME(install_path), SAME(run_username), SAME(run_path), SAME(timeout);
    SAME(target_agent_infos);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}
SAME_AS(res_command_message)
{
    SAME(manager_id), SAME(time), SAME(phase_type), SAME(execution_id), SAME(command_id), SAME(cmd_type);
    SAME(agent_id), SAME(agent_type), SAME(result), SAME(result_message);
}
SAME_AS(target_agent_info) { SAME(agent_id); }
SAME_AS(target_agent_info_message)
{
    same_items(record_p->target_agent_infos, ref.target_agent_infos(), same_target_agent_info);
}
SAME_AS(req_file_chunk_message)
{
    SAME(execution_id), SAME(agent_id), SAME(chunk_size), SAME(chunk_index), SAME(chunk_count), SAME(chunk_data);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}

const std::string k_long(9215, 'x');
const char *const k_file = R"(file_name: "patch_3.0.12.sh" file_size: 4096 file_data: "#!/bin/sh\n\000binary\377")";

TEST(Messages, AgreeWithLibprotobufBothWays)
{
#if defined(__SANITIZE_THREAD__)
    // Single-threaded; libprotobuf's text-format parser faults on map fields in this build.
    GTEST_SKIP() << "no threads to check; the reference library's text parser fails under TSan";
#endif
    CROSS_CHECK(req_time_sync, {"server_time: 1", "server_time: 128", "server_time: 18446744073709551615"});
    CROSS_CHECK(res_time_sync_message, {"agent_time: 1739869550123 dg_time: 1739869549000",
                                        "agent_time: 18446744073709551615", "dg_time: 18446744073709551615"});
    // West of UTC the offset travels as a two's complement uint64 (ten bytes).
    CROSS_CHECK(res_timezone_offset_message, {"current_time: 1739869550123 offset: 18446744073691551616",
                                              "offset_kind: 4294967295 offset: 9223372036854775808"});

    const std::string ip = R"(ip_version: 6 ip_address: "\376\200\0\0\0\0\0\0\002\021\"\377\3763DU" ip_extra: -7)";
    CROSS_CHECK(common_ip_info, {ip});
    CROSS_CHECK(common_mac_info, {R"(mac_address: "RT\000\0224V")"});
    // An address item that encodes to nothing keeps its tag and empty length.
    CROSS_CHECK(common_req_agent_info_message,
                {R"(agent_time: -1 agent_type_name: "quil-manager-agent" agent_kind: -2 agent_mode: -2147483648
                    protocol_version: 4294967295 host_name: ")" + k_long + R"(" machine_id: "\355\225\234\352\270\200-host"
                    os_kind: 1 os_version: "Linux 6.1.0" cpu_count: 2147483647 cpu_core_count: 8 cpu_thread_count: 16
                    ip_infos { )" + ip + R"( } ip_infos {} ip_infos { ip_version: 4 }
                    mac_infos { mac_address: "RT\000\0224V" } mac_infos {}
                    custom_infos { key: "a_first" value: "1" } custom_infos { key: "manager_id" value: "0b6f4c2e" }
                    boot_time: -9223372036854775808)"});
    CROSS_CHECK(common_res_agent_info_message,
                {R"(manager_id: "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99" protocol_version: 3 dg_protocol_version: 4294967295)"});
    CROSS_CHECK(common_req_agent_config_message, {R"(config_name: "agent_config")"});
    CROSS_CHECK(common_res_agent_config_message,
                {R"(configs { key: "alpha" value: "1" } configs { key: "zeta" value: "26" })"});
    // libprotobuf writes an empty key or value, the agent leaves it out: the same message.
    CROSS_CHECK(common_res_agent_config_message,
                {R"(configs { key: "zeta" } configs { value: "no key" } configs { key: "alpha" value: "1" })"}, false);

    CROSS_CHECK(file_info, {k_file});
    // An enum value without a name and a negative agent type; an empty file information is
    // present and keeps its tag.
    const std::string command = R"(execution_id: "exec-20250218-0001" command_id: "cmd-77" cmd_type: -4
        agent_id: "agent-0001" agent_type: -2147483648 install_username: "quil" install_path: "/opt/quil/agent"
        run_path: "/opt/quil/agent/bin" timeout: 600000
        target_agent_infos { key: "backup" value: "yes" } target_agent_infos { key: "restart" value: "after" })";
    CROSS_CHECK(req_command_message, {command, command + " target_file_info {}",
                                      command + " target_file_info {" + k_file + "}"});
    CROSS_CHECK(res_command_message,
                {R"(manager_id: "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99" time: 18446744073709551615 phase_type: done
                    execution_id: "exec-20250218-0001" command_id: "c" cmd_type: agent_restart agent_id: "agent-0001"
                    agent_type: -1 result: FAIL result_message: ")" + k_long + "\""});
    CROSS_CHECK(target_agent_info, {R"(agent_id: "b")"});
    // Items that encode to nothing are still written, in array order.
    CROSS_CHECK(target_agent_info_message, {R"(target_agent_infos {} target_agent_infos { agent_id: "b" } target_agent_infos {})"});
    const std::string chunk = R"(execution_id: "exec-20250218-0001" agent_id: "agent-0001" chunk_size: 9215
        chunk_index: 18446744073709551614 chunk_count: 18446744073709551615 chunk_data: ")" + k_long + "\"";
    CROSS_CHECK(req_file_chunk_message, {chunk, chunk + R"( target_file_info { file_name: "patch.sh" file_size: 1048576 })"});
}

// The tenth byte of a varint can only carry bit 63; libprotobuf accepts the other bits there
// and drops them. The agent must read the same clock, not refuse the body or shift in garbage.
TEST(Messages, TenthVarintByteKeepsOnlyBit63LikeLibprotobuf)
{
    for (uint8_t last : {0x01, 0x7F, 0x7E, 0x00}) {
        bytes_t data = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, last};
        dg::req_time_sync ref;
        ASSERT_TRUE(ref.ParseFromArray(data.data(), static_cast<int>(data.size())));
        EXPECT_EQ(ref.server_time(), (last & 1) ? UINT64_MAX : INT64_MAX);
        workspace ws;
        int result;
        req_time_sync_t *record_p = agent_decode(AGENT_CODEC(req_time_sync), ws, data, &result);
        ASSERT_EQ(result, 11);
        same_req_time_sync(record_p, ref);
    }
}

} // namespace
