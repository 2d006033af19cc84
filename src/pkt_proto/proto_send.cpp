// proto_send: builders of the outgoing DG messages. Each encodes its body in a workspace of
// its own, frames it from the message-type table and either writes it at once (handshake,
// ping answer) or hands it to the send queue, which owns it from then on.
#include "pkt_proto/proto_send.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

#include "command.h"
#include "cmd_info.h"
#include "common_agent_info.h"
#include "global_var.h"
#include "msg_type.h"
#include "pub_func.h"
#include "req_time_sync.h"
#include "res_timezone_offset.h"
#include "signal_ctl.h"
#include "thr_dgconn.h"
#include "util.h"
#include "version.h"
#include "vk_address_info.h"
#include "vk_os_info.h"
#include "vk_raii.h"
#include "vk_time.h"
#include "vklog.h"

namespace
{

// The fixed items of the agent information message: what this agent is to the DG.
constexpr const char *k_agent_type_name = "quil-manager-agent";
constexpr int32_t k_agent_kind = 4;              // a manager agent
constexpr int32_t k_agent_mode = 1;
constexpr uint32_t k_protocol_version = 20241111; // the DG protocol this agent speaks
constexpr int32_t k_os_kind = 4;                  // Linux


// Frames body as message_type and queues it. The queue owns the packet from here on.
void queue_packet(int message_type, const uint8_t *body, int body_length)
{
    char *packet = nullptr;
    int length = wrap_dg_packet(&packet, body, body_length, message_type);
    add_to_send_buffer(static_cast<uint32_t>(message_type), packet, static_cast<uint64_t>(length));
}

} // namespace

// ---- agent information (handshake) -----------------------------------------------------------

int initialize_agent_info()
{
    int rc = init_os_info();
    if (rc != 0) {
        VKLOG_ERROR(g_vklog.load(), "[initialize_agent_info] init_os_info() failed. (%d)\n", rc);
        return -1;
    }
    int err = 0;
    rc = init_cpu_core(&err);
    if (rc != 0) {
        VKLOG_ERROR(g_vklog.load(), "[initialize_agent_info] init_cpu_core() failed. (%d)[%d]\n", rc, err);
        return -2;
    }
    rc = get_address_info(&g_ip_list, &g_mac_list, &err);
    if (rc != 0) {
        VKLOG_ERROR(g_vklog.load(), "[initialize_agent_info] get_address_info() failed. (%d)[%d]\n", rc, err);
        return -3;
    }
    return 0;
}

int send_manager_agent_info(int socket)
{
    char host_name[OS_INFO_SIZE] = {};
    char machine_id[OS_INFO_SIZE] = {};
    char os_version[OS_INFO_SIZE] = {};
    get_os_info_hostname(host_name, sizeof(host_name));
    get_os_info_machine_id(machine_id, sizeof(machine_id));
    get_os_info_os_version(os_version, sizeof(os_version));

    auto workspace = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    auto encoded = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    if (!workspace || !encoded) {
        VKLOG_ERROR(g_vklog.load(), "[send_manager_agent_info] common_req_agent_info_message_new failed. buffer size: %d\n",
                    PROTO_WORKSPACE_SIZE);
        return -1;
    }
    common_req_agent_info_message_t *message =
        common_req_agent_info_message_new(workspace.get(), PROTO_WORKSPACE_SIZE);
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[send_manager_agent_info] common_req_agent_info_message_new failed. buffer size: %d\n",
                    PROTO_WORKSPACE_SIZE);
        return -1;
    }
    message->agent_time = vk_get_time_msec();
    message->agent_type_name = k_agent_type_name;
    message->agent_version = get_manager_agent_version();
    message->agent_kind = k_agent_kind;
    message->agent_mode = k_agent_mode;
    message->protocol_version = k_protocol_version;
    message->host_name = host_name;
    message->machine_id = machine_id;
    message->os_kind = k_os_kind;
    message->os_version = os_version;
    message->boot_time = g_agent_boot_time;

    if (common_req_agent_info_message_ip_infos_alloc(message, g_ip_list.count) != 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[send_manager_agent_info] common_req_agent_info_message_ip_infos_alloc failed. buffer size: %d, ip count: %d\n",
                    PROTO_WORKSPACE_SIZE, g_ip_list.count);
        return -2;
    }
    int i = 0;
    for (vk_ip_info_t *ip = g_ip_list.head; ip != nullptr && i < g_ip_list.count; ip = ip->next, i++) {
        message->ip_infos.items_p[i].ip_version = ip->family;
        message->ip_infos.items_p[i].ip_address.buf_p = ip->address;
        message->ip_infos.items_p[i].ip_address.size = static_cast<size_t>(ip->length == 16 ? 16 : 4);
    }
    if (common_req_agent_info_message_mac_infos_alloc(message, g_mac_list.count) != 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[send_manager_agent_info] common_req_agent_info_message_mac_infos_alloc failed. buffer size: %d, mac count: %d\n",
                    PROTO_WORKSPACE_SIZE, g_mac_list.count);
        return -3;
    }
    i = 0;
    for (vk_mac_info_t *mac = g_mac_list.head; mac != nullptr && i < g_mac_list.count; mac = mac->next, i++) {
        message->mac_infos.items_p[i].mac_address.buf_p = mac->address;
        message->mac_infos.items_p[i].mac_address.size = sizeof(mac->address);
    }
    if (common_req_agent_info_message_custom_infos_alloc(message, 1) != 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[send_manager_agent_info] common_req_agent_info_message_custom_infos_alloc failed. buffer size: %d\n",
                    PROTO_WORKSPACE_SIZE);
        return -4;
    }
    char manager_id[MANAGER_ID_LEN + 1] = {};
    int filled = 0;
    if (get_manager_agent_id() == 0) {
        copy_manager_id(manager_id);
        message->custom_infos.items_p[0].key = "manager_id";
        message->custom_infos.items_p[0].value = manager_id;
        filled = 1;
        VKLOG_INFO(g_vklog.load(), "[send_manager_agent_info] manager_id(%s)\n", manager_id);
    }
    message->custom_infos.length = filled;
    VKLOG_INFO(g_vklog.load(), "[send_manager_agent_info] custom_infos length(%d)\n", filled);

    int size = common_req_agent_info_message_encode(message, encoded.get(), PROTO_WORKSPACE_SIZE);
    if (size < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_manager_agent_info] common_req_agent_info_message_encode failed(%d). buffer size: %d\n",
                    size, PROTO_WORKSPACE_SIZE);
        return -6;
    }
    char *raw = nullptr;
    int length = wrap_dg_packet(&raw, encoded.get(), size, MSG_AGENT_INFO);
    vk_unique_malloc<char> packet(raw);
    if (!packet)
        return 0; // no memory for the frame: nothing is written, and the handshake goes on
    ssize_t written = dg_write_direct(socket, packet.get(), static_cast<size_t>(length));
    if (written <= 0)
        return -7;
    if (written < length)
        return -8;
    return 0;
}

ssize_t send_res_ping(int socket)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    char *raw = nullptr;
    int length = wrap_dg_packet(&raw, nullptr, 0, MSG_RES_PING);
    vk_unique_malloc<char> packet(raw);
    if (!packet)
        return 0;
    ssize_t ret = dg_write_direct(socket, packet.get(), static_cast<size_t>(length));
    VKLOG_DEBUG(g_vklog.load(), "[send_res_ping] ping.(%d)\n", static_cast<int>(ret));
    return ret;
}

int64_t timezone_offset_msec()
{
    // The zone is taken at the epoch instant, not now: the DG expects the zone's standard
    // offset, which a summer-time "now" would shift.
    tzset();
    time_t epoch = 0;
    tm local{};
    localtime_r(&epoch, &local);
    long zone = timezone - (local.tm_isdst > 0 ? 3600 : 0);
    return -static_cast<int64_t>(zone) * 1000;
}

int send_res_timezone_offset()
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    int64_t now = vk_get_time_msec();
    alignas(8) uint8_t workspace[PROTO_SMALL_WORKSPACE_SIZE];
    res_timezone_offset_message_t *message = res_timezone_offset_message_new(workspace, sizeof(workspace));
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[send_res_timezone_offset] res_timezone_offset_new failed. buffer size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE);
        return -1;
    }
    int64_t offset = timezone_offset_msec();
    message->offset_kind = 0;
    message->current_time = static_cast<uint64_t>(now);
    message->offset = static_cast<uint64_t>(offset); // two's complement west of UTC
    uint8_t encoded[PROTO_SMALL_WORKSPACE_SIZE];
    int size = res_timezone_offset_message_encode(message, encoded, sizeof(encoded));
    if (size < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_res_timezone_offset] res_timezone_offset_encode failed(%d). buffer size: %d\n",
                    size, PROTO_SMALL_WORKSPACE_SIZE);
        return -2;
    }
    queue_packet(MSG_RES_TIMEZONE_OFFSET, encoded, size);
    VKLOG_INFO(g_vklog.load(), "[send_res_timezone_offset] offset:%lld\n", static_cast<long long>(offset));
    return 1;
}

int send_req_timesync()
{
    int64_t now = vk_get_time_msec();
    alignas(8) uint8_t workspace[PROTO_SMALL_WORKSPACE_SIZE];
    req_time_sync_t *message = req_time_sync_new(workspace, sizeof(workspace));
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[send_req_timesync] req_time_sync_new failed. buffer size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE);
        return -1;
    }
    message->server_time = static_cast<uint64_t>(now);
    uint8_t encoded[PROTO_SMALL_WORKSPACE_SIZE];
    int size = req_time_sync_encode(message, encoded, sizeof(encoded));
    if (size < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_req_timesync] req_time_sync_encode failed(%d). buffer size: %d\n", size,
                    PROTO_SMALL_WORKSPACE_SIZE);
        return -2;
    }
    queue_packet(MSG_REQ_TIMESYNC, encoded, size);
    VKLOG_DEBUG(g_vklog.load(), "[send_req_timesync] server_time:%lld\n", static_cast<long long>(now));
    VKLOG_TRACE(g_vklog_console_debug.load(), "[send_req_timesync] server_time:%lld\n", static_cast<long long>(now));
    return 1;
}

// ---- command results ------------------------------------------------------------------------

namespace
{

// Length of the valid UTF-8 sequence at p (up to end), or 0 when it is not one.
size_t utf8_sequence_length(const unsigned char *p, const unsigned char *end)
{
    const unsigned char c = p[0];
    size_t n;
    uint32_t min;
    if (c < 0x80)
        return 1;
    if ((c & 0xE0) == 0xC0) {
        n = 2;
        min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        n = 3;
        min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        n = 4;
        min = 0x10000;
    } else {
        return 0;
    }
    if (static_cast<size_t>(end - p) < n)
        return 0;
    uint32_t cp = c & (0x7F >> n);
    for (size_t i = 1; i < n; i++) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

} // namespace

size_t utf8_sanitize(const char *text, char *out, size_t out_size)
{
    if (out == nullptr || out_size == 0)
        return 0;
    const auto *p = reinterpret_cast<const unsigned char *>(text != nullptr ? text : "");
    const auto *end = p + strlen(reinterpret_cast<const char *>(p));
    size_t used = 0;
    while (p < end && used + 1 < out_size) {
        size_t n = utf8_sequence_length(p, end);
        if (n == 0 || used + n >= out_size) {
            out[used++] = '?';
            p += n == 0 ? 1 : n;
            continue;
        }
        memcpy(out + used, p, n);
        used += n;
        p += n;
    }
    out[used] = '\0';
    return used;
}

int send_res_command(const cmd_info_t *record, int phase, const char *journal_key)
{
    if (record == nullptr)
        return -1;
    auto workspace = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    auto text = vk_alloc_array<char>(CMD_RESULT_MESSAGE_SIZE);
    auto encoded = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    res_command_message_t *message =
        workspace && text && encoded ? res_command_message_new(workspace.get(), PROTO_WORKSPACE_SIZE) : nullptr;
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[send_res_command] res_command_message_new failed. buffer size: %d\n",
                    PROTO_WORKSPACE_SIZE);
        return -1;
    }
    char manager_id[MANAGER_ID_LEN + 1];
    copy_manager_id(manager_id);
    utf8_sanitize(record->result_message, text.get(), CMD_RESULT_MESSAGE_SIZE);
    message->manager_id = manager_id;
    message->time = static_cast<uint64_t>(vk_get_time_msec());
    message->phase_type = phase;
    message->execution_id = record->execution_id;
    message->command_id = record->command_id;
    message->cmd_type = record->cmd_type;
    message->agent_id = record->agent_id;
    message->agent_type = record->agent_type;
    message->result = record->result;
    message->result_message = text.get();
    int size = res_command_message_encode(message, encoded.get(), PROTO_WORKSPACE_SIZE);
    if (size < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_res_command] res_command_message_encode failed(%d). buffer size: %d\n",
                    size, PROTO_WORKSPACE_SIZE);
        return -2;
    }
    char *packet = nullptr;
    int length = wrap_dg_packet(&packet, encoded.get(), size, MSG_RES_COMMAND);
    add_to_send_buffer(MSG_RES_COMMAND, packet, static_cast<uint64_t>(length), journal_key);
    VKLOG_INFO(g_vklog.load(),
               "[send_res_command] (60002) phase_type[%d][%s] cmd_type[%d][%s] result[%d][%s] send_data_size[%d] "
               "execution_id[%s] agent_id[%s]\n",
               phase, cmd_phase_name(phase), record->cmd_type, cmd_type_name(record->cmd_type), record->result,
               cmd_result_name(record->result), length, record->execution_id, record->agent_id);
    VKLOG_DEBUG(g_vklog.load(), "[send_res_command] (60002) result_message[%s] len[%d]\n", text.get(),
                static_cast<int>(strlen(text.get())));
    return 0;
}

// ---- target agent list ------------------------------------------------------------------------

int send_target_agent_info()
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    int count = parse_agent_config_file();
    if (count < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_target_agent_info] parse_agent_config_file error (%d) .\n", count);
        return -2;
    }
    if (count > MAX_AGENT_COUNT)
        count = MAX_AGENT_COUNT;
    auto workspace = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    auto encoded = vk_alloc_array<uint8_t>(PROTO_WORKSPACE_SIZE);
    target_agent_info_message_t *message =
        workspace && encoded ? target_agent_info_message_new(workspace.get(), PROTO_WORKSPACE_SIZE) : nullptr;
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[send_target_agent_info] target_agent_info_message_new failed. buffer size: %d\n",
                    PROTO_WORKSPACE_SIZE);
        return -3;
    }
    if (target_agent_info_message_target_agent_infos_alloc(message, count) != 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_target_agent_info] target_agent_info_message_target_agent_infos_alloc failed. buffer size: %d, id count: %d\n",
                    PROTO_WORKSPACE_SIZE, count);
        return -4;
    }
    // The ids are copied under the lock: a registry reset in between leaves empty ids.
    char ids[MAX_AGENT_COUNT][sizeof(g_json_agent_info[0].agent_id)] = {};
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        for (int i = 0; i < count; i++)
            memcpy(ids[i], g_json_agent_info[i].agent_id, sizeof(ids[i]));
    }
    for (int i = 0; i < count; i++) {
        ids[i][sizeof(ids[i]) - 1] = '\0';
        message->target_agent_infos.items_p[i].agent_id = ids[i];
        VKLOG_DEBUG(g_vklog.load(), "[send_target_agent_info][%d/%d] agent_id[%s]\n", i, count, ids[i]);
    }
    int size = target_agent_info_message_encode(message, encoded.get(), PROTO_WORKSPACE_SIZE);
    if (size < 0) {
        VKLOG_ERROR(g_vklog.load(), "[send_target_agent_info] target_agent_info_message_encode failed(%d). buffer size: %d\n",
                    size, PROTO_WORKSPACE_SIZE);
        return -5;
    }
    queue_packet(MSG_TARGET_AGENT_INFO, encoded.get(), size);
    return 0;
}
