// Cross-checks of the remote command messages (60001 to 60004) and their items against
// libprotobuf.
#include "command.h"

#include "dg_protocol.pb.h"
#include "pb_crosscheck.h"

namespace
{

const agent_codec<file_info_t> file_codec = {file_info_new, file_info_encode, file_info_decode};
const agent_codec<req_command_message_t> req_codec = {req_command_message_new, req_command_message_encode,
                                                      req_command_message_decode};
const agent_codec<res_command_message_t> res_codec = {res_command_message_new, res_command_message_encode,
                                                      res_command_message_decode};
const agent_codec<target_agent_info_t> target_codec = {target_agent_info_new, target_agent_info_encode,
                                                       target_agent_info_decode};
const agent_codec<target_agent_info_message_t> list_codec = {
    target_agent_info_message_new, target_agent_info_message_encode, target_agent_info_message_decode};
const agent_codec<req_file_chunk_message_t> chunk_codec = {
    req_file_chunk_message_new, req_file_chunk_message_encode, req_file_chunk_message_decode};

void same_file(const file_info_t *record_p, const dg::file_info &ref)
{
    EXPECT_STREQ(record_p->file_name, ref.file_name().c_str());
    EXPECT_EQ(record_p->file_size, ref.file_size());
    EXPECT_EQ(text_of(record_p->file_data), ref.file_data());
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
    EXPECT_STREQ(record_p->execution_id, ref.execution_id().c_str());
    EXPECT_STREQ(record_p->command_id, ref.command_id().c_str());
    EXPECT_EQ(record_p->cmd_type, ref.cmd_type());
    EXPECT_STREQ(record_p->agent_id, ref.agent_id().c_str());
    EXPECT_EQ(record_p->agent_type, ref.agent_type());
    EXPECT_STREQ(record_p->install_username, ref.install_username().c_str());
    EXPECT_STREQ(record_p->install_path, ref.install_path().c_str());
    EXPECT_STREQ(record_p->run_username, ref.run_username().c_str());
    EXPECT_STREQ(record_p->run_path, ref.run_path().c_str());
    EXPECT_EQ(record_p->timeout, ref.timeout());
    EXPECT_EQ(map_of(record_p->target_agent_infos), map_of(ref.target_agent_infos()));
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
}

void same_res(const res_command_message_t *record_p, const dg::res_command_message &ref)
{
    EXPECT_STREQ(record_p->manager_id, ref.manager_id().c_str());
    EXPECT_EQ(record_p->time, ref.time());
    EXPECT_EQ(record_p->phase_type, ref.phase_type());
    EXPECT_STREQ(record_p->execution_id, ref.execution_id().c_str());
    EXPECT_STREQ(record_p->command_id, ref.command_id().c_str());
    EXPECT_EQ(record_p->cmd_type, ref.cmd_type());
    EXPECT_STREQ(record_p->agent_id, ref.agent_id().c_str());
    EXPECT_EQ(record_p->agent_type, ref.agent_type());
    EXPECT_EQ(record_p->result, ref.result());
    EXPECT_STREQ(record_p->result_message, ref.result_message().c_str());
}

void same_target(const target_agent_info_t *record_p, const dg::target_agent_info &ref)
{
    EXPECT_STREQ(record_p->agent_id, ref.agent_id().c_str());
}

void same_list(const target_agent_info_message_t *record_p, const dg::target_agent_info_message &ref)
{
    ASSERT_EQ(record_p->target_agent_infos.length, ref.target_agent_infos_size());
    for (int i = 0; i < ref.target_agent_infos_size(); i++) {
        same_target(&record_p->target_agent_infos.items_p[i], ref.target_agent_infos(i));
    }
}

void same_chunk(const req_file_chunk_message_t *record_p, const dg::req_file_chunk_message &ref)
{
    EXPECT_STREQ(record_p->execution_id, ref.execution_id().c_str());
    EXPECT_STREQ(record_p->agent_id, ref.agent_id().c_str());
    same_file_field(record_p->target_file_info, ref.has_target_file_info(), ref.target_file_info());
    EXPECT_EQ(record_p->chunk_size, ref.chunk_size());
    EXPECT_EQ(record_p->chunk_index, ref.chunk_index());
    EXPECT_EQ(record_p->chunk_count, ref.chunk_count());
    EXPECT_EQ(text_of(record_p->chunk_data), ref.chunk_data());
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

req_command_message_t *patch_start_request(workspace &ws, const std::string &patch)
{
    req_command_message_t *m = req_command_message_new(ws.data(), ws.size);
    EXPECT_NE(m, nullptr);
    m->execution_id = "exec-20250218-0001";
    m->command_id = "cmd-77";
    m->cmd_type = 3;
    m->agent_id = "agent-0001";
    m->agent_type = 12;
    m->install_username = "quil";
    m->install_path = "/opt/quil/agent";
    m->run_username = "";
    m->run_path = "/opt/quil/agent/bin";
    m->timeout = 600000;
    EXPECT_EQ(req_command_message_target_agent_infos_alloc(m, 2), 0);
    fill_map(m->target_agent_infos, {{"backup", "yes"}, {"restart", "after"}});
    EXPECT_EQ(req_command_message_target_file_info_alloc(m), 0);
    m->target_file_info->file_name = "patch_3.0.12.sh";
    m->target_file_info->file_size = 4096;
    m->target_file_info->file_data = bytes_of(patch);
    return m;
}

TEST(command, CommandRequestAgrees)
{
    workspace ws;
    std::string patch("#!/bin/sh\n\0binary\xff", 18);
    req_command_message_t *m = patch_start_request(ws, patch);
    ASSERT_NE(m, nullptr);
    cross_check<dg::req_command_message>(req_codec, m, same_req);
    m->cmd_type = -4; // an enum out of range still round-trips, as a ten-byte varint
    m->agent_type = INT32_MIN;
    cross_check<dg::req_command_message>(req_codec, m, same_req);
    cross_check<dg::file_info>(file_codec, m->target_file_info, same_file);
}

// Without field 12 the file information decodes as null; an empty one is present but default.
TEST(command, MissingFileInfoDecodesToNull)
{
    workspace ws;
    std::string patch;
    req_command_message_t *m = patch_start_request(ws, patch);
    ASSERT_NE(m, nullptr);
    m->target_file_info = nullptr;
    cross_check<dg::req_command_message>(req_codec, m, same_req);

    ASSERT_EQ(req_command_message_target_file_info_alloc(m), 0);
    bytes_t encoded = agent_encode(req_codec, m);
    ASSERT_GE(encoded.size(), 2u);
    EXPECT_EQ(encoded[encoded.size() - 2], 0x62) << "empty sub-message keeps its tag";
    EXPECT_EQ(encoded.back(), 0x00);
    cross_check<dg::req_command_message>(req_codec, m, same_req);
}

TEST(command, CommandResultAgrees)
{
    workspace ws;
    res_command_message_t *m = res_command_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    std::string output(9215, 'o');
    m->manager_id = "0b6f4c2e-5d1a-4c7e-9f3b-2a8d6e1c0f99";
    m->time = UINT64_MAX;
    m->phase_type = 2;
    m->execution_id = "exec-20250218-0001";
    m->command_id = "";
    m->cmd_type = 1;
    m->agent_id = "agent-0001";
    m->agent_type = -1;
    m->result = 2;
    m->result_message = output.c_str();
    cross_check<dg::res_command_message>(res_codec, m, same_res);
}

// Items that encode to nothing are still written (tag and empty length), in array order.
TEST(command, TargetAgentListKeepsEmptyItems)
{
    workspace ws;
    target_agent_info_message_t *m = target_agent_info_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(target_agent_info_message_target_agent_infos_alloc(m, 3), 0);
    m->target_agent_infos.items_p[1].agent_id = "b";
    EXPECT_EQ(agent_encode(list_codec, m), (bytes_t{0x0A, 0x00, 0x0A, 0x03, 0x0A, 0x01, 'b', 0x0A, 0x00}));
    cross_check<dg::target_agent_info_message>(list_codec, m, same_list);
    cross_check<dg::target_agent_info>(target_codec, &m->target_agent_infos.items_p[1], same_target);
}

TEST(command, FileChunkAgrees)
{
    workspace ws;
    req_file_chunk_message_t *m = req_file_chunk_message_new(ws.data(), ws.size);
    ASSERT_NE(m, nullptr);
    std::string chunk(9215, '\0');
    for (size_t i = 0; i < chunk.size(); i++) {
        chunk[i] = static_cast<char>(i * 31);
    }
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
