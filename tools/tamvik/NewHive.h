// A new, empty hive file: a base block and one bin holding the root key and
// its security cell. It makes bytes only and needs nothing of the library,
// so any tool can make a hive to start from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTool {

struct NewHiveOptions {
    std::uint32_t minorVersion = 5;  // 2 to 6; 1 has another cell layout
    std::u16string rootName = u"ROOT";  // stored narrow: Latin-1 characters only
};

// The file image: 8192 bytes. timestamp is a FILETIME (100 ns since 1601).
// Empty when the options can't be honoured (*error says why).
std::vector<std::uint8_t> BuildEmptyHive(const NewHiveOptions& options, std::uint64_t timestamp, std::string* error);

// The self-relative security descriptor of the root key: owner
// BUILTIN\Administrators, group SYSTEM, and a DACL that gives Administrators
// and SYSTEM full access and Everyone read access, inherited by subkeys.
std::vector<std::uint8_t> DefaultSecurityDescriptor();

// The current time as a FILETIME.
std::uint64_t FileTimeNow();

}  // namespace TamvikTool
