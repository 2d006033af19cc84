// vklog_packet: the vklogger datagram. The line writer builds it in its line buffer: body
// fields first, then the line text, then the header with its sequence number and CRC-32.
// Safe from any thread; the sequence counter is shared by all categories.
//
//   0      4      8     10    12     14      16   17       17+H  18+H    18+H+N ...
//   +------+------+-----+-----+------+-------+----+---------+-----+-------+-----+------+---------+-----+------+
//   |magic | crc  | seq |  0  | body | fmt 3 | H  | host... |  N  | cat.. |  F  | file | pid(64) |  T  | text
//   |
//   +------+------+-----+-----+------+-------+----+---------+-----+-------+-----+------+---------+-----+------+
//   big-endian; body = everything from offset 14; crc over all with its own field zeroed
#include "vklog_internal.h"

#include <cstring>
#include <unistd.h>

namespace
{

constexpr unsigned char s_magic[4] = {0xB9, 0xC8, 0xAC, 0xE2};
constexpr uint16_t s_body_format = 3;

std::atomic<uint16_t> g_vk_udp_packet_seq{0};

// Host name taken once: it is the same for every datagram of the process.
struct vl_hostname_t {
    char name[VL_HOSTNAME_SIZE + 1];
    size_t len;
};

const vl_hostname_t &vl_hostname()
{
    static const vl_hostname_t host = [] {
        vl_hostname_t h{};
        if (gethostname(h.name, VL_HOSTNAME_SIZE) != 0)
            h.name[0] = '\0';
        h.name[VL_HOSTNAME_SIZE] = '\0';
        h.len = strnlen(h.name, VL_HOSTNAME_SIZE);
        return h;
    }();
    return host;
}

void put16(unsigned char *p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

void put32(unsigned char *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}

void put64(unsigned char *p, uint64_t v)
{
    for (int i = 0; i < 8; i++)
        p[i] = static_cast<unsigned char>(v >> (56 - 8 * i));
}

// One length-prefixed text field (length in one byte).
size_t put_text(unsigned char *p, const char *text, size_t len)
{
    p[0] = static_cast<unsigned char>(len);
    memcpy(p + 1, text, len);
    return len + 1;
}

} // namespace

uint16_t vl_udp_next_seq()
{
    uint16_t cur = g_vk_udp_packet_seq.load(std::memory_order_relaxed);
    while (!g_vk_udp_packet_seq.compare_exchange_weak(cur, cur >= VL_UDP_SEQ_MAX ? 0 : cur + 1,
                                                      std::memory_order_relaxed)) {
    }
    return cur;
}

int vk_udp_check_magic(const unsigned char *magic)
{
    if (magic == nullptr)
        return -5;
    if (magic[0] != s_magic[0])
        return -4;
    if (magic[1] != s_magic[1])
        return -3;
    if (magic[2] != s_magic[2])
        return -2;
    if ((magic[3] & 0xF0) != 0xE0)
        return -1;
    return 0;
}

int vk_udp_set_header(unsigned char *buffer, size_t length)
{
    if (buffer == nullptr)
        return 0;
    memcpy(buffer, s_magic, sizeof(s_magic));
    put32(buffer + 4, 0);
    put16(buffer + 8, vl_udp_next_seq());
    put16(buffer + 10, 0);
    put16(buffer + 12, static_cast<uint16_t>(length));
    put32(buffer + 4, vk_udp_get_crc(buffer, VL_UDP_HEADER_SIZE + length));
    return static_cast<int>(VL_UDP_HEADER_SIZE);
}

size_t vl_vklogger_set_packet_from_config(const vklog_config_t *config, unsigned char *buffer)
{
    const vl_hostname_t &host = vl_hostname();
    size_t name_len = strnlen(config->name, sizeof(config->name) - 1);
    size_t file_len = strnlen(config->out_file, sizeof(config->out_file) - 1);
    size_t off = VL_UDP_HEADER_SIZE;

    put16(buffer + off, s_body_format);
    off += 2;
    off += put_text(buffer + off, host.name, host.len);
    off += put_text(buffer + off, config->name, name_len < config->name_len ? name_len : config->name_len);
    off += put_text(buffer + off, config->out_file,
                    file_len < config->out_file_len ? file_len : config->out_file_len);
    put64(buffer + off, static_cast<uint64_t>(vl_process_id()));
    off += 8;
    put32(buffer + off, 0); // text length, stored when the text is in place
    return off + 4;
}

size_t vl_vklogger_set_packet_finish_from_config(const vklog_config_t *config, unsigned char *buffer,
                                                 size_t text_length, size_t start)
{
    (void)config;
    put32(buffer + start - 4, static_cast<uint32_t>(text_length));
    size_t total = start + text_length;
    vk_udp_set_header(buffer, total - VL_UDP_HEADER_SIZE);
    return total;
}
