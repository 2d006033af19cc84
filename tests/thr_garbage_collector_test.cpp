// Tests of the garbage collector's sweep: transfers past their time-out are removed (chained
// items and bucket heads alike, while the map is walked), fresh ones stay, and the registry
// reset empties every record.
#include "thr_garbage_collector.h"

#include "agent_home.h"
#include "command_handler.h"
#include "vk_string.h"
#include "vk_time.h"

using daemon_support::write_file;

namespace
{

class GarbageCollector : public agent_home::AgentHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::AgentHomeTest::SetUp();
        ASSERT_EQ(init_chunk_hash(), 0);
    }
    void TearDown() override
    {
        std::lock_guard<vklock_t> guard(g_hash_lock);
        map_destroy(&g_patch_list_map);
        agent_home::AgentHomeTest::TearDown();
    }
    // A transfer for agent `id` received `age_ms` ago with time-out `timeout_ms`.
    void add_item(const std::string &id, int64_t age_ms, int timeout_ms)
    {
        auto *item = static_cast<patch_item_t *>(calloc(1, sizeof(patch_item_t)));
        vk_strlcpy(item->key, id);
        vk_strlcpy(item->command.agent_id, id);
        vk_strlcpy(item->file_path, std::string(g_vk_manager_home) + "/tmp/" + id);
        write_file(item->file_path + std::string(PATCH_PART_SUFFIX), "partial");
        item->command.received_time = static_cast<uint64_t>(vk_get_time_msec() - age_ms);
        item->command.timeout = timeout_ms;
        item->buffer_index = -1;
        std::lock_guard<vklock_t> guard(g_hash_lock);
        ASSERT_EQ(map_setat(&g_patch_list_map, item->key, PATCH_KEY_LEN, item), 1);
    }
};

TEST_F(GarbageCollector, SweepRemovesStaleTransfersOnly)
{
    // Enough items that buckets chain (128 buckets); every third one is fresh.
    int stale = 0;
    for (int i = 0; i < 300; i++) {
        bool fresh = i % 3 == 0;
        add_item("agent-" + std::to_string(i), fresh ? 0 : 5000, 1000);
        stale += fresh ? 0 : 1;
    }
    EXPECT_EQ(start_garbage_collect(), stale);
    EXPECT_EQ(g_patch_list_map.count, 100u);
    EXPECT_EQ(log_count("[start_garbage_collect] garbage detect agent_id [agent-1] taget_timeout[1000] now_time["), 1u);
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
    EXPECT_EQ(g_json_agent_count, 0);
    EXPECT_EQ(g_json_agent_info[1].root_check, 0);
    EXPECT_EQ(g_json_agent_info[1].agent_id[0], '\0');
    EXPECT_EQ(log_count("[start_json_list_garbage_collect] json info list reset!"), 1u);
}

} // namespace
