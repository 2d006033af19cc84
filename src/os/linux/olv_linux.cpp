// olv_linux: environment readers, umask rules, OS identity and /proc command lines for
// start-up (main) and the single-instance guard (check_double_execution).
#include "os/linux/olv_linux.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "pub_func.h"
#include "vk_raii.h"
#include "vk_string.h"
#include "vklog.h"

namespace
{

// Preset lookups of the umask rules use 1024-byte values.
constexpr size_t k_perm_value_size = 1024;
// Bits every computed umask keeps.
constexpr mode_t k_umask_floor = 022;

// Adds `read_bits` / `write_bits` to mask for each "read" / "write" in the comma list.
mode_t perm_bits_from_list(std::string_view list, mode_t read_bits, mode_t write_bits)
{
    mode_t mask = 0;
    while (!list.empty()) {
        size_t comma = list.find(',');
        std::string_view token = list.substr(0, comma);
        if (token == "read")
            mask |= read_bits;
        else if (token == "write")
            mask |= write_bits;
        if (comma == std::string_view::npos)
            break;
        list.remove_prefix(comma + 1);
    }
    return mask;
}

} // namespace

int getenv_vk(char *dest, size_t size, const char *name)
{
    if (dest == nullptr || size == 0)
        return -1;
    dest[0] = '\0';
    const char *value = name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr)
        return 0;
    size_t len = strlen(value);
    if (len >= size)
        return -3;
    memcpy(dest, value, len + 1);
    return static_cast<int>(len);
}

int init_environment(char *home_buf, size_t home_size)
{
    int ret = getenv_vk(home_buf, home_size, "MGR_QUIL_HOME");
    if (ret <= 0) {
        if (home_buf != nullptr && home_size > 0)
            home_buf[0] = '\0';
        fprintf(stderr,
                "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:%d]\n", ret);
        return -1;
    }
    printf("env MGR_QUIL_HOME(%llu)[%s]\n", static_cast<unsigned long long>(ret), home_buf);
    set_config_by_env("MGR_RECEIVER_ADDR", "MGR_RECEIVER_ADDR", 17);
    return 0;
}

int set_config_by_env(const char *env_name, const char *preset_key, int key_len)
{
    char value[256];
    int ret = getenv_vk(value, sizeof(value), env_name);
    if (ret < 0) {
        fprintf(stderr, "[KTR-OSM-00010010][ERROR] Failed to get environment variable %s.[ret:%d]\n",
                env_name != nullptr ? env_name : "", ret);
        return 0;
    }
    // The number printed is the buffer size, not the value's length.
    printf("env %s(%d)[%s]\n", env_name, static_cast<int>(sizeof(value)), value);
    size_t len = vk_trim_ex(value, "\"");
    if (len > 0 && key_len > 0 &&
        set_properties_preset(preset_key, key_len, value, static_cast<int>(len)) < 0)
        return 0;
    return 1;
}

int set_umask_from_env()
{
    char value[k_perm_value_size];
    mode_t mask = 0;
    bool found = false;
    if (get_properties_preset("REMOVE_PERM_GROUP", value, sizeof(value)) >= 1) {
        found = true;
        mask |= perm_bits_from_list(value, 040, 020);
    }
    if (get_properties_preset("REMOVE_PERM_OTHER", value, sizeof(value)) >= 1) {
        found = true;
        mask |= perm_bits_from_list(value, 04, 02);
    }
    if (!found && get_properties_preset("PERM_FILE_OTHER_WR", value, sizeof(value)) >= 1) {
        if (strcmp(value, "true") == 0) {
            mask = 0;
        } else if (strcmp(value, "false") == 0) {
            mask = 02;
        } else {
            fprintf(stderr,
                    "[KTR-OSM-00010011][ERROR] environment variable PERM_FILE_OTHER_WR is wrong.[%s]\n",
                    value);
            return -1;
        }
    }
    // The files that steer the agent (data/config above all) are re-read at run time, and
    // scripts inherit the mask: group and others never get write permission.
    umask(mask | k_umask_floor);
    return 0;
}

int check_os_info(int to_log)
{
    utsname info{};
    if (uname(&info) != 0) {
        int err = errno;
        if (to_log == 0)
            printf("[check_os_info] uname Error (%d)\n", err);
        else
            VKLOG_ERROR(g_vklog.load(), "[check_os_info] uname Error (%d)\n", err);
        return -1;
    }
    static constexpr const char *k_format[5] = {
        "[check_os_info] OS Name : %s\n", "[check_os_info] Nodename : %s\n", "[check_os_info] Release : %s\n",
        "[check_os_info] Version : %s\n", "[check_os_info] Machine : %s\n",
    };
    const char *field[5] = {info.sysname, info.nodename, info.release, info.version, info.machine};
    for (int i = 0; i < 5; i++) {
        if (to_log == 0)
            printf(k_format[i], field[i]);
        else
            VKLOG_INFO(g_vklog.load(), k_format[i], field[i]);
    }
    return 0;
}

int init_os()
{
    return check_os_info(1);
}

int _get_proc_cmdline(pid_t pid, char *buffer, size_t size)
{
    if (buffer == nullptr)
        return -1;
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(pid));
    if (access(path, F_OK) != 0)
        return -2;
    vk_unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (file.fd < 0)
        return -1;
    ssize_t n = read(file.fd, buffer, size);
    if (n < 0)
        return -1;
    // Arguments are NUL-separated; the last byte ends the last argument and stays.
    for (ssize_t i = n - 2; i > 0; i--) {
        if (buffer[i] == '\0')
            buffer[i] = ' ';
    }
    return static_cast<int>(n);
}

int get_process_cmd_by_pid(pid_t pid, char *out, size_t out_size)
{
    if (out == nullptr || out_size == 0)
        return -1;
    char buffer[4096] = {};
    int n = _get_proc_cmdline(pid, buffer, sizeof(buffer));
    if (n <= 0)
        return -1;
    if (n >= static_cast<int>(sizeof(buffer)) - 1)
        return -2;
    buffer[n] = '\0';
    vk_trim(buffer);
    vk_strlcpy(out, buffer, out_size);
    return 0;
}

int process_check(pid_t pid, const char *name)
{
    if (pid == 0 || name == nullptr || name[0] == '\0')
        return 0;
    char cmdline[256];
    if (get_process_cmd_by_pid(pid, cmdline, sizeof(cmdline)) == 0) {
        VKLOG_DEBUG(g_vklog.load(), "[process_check] pid[%d] check_proc[%s] name[%s]\n",
                    static_cast<int>(pid), name, cmdline);
        return strstr(cmdline, name) != nullptr ? 1 : 0;
    }
    VKLOG_DEBUG(g_vklog.load(), "[process_check] Not found pid(%d) name(%s) - (%d)\n", static_cast<int>(pid),
                name, errno);
    return 0;
}
