// vk_comm: NIO/OIO packet framing on the DG connection and the socket and address helpers.
// The connection thread reads packets here; every sender wraps its encoded message here.
// Thread safety: every function may be called from any thread. The header version byte is
// the only shared state (an atomic); get_ip_info, getIPFromDomain and vk_close_socket_debug
// print to standard output, and get_ip_info logs its failures; nothing else here logs.
// Interface only, kept for the unit's completeness (nothing in the agent calls them):
// wrap_packet_oio_header, get_oio_packet, processing_socket, receive_expected_nio_packet,
// vk_close_socket_debug, convert_ip_str_to_addr, CheckIPAddr, get_ip_info.
#pragma once

#include <cstddef>
#include <cstdint>

struct ifreq;

//   NIO packet, all integers big-endian:
//
//   0    1    2    3        4            5..7      8..11
//   +----+----+----+--------+------------+---------+-----------------+
//   | F9 | F2 | F8 | version| packet_type| 0 0 0   | length (u32)    |  main header, 12 bytes
//   +----+----+----+--------+------------+---------+-----------------+
//   12..13        14..17      18          19..22
//   +-------------+-----------+-----------+----------------+
//   | message type| packet_id | body_kind | protocol_stamp |           sub header, 11 bytes
//   +-------------+-----------+-----------+----------------+
//   23 .. 12+length: body (length counts sub header + body, so an empty body has 11)
//
//   OIO packet: FF, type (u16), body.
inline constexpr int VK_NIO_MAIN_HEADER_LEN = 12;
inline constexpr int VK_NIO_SUB_HEADER_LEN = 11;
inline constexpr int VK_NIO_HEADER_LEN = VK_NIO_MAIN_HEADER_LEN + VK_NIO_SUB_HEADER_LEN;
inline constexpr int VK_OIO_HEADER_LEN = 3;
// Largest length field the waits and receive_nio_packet accept; their buffers hold
// VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY bytes.
inline constexpr int VK_NIO_PACKET_CAPACITY = 65535;

// Packet handler: gets the first byte of the packet (main header at 0, sub header at 12,
// body at 23) and the caller's argument; its result becomes the reader's result.
using vk_packet_callback = int (*)(char *packet, void *argument);
using vk_packet_callback2 = int (*)(char *packet, void *argument1, void *argument2);

// ---- headers ----------------------------------------------------------------

// 1 when the first three bytes are the NIO magic F9 F2 F8, else 0 (also for null).
[[nodiscard]] int is_nio_header(const void *buffer);
// Stores the header version byte written by every later set_nio_main_header. Cannot fail.
void set_nio_header_version(uint8_t version);
// The stored header version (0 until set).
[[nodiscard]] uint8_t get_nio_header_version();
// Writes the 12-byte main header: magic, stored version, low 8 bits of packet_type, three
// zero bytes, big-endian length. A null buffer writes nothing.
void set_nio_main_header(void *buffer, int packet_type, uint32_t length);
// Writes the 11-byte sub header (low 16 bits of message_type, low 8 bits of body_kind).
// A null buffer writes nothing.
void set_nio_sub_header(void *buffer, int message_type, uint32_t packet_id, int body_kind,
                        uint32_t protocol_stamp);
// Writes the 3-byte OIO header: FF and the low 16 bits of type. A null buffer writes nothing.
void set_oio_header(void *buffer, int type);

// Length field (bytes 8..11) and message type (bytes 12..13) of a packet a reader returned.
[[nodiscard]] uint32_t get_nio_length(const char *packet);
[[nodiscard]] uint16_t get_nio_message_type(const char *packet);

// ---- packet builders --------------------------------------------------------
// The returned buffer is malloc'd and belongs to the caller, who releases it with free().

// Builds header + body in a fresh buffer of body_length + 23 bytes, stores it in
// *out_buffer and returns body_length + 23. The body is copied only when body is non-null
// and body_length > 0. Returns 0 with *out_buffer null when the allocation fails, when
// body_length is negative or too large for the result, or when body is null but
// body_length is not 0. A null out_buffer returns 0.
[[nodiscard]] int wrap_packet_nio_header(char **out_buffer, const void *body, int body_length,
                                         int packet_type, int message_type, uint32_t packet_id, int body_kind,
                                         uint32_t protocol_stamp);
// The same with the 3-byte OIO header; returns body_length + 3, or 0 as above.
[[nodiscard]] int wrap_packet_oio_header(char **out_buffer, const void *body, int body_length, int type);

// ---- packet readers ---------------------------------------------------------
// All block in recv on a connected stream socket (through its TLS session when one is
// attached, dg_tls.h). Headers are read completely (a short
// header read is continued until 12 bytes or the peer closes). Length fields below 11
// cannot hold a sub header and are refused like a length of 0.

// Reads one NIO packet into buffer (header at 0, rest from 12); buffer must hold
// 12 + capacity bytes. Returns the length field (sub header + body), or
//   -1 null buffer, or header recv failed / peer closed before 12 bytes;
//   -2 not the NIO magic;  -3 header version not 0 or 2;
//   -4 length < 11 (as signed 32 bit) or > capacity; nothing after the header was read;
//   -5 body recv failed or peer closed mid-body;
//   -6 packet_type not 0, 1, 2 or 4: the whole packet was consumed, the stream stays in step.
// On failure the buffer holds whatever arrived.
[[nodiscard]] int get_nio_packet(int sock, char *buffer, int capacity);

// Reads one NIO packet into a malloc'd buffer of length + 12 bytes stored in *out_buffer
// (the caller frees it). capacity is ignored: lengths up to 0x7FFFFFFF are accepted, and
// the buffer grows as bytes arrive, so a peer only costs memory for what it sends.
// Returns the length field, or
//   -1 null out_buffer, or header recv failed / peer closed before 12 bytes;
//   -2 not the NIO magic;  -3 header version not 0 or 2;
//   -4 allocation failed;  -5 length < 11 (as signed 32 bit);
//   -6 body recv failed / peer closed mid-body, or packet_type not 0, 1, 2 or 4 (consumed).
// On every failure *out_buffer is null and nothing is left to free.
[[nodiscard]] int get_nio_packet_dynamic(int sock, char **out_buffer, int capacity);

// Reads the 3-byte OIO header into buffer (capacity must be at least 3). Returns 3, or
// -1 null buffer, capacity < 3, recv failed or peer closed; -2 the bytes are the NIO magic.
[[nodiscard]] int get_oio_packet(int sock, char *buffer, int capacity);

// Waits up to timeout_seconds (negative counts as 0) for the socket to become readable,
// reads one packet (get_nio_packet with capacity 65535 when is_nio is non-zero, else
// get_oio_packet) and returns callback(packet, argument), or 0 without a callback.
// -98 the wait failed (bad descriptor); -99 the read failed (any reader code, or no
// memory for the packet buffer); -100 nothing arrived in time.
[[nodiscard]] int processing_socket(int sock, int is_nio, int timeout_seconds, vk_packet_callback callback,
                                    void *argument);
// The same with get_nio_packet_dynamic; the packet buffer is freed after the callback.
// With is_nio zero nothing is read and the result after the wait is -99.
[[nodiscard]] int processing_socket_dynamic(int sock, int is_nio, int timeout_seconds,
                                            vk_packet_callback callback, void *argument);
// Reads one packet without waiting (get_nio_packet, capacity 65535) and returns
// callback(packet, argument) (0 without a callback); on a read failure returns the
// reader's code (-1..-6), or -99 when the packet buffer cannot be allocated.
[[nodiscard]] int receive_nio_packet(int sock, vk_packet_callback callback, void *argument);
// The same with a two-argument callback.
[[nodiscard]] int receive_expected_nio_packet(int sock, vk_packet_callback2 callback, void *argument1,
                                              void *argument2);

// ---- socket and address helpers ---------------------------------------------

// Writes the address of name as text into out_text (out_size bytes, terminated). An IPv4
// or IPv6 literal is copied unchanged; anything else is resolved and the first address is
// written in the result's own family. Returns 0, or
//   -1 null argument or zero out_size, or the name does not resolve (prints
//      "Unknown host [%s]\n");
//   -2 the address does not fit out_text (prints "ip is wrong.[%s]\n").
// On failure out_text is left empty when out_size > 0.
[[nodiscard]] int getIPFromDomain(const char *name, char *out_text, size_t out_size);

// Prints "[close_socket] sock[%ld],function[%s]\n" when caller_name is non-null, shuts the
// socket down both ways and closes it. Returns close's result (0, or -1 with errno).
int vk_close_socket_debug(int sock, const char *caller_name);

// Writes the raw address (4 bytes IPv4 when ip_text contains '.', else 16 bytes IPv6)
// followed by the low 16 bits of the port, high byte first. Returns 6 or 18, or
//   -1 null out or out_size of 17 or less (even for IPv4);
//   -2 null ip_text or ip_text of 64 characters or more;  -3 the address does not parse;
//   -4 port_text null, empty, or not consumed whole by strtol in base 10 (leading blanks and
//      a sign are accepted: " 80", "+80", and "-1", which gives 65535).
// out is untouched on failure.
[[nodiscard]] int convert_ip_port_to_addr(const char *ip_text, const char *port_text, uint8_t *out,
                                          size_t out_size);
// Splits "address:port" (text_length bytes, need not be terminated) at the last ':'; an
// address that still contains ':' must be an IPv6 address in square brackets, which are
// trimmed. Returns what convert_ip_port_to_addr returns, or
//   -1 null text or text_length of 64 or more;  -2 no ':';
//   -3 an address with ':' not in brackets;  -4 convert_ip_port_to_addr failed.
[[nodiscard]] int convert_ip_str_to_addr(const char *text, size_t text_length, uint8_t *out, size_t out_size);

// Whether an interface from the interface list is worth reporting: 0 yes, or
// -1 null record or the name begins with "lo";  -2 the address is "0.0.0.0" or not IPv4;
// -3 the address is "127.0.0.1".
[[nodiscard]] int CheckIPAddr(const struct ifreq *interface_request);

// One IPv4 interface: name zero-filled, address as text.
struct vk_ip_info {
    char name[128];
    char ip[64];
};
static_assert(sizeof(vk_ip_info) == 192);

// The interface list: a malloc'd array the caller frees with free(), and its length.
struct vk_ip_info_list {
    vk_ip_info *list;
    int count;
};

// Lists the host's IPv4 interfaces (SIOCGIFCONF) into result and prints
// "[%d]name: %s, ip: %s\n" for each. Returns 0, or -1 for a null result. A failed interface
// query (no socket, the request refused, no memory) leaves the list empty ({null, 0}) and is
// logged at ERROR.
[[nodiscard]] int get_ip_info(vk_ip_info_list *result);
