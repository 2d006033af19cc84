// cmd_journal: the commands the agent has accepted and not yet answered for good, kept in
// data/cmd_journal so that a command running when the agent stopped (a crash, an OOM kill,
// a reboot, an upgrade) is still answered, and a done result lost with a connection is sent
// again. A record is added when a command enters the ring or its transfer starts, gets its
// final result when the command ends, and goes once that done result has been written to the
// DG socket (or when the command ends without one: a failed or cancelled transfer, a queued
// command cancelled by a stop, a ring slot overwritten). Every change rewrites the file
// through a temporary file and a rename (not synced: a kill or crash of the agent loses no
// record); a write that fails costs a log line only.
// Safe from any thread.
#pragma once

#include <cstddef>

#include "cmd_info.h"

inline constexpr int CMD_JOURNAL_MAX = 128; // records kept; beyond that the oldest accepted goes

// Reads "<manager home>/data/cmd_journal" at start-up: records with a result are to be sent
// again, records without one were interrupted. A file that does not parse (or is not a
// regular file) is renamed to "cmd_journal.damaged" with an ERROR line and the journal starts
// empty. Returns the number of records read.
int cmd_journal_open();
// Records an accepted command; part_path names the ".part" file of a transfer (null for none).
void cmd_journal_accept(const cmd_info_t *record, const char *part_path);
// Records the final answer of the command journaled as `key` (its execution id when
// accepted): the ids, result and text of `answer` are what is sent.
void cmd_journal_done(const char *key, const cmd_info_t *answer);
// The done result of `key` has been written to the DG socket, or the command ended without
// one: the record goes.
void cmd_journal_remove(const char *key);
// After a handshake: fills keys (up to max) with the keys of the done results to send now.
// On the first call of the process the records interrupted by the last stop are first given
// the result FAIL with the text "[agent manager] The agent stopped while the command was
// running. (execution_id:<id>)" and their ".part" files removed. Returns the number filled.
int cmd_journal_to_send(char (*keys)[64], int max);
// Fills out with the done result recorded for key. Returns 0, -1 when there is none (sent
// and removed meanwhile).
int cmd_journal_answer(const char *key, cmd_info_t *out);
// Held while a done result is recorded and queued, and while the journal's results are sent
// after a handshake, so that no result is queued twice.
struct cmd_journal_send_guard {
    cmd_journal_send_guard();
    ~cmd_journal_send_guard();
    cmd_journal_send_guard(const cmd_journal_send_guard &) = delete;
    cmd_journal_send_guard &operator=(const cmd_journal_send_guard &) = delete;
};
// Records in the journal. Cannot fail.
int cmd_journal_count();
