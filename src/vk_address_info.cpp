// vk_address_info: gathering of the host's IP and MAC address lists; see vk_address_info.h.
// Entries are calloc'd one per address and freed by clear_ip_list / clear_mac_list.
#include "vk_address_info.h"
#include "vk_raii.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>

vk_ip_list_t g_ip_list;
vk_mac_list_t g_mac_list;

namespace
{

// Appends at the tail of a list that may already hold entries.
template <typename Entry> struct list_appender {
    vk_address_list_t<Entry> *list;
    Entry **link; // where the next entry is linked

    explicit list_appender(vk_address_list_t<Entry> *l) : list(l), link(&l->head)
    {
        while (*link != nullptr)
            link = &(*link)->next;
    }
    bool full() const { return list->count == UINT16_MAX; }
    void append(Entry *entry)
    {
        *link = entry;
        link = &entry->next;
        list->count++;
    }
};

template <typename Entry> void clear_list(vk_address_list_t<Entry> *list)
{
    if (list == nullptr)
        return;
    for (Entry *e = list->head; e != nullptr;) {
        Entry *next = e->next;
        free(e);
        e = next;
    }
    list->head = nullptr;
    list->count = 0;
}

// A zero-filled IP entry for `len` address bytes, or null (errno set by calloc).
vk_ip_info_t *make_ip_entry(uint16_t family, const void *bytes, int32_t len)
{
    auto *e = static_cast<vk_ip_info_t *>(calloc(1, sizeof(vk_ip_info_t)));
    if (e != nullptr) {
        e->family = family;
        e->length = len;
        memcpy(e->address, bytes, static_cast<size_t>(len));
    }
    return e;
}

} // namespace

int get_address_info(vk_ip_list_t *ip_list, vk_mac_list_t *mac_list, int *err)
{
    if (ip_list == nullptr || mac_list == nullptr)
        return -2;
    auto fail = [err](int code) {
        if (err != nullptr)
            *err = errno;
        return code;
    };
    ifaddrs *raw = nullptr;
    if (getifaddrs(&raw) != 0)
        return fail(-1);
    vk_unique_ifaddrs interfaces(raw);
    list_appender<vk_ip_info_t> ips(ip_list);
    list_appender<vk_mac_info_t> macs(mac_list);
    for (const ifaddrs *ifa = interfaces.get(); ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr)
            continue;
        switch (ifa->ifa_addr->sa_family) {
        case AF_INET: {
            if (ips.full())
                break;
            const auto *in = reinterpret_cast<const sockaddr_in *>(ifa->ifa_addr);
            vk_ip_info_t *e = make_ip_entry(4, &in->sin_addr, 4);
            if (e == nullptr)
                return fail(-3);
            ips.append(e);
            break;
        }
        case AF_INET6: {
            if (ips.full())
                break;
            const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(ifa->ifa_addr);
            vk_ip_info_t *e = make_ip_entry(6, &in6->sin6_addr, 16);
            if (e == nullptr)
                return fail(-4);
            ips.append(e);
            break;
        }
        case AF_PACKET: {
            if (macs.full())
                break;
            auto *e = static_cast<vk_mac_info_t *>(calloc(1, sizeof(vk_mac_info_t)));
            if (e == nullptr)
                return fail(-5);
            const auto *ll = reinterpret_cast<const sockaddr_ll *>(ifa->ifa_addr);
            memcpy(e->address, ll->sll_addr,
                   ll->sll_halen < sizeof(e->address) ? ll->sll_halen : sizeof(e->address));
            macs.append(e);
            break;
        }
        default:
            break;
        }
    }
    return 0;
}

void clear_ip_list(vk_ip_list_t *list)
{
    clear_list(list);
}

void clear_mac_list(vk_mac_list_t *list)
{
    clear_list(list);
}
