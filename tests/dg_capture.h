// A fake DG connection for the unit tests: the agent's end of a socketpair is the connected DG
// socket; what arrives at the other end is unframed by dg_wire and decoded with libprotobuf.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dg_protocol.pb.h"
#include "dg_wire.h"
#include "thr_dgconn.h"

namespace dg_capture
{

struct packet_t {
    std::vector<uint8_t> header; // 23 bytes
    std::string body;
    int type() const { return dg_wire::parse_header(header.data()).type; }
    template <typename M> M decode() const
    {
        M message;
        EXPECT_TRUE(message.ParseFromString(body)) << "type " << type();
        return message;
    }
};

// A published fake connection; tears the connection state down again on the way out.
struct fake_dg {
    int agent = -1, dg = -1;

    fake_dg()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            return;
        agent = fds[0];
        dg = fds[1];
        fcntl(dg, F_SETFL, O_NONBLOCK);
        EXPECT_EQ(create_send_queue(), 0);
        publish();
    }
    // Marks the agent's end as the connected DG socket again; a fixture member calls this
    // after the home fixture's start-up reset, which clears the connection flags.
    void publish()
    {
        g_dg_sock.store(agent);
        g_dg_is_connection.store(1);
    }
    ~fake_dg()
    {
        g_dg_is_connection.store(0);
        g_dg_sock.store(0);
        clear_send_queue();
        if (agent >= 0)
            close(agent);
        if (dg >= 0)
            close(dg);
    }
    fake_dg(const fake_dg &) = delete;
    fake_dg &operator=(const fake_dg &) = delete;

    // Writes the queued packets (send_buffer) and returns every packet that reached the DG
    // end since the last call, in order.
    std::vector<packet_t> drain()
    {
        if (g_dg_is_connection.load() > 0)
            send_buffer(agent);
        std::string bytes;
        char buf[65536];
        for (ssize_t n; (n = read(dg, buf, sizeof(buf))) > 0;)
            bytes.append(buf, static_cast<size_t>(n));
        std::vector<packet_t> packets;
        std::string_view rest(bytes);
        dg_wire::packet_header h{};
        std::string_view body;
        for (long n; (n = dg_wire::unframe(rest, &h, &body)) > 0; rest.remove_prefix(static_cast<size_t>(n)))
            packets.push_back({{rest.begin(), rest.begin() + dg_wire::k_header_size}, std::string(body)});
        EXPECT_TRUE(rest.empty()) << "a packet arrived cut or out of step";
        return packets;
    }

    // The command results among the packets drained now.
    std::vector<dg::res_command_message> results()
    {
        std::vector<dg::res_command_message> out;
        for (const packet_t &p : drain())
            if (p.type() == 60002)
                out.push_back(p.decode<dg::res_command_message>());
        return out;
    }
};

// A packet of type `type` around body, as the DG frames it.
inline std::string dg_packet(int type, const std::string &body)
{
    return dg_wire::frame_packet(static_cast<uint16_t>(type), 1, body);
}

} // namespace dg_capture
