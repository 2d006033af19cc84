// command_handler: the remote-command state and its intake. Owns the command record, the
// ring g_cmd_info of 100 records that the command thread works off, and the map of patch
// transfers g_patch_list_map; set_command, patch_command and del_command take decoded
// requests from process_req_command, write_file_from_chunk takes chunks from save_file_chunk.
// Thread safety: the handlers run on the connection thread. The ring (records and counters)
// is guarded by g_command_lock, the patch map by g_hash_lock; when both are needed
// g_hash_lock is taken first. The command thread runs a private copy of the slot it
// executes (g_cmd_running_idx), so intake never writes memory a running script reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "command.h"
#include "hash2.h"
#include "vk_lock.h"

// ---- codes shared by the command units --------------------------------------------------

enum : int32_t { // cmd_type
    CMD_AGENT_RESTART = 1,
    CMD_AGENT_STOP = 2,
    CMD_PATCH_START = 3,
    CMD_PATCH_STOP = 4,
};
enum : int32_t { // record status
    CMD_STATUS_EMPTY = 0,
    CMD_STATUS_USED = 1, // queued, not yet started
    CMD_STATUS_RUN = 2,  // taken by the command thread
    CMD_STATUS_STOP = 3, // a stop was requested while running
};
enum : int32_t { // result
    CMD_RESULT_SUCCESS = 1,
    CMD_RESULT_FAIL = 2,
    CMD_RESULT_TIMEOUT = 3,
};
enum : int32_t { // phase of a result message
    CMD_PHASE_IN_PROGRESS = 1,
    CMD_PHASE_DONE = 2,
};
enum : int { // what run_script runs
    RUN_TYPE_STOP = 0,
    RUN_TYPE_START = 1,
    RUN_TYPE_SETUP = 2,
};

// Names for logs and texts, indexed by value; "unknown" for any value without one.
namespace cmd_names
{
inline constexpr std::string_view cmd_type[] = {"unknown", "agent_restart", "agent_stop", "patch_start",
                                                "patch_stop"};
inline constexpr std::string_view status[] = {"unknown", "USED", "RUN", "STOP"};
inline constexpr std::string_view result[] = {"unknown", "SUCCESS", "FAIL", "TIMEOUT"};
inline constexpr std::string_view phase[] = {"unknown", "in_progress", "done"};
inline constexpr std::string_view run_type[] = {"STOP", "START", "SETUP"};

template <size_t N> constexpr const char *name_of(const std::string_view (&names)[N], long long value)
{
    return value >= 0 && value < static_cast<long long>(N) ? names[value].data() : "unknown";
}
} // namespace cmd_names

constexpr const char *cmd_type_name(long long v) { return cmd_names::name_of(cmd_names::cmd_type, v); }
constexpr const char *cmd_status_name(long long v) { return cmd_names::name_of(cmd_names::status, v); }
constexpr const char *cmd_result_name(long long v) { return cmd_names::name_of(cmd_names::result, v); }
constexpr const char *cmd_phase_name(long long v) { return cmd_names::name_of(cmd_names::phase, v); }
constexpr const char *run_type_name(long long v) { return cmd_names::name_of(cmd_names::run_type, v); }

// ---- the command record -------------------------------------------------------------------

inline constexpr int CMD_INFO_COUNT = 100;          // records in the ring
inline constexpr int CMD_OPTION_COUNT = 10;         // key/value pairs a record keeps
inline constexpr int CMD_RESULT_MESSAGE_SIZE = 9216; // result_message holds at most 9215 characters

struct cmd_option_t {
    char key[64];    // at most 63 characters
    char value[128]; // at most 127 characters
};

// One command. Every text is cut to its field and always terminated.
struct cmd_info_t {
    int32_t status;           // CMD_STATUS_*
    uint64_t received_time;   // ms since the epoch when filled; a script run restarts it
    char execution_id[64];
    char command_id[64];      // echoed in every result
    int32_t cmd_type;         // CMD_*
    char agent_id[64];
    int32_t agent_type;
    char install_username[64];
    char install_path[256];
    char run_username[64];
    char run_path[256];
    int32_t timeout;          // ms, for the whole transfer and for each script run
    int32_t option_count;     // pairs in options, at most 10 (the first 10 of the request)
    cmd_option_t options[CMD_OPTION_COUNT];
    char file_name[64];       // patch file name (patch_start)
    int32_t result;           // CMD_RESULT_*
    char result_message[CMD_RESULT_MESSAGE_SIZE]; // cleared after each send
    int32_t root_check;       // copied from the target agent registry by the command thread
};

// A patch transfer in hand for one agent: the value of g_patch_list_map, keyed by its
// first 64 bytes (the agent id, zero-padded).
struct patch_item_t {
    char key[64];             // agent_id
    char file_path[256];      // "<manager home>/tmp/<file_name>"
    cmd_info_t command;       // the patch_start as received (status 0 until queued)
    uint64_t last_chunk_index; // index of the last chunk accepted, 0 before the first
    uint64_t bytes_received;
    int64_t file_size;        // expected size
    int32_t buffer_index;     // ring slot of the queued command; -1 while transferring
    FILE *file;               // the patch file open for writing; null when closed
};
static_assert(sizeof(patch_item_t) == 12432, "patch items are 12432 bytes");

inline constexpr int PATCH_MAP_BUCKETS = 128;
inline constexpr int PATCH_KEY_LEN = 64;

// ---- the ring and the patch map -------------------------------------------------------------

// The ring: start is the oldest record, end the next slot to fill, count the records in
// use (at most 100). Records and counters are guarded by g_command_lock; the count is an
// atomic as well, so the garbage collector may look at it without the lock.
extern cmd_info_t g_cmd_info[CMD_INFO_COUNT];
extern int32_t g_cmd_info_start;
extern int32_t g_cmd_info_end;
extern std::atomic<int32_t> g_cmd_info_count;
extern vklock_t g_command_lock;
// The slot whose command the command thread is running (its status is RUN or STOP), or -1.
extern std::atomic<int32_t> g_cmd_running_idx;

// Patch transfers by agent id, guarded by g_hash_lock.
extern map_t g_patch_list_map;
extern vklock_t g_hash_lock;

// Creates the empty patch map (128 buckets, items of 12432 bytes). Called once by main
// before any thread starts. Returns 0, or the negative map_init result.
int init_chunk_hash();

// A transfer writes "<file_path>.part" and renames it to file_path when the last chunk has
// arrived whole, so a transfer cut short by a stop or a crash leaves only a ".part" file,
// which remove_partial_patch_files finds. The suffix is refused in patch file names.
inline constexpr char PATCH_PART_SUFFIX[] = ".part";
inline constexpr size_t PATCH_PART_PATH_SIZE = sizeof(patch_item_t::file_path) + sizeof(PATCH_PART_SUFFIX);

// The file a transfer writes until its last chunk: "<file_path>.part". Cannot fail.
void patch_part_path(const patch_item_t *item, char (&out)[PATCH_PART_PATH_SIZE]);

// Removes every "*.part" file (or link of that name) directly under the manager home's tmp
// directory: transfers that did not complete. Only async-signal-safe calls, no allocation
// and no lock, so it may run from the exit path of any stop. Returns the number removed, or
// -1 when tmp cannot be opened as a directory.
int remove_partial_patch_files();

// Ends a transfer or a finished patch: closes the item's file, removes the item from the map
// (freeing it) and, with remove_file, the file it wrote (the ".part" file while transferring,
// the patch file once queued). Caller holds g_hash_lock.
void patch_item_teardown(patch_item_t *item, bool remove_file);

// Appends a copy of record at g_cmd_info_end with status USED; the caller holds
// g_command_lock. When the ring already holds 100 records the oldest is overwritten (start
// advances too, logged at INFO as "[<caller>] command buffer full. overwrite old command.
// new start_idx[%d] end_idx[%d]\n"). Returns the slot written.
int cmd_ring_push_locked(const cmd_info_t &record, const char *caller);

// 1 when a stop was requested for the command that `record` is a working copy of: the
// status of slot g_cmd_running_idx (read under g_command_lock) is STOP; with no running slot
// (-1) the record's own status, read atomically, decides. Otherwise 0.
[[nodiscard]] int command_stop_requested(const cmd_info_t *record);

// agent_restart, agent_stop and unknown types: queue the command (options not copied) and
// acknowledge it ("Success received the command"). Returns 0.
int set_command(const req_command_message_t *msg);
// patch_start: open a transfer for the agent (refused while one is in hand, or when the
// request has no usable file information). Returns 0; problems are reported to the DG.
int patch_command(const req_command_message_t *msg);
// patch_stop: cancel the agent's transfer, its queued command, or stop its running command.
// Returns 0; problems are reported to the DG.
int del_command(const req_command_message_t *msg);
// One chunk of a transfer: checked, appended to the patch file, and on the last chunk the
// size is checked and the command queued. Returns 0; problems are reported to the DG.
int write_file_from_chunk(const req_file_chunk_message_t *chunk);
