// global_var: the process-wide state every unit shares (stop flag, manager home, root flag,
// boot time, send-queue drop counter, host key, manager id, target agent registry and
// autoload list) and its reset at start-up, init_global_var, which main calls once before
// the configuration and the worker threads exist.
// Thread safety: the flags read across threads without a lock are atomics; the registry is
// guarded by g_json_lock and the manager id by g_manager_id_lock; the rest is written by
// main before any worker thread starts.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "vk_lock.h"

// Size of every path buffer built under the manager home.
inline constexpr int VK_PATH_SIZE = 256;

// 0 while running; any thread that stores 1 asks every loop to end.
extern std::atomic<int> g_stop_the_world;
// The manager home: MGR_QUIL_HOME followed by "/manager". Every data path is built under it.
extern char g_vk_manager_home[VK_PATH_SIZE];
// 1 when the effective user id is 0 (set by init_sudo_flag).
extern std::atomic<int> g_sudo_flag;
// Wall-clock start time in milliseconds since the epoch, taken first thing in main.
extern int64_t g_agent_boot_time;
// Outgoing messages dropped because the send queue was full; reported by info_log.
extern std::atomic<uint32_t> g_info_log;

// Host key buffer; cleared at start-up (getHostKey hands out its own copies).
inline constexpr int HOST_KEY_SIZE = 256;
extern char g_hostkey[HOST_KEY_SIZE];

// ---- manager id -------------------------------------------------------------------
// The id the DG assigned to this manager agent (data/manager_id). The connection thread
// writes it, the command thread and the agent information read it.
inline constexpr int MANAGER_ID_LEN = 36;
extern char g_manager_id[MANAGER_ID_LEN + 1]; // guarded by g_manager_id_lock
extern vklock_t g_manager_id_lock;
// Stores at most 36 bytes of id (cut there, terminated), under the lock. Cannot fail.
void set_manager_id(std::string_view id);
// Copies the id, terminated, into out, under the lock. Cannot fail.
void copy_manager_id(char (&out)[MANAGER_ID_LEN + 1]);

// ---- target agent registry ---------------------------------------------------------
// The monitoring agents on this host, filled by parse_agent_config_file (util) from the
// autoload list and data/agent_config.json, reported by send_target_agent_info, emptied by
// the garbage collector. Everything in this section except the autoload list is guarded by
// g_json_lock (std::lock_guard<vklock_t>): take it to read records as well.
inline constexpr int MAX_AGENT_COUNT = 64;
inline constexpr int AGENT_ID_LEN = 36;             // an agent id is a UUID in text form
inline constexpr int JSON_PREFIX_OPTION_SIZE = 512; // "custom_prefix", at most 511 characters
inline constexpr int AUTO_LOAD_PATH_SIZE = 512;     // each path at most 255 characters
inline constexpr int AUTO_LOAD_PATH_LEN = 255;

// One registered agent. A record keeps its index until the registry is reset.
struct json_agent_info_t {
    int32_t root_check; // "root_check" of its agent_config.json entry, 0 when absent
    char reserved[512]; // never filled
    char agent_id[40];  // first 36 characters of the id file's first line, terminated
};

extern json_agent_info_t g_json_agent_info[MAX_AGENT_COUNT];
extern int32_t g_json_agent_count; // records 0 .. count-1 are in use
extern vklock_t g_json_lock;
extern char g_json_prefix_option[JSON_PREFIX_OPTION_SIZE];

// Empties the registry (every record zeroed, count 0) under g_json_lock; the prefix stays.
// Cannot fail.
void clear_agent_registry();
// Autoload list: written by init_auto_load at start-up, read-only afterwards.
extern int32_t g_auto_load_count;
extern char g_vk_auto_load_path[MAX_AGENT_COUNT][AUTO_LOAD_PATH_SIZE];

// Replaces the autoload list with the lines of "<home>/manager/data/autoload_conf" (a
// regular file, never through a link; 512 bytes a line): each trimmed of white space, cut at 255 characters and
// stored in the next slot, empty lines included; reading stops once 64 are stored. Returns
// 0, or -1 when the file cannot be opened (the list is then empty; logged at INFO, a link
// or a file of another type also at ERROR).
int init_auto_load(const char *home);

// Resets the shared state for a start from installation home `home`: clears the stop flag
// and g_hostkey, sets g_vk_manager_home to "<home>/manager" (cut to fit), reads the
// autoload list (init_auto_load), clears g_info_log. The breadcrumb table and the
// connection flags belong to their units (signal_ctl, thr_dgconn), which start cleared;
// main clears the breadcrumbs right after this. Locks are never re-initialised. Returns 0 (also without an autoload file), or -1 for a null home
// (nothing changed).
[[nodiscard]] int init_global_var(const char *home);
