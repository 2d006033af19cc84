// dg_wire_tls: the DG side's TLS server context, handshake, stream and socketpair front (see
// dg_wire_tls.h). Written for the simulator and the benchmarks; the agent has its own.
#include "dg_wire_tls.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "dg_wire.h"

namespace dg_wire
{

namespace
{

std::string library_error()
{
    unsigned long e = ERR_get_error();
    ERR_clear_error();
    const char *text = e != 0 ? ERR_reason_error_string(e) : nullptr;
    return text != nullptr ? text : e != 0 ? "unknown library error" : "connection closed";
}

// Waits until fd is ready for events, at most timeout_ms (-1: no limit). 1 ready, 0 timed out.
int wait_fd(int fd, short events, int timeout_ms)
{
    for (;;) {
        pollfd p{fd, events, 0};
        int rc = poll(&p, 1, timeout_ms);
        if (rc < 0 && errno == EINTR)
            continue;
        return rc < 0 ? -1 : rc;
    }
}

// Where a context keeps its server's identity and key.
std::once_flag s_index_once;
int s_psk_index = -1;

unsigned int psk_server_callback(SSL *ssl, const char *identity, unsigned char *psk, unsigned int max_psk_length)
{
    auto *key = static_cast<const std::pair<std::string, std::string> *>(
        SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), s_psk_index));
    if (key == nullptr || identity == nullptr || key->first != identity || key->second.size() > max_psk_length)
        return 0;
    memcpy(psk, key->second.data(), key->second.size());
    return static_cast<unsigned int>(key->second.size());
}

} // namespace

// ---- stream -------------------------------------------------------------------------------------

tls_stream::~tls_stream()
{
    SSL_free(m_ssl);
}

ssize_t tls_stream::read(void *buffer, size_t n)
{
    const int want = n > INT32_MAX ? INT32_MAX : static_cast<int>(n);
    for (;;) {
        short events;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            ERR_clear_error();
            int rc = SSL_read(m_ssl, buffer, want);
            if (rc > 0)
                return rc;
            int error = SSL_get_error(m_ssl, rc);
            ERR_clear_error();
            if (error == SSL_ERROR_ZERO_RETURN)
                return 0;
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
                errno = errno != 0 ? errno : ECONNRESET;
                return -1;
            }
            events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        }
        if (wait_fd(m_fd, events, -1) < 0)
            return -1;
    }
}

ssize_t tls_stream::read_full(void *buffer, size_t n)
{
    auto *p = static_cast<char *>(buffer);
    size_t got = 0;
    while (got < n) {
        ssize_t r = read(p + got, n - got);
        if (r < 0)
            return -1;
        if (r == 0)
            break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

int tls_stream::write_all(std::string_view data)
{
    size_t done = 0;
    while (done < data.size()) {
        short events;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            ERR_clear_error();
            size_t left = data.size() - done;
            int rc = SSL_write(m_ssl, data.data() + done, left > INT32_MAX ? INT32_MAX : static_cast<int>(left));
            if (rc > 0) {
                done += static_cast<size_t>(rc);
                continue;
            }
            int error = SSL_get_error(m_ssl, rc);
            ERR_clear_error();
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
                return errno != 0 ? errno : EPIPE;
            events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        }
        if (wait_fd(m_fd, events, -1) < 0)
            return errno;
    }
    return 0;
}

std::string tls_stream::describe()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return std::string(SSL_get_version(m_ssl)) + " " + SSL_get_cipher_name(m_ssl);
}

void tls_stream::close_notify()
{
    std::lock_guard<std::mutex> guard(m_lock);
    SSL_shutdown(m_ssl);
    ERR_clear_error();
}

// ---- server -------------------------------------------------------------------------------------

tls_server::~tls_server()
{
    SSL_CTX_free(m_ctx);
}

int tls_server::load(const tls_server_options &o, std::string *error)
{
    // Front threads may still be in the library while the process exits.
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    m_ctx = SSL_CTX_new(TLS_server_method());
    if (m_ctx == nullptr) {
        *error = library_error();
        return -1;
    }
    SSL_CTX_set_min_proto_version(m_ctx, TLS1_2_VERSION);
    SSL_CTX_set_options(m_ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(m_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(m_ctx, 1);
    auto fail = [&](const std::string &what) {
        *error = what + ": " + library_error();
        return -1;
    };
    if (!o.cert_file.empty() && (SSL_CTX_use_certificate_chain_file(m_ctx, o.cert_file.c_str()) != 1 ||
                                 SSL_CTX_use_PrivateKey_file(m_ctx, o.key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
                                 SSL_CTX_check_private_key(m_ctx) != 1))
        return fail("cannot load " + o.cert_file + " and " + o.key_file);
    if (!o.client_ca_file.empty()) {
        if (SSL_CTX_load_verify_locations(m_ctx, o.client_ca_file.c_str(), nullptr) != 1)
            return fail("cannot load " + o.client_ca_file);
        SSL_CTX_set_client_CA_list(m_ctx, SSL_load_client_CA_file(o.client_ca_file.c_str()));
        SSL_CTX_set_verify(m_ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    if (!o.psk_file.empty()) {
        std::stringstream text;
        text << std::ifstream(o.psk_file).rdbuf();
        std::string hex;
        for (char c : text.str())
            if (!isspace(static_cast<unsigned char>(c)))
                hex.push_back(c);
        if (from_hex(hex, &m_psk.second) != 0 || m_psk.second.empty()) {
            *error = o.psk_file + " does not hold a key in hex";
            return -1;
        }
        m_psk.first = o.psk_identity;
        std::call_once(s_index_once, [] { s_psk_index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr); });
        SSL_CTX_set_ex_data(m_ctx, s_psk_index, &m_psk);
        SSL_CTX_set_psk_server_callback(m_ctx, psk_server_callback);
        if (o.cert_file.empty())
            SSL_CTX_set_cipher_list(m_ctx, "kECDHEPSK:kDHEPSK:kPSK:!eNULL:!3DES:!SHA1");
    }
    return 0;
}

std::unique_ptr<tls_stream> tls_server::accept(int fd, std::chrono::milliseconds timeout, std::string *error)
{
    SSL *ssl = SSL_new(m_ctx);
    // As TLS terminators do: a record's short tail is not held back for the peer's ACK.
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    int flags = fcntl(fd, F_GETFL);
    if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1 || flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        SSL_free(ssl);
        *error = library_error();
        return nullptr;
    }
    auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        ERR_clear_error();
        int rc = SSL_accept(ssl);
        if (rc == 1)
            return std::make_unique<tls_stream>(ssl, fd);
        int e = SSL_get_error(ssl, rc);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if ((e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) ||
            wait_fd(fd, e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, left.count() > 0 ? static_cast<int>(left.count()) : 0) != 1) {
            *error = e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE ? "handshake timed out" : library_error();
            SSL_free(ssl);
            return nullptr;
        }
    }
}

// ---- front ---------------------------------------------------------------------------------------

int tls_front(std::unique_ptr<tls_stream> stream, int fd)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        close(fd);
        return -1;
    }
    std::shared_ptr<tls_stream> tls(std::move(stream));
    const int inner = pair[1];
    // Both threads own a share of the session; the last one out closes the descriptors.
    struct ends {
        int fd, inner;
        ~ends()
        {
            close(inner);
            close(fd);
        }
    };
    std::shared_ptr<ends> owner(new ends{fd, inner});
    std::thread([tls, owner] { // TLS -> plain: stops reading the peer while the plain side is full
        std::vector<char> buf(64 * 1024);
        for (ssize_t n; (n = tls->read(buf.data(), buf.size())) > 0;)
            if (write_all(owner->inner, {buf.data(), static_cast<size_t>(n)}) != 0)
                break;
        shutdown(owner->inner, SHUT_WR);
    }).detach();
    std::thread([tls, owner] { // plain -> TLS
        std::vector<char> buf(64 * 1024);
        for (ssize_t n; (n = ::read(owner->inner, buf.data(), buf.size())) > 0 || (n < 0 && errno == EINTR);)
            if (n > 0 && tls->write_all({buf.data(), static_cast<size_t>(n)}) != 0)
                break;
        tls->close_notify();
        shutdown(owner->fd, SHUT_RDWR); // ends the other thread's read
    }).detach();
    return pair[0];
}

} // namespace dg_wire
