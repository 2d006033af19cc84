// global_var: definitions of the process-wide state and its start-up reset. main calls
// init_global_var once, before the configuration, the logging and the threads exist.
#include "global_var.h"

#include <cstdio>
#include <cstring>

#include "signal_ctl.h"

std::atomic<int> g_stop_the_world{0};
char g_vk_manager_home[VK_PATH_SIZE];
std::atomic<int> g_sudo_flag{0};
int64_t g_agent_boot_time = 0;
std::atomic<uint32_t> g_info_log{0};

int init_global_var(const char *home)
{
    if (home == nullptr)
        return -1;
    g_stop_the_world.store(0);
    // The host key (host identity unit) is cleared here once that unit exists.
    memset(g_vk_manager_home, 0, sizeof(g_vk_manager_home));
    snprintf(g_vk_manager_home, sizeof(g_vk_manager_home), "%s/manager", home);
    // init_auto_load(home) (target agent registry) goes here once the registry exists; it
    // reads "<home>/manager/data/autoload_conf".
    // The connection flags g_dg_is_connection and g_remote_conf_is_initialize (connection
    // thread unit) are cleared here once that unit exists.
    g_info_log.store(0);
    clear_signal_debug_code();
    return 0;
}
