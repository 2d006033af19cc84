// proto_send: builders of the messages the agent sends: the agent information of the
// handshake, the ping answer, the timezone offset, the time-sync request, command results
// and the target agent list.
// Thread safety: the builders that queue may run on any thread; the handshake and ping
// builders write on the socket they are given (connection thread).
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Bytes of the usual message workspace and encode buffer.
inline constexpr int PROTO_WORKSPACE_SIZE = 65536;
// Workspace of the small messages (time sync, timezone, handshake reply).
inline constexpr int PROTO_SMALL_WORKSPACE_SIZE = 1024;

// Gathers the host identity once (OS facts, CPU counts, address lists), before the first
// connection. Returns 0; -1 the OS facts, -2 the CPU counts, -3 the address lists failed
// (logged; the later facts stay empty).
int initialize_agent_info();
// Agent information (10043) written directly on socket (the handshake comes before the
// queue is active). Returns 0; -1 no workspace; -2/-3/-4 the address or manager-id items do
// not fit; -6 encoding failed; -7 the write failed; -8 it was short.
int send_manager_agent_info(int socket);

// Ping answer (40000, empty body) written at once under the socket write lock. Returns the
// bytes written (23), 0 when the packet could not be built, or the negative write result.
ssize_t send_res_ping(int socket);
// Timezone offset (40001): the local zone's offset east of UTC in ms at the epoch instant,
// queued. Returns 1; -1 no workspace; -2 encoding failed.
int send_res_timezone_offset();
// Time-sync request (40006) with the agent's clock, queued. Returns 1; -1 no workspace;
// -2 encoding failed.
int send_req_timesync();
// The local zone's offset east of UTC in ms, taken at the epoch instant.
[[nodiscard]] int64_t timezone_offset_msec();

struct cmd_info_t;

// Command result (60002) from record with phase (1 in_progress, 2 done), queued. The
// result text goes out up to its first zero byte, with any byte sequence that is not UTF-8
// replaced by '?' (script output is arbitrary bytes; the DG parses the text as UTF-8).
// Returns 0; -1 no workspace; -2 encoding failed.
// journal_key, when given, names the journal record this result answers: once the packet is
// written to the DG socket the record goes (cmd_journal).
int send_res_command(const cmd_info_t *record, int phase, const char *journal_key = nullptr);
// Copies text into out (out_size bytes, terminated) with every byte that does not start a
// valid UTF-8 sequence (and a sequence that would not fit) replaced by '?'. Returns the
// bytes written before the terminator.
size_t utf8_sanitize(const char *text, char *out, size_t out_size);

// Target agent list (60003): reloads the registry from agent_config.json and the autoload
// list, then queues the ids. Returns 0; -2 the configuration could not be loaded (nothing
// sent this period); -3 no workspace; -4 the items do not fit; -5 encoding failed.
int send_target_agent_info();
