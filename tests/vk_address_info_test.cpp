// Tests of the address lists gathered from the real interfaces: loopback entries with their
// exact bytes, tail order across two gatherings, clearing, and the argument check.
#include "vk_address_info.h"

#include "daemon_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{

template <typename Entry> std::vector<const Entry *> entries(const vk_address_list_t<Entry> &list)
{
    std::vector<const Entry *> out;
    for (const Entry *e = list.head; e != nullptr; e = e->next)
        out.push_back(e);
    return out;
}

bool has_ip(const vk_ip_list_t &list, uint16_t family, const std::vector<uint8_t> &bytes)
{
    for (const vk_ip_info_t *e : entries(list))
        if (e->family == family && e->length == static_cast<int32_t>(bytes.size()) &&
            memcmp(e->address, bytes.data(), bytes.size()) == 0)
            return true;
    return false;
}

TEST(AddressInfo, ListsLoopbackAndAppendsAtTheTail)
{
    vk_ip_list_t ips{};
    vk_mac_list_t macs{};
    int err = 0;
    ASSERT_EQ(get_address_info(&ips, &macs, &err), 0);
    EXPECT_EQ(entries(ips).size(), ips.count);
    EXPECT_EQ(entries(macs).size(), macs.count);
    EXPECT_TRUE(has_ip(ips, 4, {127, 0, 0, 1}));
    if (daemon_support::contains(daemon_support::read_file("/proc/net/if_inet6"),
                                 "00000000000000000000000000000001")) {
        EXPECT_TRUE(has_ip(ips, 6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    }
    for (const vk_ip_info_t *e : entries(ips))
        EXPECT_TRUE((e->family == 4 && e->length == 4) || (e->family == 6 && e->length == 16));
    const uint8_t zero[6] = {};
    bool loopback_mac = false;
    for (const vk_mac_info_t *e : entries(macs))
        loopback_mac |= memcmp(e->address, zero, 6) == 0;
    EXPECT_TRUE(loopback_mac);

    // A second gathering appends the same addresses after the first ones, in the same order.
    std::vector<const vk_ip_info_t *> first = entries(ips);
    ASSERT_EQ(get_address_info(&ips, &macs, &err), 0);
    std::vector<const vk_ip_info_t *> both = entries(ips);
    ASSERT_EQ(both.size(), 2 * first.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end(), both.begin()));
    for (size_t i = 0; i < first.size(); i++)
        EXPECT_EQ(memcmp(both[i]->address, both[i + first.size()]->address, 16), 0) << i;

    clear_ip_list(&ips);
    clear_mac_list(&macs);
    EXPECT_EQ(ips.head, nullptr);
    EXPECT_EQ(ips.count, 0);
    EXPECT_EQ(macs.head, nullptr);
    EXPECT_EQ(macs.count, 0);
    clear_ip_list(nullptr);
    EXPECT_EQ(get_address_info(nullptr, &macs, &err), -2);
}

} // namespace
