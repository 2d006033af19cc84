// quil-dg-sim: a stand-in for the data gather server, built on libprotobuf and the reference
// schema only, framed by the DG side's wire library (dg_wire.h); it shares no code with the
// agent. This header is the interface between the tool's units: JSON output and lenient
// decoding (dg_sim_json), the listener and connections (dg_sim_conn), the command loop.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "dg_wire.h"
#include "dg_wire_tls.h"

namespace dg_sim
{

// Framing, the message table, the socket loops and hex: the DG side's wire library.
using namespace dg_wire;

// ---- JSON output (dg_sim_json) -------------------------------------------------------------

// Writes one line to standard output under the output lock and flushes it. Any thread.
void emit(const std::string &line);

// Appends s as a JSON string literal: control characters (and DEL) as \u00XX, each byte
// that is not part of valid UTF-8 as \ufffd (and *invalid_utf8 set when given). Cannot fail.
void json_string(std::string &out, std::string_view s, bool *invalid_utf8 = nullptr);

// A flat JSON object built member by member: {"a":1,"b":"x"}.
struct json_object {
    std::string text = "{";
    json_object &str(const char *key, std::string_view value);
    json_object &num(const char *key, int64_t value);
    json_object &unum(const char *key, uint64_t value);
    json_object &boolean(const char *key, bool value);
    json_object &raw(const char *key, std::string_view json);  // value already JSON
    std::string end() const { return text + "}"; }

  private:
    void key(const char *key);
};

// What the message printer noticed on the way.
struct json_notes {
    size_t unknown_fields = 0;
    bool invalid_utf8 = false;
};

// Prints message m as a JSON object. orig is the reference schema's descriptor of the same
// message (it decides string versus bytes); skip names one top-level field left out.
// Integers and enums as numbers, strings escaped, bytes as hex, repeated fields and maps as
// arrays (a map as [{"key":..,"value":..}] in wire order), absent sub-messages omitted.
void message_json(std::string &out, const google::protobuf::Message &m,
                  const google::protobuf::Descriptor *orig, json_notes *notes,
                  const char *skip = nullptr);

// Decodes body as the message named proto (full name, e.g. "dg.req_time_sync") leniently:
// string fields are not checked for UTF-8 and map entries keep their wire order and
// duplicates. Returns the message (owned by the caller), or null when the bytes are not a
// valid encoding of it.
std::unique_ptr<google::protobuf::Message> decode_lenient(const char *proto, std::string_view body);

// The JSON of body as the type's message ("{}" for an empty-body type with an empty body).
// Returns 0; -1 when the body does not decode (or an empty-body type carries bytes); -2 for
// an unknown type. A 60004 is printed without chunk_data, with "chunk_data_len" instead.
int body_json(uint16_t type, std::string_view body, std::string *out, json_notes *notes);

// ---- connections (dg_sim_conn) -------------------------------------------------------------

enum class handshake_mode { reply, refuse, silent, ping };

// Settings the reader threads act on; filled once by main before the listener starts.
struct sim_config {
    std::string manager_id = "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47";
    handshake_mode handshake = handshake_mode::reply;
    std::vector<int64_t> skews{0};
    bool timesync = true;
    tls_server_options tls;              // --tls-*: empty, plain TCP
    std::unique_ptr<tls_server> tls_ctx; // loaded from tls when enabled
};
extern sim_config g_config;

// Raised by main on quit, end of input (with --exit-on-eof) or a signal; every loop ends.
extern std::atomic<bool> g_stop;

// One accepted connection. Its reader thread owns the read side, its writer thread is the
// only writer of the socket; everyone else hands packets to the writer through the queue.
struct connection {
    struct item {
        std::string packet;
        std::string sent_line;  // printed just before the write; empty: print nothing
        uint64_t seq;
    };
    connection(int fd, int id, std::string peer) : fd(fd), id(id), peer(std::move(peer)) {}
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    const int fd;
    const int id;
    const std::string peer;
    std::atomic<bool> closing{false};
    std::atomic<bool> paused{false};

    std::mutex lock;  // guards everything below
    std::condition_variable cv;
    std::deque<item> queue;
    size_t queued_bytes = 0;
    uint64_t next_seq = 0;
    uint64_t written_seq = 0;
    bool finished = false;  // reader and writer have ended, "disconnected" printed
    std::string close_reason;
    std::string write_error;
};

// The connection being served, or null. Any thread.
std::shared_ptr<connection> current_connection();

// Queues a packet for the writer. With room_limit non-zero it first waits while more than
// room_limit bytes are queued. Returns the sequence number (> 0), or 0 when the connection is
// closing or g_stop was raised (nothing queued).
uint64_t conn_enqueue(connection &c, std::string packet, std::string sent_line, size_t room_limit = 0);

// Waits until the packet with sequence seq has been written. Returns 0, or -1 with *error set
// when the connection closed first or the write failed.
int conn_wait_written(connection &c, uint64_t seq, std::string *error);

// Starts closing the connection (shutdown of both directions); the first reason given is the
// one printed. Any thread; harmless when already closing.
void conn_close(connection &c, const std::string &reason);

// Waits until the connection's threads have ended and "disconnected" was printed.
void conn_wait_finished(connection &c);

// Binds and listens on host:port (SO_REUSEADDR). Returns the socket, or -1 with *error set.
int listen_on(const std::string &host, uint16_t port, std::string *error);

// Accept loop: serves one connection at a time, a new one replacing the current one, until
// g_stop; then closes the current connection and waits for its threads. Thread body.
void acceptor_main(int listen_fd);

// The body of a 50036 identity reply carrying manager_id (empty: the agent is refused) and
// protocol versions 20241111. Cannot fail.
std::string build_identity(const std::string &manager_id);

// The "sent" line of a packet about to be written: type, name, total length and decoded body
// (hex when it does not decode); extra members (already JSON, starting with ',') at the end.
std::string sent_line(int conn, uint16_t type, std::string_view body, const std::string &extra = "");

} // namespace dg_sim
