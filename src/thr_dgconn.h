// thr_dgconn: the one TCP connection to the DG. The connection thread THR_DGCONN connects,
// identifies the agent, publishes the socket, reads and dispatches every packet and
// reconnects after any failure; the sender thread THR_DGCONN_SENDER writes the send queue,
// which any thread fills through add_to_send_buffer while a connection is up.
// Thread safety: add_to_send_buffer and dg_write_direct may be called from any thread.
// g_dg_sock and g_dg_is_connection are written by the connection thread only (socket before
// flag) and read anywhere. The queue and the socket's write lock are this unit's own: every
// write on the socket happens under the write lock; the queue list has a lock of its own;
// only the reserved send_buffer_switch holds both (the write lock first).
#pragma once

#include <atomic>
#include <cstdint>
#include <sys/types.h>


struct sockaddr_in;

// ---- connection state ---------------------------------------------------------------------

extern std::atomic<int> g_dg_sock;                   // the connected socket, 0 when none
extern std::atomic<int> g_dg_is_connection;          // 1 while a handshaken connection exists
extern std::atomic<int> g_remote_conf_is_initialize; // cleared on every (dis)connect

inline constexpr int DG_RECONNECT_INTERVAL_MS = 5000;
inline constexpr int DG_RECEIVE_WAIT_SECONDS = 2;
inline constexpr int DG_LINGER_SECONDS = 3;

// Thread body of THR_DGCONN (argument unused). Runs until g_stop_the_world is raised, then
// closes the connection and ends the thread.
// What the status report shows of the connection, kept by the connection thread.
struct dg_conn_status_t {
    int connected;             // 1 while a handshaken connection exists
    int64_t since_ms;          // when the current state (connected or not) began, ms since the epoch
    int64_t last_handshake_ms; // the last successful handshake, 0 before the first
    int handshakes;            // successful handshakes since start
    char address[32];          // the DG address of the last attempt, "ip:port"
    char last_error[160];      // why the last attempt failed or the connection ended
};
// Copies the connection's status. Cannot fail.
void dg_conn_status(dg_conn_status_t *out);

void *thr_DGConn(void *argument);

// Opens an IPv4 stream socket (close-on-exec), connects to ip (network order) : port with
// no time limit of its own, and sets a 3-second linger and TCP keepalive. Returns the
// socket (> 0), -1 when no socket could be opened or the address is unusable, or connect's
// negative result (the socket is closed then; errno tells why).
[[nodiscard]] int ConnectDGServer(uint32_t ip, int port);
// Closes socket (values below 1 are ignored) and its TLS session, and marks the connection down. Waits for a
// write in progress to finish, so no packet is ever written into a reused descriptor.
void DisconnectDGServer(int socket);
// Handshake on a fresh socket: the agent information message, then the first reply read
// and dispatched. Returns 0; -1 the identity could not be sent; -2 no valid reply.
[[nodiscard]] int dg_communicate(int socket);
// Reads one packet (blocking, no time limit) and dispatches it. Returns 0, or the negative
// reader or handler result.
[[nodiscard]] int recv_res_manager_agent_info(int socket);

// IPv4 stream socket, close-on-exec; the descriptor or -1.
[[nodiscard]] int open_socket();
// Plain close. Returns close's result.
int close_socket(int socket);
// Fills address with family IPv4, port (network order) and ip (network order, resolved from
// its dotted text). Returns 0, or -1 when the address does not resolve.
[[nodiscard]] int init_sockaddr(sockaddr_in *address, uint32_t ip, int port);

// ---- send queue and sender ------------------------------------------------------------------

inline constexpr uint32_t SEND_QUEUE_MAX = 2000;  // entries; beyond that packets are dropped
inline constexpr int SENDER_INTERVAL_MS = 100;

// Creates the send queue once (later calls keep it). Returns 0, or -1 when it cannot be
// allocated.
[[nodiscard]] int create_send_queue();
// Queues packet (length bytes) for the sender while a connection is up. Takes ownership of
// packet in every case: a packet that is not queued (no connection, null, no memory, queue
// full) is freed; a full queue (2000 entries) counts the drop in g_info_log. A packet with a
// journal_key removes that journal record once it is written whole. Returns 0.
int add_to_send_buffer(uint32_t message_type, char *packet, uint64_t length, const char *journal_key = nullptr);
// Writes every queued packet: the queue is detached in one step, then each packet is
// written whole under g_send_lock. Returns the number written, or -1 after a failed write,
// which discards the rest of that batch (packets queued meanwhile stay queued). Each
// failure is logged at INFO; a new errno also at ERROR "[KTR-OSM-00080050] ..." (once per
// distinct errno until a write succeeds), except while the agent stops: a stop closes the
// socket under the batch, which is not a send failure, and only the INFO line is logged.
int send_buffer(int socket);
// Drops every queued entry (under the queue's lock). Cannot fail.
void clear_send_queue();
// Sets the reserved queue state (0 empties the queue). Part of the queue's interface;
// nothing in the agent calls it.
void send_buffer_switch(int state);
// Writes one packet at once, bypassing the queue, under the socket's write lock (as Write
// bounds it): the identity message of the handshake and the ping answer. Returns Write's
// result.
ssize_t dg_write_direct(int socket, const void *packet, size_t length);
// Writes the whole buffer within 30 s, all its send calls together (continuing after short
// writes and interrupts; never raises SIGPIPE). A negative socket reports length without
// writing. Returns the bytes written, or -1 with errno when the socket fails or nothing
// went out in time (ETIMEDOUT) (0 for a zero length). A failure after part of the buffer
// went out (a DG that stopped reading) returns the part and shuts the socket down, since
// the DG would read the next packet from the middle of this one.
// A socket with a TLS session writes through it (dg_tls_send): any failure returns -1 and
// shuts the socket down (a TLS record cut in the middle cannot be abandoned).
ssize_t Write(int socket, const void *buffer, size_t length, int flags);
// Write with its own bound in milliseconds for the whole buffer; Write uses 30000.
ssize_t write_within(int socket, const void *buffer, size_t length, int flags, int timeout_ms);
// Thread body of THR_DGCONN_SENDER: writes the queue while connected, at most every 100 ms
// (a queued packet waits at most that long); with nothing queued it sleeps until a packet is
// queued, looking at the stop flag once a second.
void *thr_DGConn_sender(void *argument);
// Number of entries waiting in the send queue.
uint32_t get_send_queue_count();
