// Big-endian load/store helpers for the wire formats.
#pragma once

#include <cstdint>

inline void put_be16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline uint16_t get_be16(const uint8_t *p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline void put_be32(uint8_t *p, uint32_t v) {
    put_be16(p, static_cast<uint16_t>(v >> 16));
    put_be16(p + 2, static_cast<uint16_t>(v));
}
inline uint32_t get_be32(const uint8_t *p) {
    return (static_cast<uint32_t>(get_be16(p)) << 16) | get_be16(p + 2);
}
