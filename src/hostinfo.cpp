// hostinfo: host ID, host name and host key, the user-name lookup and two string helpers;
// see hostinfo.h. Every buffer handed out is malloc'd here and owned by the caller.
#include "hostinfo.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "util.h"
#include "vk_string.h"
#include "vklog.h"
#include "vk_raii.h"

namespace
{

// getifaddrs stores a link-layer address of up to 24 bytes in its entry (sll_halen says
// how many), more than the 8 that struct sockaddr_ll declares.
constexpr size_t k_max_hw_addr_len = 24;

} // namespace

size_t host_id_append_hex(char *dst, size_t size, const unsigned char *bytes, size_t len)
{
    if (dst == nullptr || size == 0)
        return 0;
    size_t used = strnlen(dst, size - 1);
    dst[used] = '\0';
    for (size_t i = 0; i < len && used + 2 < size; i++) {
        snprintf(dst + used, 3, "%02x", bytes[i]);
        used += 2;
    }
    return used;
}

char *getUNIXHostID()
{
    vk_unique_malloc<char> host_id(static_cast<char *>(calloc(1, HOST_ID_SIZE)));
    if (!host_id) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080270] Memory allocation failed.\n");
        return nullptr;
    }
    ifaddrs *raw = nullptr;
    if (getifaddrs(&raw) != 0) {
        VKLOG_ERROR(g_vklog.load(),
                    "[KTR-OSM-00080300] Failed to get network interfaces of the local system (%d)\n", errno);
        return nullptr;
    }
    vk_unique_ifaddrs list(raw);
    for (const ifaddrs *ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_PACKET)
            continue;
        const auto *ll = reinterpret_cast<const sockaddr_ll *>(ifa->ifa_addr);
        size_t len = ll->sll_halen < k_max_hw_addr_len ? ll->sll_halen : k_max_hw_addr_len;
        host_id_append_hex(host_id.get(), HOST_ID_SIZE, ll->sll_addr, len);
        if (host_id.get()[0] == '\0') {
            VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080290] Failed to get HostID\n");
            return nullptr;
        }
    }
    VKLOG_INFO(g_vklog.load(), "[getUNIXHostID] - pszHostID : %s\n", host_id.get());
    return host_id.release();
}

char *getOSMHostName()
{
    VKLOG_INFO(g_vklog.load(), "getOSMHostName() - START\n");
    char name[OSM_HOST_NAME_SIZE] = {};
    int rc = gethostname(name, sizeof(name) - 1); // the last byte stays NUL
    if (rc != 0) {
        printf("getOSMHostName() - gethostname() fail. nResult : %d\n", rc);
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080320] HostName function failed. (%d)\n", rc);
        return nullptr;
    }
    if (name[0] == '\0') {
        printf("getOSMHostName() - invalid func name. exit func\n");
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080330] HostName function failed. (%d)\n", rc);
        return nullptr;
    }
    VKLOG_INFO(g_vklog.load(), "[getOSMHostName] - return host_name : %s\n", name);
    auto *copy = static_cast<char *>(calloc(1, OSM_HOST_NAME_SIZE));
    if (copy == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080350] Memory allocation failed.\n");
        return nullptr;
    }
    vk_strlcpy(copy, name, OSM_HOST_NAME_SIZE);
    return copy;
}

char *getHostKey()
{
    vk_unique_malloc<char> key(static_cast<char *>(calloc(1, HOST_ID_SIZE)));
    if (!key) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080150] Memory allocation failed.\n");
        return nullptr;
    }
    if (vk_unique_malloc<char> host_id{getUNIXHostID()}) {
        VKLOG_INFO(g_vklog.load(), "[getHostKey] return getUNIXHostID()\n");
        vk_strlcpy(key.get(), host_id.get(), HOST_ID_SIZE);
        VKLOG_INFO(g_vklog.load(), "[getHostKey] pszHostKey : %s --- return\n", key.get());
        return key.release();
    }
    VKLOG_INFO(g_vklog.load(), "[getHostKey] getUNIXHostID() : NULL --- try to get hostname\n");
    vk_unique_malloc<char> host_name(getOSMHostName());
    if (!host_name) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00080160] HostName get failed.\n");
        return nullptr;
    }
    vk_strlcpy(key.get(), host_name.get(), OSM_HOST_NAME_SIZE);
    VKLOG_INFO(g_vklog.load(), "[getHostKey] pszHostKey(pOSMHostName) : %s --- return\n", key.get());
    return key.release();
}

int vk_username(uid_t uid, char *buf, size_t len)
{
    if (buf == nullptr || len == 0)
        return 0;
    passwd entry{};
    passwd *found = nullptr;
    char work[1024];
    if (getpwuid_r(uid, &entry, work, sizeof(work), &found) != 0 || found == nullptr)
        snprintf(buf, len, "%d", static_cast<int>(uid));
    else
        vk_strlcpy(buf, entry.pw_name, len);
    buf[len - 1] = '\0';
    VKLOG_TRACE(g_vklog.load(), "[vk_username] buf[%s]\n", buf);
    return 0;
}

int getCntOfChr(const char *str, char ch)
{
    if (str == nullptr)
        return 0;
    int count = 0;
    for (; *str != '\0'; str++)
        count += *str == ch ? 1 : 0;
    return count;
}

void removeChar(char *str, char ch)
{
    if (str == nullptr)
        return;
    char *out = str;
    for (const char *in = str; *in != '\0'; in++) {
        if (*in != ch)
            *out++ = *in;
    }
    *out = '\0';
}
