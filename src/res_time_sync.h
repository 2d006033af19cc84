// res_time_sync: the time-sync reply body (type 50020) from the DG; read by process_res_timesync,
// which uses agent_time - dg_time.
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

// ---- res_time_sync_message (in, 50020) --------------------------------------

struct res_time_sync_message_t {
    pbtools_heap_t *heap_p;
    uint64_t agent_time; // 1: ms
    uint64_t dg_time;    // 2: ms
};

[[nodiscard]] res_time_sync_message_t *res_time_sync_message_new(void *workspace_p, size_t size);
[[nodiscard]] int res_time_sync_message_encode(const res_time_sync_message_t *self_p, uint8_t *encoded_p,
                                               size_t size);
[[nodiscard]] int res_time_sync_message_decode(res_time_sync_message_t *self_p, const uint8_t *encoded_p,
                                               size_t size);
