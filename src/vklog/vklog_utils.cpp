// vklog_utils: small helpers of the logging library: environment lookup and ${NAME}
// expansion for directory values, text trimming and number parsing for configuration
// values, and directory creation. Called by vklog_config and vklog; safe from any thread.
#include "vklog_internal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr mode_t s_dir_mode = 0750;
constexpr size_t s_path_size = 4096;

// Every header with a pid item and every UDP packet carries the pid; a getpid() per line
// is a system call the line does not need. 0 = not known (a fork's child starts so).
std::atomic<int> s_pid{0};

void vl_forget_pid()
{
    s_pid.store(0, std::memory_order_relaxed);
}

} // namespace

int vl_process_id()
{
    int pid = s_pid.load(std::memory_order_relaxed);
    if (pid != 0)
        return pid;
    static std::once_flag once;
    std::call_once(once, [] { (void)pthread_atfork(nullptr, nullptr, vl_forget_pid); });
    pid = static_cast<int>(getpid());
    s_pid.store(pid, std::memory_order_relaxed);
    return pid;
}

int getenv_vklog(const char *name, char *buffer, size_t size)
{
    if (name == nullptr || buffer == nullptr || size == 0)
        return -1;
    buffer[0] = '\0';
    const char *value = getenv(name);
    if (value == nullptr)
        return -1;
    size_t len = strnlen(value, size);
    if (len >= size)
        return -2;
    memcpy(buffer, value, len + 1);
    return static_cast<int>(len);
}

bool vl_deactivated_by_environment()
{
    char value[VL_ENV_VALUE_SIZE];
    return getenv_vklog("OLV_DAEMON_VKLOG_DEACTIVATE", value, sizeof(value)) >= 0 &&
           strcmp(value, "true") == 0;
}

int vklog_convert_string_Environment(std::string_view source, char *dest, size_t size)
{
    if (dest == nullptr || size == 0)
        return -1;
    size_t out = 0;
    auto append = [&](std::string_view piece) {
        if (out + piece.size() >= size)
            return false;
        memcpy(dest + out, piece.data(), piece.size());
        out += piece.size();
        return true;
    };
    int rc = 0;
    while (rc == 0) {
        size_t open = source.find("${");
        if (open == std::string_view::npos) {
            rc = append(source) ? 1 : -4;
            break;
        }
        size_t close = source.find('}', open + 2);
        if (close == std::string_view::npos) {
            rc = -2;
            break;
        }
        std::string_view var = source.substr(open + 2, close - open - 2);
        char name[256];
        char value[VL_ENV_VALUE_SIZE];
        if (var.empty() || var.size() >= sizeof(name)) {
            rc = -3;
            break;
        }
        vl_copy(name, sizeof(name), var);
        if (getenv_vklog(name, value, sizeof(value)) <= 0) {
            rc = -3;
            break;
        }
        if (!append(source.substr(0, open)) || !append(value))
            rc = -4;
        source.remove_prefix(close + 1);
    }
    dest[rc == 1 ? out : 0] = '\0';
    return rc == 1 ? 0 : rc;
}

std::string_view vl_trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return text.substr(text.size()); // empty, but still pointing into the text: an empty value, not a missing one
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

unsigned long vl_parse_unsigned(std::string_view text, int base, bool *whole)
{
    unsigned long value = 0;
    size_t i = 0;
    for (; i < text.size(); i++) {
        int digit = text[i] - '0';
        if (digit < 0 || digit >= base)
            break;
        value = value > (ULONG_MAX - digit) / base ? ULONG_MAX : value * base + digit;
    }
    if (whole != nullptr)
        *whole = i > 0 && i == text.size();
    return value;
}

size_t vl_copy(char *dest, size_t size, std::string_view text)
{
    if (dest == nullptr || size == 0)
        return 0;
    size_t len = text.size() < size - 1 ? text.size() : size - 1;
    memcpy(dest, text.data(), len);
    dest[len] = '\0';
    return len;
}

int vl_make_directory(const char *directory)
{
    if (mkdir(directory, s_dir_mode) == 0 || errno == EEXIST)
        return 0;
    return -1;
}

int vklog_make_directory_with_parents(const char *directory, size_t len)
{
    if (directory == nullptr)
        return -1;
    char path[s_path_size];
    len = strnlen(directory, len < sizeof(path) ? len : sizeof(path));
    if (len == 0 || len >= sizeof(path))
        return -1;
    memcpy(path, directory, len);
    path[len] = '\0';
    // Each level in turn: stop at every '/' after the first character, then the whole path.
    for (size_t i = 1; i <= len; i++) {
        if (i < len && path[i] != '/')
            continue;
        char saved = path[i];
        path[i] = '\0';
        int rc = vl_make_directory(path);
        int err = errno;
        if (rc != 0)
            fprintf(stderr, "[%s] is not make.[(%d)%s]\n", path, err, strerror(err));
        path[i] = saved;
        if (rc != 0)
            return -1;
    }
    return 0;
}
