// pub_conf: turns the option table into a running set-up. Owns g_conf_handle with its file
// data/config, the agent's log categories and their periodic re-application.
// Called by main during start-up and by the main loop (update_vklog every third second).
// Thread safety: the bootstrap runs on the main thread
// before the worker threads start; update_vklog may run while others log.
#pragma once

#include "configure.h"

// The option table of the process, created by initialize_configure_manager_agent.
extern configure_t *g_conf_handle;

// Option indexes of the manager options, in preset order.
enum : int {
    MGR_CONF_INTERVAL_INFO_LOG = 0,
    MGR_CONF_LOG_DIRECTORY = 1,
    MGR_CONF_LOG_FILENAME = 2,
    MGR_CONF_LOG_LEVEL = 3,
    MGR_CONF_INTERVAL_GARBAGE_COLLECT = 4,
    MGR_CONF_COUNT = 5,
};

// The compiled-in manager option presets, in index order.
inline constexpr conf_preset_t g_manager_conf_preset[MGR_CONF_COUNT] = {
    {CONF_TYPE_UPDATABLE, "MGR_INTERVAL_INFO_LOG", "300"},
    {CONF_TYPE_UPDATABLE, "MGR_LOG_DIRECTORY", "${MGR_QUIL_MANAGER_HOME}/log"},
    {CONF_TYPE_UPDATABLE, "MGR_LOG_FILENAME", "quil-manager-agent.log"},
    {CONF_TYPE_UPDATABLE, "MGR_LOG_LEVEL", "info"},
    {CONF_TYPE_UPDATABLE, "MGR_INTERVAL_GARBAGE_COLLECT", "86400"},
};


// Creates g_conf_handle from the presets, writes data/config with the defaults when nothing
// is at its path (printing "[main] (<path>) file already exists.\n"; a link or a FIFO there
// is left alone and refused by the load), loads it, sets up logging
// (init_vklog) and lists the options. Returns 0; -1 when the table cannot be created. A
// logging set-up failure prints its line and exits the process with status 0. A second
// call (tests) replaces the table, so it must not run while other threads use it.
[[nodiscard]] int initialize_configure_manager_agent(int debug);
// Sets up the category "quil-manager-agent" (file output in the configured directory,
// name and level) as g_vklog, and the console debug handle. Returns 0; -1 the directory
// cannot be expanded; -2 the library refuses the configuration; -3 the category is missing;
// -4 the debug category cannot be set up. Failures print a line on standard output. A
// level value the library does not know keeps the preset's level and is logged at ERROR.
[[nodiscard]] int init_vklog(int debug);
// Sets up the category "debug-mode" (standard output, exactly trace, time header) as the
// console debug handle. Returns 0; -1 the configuration is refused; -2 the category is
// missing. Failures print a line on standard output.
[[nodiscard]] int init_vklog_debug_mode();
// Re-applies the directory, file name and level options to the main category (a missing
// directory is logged and the current one kept; an unknown level value keeps the current
// level and is logged at ERROR once per value). Returns 0; -1 the directory cannot be
// expanded; -2 the configuration cannot be cloned; -3 the library refuses it.
int update_vklog();
