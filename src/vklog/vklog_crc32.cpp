// vklog_crc32: the CRC-32 of the vklogger datagrams (IEEE 802.3 polynomial, reflected,
// table-driven). The table is the published 256-entry one, generated at compile time.
// Called by vklog_packet; pure functions, safe from any thread.
#include "vklog_internal.h"

namespace
{

constexpr std::array<uint32_t, 256> make_crc32_tab()
{
    std::array<uint32_t, 256> tab{};
    for (uint32_t n = 0; n < 256; n++) {
        uint32_t c = n;
        for (int k = 0; k < 8; k++)
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        tab[n] = c;
    }
    return tab;
}

} // namespace

constexpr std::array<uint32_t, 256> crc32_tab = make_crc32_tab();
static_assert(crc32_tab[1] == 0x77073096u && crc32_tab[255] == 0x2D02EF8Du, "the published table");

uint32_t vk_udp_get_crc(const unsigned char *header, size_t length)
{
    uint32_t crc = 0xFFFFFFFFu;
    if (header == nullptr)
        return 0;
    for (size_t i = 0; i < length; i++)
        crc = crc32_tab[(crc ^ header[i]) & 0xFFu] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

int vk_udp_check_crc(uint32_t value, const unsigned char *header, size_t length)
{
    return vk_udp_get_crc(header, length) == value ? 0 : -1;
}
