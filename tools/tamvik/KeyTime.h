// A key's last-write time as it is stored in its Timestamp field. Windows
// writes a FILETIME (100 ns ticks since 1601); the library writes seconds
// since 1970 into the keys it makes. A value too small to be a FILETIME of
// any date after 1601-01-01 00:30 is taken as seconds since 1970. The tool
// and the Python binding both read times through ReadKeyTime.
#pragma once

#include <cstdint>
#include <string>

namespace TamvikTool {

// The instant a stored number names: whole seconds since 1970 (negative
// before it) and the 100 ns ticks past them.
struct KeyInstant {
    std::int64_t seconds = 0;
    std::uint32_t ticks = 0;
    const char* clock = "none";  // "filetime", "unix" or "none" (a stored 0): how the number was read
};

KeyInstant ReadKeyTime(std::uint64_t stamp);

struct KeyTime {
    std::string text = "none";    // "2023-01-18 11:39:48 UTC", or "none" for 0
    std::string iso;              // "2023-01-18T11:39:48Z", or "" for 0
    const char* clock = "none";   // as KeyInstant::clock
};

KeyTime DecodeKeyTime(std::uint64_t stamp);

}  // namespace TamvikTool
