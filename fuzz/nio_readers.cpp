// libFuzzer target for the NIO packet readers get_nio_packet and get_nio_packet_dynamic: each
// reads the input back from a socketpair packet by packet, and what their contract promises is
// checked against the input bytes themselves: results in the documented set, a packet only for
// an accepted header, its bytes exactly the 12 + length at that offset of the stream, nothing
// written past the static reader's buffer, and the stream left exactly after the packet (also
// after a refused packet_type, which is consumed whole).
#include "fuzz_support.h"
#include "vk_comm.h"

#include <sys/socket.h>

#include <memory>
#include <thread>

namespace
{

constexpr size_t k_max_input = 1 << 20;
constexpr size_t k_head = VK_NIO_MAIN_HEADER_LEN;

uint32_t be32(const void *p)
{
    const auto *b = static_cast<const uint8_t *>(p);
    return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
}

// The writer runs on its own thread so an input larger than the socket buffer cannot block.
void feed(int sock, const uint8_t *data, size_t size)
{
    for (size_t done = 0; done < size;) {
        ssize_t n = send(sock, data + done, size - done, MSG_NOSIGNAL);
        if (n <= 0)
            break; // the reader stopped and closed its end
        done += static_cast<size_t>(n);
    }
    shutdown(sock, SHUT_WR);
}

// The stream stands exactly `next` bytes into the input: what can be peeked now is the input
// from there on, and nothing once the input is used up.
void check_position(int sock, const uint8_t *data, size_t size, size_t next)
{
    static uint8_t peeked[4096];
    const ssize_t n = recv(sock, peeked, sizeof peeked, MSG_PEEK);
    FUZZ_CHECK(next <= size && n >= 0 && static_cast<size_t>(n) <= size - next);
    FUZZ_CHECK((n == 0) == (next == size) && memcmp(peeked, data + next, static_cast<size_t>(n)) == 0);
}

// `read(sock, &packet)` runs the reader once and points packet at what it filled (null when it
// handed nothing over); max_length is the largest length field it may accept.
template <typename Read> void run_stream(const uint8_t *data, size_t size, int64_t max_length, Read read)
{
    int fds[2];
    if (size > k_max_input || socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return;
    std::thread writer(feed, fds[1], data, size);
    for (size_t at = 0;;) {
        const uint8_t *packet = nullptr;
        const int rc = read(fds[0], &packet);
        const size_t left = size - at;
        FUZZ_CHECK((rc >= -6 && rc <= -1) || (rc >= VK_NIO_SUB_HEADER_LEN && rc <= max_length));
        FUZZ_CHECK((rc == -1) == (left < k_head)); // -1: the stream ended before a header
        size_t length = left < k_head ? 0 : be32(data + at + 8);
        if (rc > 0) {
            FUZZ_CHECK(packet != nullptr && static_cast<size_t>(rc) <= left - k_head);
            FUZZ_CHECK(memcmp(packet, data + at, k_head + static_cast<size_t>(rc)) == 0 &&
                       be32(packet + 8) == static_cast<uint32_t>(rc));
            FUZZ_CHECK(is_nio_header(packet) && (packet[3] == 0 || packet[3] == 2) && packet[4] <= 4 &&
                       packet[4] != 3);
        } else if (rc != -6 || length > left - k_head) {
            break; // any other refusal leaves the stream out of step (the agent then disconnects)
        } // else a refused packet_type: the packet was read whole, the next one follows
        check_position(fds[0], data, size, at + k_head + length);
        at += k_head + length;
    }
    close(fds[0]); // unblocks the writer if the reader stopped early
    writer.join();
    close(fds[1]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly header + capacity bytes, so ASan sees any write past the documented size.
    std::unique_ptr<char[]> buffer(new char[k_head + VK_NIO_PACKET_CAPACITY]);
    run_stream(data, size, VK_NIO_PACKET_CAPACITY, [&](int sock, const uint8_t **packet_pp) {
        *packet_pp = reinterpret_cast<const uint8_t *>(buffer.get());
        return get_nio_packet(sock, buffer.get(), VK_NIO_PACKET_CAPACITY);
    });
    std::unique_ptr<char, decltype(&std::free)> owned(nullptr, &std::free);
    run_stream(data, size, INT32_MAX, [&](int sock, const uint8_t **packet_pp) {
        char *packet = nullptr;
        const int rc = get_nio_packet_dynamic(sock, &packet, VK_NIO_PACKET_CAPACITY);
        owned.reset(packet);
        FUZZ_CHECK((rc > 0) == (packet != nullptr)); // failures hand nothing over
        *packet_pp = reinterpret_cast<const uint8_t *>(packet);
        return rc;
    });
    return 0;
}
