// Reading keys through the library: subkey names, values with their data, and
// a depth-first walk that keeps one open handle per level.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "Session.h"
#include "Text.h"

namespace TamvikTool {

// One value as the library delivers it. result is 0, or the number that
// enumeration or the data read gave (then data is empty).
struct ValueEntry {
    std::u16string name;
    RegAPI::DWORD type = 0;
    Bytes data;
    RegAPI::LONG result = 0;
    RegAPI::DWORD index = 0;
};

// A subkey by its position in the list and its name.
struct SubKey {
    RegAPI::DWORD index = 0;
    std::u16string name;
};
// The subkeys in stored order; *result gets the first failure (0 if none).
std::vector<SubKey> SubKeys(RegAPI::HKEY key, RegAPI::LONG* result);
// Every value in stored order; an unreadable one is listed with its result.
std::vector<ValueEntry> ReadValues(RegAPI::HKEY key, RegAPI::LONG* result);
// One value by name; returns the result, fills entry on 0.
RegAPI::LONG ReadValue(RegAPI::HKEY key, const std::u16string& name, ValueEntry* entry);

// What a walk reports. Each callback gets the key's path from the root.
struct WalkEvents {
    // A key that was opened; the handle is good until the callback returns.
    std::function<void(const KeyPath&, RegAPI::HKEY)> onKey;
    // A subkey that can't be entered: the open failed.
    std::function<void(const KeyPath& child, RegAPI::LONG)> onUnreachable;
    // Whether to enter a subkey (default: every one).
    std::function<bool(const KeyPath& child)> enter;
    // The subkeys of a key, in stored order, before any of them is entered.
    std::function<void(const KeyPath&, const std::vector<SubKey>&)> onSubKeys;
    // The subkey list of a key couldn't be enumerated completely.
    std::function<void(const KeyPath&, RegAPI::LONG)> onListError;
};

// Walks from the key at path (already open as handle) downward, depth first.
// Subkeys are opened by position from their parent's handle, so the parent's
// handle stays good while its children are visited, and a name that no path
// can give (one with a NUL or a backslash) is reached too.
void WalkTree(RegAPI::HKEY handle, const KeyPath& path, const WalkEvents& events, bool recursive = true);

}  // namespace TamvikTool
