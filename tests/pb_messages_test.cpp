// Cross-checks of the fifteen DG messages and their items against libprotobuf: every field
// set, at its extremes (uint64 and uint32 maxima, negative int32/int64 as ten-byte varints,
// enum values without a name, 9,215-byte texts), empty items and sub-messages that keep their
// tags, and map entries with empty keys or values.
#include "command.h"
#include "common_agent_info.h"
#include "req_time_sync.h"
#include "res_time_sync.h"
#include "res_timezone_offset.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

#define CROSS_CHECK(name, ...) cross_check<dg::name>(AGENT_CODEC(name), same_##name, __VA_ARGS__)

void same_req_time_sync(const req_time_sync_t *record_p, const dg::req_time_sync &ref)
{
    SAME(server_time);
}
void same_res_time_sync_message(const res_time_sync_message_t *record_p, const dg::res_time_sync_message &ref)
{
    SAME(agent_time), SAME(dg_time);
}
void same_res_timezone_offset_message(const res_timezone_offset_message_t *record_p,
                                      const dg::res_timezone_offset_message &ref)
{
    SAME(offset_kind), SAME(current_time), SAME(offset);
}
void same_common_ip_info(const common_ip_info_t *record_p, const dg::common_ip_info &ref)
{
    SAME(ip_version), SAME(ip_address), SAME(ip_extra);
}
void same_common_mac_info(const common_mac_info_t *record_p, const dg::common_mac_info &ref)
{
    SAME(mac_address);
}
void same_common_req_agent_info_message(const common_req_agent_info_message_t *record_p,
                                        const dg::common_req_agent_info_message &ref)
{
    SAME(agent_time), SAME(agent_type_name), SAME(agent_version), SAME(agent_kind), SAME(agent_mode);
    SAME(protocol_version), SAME(host_name), SAME(machine_id), SAME(os_kind), SAME(os_version);
    SAME(cpu_count), SAME(cpu_core_count), SAME(cpu_thread_count), SAME(custom_infos), SAME(boot_time);
    same_items(record_p->ip_infos, ref.ip_infos(), same_common_ip_info);
    same_items(record_p->mac_infos, ref.mac_infos(), same_common_mac_info);
}
void same_common_res_agent_info_message(const common_res_agent_info_message_t *record_p,
                                        const dg::common_res_agent_info_message &ref)
{
    SAME(manager_id), SAME(protocol_version), SAME(dg_protocol_version);
}
void same_common_req_agent_config_message(const common_req_agent_config_message_t *record_p,
                                          const dg::common_req_agent_config_message &ref)
{
    SAME(config_name);
}
void same_common_res_agent_config_message(const common_res_agent_config_message_t *record_p,
                                          const dg::common_res_agent_config_message &ref)
{
    SAME(configs);
}
// A missing sub-message is null on the agent's side and absent on libprotobuf's.
void same_file_info(const file_info_t *record_p, const dg::file_info &ref)
{
    SAME(file_name), SAME(file_size), SAME(file_data);
}
void same_file_field(const file_info_t *record_p, bool ref_has, const dg::file_info &ref)
{
    ASSERT_EQ(record_p != nullptr, ref_has);
    if (record_p != nullptr)
        same_file_info(record_p, ref);
}
void same_req_command_message(const req_command_message_t *record_p, const dg::req_command_message &ref)
{
    SAME(execution_id), SAME(command_id), SAME(cmd_type), SAME(agent_id), SAME(agent_type);
    SAME(install_username), SAME(install_path), SAME(run_username), SAME(run_path), SAME(timeout);
    SAME(target_agent_infos);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}
void same_res_command_message(const res_command_message_t *record_p, const dg::res_command_message &ref)
{
    SAME(manager_id), SAME(time), SAME(phase_type), SAME(execution_id), SAME(command_id), SAME(cmd_type);
    SAME(agent_id), SAME(agent_type), SAME(result), SAME(result_message);
}
void same_target_agent_info(const target_agent_info_t *record_p, const dg::target_agent_info &ref)
{
    SAME(agent_id);
}
void same_target_agent_info_message(const target_agent_info_message_t *record_p,
                                    const dg::target_agent_info_message &ref)
{
    same_items(record_p->target_agent_infos, ref.target_agent_infos(), same_target_agent_info);
}
void same_req_file_chunk_message(const req_file_chunk_message_t *record_p, const dg::req_file_chunk_message &ref)
{
    SAME(execution_id), SAME(agent_id), SAME(chunk_size), SAME(chunk_index), SAME(chunk_count);
    SAME(chunk_data);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}

const std::string k_long(9215, 'x');
const char *const k_file = R"(file_name: "patch_3.0.12.sh" file_size: 4096 file_data: "#!/bin/sh\n\000binary\377")";

TEST(Messages, AgreeWithLibprotobufBothWays)
{
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
