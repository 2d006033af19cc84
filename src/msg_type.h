// msg_type: the DG message types and the sub-header values each outgoing type travels with.
// Every sender frames its body through wrap_dg_packet, which reads packet_type, packet_id,
// body_kind and protocol_stamp from this one table, so no sender spells those numbers.
// Thread safety: constant data and a pure function; safe from any thread.
#pragma once

#include <cstdint>

#include "vk_comm.h"

// Message types (NIO sub-header bytes 12..13). "out" is agent -> DG, "in" is DG -> agent.
enum : int {
    MSG_AGENT_INFO = 10043,          // out: common_req_agent_info_message (handshake, direct write)
    MSG_RES_PING = 40000,            // out: empty body (direct write)
    MSG_RES_TIMEZONE_OFFSET = 40001, // out: res_timezone_offset_message
    MSG_REQ_TIMESYNC = 40006,        // out: req_time_sync
    MSG_REQ_PING = 50000,            // in: body ignored
    MSG_REQ_TIMEZONE_OFFSET = 50001, // in: body ignored
    MSG_RES_TIMESYNC = 50020,        // in: res_time_sync_message
    MSG_RES_AGENT_INFO = 50036,      // in: common_res_agent_info_message (handshake reply)
    MSG_REQ_COMMAND = 60001,         // in: req_command_message
    MSG_RES_COMMAND = 60002,         // out: res_command_message
    MSG_TARGET_AGENT_INFO = 60003,   // out: target_agent_info_message
    MSG_REQ_FILE_CHUNK = 60004,      // in: req_file_chunk_message
};

// packet_type of every packet this program sends.
inline constexpr int NIO_PACKET_TYPE_AGENT = 4;
// protocol_stamp of every outgoing message but the target agent list, which carries its own
// message type there instead.
inline constexpr uint32_t NIO_PROTOCOL_STAMP = 19121701;

struct msg_type_info_t {
    int message_type;
    bool outgoing;
    int body_kind;           // sub-header byte 18 (outgoing types only)
    uint32_t protocol_stamp; // sub-header bytes 19..22 (outgoing types only)
    const char *body_name;   // the message the body holds, for logs and tools
};

inline constexpr msg_type_info_t g_msg_type_table[] = {
    {MSG_AGENT_INFO, true, 2, NIO_PROTOCOL_STAMP, "common_req_agent_info_message"},
    {MSG_RES_PING, true, 4, NIO_PROTOCOL_STAMP, ""},
    {MSG_RES_TIMEZONE_OFFSET, true, 4, NIO_PROTOCOL_STAMP, "res_timezone_offset_message"},
    {MSG_REQ_TIMESYNC, true, 2, NIO_PROTOCOL_STAMP, "req_time_sync"},
    {MSG_REQ_PING, false, 0, 0, ""},
    {MSG_REQ_TIMEZONE_OFFSET, false, 0, 0, ""},
    {MSG_RES_TIMESYNC, false, 0, 0, "res_time_sync_message"},
    {MSG_RES_AGENT_INFO, false, 0, 0, "common_res_agent_info_message"},
    {MSG_REQ_COMMAND, false, 0, 0, "req_command_message"},
    {MSG_RES_COMMAND, true, 1, NIO_PROTOCOL_STAMP, "res_command_message"},
    {MSG_TARGET_AGENT_INFO, true, 1, MSG_TARGET_AGENT_INFO, "target_agent_info_message"},
    {MSG_REQ_FILE_CHUNK, false, 0, 0, "req_file_chunk_message"},
};

// The table row of message_type, or null for a type the protocol does not define.
constexpr const msg_type_info_t *find_msg_type(int message_type)
{
    for (const msg_type_info_t &info : g_msg_type_table)
        if (info.message_type == message_type)
            return &info;
    return nullptr;
}

static_assert(find_msg_type(MSG_TARGET_AGENT_INFO)->protocol_stamp == 60003,
              "the target agent list carries its own type as stamp");
static_assert(find_msg_type(MSG_RES_PING)->body_kind == 4 && find_msg_type(MSG_AGENT_INFO)->body_kind == 2 &&
              find_msg_type(MSG_RES_COMMAND)->body_kind == 1);

// Frames body (body_length bytes; may be null when 0) as an outgoing message_type with the
// table's sub-header values and packet_id 0. Returns the packet length (body_length + 23)
// with the malloc'd packet in *out_buffer (the caller owns it), or 0 with *out_buffer null
// when the type is not an outgoing one or the packet cannot be built.
[[nodiscard]] inline int wrap_dg_packet(char **out_buffer, const void *body, int body_length, int message_type)
{
    const msg_type_info_t *info = find_msg_type(message_type);
    if (info == nullptr || !info->outgoing) {
        if (out_buffer != nullptr)
            *out_buffer = nullptr;
        return 0;
    }
    return wrap_packet_nio_header(out_buffer, body, body_length, NIO_PACKET_TYPE_AGENT, message_type, 0,
                                  info->body_kind, info->protocol_stamp);
}
