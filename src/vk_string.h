// vk_string: bounded string helpers shared by every unit. Each copy is bounded by the
// destination size and always terminated, so fixed-size record fields never overflow.
// Pure functions; safe from any thread.
#pragma once

#include <cstddef>
#include <string_view>

// Copies at most size - 1 bytes of src into dest and terminates it. Returns the number
// of bytes copied (a result of size - 1 with a longer src means it was cut). A null or
// zero-size dest copies nothing and returns 0; a null src yields an empty dest.
size_t vk_strlcpy(char *dest, const char *src, size_t size);
// The same for a view, which need not be terminated.
size_t vk_strlcpy(char *dest, std::string_view src, size_t size);

template <size_t N> size_t vk_strlcpy(char (&dest)[N], std::string_view src)
{
    return vk_strlcpy(dest, src, N);
}

// Removes every character of `set` from both ends of `str`, in place. Returns the new
// length; a null str or set returns 0 and changes nothing.
size_t vk_trim_ex(char *str, const char *set);
// vk_trim_ex with white space (blank, tab, CR, LF, VT, FF).
size_t vk_trim(char *str);
// View of `text` without leading and trailing characters of `set`.
std::string_view vk_trim_view(std::string_view text, std::string_view set = " \t\r\n\v\f");

// True when text is valid UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF.
[[nodiscard]] bool vk_is_utf8(std::string_view text);
