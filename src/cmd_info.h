// cmd_info: the command record and the patch transfer item with the codes and names the
// command units share (intake, transfer, execution, script runner, result reporting). Types
// and constants only: this header depends on nothing else of the agent.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

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


// A transfer writes "<file_path>.part" and renames it to file_path when the last chunk has
// arrived whole, so a transfer cut short by a stop or a crash leaves only a ".part" file.
// The suffix is refused in patch file names.
inline constexpr char PATCH_PART_SUFFIX[] = ".part";
inline constexpr size_t PATCH_PART_PATH_SIZE = sizeof(patch_item_t::file_path) + sizeof(PATCH_PART_SUFFIX);

// ---- what the status report shows of the commands in hand ----------------------------------

// A command in the ring.
struct cmd_brief_t {
    char execution_id[64];
    char agent_id[64];
    int32_t cmd_type;       // CMD_*
    int32_t status;         // CMD_STATUS_USED, _RUN or _STOP
    uint64_t received_time; // ms since the epoch: received, or the start of its current script
};
// A patch transfer still receiving chunks.
struct transfer_brief_t {
    char execution_id[64];
    char file_name[64];
    uint64_t bytes_received;
    int64_t file_size;
};
// The SHA-256 of a patch file, taken as its chunks were written.
inline constexpr int PATCH_DIGEST_KEPT = 16; // the newest digests the status report lists
struct patch_digest_t {
    char execution_id[64];
    char file_name[64];
    uint64_t size;
    char sha256[65]; // lowercase hex, as sha256sum prints it
    int64_t written_ms; // when the last chunk was written, ms since the epoch
};
