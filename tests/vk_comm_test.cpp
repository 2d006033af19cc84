// Tests of vk_comm: packet building, both NIO readers and the OIO reader over a socketpair,
// the socket waits, and the address helpers. Only socketpairs and loopback names are used.
#include "vk_comm.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using bytes = std::vector<unsigned char>;

// A connected stream pair: tests write on `peer` and read on `local`.
struct socket_pair {
    int local = -1;
    int peer = -1;
    socket_pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
            local = fds[0];
            peer = fds[1];
            // A reader that wrongly waits for more fails after a while instead of hanging.
            timeval limit{5, 0};
            setsockopt(local, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        }
    }
    ~socket_pair()
    {
        if (local >= 0)
            close(local);
        close_peer();
    }
    void close_peer()
    {
        if (peer >= 0)
            close(peer);
        peer = -1;
    }
    // Writes from a second thread, so inputs larger than the socket buffer cannot block.
    std::thread send_async(bytes data, bool close_after)
    {
        return std::thread([this, data = std::move(data), close_after] {
            size_t done = 0;
            while (done < data.size()) {
                ssize_t n = send(peer, data.data() + done, data.size() - done, MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                done += static_cast<size_t>(n);
            }
            if (close_after)
                shutdown(peer, SHUT_WR);
        });
    }
    void send_all(const bytes &data, bool close_after = false) { send_async(data, close_after).join(); }
};

// A raw NIO packet built by hand: main header, the given length field, then `rest`
// (sub header and body, or anything a hostile peer sends).
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

struct static_reader {
    std::vector<char> buffer = std::vector<char>(VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY);
    int read(int sock) { return get_nio_packet(sock, buffer.data(), VK_NIO_PACKET_CAPACITY); }
};

struct dynamic_reader {
    char *packet = nullptr;
    ~dynamic_reader() { std::free(packet); }
    int read(int sock)
    {
        std::free(packet);
        packet = nullptr;
        return get_nio_packet_dynamic(sock, &packet, VK_NIO_PACKET_CAPACITY);
    }
};

bool same_bytes(const char *got, const bytes &want)
{
    return std::memcmp(got, want.data(), want.size()) == 0;
}

// Bytes still waiting on the socket (without blocking).
size_t pending(int sock)
{
    char scratch[256];
    ssize_t n = recv(sock, scratch, sizeof(scratch), MSG_DONTWAIT);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

} // namespace

// ---- building ---------------------------------------------------------------

TEST(VkCommWrap, EmptyBodyGivesHeaderOnlyPacketWithBigEndianFields)
{
    const uint8_t saved = get_nio_header_version();
    set_nio_header_version(2);
    char *packet = nullptr;
    ASSERT_EQ(wrap_packet_nio_header(&packet, nullptr, 0, 0x104, 0x1EA5B, 0x01020304, 0x201, 19121701), 23);
    ASSERT_NE(packet, nullptr);
    // magic, version 2, low byte of packet_type, zero reserve, length 11; then message type
    // 0xEA5B (low 16 bits), packet_id, low byte of body_kind, stamp 19121701 = 0x0123C625.
    const bytes want = {0xF9, 0xF2, 0xF8, 2, 4, 0, 0, 0,    0,    0,    0,   11,
                        0xEA, 0x5B, 1,    2, 3, 4, 1, 0x01, 0x23, 0xC6, 0x25};
    EXPECT_TRUE(same_bytes(packet, want));
    EXPECT_EQ(get_nio_length(packet), 11u);
    EXPECT_EQ(get_nio_message_type(packet), 0xEA5B);
    EXPECT_EQ(is_nio_header(packet), 1);
    std::free(packet);
    set_nio_header_version(saved);
}

TEST(VkCommWrap, BodyIsCopiedAndBadArgumentsGiveNothing)
{
    const char body[] = "hello";
    char *packet = nullptr;
    ASSERT_EQ(wrap_packet_nio_header(&packet, body, 5, 4, 60003, 0, 1, 60003), 28);
    EXPECT_EQ(get_nio_length(packet), 16u);
    EXPECT_EQ(std::memcmp(packet + 23, body, 5), 0);
    std::free(packet);

    packet = reinterpret_cast<char *>(1);
    EXPECT_EQ(wrap_packet_nio_header(&packet, body, -1, 4, 1, 0, 1, 1), 0);
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(wrap_packet_nio_header(&packet, nullptr, 5, 4, 1, 0, 1, 1), 0);
    EXPECT_EQ(wrap_packet_nio_header(&packet, body, 0x7FFFFFF0, 4, 1, 0, 1, 1), 0);
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(wrap_packet_nio_header(nullptr, body, 5, 4, 1, 0, 1, 1), 0);

    ASSERT_EQ(wrap_packet_oio_header(&packet, body, 5, 0x1234), 8);
    const bytes want = {0xFF, 0x12, 0x34, 'h', 'e', 'l', 'l', 'o'};
    EXPECT_TRUE(same_bytes(packet, want));
    EXPECT_EQ(is_nio_header(packet), 0);
    std::free(packet);
    EXPECT_EQ(is_nio_header(nullptr), 0);
}

// ---- the static reader ------------------------------------------------------

TEST(VkCommStaticReader, ReadsWellFormedPacketsIncludingEmptyBodyAndLargestLength)
{
    socket_pair sp;
    static_reader r;
    const bytes empty = nio_valid(4, 0, 0); // version 0 is accepted too
    sp.send_all(empty);
    ASSERT_EQ(r.read(sp.local), 11);
    EXPECT_TRUE(same_bytes(r.buffer.data(), empty));

    const bytes largest = nio_valid(1, VK_NIO_PACKET_CAPACITY - 11);
    std::thread writer = sp.send_async(largest, false);
    EXPECT_EQ(r.read(sp.local), VK_NIO_PACKET_CAPACITY);
    writer.join();
    EXPECT_TRUE(same_bytes(r.buffer.data(), largest));
    EXPECT_EQ(get_nio_message_type(r.buffer.data()), 50000);
}

TEST(VkCommStaticReader, HeaderFailuresHaveTheirCodes)
{
    struct header_case {
        bytes data;
        int code;
    };
    bytes bad_magic = nio_valid(4, 3);
    bad_magic[1] = 0xF3;
    const header_case cases[] = {
        {bad_magic, -2},
        {nio_valid(4, 3, 1), -3},
        {nio_valid(4, 3, 3), -3},
        {nio_raw(2, 4, 0, {}), -4},
        {nio_raw(2, 4, 0x80000000u, {}), -4},
        {nio_raw(2, 4, VK_NIO_PACKET_CAPACITY + 1, {}), -4},
    };
    for (const auto &c : cases) {
        socket_pair sp;
        static_reader r;
        sp.send_all(c.data);
        EXPECT_EQ(r.read(sp.local), c.code);
    }
    EXPECT_EQ(get_nio_packet(0, nullptr, 100), -1);
}

TEST(VkCommStaticReader, LengthsShorterThanTheSubHeaderAreRefusedBeforeTheBody)
{
    for (uint32_t length = 1; length <= 10; ++length) {
        socket_pair sp;
        static_reader r;
        // What follows stays unread: the refusal happens at the header.
        sp.send_all(nio_raw(2, 4, length, bytes(length, 0xAB)));
        EXPECT_EQ(r.read(sp.local), -4) << "length " << length;
        EXPECT_EQ(pending(sp.local), length);
    }
}

TEST(VkCommStaticReader, PeerClosingGivesMinusOneBeforeHeaderAndMinusFiveMidBody)
{
    {
        socket_pair sp;
        static_reader r;
        sp.close_peer();
        EXPECT_EQ(r.read(sp.local), -1);
    }
    {
        socket_pair sp;
        static_reader r;
        sp.send_all(bytes{0xF9, 0xF2, 0xF8, 2, 4}, true); // header cut short
        EXPECT_EQ(r.read(sp.local), -1);
    }
    {
        socket_pair sp;
        static_reader r;
        bytes cut = nio_valid(4, 40);
        cut.resize(cut.size() - 1);
        sp.send_all(cut, true);
        EXPECT_EQ(r.read(sp.local), -5);
    }
}

TEST(VkCommStaticReader, RefusedPacketTypeIsConsumedAndTheNextPacketIsFound)
{
    socket_pair sp;
    static_reader r;
    const bytes next = nio_valid(2, 7);
    sp.send_all(nio_valid(3, 20) + nio_valid(5, 1) + next);
    EXPECT_EQ(r.read(sp.local), -6);
    EXPECT_EQ(r.read(sp.local), -6);
    ASSERT_EQ(r.read(sp.local), 18);
    EXPECT_TRUE(same_bytes(r.buffer.data(), next));
}

// ---- the dynamic reader -----------------------------------------------------

TEST(VkCommDynamicReader, ReadsEmptyBodyAndLengthsAboveTheStaticLimit)
{
    socket_pair sp;
    dynamic_reader r;
    const bytes empty = nio_valid(0, 0);
    sp.send_all(empty);
    ASSERT_EQ(r.read(sp.local), 11);
    EXPECT_TRUE(same_bytes(r.packet, empty));

    // 65536 is over the static limit; 300000 also forces the buffer to grow several times.
    for (size_t body : {size_t{65536 - 11}, size_t{300000}}) {
        const bytes big = nio_valid(4, body);
        std::thread writer = sp.send_async(big, false);
        EXPECT_EQ(r.read(sp.local), static_cast<int>(body + 11));
        writer.join();
        ASSERT_NE(r.packet, nullptr);
        EXPECT_TRUE(same_bytes(r.packet, big));
    }
}

TEST(VkCommDynamicReader, FailuresHaveTheirOwnCodesAndHandNothingOver)
{
    struct dynamic_case {
        bytes data;
        bool close_after;
        int code;
    };
    bytes bad_magic = nio_valid(4, 3);
    bad_magic[0] = 0;
    bytes cut = nio_valid(4, 40);
    cut.resize(cut.size() - 3);
    const dynamic_case cases[] = {
        {{0xF9, 0xF2}, true, -1},
        {bad_magic, false, -2},
        {nio_valid(4, 3, 1), false, -3},
        {nio_raw(2, 4, 0, {}), false, -5},
        {nio_raw(2, 4, 0xFFFFFFFFu, {}), false, -5},
        {cut, true, -6},
        // A length near 2 GiB with little behind it costs only what arrived.
        {nio_raw(2, 4, 0x7FFFFFFF, bytes(100, 1)), true, -6},
    };
    for (const auto &c : cases) {
        socket_pair sp;
        dynamic_reader r;
        sp.send_all(c.data, c.close_after);
        EXPECT_EQ(r.read(sp.local), c.code);
        EXPECT_EQ(r.packet, nullptr);
    }
    EXPECT_EQ(get_nio_packet_dynamic(0, nullptr, 0), -1);
}

TEST(VkCommDynamicReader, ShortLengthsAndRefusedTypesKeepTheStreamUsable)
{
    socket_pair sp;
    dynamic_reader r;
    for (uint32_t length = 1; length <= 10; ++length) {
        sp.send_all(nio_raw(2, 4, length, {}));
        EXPECT_EQ(r.read(sp.local), -5) << "length " << length;
        EXPECT_EQ(r.packet, nullptr);
    }
    const bytes next = nio_valid(4, 2);
    sp.send_all(nio_valid(3, 30) + next);
    EXPECT_EQ(r.read(sp.local), -6);
    ASSERT_EQ(r.read(sp.local), 13);
    EXPECT_TRUE(same_bytes(r.packet, next));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Virtual size of this process in bytes, from /proc.
static size_t virtual_size()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key) {
        if (key == "VmSize:") {
            size_t kib = 0;
            status >> kib;
            return kib * 1024;
        }
    }
    return 0;
}

TEST(VkCommDynamicReader, AllocationFailureIsMinusFour)
{
    // A child with a tight address-space limit reads a packet that keeps arriving; the
    // reader must give up with -4 once its buffer cannot grow.
    socket_pair sp;
    const size_t limit = virtual_size() + (48u << 20);
    ASSERT_GT(limit, 48u << 20);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rlimit rl{limit, limit};
        setrlimit(RLIMIT_AS, &rl);
        char *packet = nullptr;
        int rc = get_nio_packet_dynamic(sp.local, &packet, 0);
        _exit(rc == -4 && packet == nullptr ? 0 : 1);
    }
    close(sp.local);
    sp.local = -1;
    const bytes header = nio_raw(2, 4, 0x7FFFFFFF, {});
    send(sp.peer, header.data(), header.size(), MSG_NOSIGNAL);
    std::vector<char> chunk(1 << 20, 0x5A);
    while (send(sp.peer, chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) {
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
#endif

// ---- the OIO reader ---------------------------------------------------------

TEST(VkCommOioReader, ReadsThreeBytesAndRefusesNioMagic)
{
    socket_pair sp;
    char buffer[8] = {};
    sp.send_all(bytes{0xFF, 0x00, 0x07, 0xF9, 0xF2, 0xF8});
    EXPECT_EQ(get_oio_packet(sp.local, buffer, 2), -1);
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), 3);
    EXPECT_EQ(static_cast<unsigned char>(buffer[2]), 0x07);
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), -2);
    sp.close_peer();
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), -1);
    EXPECT_EQ(get_oio_packet(sp.local, nullptr, 8), -1);
}

// ---- waits and callbacks ----------------------------------------------------

namespace
{

struct seen_packet {
    bytes head;
    void *argument2 = nullptr;
    int calls = 0;
};

int record_packet(char *packet, void *argument)
{
    auto *seen = static_cast<seen_packet *>(argument);
    seen->head.assign(packet, packet + VK_NIO_HEADER_LEN);
    ++seen->calls;
    return 77;
}

int record_packet2(char *packet, void *argument1, void *argument2)
{
    static_cast<seen_packet *>(argument1)->argument2 = argument2;
    return record_packet(packet, argument1) + 1;
}

using wait_fn = int (*)(int, int, int, vk_packet_callback, void *);

} // namespace

TEST(VkCommWait, BothWaitsHandPacketsToTheCallbackAndFoldReadFailures)
{
    for (wait_fn wait : {wait_fn{processing_socket}, wait_fn{processing_socket_dynamic}}) {
        socket_pair sp;
        seen_packet seen;
        const bytes packet = nio_valid(4, 5);
        sp.send_all(packet + packet);
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, &seen), 77);
        EXPECT_EQ(seen.head, bytes(packet.begin(), packet.begin() + VK_NIO_HEADER_LEN));
        EXPECT_EQ(wait(sp.local, 1, 1, nullptr, nullptr), 0);

        EXPECT_EQ(wait(sp.local, 1, 0, record_packet, &seen), -100);
        bytes bad = nio_valid(4, 0);
        bad[0] = 0;
        sp.send_all(bad);
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, &seen), -99);
        sp.close_peer();
        EXPECT_EQ(wait(sp.local, 1, 1, record_packet, &seen), -99);
        EXPECT_EQ(seen.calls, 1);
    }
}

TEST(VkCommWait, BadDescriptorIsMinusNinetyEightAndOioModes)
{
    socket_pair sp;
    const int closed_fd = dup(sp.local);
    close(closed_fd);
    EXPECT_EQ(processing_socket(closed_fd, 1, 0, nullptr, nullptr), -98);
    EXPECT_EQ(processing_socket_dynamic(-1, 1, 0, nullptr, nullptr), -98);

    seen_packet seen;
    sp.send_all(bytes{0xFF, 0x12, 0x34, 0xFF, 0x00, 0x01});
    EXPECT_EQ(processing_socket(sp.local, 0, 1, record_packet, &seen), 77);
    EXPECT_EQ(seen.head[1], 0x12);
    // The dynamic wait reads nothing in OIO mode.
    EXPECT_EQ(processing_socket_dynamic(sp.local, 0, 1, record_packet, &seen), -99);
    EXPECT_EQ(pending(sp.local), 3u);
}

TEST(VkCommReceive, ReturnsCallbackResultOrTheReaderCode)
{
    socket_pair sp;
    seen_packet seen;
    int marker = 0;
    sp.send_all(nio_valid(4, 1) + nio_valid(4, 2) + nio_valid(3, 0) + nio_valid(4, 0, 1));
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, &seen), 77);
    EXPECT_EQ(receive_expected_nio_packet(sp.local, record_packet2, &seen, &marker), 78);
    EXPECT_EQ(seen.argument2, &marker);
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, &seen), -6);
    EXPECT_EQ(receive_expected_nio_packet(sp.local, record_packet2, &seen, &marker), -3);
    EXPECT_EQ(seen.calls, 2);
}

// ---- address helpers --------------------------------------------------------

TEST(VkCommAddress, ConvertIpStrToAddrCases)
{
    uint8_t out[18];
    auto convert = [&](const char *text) {
        return convert_ip_str_to_addr(text, std::strlen(text), out, sizeof(out));
    };

    ASSERT_EQ(convert("[::1]:80"), 18);
    const uint8_t loopback6[18] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 80};
    EXPECT_EQ(std::memcmp(out, loopback6, 18), 0);
    ASSERT_EQ(convert("10.0.0.1:8080"), 6);
    const uint8_t v4[6] = {10, 0, 0, 1, 0x1F, 0x90};
    EXPECT_EQ(std::memcmp(out, v4, 6), 0);
    ASSERT_EQ(convert("10.0.0.1:65537"), 6); // only the low 16 bits of the port
    EXPECT_EQ(out[4], 0);
    EXPECT_EQ(out[5], 1);

    EXPECT_EQ(convert("::1:80"), -3);
    EXPECT_EQ(convert("[::1:80"), -3);
    EXPECT_EQ(convert("10.0.0.1:8x"), -4);
    EXPECT_EQ(convert("10.0.0.1:"), -4);
    EXPECT_EQ(convert("10.0.0.256:80"), -4);
    EXPECT_EQ(convert("[10.0.0.1]:80"), -4);
    EXPECT_EQ(convert("10.0.0.1"), -2);
    const std::string long_text = "10.0.0.1:" + std::string(55, '0');
    EXPECT_EQ(convert(long_text.c_str()), -1);
    EXPECT_EQ(convert_ip_str_to_addr(long_text.c_str(), 63, out, sizeof(out)), 6);
    EXPECT_EQ(convert_ip_str_to_addr("10.0.0.1:80", 11, out, 17), -4);
    EXPECT_EQ(convert_ip_str_to_addr(nullptr, 0, out, sizeof(out)), -1);
}

TEST(VkCommAddress, ConvertIpPortToAddrCheckOrder)
{
    uint8_t out[18];
    std::memset(out, 0xEE, sizeof(out));
    EXPECT_EQ(convert_ip_port_to_addr("10.0.0.1", "80", out, 17), -1);
    EXPECT_EQ(convert_ip_port_to_addr("10.0.0.1", "80", nullptr, 18), -1);
    EXPECT_EQ(convert_ip_port_to_addr(std::string(64, '1').c_str(), "80", out, 18), -2);
    EXPECT_EQ(convert_ip_port_to_addr(nullptr, "80", out, 18), -2);
    EXPECT_EQ(convert_ip_port_to_addr("fe80::zz", "80", out, 18), -3);
    EXPECT_EQ(convert_ip_port_to_addr("1.2.3", "80", out, 18), -3);
    EXPECT_EQ(convert_ip_port_to_addr("1.2.3.4", "", out, 18), -4);
    EXPECT_EQ(convert_ip_port_to_addr("1.2.3.4", "-1", out, 18), -4);
    EXPECT_EQ(convert_ip_port_to_addr("1.2.3.4", nullptr, out, 18), -4);
    EXPECT_EQ(out[0], 0xEE); // untouched by every failure
    EXPECT_EQ(convert_ip_port_to_addr("2001:db8::2", "443", out, 18), 18);
    EXPECT_EQ(out[0], 0x20);
    EXPECT_EQ(out[16], 0x01);
    EXPECT_EQ(out[17], 0xBB);
}

TEST(VkCommAddress, GetIPFromDomainLiteralsLocalhostAndUnknownNames)
{
    char text[48];
    ASSERT_EQ(getIPFromDomain("192.0.2.7", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "192.0.2.7");
    ASSERT_EQ(getIPFromDomain("fe80::1", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "fe80::1");
    ASSERT_EQ(getIPFromDomain("localhost", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "127.0.0.1");

    testing::internal::CaptureStdout();
    EXPECT_EQ(getIPFromDomain("no-such-host.invalid", text, sizeof(text)), -1);
    EXPECT_STREQ(text, "");
    char small[8];
    EXPECT_EQ(getIPFromDomain("192.0.2.77", small, sizeof(small)), -2);
    EXPECT_EQ(getIPFromDomain("localhost", small, 9), -2);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed,
              "Unknown host [no-such-host.invalid]\nip is wrong.[192.0.2.77]\nip is wrong.[localhost]\n");
    EXPECT_EQ(getIPFromDomain(nullptr, text, sizeof(text)), -1);
    EXPECT_EQ(getIPFromDomain("localhost", text, 0), -1);
}

TEST(VkCommSocket, CloseSocketDebugPrintsShutsDownAndCloses)
{
    socket_pair sp;
    testing::internal::CaptureStdout();
    const int fd = sp.local;
    EXPECT_EQ(vk_close_socket_debug(fd, "thr_DGConn"), 0);
    sp.local = -1;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[close_socket] sock[" + std::to_string(fd) + "],function[thr_DGConn]\n");
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    char c;
    EXPECT_EQ(recv(sp.peer, &c, 1, 0), 0); // the peer sees the end of the stream
    EXPECT_EQ(vk_close_socket_debug(fd, nullptr), -1);
}

TEST(VkCommSocket, CheckIPAddrAndInterfaceList)
{
    auto request = [](const char *name, const char *ip) {
        ifreq r{};
        std::strncpy(r.ifr_name, name, IFNAMSIZ - 1);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, ip, &a.sin_addr);
        std::memcpy(&r.ifr_addr, &a, sizeof(a));
        return r;
    };
    const ifreq lo = request("lo", "127.0.0.1"), any = request("eth0", "0.0.0.0"),
                local = request("eth1", "127.0.0.1"), ok = request("eth2", "10.1.2.3");
    EXPECT_EQ(CheckIPAddr(&lo), -1);
    EXPECT_EQ(CheckIPAddr(&any), -2);
    EXPECT_EQ(CheckIPAddr(&local), -3);
    EXPECT_EQ(CheckIPAddr(&ok), 0);
    EXPECT_EQ(CheckIPAddr(nullptr), -1);

    vk_ip_info_list list{};
    testing::internal::CaptureStdout();
    ASSERT_EQ(get_ip_info(&list), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    ASSERT_GE(list.count, 1); // at least the loopback interface
    std::string want;
    for (int i = 0; i < list.count; ++i) {
        EXPECT_LT(strnlen(list.list[i].name, sizeof(list.list[i].name)), sizeof(list.list[i].name));
        in_addr parsed;
        EXPECT_EQ(inet_pton(AF_INET, list.list[i].ip, &parsed), 1);
        want += "[" + std::to_string(i) + "]name: " + list.list[i].name + ", ip: " + list.list[i].ip + "\n";
    }
    EXPECT_EQ(printed, want);
    std::free(list.list);
    EXPECT_EQ(get_ip_info(nullptr), -1);
}
