// dg_bench's wire side: the minimal peer (dg_bench --peer) and the minimal DG sender. Both use
// libprotobuf for the message bodies, dg_wire for the framing and plain blocking sockets, and
// do nothing the exchange does not need, so they mark what the loopback, the file system and
// the encoding alone cost.
#include "dg_bench.h"

#include "dg_protocol.pb.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace dg_bench
{

using namespace dg_wire;

namespace
{

const char k_manager_id[] = "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47";

void put_varint(std::string *out, uint64_t value)
{
    while (value >= 0x80) {
        out->push_back(static_cast<char>(value | 0x80));
        value >>= 7;
    }
    out->push_back(static_cast<char>(value));
}

uint64_t realtime_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Writes the iovecs completely, resuming after short writes.
bool writev_all(int fd, iovec *iov, int count)
{
    while (count > 0) {
        ssize_t n = writev(fd, iov, count);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        size_t left = static_cast<size_t>(n);
        for (; count > 0 && left >= iov->iov_len; iov++, count--)
            left -= iov->iov_len;
        if (count > 0) {
            iov->iov_base = static_cast<char *>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    return true;
}

} // namespace

// ---- the minimal peer -------------------------------------------------------------------------

int run_peer(int port, const std::string &dir)
{
    fd_guard sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sock.fd < 0 || connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        perror("dg_bench --peer: connect");
        return 1;
    }
    const std::string pong = frame_header(40000, 4, 0);
    dg::req_command_message request;
    dg::req_file_chunk_message chunk;
    dg::res_command_message result;
    std::string body, path, error;
    fd_guard file;
    for (packet_header h{}; read_packet(sock.fd, &h, &body, &error) == 1;) {
        const uint16_t type = h.type;
        if (type == 50000) {
            if (write_all(sock.fd, pong) != 0)
                return 1;
        } else if (type == 60001 && request.ParseFromString(body) && request.cmd_type() == dg::patch_start) {
            path = dir + "/" + request.target_file_info().file_name();
            file.reset(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
        } else if (type == 60004 && chunk.ParseFromString(body) && file.fd >= 0) {
            if (write_all(file.fd, chunk.chunk_data()) != 0)
                return 1;
            if (chunk.chunk_index() != chunk.chunk_count())
                continue;
            file.reset();
            result.set_manager_id(k_manager_id);
            result.set_phase_type(dg::in_progress);
            result.set_execution_id(chunk.execution_id());
            result.set_command_id(request.command_id());
            result.set_cmd_type(dg::patch_start);
            result.set_agent_id(chunk.agent_id());
            result.set_result(dg::SUCCESS);
            result.set_result_message("[minimal peer] file(" + path + ") write success");
            std::string out = result.SerializeAsString();
            if (write_all(sock.fd, frame_packet(60002, 1, out)) != 0)
                return 1;
        }
    }
    return 0;
}

// ---- the minimal DG sender --------------------------------------------------------------------

dg_feeder::dg_feeder(dg_wire::tls_server *tls) : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_tls(tls)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (m_listener.fd >= 0 && bind(m_listener.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        listen(m_listener.fd, 1) == 0 &&
        getsockname(m_listener.fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
        m_port = ntohs(addr.sin_port);
}

dg_feeder::~dg_feeder()
{
    drop();
}

void dg_feeder::drop()
{
    if (m_conn.fd >= 0)
        shutdown(m_conn.fd, SHUT_RDWR); // ends the reader's read
    if (m_reader.joinable())
        m_reader.join();
    m_stream.reset();
    m_conn.reset();
    std::lock_guard<std::mutex> guard(m_lock);
    m_handshake = m_ended = false;
}

double dg_feeder::identity_seconds()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_identity_seconds;
}

bool dg_feeder::write_bytes(std::string_view bytes)
{
    return (m_stream ? m_stream->write_all(bytes) : write_all(m_conn.fd, bytes)) == 0;
}

bool dg_feeder::accept_one(std::chrono::milliseconds timeout)
{
    pollfd p{m_listener.fd, POLLIN, 0};
    if (m_port == 0 || poll(&p, 1, static_cast<int>(timeout.count())) != 1)
        return false;
    m_conn.reset(accept4(m_listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
    if (m_conn.fd < 0)
        return false;
    m_accepted = std::chrono::steady_clock::now();
    if (m_tls != nullptr) {
        std::string error;
        m_stream = m_tls->accept(m_conn.fd, timeout, &error);
        if (!m_stream) {
            fprintf(stderr, "dg_bench: TLS handshake: %s\n", error.c_str());
            return false;
        }
        m_tls_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_accepted).count();
    }
    m_reader = std::thread(&dg_feeder::reader, this);
    return true;
}

bool dg_feeder::send_frame(uint16_t type, uint8_t body_kind, const std::string &body)
{
    std::string packet = frame_packet(type, body_kind, body);
    std::lock_guard<std::mutex> guard(m_write_lock);
    return write_bytes(packet);
}

void dg_feeder::reader()
{
    std::string body, error;
    dg::req_time_sync sync;
    dg::res_command_message result;
    auto read_full = [this](void *buffer, size_t n) {
        return m_stream ? m_stream->read_full(buffer, n) : dg_wire::read_full(m_conn.fd, buffer, n);
    };
    for (packet_header h{}; read_packet(read_full, &h, &body, &error) == 1;) {
        const uint16_t type = h.type;
        if (type == 10043) {
            {
                std::lock_guard<std::mutex> guard(m_lock);
                m_identity_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_accepted).count();
            }
            dg::common_res_agent_info_message reply;
            reply.set_manager_id(k_manager_id);
            reply.set_protocol_version(k_protocol_version);
            reply.set_dg_protocol_version(k_protocol_version);
            send_frame(50036, 2, reply.SerializeAsString());
            std::lock_guard<std::mutex> guard(m_lock);
            m_handshake = true;
        } else if (type == 40006 && sync.ParseFromString(body)) {
            dg::res_time_sync_message reply;
            reply.set_agent_time(sync.server_time());
            reply.set_dg_time(realtime_ms());
            send_frame(50020, 2, reply.SerializeAsString());
            continue;
        } else if (type == 40000) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_pongs++;
        } else if (type == 60002 && result.ParseFromString(body)) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_results.push_back({result.execution_id(), result.phase_type(), result.result(), result.result_message()});
        } else {
            continue;
        }
        m_cv.notify_all();
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_ended = true;
    }
    m_cv.notify_all();
}

bool dg_feeder::wait_handshake(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lk(m_lock);
    return m_cv.wait_for(lk, timeout, [&] { return m_handshake || m_ended; }) && m_handshake;
}

bool dg_feeder::ping(std::chrono::milliseconds timeout)
{
    uint64_t before;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        before = m_pongs;
    }
    if (!send_frame(50000, 4, ""))
        return false;
    std::unique_lock<std::mutex> lk(m_lock);
    return m_cv.wait_for(lk, timeout, [&] { return m_pongs > before || m_ended; }) && m_pongs > before;
}

bool dg_feeder::patch(const std::string &src, uint64_t size, size_t chunk, const std::string &exec,
                      const std::string &agent_id, const std::string &name, std::string *error)
{
    dg::req_command_message request;
    request.set_execution_id(exec);
    request.set_command_id("c-" + exec);
    request.set_cmd_type(dg::patch_start);
    request.set_agent_id(agent_id);
    request.set_agent_type(static_cast<dg::agent_type_e>(1));
    request.set_run_path("/nonexistent");
    request.set_timeout(600000);
    (*request.mutable_target_agent_infos())["source"] = "dg_bench";
    request.mutable_target_file_info()->set_file_name(name);
    request.mutable_target_file_info()->set_file_size(size);
    if (!send_frame(60001, 1, request.SerializeAsString())) {
        *error = "the 60001 could not be written";
        return false;
    }
    fd_guard in(open(src.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0) {
        *error = "cannot open " + src;
        return false;
    }
    // Fields 1 to 6 through libprotobuf, then field 7 (chunk_data, the last field on the wire)
    // written by hand around the data read straight from the file: the same bytes as the
    // whole message serialized, without copying the data into a message first.
    dg::req_file_chunk_message head;
    head.set_execution_id(exec);
    head.set_agent_id(agent_id);
    head.mutable_target_file_info()->set_file_name(name);
    head.mutable_target_file_info()->set_file_size(size);
    const uint64_t count = size == 0 ? 1 : (size + chunk - 1) / chunk;
    // Over TLS the data is read behind room for header and prefix, so each chunk is one write.
    constexpr size_t k_room = 128;
    std::vector<char> buffer(k_room + chunk);
    char *data = buffer.data() + k_room;
    std::string prefix;
    for (uint64_t index = 1, sent = 0; index <= count; index++) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(chunk, size - sent));
        if (n > 0 && read_full(in.fd, data, n) != static_cast<ssize_t>(n)) {
            *error = "short read of " + src;
            return false;
        }
        head.set_chunk_size(n);
        head.set_chunk_index(index);
        head.set_chunk_count(count);
        prefix.clear();
        head.AppendToString(&prefix);
        if (n > 0) {
            prefix.push_back(0x3A); // field 7, length-delimited
            put_varint(&prefix, n);
        }
        std::string header = frame_header(60004, 1, prefix.size() + n);
        std::lock_guard<std::mutex> guard(m_write_lock);
        bool written;
        if (m_stream) {
            char *start = data - prefix.size() - header.size();
            memcpy(start, header.data(), header.size());
            memcpy(start + header.size(), prefix.data(), prefix.size());
            written = m_stream->write_all({start, static_cast<size_t>(data + n - start)}) == 0;
        } else {
            iovec iov[3] = {{header.data(), header.size()}, {prefix.data(), prefix.size()}, {data, n}};
            written = writev_all(m_conn.fd, iov, n > 0 ? 3 : 2);
        }
        if (!written) {
            *error = "write failed at chunk " + std::to_string(index);
            return false;
        }
        sent += n;
    }
    return true;
}

size_t dg_feeder::mark()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_results.size();
}

std::optional<result_line> dg_feeder::wait_result(const std::function<bool(const result_line &)> &match,
                                                  std::chrono::milliseconds timeout, size_t from)
{
    auto end = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lk(m_lock);
    for (size_t i = from;; i++) {
        while (i >= m_results.size()) {
            if (m_ended)
                return std::nullopt;
            if (m_cv.wait_until(lk, end) == std::cv_status::timeout && i >= m_results.size())
                return std::nullopt;
        }
        if (match(m_results[i]))
            return m_results[i];
    }
}

} // namespace dg_bench
