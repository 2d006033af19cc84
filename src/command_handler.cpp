// command_handler: the command ring, the patch transfer map and the intake handlers that
// fill them (set_command, patch_command, del_command, write_file_from_chunk).
#include "command_handler.h"

#include <mutex>

#include "vklog.h"

cmd_info_t g_cmd_info[CMD_INFO_COUNT];
int32_t g_cmd_info_start = 0;
int32_t g_cmd_info_end = 0;
std::atomic<int32_t> g_cmd_info_count{0};
vklock_t g_command_lock;
std::atomic<int32_t> g_cmd_running_idx{-1};

map_t g_patch_list_map;
vklock_t g_hash_lock;

// ---- ring and map ----------------------------------------------------------------------

int init_chunk_hash()
{
    std::lock_guard<vklock_t> guard(g_hash_lock);
    map_destroy(&g_patch_list_map);
    return map_init(&g_patch_list_map, PATCH_MAP_BUCKETS, static_cast<int>(sizeof(patch_item_t)));
}

int cmd_ring_push_locked(const cmd_info_t &record, const char *caller)
{
    int slot = g_cmd_info_end;
    g_cmd_info[slot] = record;
    g_cmd_info[slot].status = CMD_STATUS_USED;
    g_cmd_info_end = (g_cmd_info_end + 1) % CMD_INFO_COUNT;
    if (g_cmd_info_count.load() >= CMD_INFO_COUNT) {
        // The oldest command is overwritten by design; the count stays at 100.
        g_cmd_info_start = (g_cmd_info_start + 1) % CMD_INFO_COUNT;
        VKLOG_INFO(g_vklog.load(), "[%s] command buffer full. overwrite old command. new start_idx[%d] end_idx[%d]\n",
                   caller, g_cmd_info_start, g_cmd_info_end);
    } else {
        g_cmd_info_count.fetch_add(1);
    }
    return slot;
}

int command_stop_requested(const cmd_info_t *record)
{
    int32_t slot = g_cmd_running_idx.load();
    if (slot >= 0 && slot < CMD_INFO_COUNT) {
        std::lock_guard<vklock_t> guard(g_command_lock);
        return g_cmd_info[slot].status == CMD_STATUS_STOP ? 1 : 0;
    }
    if (record == nullptr)
        return 0;
    return __atomic_load_n(&record->status, __ATOMIC_ACQUIRE) == CMD_STATUS_STOP ? 1 : 0;
}
