// thr_garbage_collector: periodic removal of stale patch transfers and the registry reset.
#include "thr_garbage_collector.h"

#include <unistd.h>


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
        if (cmd_ring_count() == 0)
            start_json_list_garbage_collect();
    }
    VKLOG_INFO(g_vklog.load(), "[thr_garbage_collector] finish normally.\n");
    return nullptr;
}

int start_garbage_collect()
{
    return patch_collect_stale(static_cast<uint64_t>(vk_get_time_msec()));
}

void start_json_list_garbage_collect()
{
    clear_agent_registry();
    VKLOG_INFO(g_vklog.load(), "[start_json_list_garbage_collect] json info list reset!\n");
}
