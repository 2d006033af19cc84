// Shared by the two NIO reader fuzz targets: writes the input into a socketpair, reads it back
// packet by packet through the reader under test, and checks every result against a model of
// the stream: what a positive result returns must be exactly the next 12 + length input bytes.
#pragma once

#include "vk_comm.h"

#include <sys/socket.h>
#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#define FUZZ_CHECK(cond)                                                                                     \
    ((cond) ? void() : (std::fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__), std::abort()))

namespace
{

constexpr size_t k_max_input = 1 << 20;

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

// The result the model expects for the input from p (left bytes): the length field for a good
// packet, else the reader's refusal. The static reader refuses a short or over-capacity length
// with -4 and a cut body with -5; the dynamic one has no upper limit and uses -5 and -6.
// *consumed is what a complete packet takes from the stream, or 0 when the stream ends here.
int expected_result(bool dynamic, const uint8_t *p, size_t left, size_t *consumed)
{
    *consumed = 0;
    if (left < VK_NIO_MAIN_HEADER_LEN)
        return -1;
    if (p[0] != 0xF9 || p[1] != 0xF2 || p[2] != 0xF8)
        return -2;
    if (p[3] != 0 && p[3] != 2)
        return -3;
    const auto length = static_cast<int32_t>((uint32_t{p[8]} << 24) | (uint32_t{p[9]} << 16) |
                                             (uint32_t{p[10]} << 8) | p[11]);
    if (length < 11 || (!dynamic && length > VK_NIO_PACKET_CAPACITY))
        return dynamic ? -5 : -4;
    if (left - VK_NIO_MAIN_HEADER_LEN < static_cast<size_t>(length))
        return dynamic ? -6 : -5;
    *consumed = VK_NIO_MAIN_HEADER_LEN + static_cast<size_t>(length);
    return p[4] > 4 || p[4] == 3 ? -6 : length; // a refused packet_type is still consumed
}

// `read(sock, &packet)` runs the reader once and points packet at what it filled.
template <typename Read> void run_stream(bool dynamic, const uint8_t *data, size_t size, Read read)
{
    int fds[2];
    if (size > k_max_input || socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return;
    std::thread writer(feed, fds[1], data, size);
    for (size_t at = 0, consumed = 1; consumed != 0; at += consumed) {
        const char *packet = nullptr;
        const int rc = read(fds[0], &packet);
        FUZZ_CHECK(rc == expected_result(dynamic, data + at, size - at, &consumed));
        FUZZ_CHECK(rc <= 0 || std::memcmp(packet, data + at, consumed) == 0);
    }
    close(fds[0]); // unblocks the writer if the reader stopped early
    writer.join();
    close(fds[1]);
}

} // namespace
