// proto_recv: handlers of the messages the DG sends. Each decodes its body in a workspace
// of its own; nothing decoded outlives the call, so whatever is kept is copied.
#include "pkt_proto/proto_recv.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "command.h"
#include "command_handler.h"
#include "common_agent_info.h"
#include "global_var.h"
#include "pkt_proto/proto_send.h"
#include "pub_func.h"
#include "res_time_sync.h"
#include "signal_ctl.h"
#include "util.h"
#include "vklog.h"
#include "vk_raii.h"

int process_res_common_agent_info(const uint8_t *body, int length)
{
    alignas(8) uint8_t workspace[PROTO_SMALL_WORKSPACE_SIZE];
    common_res_agent_info_message_t *message = common_res_agent_info_message_new(workspace, sizeof(workspace));
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(),
                    "[process_res_common_agent_info] common_res_agent_info_message_new failed. buffer size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE);
        return -1;
    }
    if (length < 0 || common_res_agent_info_message_decode(message, body, static_cast<size_t>(length)) < 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[process_res_common_agent_info] common_res_agent_info_message_decode failed. buffer size: %d, "
                    "packet size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE, length);
        return -2;
    }
    if (message->manager_id[0] == '\0') {
        VKLOG_INFO(g_vklog.load(), "[process_res_common_agent_info] wrong manager id\n");
        return -3;
    }
    set_manager_id(message->manager_id);
    char id[MANAGER_ID_LEN + 1];
    copy_manager_id(id);
    VKLOG_INFO(g_vklog.load(), "[process_res_common_agent_info] manager id: [%s]\n", id);
    VKLOG_DEBUG(g_vklog.load(), "[process_res_common_agent_info] protocol_version: %d, dg_protocol_version: %d\n",
                static_cast<int>(message->protocol_version), static_cast<int>(message->dg_protocol_version));
    // An id that cannot be saved (full disk, something in the way) is logged and kept in
    // memory: the handshake goes on, and the next one saves it again.
    (void)save_manager_id(id);
    return 0;
}

int process_res_ping(int socket)
{
    return static_cast<int>(send_res_ping(socket));
}

int process_res_timezone_offset()
{
    return send_res_timezone_offset();
}

int process_res_timesync(const uint8_t *body, int length)
{
    alignas(8) uint8_t workspace[PROTO_SMALL_WORKSPACE_SIZE];
    res_time_sync_message_t *message = res_time_sync_message_new(workspace, sizeof(workspace));
    if (message == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[process_res_timesync] res_time_sync_new failed. buffer size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE);
        return -1;
    }
    if (length < 0 || res_time_sync_message_decode(message, body, static_cast<size_t>(length)) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[process_res_timesync] res_time_sync_decode failed. buffer size: %d, packet size: %d\n",
                    PROTO_SMALL_WORKSPACE_SIZE, length);
        return -2;
    }
    // The sample is the agent's clock minus the DG's, cut to 32 bits.
    auto sample = static_cast<int32_t>(message->agent_time - message->dg_time);
    if (diff_time_sync(sample) != 0)
        return send_req_timesync();
    VKLOG_INFO(g_vklog.load(), "[process_res_timesync] timesync diff:%d\n", static_cast<int>(get_diff_timesync()));
    return 0;
}

// ---- commands and chunks --------------------------------------------------------------------

namespace
{

// Extra workspace beyond a chunk's body: its records (the data is the body's bulk).
constexpr size_t k_decode_extra = 4096;


// A decoding workspace of `size` bytes, or null. Not zeroed: the message's _new initialises
// its record and heap, and the decoder writes every block it hands out.
vk_unique_malloc<uint8_t> decode_workspace(size_t size)
{
    return vk_unique_malloc<uint8_t>(static_cast<uint8_t *>(malloc(size)));
}

size_t body_size(int body_len)
{
    return static_cast<size_t>(body_len < 0 ? 0 : body_len);
}

} // namespace

int process_req_command(const uint8_t *body, int body_len)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    VKLOG_DEBUG(g_vklog.load(), "[process_req_command] body_len[%d]\n", body_len);
    // Sized from the request: a command with many options decodes whole (the record keeps
    // the first ten).
    const size_t size = req_command_message_workspace_size(body_size(body_len));
    auto workspace = decode_workspace(size);
    if (!workspace) {
        VKLOG_ERROR(g_vklog.load(), "[process_req_command] buf calloc failed. (buffer size: %d)\n", static_cast<int>(size));
        return -1;
    }
    req_command_message_t *msg = req_command_message_new(workspace.get(), size);
    if (msg == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[process_req_command] common_res_agent_config_message_new() failed. (buffer size:%d)\n",
                    static_cast<int>(size));
        return -2;
    }
    if (body_len < 0 || req_command_message_decode(msg, body, static_cast<size_t>(body_len)) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[process_req_command] common_res_agent_config_message_decode() failed. (buffer size:%d)\n",
                    static_cast<int>(size));
        return -3;
    }
    if (msg->target_agent_infos.length == 0) {
        VKLOG_ERROR(g_vklog.load(), "[process_req_command] agent_infos = 0 (buffer size:%d)\n", static_cast<int>(size));
        return -4;
    }
    if (msg->cmd_type == CMD_PATCH_STOP) {
        if (del_command(msg) < 0) {
            VKLOG_ERROR(g_vklog.load(), "[process_req_command] del_command() failed. (buffer size:%d)\n", static_cast<int>(size));
            return -5;
        }
    } else if (msg->cmd_type == CMD_PATCH_START) {
        if (patch_command(msg) < 0) {
            VKLOG_ERROR(g_vklog.load(), "[process_req_command] patch_command() failed. (buffer size:%d)\n", static_cast<int>(size));
            return -6;
        }
    } else if (set_command(msg) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[process_req_command] set_command() failed. (buffer size:%d)\n", static_cast<int>(size));
        return -7;
    }
    return 0;
}

int save_file_chunk(const uint8_t *body, int body_len)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    VKLOG_DEBUG(g_vklog.load(), "[save_file_chunk] body_len[%d]\n", body_len);
    const size_t size = body_size(body_len) + k_decode_extra;
    auto workspace = decode_workspace(size);
    if (!workspace) {
        VKLOG_ERROR(g_vklog.load(), "[save_file_chunk] buf calloc failed. (buffer size: %d)\n", static_cast<int>(size));
        return -1;
    }
    req_file_chunk_message_t *chunk = req_file_chunk_message_new(workspace.get(), size);
    if (chunk == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[save_file_chunk] common_res_agent_config_message_new() failed. (buffer size:%d)\n",
                    static_cast<int>(size));
        return -2;
    }
    if (body_len < 0 || req_file_chunk_message_decode(chunk, body, static_cast<size_t>(body_len)) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[save_file_chunk] common_res_agent_config_message_decode() failed. (buffer size:%d)\n",
                    static_cast<int>(size));
        return -3;
    }
    return write_file_from_chunk(chunk) < 0 ? -4 : 0;
}
