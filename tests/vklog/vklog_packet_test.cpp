// Tests of vklog's UDP forwarding: the sequence wrap, and real datagrams received on a
// loopback socket, checked field by field with zlib's CRC-32 as the independent reference.
#include "vklog_test_util.h"

#include <zlib.h>

#include <cstring>

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
    return static_cast<uint32_t>(get16(p)) << 16 | get16(p + 2);
}

TEST(VklogPacket, SequenceRunsTo59999ThenZero)
{
    uint16_t prev = vl_udp_next_seq();
    bool wrapped = false;
    for (int i = 0; i <= VL_UDP_SEQ_MAX + 1 && !wrapped; i++) {
        unsigned char hdr[VL_UDP_HEADER_SIZE + 2] = {};
        vk_udp_set_header(hdr, 2);
        uint16_t seq = get16(hdr + 8);
        wrapped = prev == VL_UDP_SEQ_MAX;
        ASSERT_EQ(seq, wrapped ? 0 : prev + 1) << prev;
        prev = seq;
    }
    EXPECT_TRUE(wrapped);
}

// Checks a received datagram field by field; returns the text.
std::string check_datagram(const std::vector<unsigned char> &dg, const char *cat, const char *file)
{
    char host[VL_HOSTNAME_SIZE + 1] = {};
    gethostname(host, VL_HOSTNAME_SIZE);
    const size_t len = dg.size();
    EXPECT_GE(len, 31 + strlen(host) + strlen(cat) + strlen(file));
    if (len < 31 + strlen(host) + strlen(cat) + strlen(file))
        return {};
    const unsigned char *d = dg.data();
    EXPECT_EQ(vk_udp_check_magic(d), 0);
    EXPECT_EQ(get16(d + 10), 0);        // reserved
    EXPECT_EQ(get16(d + 12), len - 14); // body length
    EXPECT_EQ(get16(d + 14), 3);        // format
    size_t off = 16;
    for (std::string_view expected :
         {std::string_view(host), std::string_view(cat), std::string_view(file)}) {
        EXPECT_EQ(d[off], expected.size()); // length-prefixed texts
        EXPECT_EQ(std::string_view(reinterpret_cast<const char *>(d + off + 1), expected.size()), expected);
        off += 1 + expected.size();
    }
    EXPECT_EQ(uint64_t{get32(d + off)} << 32 | get32(d + off + 4), static_cast<uint64_t>(getpid()));
    EXPECT_EQ(len, off + 12 + get32(d + off + 8)); // text length
    std::vector<unsigned char> copy(dg);
    memset(copy.data() + 4, 0, 4); // the CRC covers the datagram with its own field zeroed
    EXPECT_EQ(get32(d + 4), zlib_crc(copy.data(), len));
    return std::string(reinterpret_cast<const char *>(d + off + 12), len - off - 12);
}

vklog_config_t *udp_config(const char *name, const std::string &ip, uint16_t port)
{
    return vt::configure(vklog_config_new(), {{VKLOG_CFG_TYPE_NAME, name},
                                              {VKLOG_CFG_TYPE_OUTPUT_TYPE, "vklogger"},
                                              {VKLOG_CFG_TYPE_VKLOGGER_IP, ip},
                                              {VKLOG_CFG_TYPE_VKLOGGER_PORT, std::to_string(port)},
                                              {VKLOG_CFG_TYPE_LEVEL, "trace"},
                                              {VKLOG_CFG_TYPE_HEADER_FLAG, "level"}});
}

using VklogUdp = vt::TempDirTest;

TEST_F(VklogUdp, LinesArriveAsCheckedDatagrams)
{
    vt::udp_receiver rx;
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
        EXPECT_EQ(check_datagram(d, "app", "app.log"), "[INFO]line " + std::to_string(i) + "\n");
        const int seq = get16(d.data() + 8);
        EXPECT_TRUE(prev_seq < 0 || seq == (prev_seq + 1) % (VL_UDP_SEQ_MAX + 1)) << seq;
        prev_seq = seq;
    }
    vklog_vklogger_perf_data_t perf{};
    ASSERT_EQ(vklog_get_vklogger_perf_sent(cat, &perf), 0);
    EXPECT_EQ(perf.sent_success_count, 3u);

    // A message longer than the line buffer is cut behind the datagram's own fields.
    VKLOG_INFO(cat, "%s", std::string(20000, 'm').c_str());
    std::vector<unsigned char> big = rx.recv_one(2000);
    EXPECT_EQ(big.size(), VL_LINE_BUFFER_SIZE - 1);
    EXPECT_TRUE(check_datagram(big, "app", "app.log").starts_with("[INFO]mmm"));

    // A new port reconnects (nothing goes to the old one); forwarding off closes the socket.
    vt::udp_receiver rx2;
    ASSERT_EQ(vklog_apply_config(udp_config("app", "127.0.0.1", rx2.port), &err), 0);
    EXPECT_EQ(err, 0);
    VKLOG_INFO(cat, "moved\n");
    EXPECT_EQ(check_datagram(rx2.recv_one(2000), "app", "app.log"), "[INFO]moved\n");
    EXPECT_TRUE(rx.recv_one(50).empty());
    ASSERT_EQ(
        vklog_apply_config(vt::configure(udp_config("app", "", 0), {{VKLOG_CFG_TYPE_OUTPUT_TYPE, ""}}), &err),
        0);
    EXPECT_EQ(cat->output_vklogger.sock, -1);
}

TEST_F(VklogUdp, HostNameIsRefusedAndForwardingStops)
{
    vt::udp_receiver rx;
    int err = 0;
    ASSERT_EQ(vklog_apply_config(udp_config("named", "localhost", rx.port), &err), 0);
    EXPECT_EQ(err, -4); // the category exists, without a connection
    vklog_t *cat = vklog_get_category("named");
    ASSERT_NE(cat, nullptr);
    VKLOG_INFO(cat, "never sent\n");
    EXPECT_TRUE(rx.recv_one(100).empty());
    EXPECT_EQ(cat->config->output & VKLOG_OUTPUT_VKLOGGER, 0); // cleared until a configuration is applied again
}

} // namespace
