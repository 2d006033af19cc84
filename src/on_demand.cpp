// on_demand: message dispatch on the DG connection.
#include "on_demand.h"

#include "msg_type.h"
#include "pkt_proto/proto_recv.h"
#include "signal_ctl.h"
#include "vk_comm.h"
#include "vklog.h"

int read_msg_nio(char *packet, void *socket_pointer)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    int socket = socket_pointer != nullptr ? *static_cast<int *>(socket_pointer) : -1;
    const uint32_t length = get_nio_length(packet);
    if (length < static_cast<uint32_t>(VK_NIO_SUB_HEADER_LEN))
        return 0; // the readers never deliver one; nothing to dispatch
    const int type = get_nio_message_type(packet);
    int ret = process_msg_common(socket, packet + VK_NIO_MAIN_HEADER_LEN, type, packet + VK_NIO_HEADER_LEN,
                                 static_cast<int>(length - VK_NIO_SUB_HEADER_LEN));
    return ret < 0 ? ret : 0;
}

int process_msg_common(int socket, const char *, int message_type, const char *body, int body_length)
{
    const auto *data = reinterpret_cast<const uint8_t *>(body);
    switch (message_type) {
    case MSG_REQ_PING:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return process_res_ping(socket);
    case MSG_REQ_TIMEZONE_OFFSET:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return process_res_timezone_offset();
    case MSG_RES_TIMESYNC:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return process_res_timesync(data, body_length);
    case MSG_RES_AGENT_INFO:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return process_res_common_agent_info(data, body_length);
    case MSG_REQ_COMMAND:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return process_req_command(data, body_length);
    case MSG_REQ_FILE_CHUNK:
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
        return save_file_chunk(data, body_length);
    default:
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00060080] Packet processing failed.(%d)\n", message_type);
        return 1;
    }
}
