// "0x1f": offsets and sizes in the log code's messages.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace TamvikLogs {

inline std::string Hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace TamvikLogs
