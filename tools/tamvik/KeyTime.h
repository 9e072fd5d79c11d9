// A key's last-write time as it is stored in its Timestamp field. Windows
// writes a FILETIME (100 ns ticks since 1601); the library writes seconds
// since 1970 into the keys it makes. A value too small to be a FILETIME of
// any date after 1601-01-01 00:30 is taken as seconds since 1970.
#pragma once

#include <cstdint>
#include <string>

namespace TamvikTool {

struct KeyTime {
    std::string text = "none";    // "2023-01-18 11:39:48 UTC", or "none" for 0
    std::string iso;              // "2023-01-18T11:39:48Z", or "" for 0
    const char* clock = "none";   // "filetime", "unix" or "none": how the stored number was read
};

KeyTime DecodeKeyTime(std::uint64_t stamp);

}  // namespace TamvikTool
