// The garbage collector's sweep and the registry reset.
#include "thr_garbage_collector.h"

#include "agent_home.h"
#include "on_demand.h"
#include "vk_string.h"
#include "vk_time.h"

namespace
{

class GarbageCollector : public agent_home::CommandHomeTest
{
  protected:
    // A transfer for agent `id` with time-out `timeout_ms` that received its first chunk.
    void start_transfer(const std::string &id, uint32_t timeout_ms)
    {
        dg::req_command_message m;
        m.set_execution_id("x-" + id);
        m.set_cmd_type(static_cast<dg::cmd_type_e>(3));
        m.set_agent_id(id);
        m.set_timeout(timeout_ms);
        (*m.mutable_target_agent_infos())["source"] = "test";
        m.mutable_target_file_info()->set_file_name(id);
        m.mutable_target_file_info()->set_file_size(4);
        dg::req_file_chunk_message c;
        c.set_execution_id("x-" + id);
        c.set_agent_id(id);
        c.set_chunk_index(1);
        c.set_chunk_count(2);
        c.set_chunk_size(2);
        c.set_chunk_data("ab");
        for (std::string packet : {dg_capture::dg_packet(60001, m.SerializeAsString()),
                                   dg_capture::dg_packet(60004, c.SerializeAsString())})
            ASSERT_EQ(read_msg_nio(packet.data(), &dg.agent), 0);
        dg.results();
    }
};

TEST_F(GarbageCollector, SweepRemovesStaleTransfersOnly)
{
    // Enough items that buckets chain (128 buckets); every third one is fresh.
    int stale = 0;
    for (int i = 0; i < 300; i++) {
        bool fresh = i % 3 == 0;
        start_transfer("agent-" + std::to_string(i), fresh ? 60000 : 200);
        stale += fresh ? 0 : 1;
    }
    vk_sleep(300);
    EXPECT_EQ(start_garbage_collect(), stale);
    EXPECT_EQ(patch_count(), 100);
    EXPECT_EQ(log_count("[start_garbage_collect] garbage detect agent_id [agent-1] taget_timeout[200] now_time["), 1u);
    EXPECT_FALSE(std::ifstream(manager + "/tmp/agent-1.part").good()) << "the partial file goes too";
    EXPECT_TRUE(std::ifstream(manager + "/tmp/agent-0.part").good());
    EXPECT_EQ(start_garbage_collect(), 0);
}

TEST_F(GarbageCollector, RegistryResetEmptiesEveryRecord)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_count = 2;
        g_json_agent_info[1].root_check = 1;
        vk_strlcpy(g_json_agent_info[1].agent_id, "x", sizeof(g_json_agent_info[1].agent_id));
    }
    start_json_list_garbage_collect();
    EXPECT_EQ(g_json_agent_count + g_json_agent_info[1].root_check + g_json_agent_info[1].agent_id[0], 0);
}

} // namespace
