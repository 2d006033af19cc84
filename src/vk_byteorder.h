// vk_byteorder: big-endian (network order) loads and stores on byte buffers, shared by the
// packet framing and the option-table serialisation. Pure functions; safe from any thread.
#pragma once

#include <cstdint>

inline void put_be16(unsigned char *p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_be32(unsigned char *p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

inline uint16_t get_be16(const unsigned char *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t get_be32(const unsigned char *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
