// res_timezone_offset: the timezone answer body (type 40001) sent by send_res_timezone_offset.
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

// ---- res_timezone_offset_message (out, 40001) -------------------------------

struct res_timezone_offset_message_t {
    pbtools_heap_t *heap_p;
    uint32_t offset_kind;  // 1: always 0, so never on the wire
    uint64_t current_time; // 2: the agent's clock in ms
    uint64_t offset;       // 3: zone offset east of UTC in ms, two's complement when west
};

[[nodiscard]] res_timezone_offset_message_t *res_timezone_offset_message_new(void *workspace_p, size_t size);
[[nodiscard]] int res_timezone_offset_message_encode(const res_timezone_offset_message_t *self_p,
                                                     uint8_t *encoded_p, size_t size);
[[nodiscard]] int res_timezone_offset_message_decode(res_timezone_offset_message_t *self_p,
                                                     const uint8_t *encoded_p, size_t size);
