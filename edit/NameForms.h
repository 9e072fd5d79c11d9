// How a new name is stored, the hints that lists keep beside it, and the
// order of names in a list, as Windows does them; shared by the tool's key
// and value edits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "store/Platform.h"

namespace Tamvik {

// The bytes of a name as a record holds them: one byte a character when all
// fit Latin-1 (compressed), UTF-16LE otherwise.
struct StoredName {
    std::string bytes;
    bool compressed = false;
};
// Nothing when the bytes would pass the 16 bits of NameLength.
std::optional<StoredName> StoreName(const WString& name);

// True when both name the same entry for the library's lookups.
bool SameName(const WString& a, const WString& b);

// The lh hash: 37 * hash + each unit upper-cased, as Windows computes it.
std::uint32_t WindowsNameHash(const WString& name);
// The lf hint: the first four characters a byte each, zeros behind a short
// name; a first byte of 0 when one of them doesn't fit a byte.
std::uint32_t WindowsNameHint(const WString& name);
// The hint an entry of a leaf with this signature carries (0 for li).
std::uint32_t HintFor(std::uint16_t signature, const WString& name);

// One UTF-16 unit upper-cased as Windows does it, whatever the locale; and a
// whole name so.
char16_t WindowsUpper(char16_t unit);
WString WindowsUpperName(const WString& name);
// The order of the names in a subkey list as Windows keeps it: each unit
// upper-cased, then compared as numbers. <0, 0 or >0.
int CompareWindowsOrder(const WString& a, const WString& b);

}  // namespace Tamvik
