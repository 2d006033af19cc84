// req_time_sync: the time-sync request body (type 40006) that the agent sends with its own clock;
// built by send_req_timesync.
// Thread-safe: each function touches only the record, workspace and buffer it is given.
#pragma once

#include "pbtools.h"

// Every message below has the same three operations (and an _alloc per repeated field or
// sub-message), with these results:
//   M_new     the default record (texts "", counts 0, pointers null) in a fresh workspace heap,
//             or null when the workspace is under 16 bytes or too small for the record;
//   M_encode  the number of bytes written at the start of encoded_p (0 when every field is
//             default), or -4 when they do not fit;
//   M_decode  size (all consumed), or -1 bad wire type, -2 truncated, -3 workspace exhausted,
//             -5 field number 0, -6 varint over 10 bytes, -8 length of 0x7FFFFFFF or more;
//             the record is reset first and must not be used after a failure. A record
//             made by M_new first gets back the workspace its earlier decodes took, so
//             it can be decoded into again and again (their texts are overwritten).

// ---- req_time_sync (out, 40006) ---------------------------------------------

struct req_time_sync_t {
    pbtools_heap_t *heap_p;
    uint64_t server_time; // 1: the agent's clock in ms; named "server_time" on purpose
};

[[nodiscard]] req_time_sync_t *req_time_sync_new(void *workspace_p, size_t size);
[[nodiscard]] int req_time_sync_encode(const req_time_sync_t *self_p, uint8_t *encoded_p, size_t size);
[[nodiscard]] int req_time_sync_decode(req_time_sync_t *self_p, const uint8_t *encoded_p, size_t size);
