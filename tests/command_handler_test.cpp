// Command intake and patch transfer, driven through the dispatcher with requests built by
// Google's protobuf library.
#include "command_handler.h"

#include <sys/stat.h>

#include "agent_home.h"
#include "command_util.h"
#include "on_demand.h"
#include "vk_time.h"

using daemon_support::read_file;

namespace
{

using dg_capture::dg_packet;

const char *const k_agent = "0b6f2d7e-5c1a-4e8f-9d3b-7a2c4e6f8a10";

class CommandIntake : public agent_home::CommandHomeTest
{
  protected:

    static dg::req_command_message request(int cmd_type, const std::string &exec, const std::string &agent = k_agent)
    {
        dg::req_command_message msg;
        msg.set_execution_id(exec);
        msg.set_command_id("cmd-" + exec);
        msg.set_cmd_type(static_cast<dg::cmd_type_e>(cmd_type));
        msg.set_agent_id(agent);
        msg.set_agent_type(static_cast<dg::agent_type_e>(7));
        msg.set_run_path("/opt/agent");
        msg.set_timeout(60000);
        (*msg.mutable_target_agent_infos())["source"] = "test";
        return msg;
    }
    static dg::req_command_message patch_start(const std::string &exec, const std::string &name, uint64_t size,
                                               const std::string &agent = k_agent)
    {
        dg::req_command_message msg = request(3, exec, agent);
        msg.mutable_target_file_info()->set_file_name(name);
        msg.mutable_target_file_info()->set_file_size(size);
        return msg;
    }
    static dg::req_file_chunk_message chunk(const std::string &exec, uint64_t index, uint64_t count,
                                            const std::string &data, const std::string &agent = k_agent)
    {
        dg::req_file_chunk_message c;
        c.set_execution_id(exec);
        c.set_agent_id(agent);
        c.set_chunk_index(index);
        c.set_chunk_count(count);
        c.set_chunk_size(data.size());
        c.set_chunk_data(data);
        return c;
    }
    int send(const dg::req_command_message &msg) { return dispatch(60001, msg.SerializeAsString()); }
    int send(const dg::req_file_chunk_message &c) { return dispatch(60004, c.SerializeAsString()); }
    int dispatch(int type, const std::string &body)
    {
        std::string packet = dg_packet(type, body);
        return read_msg_nio(packet.data(), &dg.agent);
    }
    // The one result the last request produced.
    dg::res_command_message result()
    {
        auto results = dg.results();
        EXPECT_EQ(results.size(), 1u) << log_text();
        return results.empty() ? dg::res_command_message() : results.back();
    }
    static std::string describe(const dg::res_command_message &r)
    {
        return std::to_string(r.phase_type()) + " " + std::to_string(r.result()) + " " + r.result_message();
    }
    static bool has_item() { return patch_count() > 0; }
    static cmd_info_t slot(int index)
    {
        cmd_info_t record{};
        EXPECT_EQ(cmd_ring_get(index, &record), 0);
        return record;
    }
    std::string tmp(const std::string &name) { return manager + "/tmp/" + name; }

};

// The agent_restart acknowledgement and a request with 1,000 options are the scenario tests'.
TEST_F(CommandIntake, CommandsAreAcknowledgedAndQueuedInARingOfHundred)
{
    dg::req_command_message restart = request(1, "e1");
    restart.set_install_path(std::string(300, 'p')); // cut at 255
    ASSERT_EQ(send(restart), 0);
    result();
    EXPECT_EQ(std::string(slot(0).install_path), std::string(255, 'p'));
    EXPECT_EQ(slot(0).result_message[0], '\0') << "cleared after the acknowledgement";
    ASSERT_EQ(send(request(9, "e2")), 0);
    EXPECT_EQ(describe(result()), "1 1 [agent manager] Success received the command(unknown)");

    dg::req_command_message bare = request(2, "e3");
    bare.clear_target_agent_infos();
    EXPECT_EQ(send(bare), -4) << "a request without options is never executed";
    EXPECT_TRUE(dg.results().empty());
    EXPECT_EQ(dispatch(60001, "\x0a\x40"), -3);

    for (int i = 3; i <= 101; i++)
        ASSERT_EQ(send(request(2, "e" + std::to_string(i))), 0);
    int start = -1, end = -1;
    EXPECT_EQ(cmd_ring_count(&start, &end), 100);
    EXPECT_EQ(start * 10 + end, 11);
    EXPECT_STREQ(slot(0).execution_id, "e101") << "the 101st overwrote the oldest";
    EXPECT_EQ(log_count("command buffer full. overwrite old command. new start_idx[1] end_idx[1]"), 1u);
}

// The decoder is sized from the request: any number of options decodes and is answered.
TEST_F(CommandIntake, RequestsWithManyOptionsDecode)
{
    for (int options : {1, 10, 200, 1000}) {
        dg::req_command_message restart = request(1, "m" + std::to_string(options));
        for (int i = 1; i < options; i++)
            (*restart.mutable_target_agent_infos())["key" + std::to_string(i)] = std::string(40, 'v');
        EXPECT_EQ(send(restart), 0) << options << " options, " << restart.ByteSizeLong() << " bytes";
        EXPECT_EQ(result().result(), 1);
    }
    EXPECT_EQ(cmd_ring_count(), 4);
}

TEST_F(CommandIntake, PatchArrivesInChunksAndQueuesItsCommand)
{
    const std::string data = "#!/bin/sh\necho vkSuccess\n" + std::string(100, '#');
    dg::req_command_message start = patch_start("p1", "patch.sh", data.size());
    for (int i = 0; i < 12; i++)
        (*start.mutable_target_agent_infos())["k" + std::to_string(i)] = "v" + std::to_string(i);
    ASSERT_EQ(send(start), 0);
    result();
    ASSERT_EQ(send(patch_start("p2", "other.sh", 5)), 0);
    auto refused = result();
    EXPECT_EQ(describe(refused), "1 2 [agent manager] The patch is already in progress agent_id(" +
                                     std::string(k_agent) + ")");
    EXPECT_EQ(refused.execution_id(), "p2");

    ASSERT_EQ(send(chunk("p1", 1, 2, data.substr(0, 50))), 0);
    ASSERT_EQ(send(chunk("wrong", 2, 2, "xx")), 0);
    EXPECT_EQ(describe(result()), "1 2 [agent manager] execution id of the chunk packet is incorrect.");
    ASSERT_EQ(send(chunk("p1", 2, 2, data.substr(50))), 0);
    EXPECT_EQ(describe(result()), "1 1 [agent manager] file(" + tmp("patch.sh") + ") write success");
    EXPECT_EQ(read_file(tmp("patch.sh")), data);
    ASSERT_EQ(cmd_ring_count(), 1);
    EXPECT_STREQ(slot(0).file_name, "patch.sh");
    EXPECT_EQ(slot(0).option_count, CMD_OPTION_COUNT) << "the first ten pairs are kept";
    EXPECT_TRUE(has_item()) << "the item stays until the command ran";
}

TEST_F(CommandIntake, RefusedChunksEndTheTransfer)
{
    struct refusal {
        const char *label;
        std::vector<dg::req_file_chunk_message> chunks; // the last one is refused
        std::string text;
        int64_t timeout_ms = 60000;
    };
    dg::req_file_chunk_message oversized = chunk("x", 1, 2, "abc");
    oversized.set_chunk_size(1 << 20);
    const std::vector<refusal> cases = {
        {"repeat", {chunk("x", 1, 3, "a"), chunk("x", 1, 3, "a")},
         "[agent manager] chunk oreder is incoreect (Expected value 2 / received value 1)"},
        {"first is 2", {chunk("x", 2, 3, "a")}, "[agent manager] chunk oreder is incoreect (Expected value 1 / received value 2)"},
        {"size", {chunk("x", 1, 2, "a"), chunk("x", 2, 2, "b")}, "[agent manager] file(" + tmp("f.bin") + ") write size failed"},
        {"oversized", {oversized}, "[agent manager] chunk size is incorrect (chunk_size 1048576 / chunk data 3)"},
        {"late", {chunk("x", 1, 2, "a")}, "[agent manager] The Install of the chunk Timeout.", 1},
    };
    for (const refusal &c : cases) {
        dg::req_command_message start = patch_start("x", "f.bin", 5);
        start.set_timeout(static_cast<uint32_t>(c.timeout_ms));
        ASSERT_EQ(send(start), 0) << c.label;
        dg.results();
        if (c.timeout_ms < 10)
            vk_sleep(20);
        for (const auto &ch : c.chunks)
            ASSERT_EQ(send(ch), 0) << c.label;
        auto r = result();
        EXPECT_EQ(r.result(), 2) << c.label;
        EXPECT_EQ(r.phase_type(), 1) << c.label;
        EXPECT_EQ(r.result_message().substr(0, c.text.size()), c.text) << c.label;
        EXPECT_FALSE(has_item()) << c.label << ": a new patch_start is needed";
        EXPECT_FALSE(std::ifstream(tmp("f.bin.part")).good()) << c.label << ": the partial file is removed";
    }
    ASSERT_EQ(send(chunk("x", 1, 1, "a", "no-such-agent")), 0);
    EXPECT_TRUE(dg.results().empty()) << "a chunk for an unknown agent gets no answer";

    ASSERT_EQ(send(patch_start("z", "empty.bin", 0)), 0);
    dg.results();
    ASSERT_EQ(send(chunk("z", 1, 1, "")), 0);
    EXPECT_EQ(describe(result()), "1 1 [agent manager] file(" + tmp("empty.bin") + ") write success");
    EXPECT_EQ(cmd_ring_count(), 1);
}

TEST_F(CommandIntake, PatchStopInEachState)
{
    // A transfer of exec that received its first chunk (of `count`); then a patch_stop of
    // exec, whose outcome (after its acknowledgement) is described, "" when none came.
    auto transfer = [&](const std::string &exec, uint64_t count) {
        ASSERT_EQ(send(patch_start(exec, "a.sh", 2 * count)), 0);
        ASSERT_EQ(send(chunk(exec, 1, count, "ab")), 0);
        dg.results();
    };
    auto stop = [&](const std::string &exec) {
        dg::req_command_message msg = request(4, exec);
        msg.set_command_id("stop-" + exec);
        EXPECT_EQ(send(msg), 0);
        auto r = dg.results();
        EXPECT_EQ(describe(r.at(0)), "1 1 [agent manager] Successfully received the command(patch_stop)");
        return r.size() == 2 ? describe(r[1]) : "";
    };
    EXPECT_EQ(stop("s0"), "2 1 [agent manager] command(patch_stop) to delete does not exist");
    // During the transfer: stopped at the chunk reached, the partial file removed.
    transfer("t1", 2);
    ASSERT_TRUE(std::ifstream(tmp("a.sh.part")).good());
    EXPECT_EQ(stop("t1"), "2 1 [agent_manager] command(patch_stop) delete success. Stop Patch File Download Chunk [1] index");
    EXPECT_FALSE(has_item() || std::ifstream(tmp("a.sh.part")).good());
    // Queued: another execution id leaves it in place; the same one empties the slot.
    transfer("t2", 1);
    EXPECT_EQ(stop("t9"), "1 2 [agent manager] execution id is incoreect (Expected execution id t9 / received execution id t9)");
    EXPECT_EQ(slot(0).status, CMD_STATUS_USED);
    EXPECT_EQ(stop("t2"), "2 1 [agent manager] command(patch_stop) delete success. No commands are in progress yet");
    EXPECT_EQ(slot(0).status, CMD_STATUS_EMPTY);
    EXPECT_FALSE(has_item());

    // Running: the record is marked STOP, the runner is asked to stop, and the done result
    // will carry the stop's identifiers; only the acknowledgement is sent now.
    transfer("t3", 1);
    cmd_info_t work{};
    ASSERT_EQ(cmd_ring_take(&work), 1) << "the cancelled slot 0 is skipped";
    EXPECT_EQ(command_stop_requested(), 0);
    EXPECT_EQ(stop("t3"), "");
    EXPECT_EQ(slot(1).status, CMD_STATUS_STOP);
    EXPECT_EQ(command_stop_requested(), 1);
    cmd_ring_stop_ids(1, &work);
    EXPECT_STREQ(work.command_id, "stop-t3");
    EXPECT_FALSE(has_item());
    cmd_ring_finish(1, &work);
    EXPECT_EQ(cmd_ring_count(), 0);
    command_stop_clear();
}

TEST_F(CommandIntake, HostilePatchRequestsCreateNothing)
{
    for (const char *name : {"", ".", "..", "a/b", "../../etc/passwd", "x;reboot", "tab\tname"}) {
        ASSERT_EQ(send(patch_start("h", name, 1)), 0) << name;
        auto r = result();
        EXPECT_EQ(r.result(), 2) << name;
        EXPECT_EQ(r.result_message().rfind("[agent manager]", 0), 0u) << name;
        EXPECT_FALSE(has_item()) << name;
    }
    dg::req_command_message no_file = request(3, "h");
    ASSERT_EQ(send(no_file), 0);
    EXPECT_EQ(result().result(), 2);
    EXPECT_FALSE(has_item());
    EXPECT_EQ(system(("test -z \"$(ls -A " + manager + "/tmp)\"").c_str()), 0) << "tmp stays empty";
}

} // namespace
