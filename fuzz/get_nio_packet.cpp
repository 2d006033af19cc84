// Fuzz target for get_nio_packet, the static NIO reader: the input is written into a
// socketpair and read back packet by packet. Every result is checked against a model of
// the stream: what a positive result returns must be exactly the next bytes of the input.
#include "vk_comm.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#define FUZZ_CHECK(cond)                                                                                     \
    do {                                                                                                     \
        if (!(cond)) {                                                                                       \
            std::fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__);                           \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (0)

namespace
{

constexpr size_t k_max_input = 1 << 20;

// The writer runs on its own thread so an input larger than the socket buffer cannot block.
void feed(int sock, const uint8_t *data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = send(sock, data + done, size - done, MSG_NOSIGNAL);
        if (n <= 0)
            break; // the reader stopped and closed its end
        done += static_cast<size_t>(n);
    }
    shutdown(sock, SHUT_WR);
}

int32_t length_at(const uint8_t *p)
{
    return static_cast<int32_t>((uint32_t{p[8]} << 24) | (uint32_t{p[9]} << 16) | (uint32_t{p[10]} << 8) |
                                p[11]);
}

bool type_ok(uint8_t type)
{
    return type <= 4 && type != 3;
}

// Checks one reader result against the input from `at`. Returns the bytes the reader
// consumed when reading may go on, or 0 when the stream ends here.
size_t check_result(int rc, const char *buffer, const uint8_t *data, size_t size, size_t at)
{
    const size_t left = size - at;
    if (rc == -1) {
        FUZZ_CHECK(left < VK_NIO_MAIN_HEADER_LEN);
        return 0;
    }
    FUZZ_CHECK(left >= VK_NIO_MAIN_HEADER_LEN);
    const uint8_t *p = data + at;
    const bool magic = p[0] == 0xF9 && p[1] == 0xF2 && p[2] == 0xF8;
    FUZZ_CHECK((rc == -2) == !magic);
    if (rc == -2)
        return 0;
    FUZZ_CHECK((rc == -3) == !(p[3] == 0 || p[3] == 2));
    if (rc == -3)
        return 0;
    const int32_t length = length_at(p);
    FUZZ_CHECK((rc == -4) == (length < 11 || length > VK_NIO_PACKET_CAPACITY));
    if (rc == -4)
        return 0;
    const bool complete = left - VK_NIO_MAIN_HEADER_LEN >= static_cast<size_t>(length);
    FUZZ_CHECK((rc == -5) == !complete);
    if (rc == -5)
        return 0;
    FUZZ_CHECK((rc == -6) == !type_ok(p[4]));
    FUZZ_CHECK(rc == -6 || rc == length);
    const size_t consumed = VK_NIO_MAIN_HEADER_LEN + static_cast<size_t>(length);
    if (rc > 0)
        FUZZ_CHECK(std::memcmp(buffer, p, consumed) == 0);
    return consumed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > k_max_input)
        return 0;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return 0;
    std::thread writer(feed, fds[1], data, size);
    // Exactly header + capacity bytes, so ASan sees any write past the documented size.
    std::unique_ptr<char[]> buffer(new char[VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY]);
    size_t at = 0;
    for (;;) {
        const int rc = get_nio_packet(fds[0], buffer.get(), VK_NIO_PACKET_CAPACITY);
        FUZZ_CHECK(rc >= -6 && rc != 0 && rc <= VK_NIO_PACKET_CAPACITY);
        const size_t consumed = check_result(rc, buffer.get(), data, size, at);
        if (consumed == 0)
            break;
        at += consumed;
    }
    close(fds[0]); // unblocks the writer if the reader stopped early
    writer.join();
    close(fds[1]);
    return 0;
}
