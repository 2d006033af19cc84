// Cross-checks of the handshake messages (10043, 50036), their address items and the
// agent-config pair against libprotobuf.
#include "common_agent_info.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const auto ip_codec = AGENT_CODEC(common_ip_info);
const auto mac_codec = AGENT_CODEC(common_mac_info);
const auto req_codec = AGENT_CODEC(common_req_agent_info_message);
const auto res_codec = AGENT_CODEC(common_res_agent_info_message);
const auto req_config_codec = AGENT_CODEC(common_req_agent_config_message);
const auto res_config_codec = AGENT_CODEC(common_res_agent_config_message);

void same_ip(const common_ip_info_t *record_p, const dg::common_ip_info &ref)
{
    SAME(ip_version), SAME(ip_address), SAME(ip_extra);
}

void same_mac(const common_mac_info_t *record_p, const dg::common_mac_info &ref)
{
    SAME(mac_address);
}

void same_req(const common_req_agent_info_message_t *record_p, const dg::common_req_agent_info_message &ref)
{
    SAME(agent_time), SAME(agent_type_name), SAME(agent_version), SAME(agent_kind), SAME(agent_mode);
    SAME(protocol_version), SAME(host_name), SAME(machine_id), SAME(os_kind), SAME(os_version);
    SAME(cpu_count), SAME(cpu_core_count), SAME(cpu_thread_count), SAME(custom_infos), SAME(boot_time);
    same_items(record_p->ip_infos, ref.ip_infos(), same_ip);
    same_items(record_p->mac_infos, ref.mac_infos(), same_mac);
}

void same_res(const common_res_agent_info_message_t *record_p, const dg::common_res_agent_info_message &ref)
{
    SAME(manager_id), SAME(protocol_version), SAME(dg_protocol_version);
}

void same_req_config(const common_req_agent_config_message_t *record_p,
                     const dg::common_req_agent_config_message &ref)
{
    SAME(config_name);
}

void same_res_config(const common_res_agent_config_message_t *record_p,
                     const dg::common_res_agent_config_message &ref)
{
    SAME(configs);
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

// Every field set, with negative int32/int64 (ten-byte varints), uint32 maxima, an empty and a
// 9,215-character string, an address item that encodes to nothing, and a two-entry map. The
// address items and the identity reply are checked on their own too.
TEST(common_agent_info, FullAgentInfoAndReplyAgree)
{
    workspace ws(1 << 20);
    common_req_agent_info_message_t *m = ws.fresh(req_codec);
    ASSERT_NE(m, nullptr);
    std::string long_text(9215, 'x'), mac("\x52\x54\x00\x12\x34\x56", 6);
    std::string v6("\xfe\x80\0\0\0\0\0\0\x02\x11\x22\xff\xfe\x33\x44\x55", 16);
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
    m->ip_infos.items_p[0].ip_version = 6;
    m->ip_infos.items_p[0].ip_address = bytes_of(v6);
    m->ip_infos.items_p[0].ip_extra = -7;
    m->ip_infos.items_p[2].ip_version = 4; // item 1 stays default: tag and empty length only
    ASSERT_EQ(common_req_agent_info_message_mac_infos_alloc(m, 2), 0);
    m->mac_infos.items_p[0].mac_address = bytes_of(mac);
    ASSERT_EQ(common_req_agent_info_message_custom_infos_alloc(m, 2), 0);
    fill_map(m->custom_infos, {{"a_first", "1"}, {"manager_id", "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99"}});
    m->boot_time = INT64_MIN;
    cross_check<dg::common_req_agent_info_message>(req_codec, m, same_req);
    cross_check<dg::common_ip_info>(ip_codec, &m->ip_infos.items_p[0], same_ip);
    cross_check<dg::common_mac_info>(mac_codec, &m->mac_infos.items_p[0], same_mac);

    common_res_agent_info_message_t *res_p = ws.fresh(res_codec);
    ASSERT_NE(res_p, nullptr);
    res_p->manager_id = "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99";
    res_p->protocol_version = 3;
    res_p->dg_protocol_version = UINT32_MAX;
    cross_check<dg::common_res_agent_info_message>(res_codec, res_p, same_res);
    common_req_agent_config_message_t *config_p = ws.fresh(req_config_codec);
    ASSERT_NE(config_p, nullptr);
    config_p->config_name = "agent_config";
    cross_check<dg::common_req_agent_config_message>(req_config_codec, config_p, same_req_config);
}

// libprotobuf always writes a map entry's key and value; the agent omits empty ones. Both
// readers accept either form, so only the values are compared. Entries in key order with
// non-empty texts are exactly what libprotobuf writes.
TEST(common_agent_info, MapEntriesAgree)
{
    workspace ws;
    for (bool with_empty : {true, false}) {
        common_res_agent_config_message_t *m = ws.fresh(res_config_codec);
        ASSERT_NE(m, nullptr);
        ASSERT_EQ(common_res_agent_config_message_configs_alloc(m, with_empty ? 3 : 2), 0);
        if (with_empty) {
            fill_map(m->configs, {{"zeta", ""}, {"", "no key"}, {"alpha", "1"}});
        } else {
            fill_map(m->configs, {{"alpha", "1"}, {"zeta", "26"}});
        }
        cross_check<dg::common_res_agent_config_message>(res_config_codec, m, same_res_config, !with_empty);
    }
}

} // namespace
