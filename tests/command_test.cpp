// Cross-checks of the remote command messages (60001 to 60004) and their items against
// libprotobuf.
#include "command.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const auto file_codec = AGENT_CODEC(file_info);
const auto req_codec = AGENT_CODEC(req_command_message);
const auto res_codec = AGENT_CODEC(res_command_message);
const auto target_codec = AGENT_CODEC(target_agent_info);
const auto list_codec = AGENT_CODEC(target_agent_info_message);
const auto chunk_codec = AGENT_CODEC(req_file_chunk_message);

void same_file(const file_info_t *record_p, const dg::file_info &ref)
{
    SAME(file_name), SAME(file_size), SAME(file_data);
}

// A missing sub-message is null on the agent's side and absent on libprotobuf's.
void same_file_field(const file_info_t *record_p, bool ref_has, const dg::file_info &ref)
{
    ASSERT_EQ(record_p != nullptr, ref_has);
    if (record_p != nullptr) {
        same_file(record_p, ref);
    }
}

void same_req(const req_command_message_t *record_p, const dg::req_command_message &ref)
{
    SAME(execution_id), SAME(command_id), SAME(cmd_type), SAME(agent_id), SAME(agent_type);
    SAME(install_username), SAME(install_path), SAME(run_username), SAME(run_path), SAME(timeout);
    SAME(target_agent_infos);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}

void same_res(const res_command_message_t *record_p, const dg::res_command_message &ref)
{
    SAME(manager_id), SAME(time), SAME(phase_type), SAME(execution_id), SAME(command_id), SAME(cmd_type);
    SAME(agent_id), SAME(agent_type), SAME(result), SAME(result_message);
}

void same_target(const target_agent_info_t *record_p, const dg::target_agent_info &ref)
{
    SAME(agent_id);
}

void same_list(const target_agent_info_message_t *record_p, const dg::target_agent_info_message &ref)
{
    same_items(record_p->target_agent_infos, ref.target_agent_infos(), same_target);
}

void same_chunk(const req_file_chunk_message_t *record_p, const dg::req_file_chunk_message &ref)
{
    SAME(execution_id), SAME(agent_id), SAME(chunk_size), SAME(chunk_index), SAME(chunk_count);
    SAME(chunk_data);
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}

TEST(command, DefaultsAreOmitted)
{
    check_defaults<dg::file_info>(file_codec, same_file);
    check_defaults<dg::req_command_message>(req_codec, same_req);
    check_defaults<dg::res_command_message>(res_codec, same_res);
    check_defaults<dg::target_agent_info>(target_codec, same_target);
    check_defaults<dg::target_agent_info_message>(list_codec, same_list);
    check_defaults<dg::req_file_chunk_message>(chunk_codec, same_chunk);
}

// A patch_start request with every field set; an enum out of range and a negative int32 still
// round-trip, as ten-byte varints. Without field 12 the file information decodes as null; an
// empty one is present but default, and keeps its tag.
TEST(command, CommandRequestAgreesWithAndWithoutFileInfo)
{
    workspace ws;
    std::string patch("#!/bin/sh\n\0binary\xff", 18);
    req_command_message_t *m = ws.fresh(req_codec);
    ASSERT_NE(m, nullptr);
    m->execution_id = "exec-20250218-0001";
    m->command_id = "cmd-77";
    m->cmd_type = -4;
    m->agent_id = "agent-0001";
    m->agent_type = INT32_MIN;
    m->install_username = "quil";
    m->install_path = "/opt/quil/agent";
    m->run_username = "";
    m->run_path = "/opt/quil/agent/bin";
    m->timeout = 600000;
    ASSERT_EQ(req_command_message_target_agent_infos_alloc(m, 2), 0);
    fill_map(m->target_agent_infos, {{"backup", "yes"}, {"restart", "after"}});
    cross_check<dg::req_command_message>(req_codec, m, same_req);

    ASSERT_EQ(req_command_message_target_file_info_alloc(m), 0);
    cross_check<dg::req_command_message>(req_codec, m, same_req);
    m->target_file_info->file_name = "patch_3.0.12.sh";
    m->target_file_info->file_size = 4096;
    m->target_file_info->file_data = bytes_of(patch);
    cross_check<dg::req_command_message>(req_codec, m, same_req);
    cross_check<dg::file_info>(file_codec, m->target_file_info, same_file);
}

// Items that encode to nothing are still written (tag and empty length), in array order.
TEST(command, TargetAgentListKeepsEmptyItems)
{
    workspace ws;
    target_agent_info_message_t *m = ws.fresh(list_codec);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(target_agent_info_message_target_agent_infos_alloc(m, 3), 0);
    m->target_agent_infos.items_p[1].agent_id = "b";
    cross_check<dg::target_agent_info_message>(list_codec, m, same_list);
    cross_check<dg::target_agent_info>(target_codec, &m->target_agent_infos.items_p[1], same_target);
}

// Every field set, with uint64 maxima, a negative int32 and a 9,215-byte text and chunk.
TEST(command, ResultAndFileChunkAgree)
{
    workspace ws;
    res_command_message_t *res_p = ws.fresh(res_codec);
    ASSERT_NE(res_p, nullptr);
    std::string output(9215, 'o'), chunk(9215, '\0');
    res_p->manager_id = "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99";
    res_p->time = UINT64_MAX;
    res_p->phase_type = 2;
    res_p->execution_id = "exec-20250218-0001";
    res_p->cmd_type = 1;
    res_p->agent_id = "agent-0001";
    res_p->agent_type = -1;
    res_p->result = 2;
    res_p->result_message = output.c_str();
    cross_check<dg::res_command_message>(res_codec, res_p, same_res);

    req_file_chunk_message_t *m = ws.fresh(chunk_codec);
    ASSERT_NE(m, nullptr);
    m->execution_id = "exec-20250218-0001";
    m->agent_id = "agent-0001";
    m->chunk_size = chunk.size();
    m->chunk_index = UINT64_MAX - 1;
    m->chunk_count = UINT64_MAX;
    m->chunk_data = bytes_of(chunk);
    cross_check<dg::req_file_chunk_message>(chunk_codec, m, same_chunk);
    ASSERT_EQ(req_file_chunk_message_target_file_info_alloc(m), 0);
    m->target_file_info->file_name = "patch.sh";
    m->target_file_info->file_size = 1 << 20;
    cross_check<dg::req_file_chunk_message>(chunk_codec, m, same_chunk);
}

} // namespace
