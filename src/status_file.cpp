// status_file: see status_file.h. The figures are copied out of their owners (the connection
// thread's status, the command ring and patch map, the registry) under their own locks, then
// formatted here; nothing here is shared with another thread.
#include "status_file.h"

#include <cjson/cJSON.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "command_handler.h"
#include "dg_tls.h"
#include "global_var.h"
#include "os/linux/vk_notify.h"
#include "pub_func.h"
#include "thr_dgconn.h"
#include "version.h"
#include "vk_file.h"
#include "vk_raii.h"
#include "vk_string.h"
#include "vklog.h"

namespace
{

constexpr int k_max_listed = 100; // commands, transfers: the ring holds at most 100
constexpr size_t k_metrics_size = 64 * 1024;

char s_metrics_path[VK_PATH_SIZE];
bool s_write_failed = false; // logged once until a write succeeds
char *s_last_json = nullptr; // what status.json holds now (malloc'ed), null before the first write

struct cjson_deleter {
    void operator()(cJSON *tree) const { cJSON_Delete(tree); }
};
using json_ptr = std::unique_ptr<cJSON, cjson_deleter>;

// Everything the status shows, copied out of its owners.
struct snapshot_t {
    const char *state; // "connected", "connecting" or "stopped"
    dg_conn_status_t conn;
    char manager_id[MANAGER_ID_LEN + 1];
    int32_t time_sync_difference_ms;
    uint32_t queue_depth;
    uint32_t queue_dropped;
    int target_agents;
    cmd_brief_t cmds[k_max_listed];
    int cmd_count;
    transfer_brief_t transfers[k_max_listed];
    int transfer_count;
    patch_digest_t digests[PATCH_DIGEST_KEPT];
    int digest_count;
};

const char *phase_name(int32_t status)
{
    return status == CMD_STATUS_USED ? "queued" : status == CMD_STATUS_STOP ? "stopping" : "running";
}

const char *mode_name()
{
    const int mode = dg_tls_mode();
    return mode == DG_TLS_CERT ? "tls-cert" : mode == DG_TLS_PSK ? "tls-psk" : "tcp";
}

void take_snapshot(snapshot_t *snap, bool stopping)
{
    dg_conn_status(&snap->conn);
    snap->state = stopping ? "stopped" : snap->conn.connected != 0 ? "connected" : "connecting";
    copy_manager_id(snap->manager_id);
    snap->time_sync_difference_ms = get_diff_timesync();
    snap->queue_depth = get_send_queue_count();
    snap->queue_dropped = g_info_log.load();
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        snap->target_agents = g_json_agent_count;
    }
    command_snapshot(snap->cmds, k_max_listed, &snap->cmd_count, snap->transfers, k_max_listed,
                     &snap->transfer_count);
    snap->digest_count = patch_digest_recent(snap->digests, PATCH_DIGEST_KEPT);
}

// Seconds since the epoch of a time in ms (0 stays 0: never).
double seconds(int64_t ms)
{
    return static_cast<double>(ms / 1000);
}

json_ptr build_json(const snapshot_t &s)
{
    json_ptr root(cJSON_CreateObject());
    if (!root)
        return root;
    cJSON *r = root.get();
    cJSON_AddStringToObject(r, "version", get_manager_agent_version());
    cJSON_AddNumberToObject(r, "pid", getpid());
    cJSON_AddNumberToObject(r, "boot_time", seconds(g_agent_boot_time));
    cJSON *dg = cJSON_AddObjectToObject(r, "dg");
    cJSON_AddStringToObject(dg, "address", s.conn.address);
    cJSON_AddStringToObject(dg, "mode", mode_name());
    cJSON *conn = cJSON_AddObjectToObject(r, "connection");
    cJSON_AddStringToObject(conn, "state", s.state);
    cJSON_AddNumberToObject(conn, "since", seconds(s.conn.since_ms));
    cJSON_AddStringToObject(conn, "last_error", s.conn.last_error);
    cJSON_AddNumberToObject(conn, "last_handshake", seconds(s.conn.last_handshake_ms));
    cJSON_AddNumberToObject(conn, "handshakes", s.conn.handshakes);
    cJSON_AddStringToObject(r, "manager_id", s.manager_id);
    cJSON_AddNumberToObject(r, "time_sync_difference_ms", s.time_sync_difference_ms);
    cJSON *queue = cJSON_AddObjectToObject(r, "send_queue");
    cJSON_AddNumberToObject(queue, "depth", s.queue_depth);
    cJSON_AddNumberToObject(queue, "dropped", s.queue_dropped);
    cJSON *cmds = cJSON_AddArrayToObject(r, "commands");
    for (int i = 0; i < s.cmd_count; i++) {
        cJSON *c = cJSON_CreateObject();
        cJSON_AddItemToArray(cmds, c);
        cJSON_AddStringToObject(c, "execution_id", s.cmds[i].execution_id);
        cJSON_AddStringToObject(c, "type", cmd_type_name(s.cmds[i].cmd_type));
        cJSON_AddStringToObject(c, "agent_id", s.cmds[i].agent_id);
        cJSON_AddStringToObject(c, "phase", phase_name(s.cmds[i].status));
        cJSON_AddNumberToObject(c, "started_at", seconds(static_cast<int64_t>(s.cmds[i].received_time)));
    }
    cJSON *transfers = cJSON_AddArrayToObject(r, "transfers");
    for (int i = 0; i < s.transfer_count; i++) {
        cJSON *t = cJSON_CreateObject();
        cJSON_AddItemToArray(transfers, t);
        cJSON_AddStringToObject(t, "execution_id", s.transfers[i].execution_id);
        cJSON_AddStringToObject(t, "file", s.transfers[i].file_name);
        cJSON_AddNumberToObject(t, "bytes_received", static_cast<double>(s.transfers[i].bytes_received));
        cJSON_AddNumberToObject(t, "bytes_total", static_cast<double>(s.transfers[i].file_size));
    }
    cJSON *digests = cJSON_AddArrayToObject(r, "patch_digests");
    for (int i = 0; i < s.digest_count; i++) {
        cJSON *d = cJSON_CreateObject();
        cJSON_AddItemToArray(digests, d);
        cJSON_AddStringToObject(d, "execution_id", s.digests[i].execution_id);
        cJSON_AddStringToObject(d, "file", s.digests[i].file_name);
        cJSON_AddNumberToObject(d, "size", static_cast<double>(s.digests[i].size));
        cJSON_AddStringToObject(d, "sha256", s.digests[i].sha256);
        cJSON_AddNumberToObject(d, "written_at", seconds(s.digests[i].written_ms));
    }
    cJSON_AddNumberToObject(r, "target_agents", s.target_agents);
    return root;
}

// ---- Prometheus text format ---------------------------------------------------------------

struct text_buffer {
    char *data;
    size_t size;
    size_t len = 0;
    bool full = false;
    void add(const char *format, ...) __attribute__((format(printf, 2, 3)))
    {
        if (full)
            return;
        va_list args;
        va_start(args, format);
        int n = vsnprintf(data + len, size - len, format, args);
        va_end(args);
        if (n < 0 || static_cast<size_t>(n) >= size - len)
            full = true;
        else
            len += static_cast<size_t>(n);
    }
};

// A label value with backslash, double quote and line feed escaped, cut to fit out.
const char *label(const char *value, char (&out)[160])
{
    size_t o = 0;
    for (const char *p = value; *p != '\0' && o + 3 < sizeof(out); p++) {
        if (*p == '\\' || *p == '"') {
            out[o++] = '\\';
            out[o++] = *p;
        } else if (*p == '\n') {
            out[o++] = '\\';
            out[o++] = 'n';
        } else {
            out[o++] = *p;
        }
    }
    out[o] = '\0';
    return out;
}

void metric(text_buffer &b, const char *name, const char *type, const char *help)
{
    b.add("# HELP quil_manager_%s %s\n# TYPE quil_manager_%s %s\n", name, help, name, type);
}

void build_metrics(const snapshot_t &s, text_buffer &b)
{
    char l1[160], l2[160], l3[160];
    metric(b, "info", "gauge", "The agent's version, manager id, DG address and connection mode.");
    b.add("quil_manager_info{version=\"%s\",manager_id=\"%s\",dg_address=\"%s\",mode=\"%s\"} 1\n",
          label(get_manager_agent_version(), l1), label(s.manager_id, l2), label(s.conn.address, l3), mode_name());
    metric(b, "boot_time_seconds", "gauge", "When the agent started, seconds since the epoch.");
    b.add("quil_manager_boot_time_seconds %.0f\n", seconds(g_agent_boot_time));
    metric(b, "connected", "gauge", "1 while a handshaken connection to the DG exists.");
    b.add("quil_manager_connected %d\n", strcmp(s.state, "connected") == 0 ? 1 : 0);
    metric(b, "connection_state_since_seconds", "gauge", "When the connection state last changed.");
    b.add("quil_manager_connection_state_since_seconds %.0f\n", seconds(s.conn.since_ms));
    metric(b, "last_handshake_seconds", "gauge", "The last successful handshake, 0 before the first.");
    b.add("quil_manager_last_handshake_seconds %.0f\n", seconds(s.conn.last_handshake_ms));
    metric(b, "handshakes_total", "counter", "Successful handshakes since the agent started.");
    b.add("quil_manager_handshakes_total %d\n", s.conn.handshakes);
    metric(b, "time_sync_difference_milliseconds", "gauge", "The agent's clock minus the DG's.");
    b.add("quil_manager_time_sync_difference_milliseconds %d\n", static_cast<int>(s.time_sync_difference_ms));
    metric(b, "send_queue_depth", "gauge", "Packets waiting to be sent to the DG.");
    b.add("quil_manager_send_queue_depth %u\n", s.queue_depth);
    metric(b, "send_queue_dropped_total", "counter", "Packets dropped because the send queue was full.");
    b.add("quil_manager_send_queue_dropped_total %u\n", s.queue_dropped);
    int queued = 0;
    for (int i = 0; i < s.cmd_count; i++)
        queued += s.cmds[i].status == CMD_STATUS_USED ? 1 : 0;
    metric(b, "commands", "gauge", "Commands in hand, by phase.");
    b.add("quil_manager_commands{phase=\"queued\"} %d\n", queued);
    b.add("quil_manager_commands{phase=\"running\"} %d\n", s.cmd_count - queued);
    metric(b, "transfer_bytes_received", "gauge", "Bytes received of each patch transfer in hand.");
    for (int i = 0; i < s.transfer_count; i++)
        b.add("quil_manager_transfer_bytes_received{execution_id=\"%s\",file=\"%s\"} %" PRIu64 "\n",
              label(s.transfers[i].execution_id, l1), label(s.transfers[i].file_name, l2),
              s.transfers[i].bytes_received);
    metric(b, "transfer_bytes_total", "gauge", "Size of each patch transfer in hand.");
    for (int i = 0; i < s.transfer_count; i++)
        b.add("quil_manager_transfer_bytes_total{execution_id=\"%s\",file=\"%s\"} %" PRId64 "\n",
              label(s.transfers[i].execution_id, l1), label(s.transfers[i].file_name, l2),
              s.transfers[i].file_size);
    metric(b, "target_agents", "gauge", "Monitoring agents registered on this host.");
    b.add("quil_manager_target_agents %d\n", s.target_agents);
}

// Writes data through a temporary file and a rename; a failure is logged once until a
// write succeeds again.
void write_out(const char *path, const char *data, size_t size)
{
    if (vk_write_file_atomic(path, data, size, 0644, false) == 0) {
        s_write_failed = false;
        return;
    }
    if (!s_write_failed)
        VKLOG_ERROR(g_vklog.load(), "[status_file] cannot write %s: %s\n", path, strerror(errno));
    s_write_failed = true;
}

void status_text(const snapshot_t &s, char *out, size_t size)
{
    if (s.conn.connected != 0) {
        int n = snprintf(out, size, "connected to %s as %s", s.conn.address, s.manager_id);
        for (int i = 0; i < s.cmd_count && n > 0 && static_cast<size_t>(n) < size; i++)
            if (s.cmds[i].status != CMD_STATUS_USED) {
                snprintf(out + n, size - static_cast<size_t>(n), "; running %s for agent %s (execution_id:%s)",
                         cmd_type_name(s.cmds[i].cmd_type), s.cmds[i].agent_id, s.cmds[i].execution_id);
                break;
            }
    } else {
        snprintf(out, size, "connecting to %s: %s", s.conn.address,
                 s.conn.last_error[0] != '\0' ? s.conn.last_error : "first attempt");
    }
}

void write_status(bool stopping)
{
    auto snap = vk_alloc_zeroed<snapshot_t>();
    if (!snap)
        return;
    take_snapshot(snap.get(), stopping);
    if (!stopping) {
        char text[256];
        status_text(*snap, text, sizeof(text));
        vk_notify_status(text);
    }
    json_ptr root = build_json(*snap);
    char *json = root ? cJSON_PrintUnformatted(root.get()) : nullptr;
    if (json != nullptr && (s_last_json == nullptr || strcmp(json, s_last_json) != 0)) {
        char path[VK_PATH_SIZE + 32];
        snprintf(path, sizeof(path), "%s/data/status.json", g_vk_manager_home);
        size_t len = strlen(json);
        json[len] = '\n'; // one line, ended; the terminator is put back below
        write_out(path, json, len + 1);
        json[len] = '\0';
        free(s_last_json);
        s_last_json = json;
        json = nullptr;
        if (s_metrics_path[0] != '\0') {
            auto data = vk_alloc_array<char>(k_metrics_size);
            if (data) {
                text_buffer b{data.get(), k_metrics_size};
                build_metrics(*snap, b);
                write_out(s_metrics_path, data.get(), b.len);
            }
        }
    }
    free(json);
}

} // namespace

int status_file_init(char *refusal, size_t size)
{
    const char *value = getenv("MGR_METRICS_TEXTFILE");
    s_metrics_path[0] = '\0';
    if (value == nullptr || value[0] == '\0')
        return 0;
    std::string_view path(value);
    const char *why = nullptr;
    if (path[0] != '/')
        why = "not an absolute path";
    else if (path.size() + sizeof(".tmp") > sizeof(s_metrics_path))
        why = "too long";
    else if (path.back() == '/')
        why = "names a directory";
    if (why == nullptr) {
        char dir[VK_PATH_SIZE];
        vk_strlcpy(dir, path.substr(0, path.rfind('/') == 0 ? 1 : path.rfind('/')));
        if (access(dir, W_OK) != 0)
            why = "its directory is missing or not writable";
    }
    if (why != nullptr) {
        snprintf(refusal, size, "[main] MGR_METRICS_TEXTFILE=%s is refused: %s.", value, why);
        return -1;
    }
    vk_strlcpy(s_metrics_path, path);
    return 0;
}

void status_file_tick()
{
    write_status(false);
}

void status_file_final()
{
    write_status(true);
    free(s_last_json);
    s_last_json = nullptr;
}
