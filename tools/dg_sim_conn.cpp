// quil-dg-sim connections: the listener, the accept loop, and per connection a reader thread
// (prints every packet, answers the handshake and time sync) and a writer thread (the only
// writer of the socket, so a peer that stops reading never stalls the reader). The command
// loop hands its packets to the writer through conn_enqueue.
#include "dg_sim.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dg_protocol.pb.h"

namespace dg_sim
{

sim_config g_config;
std::atomic<bool> g_stop{false};

namespace
{

std::mutex s_current_lock;
std::shared_ptr<connection> s_current;  // guarded by s_current_lock
std::atomic<uint64_t> s_skew_turn{0};   // time-sync replies so far, across all connections

constexpr auto k_slice = std::chrono::milliseconds(50);

uint64_t realtime_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

void emit_conn_error(const connection &c, const std::string &error)
{
    emit(json_object().str("event", "error").num("conn", c.id).str("error", error).end());
}

void print_recv(const connection &c, const packet_header &h, const std::string &body)
{
    const msg_info *info = find_msg_info(h.type);
    json_object o;
    o.str("event", "recv").num("conn", c.id).num("type", h.type).str("name", info != nullptr ? info->name : "unknown");
    o.raw("header", json_object()
                        .num("version", h.version)
                        .num("packet_type", h.packet_type)
                        .unum("length", h.length)
                        .unum("packet_id", h.packet_id)
                        .num("body_kind", h.body_kind)
                        .unum("protocol_stamp", h.protocol_stamp)
                        .end());
    std::string text;
    json_notes notes;
    int rc = body_json(h.type, body, &text, &notes);
    if (rc == 0) {
        o.raw("body", text);
        if (notes.unknown_fields > 0)
            o.unum("unknown_fields", notes.unknown_fields);
        if (notes.invalid_utf8)
            o.boolean("invalid_utf8", true);
    } else {
        constexpr size_t cap = 4096;
        if (rc == -1)
            o.str("error", "decode failed");
        o.str("hex", to_hex(body, cap));
        if (body.size() > cap)
            o.boolean("hex_truncated", true);
    }
    emit(o.end());
}

void answer_handshake(connection &c)
{
    switch (g_config.handshake) {
    case handshake_mode::reply:
    case handshake_mode::refuse: {
        std::string body = build_identity(g_config.handshake == handshake_mode::reply ? g_config.manager_id : "");
        conn_enqueue(c, frame_packet(50036, 2, body), sent_line(c.id, 50036, body));
        break;
    }
    case handshake_mode::ping:
        conn_enqueue(c, frame_packet(50000, 4, ""), sent_line(c.id, 50000, ""));
        break;
    case handshake_mode::silent:
        break;
    }
}

void answer_timesync(connection &c, const std::string &body)
{
    dg::req_time_sync request;
    if (!request.ParseFromString(body))
        return;
    const std::vector<int64_t> &skews = g_config.skews;
    int64_t skew = skews.empty() ? 0 : skews[s_skew_turn.fetch_add(1) % skews.size()];
    dg::res_time_sync_message reply;
    reply.set_agent_time(request.server_time());
    reply.set_dg_time(realtime_ms() + static_cast<uint64_t>(skew));
    int64_t diff = static_cast<int64_t>(reply.agent_time() - reply.dg_time());
    std::string out = reply.SerializeAsString();
    conn_enqueue(c, frame_packet(50020, 2, out), sent_line(c.id, 50020, out, ",\"diff\":" + std::to_string(diff)));
}

void handle_packet(connection &c, const packet_header &h, const std::string &body)
{
    print_recv(c, h, body);
    if (h.type == 10043 && decode_lenient("dg.common_req_agent_info_message", body) != nullptr)
        answer_handshake(c);
    else if (h.type == 40006 && g_config.timesync)
        answer_timesync(c, body);
}

void writer_main(std::shared_ptr<connection> c)
{
    std::unique_lock<std::mutex> lk(c->lock);
    for (;;) {
        c->cv.wait(lk, [&] { return c->closing.load() || !c->queue.empty(); });
        if (c->closing)
            return;
        connection::item it = std::move(c->queue.front());
        c->queue.pop_front();
        c->queued_bytes -= it.packet.size();
        lk.unlock();
        c->cv.notify_all();  // a producer may wait for room
        if (!it.sent_line.empty())
            emit(it.sent_line);
        int err = write_all(c->fd, it.packet);
        lk.lock();
        if (err != 0) {
            c->write_error = std::string("write failed: ") + strerror(err);
            std::string error = c->write_error;
            lk.unlock();
            c->cv.notify_all();
            if (!c->closing)  // our own shutdown is not the peer's fault
                emit_conn_error(*c, error);
            conn_close(*c, error);
            return;
        }
        c->written_seq = it.seq;
        c->cv.notify_all();
    }
}

void reader_main(std::shared_ptr<connection> c)
{
    std::thread writer(writer_main, c);
    std::string reason = "closed";
    while (!c->closing) {
        if (c->paused) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        pollfd p{c->fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(k_slice.count())) <= 0)
            continue;
        packet_header h{};
        std::string body, error;
        int rc = read_packet(c->fd, &h, &body, &error);
        if (rc == 0) {
            reason = "peer closed";
            break;
        }
        if (rc < 0) {
            if (!c->closing)
                emit_conn_error(*c, error);
            reason = error;
            break;
        }
        handle_packet(*c, h, body);
    }
    conn_close(*c, reason);
    writer.join();
    {
        std::lock_guard<std::mutex> guard(s_current_lock);
        if (s_current == c)
            s_current.reset();
    }
    std::string why;
    {
        std::lock_guard<std::mutex> guard(c->lock);
        why = c->close_reason;
    }
    emit(json_object().str("event", "disconnected").num("conn", c->id).str("reason", why).end());
    {
        std::lock_guard<std::mutex> guard(c->lock);
        c->finished = true;
    }
    c->cv.notify_all();
}

// The TLS handshake on an accepted socket; the connection then reads and writes plaintext on
// a socketpair while the front carries it over TLS. Returns that descriptor with *tls naming
// the protocol and suite, or -1 after printing a "tls_failed" event (fd closed).
int tls_accept(int fd, const std::string &peer, std::string *tls)
{
    std::string error;
    std::unique_ptr<tls_stream> stream = g_config.tls_ctx->accept(fd, std::chrono::seconds(10), &error);
    if (!stream) {
        emit(json_object().str("event", "tls_failed").str("peer", peer).str("error", error).end());
        close(fd);
        return -1;
    }
    *tls = stream->describe();
    return tls_front(std::move(stream), fd);
}

} // namespace

connection::~connection()
{
    close(fd);
}

std::shared_ptr<connection> current_connection()
{
    std::lock_guard<std::mutex> guard(s_current_lock);
    return s_current;
}

uint64_t conn_enqueue(connection &c, std::string packet, std::string line, size_t room_limit)
{
    std::unique_lock<std::mutex> lk(c.lock);
    while (room_limit != 0 && c.queued_bytes > room_limit && !c.closing && !g_stop)
        c.cv.wait_for(lk, k_slice);
    if (c.closing || g_stop)
        return 0;
    uint64_t seq = ++c.next_seq;
    c.queued_bytes += packet.size();
    c.queue.push_back({std::move(packet), std::move(line), seq});
    lk.unlock();
    c.cv.notify_all();
    return seq;
}

int conn_wait_written(connection &c, uint64_t seq, std::string *error)
{
    std::unique_lock<std::mutex> lk(c.lock);
    while (c.written_seq < seq && c.write_error.empty() && !c.closing && !g_stop)
        c.cv.wait_for(lk, k_slice);
    if (c.written_seq >= seq)
        return 0;
    *error = !c.write_error.empty() ? c.write_error : g_stop ? "stopped" : "connection closed";
    return -1;
}

void conn_close(connection &c, const std::string &reason)
{
    {
        std::lock_guard<std::mutex> guard(c.lock);
        if (c.close_reason.empty())
            c.close_reason = reason;
        c.closing = true;
    }
    c.cv.notify_all();
    shutdown(c.fd, SHUT_RDWR);
}

void conn_wait_finished(connection &c)
{
    std::unique_lock<std::mutex> lk(c.lock);
    c.cv.wait(lk, [&] { return c.finished; });
}

int listen_on(const std::string &host, uint16_t port, std::string *error)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo *found = nullptr;
    int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (rc != 0 || found == nullptr) {
        *error = "cannot resolve " + host + ": " + gai_strerror(rc);
        return -1;
    }
    sockaddr_in address{};
    memcpy(&address, found->ai_addr, sizeof address);
    freeaddrinfo(found);
    address.sin_port = htons(port);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(fd, 16) != 0) {
        *error = std::string("cannot listen on ") + host + ":" + std::to_string(port) + ": " + strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

void acceptor_main(int listen_fd)
{
    std::shared_ptr<connection> current;
    std::thread reader;
    int next_id = 0;
    while (!g_stop) {
        pollfd p{listen_fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(k_slice.count())) <= 0)
            continue;
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        int fd = accept4(listen_fd, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        char ip[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
        std::string peer_text = std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port)), tls;
        if (g_config.tls_ctx && (fd = tls_accept(fd, peer_text, &tls)) < 0)
            continue;
        auto c = std::make_shared<connection>(fd, ++next_id, peer_text);
        if (current)
            conn_close(*current, "replaced by conn " + std::to_string(c->id));
        if (reader.joinable())
            reader.join();
        {
            std::lock_guard<std::mutex> guard(s_current_lock);
            s_current = c;
        }
        // Printed once commands can use the connection: a driver may act on this line at once.
        json_object connected;
        connected.str("event", "connected").num("conn", c->id).str("peer", c->peer);
        if (!tls.empty())
            connected.str("tls", tls);
        emit(connected.end());
        current = c;
        reader = std::thread(reader_main, c);
    }
    if (current)
        conn_close(*current, "shutdown");
    if (reader.joinable())
        reader.join();
}

std::string build_identity(const std::string &manager_id)
{
    dg::common_res_agent_info_message m;
    m.set_manager_id(manager_id);
    m.set_protocol_version(k_protocol_version);
    m.set_dg_protocol_version(k_protocol_version);
    return m.SerializeAsString();
}

std::string sent_line(int conn, uint16_t type, std::string_view body, const std::string &extra)
{
    const msg_info *info = find_msg_info(type);
    json_object o;
    o.str("event", "sent").num("conn", conn).num("type", type).str("name", info != nullptr ? info->name : "unknown");
    o.unum("length", k_header_size + body.size());
    std::string text;
    json_notes notes;
    if (body_json(type, body, &text, &notes) == 0)
        o.raw("body", text);
    else
        o.str("hex", to_hex(body, 4096));
    std::string line = o.end();
    line.insert(line.size() - 1, extra);
    return line;
}

} // namespace dg_sim
