// vk_string: bounded copies, trimming and the UTF-8 check; see vk_string.h.
#include "vk_string.h"

#include <cstdint>
#include <cstring>

size_t vk_strlcpy(char *dest, const char *src, size_t size)
{
    if (dest == nullptr || size == 0)
        return 0;
    if (src == nullptr) {
        dest[0] = '\0';
        return 0;
    }
    // strnlen, not strlen: src may be a fixed field without a terminator.
    return vk_strlcpy(dest, std::string_view(src, strnlen(src, size)), size);
}

size_t vk_strlcpy(char *dest, std::string_view src, size_t size)
{
    if (dest == nullptr || size == 0)
        return 0;
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    if (n > 0)
        memmove(dest, src.data(), n);
    dest[n] = '\0';
    return n;
}

std::string_view vk_trim_view(std::string_view text, std::string_view set)
{
    size_t first = text.find_first_not_of(set);
    if (first == std::string_view::npos)
        return text.substr(0, 0);
    size_t last = text.find_last_not_of(set);
    return text.substr(first, last - first + 1);
}

size_t vk_trim_ex(char *str, const char *set)
{
    if (str == nullptr || set == nullptr)
        return 0;
    std::string_view trimmed = vk_trim_view(str, set);
    size_t n = trimmed.size();
    if (n > 0 && trimmed.data() != str)
        memmove(str, trimmed.data(), n);
    str[n] = '\0';
    return n;
}

size_t vk_trim(char *str)
{
    return vk_trim_ex(str, " \t\r\n\v\f");
}

bool vk_is_utf8(std::string_view text)
{
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const auto *end = p + text.size();
    while (p < end) {
        const unsigned c = *p;
        // Lead byte: the sequence length and the smallest code point it may carry.
        size_t n = c < 0x80             ? 1
                   : (c & 0xE0) == 0xC0 ? 2
                   : (c & 0xF0) == 0xE0 ? 3
                   : (c & 0xF8) == 0xF0 ? 4
                                        : 0;
        if (n == 0 || static_cast<size_t>(end - p) < n)
            return false;
        constexpr uint32_t k_min[5] = {0, 0, 0x80, 0x800, 0x10000};
        uint32_t cp = n == 1 ? c : c & (0x7Fu >> n);
        for (size_t i = 1; i < n; i++) {
            if ((p[i] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        if (cp < k_min[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        p += n;
    }
    return true;
}
