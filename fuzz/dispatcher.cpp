// libFuzzer target for the whole dispatcher read_msg_nio against a private manager home and a
// fake DG connection (the agent's end of a socketpair, with a send queue). The input is up to
// 64 frames: byte 0 picks the type (byte % 7: 50000, 50001, 50020, 50036, 60001, 60004, or 6:
// bytes 0-1 are the type), bytes 2-3 the body length (big-endian, cut to the input), then the
// body; each becomes a packet in a buffer of exactly its size. After each packet, what reached
// the DG end must be whole packets of the types that message may cause, decoding whole with
// the agent's codec, with valid UTF-8 result texts; the command ring and the patch transfers
// must stay consistent. After each input the state is reset and nothing may have appeared
// outside the manager's data and tmp directories. The log (1 MiB, no backups) is at "trace".
#include "command.h"
#include "command_handler.h"
#include "fuzz_support.h"
#include "global_var.h"
#include "msg_type.h"
#include "on_demand.h"
#include "pub_func.h"
#include "req_time_sync.h"
#include "res_timezone_offset.h"
#include "thr_dgconn.h"
#include "vk_comm.h"
#include "vk_string.h"
#include "vklog.h"

#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

namespace
{

constexpr int k_types[] = {MSG_REQ_PING,       MSG_REQ_TIMEZONE_OFFSET, MSG_RES_TIMESYNC,
                           MSG_RES_AGENT_INFO, MSG_REQ_COMMAND,         MSG_REQ_FILE_CHUNK};
constexpr size_t k_frame_header = 4;
constexpr size_t k_max_frames = 64;
constexpr size_t k_max_body = VK_NIO_PACKET_CAPACITY - VK_NIO_SUB_HEADER_LEN;

struct setup_t {
    std::string dir;     // the temporary directory: home/ and log/
    std::string home;    // the installation home
    std::string manager; // <home>/manager
    int agent = -1;      // the agent's end: the "connected" DG socket
    int dg = -1;         // the DG's end, non-blocking
};

void set_up_log(const std::string &dir)
{
    vklog_config_t *config = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    FUZZ_CHECK(config != nullptr);
    const std::pair<vklog_cfg_type_t, std::string_view> settings[] = {
        {VKLOG_CFG_TYPE_NAME, "quil-manager-agent"}, {VKLOG_CFG_TYPE_DIRECTORY, dir},
        {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file"},        {VKLOG_CFG_TYPE_LEVEL, "trace"},
        {VKLOG_CFG_TYPE_HEADER_FLAG, "time,pid,thread_id,file,function,line,level"},
        {VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, "1"},       {VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, "0"}};
    for (const auto &[key, value] : settings)
        FUZZ_CHECK(vklog_config_set(config, key, static_cast<unsigned>(value.size()), value.data()) == 0);
    int err = 0;
    FUZZ_CHECK(vklog_initialize_with_config(config, &err) == 0);
    vklog_t *cat = vklog_get_category("quil-manager-agent");
    FUZZ_CHECK(cat != nullptr);
    vklog_set_global_log_handle(cat);
}

const setup_t &set_up()
{
    static setup_t s;
    s.dir = fuzz_support::temp_dir("dispatcher");
    s.home = s.dir + "/home";
    s.manager = s.home + "/manager";
    for (const std::string &sub :
         {s.home, s.manager, s.manager + "/data", s.manager + "/tmp", s.dir + "/log"})
        fuzz_support::make_dir(sub);
    FUZZ_CHECK(init_global_var(s.home.c_str()) == 0);
    set_up_log(s.dir + "/log");
    FUZZ_CHECK(init_chunk_hash() == 0);
    FUZZ_CHECK(nio_seq_lock_init() == 0);
    set_nio_header_version(2); // as the connection thread does
    int fds[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
    s.agent = fds[0];
    s.dg = fds[1];
    FUZZ_CHECK(fcntl(s.dg, F_SETFL, O_NONBLOCK) == 0);
    FUZZ_CHECK(create_send_queue() == 0);
    g_dg_sock.store(s.agent);
    g_dg_is_connection.store(1);
    return s;
}

uint32_t be32(const uint8_t *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The outgoing types that a received type may cause.
bool reply_allowed(int received, int sent)
{
    constexpr std::pair<int, int> k_replies[] = {
        {MSG_REQ_PING, MSG_RES_PING},           {MSG_REQ_TIMEZONE_OFFSET, MSG_RES_TIMEZONE_OFFSET},
        {MSG_RES_TIMESYNC, MSG_REQ_TIMESYNC},   {MSG_REQ_COMMAND, MSG_RES_COMMAND},
        {MSG_REQ_FILE_CHUNK, MSG_RES_COMMAND}};
    return std::find(std::begin(k_replies), std::end(k_replies), std::pair{received, sent}) != std::end(k_replies);
}

// One outgoing body must decode with the agent's own codec, whole.
template <typename T> T *decoded(T *(*new_fn)(void *, size_t), int (*decode_fn)(T *, const uint8_t *, size_t),
                                 const uint8_t *body, size_t size)
{
    alignas(8) static uint8_t workspace[4 * k_max_body + 4096];
    T *m = new_fn(workspace, sizeof(workspace));
    FUZZ_CHECK(m != nullptr && decode_fn(m, body, size) == static_cast<int>(size));
    return m;
}

void check_reply_body(int type, const uint8_t *body, size_t size)
{
    if (type == MSG_RES_PING) {
        FUZZ_CHECK(size == 0);
    } else if (type == MSG_RES_TIMEZONE_OFFSET) {
        decoded(res_timezone_offset_message_new, res_timezone_offset_message_decode, body, size);
    } else if (type == MSG_REQ_TIMESYNC) {
        decoded(req_time_sync_new, req_time_sync_decode, body, size);
    } else {
        FUZZ_CHECK(type == MSG_RES_COMMAND);
        auto *m = decoded(res_command_message_new, res_command_message_decode, body, size);
        FUZZ_CHECK(m->phase_type == CMD_PHASE_IN_PROGRESS || m->phase_type == CMD_PHASE_DONE);
        FUZZ_CHECK(m->result_message != nullptr && vk_is_utf8(m->result_message));
    }
}

// Writes the queue and checks everything that reached the DG end since the last call.
void drain_replies(const setup_t &s, int received_type)
{
    if (get_send_queue_count() > 0)
        FUZZ_CHECK(send_buffer(s.agent) >= 0);
    static std::string bytes;
    bytes.clear();
    char buffer[65536];
    for (ssize_t n; (n = read(s.dg, buffer, sizeof(buffer))) > 0;)
        bytes.append(buffer, static_cast<size_t>(n));
    const auto *p = reinterpret_cast<const uint8_t *>(bytes.data());
    size_t at = 0;
    while (at < bytes.size()) {
        FUZZ_CHECK(bytes.size() - at >= static_cast<size_t>(VK_NIO_HEADER_LEN));
        const uint8_t *h = p + at;
        FUZZ_CHECK(h[0] == 0xF9 && h[1] == 0xF2 && h[2] == 0xF8 && h[3] == get_nio_header_version());
        FUZZ_CHECK(h[4] == NIO_PACKET_TYPE_AGENT && h[5] == 0 && h[6] == 0 && h[7] == 0);
        const uint32_t length = be32(h + 8);
        FUZZ_CHECK(length >= static_cast<uint32_t>(VK_NIO_SUB_HEADER_LEN));
        FUZZ_CHECK(bytes.size() - at - VK_NIO_MAIN_HEADER_LEN >= length);
        const int type = (h[12] << 8) | h[13];
        FUZZ_CHECK(reply_allowed(received_type, type));
        check_reply_body(type, h + VK_NIO_HEADER_LEN, length - VK_NIO_SUB_HEADER_LEN);
        at += VK_NIO_MAIN_HEADER_LEN + length;
    }
}

// The ring's counters agree and its records are terminated.
void check_state()
{
    int start = -1, end = -1;
    const int count = cmd_ring_count(&start, &end);
    FUZZ_CHECK(count >= 0 && count <= CMD_INFO_COUNT && start >= 0 && start < CMD_INFO_COUNT);
    FUZZ_CHECK(end == (start + count) % CMD_INFO_COUNT);
    cmd_info_t r{};
    for (int slot = 0; slot < CMD_INFO_COUNT; slot++) {
        FUZZ_CHECK(cmd_ring_get(slot, &r) == 0);
        FUZZ_CHECK(TERMINATED(r.execution_id) && TERMINATED(r.command_id) && TERMINATED(r.agent_id) &&
                   TERMINATED(r.file_name) && TERMINATED(r.install_username) && TERMINATED(r.install_path) &&
                   TERMINATED(r.run_username) && TERMINATED(r.run_path));
        FUZZ_CHECK(r.option_count >= 0 && r.option_count <= CMD_OPTION_COUNT && r.timeout >= 0);
    }
    FUZZ_CHECK(patch_count() >= 0);
}

bool only(const std::vector<std::string> &names, std::initializer_list<std::string_view> allowed)
{
    return std::all_of(names.begin(), names.end(), [&](const std::string &name) {
        return std::find(allowed.begin(), allowed.end(), name) != allowed.end();
    });
}

// Back to the state after set-up; checks that nothing was written outside data and tmp.
void reset(const setup_t &s)
{
    FUZZ_CHECK(init_chunk_hash() == 0);
    clear_send_queue();
    g_ncnt_timesync = 0;
    memset(g_narr_difftime, 0, sizeof(g_narr_difftime));
    set_manager_id("");

    FUZZ_CHECK(only(fuzz_support::list_dir(s.dir), {"home", "log"}));
    FUZZ_CHECK(fuzz_support::list_dir(s.home) == std::vector<std::string>{"manager"});
    FUZZ_CHECK(only(fuzz_support::list_dir(s.manager), {"data", "tmp"}));
    FUZZ_CHECK(only(fuzz_support::list_dir(s.manager + "/data"), {"manager_id"}));
    for (const std::string &name : fuzz_support::list_dir(s.manager + "/tmp")) {
        const std::string path = s.manager + "/tmp/" + name;
        struct stat st {
        };
        FUZZ_CHECK(lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode));
        FUZZ_CHECK(unlink(path.c_str()) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const setup_t &s = set_up();
    for (size_t frames = 0; size >= k_frame_header && frames < k_max_frames; frames++) {
        const int selector = data[0] % 7;
        const int type = selector < 6 ? k_types[selector] : (data[0] << 8) | data[1];
        const size_t body_length =
            std::min({size_t{(size_t{data[2]} << 8) | data[3]}, size - k_frame_header, k_max_body});
        // The agent's own framing: version 2, packet type 4, body kind 1, exactly the packet's size.
        char *packet = nullptr;
        FUZZ_CHECK(wrap_packet_nio_header(&packet, data + k_frame_header, static_cast<int>(body_length), 4, type, 0,
                                          1, 0) == static_cast<int>(VK_NIO_HEADER_LEN + body_length));
        std::unique_ptr<char, decltype(&free)> owner(packet, &free);
        data += k_frame_header + body_length;
        size -= k_frame_header + body_length;

        int socket = s.agent;
        const int rc = read_msg_nio(packet, &socket);
        FUZZ_CHECK(rc <= 0 && rc >= -8);
        drain_replies(s, type);
        check_state();
    }
    reset(s);
    return 0;
}
