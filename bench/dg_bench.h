// dg_bench's own wire side: the minimal peer that stands where the agent stands (dg_bench
// --peer) and the minimal DG sender that stands where quil-dg-sim stands, both on libprotobuf,
// the DG side's framing (dg_wire.h) and plain sockets. Used by dg_bench.cpp only. A dg_feeder
// may be used from two threads: its reader thread and the one thread that drives it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "dg_wire.h"
#include "dg_wire_tls.h"

namespace dg_bench
{

// Owns one descriptor.
struct fd_guard {
    int fd = -1;
    explicit fd_guard(int f = -1) : fd(f) {}
    ~fd_guard() { reset(); }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
    void reset(int f = -1)
    {
        if (fd >= 0)
            close(fd);
        fd = f;
    }
};

// ---- the minimal peer -----------------------------------------------------------------------

// Connects to 127.0.0.1:port and answers like the agent, with nothing else: 50000 with
// 40000; a 60001 patch_start opens dir/<file name>; each 60004 write()s its chunk_data there;
// the last one closes the file and is reported with a 60002 "write success". Returns 0 when
// the other side closes, 1 on a connect or write error.
int run_peer(int port, const std::string &dir);

// ---- the minimal DG sender ------------------------------------------------------------------

// A 60002 result as the sender saw it.
struct result_line {
    std::string execution_id;
    int phase = 0;
    int result = 0;
    std::string message;
};

// Listens on 127.0.0.1 (any free port) for one connection and serves it: answers 10043 with
// 50036 and 40006 with 50020, counts 40000 answers, keeps the 60002 results. Sends pings and
// patches as fast as a read() and a writev() per chunk allow; over TLS (a server context
// given), one SSL_write of header and data read in place per chunk.
class dg_feeder
{
  public:
    explicit dg_feeder(dg_wire::tls_server *tls = nullptr);
    ~dg_feeder();
    dg_feeder(const dg_feeder &) = delete;
    dg_feeder &operator=(const dg_feeder &) = delete;

    // The listening port, 0 when the listener could not be set up.
    int port() const { return m_port; }
    // Accepts the connection (and runs the TLS handshake) and starts serving it. False on
    // time-out or error.
    bool accept_one(std::chrono::milliseconds timeout);
    // Closes the connection served now and waits for its reader; accept_one takes the next.
    void drop();
    // Seconds from the last accept to the end of the TLS handshake (0 over plain TCP) and to
    // the 10043 that followed (after wait_handshake).
    double tls_seconds() const { return m_tls_seconds; }
    double identity_seconds();
    // "TLSv1.3 SUITE" of the connection, empty over plain TCP.
    std::string tls_name() { return m_stream ? m_stream->describe() : ""; }
    // Waits until a 10043 has been answered. False on time-out.
    bool wait_handshake(std::chrono::milliseconds timeout);
    // One round trip: a 50000, then the next 40000. False on time-out or a failed write.
    bool ping(std::chrono::milliseconds timeout);
    // A 60001 patch_start for the file at src (its name `name`, its size `size`), then the
    // file as 60004 chunks of chunk bytes. Returns once the last chunk was written to the
    // socket; false with *error on a failed read or write.
    bool patch(const std::string &src, uint64_t size, size_t chunk, const std::string &exec,
               const std::string &agent_id, const std::string &name, std::string *error);
    // Number of results so far: pass it to wait_result to look only at later ones.
    size_t mark();
    // The first result at position `from` or later that satisfies match, waiting up to
    // timeout; nullopt on time-out or when the connection ended without it.
    std::optional<result_line> wait_result(const std::function<bool(const result_line &)> &match,
                                           std::chrono::milliseconds timeout, size_t from);

  private:
    void reader();
    bool send_frame(uint16_t type, uint8_t body_kind, const std::string &body);
    bool write_bytes(std::string_view bytes); // whole, on the socket or the TLS stream

    fd_guard m_listener;
    fd_guard m_conn;
    dg_wire::tls_server *m_tls;
    std::unique_ptr<dg_wire::tls_stream> m_stream;
    std::chrono::steady_clock::time_point m_accepted;
    double m_tls_seconds = 0;
    double m_identity_seconds = 0; // guarded by m_lock
    int m_port = 0;
    std::mutex m_write_lock; // whole frames only
    std::mutex m_lock;       // guards the fields below
    std::condition_variable m_cv;
    bool m_handshake = false;
    bool m_ended = false;
    uint64_t m_pongs = 0;
    std::vector<result_line> m_results;
    std::thread m_reader;
};

} // namespace dg_bench
