// A new, empty hive: a base block and one bin holding the root key and its
// security cell, as bytes for a new file.
#pragma once

#include <cstdint>
#include <vector>

#include "store/Platform.h"
#include "store/Status.h"

namespace Tamvik {

struct NewHiveOptions {
    std::uint32_t minorVersion = 5;  // 2 to 6; 1 has another cell layout
    WString rootName = u"ROOT";      // stored one byte a character: Latin-1 only
};

// The file image, 8192 bytes; timestamp is a FILETIME (100 ns since 1601).
// Empty, with *status saying why, when the options can't be honoured.
std::vector<std::uint8_t> EmptyHiveImage(const NewHiveOptions& options, std::uint64_t timestamp, Status* status);

// The self-relative security descriptor of a new root key: owner
// BUILTIN\Administrators, group SYSTEM, and a DACL that gives Administrators
// and SYSTEM full access and Everyone read access, inherited by subkeys.
std::vector<std::uint8_t> DefaultSecurityDescriptor();

// The current time as a FILETIME.
std::uint64_t FileTimeNow();

}  // namespace Tamvik
