// proto_recv: handlers of the messages the DG sends, called by the dispatcher (on_demand)
// on the connection thread: handshake reply, ping, timezone request, time-sync reply,
// command requests and file chunks.
// Thread safety: connection thread only.
#pragma once

#include <cstdint>

// Handshake reply (50036): keeps the assigned manager id and saves it to data/manager_id
// through "data/manager_id.tmp" and a rename when the file does not hold it yet
// (save_manager_id). Returns 0, also when the file cannot be written (logged at ERROR; the id
// is kept in memory and saved at the next handshake, the old file stays); -1 no message
// workspace; -2 the body does not decode; -3 the id is empty (the DG refuses this agent).
int process_res_common_agent_info(const uint8_t *body, int length);
// Ping (50000): answered at once. Returns send_res_ping's result.
int process_res_ping(int socket);
// Timezone request (50001): answered through the queue. Returns send_res_timezone_offset's
// result.
int process_res_timezone_offset();
// Time-sync reply (50020): one sample of the round; sends the next request until the round
// of ten is complete, then logs the difference. Returns 0 (round complete), the request's
// result (1), or -1 no workspace, -2 the body does not decode.
int process_res_timesync(const uint8_t *body, int length);
// Command request (60001): decoded in a workspace of body length + 4096 bytes and handed to
// del_command (patch_stop), patch_command (patch_start) or set_command (any other type).
// Returns 0; -1 no workspace; -2 no message; -3 the body does not decode; -4 the request has
// no key/value options (never executed); -5/-6/-7 the handler failed.
int process_req_command(const uint8_t *body, int body_len);
// File chunk (60004): decoded in a workspace of body length + 4096 bytes and handed to
// write_file_from_chunk. Returns 0; -1 no workspace; -2 no message; -3 the body does not
// decode; -4 the handler failed.
int save_file_chunk(const uint8_t *body, int body_len);
