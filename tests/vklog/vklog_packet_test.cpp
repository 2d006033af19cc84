// Tests of vklog's UDP forwarding: the CRC-32 against zlib's, the magic check, the datagram
// layout and its corruption, the sequence wrap, and real datagrams received on a loopback
// socket bound to a free port.
#include "vklog_internal.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

uint32_t zlib_crc(const unsigned char *p, size_t n)
{
    return static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), p, static_cast<uInt>(n)));
}

uint16_t get16(const unsigned char *p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t get32(const unsigned char *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

TEST(VklogCrc32, MatchesZlib)
{
    const z_crc_t *table = get_crc_table();
    for (int i = 0; i < 256; i++)
        ASSERT_EQ(crc32_tab[i], static_cast<uint32_t>(table[i])) << i;
    const unsigned char check[] = "123456789";
    EXPECT_EQ(vk_udp_get_crc(check, 9), 0xCBF43926u);
    std::mt19937 rng(7);
    for (size_t len : {0u, 1u, 3u, 64u, 1000u, 10240u}) {
        std::vector<unsigned char> buf(len);
        for (auto &b : buf)
            b = static_cast<unsigned char>(rng());
        uint32_t expected = zlib_crc(buf.data(), len);
        EXPECT_EQ(vk_udp_get_crc(buf.data(), len), expected) << len;
        EXPECT_EQ(vk_udp_check_crc(expected, buf.data(), len), 0);
        EXPECT_EQ(vk_udp_check_crc(expected ^ 1, buf.data(), len), -1);
    }
}

TEST(VklogPacket, MagicCheckNamesTheBadByte)
{
    unsigned char m[4] = {0xB9, 0xC8, 0xAC, 0xE2};
    EXPECT_EQ(vk_udp_check_magic(m), 0);
    for (int low = 0; low < 16; low++) {
        m[3] = static_cast<unsigned char>(0xE0 | low);
        EXPECT_EQ(vk_udp_check_magic(m), 0) << low;
    }
    m[3] = 0xF2;
    EXPECT_EQ(vk_udp_check_magic(m), -1);
    m[3] = 0xE2;
    m[2] = 0xAD;
    EXPECT_EQ(vk_udp_check_magic(m), -2);
    m[1] = 0x00;
    EXPECT_EQ(vk_udp_check_magic(m), -3);
    m[0] = 0xB8;
    EXPECT_EQ(vk_udp_check_magic(m), -4);
    EXPECT_EQ(vk_udp_check_magic(nullptr), -5);
    EXPECT_EQ(vk_udp_set_header(nullptr, 10), 0);
}

// Checks a received or built datagram field by field; returns the text.
std::string check_datagram(const unsigned char *d, size_t len, const char *cat, const char *file)
{
    char host[VL_HOSTNAME_SIZE + 1] = {};
    gethostname(host, VL_HOSTNAME_SIZE);
    size_t h = strnlen(host, VL_HOSTNAME_SIZE), n = strlen(cat), f = strlen(file);
    EXPECT_GE(len, 31 + h + n + f);
    if (len < 31 + h + n + f)
        return {};
    EXPECT_EQ(vk_udp_check_magic(d), 0);
    EXPECT_EQ(get16(d + 10), 0);
    EXPECT_EQ(get16(d + 12), len - 14);
    EXPECT_EQ(get16(d + 14), 3);
    EXPECT_EQ(d[16], h);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(d + 17), h), host);
    EXPECT_EQ(d[17 + h], n);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(d + 18 + h), n), cat);
    EXPECT_EQ(d[18 + h + n], f);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(d + 19 + h + n), f), file);
    uint64_t pid = static_cast<uint64_t>(get32(d + 19 + h + n + f)) << 32 | get32(d + 23 + h + n + f);
    EXPECT_EQ(pid, static_cast<uint64_t>(getpid()));
    uint32_t t = get32(d + 27 + h + n + f);
    EXPECT_EQ(len, 31 + h + n + f + t);
    std::vector<unsigned char> copy(d, d + len);
    memset(copy.data() + 4, 0, 4);
    EXPECT_EQ(get32(d + 4), zlib_crc(copy.data(), len));
    return std::string(reinterpret_cast<const char *>(d + 31 + h + n + f), t);
}

vklog_config_t *udp_config(const char *name, const std::string &ip, uint16_t port)
{
    vklog_config_t *c = vklog_config_new();
    vklog_config_set(c, VKLOG_CFG_TYPE_NAME, static_cast<unsigned>(strlen(name)), name);
    vklog_config_set(c, VKLOG_CFG_TYPE_FILENAME, 7, "app.log");
    vklog_config_set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, 8, "vklogger");
    vklog_config_set(c, VKLOG_CFG_TYPE_VKLOGGER_IP, static_cast<unsigned>(ip.size()), ip.c_str());
    std::string p = std::to_string(port);
    vklog_config_set(c, VKLOG_CFG_TYPE_VKLOGGER_PORT, static_cast<unsigned>(p.size()), p.c_str());
    vklog_config_set(c, VKLOG_CFG_TYPE_LEVEL, 5, "trace");
    vklog_config_set(c, VKLOG_CFG_TYPE_HEADER_FLAG, 5, "level");
    vklog_config_finish(c);
    return c;
}

TEST(VklogPacket, LayoutLengthsAndCorruption)
{
    vklog_config_t *c = udp_config("app", "127.0.0.1", 1);
    unsigned char buf[VL_LINE_BUFFER_SIZE];
    size_t start = vl_vklogger_set_packet_from_config(c, buf);
    const char text[] = "[INFO]hello";
    memcpy(buf + start, text, sizeof(text) - 1);
    size_t len = vl_vklogger_set_packet_finish_from_config(c, buf, sizeof(text) - 1, start);
    char host[VL_HOSTNAME_SIZE + 1] = {};
    gethostname(host, VL_HOSTNAME_SIZE);
    EXPECT_EQ(len, 14 + 2 + 1 + strlen(host) + 1 + 3 + 1 + 7 + 8 + 4 + (sizeof(text) - 1));
    EXPECT_EQ(check_datagram(buf, len, "app", "app.log"), text);
    // One flipped byte anywhere, magic included, breaks the checksum.
    for (size_t i : {size_t{0}, size_t{9}, size_t{20}, len - 1}) {
        std::vector<unsigned char> z(buf, buf + len);
        memset(z.data() + 4, 0, 4);
        EXPECT_EQ(vk_udp_check_crc(get32(buf + 4), z.data(), len), 0);
        z[i] ^= 0x40;
        EXPECT_EQ(vk_udp_check_crc(get32(buf + 4), z.data(), len), -1) << i;
    }
    vklog_config_free(c);
}

TEST(VklogPacket, SequenceRunsToNineNineNineNineNineThenZero)
{
    uint16_t prev = vl_udp_next_seq();
    bool wrapped = false;
    for (int i = 0; i <= VL_UDP_SEQ_MAX + 1 && !wrapped; i++) {
        unsigned char hdr[VL_UDP_HEADER_SIZE + 2] = {};
        vk_udp_set_header(hdr, 2);
        uint16_t seq = get16(hdr + 8);
        ASSERT_LE(seq, VL_UDP_SEQ_MAX);
        if (prev == VL_UDP_SEQ_MAX) {
            EXPECT_EQ(seq, 0);
            wrapped = true;
        } else {
            ASSERT_EQ(seq, prev + 1);
        }
        prev = seq;
    }
    EXPECT_TRUE(wrapped);
}

// ---- real datagrams on loopback -----------------------------------------------------

struct receiver {
    int fd = -1;
    uint16_t port = 0;
    receiver()
    {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~receiver() { close(fd); }
    // One datagram, or empty after `ms` milliseconds.
    std::vector<unsigned char> recv_one(int ms)
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1)
            return {};
        std::vector<unsigned char> buf(65536);
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
};

class VklogUdp : public testing::Test
{
  protected:
    void SetUp() override { vklog_fini(); }
    void TearDown() override { vklog_fini(); }
};

TEST_F(VklogUdp, LinesArriveAsCheckedDatagrams)
{
    receiver rx;
    ASSERT_NE(rx.port, 0);
    int err = 0;
    ASSERT_EQ(vklog_apply_config(udp_config("app", "127.0.0.1", rx.port), &err), 0);
    ASSERT_EQ(err, 0);
    vklog_t *cat = vklog_get_category("app");
    for (int i = 0; i < 3; i++)
        VKLOG_INFO(cat, "line %d\n", i);
    int prev_seq = -1;
    for (int i = 0; i < 3; i++) {
        std::vector<unsigned char> d = rx.recv_one(2000);
        ASSERT_FALSE(d.empty()) << i;
        EXPECT_EQ(check_datagram(d.data(), d.size(), "app", "app.log"),
                  "[INFO]line " + std::to_string(i) + "\n");
        int seq = get16(d.data() + 8);
        if (prev_seq >= 0) {
            EXPECT_EQ(seq, prev_seq == VL_UDP_SEQ_MAX ? 0 : prev_seq + 1);
        }
        prev_seq = seq;
    }
    vklog_vklogger_perf_data_t perf{};
    ASSERT_EQ(vklog_get_vklogger_perf_sent(cat, &perf), 0);
    EXPECT_EQ(perf.sent_success_count, 3u);
    EXPECT_EQ(perf.sent_error_count, 0u);
    EXPECT_GT(perf.sent_size, 3u * 31);

    // A message longer than the line buffer is cut behind the datagram's own fields: the
    // datagram fills the buffer but its terminator, and still checks out.
    VKLOG_INFO(cat, "%s", std::string(20000, 'm').c_str());
    std::vector<unsigned char> big = rx.recv_one(2000);
    EXPECT_EQ(big.size(), VL_LINE_BUFFER_SIZE - 1);
    std::string big_text = check_datagram(big.data(), big.size(), "app", "app.log");
    EXPECT_EQ(big_text.rfind("[INFO]mmm", 0), 0u);
    EXPECT_EQ(big_text.find_first_not_of('m', 6), std::string::npos);

    // A new port reconnects; switching forwarding off closes the socket.
    receiver rx2;
    ASSERT_EQ(vklog_apply_config(udp_config("app", "127.0.0.1", rx2.port), &err), 0);
    EXPECT_EQ(err, 0);
    VKLOG_INFO(cat, "moved\n");
    std::vector<unsigned char> d = rx2.recv_one(2000);
    EXPECT_EQ(check_datagram(d.data(), d.size(), "app", "app.log"), "[INFO]moved\n");
    EXPECT_TRUE(rx.recv_one(50).empty());
    vklog_config_t *off = udp_config("app", "127.0.0.1", rx2.port);
    ASSERT_EQ(vklog_config_set(off, VKLOG_CFG_TYPE_OUTPUT_TYPE, 0, ""), 0);
    ASSERT_EQ(vklog_apply_config(off, &err), 0);
    EXPECT_EQ(cat->output_vklogger.sock, -1);
    VKLOG_INFO(cat, "silent\n");
    EXPECT_TRUE(rx2.recv_one(50).empty());
}

TEST_F(VklogUdp, HostNameIsRefusedAndForwardingStops)
{
    receiver rx;
    int err = 0;
    ASSERT_EQ(vklog_apply_config(udp_config("named", "localhost", rx.port), &err), 0);
    EXPECT_EQ(err, -4); // the category exists, without a connection
    vklog_t *cat = vklog_get_category("named");
    ASSERT_NE(cat, nullptr);
    EXPECT_EQ(cat->output_vklogger.is_connect, 0);
    VKLOG_INFO(cat, "never sent\n");
    EXPECT_TRUE(rx.recv_one(100).empty());
    vklog_config_t *now = vklog_config_clone_from_vklog(cat);
    ASSERT_NE(now, nullptr);
    EXPECT_EQ(now->output & VKLOG_OUTPUT_VKLOGGER, 0); // cleared until a configuration is applied again
    vklog_config_free(now);

    vklog_output_vklogger_t out{};
    out.sock = -1;
    ASSERT_EQ(vl_vklogger_socket_open(&out), 0);
    EXPECT_EQ(vl_vklogger_socket_open(&out), -1);
    EXPECT_EQ(vl_vklogger_connect(&out, "", 1), 0);
    EXPECT_EQ(vl_vklogger_connect(&out, "host.example", 1), -3);
    EXPECT_EQ(vl_vklogger_connect(&out, "127.0.0.1", rx.port), 0);
    EXPECT_EQ(out.is_connect, 1);
    int sndbuf = 0;
    socklen_t len = sizeof(sndbuf);
    getsockopt(out.sock, SOL_SOCKET, SO_SNDBUF, &sndbuf, &len);
    EXPECT_GE(sndbuf, 65535);
    EXPECT_EQ(vl_vklogger_socket_close(&out), 0);
    EXPECT_EQ(vl_vklogger_socket_close(&out), -1);
    unsigned char byte = 0;
    EXPECT_EQ(vl_va_log_send_to_vklogger(&out, &byte, 1), -2);
    ASSERT_EQ(vl_vklogger_socket_open(&out), 0);
    EXPECT_EQ(vl_va_log_send_to_vklogger(&out, &byte, 1), -3);
    vl_vklogger_socket_close(&out);
}

} // namespace
