// Cross-checks of the handshake messages (10043, 50036), their address items and the
// agent-config pair against libprotobuf.
#include "common_agent_info.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

#include <google/protobuf/stubs/common.h>
#if GOOGLE_PROTOBUF_VERSION < 4022000
#include <google/protobuf/stubs/logging.h>
#endif

#include <algorithm>
#include <random>

namespace
{

const agent_codec<common_ip_info_t> ip_codec = {common_ip_info_new, common_ip_info_encode,
                                                common_ip_info_decode};
const agent_codec<common_mac_info_t> mac_codec = {common_mac_info_new, common_mac_info_encode,
                                                  common_mac_info_decode};
const agent_codec<common_req_agent_info_message_t> req_codec = {common_req_agent_info_message_new,
                                                                common_req_agent_info_message_encode,
                                                                common_req_agent_info_message_decode};
const agent_codec<common_res_agent_info_message_t> res_codec = {common_res_agent_info_message_new,
                                                                common_res_agent_info_message_encode,
                                                                common_res_agent_info_message_decode};
const agent_codec<common_req_agent_config_message_t> req_config_codec = {
    common_req_agent_config_message_new, common_req_agent_config_message_encode,
    common_req_agent_config_message_decode};
const agent_codec<common_res_agent_config_message_t> res_config_codec = {
    common_res_agent_config_message_new, common_res_agent_config_message_encode,
    common_res_agent_config_message_decode};

void same_ip(const common_ip_info_t *record_p, const dg::common_ip_info &ref)
{
    EXPECT_EQ(record_p->ip_version, ref.ip_version());
    EXPECT_EQ(text_of(record_p->ip_address), ref.ip_address());
    EXPECT_EQ(record_p->ip_extra, ref.ip_extra());
}

void same_mac(const common_mac_info_t *record_p, const dg::common_mac_info &ref)
{
    EXPECT_EQ(text_of(record_p->mac_address), ref.mac_address());
}

void same_req(const common_req_agent_info_message_t *record_p, const dg::common_req_agent_info_message &ref)
{
    EXPECT_EQ(record_p->agent_time, ref.agent_time());
    EXPECT_STREQ(record_p->agent_type_name, ref.agent_type_name().c_str());
    EXPECT_STREQ(record_p->agent_version, ref.agent_version().c_str());
    EXPECT_EQ(record_p->agent_kind, ref.agent_kind());
    EXPECT_EQ(record_p->agent_mode, ref.agent_mode());
    EXPECT_EQ(record_p->protocol_version, ref.protocol_version());
    EXPECT_STREQ(record_p->host_name, ref.host_name().c_str());
    EXPECT_STREQ(record_p->machine_id, ref.machine_id().c_str());
    EXPECT_EQ(record_p->os_kind, ref.os_kind());
    EXPECT_STREQ(record_p->os_version, ref.os_version().c_str());
    EXPECT_EQ(record_p->cpu_count, ref.cpu_count());
    EXPECT_EQ(record_p->cpu_core_count, ref.cpu_core_count());
    EXPECT_EQ(record_p->cpu_thread_count, ref.cpu_thread_count());
    ASSERT_EQ(record_p->ip_infos.length, ref.ip_infos_size());
    for (int i = 0; i < ref.ip_infos_size(); i++) {
        same_ip(&record_p->ip_infos.items_p[i], ref.ip_infos(i));
    }
    ASSERT_EQ(record_p->mac_infos.length, ref.mac_infos_size());
    for (int i = 0; i < ref.mac_infos_size(); i++) {
        same_mac(&record_p->mac_infos.items_p[i], ref.mac_infos(i));
    }
    EXPECT_EQ(map_of(record_p->custom_infos), map_of(ref.custom_infos()));
    EXPECT_EQ(record_p->boot_time, ref.boot_time());
}

void same_res(const common_res_agent_info_message_t *record_p, const dg::common_res_agent_info_message &ref)
{
    EXPECT_STREQ(record_p->manager_id, ref.manager_id().c_str());
    EXPECT_EQ(record_p->protocol_version, ref.protocol_version());
    EXPECT_EQ(record_p->dg_protocol_version, ref.dg_protocol_version());
}

void same_req_config(const common_req_agent_config_message_t *record_p,
                     const dg::common_req_agent_config_message &ref)
{
    EXPECT_STREQ(record_p->config_name, ref.config_name().c_str());
}

void same_res_config(const common_res_agent_config_message_t *record_p,
                     const dg::common_res_agent_config_message &ref)
{
    EXPECT_EQ(map_of(record_p->configs), map_of(ref.configs()));
}

TEST(common_agent_info, DefaultsAreOmitted)
{
    check_defaults<dg::common_ip_info>(ip_codec, same_ip);
    check_defaults<dg::common_mac_info>(mac_codec, same_mac);
    check_defaults<dg::common_req_agent_info_message>(req_codec, same_req);
    check_defaults<dg::common_res_agent_info_message>(res_codec, same_res);
    check_defaults<dg::common_req_agent_config_message>(req_config_codec, same_req_config);
    check_defaults<dg::common_res_agent_config_message>(res_config_codec, same_res_config);
}

TEST(common_agent_info, AddressItemsAgree)
{
    workspace ws;
    common_ip_info_t *ip_p = common_ip_info_new(ws.data(), ws.size);
    ASSERT_NE(ip_p, nullptr);
    std::string v6("\xfe\x80\0\0\0\0\0\0\x02\x11\x22\xff\xfe\x33\x44\x55", 16);
    ip_p->ip_version = 6;
    ip_p->ip_address = bytes_of(v6);
    ip_p->ip_extra = -7;
    cross_check<dg::common_ip_info>(ip_codec, ip_p, same_ip);

    workspace mac_ws;
    common_mac_info_t *mac_p = common_mac_info_new(mac_ws.data(), mac_ws.size);
    ASSERT_NE(mac_p, nullptr);
    std::string mac("\x00\x1a\x2b\x00\x00\xff", 6);
    mac_p->mac_address = bytes_of(mac);
    cross_check<dg::common_mac_info>(mac_codec, mac_p, same_mac);
}

// Every field set, with negative int32/int64 (ten-byte varints), uint32 maxima, an empty and a
// 9,215-character string, an address item that encodes to nothing, and a two-entry map.
TEST(common_agent_info, FullAgentInfoAgrees)
{
    workspace ws(1 << 20);
    common_req_agent_info_message_t *m = common_req_agent_info_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    std::string long_text(9215, 'x');
    std::string v4("\x0a\x00\x00\x01", 4), mac("\x52\x54\x00\x12\x34\x56", 6);
    m->agent_time = -1;
    m->agent_type_name = "quil-manager-agent";
    m->agent_version = "";
    m->agent_kind = -2;
    m->agent_mode = INT32_MIN;
    m->protocol_version = UINT32_MAX;
    m->host_name = long_text.c_str();
    m->machine_id = "\xed\x95\x9c\xea\xb8\x80-host";
    m->os_kind = 1;
    m->os_version = "Linux 6.1.0";
    m->cpu_count = INT32_MAX;
    m->cpu_core_count = 8;
    m->cpu_thread_count = 16;
    ASSERT_EQ(common_req_agent_info_message_ip_infos_alloc(m, 3), 0);
    m->ip_infos.items_p[0].ip_version = 4;
    m->ip_infos.items_p[0].ip_address = bytes_of(v4);
    m->ip_infos.items_p[2].ip_version = 6; // item 1 stays default: tag and empty length only
    ASSERT_EQ(common_req_agent_info_message_mac_infos_alloc(m, 2), 0);
    m->mac_infos.items_p[0].mac_address = bytes_of(mac);
    ASSERT_EQ(common_req_agent_info_message_custom_infos_alloc(m, 2), 0);
    fill_map(m->custom_infos, {{"a_first", "1"}, {"manager_id", "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99"}});
    m->boot_time = INT64_MIN;
    cross_check<dg::common_req_agent_info_message>(req_codec, m, same_req);

    bytes_t encoded = agent_encode(req_codec, m);
    const uint8_t empty_item[] = {0x72, 0x00};
    EXPECT_NE(std::search(encoded.begin(), encoded.end(), std::begin(empty_item), std::end(empty_item)),
              encoded.end());
}

// libprotobuf always writes a map entry's key and value; the agent omits empty ones. Both
// readers accept either form, so only the values are compared.
TEST(common_agent_info, MapEntriesWithEmptyTextsAgreeAsSets)
{
    workspace ws;
    common_res_agent_config_message_t *m = common_res_agent_config_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(common_res_agent_config_message_configs_alloc(m, 3), 0);
    fill_map(m->configs, {{"zeta", ""}, {"", "no key"}, {"alpha", "1"}});
    cross_check<dg::common_res_agent_config_message>(res_config_codec, m, same_res_config, false);

    // Entries in key order with non-empty texts are exactly what libprotobuf writes.
    workspace sorted_ws;
    common_res_agent_config_message_t *sorted_p =
        common_res_agent_config_message_new(sorted_ws.data(), sorted_ws.size);
    ASSERT_NE(sorted_p, nullptr);
    ASSERT_EQ(common_res_agent_config_message_configs_alloc(sorted_p, 2), 0);
    fill_map(sorted_p->configs, {{"alpha", "1"}, {"zeta", "26"}});
    cross_check<dg::common_res_agent_config_message>(res_config_codec, sorted_p, same_res_config);
}

TEST(common_agent_info, IdentityReplyAndConfigNameAgree)
{
    workspace ws;
    common_res_agent_info_message_t *res_p = common_res_agent_info_message_new(ws.data(), ws.size);
    ASSERT_NE(res_p, nullptr);
    res_p->manager_id = "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99";
    res_p->protocol_version = 3;
    res_p->dg_protocol_version = UINT32_MAX;
    cross_check<dg::common_res_agent_info_message>(res_codec, res_p, same_res);

    workspace config_ws;
    common_req_agent_config_message_t *config_p =
        common_req_agent_config_message_new(config_ws.data(), config_ws.size);
    ASSERT_NE(config_p, nullptr);
    config_p->config_name = "agent_config";
    cross_check<dg::common_req_agent_config_message>(req_config_codec, config_p, same_req_config);
}

// The agent information sent before any manager id exists carries no field 16 at all.
TEST(common_agent_info, NoManagerIdMeansNoField16)
{
    workspace ws;
    common_req_agent_info_message_t *m = common_req_agent_info_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    m->host_name = "host";
    ASSERT_EQ(common_req_agent_info_message_custom_infos_alloc(m, 0), 0);
    bytes_t encoded = agent_encode(req_codec, m);
    EXPECT_EQ(encoded, (bytes_t{0x3A, 4, 'h', 'o', 's', 't'}));
}

// libprotobuf's own encoding, map in hash order, decodes to the same values.
TEST(common_agent_info, LibprotobufEncodingDecodes)
{
    dg::common_req_agent_info_message ref;
    ref.set_agent_time(1739869550123);
    ref.set_os_version("Debian 12");
    ref.add_ip_infos()->set_ip_version(4);
    ref.add_ip_infos();
    ref.add_mac_infos()->set_mac_address(std::string("\0\0\0\0\0\1", 6));
    for (int i = 0; i < 20; i++) {
        (*ref.mutable_custom_infos())["key" + std::to_string(i)] = std::to_string(i * i);
    }
    std::string wire = ref.SerializeAsString();
    workspace ws;
    int result;
    auto *m = agent_decode(req_codec, ws, bytes_t(wire.begin(), wire.end()), &result);
    ASSERT_EQ(result, static_cast<int>(wire.size()));
    same_req(m, ref);
}

// Random damage to a full agent information body (bit flips, inserted, deleted and copied
// bytes, long varints): whenever both decoders accept the result, they read the same values.
// They may disagree on acceptance: the agent refuses groups and known fields with the wrong
// wire type, libprotobuf refuses invalid UTF-8. Texts with a NUL are skipped, since the agent
// holds texts NUL-terminated.
TEST(common_agent_info, DamagedBodiesDecodeAsLibprotobufDoes)
{
    dg::common_req_agent_info_message seed;
    seed.set_agent_time(-5);
    seed.set_host_name("h");
    seed.set_agent_kind(-3);
    seed.set_cpu_core_count(300);
    seed.set_boot_time(1 << 30);
    seed.add_ip_infos()->set_ip_address("abcd");
    seed.add_ip_infos()->set_ip_extra(7);
    seed.add_mac_infos()->set_mac_address("123456");
    (*seed.mutable_custom_infos())["manager_id"] = "x";
    (*seed.mutable_custom_infos())["k"] = "v";
    const std::string wire = seed.SerializeAsString();
    std::mt19937 random(20250218);
    auto pick = [&](size_t n) { return n == 0 ? size_t{0} : static_cast<size_t>(random() % n); };
#if GOOGLE_PROTOBUF_VERSION < 4022000
    google::protobuf::LogSilencer quiet; // libprotobuf logs every invalid UTF-8 text it refuses
#endif
    workspace ws;
    int both = 0;
    for (int round = 0; round < 20000 && !HasFailure(); round++) {
        std::string body = wire;
        for (size_t edits = 1 + pick(4); edits > 0; edits--) {
            size_t at = pick(body.size());
            switch (pick(4)) {
            case 0:
                body[at] = static_cast<char>(body[at] ^ (1 << pick(8)));
                break;
            case 1:
                body.insert(at, 1, static_cast<char>(pick(2) ? 0x80 | pick(128) : pick(256)));
                break;
            case 2:
                body.erase(at, 1);
                break;
            default:
                body.insert(at, body.substr(pick(body.size()), pick(16)));
                break;
            }
        }
        dg::common_req_agent_info_message ref;
        int result;
        auto *m = agent_decode(req_codec, ws, bytes_t(body.begin(), body.end()), &result);
        if (result < 0 || !ref.ParseFromString(body)) {
            continue;
        }
        bool has_nul = false;
        for (const auto &[key, value] : ref.custom_infos()) {
            has_nul = has_nul || key.find('\0') != std::string::npos || value.find('\0') != std::string::npos;
        }
        if (!has_nul) {
            both++;
            same_req(m, ref);
        }
    }
    EXPECT_GT(both, 1000) << "too few bodies were accepted by both to compare";
}

} // namespace
