// dg_wire: NIO framing and unframing, the message table and the whole-packet read and write
// loops of the DG side (see dg_wire.h). Written from the wire layout alone; shares no code with
// the agent.
#include "dg_wire.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace dg_wire
{

namespace
{

// body_kind is what a DG writes when it sends a type: 4 for the ping and timezone requests, 2
// for the time-sync and identity replies, 1 for everything else, the agent's own types included.
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

void put_be(unsigned char *p, uint64_t value, int width)
{
    for (int i = 0; i < width; i++)
        p[i] = static_cast<unsigned char>(value >> (8 * (width - 1 - i)));
}

uint32_t get_be(const unsigned char *p, int width)
{
    uint32_t value = 0;
    for (int i = 0; i < width; i++)
        value = (value << 8) | p[i];
    return value;
}

std::string read_error(ssize_t got, const char *what, size_t wanted)
{
    if (got < 0)
        return std::string("read failed: ") + strerror(errno);
    return std::string("truncated ") + what + " (" + std::to_string(got) + " of " + std::to_string(wanted) +
           " bytes)";
}

} // namespace

const msg_info *find_msg_info(uint16_t type)
{
    for (const msg_info &m : k_messages)
        if (m.type == type)
            return &m;
    return nullptr;
}

packet_header parse_header(const unsigned char *h)
{
    return {h[3], h[4], get_be(h + 8, 4), static_cast<uint16_t>(get_be(h + 12, 2)), get_be(h + 14, 4), h[18],
            get_be(h + 19, 4)};
}

int check_main_header(const unsigned char *h, uint32_t *length)
{
    *length = get_be(h + 8, 4);
    if (h[0] != 0xF9 || h[1] != 0xF2 || h[2] != 0xF8)
        return -1;
    return *length < k_sub_header_size || *length > k_max_length ? -2 : 0;
}

std::string frame_header(uint16_t type, uint8_t body_kind, size_t body_size)
{
    unsigned char h[k_header_size] = {0xF9, 0xF2, 0xF8, k_header_version, k_packet_type, 0, 0, 0};
    put_be(h + 8, k_sub_header_size + body_size, 4);
    put_be(h + 12, type, 2);
    put_be(h + 14, 0, 4);  // packet_id
    h[18] = body_kind;
    put_be(h + 19, k_protocol_stamp, 4);
    return std::string(reinterpret_cast<char *>(h), sizeof h);
}

std::string frame_packet(uint16_t type, uint8_t body_kind, std::string_view body)
{
    std::string out = frame_header(type, body_kind, body.size());
    out.append(body);
    return out;
}

long unframe(std::string_view bytes, packet_header *header, std::string_view *body)
{
    const auto *h = reinterpret_cast<const unsigned char *>(bytes.data());
    uint32_t length = 0;
    if (bytes.size() < k_main_header_size)
        return 0;
    if (int rc = check_main_header(h, &length); rc != 0)
        return rc;
    if (bytes.size() - k_main_header_size < length)
        return 0;
    *header = parse_header(h);
    *body = bytes.substr(k_header_size, length - k_sub_header_size);
    return static_cast<long>(k_main_header_size + length);
}

ssize_t read_full(int fd, void *buffer, size_t n)
{
    auto *p = static_cast<char *>(buffer);
    size_t got = 0;
    while (got < n) {
        ssize_t r = read(fd, p + got, n - got);
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

int write_all(int fd, std::string_view data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t w = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (w < 0 && errno == ENOTSOCK)
            w = write(fd, data.data() + done, data.size() - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return w < 0 ? errno : EPIPE;
        done += static_cast<size_t>(w);
    }
    return 0;
}

int read_packet(int fd, packet_header *header, std::string *body, std::string *error)
{
    return read_packet([fd](void *buffer, size_t n) { return read_full(fd, buffer, n); }, header, body, error);
}

int read_packet(const std::function<ssize_t(void *, size_t)> &read_full, packet_header *header, std::string *body,
                std::string *error)
{
    unsigned char h[k_header_size];
    ssize_t r = read_full(h, k_main_header_size);
    if (r == 0)
        return 0;
    if (r != static_cast<ssize_t>(k_main_header_size)) {
        *error = read_error(r, "header", k_main_header_size);
        return -1;
    }
    uint32_t length = 0;
    if (int rc = check_main_header(h, &length); rc != 0) {
        *error = rc == -1 ? "bad magic " + to_hex(std::string_view(reinterpret_cast<char *>(h), 3))
                          : "bad length " + std::to_string(length);
        return -1;
    }
    r = read_full(h + k_main_header_size, k_sub_header_size);
    if (r != static_cast<ssize_t>(k_sub_header_size)) {
        *error = r < 0 ? read_error(r, "", 0) : "truncated sub header";
        return -1;
    }
    *header = parse_header(h);
    body->assign(length - k_sub_header_size, '\0');
    r = read_full(body->data(), body->size());
    if (r != static_cast<ssize_t>(body->size())) {
        *error = read_error(r, "body", body->size());
        return -1;
    }
    return 1;
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

} // namespace dg_wire
