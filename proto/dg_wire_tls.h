// dg_wire_tls: the DG side's TLS on OpenSSL, as a TLS terminator in front of a DG would do it:
// a server context (certificate and key, optional client-certificate requirement, or a PSK),
// the server handshake, a stream that one reader and one writer may use at the same time, and
// a front that carries the plaintext to a socketpair so code written for a plain socket serves
// a TLS peer unchanged. quil-dg-sim and dg_bench use it; it shares no code with the agent.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

struct ssl_st;
struct ssl_ctx_st;

namespace dg_wire
{

// What the DG side offers. Empty cert_file and psk_file: no TLS.
struct tls_server_options {
    std::string cert_file;       // PEM: the server certificate, intermediates after it
    std::string key_file;        // PEM: its unencrypted key
    std::string client_ca_file;  // PEM CA: a client certificate it issued is required
    std::string psk_identity;    // with psk_file: the identity the client must name
    std::string psk_file;        // hex key
    bool enabled() const { return !cert_file.empty() || !psk_file.empty(); }
};

// A connected TLS session on a socket, non-blocking underneath. read() and write_all() may run
// on two threads at once: each library call holds the lock, a wait on the socket does not.
class tls_stream
{
  public:
    tls_stream(ssl_st *ssl, int fd) : m_ssl(ssl), m_fd(fd) {}
    ~tls_stream();
    tls_stream(const tls_stream &) = delete;
    tls_stream &operator=(const tls_stream &) = delete;

    int fd() const { return m_fd; }
    // "TLSv1.3 TLS_AES_256_GCM_SHA384": the protocol and suite agreed.
    std::string describe();
    // Blocks until at least one byte is there. Returns the bytes read (at most n), 0 when the
    // peer closed, -1 on an error (errno set).
    ssize_t read(void *buffer, size_t n);
    // Reads exactly n bytes. Returns n, the smaller count before the end, or -1.
    ssize_t read_full(void *buffer, size_t n);
    // Writes all of data. Returns 0, or an errno value.
    int write_all(std::string_view data);
    // Sends the close notification without waiting. Cannot fail.
    void close_notify();

  private:
    ssl_st *m_ssl;
    int m_fd; // not owned
    std::mutex m_lock;
};

// A server context. Safe to share between threads once loaded.
class tls_server
{
  public:
    tls_server() = default;
    ~tls_server();
    tls_server(const tls_server &) = delete;
    tls_server &operator=(const tls_server &) = delete;

    // Loads the files of o. Returns 0, or -1 with *error.
    int load(const tls_server_options &o, std::string *error);
    // Runs the server handshake on the connected fd for up to timeout. Returns the stream
    // (fd stays owned by the caller), or null with *error holding the library's reason.
    std::unique_ptr<tls_stream> accept(int fd, std::chrono::milliseconds timeout, std::string *error);

  private:
    ssl_ctx_st *m_ctx = nullptr;
    std::pair<std::string, std::string> m_psk; // identity and key
};

// Serves the TLS stream on fd from one end of a socketpair: two threads copy plaintext both
// ways until either side closes or fails; then the other side is shut down, and fd is closed
// when both threads are done. Returns the plain end (the caller owns it), or -1.
int tls_front(std::unique_ptr<tls_stream> stream, int fd);

} // namespace dg_wire
