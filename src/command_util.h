// command_util: the two checks and runs that sit under the command handlers: the validity
// check of a patch chunk (check_chunk_validity, on the connection thread under g_hash_lock)
// and the script runner (run_script, on the command thread), which runs one agent script
// through "/bin/sh" with a time-out, honours a stop request and judges the output by the
// keywords "vkSuccess" and "vkError".
// Thread safety: check_chunk_validity needs g_hash_lock held; run_script runs on the
// command thread (it reads that thread's prefix buffers).
#pragma once

#include "command_handler.h"

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
