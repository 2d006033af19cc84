// vk_notify: see vk_notify.h. One close-on-exec datagram socket, opened at start; the
// heartbeats are monotonic-clock stamps in atomics, written by their threads and read by
// the main loop.
#include "os/linux/vk_notify.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "vk_raii.h"

namespace
{

vk_unique_fd s_notify_fd(-1); // open for the life of the process
sockaddr_un s_notify_addr{};
socklen_t s_notify_addr_len = 0;
uint64_t s_watchdog_usec = 0;

// The last STATUS text sent (cut to fit), shared by the threads that report.
constexpr size_t k_status_size = 256;
std::mutex s_status_lock;
char s_last_status[k_status_size];

std::atomic<uint64_t> s_heartbeat_ms[HEARTBEAT_COUNT];

uint64_t monotonic_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// A decimal number without sign or trailing characters, or 0.
uint64_t parse_u64(const char *text)
{
    if (text == nullptr || *text < '0' || *text > '9')
        return 0;
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    return errno == 0 && *end == '\0' ? value : 0;
}

} // namespace

int vk_notify_init()
{
    const char *socket_path = getenv("NOTIFY_SOCKET");
    char path_copy[sizeof(s_notify_addr.sun_path) + 1] = {};
    std::string_view path = socket_path != nullptr ? socket_path : "";
    if (path.size() < sizeof(path_copy)) // copied: unsetenv below frees the original
        memcpy(path_copy, path.data(), path.size());
    path = std::string_view(path_copy, path.size() < sizeof(path_copy) ? path.size() : sizeof(path_copy));
    uint64_t watchdog = parse_u64(getenv("WATCHDOG_USEC"));
    uint64_t watchdog_pid = parse_u64(getenv("WATCHDOG_PID"));
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
    uint64_t now = monotonic_ms();
    for (auto &stamp : s_heartbeat_ms)
        stamp.store(now);
    if (path.empty())
        return 0;
    // An abstract socket is written with a leading '@'; a path must be absolute.
    if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof(s_notify_addr.sun_path))
        return -1;
    s_notify_addr.sun_family = AF_UNIX;
    memcpy(s_notify_addr.sun_path, path.data(), path.size());
    if (path[0] == '@')
        s_notify_addr.sun_path[0] = '\0';
    s_notify_addr_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    s_notify_fd.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s_notify_fd.fd < 0)
        return -1;
    s_watchdog_usec = watchdog_pid == 0 || watchdog_pid == static_cast<uint64_t>(getpid()) ? watchdog : 0;
    return 1;
}

uint64_t vk_notify_watchdog_usec()
{
    return s_notify_fd.fd >= 0 ? s_watchdog_usec : 0;
}

int vk_notify_send(std::string_view state)
{
    if (s_notify_fd.fd < 0)
        return 0;
    ssize_t n;
    do {
        n = sendto(s_notify_fd.fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr *>(&s_notify_addr), s_notify_addr_len);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(state.size()) ? 0 : -1;
}

void vk_notify_status(std::string_view text)
{
    if (s_notify_fd.fd < 0)
        return;
    if (text.size() >= k_status_size)
        text = text.substr(0, k_status_size - 1);
    std::lock_guard<std::mutex> guard(s_status_lock);
    if (text == std::string_view(s_last_status))
        return;
    memcpy(s_last_status, text.data(), text.size());
    s_last_status[text.size()] = '\0';
    char message[k_status_size + 8];
    int n = snprintf(message, sizeof(message), "STATUS=%s", s_last_status);
    (void)vk_notify_send(std::string_view(message, static_cast<size_t>(n)));
}

void vk_heartbeat(vk_heartbeat_t thread)
{
    s_heartbeat_ms[thread].store(monotonic_ms(), std::memory_order_relaxed);
}

bool vk_heartbeats_fresh(uint64_t within_ms)
{
    uint64_t now = monotonic_ms();
    for (const auto &stamp : s_heartbeat_ms)
        if (now - stamp.load(std::memory_order_relaxed) > within_ms)
            return false;
    return true;
}
