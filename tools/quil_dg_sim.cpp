// quil-dg-sim: a data gather server simulator for developing and testing the agent. This
// unit owns the command line, the start and clean end of the process, and the commands read
// from standard input (one per line) that make the simulator send packets. Tests drive it
// through harness/dg_sim_support.h; operators read `quil-dg-sim --help`.
#include "dg_sim.h"

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include "dg_protocol.pb.h"

using namespace dg_sim;

namespace
{

const char k_usage[] = R"(Usage: quil-dg-sim [OPTIONS]

A data gather (DG) server simulator for the quil-manager-agent. It listens for the agent's
TCP connection, prints every packet it receives as one JSON line on standard output,
answers the handshake (10043 -> 50036) and time sync (40006 -> 50020) by itself, and sends
whatever the commands on standard input ask for. It uses libprotobuf with the reference
schema and shares no code with the agent.

Options:
  --listen HOST:PORT   address to listen on (IPv4; default 127.0.0.1:0, port 0 = any free
                       port); SO_REUSEADDR, so a restarted simulator can take the same port
  --port-file FILE     also write the bound port (decimal and a newline) to FILE, through
                       FILE.tmp and a rename
  --manager-id ID      manager id of the 50036 handshake reply
                       (default 3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47)
  --handshake MODE     how to answer a 10043: reply (default: 50036 with the manager id,
                       protocol_version and dg_protocol_version 20241111) | refuse (50036
                       with an empty manager id) | silent (no answer) | ping (a 50000 ping
                       instead of the 50036)
  --refuse             same as --handshake refuse
  --skew MS[,MS...]    signed milliseconds added to the simulator's clock in the 50020
                       time-sync replies, one value per reply, used in turn cyclically
                       across the whole run (default 0)
  --no-timesync        ignore 40006 time-sync requests
  --exit-on-eof        exit (status 0) at the end of standard input; by default the
                       simulator keeps serving
  --tls-cert FILE      serve TLS (1.2 or 1.3) with this PEM certificate (intermediates after
                       it) and --tls-key FILE, its unencrypted PEM key, like a TLS terminator
                       in front of a DG; the NIO packets travel inside unchanged
  --tls-client-ca FILE require a client certificate issued by this PEM CA
  --tls-psk-identity ID
  --tls-psk-file FILE  serve TLS with a pre-shared key instead of (or beside) a certificate:
                       the client must name ID; FILE holds the key in hex
  --help               this text

With TLS, the handshake (10 s at most) comes before the "connected" event, which then
carries "tls":"<protocol> <suite>"; a failed one prints {"event":"tls_failed","peer":
"IP:PORT","error":TEXT} and the connection is closed.

Connections are served one at a time; a new connection replaces the current one. A 10043
that does not decode gets no answer. Every packet sent carries header version 2,
packet_type 4, packet_id 0, protocol stamp 19121701 and body_kind 4 (50000, 50001),
2 (50020, 50036) or 1 (60001, 60004, anything else).

Commands (standard input, one per line: VERB key=value ...; a value has no spaces but may
contain '='; empty lines and lines starting with '#' are ignored). Each command ends with
a "done" or an "error" event. Unless noted, a command needs a connection and its "done"
comes after its packets were written to the socket.
  ping                       send a 50000 ping (empty body)
  timezone                   send a 50001 timezone request (empty body)
  identity [id=ID]           send an unsolicited 50036 (default: the --manager-id)
  restart ARGS               send a 60001 req_command_message, cmd_type 1 (agent_restart)
  stop ARGS                  the same with cmd_type 2 (agent_stop)
  command cmd_type=N ARGS    the same with any cmd_type
    ARGS: agent=ID (agent_id)  exec=E (execution_id, default exec-<n>)  cmd=C (command_id,
          default cmd-<n>; n counts the 60001 sent)  agent_type=N (default 1)
          run_path=P run_user=U install_path=P install_user=U (default empty)
          timeout=MS (default 60000)  opt=K=V (repeatable: the target_agent_infos options,
          put on the wire in the order given, duplicates kept; without any opt= one
          option source=quil-dg-sim is sent)  no_opts=1 (send no option at all)
  patch_start ARGS file=PATH [name=NAME] [size=N] [no_file_info=1] [chunk=BYTES]
              [chunks=N] [chunk_delay=MS]
                             send a 60001 with cmd_type 3 (patch_start) and target_file_info
                             {file_name: NAME (default basename of PATH), file_size: N
                             (default the real size)}; no_file_info=1 leaves the field out
                             (file= is then optional). Then stream PATH as 60004 chunks of
                             BYTES (default 65536): chunk_index from 1, chunk_count = number
                             of chunks (an empty file is one chunk of size 0), the
                             request's execution_id and agent_id, target_file_info with
                             name and size, chunk_size, chunk_data. chunks=N sends only the
                             first N chunks (0: none); chunk_delay=MS waits between chunks.
                             Only the first and the last chunk get a "sent" line; "done"
                             carries "chunks" and "bytes".
  patch_stop ARGS            send a 60001 with cmd_type 4 (patch_stop)
  chunk [agent=ID] [exec=E] [index=I] [count=C] [name=NAME] [file_size=N] [size=N]
        [data=HEX | file=PATH [offset=O] [length=L]] [no_file_info=1]
                             send one hand-made 60004: chunk_index I (default 1),
                             chunk_count C (default 1), chunk_data from HEX or from PATH,
                             chunk_size N (default the data length; may exceed it),
                             target_file_info {NAME, file_size (default data length)}
  send type=N [hex=BODY] [kind=B]
                             frame BODY (hex, default empty) as message type N
                             (body_kind B, default from the table above)
  raw hex=BYTES              write the bytes as they are (garbage, bad lengths ...)
  close                      close the connection ("done" after "disconnected")
  pause_reading              stop reading the socket (the peer's writes back up)
  resume_reading             read again
  sleep ms=N                 wait N milliseconds (needs no connection)
  quit                       exit with status 0 (needs no connection)

Events (standard output, one JSON object per line, flushed per line):
  {"event":"listening","address":"127.0.0.1","port":N}        always the first line
  {"event":"connected","conn":K,"peer":"IP:PORT"}      plus "tls":"TLSv1.3 SUITE" over TLS
  {"event":"tls_failed","peer":"IP:PORT","error":TEXT} a TLS handshake failed
  {"event":"disconnected","conn":K,"reason":"peer closed"|"closed by command"|
      "replaced by conn K2"|"shutdown"|<the error>}
  {"event":"recv","conn":K,"type":T,"name":NAME,"header":{"version":V,"packet_type":P,
      "length":L,"packet_id":I,"body_kind":B,"protocol_stamp":S},"body":{...}}
      plus "unknown_fields":N when the body held fields the schema does not know, and
      "invalid_utf8":true when a string field was not UTF-8. A body that does not decode:
      "error":"decode failed","hex":HEX instead of "body"; an unknown type: "hex":HEX.
      HEX covers at most 4096 bytes ("hex_truncated":true beyond).
  {"event":"sent","conn":K,"type":T,"name":NAME,"length":TOTAL,"body":{...}}
      printed just before the packet is written; a 50020 reply adds "diff": agent_time -
      dg_time (signed); a 60004 body shows "chunk_data_len" instead of chunk_data; raw
      bytes print {"event":"sent","conn":K,"raw":true,"length":N}.
  {"event":"done","command":VERB,...}  with "execution_id" and "command_id" for 60001
      commands, "chunks" and "bytes" for patch_start
  {"event":"error","command":VERB,"error":TEXT}      a command failed ("not connected",
      "bad argument K=V", "unknown argument K", ...)
  {"event":"error","conn":K,"error":TEXT}            bad packet from the peer ("bad magic
      ...", "bad length ...", "truncated ...") or a failed write; the connection is closed
  {"event":"exit","reason":"quit"|"end of input"|"signal N"}   the last line

Body JSON: fields by their schema names in field-number order; integers and enums as
numbers; strings escaped (control characters as \u00XX, bytes that are not UTF-8 as
\ufffd); bytes fields as lower-case hex; repeated fields as arrays; maps as arrays of
{"key":K,"value":V} in wire order, duplicates kept; absent sub-messages left out; scalars
at their default value printed too; empty-body types print "body":{}.

Names: 10043 common_req_agent_info_message, 40000 ping_answer, 40001
res_timezone_offset_message, 40006 req_time_sync, 50000 ping, 50001 timezone_request,
50020 res_time_sync_message, 50036 common_res_agent_info_message, 60001
req_command_message, 60002 res_command_message, 60003 target_agent_info_message, 60004
req_file_chunk_message; any other type is "unknown".

Exit status: 0 after quit, end of input with --exit-on-eof, SIGTERM or SIGINT; 2 on a bad
option or when the address cannot be bound.
)";

constexpr size_t k_max_line = 64u << 20;         // longest command line accepted
constexpr size_t k_stream_window = 4u << 20;     // bytes of chunks queued ahead of the socket
constexpr uint64_t k_max_chunk = 16u << 20;      // largest chunk patch_start/chunk will build
const char k_request_keys[] = "agent exec cmd cmd_type agent_type run_path run_user install_path install_user "
                              "timeout opt no_opts";

std::mutex s_exit_lock;
std::string s_exit_reason;  // guarded by s_exit_lock; the first reason wins
uint64_t s_request_count = 0;  // 60001 requests built (command loop only)

void request_stop(const std::string &reason)
{
    {
        std::lock_guard<std::mutex> guard(s_exit_lock);
        if (s_exit_reason.empty())
            s_exit_reason = reason;
    }
    g_stop = true;
}

// ---- command arguments ---------------------------------------------------------------------

struct command_args {
    std::string verb;
    std::vector<std::pair<std::string, std::string>> kv;

    // The last value given for key, or null.
    const std::string *find(const char *key) const
    {
        const std::string *found = nullptr;
        for (const auto &[k, v] : kv)
            if (k == key)
                found = &v;
        return found;
    }
    std::string get(const char *key, const std::string &fallback = "") const
    {
        const std::string *v = find(key);
        return v != nullptr ? *v : fallback;
    }
    bool flag(const char *key) const { return get(key, "0") != "0"; }
};

// Splits a line into verb and key=value words. Returns 0, or -1 with *error naming a word
// without '='.
int parse_command(const std::string &line, command_args *args, std::string *error)
{
    size_t pos = 0;
    while (pos < line.size()) {
        size_t start = line.find_first_not_of(" \t", pos);
        if (start == std::string::npos)
            break;
        size_t end = line.find_first_of(" \t", start);
        std::string word = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        pos = end == std::string::npos ? line.size() : end;
        if (args->verb.empty()) {
            args->verb = word;
            continue;
        }
        size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0) {
            *error = "bad argument " + word;
            return -1;
        }
        args->kv.emplace_back(word.substr(0, eq), word.substr(eq + 1));
    }
    return 0;
}

// Every key of args must appear in the space-separated list allowed.
int check_keys(const command_args &args, const std::string &allowed, std::string *error)
{
    for (const auto &kv : args.kv)
        if ((" " + allowed + " ").find(" " + kv.first + " ") == std::string::npos) {
            *error = "unknown argument " + kv.first;
            return -1;
        }
    return 0;
}

// A decimal integer in [lo, hi] under key, fallback when absent. Returns 0, or -1 with *error.
int get_int(const command_args &args, const char *key, int64_t fallback, int64_t lo, int64_t hi, int64_t *out,
            std::string *error)
{
    const std::string *v = args.find(key);
    if (v == nullptr) {
        *out = fallback;
        return 0;
    }
    errno = 0;
    char *end = nullptr;
    long long n = strtoll(v->c_str(), &end, 10);
    if (v->empty() || *end != '\0' || errno != 0 || n < lo || n > hi) {
        *error = "bad argument " + std::string(key) + "=" + *v;
        return -1;
    }
    *out = n;
    return 0;
}

// Sleeps up to ms milliseconds, ending early when the process is stopping.
void sleep_ms(int64_t ms)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!g_stop && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            std::chrono::milliseconds(20), end - std::chrono::steady_clock::now()));
}

// Queues one packet and waits until it was written. Returns 0, or -1 with *error set.
int send_packet(connection &c, std::string packet, std::string line, std::string *error)
{
    uint64_t seq = conn_enqueue(c, std::move(packet), std::move(line));
    if (seq == 0) {
        *error = "not connected";
        return -1;
    }
    return conn_wait_written(c, seq, error);
}

// Appends one map entry (key field 1, value field 2) as length-delimited field `number`.
void append_map_entry(std::string *out, int number, const std::string &key, const std::string &value)
{
    using google::protobuf::internal::WireFormatLite;
    std::string entry;
    {
        google::protobuf::io::StringOutputStream stream(&entry);
        google::protobuf::io::CodedOutputStream coded(&stream);
        WireFormatLite::WriteString(1, key, &coded);
        WireFormatLite::WriteString(2, value, &coded);
    }
    google::protobuf::io::StringOutputStream stream(out);
    google::protobuf::io::CodedOutputStream coded(&stream);
    WireFormatLite::WriteBytes(number, entry, &coded);
}

// ---- commands ------------------------------------------------------------------------------

struct request_ids {
    std::string agent, exec, cmd;
};

// Encodes the 60001 body of a command: fields 1-10 by libprotobuf, the options (field 11) by
// hand in the order given, then field 12 when file is non-null. Returns 0, or -1 with *error.
int build_request(const command_args &a, int64_t cmd_type, const dg::file_info *file, std::string *body,
                  request_ids *ids, std::string *error)
{
    int64_t agent_type = 0, timeout = 0;
    if (get_int(a, "agent_type", 1, INT32_MIN, INT32_MAX, &agent_type, error) != 0 ||
        get_int(a, "timeout", 60000, 0, UINT32_MAX, &timeout, error) != 0)
        return -1;
    uint64_t n = ++s_request_count;
    ids->agent = a.get("agent");
    ids->exec = a.get("exec", "exec-" + std::to_string(n));
    ids->cmd = a.get("cmd", "cmd-" + std::to_string(n));
    dg::req_command_message m;
    m.set_execution_id(ids->exec);
    m.set_command_id(ids->cmd);
    m.set_cmd_type(static_cast<dg::cmd_type_e>(cmd_type));
    m.set_agent_id(ids->agent);
    m.set_agent_type(static_cast<dg::agent_type_e>(agent_type));
    m.set_install_username(a.get("install_user"));
    m.set_install_path(a.get("install_path"));
    m.set_run_username(a.get("run_user"));
    m.set_run_path(a.get("run_path"));
    m.set_timeout(static_cast<uint32_t>(timeout));
    *body = m.SerializeAsString();
    std::vector<std::string> options;
    for (const auto &[k, v] : a.kv)
        if (k == "opt")
            options.push_back(v);
    if (options.empty() && !a.flag("no_opts"))
        options.push_back("source=quil-dg-sim");
    for (const std::string &option : options) {
        size_t eq = option.find('=');
        append_map_entry(body, 11, option.substr(0, eq), eq == std::string::npos ? "" : option.substr(eq + 1));
    }
    if (file != nullptr) {
        dg::req_command_message tail;
        *tail.mutable_target_file_info() = *file;
        *body += tail.SerializeAsString();
    }
    return 0;
}

// Sends a built 60001 and fills the done event with its ids.
int send_request(connection &c, const std::string &body, const request_ids &ids, json_object *done,
                 std::string *error)
{
    if (send_packet(c, frame_packet(60001, 1, body), sent_line(c.id, 60001, body), error) != 0)
        return -1;
    done->str("execution_id", ids.exec).str("command_id", ids.cmd);
    return 0;
}

int cmd_request(const command_args &a, connection &c, json_object *done, std::string *error)
{
    int64_t cmd_type = a.verb == "restart" ? 1 : a.verb == "stop" ? 2 : 4;
    if (a.verb == "command") {
        if (a.find("cmd_type") == nullptr) {
            *error = "bad argument: cmd_type= is required";
            return -1;
        }
        if (get_int(a, "cmd_type", 0, INT32_MIN, INT32_MAX, &cmd_type, error) != 0)
            return -1;
    }
    std::string body;
    request_ids ids;
    if (build_request(a, cmd_type, nullptr, &body, &ids, error) != 0)
        return -1;
    return send_request(c, body, ids, done, error);
}

using file_ptr = std::unique_ptr<FILE, int (*)(FILE *)>;

// Opens path for reading and gives its size. Returns the stream, or null with *error set.
file_ptr open_file(const std::string &path, uint64_t *size, std::string *error)
{
    file_ptr f(fopen(path.c_str(), "rb"), fclose);
    struct stat st {};
    if (f == nullptr || fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = "cannot read " + path + (f == nullptr ? std::string(": ") + strerror(errno) : ": not a file");
        return file_ptr(nullptr, fclose);
    }
    *size = static_cast<uint64_t>(st.st_size);
    return f;
}

std::string chunk_body(const request_ids &ids, const dg::file_info &info, uint64_t size, uint64_t index,
                       uint64_t count, const std::string &data, bool with_info)
{
    dg::req_file_chunk_message m;
    m.set_execution_id(ids.exec);
    m.set_agent_id(ids.agent);
    if (with_info)
        *m.mutable_target_file_info() = info;
    m.set_chunk_size(size);
    m.set_chunk_index(index);
    m.set_chunk_count(count);
    m.set_chunk_data(data);
    return m.SerializeAsString();
}

// Streams the file as chunks; the request itself has been sent already.
int stream_chunks(connection &c, FILE *f, uint64_t real_size, const request_ids &ids, const dg::file_info &info,
                  const command_args &a, json_object *done, std::string *error)
{
    int64_t chunk = 0, limit = 0, delay = 0;
    if (get_int(a, "chunk", 65536, 1, k_max_chunk, &chunk, error) != 0 ||
        get_int(a, "chunks", INT64_MAX, 0, INT64_MAX, &limit, error) != 0 ||
        get_int(a, "chunk_delay", 0, 0, INT32_MAX, &delay, error) != 0)
        return -1;
    uint64_t count = real_size == 0 ? 1 : (real_size + chunk - 1) / chunk;
    uint64_t last = std::min<uint64_t>(count, static_cast<uint64_t>(limit));
    uint64_t bytes = 0, seq = 0;
    std::string data;
    for (uint64_t index = 1; index <= last; index++) {
        data.resize(std::min<uint64_t>(chunk, real_size - bytes));
        if (fread(data.data(), 1, data.size(), f) != data.size()) {
            *error = "short read of the file at byte " + std::to_string(bytes);
            return -1;
        }
        std::string body = chunk_body(ids, info, data.size(), index, count, data, true);
        std::string line = index == 1 || index == last ? sent_line(c.id, 60004, body) : "";
        seq = conn_enqueue(c, frame_packet(60004, 1, body), std::move(line), k_stream_window);
        if (seq == 0) {
            *error = g_stop ? "stopped" : "connection closed";
            return -1;
        }
        bytes += data.size();
        if (delay > 0 && index < last)
            sleep_ms(delay);
    }
    if (seq != 0 && conn_wait_written(c, seq, error) != 0)
        return -1;
    done->unum("chunks", last).unum("bytes", bytes);
    return 0;
}

int cmd_patch_start(const command_args &a, connection &c, json_object *done, std::string *error)
{
    std::string path = a.get("file");
    bool with_info = !a.flag("no_file_info");
    if (path.empty() && with_info) {
        *error = "bad argument: file= is required";
        return -1;
    }
    uint64_t real_size = 0;
    file_ptr f(nullptr, fclose);
    if (!path.empty() && (f = open_file(path, &real_size, error)) == nullptr)
        return -1;
    int64_t size = 0;
    if (get_int(a, "size", static_cast<int64_t>(real_size), 0, INT64_MAX, &size, error) != 0)
        return -1;
    dg::file_info info;
    info.set_file_name(a.get("name", path.substr(path.find_last_of('/') + 1)));
    info.set_file_size(static_cast<uint64_t>(size));
    std::string body;
    request_ids ids;
    if (build_request(a, 3, with_info ? &info : nullptr, &body, &ids, error) != 0 ||
        send_request(c, body, ids, done, error) != 0)
        return -1;
    if (f == nullptr) {
        done->unum("chunks", 0).unum("bytes", 0);
        return 0;
    }
    return stream_chunks(c, f.get(), real_size, ids, info, a, done, error);
}

int cmd_chunk(const command_args &a, connection &c, json_object *, std::string *error)
{
    std::string data;
    if (a.find("data") != nullptr && from_hex(a.get("data"), &data) != 0) {
        *error = "bad argument data=" + a.get("data");
        return -1;
    }
    if (a.find("file") != nullptr) {
        uint64_t real = 0;
        int64_t offset = 0, length = 0;
        file_ptr f = open_file(a.get("file"), &real, error);
        if (f == nullptr || get_int(a, "offset", 0, 0, static_cast<int64_t>(real), &offset, error) != 0 ||
            get_int(a, "length", std::min<int64_t>(real - offset, k_max_chunk), 0, k_max_chunk, &length, error) != 0)
            return -1;
        data.resize(std::min<uint64_t>(length, real - offset));
        if (fseeko(f.get(), offset, SEEK_SET) != 0 || fread(data.data(), 1, data.size(), f.get()) != data.size()) {
            *error = "cannot read " + a.get("file");
            return -1;
        }
    }
    int64_t index = 0, count = 0, file_size = 0, size = 0;
    if (get_int(a, "index", 1, 0, INT64_MAX, &index, error) != 0 ||
        get_int(a, "count", 1, 0, INT64_MAX, &count, error) != 0 ||
        get_int(a, "file_size", static_cast<int64_t>(data.size()), 0, INT64_MAX, &file_size, error) != 0 ||
        get_int(a, "size", static_cast<int64_t>(data.size()), 0, INT64_MAX, &size, error) != 0)
        return -1;
    dg::file_info info;
    info.set_file_name(a.get("name"));
    info.set_file_size(static_cast<uint64_t>(file_size));
    request_ids ids{a.get("agent"), a.get("exec"), ""};
    std::string body = chunk_body(ids, info, static_cast<uint64_t>(size), static_cast<uint64_t>(index),
                                  static_cast<uint64_t>(count), data, !a.flag("no_file_info"));
    return send_packet(c, frame_packet(60004, 1, body), sent_line(c.id, 60004, body), error);
}

int cmd_send(const command_args &a, connection &c, json_object *, std::string *error)
{
    int64_t type = 0, kind = 0;
    std::string body;
    if (a.find("type") == nullptr) {
        *error = "bad argument: type= is required";
        return -1;
    }
    if (get_int(a, "type", 0, 0, UINT16_MAX, &type, error) != 0)
        return -1;
    const msg_info *info = find_msg_info(static_cast<uint16_t>(type));
    if (get_int(a, "kind", info != nullptr ? info->body_kind : 1, 0, 255, &kind, error) != 0)
        return -1;
    if (from_hex(a.get("hex"), &body) != 0) {
        *error = "bad argument hex=" + a.get("hex");
        return -1;
    }
    auto t = static_cast<uint16_t>(type);
    return send_packet(c, frame_packet(t, static_cast<uint8_t>(kind), body), sent_line(c.id, t, body), error);
}

int cmd_raw(const command_args &a, connection &c, json_object *, std::string *error)
{
    std::string bytes;
    if (a.get("hex").empty() || from_hex(a.get("hex"), &bytes) != 0) {
        *error = "bad argument hex=" + a.get("hex");
        return -1;
    }
    std::string line =
        json_object().str("event", "sent").num("conn", c.id).boolean("raw", true).unum("length", bytes.size()).end();
    return send_packet(c, std::move(bytes), std::move(line), error);
}

int cmd_simple(const command_args &a, connection &c, json_object *, std::string *error)
{
    if (a.verb == "ping" || a.verb == "timezone") {
        uint16_t type = a.verb == "ping" ? 50000 : 50001;
        return send_packet(c, frame_packet(type, 4, ""), sent_line(c.id, type, ""), error);
    }
    if (a.verb == "identity") {
        std::string body = build_identity(a.get("id", g_config.manager_id));
        return send_packet(c, frame_packet(50036, 2, body), sent_line(c.id, 50036, body), error);
    }
    if (a.verb == "close") {
        conn_close(c, "closed by command");
        conn_wait_finished(c);
        return 0;
    }
    c.paused = a.verb == "pause_reading";
    return 0;
}

struct command_def {
    const char *verb;
    const char *keys;  // extra keys besides the request keys when with_request
    bool with_request;
    int (*run)(const command_args &, connection &, json_object *, std::string *);
};

const command_def k_commands[] = {
    {"ping", "", false, cmd_simple},
    {"timezone", "", false, cmd_simple},
    {"identity", "id", false, cmd_simple},
    {"close", "", false, cmd_simple},
    {"pause_reading", "", false, cmd_simple},
    {"resume_reading", "", false, cmd_simple},
    {"restart", "", true, cmd_request},
    {"stop", "", true, cmd_request},
    {"command", "", true, cmd_request},
    {"patch_stop", "", true, cmd_request},
    {"patch_start", "file name size no_file_info chunk chunks chunk_delay", true, cmd_patch_start},
    {"chunk", "agent exec index count name file_size size data file offset length no_file_info", false, cmd_chunk},
    {"send", "type hex kind", false, cmd_send},
    {"raw", "hex", false, cmd_raw},
};

// Runs one command line and prints its done or error event.
void run_command(const std::string &line)
{
    command_args a;
    std::string error;
    json_object done;
    int rc = parse_command(line, &a, &error);
    if (rc == 0 && a.verb == "sleep") {
        int64_t ms = 0;
        if ((rc = check_keys(a, "ms", &error)) == 0 && (rc = get_int(a, "ms", 0, 0, INT32_MAX, &ms, &error)) == 0)
            sleep_ms(ms);
    } else if (rc == 0 && a.verb == "quit") {
        request_stop("quit");
    } else if (rc == 0) {
        const command_def *def = nullptr;
        for (const command_def &d : k_commands)
            if (a.verb == d.verb)
                def = &d;
        std::shared_ptr<connection> c = current_connection();
        if (def == nullptr) {
            rc = -1, error = "unknown command";
        } else if ((rc = check_keys(a, std::string(def->keys) + " " + (def->with_request ? k_request_keys : ""),
                                    &error)) == 0) {
            if (c == nullptr)
                rc = -1, error = "not connected";
            else
                rc = def->run(a, *c, &done, &error);
        }
    }
    json_object head;
    head.str("event", rc == 0 ? "done" : "error").str("command", a.verb);
    if (rc != 0)
        head.str("error", error);
    std::string extra = done.end();  // "{...}": members to append after the head
    std::string out = head.end();
    if (extra.size() > 2)
        out.insert(out.size() - 1, "," + extra.substr(1, extra.size() - 2));
    emit(out);
}

// Reads standard input until quit, end of input (with exit_on_eof) or g_stop.
void command_loop(bool exit_on_eof)
{
    std::string pending;
    bool eof = false, discarding = false;
    char buffer[65536];
    while (!g_stop) {
        if (eof) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        pollfd p{0, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        ssize_t n = read(0, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            eof = true;
            if (!pending.empty() && !discarding)
                run_command(pending);
            if (exit_on_eof)
                request_stop("end of input");
            continue;
        }
        pending.append(buffer, static_cast<size_t>(n));
        size_t start = 0, nl;
        while (!g_stop && (nl = pending.find('\n', start)) != std::string::npos) {
            std::string line = pending.substr(start, nl - start);
            start = nl + 1;
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!discarding && line.find_first_not_of(" \t") != std::string::npos && line[line.find_first_not_of(" \t")] != '#')
                run_command(line);
            discarding = false;
        }
        pending.erase(0, start);
        if (pending.size() > k_max_line) {
            emit(json_object().str("event", "error").str("command", "").str("error", "line too long").end());
            pending.clear();
            discarding = true;
        }
    }
}

// Waits for SIGINT or SIGTERM (blocked in every thread) until the process stops.
void signal_main()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    timespec slice{0, 100 * 1000 * 1000};
    while (!g_stop) {
        int sig = sigtimedwait(&set, nullptr, &slice);
        if (sig > 0)
            request_stop("signal " + std::to_string(sig));
    }
}

struct options {
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    std::string port_file;
    bool exit_on_eof = false;
};

int parse_skews(const std::string &text, std::vector<int64_t> *out)
{
    out->clear();
    size_t pos = 0;
    for (;;) {
        size_t comma = text.find(',', pos);
        std::string item = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        char *end = nullptr;
        errno = 0;
        long long v = strtoll(item.c_str(), &end, 10);
        if (item.empty() || *end != '\0' || errno != 0)
            return -1;
        out->push_back(v);
        if (comma == std::string::npos)
            return 0;
        pos = comma + 1;
    }
}

// Parses argv into *o and g_config. Returns 0, 1 after --help, or -1 with *error.
int parse_options(int argc, char **argv, options *o, std::string *error)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        auto value = [&](std::string *out) {
            if (i + 1 >= argc)
                return false;
            *out = argv[++i];
            return true;
        };
        std::string v;
        if (arg == "--help" || arg == "-h")
            return 1;
        if (arg == "--refuse") {
            g_config.handshake = handshake_mode::refuse;
        } else if (arg == "--no-timesync") {
            g_config.timesync = false;
        } else if (arg == "--exit-on-eof") {
            o->exit_on_eof = true;
        } else if (arg == "--listen" && value(&v)) {
            size_t colon = v.rfind(':');
            char *end = nullptr;
            unsigned long port = colon == std::string::npos ? 0 : strtoul(v.c_str() + colon + 1, &end, 10);
            if (colon == std::string::npos || colon == 0 || end == v.c_str() + colon + 1 || *end != '\0' || port > 65535) {
                *error = "bad --listen " + v + " (HOST:PORT expected)";
                return -1;
            }
            o->host = v.substr(0, colon);
            o->port = static_cast<uint16_t>(port);
        } else if (arg == "--tls-cert" && value(&v)) {
            g_config.tls.cert_file = v;
        } else if (arg == "--tls-key" && value(&v)) {
            g_config.tls.key_file = v;
        } else if (arg == "--tls-client-ca" && value(&v)) {
            g_config.tls.client_ca_file = v;
        } else if (arg == "--tls-psk-identity" && value(&v)) {
            g_config.tls.psk_identity = v;
        } else if (arg == "--tls-psk-file" && value(&v)) {
            g_config.tls.psk_file = v;
        } else if (arg == "--port-file" && value(&v)) {
            o->port_file = v;
        } else if (arg == "--manager-id" && value(&v)) {
            g_config.manager_id = v;
        } else if (arg == "--handshake" && value(&v)) {
            const std::pair<const char *, handshake_mode> modes[] = {{"reply", handshake_mode::reply},
                                                                     {"refuse", handshake_mode::refuse},
                                                                     {"silent", handshake_mode::silent},
                                                                     {"ping", handshake_mode::ping}};
            bool known = false;
            for (const auto &[name, mode] : modes)
                if (v == name)
                    g_config.handshake = mode, known = true;
            if (!known) {
                *error = "bad --handshake " + v + " (reply, refuse, silent or ping)";
                return -1;
            }
        } else if (arg == "--skew" && value(&v)) {
            if (parse_skews(v, &g_config.skews) != 0) {
                *error = "bad --skew " + v + " (MS[,MS...] expected)";
                return -1;
            }
        } else {
            *error = "unknown or incomplete option " + arg;
            return -1;
        }
    }
    if (g_config.tls.cert_file.empty() != g_config.tls.key_file.empty() ||
        (g_config.tls.psk_file.empty() != g_config.tls.psk_identity.empty()) ||
        (!g_config.tls.client_ca_file.empty() && g_config.tls.cert_file.empty())) {
        *error = "incomplete TLS options (--tls-cert with --tls-key, --tls-psk-file with --tls-psk-identity, "
                 "--tls-client-ca with --tls-cert)";
        return -1;
    }
    if (g_config.tls.enabled()) {
        g_config.tls_ctx = std::make_unique<tls_server>();
        if (g_config.tls_ctx->load(g_config.tls, error) != 0)
            return -1;
    }
    return 0;
}

// Writes the port to path through path.tmp and a rename. Returns 0, or -1 with *error.
int write_port_file(const std::string &path, uint16_t port, std::string *error)
{
    std::string tmp = path + ".tmp";
    file_ptr f(fopen(tmp.c_str(), "w"), fclose);
    bool ok = f != nullptr && fprintf(f.get(), "%u\n", port) > 0;
    ok = f != nullptr && fclose(f.release()) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path + ": " + strerror(errno);
        unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

int fail_start(const std::string &error)
{
    emit(json_object().str("event", "error").str("error", error).end());
    fprintf(stderr, "quil-dg-sim: %s\n", error.c_str());
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    options o;
    std::string error;
    int rc = parse_options(argc, argv, &o, &error);
    if (rc == 1) {
        fputs(k_usage, stdout);
        return 0;
    }
    if (rc != 0) {
        fprintf(stderr, "quil-dg-sim: %s; see --help\n", error.c_str());
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every thread started below

    int listen_fd = listen_on(o.host, o.port, &error);
    if (listen_fd < 0)
        return fail_start(error);
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(listen_fd, reinterpret_cast<sockaddr *>(&bound), &length);
    char ip[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &bound.sin_addr, ip, sizeof ip);
    uint16_t port = ntohs(bound.sin_port);
    emit(json_object().str("event", "listening").str("address", ip).num("port", port).end());
    if (!o.port_file.empty() && write_port_file(o.port_file, port, &error) != 0) {
        close(listen_fd);
        return fail_start(error);
    }

    std::thread signals(signal_main);
    std::thread acceptor(acceptor_main, listen_fd);
    command_loop(o.exit_on_eof);
    acceptor.join();
    signals.join();
    close(listen_fd);
    std::string reason;
    {
        std::lock_guard<std::mutex> guard(s_exit_lock);
        reason = s_exit_reason;
    }
    emit(json_object().str("event", "exit").str("reason", reason).end());
    return 0;
}
