// command_util: the two checks and runs that sit under the command handlers: the validity
// check of a patch chunk (check_chunk_validity, on the connection thread under g_hash_lock)
// and the script runner (run_script, on the command thread), which runs one agent script
// through "/bin/sh" with a time-out, honours a stop request and judges the output by the
// keywords "vkSuccess" and "vkError".
// It also owns what a run reads: the command prefixes the command thread builds for the
// command in hand, and the stop request of the running command, which intake raises.
// Thread safety: check_chunk_validity runs under the caller's lock of the transfer map;
// run_script and the prefixes belong to the command thread; the stop request is an atomic
// any thread may raise.
#pragma once

#include "cmd_info.h"
#include "command.h"

inline constexpr int CUSTOM_PREFIX_SIZE = 512;

// The command prefix built for the command in hand from the "custom_prefix" template: from
// the run user (g_custom_prefix, for stop.sh and start.sh) and from the install user
// (g_custom_patch_prefix, for the patch program). Written by the command thread before it
// runs a command, cleared after.
extern char g_custom_prefix[CUSTOM_PREFIX_SIZE];
extern char g_custom_patch_prefix[CUSTOM_PREFIX_SIZE];
// Result of the last prefix conversion (convert_env_to_cmd); run_script uses the prefixes
// only when it is 1.
extern int g_custom_prefix_flag;

// Asks the running command to stop (patch_stop): its script is ended and no further script
// of it starts. Raised by intake while it holds the ring's lock and the command runs;
// cleared when the command thread takes the next command. Cannot fail.
void command_stop_request();
void command_stop_clear();
// 1 when a stop of the running command was requested, else 0.
[[nodiscard]] int command_stop_requested();

// The ".part" file a transfer writes until its last chunk: "<file_path>.part". Cannot fail.
void patch_part_path(const patch_item_t *item, char (&out)[PATCH_PART_PATH_SIZE]);

// Output of one script kept in result_message, at most (the verdict text comes after it).
inline constexpr int RUN_SCRIPT_OUTPUT_MAX = 8191;
// Grace between SIGTERM and SIGKILL when a script is stopped or timed out.
inline constexpr int RUN_SCRIPT_KILL_GRACE_MS = 2000;

// Checks chunk against the transfer `item` (whose embedded command is `record`); on chunk 1
// creates the patch file (mode 0755, never through a planted link). Returns 0 when the chunk
// may be written, 1 when it must be refused: out of order, too late, a chunk_size larger
// than the data carried, or the file cannot be created; the reason is then in
// record->result_message. The caller holds g_hash_lock.
[[nodiscard]] int check_chunk_validity(const req_file_chunk_message_t *chunk, patch_item_t *item,
                                       cmd_info_t *record);

// Runs the script of run_type (RUN_TYPE_STOP: <run_path>/stop.sh, RUN_TYPE_START:
// <run_path>/start.sh, RUN_TYPE_SETUP: the patch file with its install-information file),
// through the command thread's prefix when one was built. Output and verdict are appended
// to record->result_message and record->result is set. Returns
//    0 "vkSuccess" printed (and no "vkError");
//   -1 no pipe;  -2 no fork;
//  -97 "vkError" printed, neither keyword, the wait failed, or no command line (unknown run
//      type, longer than 1023 characters);
//  -98 stopped on request (command_stop_requested);  -99 timed out.
// On a stop or time-out while the script runs, its whole process group gets SIGTERM and up
// to 2000 ms to end, then SIGKILL; processes a script that already ended left running are
// not touched. A stop requested before the run starts nothing (-98). The child is reaped.
int run_script(cmd_info_t *record, int run_type);
