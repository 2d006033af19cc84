// Tests of vk_comm: packet building, both NIO readers and the OIO reader over a socketpair,
// the socket waits, and the address helpers. Only socketpairs and loopback names are used.
#include "vk_comm.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace
{

using bytes = std::vector<unsigned char>;

// A connected stream pair: tests write on `peer` and read on `local`; a reader that wrongly
// waits for more fails after 5 s instead of hanging.
struct socket_pair {
    int fds[2] = {-1, -1};
    int &local = fds[0], &peer = fds[1];
    socket_pair()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        timeval limit{5, 0};
        setsockopt(local, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    ~socket_pair()
    {
        close(local);
        close(peer);
    } // a descriptor already taken over is -1
    // Writes from a second thread, so inputs larger than the socket buffer cannot block.
    std::thread send_async(bytes data, bool close_after)
    {
        return std::thread([sock = peer, data = std::move(data), close_after] {
            for (size_t done = 0; done < data.size();) {
                ssize_t n = send(sock, data.data() + done, data.size() - done, MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                done += static_cast<size_t>(n);
            }
            if (close_after)
                shutdown(sock, SHUT_WR);
        });
    }
    void send_all(const bytes &data, bool close_after = false) { send_async(data, close_after).join(); }
};

// A raw NIO packet: main header with the given length field, then `rest` (sub header and
// body, or anything a hostile peer sends).
bytes nio_raw(unsigned char version, unsigned char type, uint32_t length, const bytes &rest)
{
    bytes p = {0xF9, 0xF2, 0xF8, version, type, 0, 0, 0};
    for (int shift = 24; shift >= 0; shift -= 8)
        p.push_back(static_cast<unsigned char>(length >> shift));
    p.insert(p.end(), rest.begin(), rest.end());
    return p;
}

// A well-formed packet with message type 50000 and `body_size` body bytes 0, 1, 2, ...
bytes nio_valid(unsigned char type, size_t body_size, unsigned char version = 2)
{
    bytes rest = {0xC3, 0x50, 0, 0, 0, 0, 4, 0x01, 0x23, 0xC6, 0x25};
    for (size_t i = 0; i < body_size; ++i)
        rest.push_back(static_cast<unsigned char>(i));
    return nio_raw(version, type, static_cast<uint32_t>(rest.size()), rest);
}

bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Reads one packet with the static reader (into exactly 12 + capacity bytes) or the dynamic
// one; `packet` gets the 12 + result bytes handed over, and stays empty on failure.
int read_packet(bool dynamic, int sock, bytes &packet)
{
    std::vector<char> buffer(VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY);
    char *allocated = nullptr;
    const int rc = dynamic ? get_nio_packet_dynamic(sock, &allocated, VK_NIO_PACKET_CAPACITY)
                           : get_nio_packet(sock, buffer.data(), VK_NIO_PACKET_CAPACITY);
    const char *got = dynamic ? allocated : buffer.data();
    EXPECT_TRUE(!dynamic || (rc > 0) == (allocated != nullptr)) << "failures hand nothing over";
    packet.assign(got, got + (rc > 0 ? VK_NIO_MAIN_HEADER_LEN + rc : 0));
    std::free(allocated);
    return rc;
}

// Bytes still waiting on the socket (read without blocking).
size_t pending(int sock)
{
    char scratch[256];
    ssize_t n = recv(sock, scratch, sizeof(scratch), MSG_DONTWAIT);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

// The callback records the packet's header bytes and counts its calls.
bytes seen_head;
int seen_calls = 0;
int record_packet(char *packet, void *)
{
    seen_head.assign(packet, packet + (packet[0] == '\xF9' ? VK_NIO_HEADER_LEN : VK_OIO_HEADER_LEN));
    ++seen_calls;
    return 77;
}

using wait_fn = int (*)(int, int, int, vk_packet_callback, void *);

} // namespace

TEST(VkCommWrap, HeadersAreBigEndianAndBadArgumentsGiveNothing)
{
    const uint8_t saved = get_nio_header_version();
    set_nio_header_version(2);
    char *packet = nullptr;
    ASSERT_EQ(wrap_packet_nio_header(&packet, nullptr, 0, 0x104, 0x1EA5B, 0x01020304, 0x201, 19121701), 23);
    // magic, version 2, low byte of packet_type, zero reserve, length 11; then message type
    // 0xEA5B (low 16 bits), packet_id, low byte of body_kind, stamp 19121701 = 0x0123C625.
    EXPECT_EQ(bytes(packet, packet + 23), (bytes{0xF9, 0xF2, 0xF8, 2, 4, 0, 0, 0,    0,    0,    0,   11,
                                                 0xEA, 0x5B, 1,    2, 3, 4, 1, 0x01, 0x23, 0xC6, 0x25}));
    EXPECT_EQ(get_nio_message_type(packet), 0xEA5B);
    EXPECT_EQ(is_nio_header(packet), 1);
    std::free(packet);
    set_nio_header_version(saved);

    ASSERT_EQ(wrap_packet_nio_header(&packet, "hello", 5, 4, 60003, 0, 1, 60003), 28);
    EXPECT_EQ(get_nio_length(packet), 16u);
    EXPECT_EQ(std::string(packet + 23, 5), "hello");
    std::free(packet);
    ASSERT_EQ(wrap_packet_oio_header(&packet, "hello", 5, 0x1234), 8);
    EXPECT_EQ(std::string(packet, 8), "\xFF\x12\x34hello");
    EXPECT_EQ(is_nio_header(packet), 0);
    std::free(packet);

    for (int length : {-1, 5, 0x7FFFFFF0}) {
        packet = reinterpret_cast<char *>(1);
        EXPECT_EQ(wrap_packet_nio_header(&packet, length == 5 ? nullptr : "x", length, 4, 1, 0, 1, 1), 0);
        EXPECT_EQ(packet, nullptr);
    }
    EXPECT_EQ(wrap_packet_nio_header(nullptr, "hello", 5, 4, 1, 0, 1, 1), 0);
}

// Each framing case read by both readers, with the peer closing after its bytes.
TEST(VkCommReaders, FramingCasesHaveTheirCodesInBothReaders)
{
    bytes bad_magic = nio_valid(4, 3), cut = nio_valid(4, 40);
    bad_magic[1] = 0xF3;
    cut.pop_back();
    const struct {
        bytes data;
        int static_code, dynamic_code;
    } cases[] = {
        {nio_valid(4, 0, 0), 11, 11}, // empty body; header version 0 is accepted too
        {nio_valid(1, VK_NIO_PACKET_CAPACITY - 11), VK_NIO_PACKET_CAPACITY, VK_NIO_PACKET_CAPACITY},
        {nio_valid(4, 65536 - 11), -4, 65536},
        {nio_valid(4, 300000), -4, 300011}, // the dynamic buffer grows several times
        {{}, -1, -1},
        {{0xF9, 0xF2, 0xF8, 2, 4}, -1, -1}, // header cut short
        {bad_magic, -2, -2},
        {nio_valid(4, 3, 1), -3, -3},
        {nio_valid(4, 3, 3), -3, -3},
        {nio_raw(2, 4, 0, {}), -4, -5},
        {nio_raw(2, 4, 1, bytes(1, 0xAB)), -4, -5},   // shorter than the sub header: refused at
        {nio_raw(2, 4, 10, bytes(10, 0xAB)), -4, -5}, // the header, whatever follows
        {nio_raw(2, 4, 0x80000000u, {}), -4, -5},
        {cut, -5, -6},
        {nio_raw(2, 4, 0x7FFFFFFF, bytes(100, 1)), -4, -6}, // near 2 GiB costs only what arrived
    };
    for (const auto &c : cases) {
        for (bool dynamic : {false, true}) {
            socket_pair sp;
            std::thread writer = sp.send_async(c.data, true);
            bytes packet;
            const int want = dynamic ? c.dynamic_code : c.static_code;
            EXPECT_EQ(read_packet(dynamic, sp.local, packet), want) << c.data.size() << " " << dynamic;
            EXPECT_EQ(packet, want > 0 ? c.data : bytes());
            close(sp.local); // unblocks a writer the reader stopped listening to
            sp.local = -1;
            writer.join();
        }
    }
    EXPECT_EQ(get_nio_packet(0, nullptr, 100), -1);
    EXPECT_EQ(get_nio_packet_dynamic(0, nullptr, 0), -1);
}

// A refused packet_type is read completely, and the next packet is still found.
TEST(VkCommReaders, RefusedTypesKeepTheStreamInStep)
{
    for (bool dynamic : {false, true}) {
        socket_pair sp;
        bytes packet;
        const bytes next = nio_valid(2, 7);
        sp.send_all(nio_valid(3, 20) + nio_valid(5, 1) + next);
        EXPECT_EQ(read_packet(dynamic, sp.local, packet), -6);
        EXPECT_EQ(read_packet(dynamic, sp.local, packet), -6);
        ASSERT_EQ(read_packet(dynamic, sp.local, packet), 18);
        EXPECT_EQ(packet, next);
    }
}

TEST(VkCommWait, WaitsHandPacketsToTheCallbackAndFoldFailures)
{
    for (wait_fn wait : {wait_fn{processing_socket}, wait_fn{processing_socket_dynamic}}) {
        socket_pair sp;
        seen_calls = 0;
        const bytes packet = nio_valid(4, 5);
        sp.send_all(packet + packet);
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, nullptr), 77);
        EXPECT_EQ(seen_head, bytes(packet.begin(), packet.begin() + VK_NIO_HEADER_LEN));
        EXPECT_EQ(wait(sp.local, 1, 1, nullptr, nullptr), 0);
        EXPECT_EQ(wait(sp.local, 1, 0, record_packet, nullptr), -100);
        sp.send_all(bytes(12, 0), true);
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, nullptr), -99);
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, nullptr), -99);
        EXPECT_EQ(seen_calls, 1);
        const int closed_fd = dup(sp.local);
        close(closed_fd);
        EXPECT_EQ(wait(closed_fd, 1, 0, nullptr, nullptr), -98);
    }
}

// The OIO reader and wait take 3 bytes and refuse the NIO magic; receive_* read without waiting
// and return the callback's result or the reader's code.
TEST(VkCommWait, OioReaderAndReceive)
{
    socket_pair sp;
    seen_calls = 0;
    char buffer[8] = {};
    sp.send_all(bytes{0xFF, 0x12, 0x34, 0xFF, 0x00, 0x07, 0xF9, 0xF2, 0xF8, 0xFF, 0, 1});
    EXPECT_EQ(processing_socket(sp.local, 0, 1, record_packet, nullptr), 77);
    EXPECT_EQ(seen_head, (bytes{0xFF, 0x12, 0x34}));
    EXPECT_EQ(get_oio_packet(sp.local, buffer, 2), -1);
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), 3);
    EXPECT_EQ(buffer[2], 0x07);
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), -2);
    EXPECT_EQ(get_oio_packet(sp.local, nullptr, 8), -1);
    EXPECT_EQ(processing_socket_dynamic(sp.local, 0, 1, record_packet, nullptr), -99); // reads nothing
    EXPECT_EQ(pending(sp.local), 3u);

    sp.send_all(nio_valid(4, 1) + nio_valid(4, 2) + nio_valid(3, 0) + nio_valid(4, 0, 1), true);
    int marker = 1; // the second argument reaches the callback
    auto check_marker = [](char *packet, void *, void *marker_p) {
        return record_packet(packet, nullptr) + *static_cast<int *>(marker_p);
    };
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, nullptr), 77);
    EXPECT_EQ(receive_expected_nio_packet(sp.local, check_marker, nullptr, &marker), 78);
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, nullptr), -6);
    EXPECT_EQ(receive_expected_nio_packet(sp.local, check_marker, nullptr, &marker), -3);
    EXPECT_EQ(seen_calls, 3);
    EXPECT_EQ(pending(sp.local), 11u); // the sub header behind the refused main header
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), -1); // peer closed
}

TEST(VkCommAddress, ConvertIpStrAndIpPortToAddr)
{
    uint8_t out[18];
    auto convert = [&](const std::string &text) {
        return convert_ip_str_to_addr(text.data(), text.size(), out, sizeof(out));
    };
    ASSERT_EQ(convert("[::1]:80"), 18);
    EXPECT_EQ(bytes(out, out + 18), (bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 80}));
    ASSERT_EQ(convert("10.0.0.1:8080"), 6);
    EXPECT_EQ(bytes(out, out + 6), (bytes{10, 0, 0, 1, 0x1F, 0x90}));
    ASSERT_EQ(convert("10.0.0.1:65537"), 6); // only the low 16 bits of the port
    EXPECT_EQ(bytes(out + 4, out + 6), (bytes{0, 1}));
    const std::string long_text = "10.0.0.1:" + std::string(55, '0'); // 64 characters
    const std::pair<std::string, int> failures[] = {
        {"::1:80", -3},        {"[::1:80", -3},       {"10.0.0.1:8x", -4}, {"10.0.0.1:", -4},
        {"10.0.0.256:80", -4}, {"[10.0.0.1]:80", -4}, {"10.0.0.1", -2},    {long_text, -1}};
    for (const auto &[text, code] : failures) {
        EXPECT_EQ(convert(text), code) << text;
    }
    EXPECT_EQ(convert_ip_str_to_addr(long_text.c_str(), 63, out, sizeof(out)), 6);
    EXPECT_EQ(convert_ip_str_to_addr("10.0.0.1:80", 11, out, 17), -4);
    EXPECT_EQ(convert_ip_str_to_addr(nullptr, 0, out, sizeof(out)), -1);

    // convert_ip_port_to_addr checks in order (output, address, port), leaving out untouched.
    std::memset(out, 0xEE, sizeof(out));
    EXPECT_EQ(convert_ip_port_to_addr("fe80::zz", nullptr, out, 17), -1);
    EXPECT_EQ(convert_ip_port_to_addr(nullptr, nullptr, out, 18), -2);
    EXPECT_EQ(convert_ip_port_to_addr(std::string(64, '1').c_str(), "80", out, 18), -2);
    EXPECT_EQ(convert_ip_port_to_addr("fe80::zz", nullptr, out, 18), -3);
    for (const char *port : {"", " ", "+", "80 ", "0x50", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(convert_ip_port_to_addr("1.2.3.4", port, out, 18), -4) << (port ? port : "null");
    }
    EXPECT_EQ(out[0], 0xEE);
    // The port is what strtol reads from the whole text, not range-checked.
    for (const auto &[port, value] : {std::pair{"+80", 80}, {" 80", 80}, {"-1", 0xFFFF}, {"\t65617", 81}}) {
        ASSERT_EQ(convert_ip_port_to_addr("1.2.3.4", port, out, 18), 6) << port;
        EXPECT_EQ(out[4] << 8 | out[5], value) << port;
    }
}

// Both print to stdout: getIPFromDomain its refusals, vk_close_socket_debug the socket it closes.
TEST(VkCommSocket, GetIPFromDomainAndCloseSocketDebug)
{
    char text[48], small[8];
    for (const char *name : {"192.0.2.7", "fe80::1", "localhost"}) {
        ASSERT_EQ(getIPFromDomain(name, text, sizeof(text)), 0);
        EXPECT_STREQ(text, name[0] == 'l' ? "127.0.0.1" : name);
    }
    EXPECT_EQ(getIPFromDomain(nullptr, text, sizeof(text)), -1);
    EXPECT_EQ(getIPFromDomain("localhost", text, 0), -1);
    socket_pair sp;
    const int fd = sp.local;
    sp.local = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(getIPFromDomain("no-such-host.invalid", text, sizeof(text)), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(getIPFromDomain("192.0.2.77", small, sizeof(small)), -2);
    EXPECT_EQ(getIPFromDomain("localhost", small, 9), -2);
    EXPECT_EQ(vk_close_socket_debug(fd, "thr_DGConn"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Unknown host [no-such-host.invalid]\nip is wrong.[192.0.2.77]\nip is wrong.[localhost]\n"
              "[close_socket] sock[" +
                  std::to_string(fd) + "],function[thr_DGConn]\n");
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    char c;
    EXPECT_EQ(recv(sp.peer, &c, 1, 0), 0); // the peer sees the end of the stream
    EXPECT_EQ(vk_close_socket_debug(fd, nullptr), -1);
}

TEST(VkCommSocket, CheckIPAddrAndInterfaceList)
{
    const struct {
        const char *name, *ip;
        int code;
    } cases[] = {
        {"lo", "127.0.0.1", -1}, {"eth0", "0.0.0.0", -2}, {"eth1", "127.0.0.1", -3}, {"eth2", "10.1.2.3", 0}};
    for (const auto &c : cases) {
        ifreq r{};
        std::strncpy(r.ifr_name, c.name, IFNAMSIZ - 1);
        auto *a = reinterpret_cast<sockaddr_in *>(&r.ifr_addr);
        a->sin_family = AF_INET;
        inet_pton(AF_INET, c.ip, &a->sin_addr);
        EXPECT_EQ(CheckIPAddr(&r), c.code) << c.name;
    }
    EXPECT_EQ(CheckIPAddr(nullptr), -1);

    vk_ip_info_list list{};
    testing::internal::CaptureStdout();
    ASSERT_EQ(get_ip_info(&list), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    ASSERT_GE(list.count, 1); // at least the loopback interface
    EXPECT_EQ(printed.find(std::string("[0]name: ") + list.list[0].name + ", ip: " + list.list[0].ip + "\n"),
              0u);
    std::free(list.list);
    EXPECT_EQ(get_ip_info(nullptr), -1);
}
