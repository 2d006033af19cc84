// vk_comm over socketpairs and loopback names: packet building, both NIO readers, the socket
// wait, and one smoke test of the interface-only helpers.
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
// waits for more fails after 5 s instead of hanging. A descriptor taken over is set to -1.
struct socket_pair {
    int fds[2] = {-1, -1};
    int &local = fds[0], &peer = fds[1];
    socket_pair()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        timeval limit{5, 0};
        setsockopt(local, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    ~socket_pair() { close(local), close(peer); }
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

// The callback records the packet's header bytes and counts its calls.
bytes seen_head;
int seen_calls = 0;
int record_packet(char *packet, void *)
{
    seen_head.assign(packet, packet + (packet[0] == '\xF9' ? VK_NIO_HEADER_LEN : VK_OIO_HEADER_LEN));
    ++seen_calls;
    return 77;
}

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
    std::free(packet);
    set_nio_header_version(saved);

    ASSERT_EQ(wrap_packet_nio_header(&packet, "hello", 5, 4, 60003, 0, 1, 60003), 28);
    EXPECT_EQ(get_nio_length(packet), 16u);
    EXPECT_EQ(std::string(packet + 23, 5), "hello");
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

// The connection thread's wait hands a packet to the callback and folds the failures into
// -100 (time-out), -99 (read) and -98 (select); receive_nio_packet reads without waiting.
TEST(VkCommWait, WaitHandsPacketsToTheCallbackAndFoldsFailures)
{
    socket_pair sp;
    seen_calls = 0;
    const bytes packet = nio_valid(4, 5);
    sp.send_all(packet + packet + packet);
    EXPECT_EQ(processing_socket_dynamic(sp.local, 1, 1, record_packet, nullptr), 77);
    EXPECT_EQ(seen_head, bytes(packet.begin(), packet.begin() + VK_NIO_HEADER_LEN));
    EXPECT_EQ(processing_socket_dynamic(sp.local, 1, 1, nullptr, nullptr), 0);
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, nullptr), 77);
    EXPECT_EQ(processing_socket_dynamic(sp.local, 1, 0, record_packet, nullptr), -100);
    sp.send_all(nio_valid(3, 0) + bytes(12, 0), true);
    EXPECT_EQ(receive_nio_packet(sp.local, record_packet, nullptr), -6);
    EXPECT_EQ(processing_socket_dynamic(sp.local, 1, 1, record_packet, nullptr), -99);
    EXPECT_EQ(processing_socket_dynamic(sp.local, 1, 1, record_packet, nullptr), -99);
    EXPECT_EQ(seen_calls, 2);
    const int closed_fd = dup(sp.local);
    close(closed_fd);
    EXPECT_EQ(processing_socket_dynamic(closed_fd, 1, 0, nullptr, nullptr), -98);
}

// One smoke test of the helpers nothing in the agent calls: OIO framing and reading, the
// expected-packet reader, the address conversion, the interface check and list, the close.
TEST(VkCommInterfaceOnly, Smoke)
{
    char *packet = nullptr;
    ASSERT_EQ(wrap_packet_oio_header(&packet, "hello", 5, 0x1234), 8);
    EXPECT_EQ(std::string(packet, 8), "\xFF\x12\x34hello");
    EXPECT_EQ(is_nio_header(packet), 0);
    std::free(packet);
    socket_pair sp;
    seen_calls = 0;
    sp.send_all(bytes{0xFF, 0x12, 0x34, 0xF9, 0xF2, 0xF8} + nio_valid(4, 1));
    EXPECT_EQ(processing_socket(sp.local, 0, 1, record_packet, nullptr), 77);
    EXPECT_EQ(seen_head, (bytes{0xFF, 0x12, 0x34}));
    char buffer[8];
    EXPECT_EQ(get_oio_packet(sp.local, buffer, sizeof(buffer)), -2); // the NIO magic is refused
    int marker = 1; // the second argument reaches the callback
    auto add_marker = [](char *p, void *, void *marker_p) { return record_packet(p, nullptr) + *static_cast<int *>(marker_p); };
    EXPECT_EQ(receive_expected_nio_packet(sp.local, add_marker, nullptr, &marker), 78);

    uint8_t out[18];
    ASSERT_EQ(convert_ip_str_to_addr("[::1]:80", 8, out, sizeof(out)), 18);
    EXPECT_EQ(bytes(out, out + 18), (bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 80}));
    ASSERT_EQ(convert_ip_str_to_addr("10.0.0.1:-1", 11, out, sizeof(out)), 6); // low 16 bits of the port
    EXPECT_EQ(bytes(out, out + 6), (bytes{10, 0, 0, 1, 0xFF, 0xFF}));
    EXPECT_EQ(convert_ip_str_to_addr("10.0.0.1:8x", 11, out, sizeof(out)), -4);

    ifreq r{};
    std::strncpy(r.ifr_name, "eth2", IFNAMSIZ - 1);
    r.ifr_addr.sa_family = AF_INET;
    inet_pton(AF_INET, "10.1.2.3", &reinterpret_cast<sockaddr_in *>(&r.ifr_addr)->sin_addr);
    EXPECT_EQ(CheckIPAddr(&r), 0);
    std::strncpy(r.ifr_name, "lo", IFNAMSIZ - 1);
    EXPECT_EQ(CheckIPAddr(&r), -1);
    vk_ip_info_list list{};
    testing::internal::CaptureStdout();
    ASSERT_EQ(get_ip_info(&list), 0);
    EXPECT_EQ(vk_close_socket_debug(sp.local, "thr_DGConn"), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    ASSERT_GE(list.count, 1); // at least the loopback interface
    EXPECT_EQ(printed.find(std::string("[0]name: ") + list.list[0].name + ", ip: " + list.list[0].ip + "\n"), 0u);
    EXPECT_TRUE(printed.ends_with("[close_socket] sock[" + std::to_string(sp.local) + "],function[thr_DGConn]\n"));
    std::free(list.list);
    EXPECT_EQ(fcntl(sp.local, F_GETFD), -1);
    sp.local = -1;
}
