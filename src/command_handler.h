// command_handler: the remote-command state and its intake. Owns the ring g_cmd_info of 100
// command records that the command thread works off and the map of patch transfers
// g_patch_list_map: no other unit indexes the ring or walks the map; they use the
// operations below. set_command, patch_command and del_command take decoded requests from
// process_req_command, write_file_from_chunk takes chunks from save_file_chunk.
// Thread safety: the handlers run on the connection thread, the ring operations on the
// command thread, the sweep on the garbage collector; every operation takes the locks it
// needs itself: g_hash_lock (the map) before g_command_lock (the ring and its counters).
// The command thread runs a private copy of the record it executes, so intake never
// writes memory a running script reads.
#pragma once

#include <cstdint>

#include "cmd_info.h"
#include "command.h"

inline constexpr int CMD_INFO_COUNT = 100; // records in the ring
inline constexpr int PATCH_MAP_BUCKETS = 128;
inline constexpr int PATCH_KEY_LEN = 64;

// Creates the empty patch map (128 buckets, items of 12432 bytes) and empties the ring;
// transfers still in the map are closed and freed. Called once by main before any thread
// starts. Returns 0, or the negative map_init result.
int init_chunk_hash();

// ---- intake (connection thread) ------------------------------------------------------------

// agent_restart, agent_stop and unknown types: queue the command (options not copied) and
// acknowledge it ("Success received the command"). Returns 0.
int set_command(const req_command_message_t *msg);
// patch_start: open a transfer for the agent (refused while one is in hand, or when the
// request has no usable file information, a reserved or hostile file name, or no real tmp
// directory). Returns 0; problems are reported to the DG.
int patch_command(const req_command_message_t *msg);
// patch_stop: cancel the agent's transfer, its queued command, or stop its running command.
// Returns 0; problems are reported to the DG.
int del_command(const req_command_message_t *msg);
// One chunk of a transfer: checked, appended to the patch file, and on the last chunk the
// size is checked, the file given its name and the command queued. Returns 0; problems are
// reported to the DG.
int write_file_from_chunk(const req_file_chunk_message_t *chunk);

// ---- the ring, for the command thread --------------------------------------------------------

// Takes the oldest queued record for execution: slots cancelled by a patch_stop are removed
// on the way (unreported), the record is marked RUN (from here a patch_stop of it is a stop
// of a running command) and copied into work. Returns its slot, or -1 when nothing is queued.
[[nodiscard]] int cmd_ring_take(cmd_info_t *work);
// Gives work the execution and command ids that a patch_stop handed the running record of
// slot, so that its done result answers the stop. Cannot fail.
void cmd_ring_stop_ids(int slot, cmd_info_t *work);
// Ends the command of slot once its done result was sent: a patch's transfer item goes (its
// file stays), the slot is cleared and the ring advances past it. A slot a newer command
// overwrote meanwhile is left alone. Cannot fail.
void cmd_ring_finish(int slot, const cmd_info_t *work);

// Records in the ring; start and end (when given) receive the oldest slot and the next slot
// to fill. Cannot fail.
int cmd_ring_count(int *start = nullptr, int *end = nullptr);
// Copies the record of slot into out. Returns 0, -1 for a slot outside the ring.
[[nodiscard]] int cmd_ring_get(int slot, cmd_info_t *out);

// ---- for the status report ---------------------------------------------------------------------

// Copies up to max_cmds ring records (oldest first) into cmds and up to max_transfers
// transfers still receiving chunks into transfers; *cmd_count and *transfer_count receive
// the numbers copied. Cannot fail.
void command_snapshot(cmd_brief_t *cmds, int max_cmds, int *cmd_count, transfer_brief_t *transfers,
                      int max_transfers, int *transfer_count);

// Copies up to max of the newest patch digests (newest first) into out. Returns the number
// copied. Cannot fail.
int patch_digest_recent(patch_digest_t *out, int max);

// ---- the patch map, for the garbage collector -------------------------------------------------

// Removes every transfer item older than its time-out at `now` (ms since the epoch), logged
// as the collector's "[start_garbage_collect] garbage detect ..." line: a transfer still
// receiving chunks loses its ".part" file, a queued patch keeps its file (its command still
// runs). Returns the number removed.
int patch_collect_stale(uint64_t now);
// Transfers in hand. Cannot fail.
int patch_count();

// Removes every "*.part" file (or link of that name) directly under the manager home's tmp
// directory: transfers that did not complete. Only async-signal-safe calls, no allocation
// and no lock, so it may run on the exit path of any stop. Returns the number removed, or
// -1 when tmp cannot be opened as a directory.
int remove_partial_patch_files();
