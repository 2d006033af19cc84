// dg_wire: the DG side's NIO framing, written from the wire layout alone and never from the
// agent's code, so that everything built on it (quil-dg-sim, dg_bench, the tests' fake DG) is
// also a check of the agent's wire format. Owns the header layout, framing and unframing, the
// table of message types and the loops that read and write whole packets on a descriptor.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace dg_wire
{

//   0        3    4      5          8            12      14          18   19            23
//   | F9F2F8 | ver | ptype | 00 00 00 | length BE | type | packet_id | bk | stamp BE | body
//   '------------ main header (12) ---------------'----------- sub header (11) ------'
//   length = 11 + body length
constexpr size_t k_main_header_size = 12;
constexpr size_t k_sub_header_size = 11;
constexpr size_t k_header_size = k_main_header_size + k_sub_header_size;
constexpr uint32_t k_max_length = 16u << 20;  // a length field above this is refused
constexpr uint32_t k_protocol_stamp = 19121701;
constexpr uint8_t k_header_version = 2;
constexpr uint8_t k_packet_type = 4;
constexpr uint32_t k_protocol_version = 20241111;

struct packet_header {
    uint8_t version;
    uint8_t packet_type;
    uint32_t length;  // main header length field: 11 + body length
    uint16_t type;
    uint32_t packet_id;
    uint8_t body_kind;
    uint32_t protocol_stamp;
};

// One row of the message table. proto is the full protobuf name of the body, null for the
// types whose body is empty (ping, ping answer, timezone request).
struct msg_info {
    uint16_t type;
    const char *name;
    const char *proto;
    uint8_t body_kind;  // what a DG writes when it sends this type (quil-dg-sim's `send`)
};

// The table row of `type`, or null for a type the protocol does not know. Cannot fail.
const msg_info *find_msg_info(uint16_t type);

// The fields of the 23 header bytes at h, unchecked. Cannot fail.
packet_header parse_header(const unsigned char *h);

// Checks the 12 main header bytes at h. Returns 0 with *length set; -1 for a bad magic; -2 for
// a length field outside 11..k_max_length (*length still set).
int check_main_header(const unsigned char *h, uint32_t *length);

// The 23-byte header of a packet of `type` with a body of body_size bytes: header version 2,
// packet_type 4, packet_id 0 and the usual protocol stamp. Cannot fail.
std::string frame_header(uint16_t type, uint8_t body_kind, size_t body_size);

// frame_header followed by body. Cannot fail.
std::string frame_packet(uint16_t type, uint8_t body_kind, std::string_view body);

// The packet at the start of bytes. Returns its whole size (23 + body) with *header filled and
// *body viewing its body inside bytes; 0 when bytes end before the packet does; -1 for a bad
// magic and -2 for a bad length (check_main_header), the rest then being out of step.
long unframe(std::string_view bytes, packet_header *header, std::string_view *body);

// Reads exactly n bytes (read(), so sockets and files alike). Returns n, the smaller count
// read before the end of the stream, or -1 (errno set) on a read error.
ssize_t read_full(int fd, void *buffer, size_t n);

// Writes all of data: send() with MSG_NOSIGNAL, write() when fd is not a socket. Returns 0, or
// the errno of the failed call (EPIPE when nothing could be written).
int write_all(int fd, std::string_view data);

// Reads one packet from a blocking descriptor. Returns 1 with *header and *body filled; 0 when
// the peer closed cleanly before a header byte; -1 on a read error, a short packet, a bad
// magic or a length outside 11..16 MiB, with *error saying which (the stream is then out of
// step and must be closed). Never reads more than the length field announces.
int read_packet(int fd, packet_header *header, std::string *body, std::string *error);

// The same from any source with read_full's contract (a TLS stream, say).
int read_packet(const std::function<ssize_t(void *, size_t)> &read_full, packet_header *header, std::string *body,
                std::string *error);

// Lower-case hex of at most max_bytes bytes of data. Cannot fail.
std::string to_hex(std::string_view data, size_t max_bytes = SIZE_MAX);

// Decodes hex text (either case, even length) into *out. Returns 0, or -1 on a bad digit or
// an odd length (*out then unspecified).
int from_hex(std::string_view text, std::string *out);

} // namespace dg_wire
