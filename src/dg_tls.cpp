// dg_tls: TLS for the DG connection on OpenSSL. The settings come from the environment once;
// every connection attempt reads the files again into a fresh client context, so a renewed
// certificate, key, CRL or PSK takes effect at the next reconnect. After the handshake the
// socket is non-blocking and every read and write is one library call under the session lock
// followed, when the library wants the socket, by a poll() without the lock: the receive
// thread and a writer never hold each other up on the network.
#include "dg_tls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>

#include "vk_raii.h"
#include "vk_string.h"

std::atomic<int> g_dg_tls_fd{-1};

namespace
{

constexpr size_t k_path_size = 1024;
constexpr size_t k_max_file = 16u << 20;  // a CRL of a large CA still fits
constexpr size_t k_min_psk = 32;
constexpr size_t k_max_psk = 256;
constexpr int k_handshake_timeout_ms = 30000;
// Default send time-out when the socket has none (the connection sets 30 s).

// ---- settings ---------------------------------------------------------------------------------

struct tls_settings {
    int mode = DG_TLS_UNENCRYPTED;
    char ca_file[k_path_size] = {};
    char crl_file[k_path_size] = {};
    char cert_file[k_path_size] = {};
    char key_file[k_path_size] = {};
    char psk_file[k_path_size] = {};
    char psk_identity[129] = {};
    char server_name[256] = {};
    unsigned char pin[32] = {};
    bool pinned = false;
};
tls_settings s_settings; // written by dg_tls_init before any thread starts

// A refusal: the variable it names and why.
struct refusal {
    const char *variable = nullptr;
    char reason[384] = {};
};

[[gnu::format(printf, 3, 4)]] int refuse(refusal *r, const char *variable, const char *format, ...)
{
    r->variable = variable;
    va_list args;
    va_start(args, format);
    vsnprintf(r->reason, sizeof(r->reason), format, args);
    va_end(args);
    return -1;
}

// The variable's value with surrounding '"' trimmed, as the agent's other variables. Returns
// its length (0 when unset or empty), or -1 when it does not fit out.
int read_variable(const char *name, char *out, size_t size)
{
    out[0] = '\0';
    const char *value = getenv(name);
    if (value == nullptr)
        return 0;
    std::string_view text = vk_trim_view(value, "\"");
    if (text.size() >= size)
        return -1;
    memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    return static_cast<int>(text.size());
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Decodes hex text, ignoring white space and ':' between digit pairs. Returns the byte count,
// or -1 for another character, an odd digit count or more than size bytes.
int decode_hex(std::string_view text, unsigned char *out, size_t size)
{
    size_t n = 0;
    int high = -1;
    for (char c : text) {
        if (c == ':' || c == ' ' || c == '\t' || c == '\r' || c == '\n')
            continue;
        int d = hex_digit(c);
        if (d < 0)
            return -1;
        if (high < 0) {
            high = d;
            continue;
        }
        if (n == size)
            return -1;
        out[n++] = static_cast<unsigned char>(high << 4 | d);
        high = -1;
    }
    return high < 0 ? static_cast<int>(n) : -1;
}

// The default server name: the host part of MGR_RECEIVER_ADDR (before its last ':').
void default_server_name(char *out, size_t size)
{
    char address[256];
    if (read_variable("MGR_RECEIVER_ADDR", address, sizeof(address)) <= 0)
        return;
    std::string_view host(address);
    host = host.substr(0, host.rfind(':') == std::string_view::npos ? host.size() : host.rfind(':'));
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    vk_strlcpy(out, host, size);
}

// Reads a file variable into out: 0 unset, 1 set, -1 refused (too long).
int read_path(const char *name, char (&out)[k_path_size], refusal *r)
{
    int n = read_variable(name, out, sizeof(out));
    if (n < 0)
        return refuse(r, name, "longer than %zu characters", k_path_size - 1);
    return n > 0 ? 1 : 0;
}

int parse_cert_settings(tls_settings *s, refusal *r)
{
    int has_ca = read_path("MGR_TLS_CA_FILE", s->ca_file, r);
    int has_crl = read_path("MGR_TLS_CRL_FILE", s->crl_file, r);
    int has_cert = read_path("MGR_TLS_CERT_FILE", s->cert_file, r);
    int has_key = read_path("MGR_TLS_KEY_FILE", s->key_file, r);
    if (has_ca < 0 || has_crl < 0 || has_cert < 0 || has_key < 0)
        return -1;
    if (has_ca == 0)
        return refuse(r, "MGR_TLS_CA_FILE", "required with MGR_TLS_CONNECT=cert");
    if (has_cert != has_key)
        return refuse(r, has_cert ? "MGR_TLS_KEY_FILE" : "MGR_TLS_CERT_FILE",
                      "MGR_TLS_CERT_FILE and MGR_TLS_KEY_FILE go together");
    int n = read_variable("MGR_TLS_SERVER_NAME", s->server_name, sizeof(s->server_name));
    if (n < 0)
        return refuse(r, "MGR_TLS_SERVER_NAME", "longer than %zu characters", sizeof(s->server_name) - 1);
    if (n == 0)
        default_server_name(s->server_name, sizeof(s->server_name));
    if (s->server_name[0] == '\0')
        return refuse(r, "MGR_TLS_SERVER_NAME", "empty, and MGR_RECEIVER_ADDR names no host");
    char pin[160];
    n = read_variable("MGR_TLS_SERVER_PUBKEY_SHA256", pin, sizeof(pin));
    if (n < 0 || (n > 0 && decode_hex(pin, s->pin, sizeof(s->pin)) != static_cast<int>(sizeof(s->pin))))
        return refuse(r, "MGR_TLS_SERVER_PUBKEY_SHA256", "not a SHA-256 in hex (64 hex digits)");
    s->pinned = n > 0;
    return 0;
}

int parse_psk_settings(tls_settings *s, refusal *r)
{
    int n = read_variable("MGR_TLS_PSK_IDENTITY", s->psk_identity, sizeof(s->psk_identity));
    if (n < 0)
        return refuse(r, "MGR_TLS_PSK_IDENTITY", "longer than %zu characters", sizeof(s->psk_identity) - 1);
    if (n == 0)
        return refuse(r, "MGR_TLS_PSK_IDENTITY", "required with MGR_TLS_CONNECT=psk");
    int has_file = read_path("MGR_TLS_PSK_FILE", s->psk_file, r);
    if (has_file < 0)
        return -1;
    if (has_file == 0)
        return refuse(r, "MGR_TLS_PSK_FILE", "required with MGR_TLS_CONNECT=psk");
    return 0;
}

// Fills *s from the environment. Returns 0, or -1 with *r filled.
int parse_settings(tls_settings *s, refusal *r)
{
    char mode[32];
    int n = read_variable("MGR_TLS_CONNECT", mode, sizeof(mode));
    std::string_view m = n > 0 ? std::string_view(mode) : std::string_view("unencrypted");
    if (m == "unencrypted") {
        s->mode = DG_TLS_UNENCRYPTED;
        return 0;
    }
    if (m == "cert") {
        s->mode = DG_TLS_CERT;
        return parse_cert_settings(s, r);
    }
    if (m == "psk") {
        s->mode = DG_TLS_PSK;
        return parse_psk_settings(s, r);
    }
    return refuse(r, "MGR_TLS_CONNECT", "unknown mode (unencrypted, cert or psk)");
}

// ---- files --------------------------------------------------------------------------------------

// The whole text of a settings file, in a checked allocation.
struct file_text {
    vk_unique_malloc<char> data;
    size_t size = 0;
    std::string_view view() const { return {data.get(), size}; }
};

// Reads the whole file at path: a regular file (a link the operator points at is followed) of
// at most 16 MiB, none of whose permission bits `forbidden` is set. Returns 0 with *out filled,
// or -1 with *r naming variable.
int read_setting_file(const char *variable, const char *path, mode_t forbidden, file_text *out, refusal *r)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return refuse(r, variable, "cannot open %s: %s", path, strerror(errno));
    struct stat st {};
    int rc = 0;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        rc = refuse(r, variable, "%s is not a regular file", path);
    else if ((st.st_mode & forbidden) != 0)
        rc = refuse(r, variable, "%s is readable by %s (mode %04o)", path,
                    (forbidden & S_IRGRP) != 0 ? "group or others" : "others", static_cast<unsigned>(st.st_mode & 07777));
    else if (static_cast<size_t>(st.st_size) > k_max_file)
        rc = refuse(r, variable, "%s is larger than %zu bytes", path, k_max_file);
    if (rc == 0) {
        const size_t size = static_cast<size_t>(st.st_size);
        out->data.reset(static_cast<char *>(malloc(size + 1)));
        if (!out->data)
            rc = refuse(r, variable, "%s cannot be read: out of memory", path);
        size_t done = 0;
        while (rc == 0 && done < size) {
            ssize_t n = read(fd, out->data.get() + done, size - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        out->size = done;
    }
    close(fd);
    return rc;
}

// Wipes a file's contents that held key material.
struct secret_text {
    file_text text;
    ~secret_text()
    {
        if (text.data)
            OPENSSL_cleanse(text.data.get(), text.size);
    }
};

// The first reason on this thread's library error queue (the queue is emptied).
const char *library_reason(char *out, size_t size)
{
    unsigned long e = ERR_get_error();
    const char *text = e != 0 ? ERR_reason_error_string(e) : nullptr;
    snprintf(out, size, "%s", text != nullptr ? text : e != 0 ? "unknown library error" : "no detail");
    ERR_clear_error();
    return out;
}

struct bio_deleter {
    void operator()(BIO *b) const { BIO_free(b); }
};
using bio_ptr = std::unique_ptr<BIO, bio_deleter>;
struct ctx_deleter {
    void operator()(SSL_CTX *c) const { SSL_CTX_free(c); }
};
using ctx_ptr = std::unique_ptr<SSL_CTX, ctx_deleter>;
struct ssl_deleter {
    void operator()(SSL *s) const { SSL_free(s); }
};
using ssl_ptr = std::unique_ptr<SSL, ssl_deleter>;

bio_ptr memory_bio(const file_text &text)
{
    return bio_ptr(BIO_new_mem_buf(text.data.get(), static_cast<int>(text.size)));
}

// ---- the client context ---------------------------------------------------------------------

// The PSK of the attempt in progress (connection thread only), wiped after the handshake.
struct psk_key {
    unsigned char key[k_max_psk];
    unsigned int length;
};
psk_key s_psk;

unsigned int psk_client_callback(SSL *, const char *, char *identity, unsigned int max_identity_length,
                                 unsigned char *psk, unsigned int max_psk_length)
{
    size_t id_length = strlen(s_settings.psk_identity);
    if (id_length + 1 > max_identity_length || s_psk.length > max_psk_length)
        return 0;
    memcpy(identity, s_settings.psk_identity, id_length + 1);
    memcpy(psk, s_psk.key, s_psk.length);
    return s_psk.length;
}

int load_ca(SSL_CTX *ctx, refusal *r)
{
    file_text text;
    if (read_setting_file("MGR_TLS_CA_FILE", s_settings.ca_file, 0, &text, r) != 0)
        return -1;
    bio_ptr bio = memory_bio(text);
    STACK_OF(X509_INFO) *infos = bio ? PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    int added = 0;
    for (int i = 0; infos != nullptr && i < sk_X509_INFO_num(infos); i++) {
        X509_INFO *info = sk_X509_INFO_value(infos, i);
        if (info->x509 != nullptr && X509_STORE_add_cert(store, info->x509) == 1)
            added++;
    }
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
    ERR_clear_error();
    if (added == 0)
        return refuse(r, "MGR_TLS_CA_FILE", "%s holds no PEM certificate", s_settings.ca_file);
    return 0;
}

int load_crl(SSL_CTX *ctx, refusal *r)
{
    file_text text;
    if (read_setting_file("MGR_TLS_CRL_FILE", s_settings.crl_file, 0, &text, r) != 0)
        return -1;
    bio_ptr bio = memory_bio(text);
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    int added = 0;
    while (bio) {
        X509_CRL *crl = PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr);
        if (crl == nullptr)
            break;
        added += X509_STORE_add_crl(store, crl) == 1 ? 1 : 0;
        X509_CRL_free(crl);
    }
    ERR_clear_error();
    if (added == 0)
        return refuse(r, "MGR_TLS_CRL_FILE", "%s holds no PEM CRL", s_settings.crl_file);
    // The DG certificate is checked against its issuer's CRL.
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    return 0;
}

int load_own_certificate(SSL_CTX *ctx, refusal *r)
{
    file_text cert;
    secret_text key;
    char why[128];
    if (read_setting_file("MGR_TLS_CERT_FILE", s_settings.cert_file, 0, &cert, r) != 0 ||
        read_setting_file("MGR_TLS_KEY_FILE", s_settings.key_file, S_IROTH, &key.text, r) != 0)
        return -1;
    bio_ptr bio = memory_bio(cert);
    X509 *leaf = bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    int used = leaf != nullptr ? SSL_CTX_use_certificate(ctx, leaf) : 0;
    X509_free(leaf);
    if (used != 1)
        return refuse(r, "MGR_TLS_CERT_FILE", "%s holds no usable PEM certificate (%s)", s_settings.cert_file,
                      library_reason(why, sizeof(why)));
    // Intermediate certificates after the first go out with it.
    while (X509 *extra = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
        if (SSL_CTX_add0_chain_cert(ctx, extra) != 1)
            X509_free(extra);
    ERR_clear_error();
    bio_ptr key_bio = memory_bio(key.text);
    EVP_PKEY *pkey = key_bio ? PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr, nullptr) : nullptr;
    used = pkey != nullptr ? SSL_CTX_use_PrivateKey(ctx, pkey) : 0;
    EVP_PKEY_free(pkey);
    if (used != 1)
        return refuse(r, "MGR_TLS_KEY_FILE", "%s holds no usable unencrypted PEM key (%s)", s_settings.key_file,
                      library_reason(why, sizeof(why)));
    if (SSL_CTX_check_private_key(ctx) != 1)
        return refuse(r, "MGR_TLS_KEY_FILE", "%s does not match MGR_TLS_CERT_FILE", s_settings.key_file);
    return 0;
}

int load_psk(SSL_CTX *ctx, refusal *r)
{
    secret_text text;
    if (read_setting_file("MGR_TLS_PSK_FILE", s_settings.psk_file, S_IRGRP | S_IROTH, &text.text, r) != 0)
        return -1;
    int n = decode_hex(text.text.view(), s_psk.key, sizeof(s_psk.key));
    if (n < 0)
        return refuse(r, "MGR_TLS_PSK_FILE", "%s does not hold a key in hex (at most %zu bytes)", s_settings.psk_file,
                      k_max_psk);
    if (static_cast<size_t>(n) < k_min_psk)
        return refuse(r, "MGR_TLS_PSK_FILE", "%s holds %d bytes of key, fewer than %zu", s_settings.psk_file, n,
                      k_min_psk);
    s_psk.length = static_cast<unsigned int>(n);
    SSL_CTX_set_psk_client_callback(ctx, psk_client_callback);
    // TLS 1.2 suites that authenticate by the key alone, forward secret first; TLS 1.3 keeps
    // its defaults. Any certificate a server falls back to fails against the empty store.
    if (SSL_CTX_set_cipher_list(ctx, "kECDHEPSK:kDHEPSK:kPSK:!eNULL:!3DES:!SHA1:!CAMELLIA:!ARIA") != 1)
        return refuse(r, "MGR_TLS_CONNECT", "the TLS library offers no PSK cipher suite");
    return 0;
}

// A fresh client context from the settings, every file read now. Returns it, or null with *r.
ctx_ptr build_context(refusal *r)
{
    ctx_ptr ctx(SSL_CTX_new(TLS_client_method()));
    char why[128];
    if (!ctx) {
        refuse(r, "MGR_TLS_CONNECT", "the TLS library cannot be set up (%s)", library_reason(why, sizeof(why)));
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
    SSL_CTX_set_options(ctx.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
    // AES-128-GCM first: a third fewer rounds than AES-256 for patch transfers, as strong
    // for this use; the others stay offered.
    SSL_CTX_set_ciphersuites(ctx.get(), "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256");
    SSL_CTX_set_mode(ctx.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
    // Read what the socket holds in one go rather than record by record, into a buffer of
    // four records: a patch chunk of 64 KiB then costs about one read instead of four, and
    // the agent about a quarter less CPU per GiB than with a one-record buffer (measured with
    // bench/dg_bench: 1.35 against 1.80 s/GiB; 32 and 128 KiB were no better).
    SSL_CTX_set_read_ahead(ctx.get(), 1);
    SSL_CTX_set_default_read_buffer_len(ctx.get(), 64 * 1024);
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    int rc = 0;
    if (s_settings.mode == DG_TLS_CERT) {
        rc = load_ca(ctx.get(), r);
        if (rc == 0 && s_settings.crl_file[0] != '\0')
            rc = load_crl(ctx.get(), r);
        if (rc == 0 && s_settings.cert_file[0] != '\0')
            rc = load_own_certificate(ctx.get(), r);
    } else {
        rc = load_psk(ctx.get(), r);
    }
    return rc == 0 ? std::move(ctx) : nullptr;
}

// ---- handshake ---------------------------------------------------------------------------------

int ms_until(std::chrono::steady_clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for sock to become readable (events POLLIN) or writable (POLLOUT) for up to
// timeout_ms (-1: no limit), restarting after signals. Returns 1 ready (or in error: the next
// call tells), 0 timed out, -1 the wait failed.
int wait_socket(int sock, short events, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms < 0 ? 0 : timeout_ms);
    for (;;) {
        pollfd p{sock, events, 0};
        int rc = poll(&p, 1, timeout_ms < 0 ? -1 : ms_until(deadline));
        if (rc < 0 && errno == EINTR)
            continue;
        return rc < 0 ? -1 : rc > 0 ? 1 : 0;
    }
}

// The reason of a failed library call on ssl: the verification result when the peer's
// certificate was refused, else the library's reason, else the system's.
void describe(SSL *ssl, int rc, int saved_errno, char *out, size_t size)
{
    int error = SSL_get_error(ssl, rc);
    unsigned long e = ERR_peek_error();
    long verify = SSL_get_verify_result(ssl);
    char why[128];
    if (ERR_GET_REASON(e) == SSL_R_CERTIFICATE_VERIFY_FAILED && verify != X509_V_OK)
        snprintf(out, size, "certificate verify failed (%s)", X509_verify_cert_error_string(verify));
    else if (e != 0)
        snprintf(out, size, "%s", library_reason(why, sizeof(why)));
    else if (error == SSL_ERROR_SYSCALL && saved_errno != 0)
        snprintf(out, size, "%s", strerror(saved_errno));
    else
        snprintf(out, size, "connection closed by the server");
    ERR_clear_error();
}

// Names the server for the certificate check (an IP address as an IP) and for SNI.
int set_server_name(SSL *ssl)
{
    const char *name = s_settings.server_name;
    unsigned char ip[16];
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl);
    if (inet_pton(AF_INET, name, ip) == 1 || inet_pton(AF_INET6, name, ip) == 1)
        return X509_VERIFY_PARAM_set1_ip_asc(param, name) == 1 ? 0 : -1;
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(param, name, 0) == 1 && SSL_set_tlsext_host_name(ssl, name) == 1 ? 0 : -1;
}

// 0 when the peer's public key is the pinned one (or nothing is pinned), else -1.
int check_pin(SSL *ssl)
{
    if (!s_settings.pinned)
        return 0;
    X509 *peer = SSL_get1_peer_certificate(ssl);
    unsigned char *der = nullptr;
    int length = peer != nullptr ? i2d_X509_PUBKEY(X509_get_X509_PUBKEY(peer), &der) : -1;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digest_length = 0;
    bool same = length > 0 && EVP_Digest(der, static_cast<size_t>(length), digest, &digest_length, EVP_sha256(), nullptr) == 1 &&
                digest_length == sizeof(s_settings.pin) && CRYPTO_memcmp(digest, s_settings.pin, digest_length) == 0;
    OPENSSL_free(der);
    X509_free(peer);
    return same ? 0 : -1;
}

// SSL_connect on the non-blocking sock until done or the deadline. Returns 0, or -1 with reason.
int run_handshake(SSL *ssl, int sock, char *reason, size_t size)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(k_handshake_timeout_ms);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        int rc = SSL_connect(ssl);
        if (rc == 1)
            return 0;
        int saved = errno;
        int error = SSL_get_error(ssl, rc);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            describe(ssl, rc, saved, reason, size);
            return -1;
        }
        int ready = wait_socket(sock, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, ms_until(deadline));
        if (ready <= 0) {
            snprintf(reason, size, "%s", ready == 0 ? "no answer within 30 s" : strerror(errno));
            return -1;
        }
    }
}

// ---- the session ----------------------------------------------------------------------------------

struct tls_session {
    SSL *ssl;
    int fd;
    char failure[256];
};
std::mutex s_session_lock;
tls_session *s_session = nullptr; // guarded by s_session_lock

// The session of sock, or null; the caller holds s_session_lock.
tls_session *session_of(int sock)
{
    return s_session != nullptr && s_session->fd == sock ? s_session : nullptr;
}

// One read or write step under the lock. Returns the byte count (> 0), 0 when the peer closed,
// -1 with errno on failure, or -2 with *want set to the poll events the library waits for.
template <typename Call> ssize_t session_step(int sock, Call call, short *want)
{
    std::lock_guard<std::mutex> guard(s_session_lock);
    tls_session *s = session_of(sock);
    if (s == nullptr) {
        errno = EBADF;
        return -1;
    }
    ERR_clear_error();
    errno = 0;
    int rc = call(s->ssl);
    if (rc > 0)
        return rc;
    int saved = errno;
    int error = SSL_get_error(s->ssl, rc);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        *want = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        return -2;
    }
    if (error == SSL_ERROR_ZERO_RETURN)
        return 0;
    describe(s->ssl, rc, saved, s->failure, sizeof(s->failure));
    errno = saved != 0 ? saved : ECONNRESET;
    return -1;
}

} // namespace

// ---- interface -----------------------------------------------------------------------------------

int dg_tls_init(char *message, size_t message_size)
{
    refusal r;
    tls_settings parsed;
    int rc = parse_settings(&parsed, &r);
    if (rc == 0) {
        s_settings = parsed;
        // The library stays set up until the process is gone: at exit the connection thread
        // may still be inside a handshake or a read.
        if (s_settings.mode != DG_TLS_UNENCRYPTED &&
            (OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1 || !build_context(&r)))
            rc = r.variable != nullptr ? -1 : refuse(&r, "MGR_TLS_CONNECT", "the TLS library cannot be set up");
        OPENSSL_cleanse(&s_psk, sizeof(s_psk));
    }
    if (rc != 0) {
        s_settings.mode = DG_TLS_UNENCRYPTED;
        snprintf(message, message_size, "[KTR-OSM-00020090] Wrong TLS setting. [%s] %s", r.variable, r.reason);
    }
    return rc;
}

int dg_tls_mode()
{
    return s_settings.mode;
}

int dg_tls_check_settings()
{
    char message[512];
    if (dg_tls_init(message, sizeof(message)) != 0) {
        fprintf(stderr, "%s\n", message);
        return 0;
    }
    static constexpr const char *names[] = {"unencrypted", "cert", "psk"};
    printf("TLS setting: %s\n", names[s_settings.mode]);
    return 0;
}

int dg_tls_connect(int sock, char *reason, size_t reason_size)
{
    refusal r;
    ctx_ptr ctx = build_context(&r);
    ssl_ptr ssl(ctx ? SSL_new(ctx.get()) : nullptr);
    ctx.reset(); // the session keeps its own reference
    struct wipe_psk {
        ~wipe_psk() { OPENSSL_cleanse(&s_psk, sizeof(s_psk)); }
    } wipe;
    char why[128];
    if (r.variable != nullptr) {
        snprintf(reason, reason_size, "[%s] %s", r.variable, r.reason);
        return -1;
    }
    if (!ssl || SSL_set_fd(ssl.get(), sock) != 1 || (s_settings.mode == DG_TLS_CERT && set_server_name(ssl.get()) != 0)) {
        snprintf(reason, reason_size, "%s", library_reason(why, sizeof(why)));
        return -1;
    }
    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) != 0) {
        snprintf(reason, reason_size, "%s", strerror(errno));
        return -1;
    }
    int rc = run_handshake(ssl.get(), sock, reason, reason_size);
    if (rc == 0 && check_pin(ssl.get()) != 0) {
        snprintf(reason, reason_size, "the server's public key is not the one of MGR_TLS_SERVER_PUBKEY_SHA256");
        rc = -1;
    }
    if (rc != 0) {
        fcntl(sock, F_SETFL, flags);
        return -1;
    }
    auto *session = new (std::nothrow) tls_session{nullptr, sock, {}};
    if (session == nullptr) {
        snprintf(reason, reason_size, "out of memory");
        fcntl(sock, F_SETFL, flags);
        return -1;
    }
    session->ssl = ssl.release();
    std::lock_guard<std::mutex> guard(s_session_lock);
    if (s_session != nullptr) { // never: the previous connection was closed first
        SSL_free(s_session->ssl);
        delete s_session;
    }
    s_session = session;
    g_dg_tls_fd.store(sock, std::memory_order_release);
    return 0;
}

ssize_t dg_tls_recv(int sock, void *buffer, size_t size)
{
    if (size == 0)
        return 0;
    const int n = size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
    for (;;) {
        short want = 0;
        ssize_t rc = session_step(sock, [&](SSL *ssl) { return SSL_read(ssl, buffer, n); }, &want);
        if (rc != -2)
            return rc;
        // As a blocking recv: no time limit; keepalive ends a connection whose peer vanished.
        if (wait_socket(sock, want, -1) < 0)
            return -1;
    }
}

ssize_t dg_tls_send(int sock, const void *buffer, size_t length, int timeout_ms)
{
    const char *p = static_cast<const char *>(buffer);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t done = 0;
    while (done < length) {
        const int n = length - done > INT32_MAX ? INT32_MAX : static_cast<int>(length - done);
        short want = 0;
        ssize_t rc = session_step(sock, [&](SSL *ssl) { return SSL_write(ssl, p + done, n); }, &want);
        if (rc > 0) {
            done += static_cast<size_t>(rc);
            continue;
        }
        // The waits for the socket share one deadline: the packet is bounded as a whole.
        int left = ms_until(deadline);
        int ready = rc == -2 ? (left > 0 ? wait_socket(sock, want, left) : 0) : -1;
        if (ready == 1)
            continue;
        int err = rc == 0 ? EPIPE : ready == 0 ? ETIMEDOUT : errno;
        shutdown(sock, SHUT_RDWR);
        errno = err;
        return -1;
    }
    return static_cast<ssize_t>(done);
}

int dg_tls_pending(int sock)
{
    std::lock_guard<std::mutex> guard(s_session_lock);
    tls_session *s = session_of(sock);
    return s != nullptr && SSL_has_pending(s->ssl) == 1 ? 1 : 0;
}

int dg_tls_failure(int sock, char *reason, size_t reason_size)
{
    std::lock_guard<std::mutex> guard(s_session_lock);
    tls_session *s = session_of(sock);
    snprintf(reason, reason_size, "%s", s != nullptr ? s->failure : "");
    return reason[0] != '\0' ? 1 : 0;
}

void dg_tls_shutdown(int sock)
{
    std::lock_guard<std::mutex> guard(s_session_lock);
    if (tls_session *s = session_of(sock)) {
        ERR_clear_error();
        SSL_shutdown(s->ssl); // non-blocking: the notification goes out if the socket takes it
        ERR_clear_error();
    }
}

void dg_tls_free(int sock)
{
    std::lock_guard<std::mutex> guard(s_session_lock);
    if (tls_session *s = session_of(sock)) {
        g_dg_tls_fd.store(-1, std::memory_order_release);
        SSL_free(s->ssl);
        delete s;
        s_session = nullptr;
    }
}
