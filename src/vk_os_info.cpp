// vk_os_info: uname facts and CPU counts of the host; see vk_os_info.h.
#include "vk_os_info.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/utsname.h>
#include <unistd.h>

#include "vk_raii.h"
#include "vk_string.h"

char hostname[OS_INFO_SIZE];
char osVersion[OS_INFO_SIZE];
char machineId[OS_INFO_SIZE];
int32_t g_logical_cpu_count = 0;
int32_t g_physical_cpu_count = 0;

int init_os_info()
{
    utsname uts{};
    if (uname(&uts) != 0)
        return -1;
    (void)gethostid();
    vk_strlcpy(osVersion, uts.release, sizeof(osVersion));
    vk_strlcpy(hostname, uts.nodename, sizeof(hostname));
    return 0;
}

namespace
{

void copy_stored(char *dst, size_t n, const char (&stored)[OS_INFO_SIZE])
{
    vk_strlcpy(dst, stored, n < OS_INFO_SIZE ? n : OS_INFO_SIZE);
}

} // namespace

void get_os_info_hostname(char *dst, size_t n)
{
    copy_stored(dst, n, hostname);
}

void get_os_info_os_version(char *dst, size_t n)
{
    copy_stored(dst, n, osVersion);
}

void get_os_info_machine_id(char *dst, size_t n)
{
    copy_stored(dst, n, machineId);
}

int32_t get_os_info_logical_cpu_count()
{
    return g_logical_cpu_count;
}

int32_t get_os_info_physical_cpu_count()
{
    return g_physical_cpu_count;
}

int get_logical_cpu_count(int *err)
{
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    if (count < 0 && err != nullptr)
        *err = errno;
    return static_cast<int>(count);
}

namespace
{

// The id of a "physical id" line: the token after the first ':' (blanks skipped), by
// strtoll, low 32 bits. False when the line has no such token.
bool physical_id_of(const char *line, int32_t *id)
{
    const char *token = strchr(line, ':');
    if (token == nullptr)
        return false;
    for (token++; *token == ' '; token++) {
    }
    if (*token == '\0')
        return false;
    long long value = strtoll(token, nullptr, 10); // stops at the blank ending the token
    *id = static_cast<int32_t>(static_cast<uint32_t>(value));
    return true;
}

} // namespace

int get_physical_cpu_count(const char *path, int logical, int *err)
{
    auto fail = [err](int code, int error) {
        if (err != nullptr)
            *err = error;
        return code;
    };
    if (logical == 1)
        return 1;
    vk_unique_file file(path != nullptr ? fopen(path, "r") : nullptr);
    if (!file)
        return fail(-10, path != nullptr ? errno : EINVAL);
    if (logical < 1)
        return fail(-20, EINVAL);
    vk_unique_malloc<int32_t> ids(
        static_cast<int32_t *>(malloc(sizeof(int32_t) * static_cast<size_t>(logical))));
    if (!ids)
        return fail(-20, errno);
    int found = 0;
    char line[256];
    while (found < logical && fgets(line, sizeof(line), file.get()) != nullptr) {
        int32_t id = 0;
        if (strncmp(line, "physical id", 9) != 0 || !physical_id_of(line, &id))
            continue;
        bool known = false;
        for (int i = 0; i < found && !known; i++)
            known = ids.get()[i] == id;
        if (!known)
            ids.get()[found++] = id;
    }
    return found;
}

int init_cpu_core(int *err)
{
    int logical = get_logical_cpu_count(err);
    if (logical < 0)
        return logical;
    int physical = get_physical_cpu_count("/proc/cpuinfo", logical, err);
    if (physical < 0)
        return physical;
    g_logical_cpu_count = logical;
    g_physical_cpu_count = physical;
    return 0;
}
