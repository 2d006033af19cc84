// thr_garbage_collector: periodic removal of stale patch transfers and the registry reset.
#include "thr_garbage_collector.h"

#include <unistd.h>

#include <cstring>
#include <mutex>

#include "command_handler.h"
#include "configure.h"
#include "global_var.h"
#include "pub_conf.h"
#include "signal_ctl.h"
#include "vk_time.h"
#include "vklog.h"

void *thr_garbage_collector(void *)
{
    int64_t tick = vk_get_time_msec() / 1000 + 1;
    while (g_stop_the_world.load() == 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_GARBAGE);
        int64_t now = vk_wait_for_second(tick);
        tick = now + 1;
        // Read on every pass, so a reloaded interval takes effect at once.
        int interval = get_conf_value_int_for_idx(g_conf_handle, MGR_CONF_INTERVAL_GARBAGE_COLLECT);
        if (interval < 1 || now % interval != 0)
            continue;
        VKLOG_DEBUG(g_vklog.load(), "[thr_garbage_collector] start_garbage_collect interval[%d]\n", interval);
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_GARBAGE);
        start_garbage_collect();
        if (g_cmd_info_count.load() == 0)
            start_json_list_garbage_collect();
    }
    VKLOG_INFO(g_vklog.load(), "[thr_garbage_collector] finish normally.\n");
    return nullptr;
}

int start_garbage_collect()
{
    const uint64_t now = static_cast<uint64_t>(vk_get_time_msec());
    int removed = 0;
    std::lock_guard<vklock_t> guard(g_hash_lock);
    uint64_t cursor = MAP_CURSOR_START;
    for (;;) {
        void *value = nullptr;
        map_get_next_node(&g_patch_list_map, &cursor, &value);
        if (value == nullptr)
            break;
        auto *item = static_cast<patch_item_t *>(value);
        const cmd_info_t &record = item->command;
        const uint64_t elapsed = now > record.received_time ? now - record.received_time : 0;
        if (elapsed <= static_cast<uint64_t>(record.timeout))
            continue;
        VKLOG_INFO(g_vklog.load(), "[start_garbage_collect] garbage detect agent_id [%s] taget_timeout[%d] now_time[%d]\n",
                   record.agent_id, record.timeout, static_cast<int>(elapsed));
        // A transfer that will never complete loses its file; a queued patch keeps it. The
        // walk survives deleting the item it just returned.
        patch_item_teardown(item, item->buffer_index == -1);
        removed++;
    }
    return removed;
}

void start_json_list_garbage_collect()
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_count = 0;
        memset(g_json_agent_info, 0, sizeof(g_json_agent_info));
    }
    VKLOG_INFO(g_vklog.load(), "[start_json_list_garbage_collect] json info list reset!\n");
}
