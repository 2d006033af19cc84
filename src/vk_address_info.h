// vk_address_info: the host's IP and MAC address lists (g_ip_list, g_mac_list), gathered
// from getifaddrs. initialize_agent_info fills them once and send_manager_agent_info reads
// them for the agent information message.
// Thread safety: the connection thread writes the global lists before its connection loop
// starts and only reads them afterwards; no lock is taken. Local lists are the caller's.
// Interface only, kept for the unit's completeness (nothing in the agent calls them):
// clear_ip_list, clear_mac_list.
#pragma once

#include <cstdint>

// One IP address, zero-filled: family code 4 (IPv4) or 6 (IPv6), its length in bytes
// (4 or 16) and the address in network order (the first `length` bytes used).
struct vk_ip_info_t {
    uint16_t family;
    int32_t length;
    uint8_t address[16];
    vk_ip_info_t *next;
};

// One link-layer address, zero-filled: always sent as exactly 6 bytes (a longer hardware
// address is cut to its first 6 bytes, a shorter one leaves the rest zero).
struct vk_mac_info_t {
    uint8_t address[6];
    vk_mac_info_t *next;
};

// Address list: a count and a singly linked list whose entries are appended at the tail,
// in the order the interfaces are enumerated. The count never passes UINT16_MAX: further
// addresses are not listed.
template <typename Entry> struct vk_address_list_t {
    uint16_t count;
    Entry *head;
};
using vk_ip_list_t = vk_address_list_t<vk_ip_info_t>;
using vk_mac_list_t = vk_address_list_t<vk_mac_info_t>;

// Every IPv4 and IPv6 address of every interface (loopback and link-local included).
extern vk_ip_list_t g_ip_list;
// Every link-layer address of every interface (the loopback's all-zero one included).
extern vk_mac_list_t g_mac_list;

// Appends every address getifaddrs reports, in its order, to the two lists (entries
// already there are kept): AF_INET to ip_list as code 4, AF_INET6 as code 6, AF_PACKET to
// mac_list; entries without an address and other families are skipped. Returns 0, or -1
// getifaddrs failed, -2 a null list, -3 / -4 / -5 an IPv4 / IPv6 / MAC entry could not be
// allocated. On -1 and -3..-5 errno is stored through err (when not null); the entries
// appended before a failure stay in the lists.
[[nodiscard]] int get_address_info(vk_ip_list_t *ip_list, vk_mac_list_t *mac_list, int *err);

// Free every entry, set head to null and count to 0; a null list is ignored.
void clear_ip_list(vk_ip_list_t *list);
void clear_mac_list(vk_mac_list_t *list);
