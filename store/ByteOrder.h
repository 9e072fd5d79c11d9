// Little-endian loads and stores on byte arrays, independent of the host's order.
#pragma once

#include <cstdint>

namespace Tamvik {

inline std::uint16_t LoadU16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
inline std::uint32_t LoadU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::int32_t LoadI32(const std::uint8_t* p) { return static_cast<std::int32_t>(LoadU32(p)); }
inline void StoreU16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void StoreU32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void StoreI32(std::uint8_t* p, std::int32_t v) { StoreU32(p, static_cast<std::uint32_t>(v)); }
inline void StoreU64(std::uint8_t* p, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

}  // namespace Tamvik
