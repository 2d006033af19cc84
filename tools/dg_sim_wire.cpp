// quil-dg-sim framing: the NIO packet header written and read by the simulator, the table of
// message types, socket read/write loops and hex conversion. Written here from the wire
// layout alone; used by the connection threads and the command loop.
#include "dg_sim.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

namespace dg_sim
{

namespace
{

// body_kind is what the simulator writes when it sends a type (with `send`): 4 for the ping and
// timezone requests, 2 for the time-sync and identity replies, 1 for everything else, the
// agent's own outgoing types included.
constexpr msg_info k_messages[] = {
    {10043, "common_req_agent_info_message", "dg.common_req_agent_info_message", 1},
    {40000, "ping_answer", nullptr, 1},
    {40001, "res_timezone_offset_message", "dg.res_timezone_offset_message", 1},
    {40006, "req_time_sync", "dg.req_time_sync", 1},
    {50000, "ping", nullptr, 4},
    {50001, "timezone_request", nullptr, 4},
    {50020, "res_time_sync_message", "dg.res_time_sync_message", 2},
    {50036, "common_res_agent_info_message", "dg.common_res_agent_info_message", 2},
    {60001, "req_command_message", "dg.req_command_message", 1},
    {60002, "res_command_message", "dg.res_command_message", 1},
    {60003, "target_agent_info_message", "dg.target_agent_info_message", 1},
    {60004, "req_file_chunk_message", "dg.req_file_chunk_message", 1},
};

void put_be(std::string &out, uint64_t value, int width)
{
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<char>((value >> shift) & 0xff));
}

uint32_t get_be(const unsigned char *p, int width)
{
    uint32_t value = 0;
    for (int i = 0; i < width; i++)
        value = (value << 8) | p[i];
    return value;
}

// Reads exactly n bytes. Returns n, the smaller count read before the peer closed, or -1
// (errno set) on a read error.
ssize_t read_full(int fd, unsigned char *buffer, size_t n)
{
    size_t got = 0;
    while (got < n) {
        ssize_t r = recv(fd, buffer + got, n - got, 0);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return -1;
        if (r == 0)
            break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

} // namespace

const msg_info *find_msg_info(uint16_t type)
{
    for (const msg_info &m : k_messages)
        if (m.type == type)
            return &m;
    return nullptr;
}

std::string frame_packet(uint16_t type, uint8_t body_kind, std::string_view body)
{
    std::string out;
    out.reserve(k_header_size + body.size());
    out += "\xF9\xF2\xF8";
    out.push_back(static_cast<char>(k_header_version));
    out.push_back(static_cast<char>(k_packet_type));
    out.append(3, '\0');
    put_be(out, k_sub_header_size + body.size(), 4);
    put_be(out, type, 2);
    put_be(out, 0, 4);  // packet_id
    out.push_back(static_cast<char>(body_kind));
    put_be(out, k_protocol_stamp, 4);
    out.append(body);
    return out;
}

int read_packet(int fd, packet_header *header, std::string *body, std::string *error)
{
    unsigned char h[k_header_size];
    ssize_t r = read_full(fd, h, k_main_header_size);
    if (r == 0)
        return 0;
    if (r < 0 || static_cast<size_t>(r) < k_main_header_size) {
        *error = r < 0 ? std::string("read failed: ") + strerror(errno)
                       : "truncated header (" + std::to_string(r) + " of 12 bytes)";
        return -1;
    }
    if (h[0] != 0xF9 || h[1] != 0xF2 || h[2] != 0xF8) {
        *error = "bad magic " + to_hex(std::string_view(reinterpret_cast<char *>(h), 3));
        return -1;
    }
    uint32_t length = get_be(h + 8, 4);
    if (length < k_sub_header_size || length > k_max_length) {
        *error = "bad length " + std::to_string(length);
        return -1;
    }
    r = read_full(fd, h + k_main_header_size, k_sub_header_size);
    if (r != static_cast<ssize_t>(k_sub_header_size)) {
        *error = r < 0 ? std::string("read failed: ") + strerror(errno) : "truncated sub header";
        return -1;
    }
    *header = {h[3], h[4], length, static_cast<uint16_t>(get_be(h + 12, 2)), get_be(h + 14, 4), h[18],
               get_be(h + 19, 4)};
    body->assign(length - k_sub_header_size, '\0');
    r = read_full(fd, reinterpret_cast<unsigned char *>(body->data()), body->size());
    if (r != static_cast<ssize_t>(body->size())) {
        *error = r < 0 ? std::string("read failed: ") + strerror(errno)
                       : "truncated body (" + std::to_string(r) + " of " + std::to_string(body->size()) +
                             " bytes)";
        return -1;
    }
    return 1;
}

int write_all(int fd, std::string_view data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t w = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return w < 0 ? errno : EPIPE;
        done += static_cast<size_t>(w);
    }
    return 0;
}

std::string to_hex(std::string_view data, size_t max_bytes)
{
    static const char digits[] = "0123456789abcdef";
    size_t n = data.size() < max_bytes ? data.size() : max_bytes;
    std::string out;
    out.reserve(n * 2);
    for (size_t i = 0; i < n; i++) {
        auto b = static_cast<unsigned char>(data[i]);
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

int from_hex(std::string_view text, std::string *out)
{
    auto nibble = [](char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    if (text.size() % 2 != 0)
        return -1;
    out->clear();
    out->reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0)
            return -1;
        out->push_back(static_cast<char>(hi << 4 | lo));
    }
    return 0;
}

} // namespace dg_sim
