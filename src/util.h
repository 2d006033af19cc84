// util: start-up helpers of the main process (the single-instance guard on
// data/manager_agent_pid, the root flag, the send-queue drop report of the main loop, the
// ${NAME} expansion of configured paths) and the loading of the target agent registry
// (agent_config.json, id files, data/manager_id and its saving). Called by main, process_main, pub_conf,
// the command thread and the agent information builder.
// Thread safety: convert_env_path and get_manager_agent_id are safe from any thread; the
// registry functions take or need g_json_lock; the others run on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

#include "vk_raii.h"

// Appends source (at most 255 characters) to dest with every ${NAME} replaced by the
// environment variable NAME; dest (dest_size bytes, 512 in every caller) is passed zeroed.
// Returns 0; -1 null argument or dest_size 0; -2 a "${" without closing "}"; -3 a variable
// unset, empty or 256 characters or longer; -4 the result does not fit in dest. On failure
// dest holds the text expanded so far (terminated).
[[nodiscard]] int convert_env_path(const char *source, char *dest, size_t dest_size);

// Single-instance guard. Under a non-blocking lock on the pid file
// "<g_vk_manager_home>/data/manager_agent_pid" (created 0666 less the umask, never through a
// link, only a regular file): when the pid recorded there is a live process whose command
// line contains process_name, refuses; otherwise writes this process's pid as a 32-byte
// NUL-padded record over the first 32 bytes. On success the file stays open (close-on-exec)
// and locked until the process ends, so a second agent meets the lock whatever the record
// holds; a later call (tests) first drops the hold of an earlier one. Returns 0 (go on);
// 1 the file cannot be opened (a link or another type included); 2 another starter holds the
// lock; 3 a live agent is recorded (also when it holds the lock); 4 the record cannot be
// written in full (a full disk; also printed on standard error). Each refusal is logged at
// ERROR and leaves the file unlocked by this process.
[[nodiscard]] int check_double_execution(const char *process_name, const char *display_name);

// Sets g_sudo_flag to 1 when the effective user id is 0, else 0. Returns the effective
// user id.
int init_sudo_flag();

// Logs at INFO the send-queue length (queue_count, get_send_queue_count of the connection
// unit) and the messages dropped since the previous call (a
// counter that went backwards counts as wrapped: (4294967295 - previous) + current).
// Returns that difference; the previous value is updated even when INFO is filtered out.
uint32_t info_log(uint32_t queue_count);

// ---- target agent registry ----------------------------------------------------------

// Largest data/agent_config.json that parse_agent_config_file reads (16 MiB).
inline constexpr long AGENT_CONFIG_MAX_SIZE = 16L * 1024 * 1024;

// Reads the first line of "<g_vk_manager_home>/data/manager_id" (a regular file, never
// through a link; at most 39 characters), cuts it at 36, drops its line end and stores it
// with set_manager_id. Returns 0 when the file was opened (an empty file leaves the id as it
// was), also without reading it while an id the DG assigned waits to be saved (that id is
// newer); -1 when it cannot be opened (id unchanged; a link or another type logged at ERROR).
int get_manager_agent_id();

// Saves id as "<id>\n" to "<g_vk_manager_home>/data/manager_id" (through manager_id.tmp,
// created afresh, and a rename) unless the file already holds it. Returns 0 saved or already
// there; -1 null id or the file cannot be written: logged at ERROR with path and errno, and
// until a later save succeeds get_manager_agent_id keeps the id in memory.
int save_manager_id(const char *id);

// Registers the agent whose id file is `path` (a regular file; links are followed, the file
// lives in the agent's home): its first line (at most 39 characters) cut at 36 characters,
// without its line end. The caller holds g_json_lock. Returns the index of the agent's
// record: an existing record with the same id is reused, else a cleared one is appended. -1
// the file cannot be opened or is not a regular file (or path is null), -2 its first line
// cannot be read, -3 the id is new and the registry already holds MAX_AGENT_COUNT records,
// -4 the id is not valid UTF-8 (logged at ERROR). The registry is unchanged on failure.
int set_agent_id_to_list(const char *path);

// Loads the registry: registers the autoload paths (under g_json_lock), then reads and
// parses "<g_vk_manager_home>/data/agent_config.json" (a regular file, never through a
// link) and, under g_json_lock, clears
// g_json_prefix_option and walks the root's members: "common_option" gives the prefix
// (the last child's "custom_prefix" string wins, cut at 511), every other member is a
// group of agent entries {"path": string, "root_check": number}. Records accumulate
// across loads; an agent seen again keeps its index and gets its root_check refreshed
// (absent: 0; present but not a number: unchanged). Past MAX_AGENT_COUNT records each
// group logs "MAX_AGENT_COUNT!!!" and is left. Returns g_json_agent_count, or -1 the file
// cannot be opened, -2 / -3 / -4 seeking to the end / telling the position / seeking back
// failed, -5 the text cannot be allocated, -6 a read of 0 bytes or fewer than the length
// (an empty file) or a file larger than AGENT_CONFIG_MAX_SIZE, -7 not valid JSON. On
// failure the autoload agents are registered and the rest is unchanged.
int parse_agent_config_file();
