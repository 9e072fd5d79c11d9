// Marvin32, the keyed hash that guards each new-format log entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Format.h"

namespace TamvikLogs {

namespace MarvinDetail {
constexpr std::uint32_t Rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }
constexpr void Mix(std::uint32_t& lo, std::uint32_t& hi) {
    hi ^= lo;
    lo = Rotl(lo, 20) + hi;
    hi = Rotl(hi, 9) ^ lo;
    lo = Rotl(lo, 27) + hi;
    hi = Rotl(hi, 19);
}
}  // namespace MarvinDetail

// Whole 32-bit words first, then the 0 to 3 bytes left with a 0x80 byte after
// them as one last word, then one more mix. The hash is hi:lo.
constexpr std::uint64_t Marvin32(const std::uint8_t* data, std::size_t size, std::uint64_t seed = kMarvinSeed) {
    auto lo = static_cast<std::uint32_t>(seed);
    auto hi = static_cast<std::uint32_t>(seed >> 32);
    std::size_t i = 0;
    for (; size - i >= 4; i += 4) {
        lo += LoadU32(data + i);
        MarvinDetail::Mix(lo, hi);
    }
    std::uint32_t last = 0x80u << (8 * (size - i));
    for (std::size_t k = 0; i + k < size; ++k) last |= static_cast<std::uint32_t>(data[i + k]) << (8 * k);
    lo += last;
    MarvinDetail::Mix(lo, hi);
    MarvinDetail::Mix(lo, hi);
    return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

}  // namespace TamvikLogs
