// dg_tls: the optional TLS layer of the DG connection (MGR_TLS_CONNECT cert or psk). Owns the
// MGR_TLS_* settings, the client context built afresh from the files at every connection
// attempt, the handshake and the one session attached to the connected DG socket. The only
// unit that includes OpenSSL; with the default "unencrypted" nothing here calls into it.
// Thread safety: dg_tls_init runs once at start before any thread; dg_tls_connect runs on the
// connection thread before the socket is published. The I/O calls may be made from any thread
// (one reader, writers serialised by the caller): the session is guarded by a lock held only
// for the duration of each library call, never while waiting on the socket.
#pragma once

#include <atomic>
#include <cstddef>
#include <sys/types.h>

inline constexpr int DG_TLS_UNENCRYPTED = 0;
inline constexpr int DG_TLS_CERT = 1;
inline constexpr int DG_TLS_PSK = 2;

// Socket the session is attached to, -1 when none. Read by the I/O hooks on every call, so an
// unencrypted connection costs one atomic load.
extern std::atomic<int> g_dg_tls_fd;

// True when a TLS session is attached to sock: its bytes go through dg_tls_recv/dg_tls_send.
inline bool dg_tls_attached(int sock)
{
    return sock >= 0 && g_dg_tls_fd.load(std::memory_order_acquire) == sock;
}

// Reads the MGR_TLS_* settings from the environment (the default server name from the host
// part of MGR_RECEIVER_ADDR) and, for cert and psk, loads every file once to check it.
// Returns 0 (the mode is then fixed for the process), or -1 with message filled with the one
// line to report: "[KTR-OSM-00020090] Wrong TLS setting. [VARIABLE] reason".
[[nodiscard]] int dg_tls_init(char *message, size_t message_size);
// The configured mode (DG_TLS_UNENCRYPTED until dg_tls_init succeeded with another).
[[nodiscard]] int dg_tls_mode();

// Runs the TLS handshake on the freshly connected socket sock, with the certificates, keys,
// CRL and PSK read again from their files, and attaches the session to sock. Returns 0, or -1
// with reason filled (the library's reason, the verification result, a pin mismatch, a file
// that no longer loads, or a time-out after 30 s); sock is then left as it was given, blocking
// and open, for the caller to close.
[[nodiscard]] int dg_tls_connect(int sock, char *reason, size_t reason_size);

// recv() over the session attached to sock: blocks until at least one decrypted byte is there.
// Returns the bytes read (at most size), 0 when the peer closed, or -1 with errno set (the
// library's reason is kept for dg_tls_failure).
ssize_t dg_tls_recv(int sock, void *buffer, size_t size);
// Writes the whole buffer over the session within timeout_ms, all its waits for the socket
// together (ETIMEDOUT past it). Returns length, or -1 with errno after any failure, which
// also shuts the socket down: a TLS record cannot be abandoned half written, so the stream
// cannot carry another packet.
ssize_t dg_tls_send(int sock, const void *buffer, size_t length, int timeout_ms);
// 1 when the session on sock holds bytes a read returns without waiting on the socket
// (decrypted data or records already read from it), else 0.
[[nodiscard]] int dg_tls_pending(int sock);
// Copies the library's reason of the last failed read or write on sock's session. Returns 1
// when there is one, else 0 (reason then empty).
int dg_tls_failure(int sock, char *reason, size_t reason_size);
// Sends the close notification on sock's session, without waiting. Cannot fail.
void dg_tls_shutdown(int sock);
// Detaches and frees sock's session; the socket itself stays open. Cannot fail.
void dg_tls_free(int sock);

// What -t prints: checks the settings like dg_tls_init and prints the refusal line on
// standard error, or "TLS setting: <mode>" on standard output. Returns 0 either way.
int dg_tls_check_settings();
