// Reading keys through the library's internal API: subkey names, values with
// their data, and a depth-first walk.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Session.h"
#include "Text.h"

namespace TamvikTool {

// One value as the library delivers it. result is 0, or the number its
// reading gave (then data is empty).
struct ValueEntry {
    std::u16string name;
    std::uint32_t type = 0;
    Bytes data;
    int result = 0;
    std::uint32_t index = 0;
};

// A subkey by its position in the list, its name and its cell.
struct SubKey {
    std::uint32_t index = 0;
    std::u16string name;
    Cell cell = 0;
};
// The subkeys in stored order; *result gets the first failure (0 if none).
std::vector<SubKey> SubKeys(Tamvik::HiveAccess& hive, Cell key, int* result);
// Every value in stored order; an unreadable one is listed with its result.
std::vector<ValueEntry> ReadValues(Tamvik::HiveAccess& hive, Cell key, int* result);
// One value by name; returns the result, fills entry on 0.
int ReadValue(Tamvik::HiveAccess& hive, Cell key, const std::u16string& name, ValueEntry* entry);

// What a walk reports. Each callback gets the key's path from the root.
struct WalkEvents {
    // A key that was reached.
    std::function<void(const KeyPath&, Cell)> onKey;
    // Whether to enter a subkey (default: every one).
    std::function<bool(const KeyPath& child)> enter;
    // The subkeys of a key, in stored order, before any of them is entered.
    std::function<void(const KeyPath&, const std::vector<SubKey>&)> onSubKeys;
    // The subkey list of a key couldn't be enumerated completely.
    std::function<void(const KeyPath&, int)> onListError;
};

// Walks from the key at path downward, depth first, entering each subkey by
// its cell: a name that no path can give (one with a NUL or a backslash) is
// reached too.
void WalkTree(Tamvik::HiveAccess& hive, Cell key, const KeyPath& path, const WalkEvents& events,
              bool recursive = true);

}  // namespace TamvikTool
