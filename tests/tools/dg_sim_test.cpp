// Tests of quil-dg-sim for what the scenario tests (which drive it against the real agent) do
// not show, through a plain TCP client with its own small framer and libprotobuf bodies: the
// handshake modes, the commands no scenario uses, a stalled stream, --help and option errors.
// (The time-sync skews are checked by the handshake scenario's trimmed mean.)
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
    ~client() { close(fd); }
    bool send_raw(const std::string &bytes) const
    {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool send(uint16_t type, const std::string &body, uint8_t kind = 1) const { return send_raw(frame(type, body, kind)); }
    bool read_exact(std::string *out, size_t n) const
    {
        out->assign(n, '\0');
        return n == 0 || recv(fd, out->data(), n, MSG_WAITALL) == static_cast<ssize_t>(n);
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

// The handshake answer of each mode.
TEST(DgSim, OwnFramingAndHandshakeModes)
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
        dg::common_req_agent_info_message hello;
        hello.set_host_name("host-a");
        ASSERT_TRUE(agent.send(10043, hello.SerializeAsString(), 2));
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
            EXPECT_EQ(reply->header[18], 2); // body_kind
        } else {
            EXPECT_TRUE(reply->body.empty());
        }
    }
}

// identity, command with any cmd_type and options in wire order, refusals (no connection, a
// missing file), and a peer that sends garbage: its connection ends, the next one is served.
TEST(DgSim, CommandsTheScenariosDoNotUse)
{
    dg_sim sim({"--manager-id", "mgr-0001"});
    ASSERT_TRUE(sim.started());
    auto early = sim.command("ping");
    ASSERT_TRUE(early);
    EXPECT_EQ(early->str("error"), "not connected");
    {
        client garbage(sim.port());
        ASSERT_TRUE(garbage.send_raw("this is no packet header at all"));
        auto error = sim.wait_for([](const sim_event &e) { return e.is("error") && e.has("conn"); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(daemon_support::contains(error->str("error"), "bad magic")) << error->line();
        EXPECT_FALSE(garbage.read()); // the simulator closed its side
    }
    client agent(sim.port());
    ASSERT_GE(agent.fd, 0);
    ASSERT_TRUE(sim.wait_for([](const sim_event &e) { return e.is("connected") && e.num("conn") == 2; }));

    auto done = sim.command("identity id=other-id");
    ASSERT_TRUE(done && done->is("done"));
    auto p = agent.read();
    ASSERT_TRUE(p && p->type == 50036);
    dg::common_res_agent_info_message identity;
    ASSERT_TRUE(identity.ParseFromString(p->body));
    EXPECT_EQ(identity.manager_id(), "other-id");

    done = sim.command("command cmd_type=7 agent=A7 exec=E1 cmd=C1 timeout=9000 opt=b=2 opt=a=1 opt=b=3");
    ASSERT_TRUE(done && done->is("done")) << (done ? done->line() : "time-out");
    EXPECT_EQ(done->str("execution_id"), "E1");
    p = agent.read();
    ASSERT_TRUE(p && p->type == 60001);
    dg::req_command_message request;
    ASSERT_TRUE(request.ParseFromString(p->body));
    EXPECT_EQ(static_cast<int>(request.cmd_type()), 7);
    EXPECT_EQ(request.agent_id() + request.command_id(), "A7C1");
    EXPECT_EQ(request.timeout(), 9000u);
    // libprotobuf keeps the last of a duplicated map key; the wire order shows in the sent line.
    EXPECT_EQ(request.target_agent_infos().at("b"), "3");
    auto sent = sim.wait_for(dg_sim_support::sent_of(60001));
    ASSERT_TRUE(sent);
    ASSERT_EQ(sent->size("body.target_agent_infos"), 3);
    EXPECT_EQ(sent->str("body.target_agent_infos.0.key") + sent->str("body.target_agent_infos.1.key") +
                  sent->str("body.target_agent_infos.2.value"),
              "ba3");
    auto missing = sim.command("patch_start file=/nonexistent/patch.sh");
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
    // make a sound simulator fail). The second request is only read when answering the first
    // did not block the reader (the answers queue behind the chunks).
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    dg::req_time_sync request;
    request.set_server_time(1739869550123);
    for (int i = 0; i < 2; i++) {
        size_t from = sim.mark();
        ASSERT_TRUE(agent.send(40006, request.SerializeAsString(), 2));
        ASSERT_TRUE(sim.wait_for(dg_sim_support::recv_of(40006), std::chrono::seconds(20), from));
    }
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
}

// --help prints the usage and exits 0; a bad option names itself and exits 2 before listening.
TEST(DgSim, HelpAndOptionErrors)
{
    daemon_support::temp_dir dir("dg_sim_test");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--help"}, ""},
        {{"--listen", "127.0.0.1"}, "bad --listen 127.0.0.1 (HOST:PORT expected)"},
        {{"--manager-id"}, "unknown or incomplete option --manager-id"},
    };
    for (const auto &[args, error] : cases) {
        std::vector<std::string> argv = {QUIL_DG_SIM_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        pid_t pid = daemon_support::spawn(argv, {}, dir.path + "/out", dir.path + "/err");
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WEXITSTATUS(status), error.empty() ? 0 : 2) << error;
        EXPECT_EQ(daemon_support::read_file(dir.path + "/err"), error.empty() ? "" : "quil-dg-sim: " + error + "; see --help\n");
        EXPECT_EQ(daemon_support::read_file(dir.path + "/out").starts_with("Usage: quil-dg-sim [OPTIONS]"), error.empty());
    }
}

} // namespace

#endif // QUIL_DG_SIM_BIN
