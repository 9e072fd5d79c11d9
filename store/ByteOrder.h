// Little-endian loads and stores on byte arrays, independent of the host's
// order: the one codec of the hive format, its logs and the tool's data.
#pragma once

#include <cstdint>
#include <vector>

namespace Tamvik {

constexpr std::uint16_t LoadU16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
constexpr std::uint32_t LoadU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
constexpr std::uint64_t LoadU64(const std::uint8_t* p) {
    return LoadU32(p) | (static_cast<std::uint64_t>(LoadU32(p + 4)) << 32);
}
constexpr std::int32_t LoadI32(const std::uint8_t* p) { return static_cast<std::int32_t>(LoadU32(p)); }
constexpr void StoreU16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
constexpr void StoreU32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
constexpr void StoreI32(std::uint8_t* p, std::int32_t v) { StoreU32(p, static_cast<std::uint32_t>(v)); }
constexpr void StoreU64(std::uint8_t* p, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
// The same at the end of a growing byte string.
inline void AppendU16(std::vector<std::uint8_t>& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
}
inline void AppendU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    AppendU16(out, static_cast<std::uint16_t>(v));
    AppendU16(out, static_cast<std::uint16_t>(v >> 16));
}

}  // namespace Tamvik
