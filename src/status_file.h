// status_file: what the agent is doing, for the people and programs on the host. Once a
// second the main loop gathers the connection, the send queue, the commands and transfers in
// hand and the patch digests, and
//   - writes data/status.json (JSON) when anything changed, through a temporary file and a
//     rename, so a reader never sees half a file;
//   - writes the same figures in the Prometheus text format to MGR_METRICS_TEXTFILE, when set,
//     for a node exporter's textfile collector;
//   - tells the service manager the connection and the running command (STATUS=).
#pragma once

#include <cstddef>

// Reads MGR_METRICS_TEXTFILE: unset or empty means no metrics file; otherwise it must be an
// absolute path in an existing directory. Returns 0, or -1 with the refusal (naming the
// variable) in refusal.
[[nodiscard]] int status_file_init(char *refusal, size_t size);
// Gathers the figures and writes what changed. Main thread only. Cannot fail: a write that
// fails is logged once until the next success.
void status_file_tick();
// Writes the status once more with the state "stopped", on the way out. Main thread only.
void status_file_final();
