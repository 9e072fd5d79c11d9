// Changes to a hive by key path, made through the library's internal API so
// that every name and every data stores as written. It keeps the cell of each
// level of the last path it reached: an entry under the same key, or a
// sibling, looks up only what differs.
#pragma once

#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Args.h"
#include "Session.h"
#include "Text.h"

namespace TamvikTool {

// Why a name can't be stored, or empty when it can.
std::string NameProblem(const std::u16string& name, bool isKey);

// Whether new keys go in Windows' order (the default, --windows-order) rather
// than the library's (--library-order); throws a usage error for both.
bool WindowsOrder(const Args& args);

class KeyWriter {
public:
    // order: where new subkeys go in their parent's list.
    KeyWriter(HiveSession& session, Tamvik::ListOrder order = Tamvik::ListOrder::Library)
        : session_(session), order_(order) {}

    // Opens the key at path, creating missing keys on the way. *created (may
    // be null) tells whether the last component was made.
    int EnsureKey(const KeyPath& path, std::string* why, bool* created = nullptr);
    // Finds an existing key.
    int OpenKey(const KeyPath& path, Cell* key, std::string* why);
    // Creates the value or gives it the new type and data in its place.
    int PutValue(const KeyPath& path, const std::u16string& name, std::uint32_t type, const Bytes& data,
                          std::string* why);
    int DeleteValue(const KeyPath& path, const std::u16string& name, std::string* why);
    // Deletes one key; with recursive, its subtree first, leaves upward.
    int DeleteKey(const KeyPath& path, bool recursive, std::string* why);
    // Puts the subkey list of the key at path in Windows order; *changed
    // tells whether entries moved.
    int Sort(const KeyPath& path, bool* changed, std::string* why);
    // The same for every list that got a new entry; *sorted counts those
    // whose entries moved.
    int SortTouched(std::size_t* sorted, std::string* why);

private:
    struct Level {
        std::u16string folded;  // the component, as the library matches names
        std::u16string path;    // the folded path from the root
        Cell cell;
        bool made;              // made by this writer: it holds only what was made here
    };
    int Reach(const KeyPath& path, bool create, std::string* why, bool* created);
    int DeleteTree(KeyPath& path, std::string* why);

    HiveSession& session_;
    Tamvik::ListOrder order_;
    std::vector<Level> levels_;  // [0] the root, [i] the key at the first i components
    // Keys made here by folded path, with the folded names of the values set
    // in them: a name not in the set needn't be looked for.
    std::unordered_map<std::u16string, std::unordered_set<std::u16string>> made_;
    std::set<KeyPath> touched_;  // keys whose subkey lists got new entries
};

}  // namespace TamvikTool
