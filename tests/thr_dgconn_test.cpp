// The send queue and the connection's write bound.
#include "thr_dgconn.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <chrono>
#include <thread>

#include "agent_home.h"
#include "dg_capture.h"

namespace
{

using dg_capture::fake_dg;

// A packet of `size` bytes whose first byte tells it apart.
char *packet_of(char tag, size_t size = 32)
{
    char *p = static_cast<char *>(malloc(size));
    memset(p, tag, size);
    return p;
}

class SendQueue : public agent_home::AgentHomeTest
{
};

TEST_F(SendQueue, AcceptsOnlyWhileConnectedAndDropsBeyondTheBound)
{
    fake_dg dg;
    g_dg_is_connection.store(0);
    add_to_send_buffer(1, packet_of('a'), 32); // freed at once (ASan would see a leak)
    EXPECT_EQ(get_send_queue_count(), 0u);
    g_dg_is_connection.store(1);
    add_to_send_buffer(1, nullptr, 0);
    EXPECT_EQ(get_send_queue_count(), 0u);

    uint32_t dropped = g_info_log.load();
    for (uint32_t i = 0; i < SEND_QUEUE_MAX + 1; i++)
        add_to_send_buffer(7, packet_of('q', 23), 23);
    EXPECT_EQ(get_send_queue_count(), SEND_QUEUE_MAX);
    EXPECT_EQ(g_info_log.load(), dropped + 1) << "the 2001st packet is counted as dropped";

    // A type-0 entry is never written; the rest go out whole and in order.
    clear_send_queue();
    add_to_send_buffer(0, packet_of('z'), 32);
    add_to_send_buffer(5, packet_of('b', 40), 40);
    EXPECT_EQ(send_buffer(dg.agent), 1);
    char buf[128];
    EXPECT_EQ(read(dg.dg, buf, sizeof(buf)), 40);
    EXPECT_EQ(std::string(buf, 40), std::string(40, 'b'));
    EXPECT_EQ(get_send_queue_count(), 0u);
}

TEST_F(SendQueue, FailedWriteEndsItsBatchAndLogsEachErrnoOnce)
{
    fake_dg dg;
    char buf[64];
    add_to_send_buffer(1, packet_of('a'), 32);
    add_to_send_buffer(1, packet_of('b'), 32);
    EXPECT_EQ(send_buffer(dg.agent), 2);
    EXPECT_EQ(read(dg.dg, buf, sizeof(buf)), 64);

    shutdown(dg.agent, SHUT_WR); // every write now fails with EPIPE
    for (int round = 0; round < 2; round++) {
        add_to_send_buffer(1, packet_of('c'), 32);
        add_to_send_buffer(1, packet_of('d'), 32);
        EXPECT_EQ(send_buffer(dg.agent), -1);
        EXPECT_EQ(get_send_queue_count(), 0u) << "the rest of the batch is discarded";
    }
    EXPECT_EQ(log_count("[send_buffer] send error: "), 2u);
    EXPECT_EQ(log_count("[KTR-OSM-00080050] Packet send failed. (" + std::to_string(EPIPE) + ")"), 1u);

    // A success re-arms the error line: the next failure logs it again.
    fake_dg fresh;
    add_to_send_buffer(1, packet_of('e'), 32);
    EXPECT_EQ(send_buffer(fresh.agent), 1);
    shutdown(fresh.agent, SHUT_WR);
    add_to_send_buffer(1, packet_of('f'), 32);
    EXPECT_EQ(send_buffer(fresh.agent), -1);
    EXPECT_EQ(log_count("[KTR-OSM-00080050] Packet send failed. (" + std::to_string(EPIPE) + ")"), 2u);

    // A batch taken before the connection went down is not written to the old socket; while
    // the agent stops that is no send failure, only a note of what was dropped.
    const std::string not_connected = "[KTR-OSM-00080050] Packet send failed. (" + std::to_string(ENOTCONN) + ")";
    g_dg_sock.store(dg.agent + 1000);
    for (int stopping : {1, 0}) {
        g_stop_the_world.store(stopping);
        add_to_send_buffer(1, packet_of('g'), 32);
        add_to_send_buffer(1, packet_of('h'), 32);
        EXPECT_EQ(send_buffer(fresh.agent), -1);
        EXPECT_EQ(log_count(not_connected), stopping != 0 ? 0u : 1u);
    }
    EXPECT_EQ(log_count("[send_buffer] agent stopping; 1 more queued packet(s) not sent."), 1u);
}

// The 30 s bound of Write covers the whole packet: a DG that reads a little now and then
// does not stretch it. A late packet that is partly out cuts the stream; one that could not
// start leaves the connection usable.
TEST(DGConnection, WriteBoundsTheWholePacket)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    std::thread drip([peer = fds[1]] {
        char buf[65536];
        while (read(peer, buf, sizeof(buf)) > 0)
            usleep(50000);
    });
    std::vector<char> packet(16 << 20, 'x');
    auto start = std::chrono::steady_clock::now();
    ssize_t n = write_within(fds[0], packet.data(), packet.size(), 0, 300);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(n, 0);
    EXPECT_LT(n, static_cast<ssize_t>(packet.size()));
    EXPECT_LT(took, std::chrono::seconds(3)) << "one deadline, not one per send";
    EXPECT_EQ(send(fds[0], "x", 1, MSG_NOSIGNAL), -1) << "the cut stream is shut down";
    drip.join();
    close(fds[0]);
    close(fds[1]);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    while (send(fds[0], packet.data(), 65536, MSG_DONTWAIT) > 0) {
    } // nothing more fits
    errno = 0;
    EXPECT_EQ(write_within(fds[0], "abc", 3, 0, 100), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    char buf[65536];
    while (recv(fds[1], buf, sizeof(buf), MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(Write(fds[0], "abc", 3, 0), 3) << "not cut: the connection stays usable";
    close(fds[0]);
    close(fds[1]);
}

} // namespace
