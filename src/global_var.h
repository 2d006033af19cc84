// global_var: the process-wide state every unit shares (stop flag, manager home, root flag,
// boot time, send-queue drop counter) and its reset at start-up, init_global_var, which main
// calls once before the configuration and the worker threads exist.
// Thread safety: the flags read across threads without a lock are atomics; the manager home
// and the boot time are written once by main before any worker thread starts.
#pragma once

#include <atomic>
#include <cstdint>

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

// Resets the shared state for a start from installation home `home`: clears the stop flag,
// sets g_vk_manager_home to "<home>/manager" (cut to fit), clears g_info_log and the
// breadcrumb table. Returns 0, or -1 for a null home (nothing changed).
[[nodiscard]] int init_global_var(const char *home);
