#include "KeyTime.h"

#include <ctime>

namespace TamvikTool {

namespace {
constexpr std::uint64_t kTicksPerSecond = 10000000;
constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
// 2^34 seconds since 1970 reach past the year 2500; as a FILETIME, 2^34 ticks
// are less than half an hour after 1601.
constexpr std::uint64_t kLargestUnixStamp = 1ull << 34;

std::string Format(std::int64_t seconds, const char* pattern) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    char buffer[64];
    if (gmtime_r(&time, &parts) == nullptr || std::strftime(buffer, sizeof buffer, pattern, &parts) == 0) return "?";
    return buffer;
}
}  // namespace

KeyInstant ReadKeyTime(std::uint64_t stamp) {
    if (stamp == 0) return {};
    if (stamp < kLargestUnixStamp) return {static_cast<std::int64_t>(stamp), 0, "unix"};
    return {static_cast<std::int64_t>(stamp / kTicksPerSecond) - kSecondsFrom1601To1970,
            static_cast<std::uint32_t>(stamp % kTicksPerSecond), "filetime"};
}

KeyTime DecodeKeyTime(std::uint64_t stamp) {
    const KeyInstant instant = ReadKeyTime(stamp);
    if (stamp == 0) return {};
    return {Format(instant.seconds, "%Y-%m-%d %H:%M:%S UTC"), Format(instant.seconds, "%Y-%m-%dT%H:%M:%SZ"),
            instant.clock};
}

}  // namespace TamvikTool
