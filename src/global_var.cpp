// global_var: definitions of the process-wide state, the manager id accessors, the autoload
// list reader and the start-up reset. main calls init_global_var once, before the
// configuration, the logging and the threads exist.
#include "global_var.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "vk_file.h"
#include "vk_raii.h"
#include "vk_string.h"
#include "vklog.h"

std::atomic<int> g_stop_the_world{0};
char g_vk_manager_home[VK_PATH_SIZE];
std::atomic<int> g_sudo_flag{0};
int64_t g_agent_boot_time = 0;
std::atomic<uint32_t> g_info_log{0};
char g_hostkey[HOST_KEY_SIZE];

char g_manager_id[MANAGER_ID_LEN + 1];
constinit vklock_t g_manager_id_lock{};

json_agent_info_t g_json_agent_info[MAX_AGENT_COUNT];
int32_t g_json_agent_count = 0;
constinit vklock_t g_json_lock{};
char g_json_prefix_option[JSON_PREFIX_OPTION_SIZE];
int32_t g_auto_load_count = 0;
char g_vk_auto_load_path[MAX_AGENT_COUNT][AUTO_LOAD_PATH_SIZE];

void set_manager_id(std::string_view id)
{
    std::lock_guard<vklock_t> hold(g_manager_id_lock);
    memset(g_manager_id, 0, sizeof(g_manager_id));
    vk_strlcpy(g_manager_id, id.substr(0, MANAGER_ID_LEN));
}

void copy_manager_id(char (&out)[MANAGER_ID_LEN + 1])
{
    std::lock_guard<vklock_t> hold(g_manager_id_lock);
    memcpy(out, g_manager_id, sizeof(out));
    out[MANAGER_ID_LEN] = '\0';
}

int init_auto_load(const char *home)
{
    g_auto_load_count = 0;
    memset(g_vk_auto_load_path, 0, sizeof(g_vk_auto_load_path));
    char path[VK_PATH_SIZE + 64];
    snprintf(path, sizeof(path), "%s/manager/data/autoload_conf", home != nullptr ? home : "");
    vk_unique_file file(home != nullptr ? vk_fopen_read(path, VK_OPEN_NOFOLLOW, "init_auto_load") : nullptr);
    if (!file) {
        VKLOG_INFO(g_vklog.load(), "[init_auto_load] data/autoload_conf file is not exist\n");
        return -1;
    }
    char line[AUTO_LOAD_PATH_SIZE];
    while (g_auto_load_count < MAX_AGENT_COUNT && fgets(line, sizeof(line), file.get()) != nullptr) {
        vk_trim(line);
        line[AUTO_LOAD_PATH_LEN] = '\0';
        char *slot = g_vk_auto_load_path[g_auto_load_count];
        vk_strlcpy(slot, line, AUTO_LOAD_PATH_SIZE);
        VKLOG_INFO(g_vklog.load(), "[init_auto_load] register autoload path [%s]\n", slot);
        g_auto_load_count++;
    }
    return 0;
}

int init_global_var(const char *home)
{
    if (home == nullptr)
        return -1;
    g_stop_the_world.store(0);
    memset(g_hostkey, 0, sizeof(g_hostkey));
    memset(g_vk_manager_home, 0, sizeof(g_vk_manager_home));
    snprintf(g_vk_manager_home, sizeof(g_vk_manager_home), "%s/manager", home);
    (void)init_auto_load(home); // no autoload file is a normal start
    g_info_log.store(0);
    return 0;
}

void clear_agent_registry()
{
    std::lock_guard<vklock_t> guard(g_json_lock);
    memset(g_json_agent_info, 0, sizeof(g_json_agent_info));
    g_json_agent_count = 0;
}
