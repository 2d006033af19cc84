// Tests of quil-dg-sim through harness/dg_sim_support.h: a plain TCP client with its own small
// framer and libprotobuf bodies plays the agent, so every exchange also checks the simulator's
// framing independently of the agent's codec.
#ifdef QUIL_DG_SIM_BIN

#include "dg_sim_support.h"
#include "daemon_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "dg_protocol.pb.h"

namespace
{

using dg_sim_support::dg_sim;
using dg_sim_support::sim_event;

uint64_t now_ms()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

uint32_t be32(const std::string &s, size_t at)
{
    uint32_t v = 0;
    for (size_t i = 0; i < 4; i++)
        v = v << 8 | static_cast<unsigned char>(s[at + i]);
    return v;
}

// 12-byte main header (magic, version 2, packet_type 4, length) + 11-byte sub header.
std::string frame(uint16_t type, const std::string &body, uint8_t kind = 1)
{
    std::string out = "\xF9\xF2\xF8\x02\x04";
    out.append(3, '\0');
    auto put = [&](uint64_t v, int width) {
        for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
            out.push_back(static_cast<char>(v >> shift & 0xff));
    };
    put(11 + body.size(), 4);
    put(type, 2);
    put(0, 4);
    out.push_back(static_cast<char>(kind));
    put(19121701, 4);
    return out + body;
}

struct packet {
    uint16_t type = 0;
    std::string header, body;
};

// The agent's side of the connection: a blocking socket with a 20 s receive limit; a fixed
// receive buffer (rcvbuf > 0) turns off its growth, so a client that does not read stalls the
// sender early.
struct client {
    int fd = -1;
    explicit client(int port, int rcvbuf = 0)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval limit{20, 0};
        if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
            (rcvbuf > 0 && setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) != 0) ||
            connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            if (fd >= 0)
                close(fd);
            fd = -1;
        }
    }
    ~client()
    {
        if (fd >= 0)
            close(fd);
    }
    bool send_raw(const std::string &bytes) const
    {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool send(uint16_t type, const std::string &body, uint8_t kind = 1) const { return send_raw(frame(type, body, kind)); }
    bool read_exact(std::string *out, size_t n) const
    {
        out->assign(n, '\0');
        for (size_t got = 0; got < n;) {
            ssize_t r = recv(fd, out->data() + got, n - got, 0);
            if (r <= 0)
                return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }
    // The next packet, or nullopt on a closed socket or after 20 s.
    std::optional<packet> read() const
    {
        packet p;
        if (!read_exact(&p.header, 23) || !read_exact(&p.body, be32(p.header, 8) - 11))
            return std::nullopt;
        p.type = static_cast<uint16_t>(static_cast<unsigned char>(p.header[12]) << 8 |
                                       static_cast<unsigned char>(p.header[13]));
        return p;
    }
};

std::string agent_info(const std::string &host)
{
    dg::common_req_agent_info_message m;
    m.set_host_name(host);
    m.set_protocol_version(20241111);
    return m.SerializeAsString();
}

TEST(DgSim, HandshakeAnswerFollowsTheMode)
{
    struct row {
        std::vector<std::string> options;
        uint16_t reply_type;
        const char *manager_id;
    } rows[] = {
        {{"--manager-id", "mgr-0001"}, 50036, "mgr-0001"},
        {{"--manager-id", "mgr-0001", "--refuse"}, 50036, ""},
        {{"--handshake", "ping"}, 50000, nullptr},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.options.back());
        dg_sim sim(r.options);
        ASSERT_TRUE(sim.started());
        client agent(sim.port());
        ASSERT_GE(agent.fd, 0);
        ASSERT_TRUE(agent.send(10043, agent_info("host-a"), 2));
        auto reply = agent.read();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->type, r.reply_type);
        EXPECT_EQ(reply->header.substr(0, 5), std::string("\xF9\xF2\xF8\x02\x04"));
        EXPECT_EQ(be32(reply->header, 19), 19121701u);
        if (r.manager_id != nullptr) {
            dg::common_res_agent_info_message m;
            ASSERT_TRUE(m.ParseFromString(reply->body));
            EXPECT_EQ(m.manager_id(), r.manager_id);
            EXPECT_EQ(m.protocol_version(), 20241111u);
            EXPECT_EQ(reply->header[18], 2);  // body_kind
        } else {
            EXPECT_TRUE(reply->body.empty());
        }
        auto recv = sim.wait_for(dg_sim_support::recv_of(10043));
        ASSERT_TRUE(recv);
        EXPECT_EQ(recv->str("body.host_name"), "host-a");
        EXPECT_EQ(recv->num("header.body_kind"), 2);
        EXPECT_EQ(sim.stop(), 0);
        EXPECT_EQ(sim.events().back().str("reason"), "quit");
    }
}

TEST(DgSim, TimeSyncRepliesApplyTheSkewsInTurn)
{
    dg_sim sim({"--skew", "100000,-5000"});
    ASSERT_TRUE(sim.started());
    client agent(sim.port());
    ASSERT_GE(agent.fd, 0);
    for (int64_t skew : {100000, -5000, 100000}) {
        SCOPED_TRACE(skew);
        size_t from = sim.mark();
        dg::req_time_sync request;
        request.set_server_time(now_ms());
        ASSERT_TRUE(agent.send(40006, request.SerializeAsString(), 2));
        auto reply = agent.read();
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->type, 50020);
        dg::res_time_sync_message m;
        ASSERT_TRUE(m.ParseFromString(reply->body));
        EXPECT_EQ(m.agent_time(), request.server_time());
        auto expected = static_cast<int64_t>(now_ms()) + skew;
        EXPECT_NEAR(static_cast<double>(static_cast<int64_t>(m.dg_time())), static_cast<double>(expected), 5000);
        auto sent = sim.wait_for(dg_sim_support::sent_of(50020), std::chrono::seconds(20), from);
        ASSERT_TRUE(sent);
        EXPECT_EQ(sent->num("diff"), static_cast<int64_t>(m.agent_time() - m.dg_time()));
        EXPECT_EQ(sent->num("body.dg_time"), static_cast<long long>(m.dg_time()));
    }
}

TEST(DgSim, CommandsReachThePeerAndResultsArePrinted)
{
    dg_sim sim;
    ASSERT_TRUE(sim.started());
    auto early = sim.command("ping");
    ASSERT_TRUE(early);
    EXPECT_EQ(early->str("error"), "not connected");
    client agent(sim.port());
    ASSERT_GE(agent.fd, 0);
    ASSERT_TRUE(sim.wait_for(dg_sim_support::event_named("connected")));

    for (auto [verb, type] : {std::pair{"ping", 50000}, {"timezone", 50001}}) {
        auto done = sim.command(verb);
        ASSERT_TRUE(done);
        EXPECT_TRUE(done->is("done")) << done->line();
        auto p = agent.read();
        ASSERT_TRUE(p);
        EXPECT_EQ(p->type, type);
        EXPECT_EQ(be32(p->header, 8), 11u);
    }

    auto done = sim.command("restart agent=A7 exec=E1 cmd=C1 timeout=9000 opt=b=2 opt=a=1 opt=b=3");
    ASSERT_TRUE(done && done->is("done")) << (done ? done->line() : "time-out");
    EXPECT_EQ(done->str("execution_id"), "E1");
    auto p = agent.read();
    ASSERT_TRUE(p);
    ASSERT_EQ(p->type, 60001);
    dg::req_command_message request;
    ASSERT_TRUE(request.ParseFromString(p->body));
    EXPECT_EQ(request.cmd_type(), dg::agent_restart);
    EXPECT_EQ(request.agent_id(), "A7");
    EXPECT_EQ(request.command_id(), "C1");
    EXPECT_EQ(request.timeout(), 9000u);
    EXPECT_FALSE(request.has_target_file_info());
    // libprotobuf keeps the last of a duplicated map key; the wire order shows in the sent line.
    EXPECT_EQ(request.target_agent_infos().at("b"), "3");
    auto sent = sim.wait_for(dg_sim_support::sent_of(60001));
    ASSERT_TRUE(sent);
    ASSERT_EQ(sent->size("body.target_agent_infos"), 3);
    EXPECT_EQ(sent->str("body.target_agent_infos.0.key") + sent->str("body.target_agent_infos.1.key") +
                  sent->str("body.target_agent_infos.2.value"),
              "ba3");

    dg::res_command_message result;
    result.set_manager_id("mgr-0001");
    result.set_phase_type(dg::done);
    result.set_execution_id("E1");
    result.set_result(dg::FAIL);
    result.set_result_message("[agent manager] \"quoted\"\nline");
    ASSERT_TRUE(agent.send(60002, result.SerializeAsString()));
    dg::target_agent_info_message list;
    list.add_target_agent_infos()->set_agent_id("A7");
    list.add_target_agent_infos()->set_agent_id("A8");
    ASSERT_TRUE(agent.send(60003, list.SerializeAsString()));
    auto got = sim.wait_for(dg_sim_support::recv_of(60002));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->str("body.execution_id"), "E1");
    EXPECT_EQ(got->num("body.phase_type"), 2);
    EXPECT_EQ(got->num("body.result"), 2);
    EXPECT_EQ(got->str("body.result_message"), result.result_message());
    auto agents = sim.wait_for(dg_sim_support::recv_of(60003));
    ASSERT_TRUE(agents);
    EXPECT_EQ(agents->size("body.target_agent_infos"), 2);
    EXPECT_EQ(agents->str("body.target_agent_infos.1.agent_id"), "A8");
}

TEST(DgSim, PatchStartStreamsTheFileInChunks)
{
    daemon_support::temp_dir dir("dg_sim_test");
    ASSERT_FALSE(dir.path.empty());
    daemon_support::write_file(dir.path + "/patch.sh", "abcdefgh");
    dg_sim sim;
    ASSERT_TRUE(sim.started());
    client agent(sim.port());
    ASSERT_GE(agent.fd, 0);
    ASSERT_TRUE(sim.wait_for(dg_sim_support::event_named("connected")));
    auto done = sim.command("patch_start agent=A1 exec=E9 chunk=3 timeout=500 opt=K=V file=" + dir.path + "/patch.sh");
    ASSERT_TRUE(done && done->is("done")) << (done ? done->line() : "time-out");
    EXPECT_EQ(done->num("chunks"), 3);
    EXPECT_EQ(done->num("bytes"), 8);

    auto p = agent.read();
    ASSERT_TRUE(p);
    ASSERT_EQ(p->type, 60001);
    dg::req_command_message request;
    ASSERT_TRUE(request.ParseFromString(p->body));
    EXPECT_EQ(request.cmd_type(), dg::patch_start);
    EXPECT_EQ(request.timeout(), 500u);
    EXPECT_EQ(request.target_agent_infos().at("K"), "V");
    EXPECT_EQ(request.target_file_info().file_name(), "patch.sh");
    EXPECT_EQ(request.target_file_info().file_size(), 8u);

    const char *pieces[] = {"abc", "def", "gh"};
    for (uint64_t index = 1; index <= 3; index++) {
        SCOPED_TRACE(index);
        auto chunk = agent.read();
        ASSERT_TRUE(chunk);
        ASSERT_EQ(chunk->type, 60004);
        dg::req_file_chunk_message m;
        ASSERT_TRUE(m.ParseFromString(chunk->body));
        EXPECT_EQ(m.execution_id(), "E9");
        EXPECT_EQ(m.agent_id(), "A1");
        EXPECT_EQ(m.chunk_index(), index);
        EXPECT_EQ(m.chunk_count(), 3u);
        EXPECT_EQ(m.chunk_data(), pieces[index - 1]);
        EXPECT_EQ(m.chunk_size(), m.chunk_data().size());
        EXPECT_EQ(m.target_file_info().file_size(), 8u);
    }
    auto missing = sim.command("patch_start file=" + dir.path + "/absent");
    ASSERT_TRUE(missing);
    EXPECT_TRUE(missing->is("error"));
}

// 32 MiB is far more than the stream window (4 MiB) plus both socket buffers (at most 4 MiB
// and 64 KiB), so the stream stalls until the client reads; meanwhile the simulator must
// still read and answer.
TEST(DgSim, StalledStreamLeavesTheReaderFree)
{
    daemon_support::temp_dir dir("dg_sim_test");
    ASSERT_FALSE(dir.path.empty());
    std::string data(32u << 20, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7 >> 9);
    daemon_support::write_file(dir.path + "/big", data);
    dg_sim sim;
    ASSERT_TRUE(sim.started());
    client agent(sim.port(), 65536);
    ASSERT_GE(agent.fd, 0);
    ASSERT_TRUE(sim.wait_for(dg_sim_support::event_named("connected")));
    ASSERT_TRUE(sim.send("patch_start chunk=65536 file=" + dir.path + "/big"));
    ASSERT_TRUE(sim.wait_for(dg_sim_support::sent_of(60004)));
    // Give the stream time to fill the buffers (a shorter wait weakens the check, it cannot
    // make a sound simulator fail).
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    // Two requests: the second is only read when answering the first did not block the reader
    // (the answers queue behind the chunks).
    dg::req_time_sync request;
    request.set_server_time(now_ms());
    ASSERT_TRUE(agent.send(40006, request.SerializeAsString(), 2));
    ASSERT_TRUE(sim.wait_for(dg_sim_support::recv_of(40006)));
    size_t after_first = sim.mark();
    ASSERT_TRUE(agent.send(40006, request.SerializeAsString(), 2));
    ASSERT_TRUE(sim.wait_for(dg_sim_support::recv_of(40006), std::chrono::seconds(20), after_first));
    ASSERT_FALSE(sim.wait_for(dg_sim_support::event_named("done"), std::chrono::milliseconds(0)));

    std::string received;
    uint64_t chunks = 0;
    int answers = 0;
    while (chunks < 512 || answers < 2) {
        auto p = agent.read();
        ASSERT_TRUE(p);
        dg::req_file_chunk_message m;
        if (p->type == 50020) {
            answers++;
        } else if (p->type == 60004 && m.ParseFromString(p->body)) {
            ASSERT_EQ(m.chunk_index(), ++chunks);
            received += m.chunk_data();
        }
    }
    EXPECT_TRUE(received == data);
    auto done = sim.wait_for(dg_sim_support::event_named("done"));
    ASSERT_TRUE(done);
    EXPECT_EQ(done->num("chunks"), 512);
}

TEST(DgSim, GarbageEndsTheConnectionAndTheNextOneIsServed)
{
    dg_sim sim;
    ASSERT_TRUE(sim.started());
    {
        client agent(sim.port());
        ASSERT_GE(agent.fd, 0);
        ASSERT_TRUE(agent.send_raw("this is no packet header at all"));
        auto error = sim.wait_for([](const sim_event &e) { return e.is("error") && e.has("conn"); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(daemon_support::contains(error->str("error"), "bad magic")) << error->line();
        auto gone = sim.wait_for(dg_sim_support::event_named("disconnected"));
        ASSERT_TRUE(gone);
        EXPECT_EQ(gone->num("conn"), 1);
        EXPECT_FALSE(agent.read());  // the simulator closed its side
    }
    client again(sim.port());
    ASSERT_GE(again.fd, 0);
    ASSERT_TRUE(again.send(10043, agent_info("host-b"), 2));
    auto reply = again.read();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type, 50036);
    auto recv = sim.wait_for(dg_sim_support::recv_of(10043));
    ASSERT_TRUE(recv);
    EXPECT_EQ(recv->num("conn"), 2);
}

} // namespace

#endif // QUIL_DG_SIM_BIN
