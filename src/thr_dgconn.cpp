// thr_dgconn: the DG connection thread (connect, handshake, receive, reconnect), the send
// queue and the sender thread that drains it.
#include "thr_dgconn.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

#include "cmd_journal.h"
#include "dg_tls.h"
#include "global_var.h"
#include "vk_list.h"
#include "vk_lock.h"
#include "on_demand.h"
#include "pkt_proto/proto_send.h"
#include "pub_func.h"
#include "signal_ctl.h"
#include "os/linux/vk_notify.h"
#include "vk_comm.h"
#include "vk_string.h"
#include "vk_time.h"
#include "vklog.h"
#include "vk_raii.h"

std::atomic<int> g_dg_sock{0};
std::atomic<int> g_dg_is_connection{0};
std::atomic<int> g_remote_conf_is_initialize{0};

namespace
{

// One queued packet. A message type of 0 marks an entry dropped unsent.
struct send_queue_entry_t {
    uint32_t message_type;
    uint64_t length; // whole packet, headers included
    char *packet;    // malloc'd; owned by the entry
    char journal_key[64]; // the journal record this packet answers; empty for none
};

vklist_t *g_send_queue = nullptr;  // guarded by g_send_queue_lock; null until created
vklock_t g_send_queue_lock;        // guards g_send_queue
vklock_t g_send_lock;              // serialises writes on the DG socket
std::atomic<int> g_send_queue_act_flag{0}; // 0 inactive, 1 active; a reserved control

// Frees a queue entry and its packet; the list's release function.
void destroy_send_queue(void *entry)
{
    auto *e = static_cast<send_queue_entry_t *>(entry);
    if (e == nullptr)
        return;
    free(e->packet);
    free(e);
}

// Drops every queued entry; the caller holds g_send_queue_lock.
void clear_send_queue_locked()
{
    if (g_send_queue == nullptr)
        return;
    VKLOG_TRACE(g_vklog_console_debug.load(), "[clear_send_queue] send queue count[%d]\n",
                static_cast<int>(count_vklist(g_send_queue)));
    clean_vklist(g_send_queue, destroy_send_queue);
}

// Keepalive: a peer that vanished without a word is noticed after about 60 + 6 * 10 s,
// and the receive loop's error path reconnects.
constexpr int k_keepalive_idle_s = 60;
constexpr int k_keepalive_interval_s = 10;
constexpr int k_keepalive_count = 6;
// Milliseconds a packet's write may take in all, for a DG that does not read.
constexpr int k_send_timeout_ms = 30000;
// Connect failures in a row that are logged; later ones stay silent until a success.
constexpr int k_logged_connect_failures = 3;

// errno of the last send failure logged at ERROR; 0 re-arms the log. Sender thread only.
int s_last_send_errno = 0;

// Wakes the sender when a packet is queued, so an idle sender sleeps instead of looking at
// an empty queue ten times a second. Producers set the flag under the mutex after their push.
// The condition variable is never destroyed: a stop ends the process with exit() while the
// connection thread may still be queuing, and a static destructor would tear it down under
// that thread. It is built in static storage, so this costs no allocation. (std::mutex has
// no destructor to run.)
std::mutex s_sender_wake_mutex;
alignas(std::condition_variable) unsigned char s_sender_wake_storage[sizeof(std::condition_variable)];
std::condition_variable &s_sender_wake = *new (s_sender_wake_storage) std::condition_variable;
bool s_sender_wake_pending = false;
// Longest the idle sender sleeps before it looks at the stop flag again (a stop is not
// signalled through the condition variable: the signal handler and other threads just set
// the flag).
constexpr auto k_sender_idle_step = std::chrono::seconds(1);

void wake_sender()
{
    {
        std::lock_guard<std::mutex> guard(s_sender_wake_mutex);
        s_sender_wake_pending = true;
    }
    s_sender_wake.notify_one();
}

// Blocks the sender until a packet has been queued since its last pass (or the stop flag
// is up). A packet queued while the sender slept goes out at once; one queued during a
// pass waits for the pass after the 100 ms step.
void wait_for_queued_packet()
{
    std::unique_lock<std::mutex> lock(s_sender_wake_mutex);
    while (!s_sender_wake_pending && g_stop_the_world.load() == 0)
        s_sender_wake.wait_for(lock, k_sender_idle_step);
    s_sender_wake_pending = false;
}

struct entry_deleter {
    void operator()(send_queue_entry_t *entry) const { destroy_send_queue(entry); }
};
using entry_ptr = std::unique_ptr<send_queue_entry_t, entry_deleter>;

// Sleeps ms in short steps, returning early once the stop flag is raised, so a stop is not
// held up by a reconnect wait.
void sleep_unless_stopped(int ms)
{
    for (int left = ms; left > 0 && g_stop_the_world.load() == 0; left -= 100) {
        vk_heartbeat(HEARTBEAT_DGCONN); // waiting to reconnect is no hang
        vk_sleep(left < 100 ? left : 100);
    }
}

void set_socket_options(int sock)
{
    linger lin{};
    lin.l_onoff = 1;
    lin.l_linger = DG_LINGER_SECONDS;
    setsockopt(sock, SOL_SOCKET, SO_LINGER, &lin, sizeof(lin));
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    int idle = k_keepalive_idle_s, interval = k_keepalive_interval_s, count = k_keepalive_count;
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval));
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof(count));
    // A DG that keeps the connection but stops reading must not hold a writer (and with it
    // the write lock the ping answer needs) for ever: Write bounds each packet as a whole.
}

// Starts the sender thread, detached with the worker stack size.
void start_sender_thread()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, VK_THREAD_STACK_SIZE);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    run_thread(&tid, &attributes, thr_DGConn_sender, nullptr, "THR_DGCONN_SENDER");
    pthread_attr_destroy(&attributes);
}

// ---- connection status ----------------------------------------------------------------

std::mutex s_conn_status_lock;
dg_conn_status_t s_conn_status{};

// Records the outcome of an attempt or the end of a connection: error is null for a success.
void note_connection(int connected, const char *error)
{
    std::lock_guard<std::mutex> guard(s_conn_status_lock);
    const int64_t now = vk_get_time_msec();
    if (connected != s_conn_status.connected || s_conn_status.since_ms == 0)
        s_conn_status.since_ms = now;
    s_conn_status.connected = connected;
    vk_strlcpy(s_conn_status.address, g_dgconn_slave_info.addr_text);
    if (connected != 0) {
        s_conn_status.last_handshake_ms = now;
        s_conn_status.handshakes++;
        s_conn_status.last_error[0] = '\0';
    } else {
        vk_strlcpy(s_conn_status.last_error, error != nullptr ? error : "");
    }
}

// Sends the done results the journal holds: ones lost with an earlier connection and, after
// the first handshake, the answers to commands the last stop interrupted.
void send_journaled_results()
{
    cmd_journal_send_guard guard; // a result being queued now is not sent twice
    auto keys = vk_alloc_array<char[64]>(CMD_JOURNAL_MAX);
    auto answer = vk_alloc_zeroed<cmd_info_t>();
    if (!keys || !answer)
        return;
    const int n = cmd_journal_to_send(keys.get(), CMD_JOURNAL_MAX);
    for (int i = 0; i < n; i++) {
        if (cmd_journal_answer(keys[i], answer.get()) != 0)
            continue;
        VKLOG_INFO(g_vklog.load(), "[thr_DGConn] journaled result sent again. execution_id[%s] result[%d][%s]\n",
                   answer->execution_id, answer->result, cmd_result_name(answer->result));
        send_res_command(answer.get(), CMD_PHASE_DONE, keys[i]);
    }
}

// A TLS session the DG side refused counts and is logged like a refused connection.
void log_tls_failure(int *failures, const char *reason)
{
    if (*failures < k_logged_connect_failures) {
        VKLOG_ERROR(g_vklog.load(),
                    "[KTR-OSM-00020100] TLS handshake failed with DataGather Server %s: %s. Interval:%d(ms)\n",
                    g_dgconn_slave_info.addr_text, reason, DG_RECONNECT_INTERVAL_MS);
        (*failures)++;
    }
}

// One connection attempt with its handshake. Returns the published socket, or 0 after a
// failure (already logged and waited for). failures counts connect failures in a row.
int connect_and_identify(int *failures)
{
    g_dg_is_connection.store(0);
    g_dg_sock.store(0);
    g_remote_conf_is_initialize.store(0);
    {
        clear_send_queue();
    }
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    set_dg_address();
    if (g_dgconn_slave_info.ip == 0) {
        VKLOG_ERROR(g_vklog.load(), "[thr_DGConn][reconnect case] Check Option Value. [MGR_RECEIVER_ADDR]\n");
        note_connection(0, "MGR_RECEIVER_ADDR is not a usable address");
        sleep_unless_stopped(DG_RECONNECT_INTERVAL_MS);
        return 0;
    }
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    int sock = ConnectDGServer(g_dgconn_slave_info.ip, g_dgconn_slave_info.port);
    if (sock <= 0) {
        const int connect_errno = errno;
        char error[128];
        snprintf(error, sizeof(error), "connect failed: %s", strerror(connect_errno));
        note_connection(0, error);
        errno = connect_errno;
        if (*failures < k_logged_connect_failures) {
            VKLOG_ERROR(g_vklog.load(),
                        "[thr_DGConn] Connection failed for DataGather Server. Socket:%d Interval:%d(ms) (%d)\n",
                        sock, DG_RECONNECT_INTERVAL_MS, errno);
            (*failures)++;
        }
        sleep_unless_stopped(DG_RECONNECT_INTERVAL_MS);
        return 0;
    }
    char reason[256];
    if (dg_tls_mode() != DG_TLS_UNENCRYPTED && dg_tls_connect(sock, reason, sizeof(reason)) != 0) {
        log_tls_failure(failures, reason);
        note_connection(0, reason);
        close_socket(sock);
        sleep_unless_stopped(DG_RECONNECT_INTERVAL_MS);
        return 0;
    }
    VKLOG_INFO(g_vklog.load(), "[thr_DGConn] connection success.\n");
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    int ret = dg_communicate(sock);
    if (ret != 0) {
        // Over TLS 1.3 a refused client certificate shows only at the first read.
        if (dg_tls_failure(sock, reason, sizeof(reason)))
            log_tls_failure(failures, reason);
        VKLOG_INFO(g_vklog.load(), "[thr_DGConn] dg_communicate() has failed.[sock:%d,ret:%d]\n", sock, ret);
        note_connection(0, ret == -1 ? "the identity message could not be sent" : "no answer to the identity message");
        DisconnectDGServer(sock);
        sleep_unless_stopped(DG_RECONNECT_INTERVAL_MS);
        return 0;
    }
    VKLOG_DEBUG(g_vklog.load(), "[thr_DGConn] send identity success.\n");
    g_dg_sock.store(sock); // published before the flag, so no reader sees the flag first
    g_dg_is_connection.store(1);
    note_connection(1, nullptr);
    VKLOG_INFO(g_vklog.load(), "[thr_DGConn] sock(%d),data gather connect(%d)\n", sock, 1);
    send_req_timesync();
    send_journaled_results();
    *failures = 0;
    return sock;
}

} // namespace

// ---- connection thread ------------------------------------------------------------------

void *thr_DGConn(void *)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    pthread_setname_np(pthread_self(), "quil-dgconn");
    set_nio_header_version(2);
    initialize_agent_info();
    if (create_send_queue() != 0) {
        VKLOG_ERROR(g_vklog.load(), "[thr_DGConn] create list failed\n");
        g_stop_the_world.store(1);
    }
    if (g_dgconn_slave_info.ip != 0) {
        VKLOG_INFO(g_vklog.load(), "[thr_DGConn] receiver=%x:%d [%s]\n", g_dgconn_slave_info.ip,
                   g_dgconn_slave_info.port, g_dgconn_slave_info.addr_text);
        start_sender_thread();
    } else {
        VKLOG_ERROR(g_vklog.load(), "[thr_DGConn] Check Option Value. [MGR_RECEIVER_ADDR]\n");
        g_stop_the_world.store(1);
    }
    int failures = 0;
    int sock = 0;
    while (g_stop_the_world.load() == 0) {
        vk_heartbeat(HEARTBEAT_DGCONN);
        if (g_dg_is_connection.load() == 0) {
            sock = connect_and_identify(&failures);
            if (sock == 0)
                continue;
        }
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        int ret = processing_socket_dynamic(sock, 1, DG_RECEIVE_WAIT_SECONDS, read_msg_nio, &sock);
        if (ret >= 0 || ret == -100)
            continue;
        DisconnectDGServer(sock);
        g_dg_sock.store(0); // closed: the final disconnect must not close a reused number
        sleep_unless_stopped(DG_RECONNECT_INTERVAL_MS);
        VKLOG_INFO(g_vklog.load(), "[thr_DGConn] retry connection ... [ret: %d]\n", ret);
    }
    DisconnectDGServer(g_dg_sock.load());
    VKLOG_INFO(g_vklog.load(), "[thr_DGConn] finish normally.\n");
    return nullptr;
}

int open_socket()
{
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int close_socket(int socket)
{
    return close(socket);
}

int init_sockaddr(sockaddr_in *address, uint32_t ip, int port)
{
    if (address == nullptr)
        return -1;
    memset(address, 0, sizeof(*address));
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<uint16_t>(port));
    // The address travels as dotted text, first octet from the first address byte.
    const auto *b = reinterpret_cast<const unsigned char *>(&ip);
    char text[INET_ADDRSTRLEN];
    snprintf(text, sizeof(text), "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    char resolved[INET6_ADDRSTRLEN];
    if (getIPFromDomain(text, resolved, sizeof(resolved)) != 0 ||
        inet_pton(AF_INET, resolved, &address->sin_addr) != 1)
        return -1;
    return 0;
}

int ConnectDGServer(uint32_t ip, int port)
{
    int sock = open_socket();
    if (sock <= 0) {
        if (sock == 0)
            close_socket(sock);
        return -1;
    }
    sockaddr_in address;
    if (init_sockaddr(&address, ip, port) != 0) {
        close_socket(sock);
        return -1;
    }
    int ret;
    do {
        ret = connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    } while (ret < 0 && errno == EINTR);
    if (ret < 0) {
        int err = errno;
        close_socket(sock);
        errno = err;
        return ret;
    }
    set_socket_options(sock);
    return sock;
}

void DisconnectDGServer(int socket)
{
    if (socket < 1)
        return;
    // Shutting down first ends a write blocked on a peer that stopped reading; closing
    // under the write lock then keeps a queued packet from reaching a reused descriptor.
    // A TLS session says goodbye first and goes with the descriptor.
    dg_tls_shutdown(socket);
    shutdown(socket, SHUT_RDWR);
    {
        std::lock_guard<vklock_t> guard(g_send_lock);
        g_dg_is_connection.store(0);
        dg_tls_free(socket);
        close_socket(socket);
    }
    g_remote_conf_is_initialize.store(0);
    {
        std::lock_guard<std::mutex> guard(s_conn_status_lock);
        if (s_conn_status.connected != 0) {
            s_conn_status.connected = 0;
            s_conn_status.since_ms = vk_get_time_msec();
            vk_strlcpy(s_conn_status.last_error, "connection lost");
        }
    }
    VKLOG_INFO(g_vklog.load(), "[DisconnectDGServer] sock:%d\n", socket);
}

void dg_conn_status(dg_conn_status_t *out)
{
    std::lock_guard<std::mutex> guard(s_conn_status_lock);
    *out = s_conn_status;
}

int dg_communicate(int socket)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    int ret = send_manager_agent_info(socket);
    if (ret < 0) {
        VKLOG_INFO(g_vklog.load(), "[dg_communicate] send_manager_agent_info() has failed.[sock:%d, ret:%d]\n",
                   socket, ret);
        return -1;
    }
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    ret = recv_res_manager_agent_info(socket);
    if (ret < 0) {
        VKLOG_INFO(g_vklog.load(), "[dg_communicate] recv_res_manager_agent_info() has failed.[sock:%d, ret:%d]\n",
                   socket, ret);
        return -2;
    }
    return 0;
}

int recv_res_manager_agent_info(int socket)
{
    return receive_nio_packet(socket, read_msg_nio, &socket);
}

// ---- send queue ---------------------------------------------------------------------------

int create_send_queue()
{
    std::lock_guard<vklock_t> guard(g_send_queue_lock);
    if (g_send_queue == nullptr)
        g_send_queue = create_vklist();
    return g_send_queue != nullptr ? 0 : -1;
}

int add_to_send_buffer(uint32_t message_type, char *packet, uint64_t length, const char *journal_key)
{
    vk_unique_malloc<char> owned(packet);
    if (g_dg_is_connection.load() < 1 || packet == nullptr)
        return 0;
    entry_ptr entry(static_cast<send_queue_entry_t *>(calloc(1, sizeof(send_queue_entry_t))));
    if (!entry)
        return 0;
    entry->message_type = message_type;
    entry->length = length;
    entry->packet = owned.release();
    if (journal_key != nullptr)
        vk_strlcpy(entry->journal_key, journal_key);
    std::lock_guard<vklock_t> guard(g_send_queue_lock);
    if (g_send_queue == nullptr)
        return 0;
    if (count_vklist(g_send_queue) >= SEND_QUEUE_MAX) {
        g_info_log.fetch_add(1);
        return 0;
    }
    if (g_dg_is_connection.load() > 0 && push_back_vklist(g_send_queue, entry.get()) > 0) {
        entry.release(); // the queue owns it now
        wake_sender();
    }
    return 0;
}

void clear_send_queue()
{
    std::lock_guard<vklock_t> guard(g_send_queue_lock);
    clear_send_queue_locked();
}

ssize_t dg_write_direct(int socket, const void *packet, size_t length)
{
    std::lock_guard<vklock_t> guard(g_send_lock);
    return Write(socket, packet, length, 0);
}

uint32_t get_send_queue_count()
{
    std::lock_guard<vklock_t> guard(g_send_queue_lock);
    return g_send_queue != nullptr ? count_vklist(g_send_queue) : 0;
}

ssize_t Write(int socket, const void *buffer, size_t length, int flags)
{
    return write_within(socket, buffer, length, flags, k_send_timeout_ms);
}

ssize_t write_within(int socket, const void *buffer, size_t length, int flags, int timeout_ms)
{
    if (socket < 0)
        return static_cast<ssize_t>(length);
    if (dg_tls_attached(socket))
        return dg_tls_send(socket, buffer, length, timeout_ms);
    // A half-written packet would leave the DG reading the next packet from its middle, so
    // short writes are continued; MSG_NOSIGNAL turns a closed peer into EPIPE, not a signal.
    // Each send takes what fits without waiting, and the waits for room between them share
    // one deadline: a packet that needs many sends is bounded as a whole, not per send.
    const char *p = static_cast<const char *>(buffer);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t done = 0;
    while (done < length) {
        ssize_t n = send(socket, p + done, length - done, flags | MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd room{socket, POLLOUT, 0};
            int ready = left.count() > 0 ? poll(&room, 1, static_cast<int>(left.count())) : 0;
            if (ready > 0 || (ready < 0 && errno == EINTR))
                continue; // room, or an error the next send reports
            if (ready == 0)
                errno = ETIMEDOUT;
        }
        if (n <= 0) {
            // Part of a packet is on the wire: the stream is cut, so end the connection
            // (the receive loop sees it and reconnects) rather than let the DG read on.
            if (done > 0)
                shutdown(socket, SHUT_RDWR);
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

int send_buffer(int socket)
{
    vklist_t batch;
    init_vklist(&batch);
    {
        std::lock_guard<vklock_t> guard(g_send_queue_lock);
        if (g_send_queue != nullptr)
            move_bulk_vklist(g_send_queue, &batch);
    }
    int sent = 0;
    while (!is_empty_vklist(&batch)) {
        entry_ptr entry(static_cast<send_queue_entry_t *>(pop_front_vklist(&batch)));
        if (!entry || entry->message_type == 0)
            continue;
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN_SENDER);
        VKLOG_DEBUG(g_vklog.load(), "[send_buffer] send packet number: %d\n", static_cast<int>(entry->message_type));
        ssize_t n;
        int err;
        {
            std::lock_guard<vklock_t> guard(g_send_lock);
            if (g_dg_is_connection.load() > 0 && g_dg_sock.load() == socket) {
                n = Write(socket, entry->packet, entry->length, 0);
                err = errno;
            } else {
                n = -1; // the connection went down since the batch was taken
                err = ENOTCONN;
            }
        }
        if (n < 1) {
            VKLOG_INFO(g_vklog.load(), "[send_buffer] send error: %s(%d) (%d)\n", strerror(err), err,
                       static_cast<int>(n));
            // A stop closes the socket under the batch: the packets are dropped, but nothing
            // failed that an operator should look into.
            if (g_stop_the_world.load() != 0) {
                VKLOG_INFO(g_vklog.load(), "[send_buffer] agent stopping; %d more queued packet(s) not sent.\n",
                           static_cast<int>(count_vklist(&batch)));
            } else if (err != s_last_send_errno) {
                VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080050] Packet send failed. (%d)\n", err);
                s_last_send_errno = err;
            }
            clean_vklist(&batch, destroy_send_queue);
            return -1;
        }
        s_last_send_errno = 0;
        if (entry->journal_key[0] != '\0' && static_cast<uint64_t>(n) == entry->length)
            cmd_journal_remove(entry->journal_key);
        sent++;
    }
    return sent;
}

void send_buffer_switch(int state)
{
    static constexpr const char *names[] = {"inactive", "active"};
    auto name = [](int s) { return s == 0 || s == 1 ? names[s] : "unknown"; };
    std::lock_guard<vklock_t> guard(g_send_lock);
    int old = g_send_queue_act_flag.load();
    if (state == old)
        return;
    if (state == 0) {
        std::lock_guard<vklock_t> queue_guard(g_send_queue_lock);
        clear_send_queue_locked();
    }
    VKLOG_TRACE(g_vklog_console_debug.load(), "[send_buffer_switch] change stat[%s->%s]\n", name(old), name(state));
    g_send_queue_act_flag.store(state);
}

void *thr_DGConn_sender(void *)
{
    int failures = 0;
    while (g_stop_the_world.load() == 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN_SENDER);
        if (g_dg_is_connection.load() > 0) {
            int ret = send_buffer(g_dg_sock.load());
            if (ret > 0) {
                failures = 0;
            } else if (ret == -3 && failures <= 2) {
                // send_buffer reports failure as -1, so this stays silent: its own lines
                // report the failure. Kept as a reserved report.
                VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00060010] Packet send failed.\n");
                failures++;
            }
        }
        vk_sleep(SENDER_INTERVAL_MS);
        wait_for_queued_packet();
    }
    VKLOG_INFO(g_vklog.load(), "[thr_DGConn_sender] finish normally.\n");
    return nullptr;
}
