// Edits for the command-line tool that the exported functions refuse by their
// contract: names in any script (stored compressed when every character fits
// Latin-1, as UTF-16 otherwise, the two name forms of the format), the
// default value and empty data, names that hold a NUL or a backslash, and
// subkey lists put in the order Windows keeps. Internal: libtamvik.so doesn't
// export them. They take and give handles under the library's own rules: a
// new key's handle lives until the hive is closed; a handle opened from a
// parent ends when a sibling is opened or the parent's list changes.
#pragma once

#include <cstdint>

#include "RegAPI.h"
#include "edit/NameForms.h"
#include "store/Platform.h"

namespace Tamvik::ToolEdit {

using RegAPI::BYTE;
using RegAPI::DWORD;
using RegAPI::HKEY;
using RegAPI::LONG;

using Tamvik::ListOrder;

// The subkey at a position of the list, as RegEnumKeyExW counts them.
LONG OpenSubKeyAt(HKEY key, DWORD index, HKEY* result);
// The subkey of that name, matched as the library's lookups match names.
LONG OpenSubKey(HKEY key, const WString& name, HKEY* result);
// A new subkey; 72 when one of that name exists. The name may be anything
// but empty.
LONG CreateSubKey(HKEY key, const WString& name, ListOrder order, HKEY* result);
// Deletes a subkey that has no subkeys of its own.
LONG DeleteSubKey(HKEY key, const WString& name);

// Creates the value, or gives an existing one of that name the new type and
// data in its place in the list. surelyNew skips the lookup.
LONG SetValue(HKEY key, const WString& name, DWORD type, const BYTE* data, DWORD size, bool surelyNew = false);
LONG DeleteValue(HKEY key, const WString& name);

// The key's Timestamp field as stored.
LONG KeyTimestamp(HKEY key, std::uint64_t* stamp);

// Rewrites the entries of the key's subkey list (each leaf of an ri, and
// across them) in Windows order: the same cells, the same hints. *changed
// tells whether any entry moved.
LONG SortSubKeys(HKEY key, bool* changed);

}  // namespace Tamvik::ToolEdit
