// util: the single-instance guard, the root flag, the send-queue drop report and the
// ${NAME} path expansion. Called by main, process_main and pub_conf during start-up.
#include "util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>

#include "global_var.h"
#include "os/linux/olv_linux.h"
#include "vklog.h"

// ---- ${NAME} expansion --------------------------------------------------------

namespace
{

// Appends text to dest (terminated, dest_size bytes). False when it does not fit; dest then
// holds as much as fits.
bool append_text(char *dest, size_t dest_size, std::string_view text)
{
    size_t used = strnlen(dest, dest_size - 1);
    size_t room = dest_size - 1 - used;
    size_t n = std::min(room, text.size());
    memcpy(dest + used, text.data(), n);
    dest[used + n] = '\0';
    return n == text.size();
}

} // namespace

int convert_env_path(const char *source, char *dest, size_t dest_size)
{
    if (source == nullptr || dest == nullptr || dest_size == 0)
        return -1;
    std::string_view rest(source, strnlen(source, 255));
    while (true) {
        size_t open = rest.find("${");
        if (open == std::string_view::npos)
            return append_text(dest, dest_size, rest) ? 0 : -4;
        size_t close = rest.find('}', open + 2);
        if (close == std::string_view::npos)
            return -2;
        char name[256] = {};
        std::string_view var = rest.substr(open + 2, close - open - 2);
        memcpy(name, var.data(), std::min(var.size(), sizeof(name) - 1));
        char value[256];
        if (getenv_vk(value, sizeof(value), name) <= 0)
            return -3;
        if (!append_text(dest, dest_size, rest.substr(0, open)) || !append_text(dest, dest_size, value))
            return -4;
        rest.remove_prefix(close + 1);
    }
}

// ---- single-instance guard ------------------------------------------------------

namespace
{

constexpr size_t k_pid_record_size = 32;

// The pid recorded in the first 32 bytes (0 when empty or unreadable).
pid_t read_pid_record(int fd)
{
    char record[k_pid_record_size + 1] = {};
    ssize_t n = read(fd, record, k_pid_record_size);
    if (n <= 0)
        return 0;
    long pid = strtol(record, nullptr, 10);
    return pid > 0 && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

// Releases the lockf lock, which covers the file from offset 0.
void unlock_pid_file(int fd)
{
    lseek(fd, 0, SEEK_SET);
    lockf(fd, F_ULOCK, 0);
}

} // namespace

int check_double_execution(const char *process_name, const char *display_name)
{
    char path[VK_PATH_SIZE + 32];
    snprintf(path, sizeof(path), "%s/data/manager_agent_pid", g_vk_manager_home);
    vk_unique_fd file(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (file.fd < 0) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020070] File open failed. FileName:%s (%d)\n", path, errno);
        return 1;
    }
    if (lockf(file.fd, F_TLOCK, 0) != 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[KTR-OSM-00020050] The quil-manager-agent is already running. ProcessName:%s\n",
                    display_name);
        return 2;
    }
    pid_t pid = read_pid_record(file.fd);
    VKLOG_TRACE(g_vklog_console_debug.load(), "[check_double_execution] open file. %s(%d)\n", path,
                static_cast<int>(pid));
    if (process_check(pid, process_name) == 1) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020080] Already exists. pid:%d, ProcessName:%s\n",
                    static_cast<int>(pid), display_name);
        unlock_pid_file(file.fd);
        return 3;
    }
    char record[k_pid_record_size] = {};
    int self = static_cast<int>(getpid());
    snprintf(record, sizeof(record), "%d", self);
    lseek(file.fd, 0, SEEK_SET);
    ssize_t written = write(file.fd, record, sizeof(record));
    (void)written; // a failed write leaves a record a later start treats as stale
    unlock_pid_file(file.fd);
    VKLOG_INFO(g_vklog.load(), "[check_double_execution] write pid. %d\n", self);
    return 0;
}

int init_sudo_flag()
{
    uid_t euid = geteuid();
    g_sudo_flag.store(euid == 0 ? 1 : 0);
    return static_cast<int>(euid);
}

// ---- send-queue report ------------------------------------------------------------

// Weak so that the send-queue unit's definition replaces it when that unit is linked in.
__attribute__((weak)) uint32_t get_send_queue_count()
{
    return 0;
}

uint32_t info_log()
{
    static uint32_t s_prev_tcp_skip = 0; // main thread only
    uint32_t current = g_info_log.load();
    uint32_t skip =
        current >= s_prev_tcp_skip ? current - s_prev_tcp_skip : (4294967295u - s_prev_tcp_skip) + current;
    s_prev_tcp_skip = current;
    VKLOG_INFO(g_vklog.load(), "[info_log] current tcp_queue[%u] skip[%d]\n", get_send_queue_count(),
               static_cast<int>(skip));
    return skip;
}
