// vklog_comm: the UDP socket of a category's vklogger output: open, connect, send and the
// adaptation to a re-applied configuration. Called by the line writer and the configuration
// swap in vklog. Every operation on one output runs under that output's lock.
#include "vklog_internal.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int s_min_send_buffer = 65535;

bool vl_has_vklogger(uint8_t output)
{
    return (output & VKLOG_OUTPUT_VKLOGGER) != 0;
}

} // namespace

int vl_vklogger_socket_open(vklog_output_vklogger_t *output)
{
    if (output->sock >= 0)
        return -1;
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        output->err_no = errno;
        output->is_connect = 0;
        return -2;
    }
    int size = 0;
    socklen_t len = sizeof(size);
    if (getsockopt(sock, SOL_SOCKET, SO_SNDBUF, &size, &len) == 0 && size < s_min_send_buffer) {
        size = s_min_send_buffer;
        (void)setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)); // a smaller buffer still works
    }
    output->sock = sock;
    return 0;
}

int vl_vklogger_socket_close(vklog_output_vklogger_t *output)
{
    if (output->sock < 0)
        return -1;
    close(output->sock);
    output->sock = -1;
    output->is_connect = 0;
    return 0;
}

int vl_vklogger_connect(vklog_output_vklogger_t *output, const char *ip, uint16_t port)
{
    if (ip == nullptr || ip[0] == '\0')
        return 0;
    output->is_connect = 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    int rc = inet_pton(AF_INET, ip, &addr.sin_addr);
    if (rc == 0)
        return -3;
    if (rc < 0)
        return -4;
    if (connect(output->sock, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0) {
        output->err_no = errno;
        return -5;
    }
    output->is_connect = 1;
    return 0;
}

int vl_va_log_send_to_vklogger(vklog_output_vklogger_t *output, const unsigned char *buffer, size_t length)
{
    std::lock_guard<vklog_lock_t> hold(output->lock);
    if (output->sock < 0)
        return -2;
    if (output->is_connect == 0)
        return -3;
    // Never block a logging thread on the log server: a full buffer counts as an error.
    ssize_t sent = send(output->sock, buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
        output->perf_data.sent_success_count++;
        output->perf_data.sent_size += static_cast<uint32_t>(sent);
    } else {
        output->err_no = errno;
        output->perf_data.sent_error_count++;
    }
    return 0;
}

int vl_output_vklogger_init_from_config(vklog_output_vklogger_t *output, const vklog_config_t *config)
{
    std::lock_guard<vklog_lock_t> hold(output->lock);
    if (vl_has_vklogger(config->output)) {
        int rc = vl_vklogger_socket_open(output);
        if (rc < 0) {
            output->err_no = rc;
            return -1;
        }
    }
    if (config->vklogger_ip[0] != '\0' && output->sock >= 0) {
        if (vl_vklogger_connect(output, config->vklogger_ip, config->vklogger_port) != 0)
            return -3;
    } else {
        output->is_connect = 0;
    }
    return 0;
}

int vl_apply_config_to_vklogger(vklog_output_vklogger_t *output, const vklog_config_t *old,
                                const vklog_config_t *config)
{
    bool on = vl_has_vklogger(config->output);
    std::lock_guard<vklog_lock_t> hold(output->lock);
    bool do_open = on && output->sock < 0;
    bool do_close = !on && output->sock >= 0;
    bool do_connect = false;
    bool do_unconnect = false;
    if (on) {
        bool ip_changed = strncmp(old->vklogger_ip, config->vklogger_ip, sizeof(config->vklogger_ip)) != 0;
        bool port_changed = old->vklogger_port != config->vklogger_port;
        bool has_ip = config->vklogger_ip[0] != '\0';
        if (ip_changed || port_changed) {
            do_connect = has_ip;
            do_unconnect = !has_ip;
        } else {
            do_connect = do_open && has_ip;
        }
    }
    if (!do_open && !do_close && !do_connect && !do_unconnect)
        return 0;
    if (do_close && vl_vklogger_socket_close(output) != 0)
        return -1;
    if (do_open && vl_vklogger_socket_open(output) != 0)
        return -2;
    if (do_unconnect)
        output->is_connect = 0;
    if (do_connect && vl_vklogger_connect(output, config->vklogger_ip, config->vklogger_port) != 0)
        return -3;
    return 0;
}

int vklog_get_vklogger_perf_sent(vklog_t *cat, vklog_vklogger_perf_data_t *perf)
{
    if (cat == nullptr || perf == nullptr)
        return -1;
    std::lock_guard<vklog_lock_t> hold(cat->output_vklogger.lock);
    *perf = cat->output_vklogger.perf_data;
    return 0;
}
