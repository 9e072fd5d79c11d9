// Changes to a hive through the library, made so that its handle rules hold:
// keys are re-opened by path from the hive after every change to the tree.
// The handle of a key made by RegCreateKeyExW is a node of its own: it serves
// only the work that follows at once (its values, its own new subkeys), and
// is dropped as soon as another key is opened, so that no second node of the
// same key ever writes a stale copy.
#pragma once

#include <set>
#include <string>

#include "RegAPI.h"
#include "Session.h"
#include "Text.h"

namespace TamvikTool {

// Why a new name can't be stored faithfully, or empty when it can. The
// library writes new names in code page 936 and reads stored narrow names one
// byte a character, so only 7-bit ASCII names read back as written.
std::string NameProblem(const std::u16string& name, bool isKey);

class KeyWriter {
public:
    explicit KeyWriter(HiveSession& session) : session_(session) {}

    // Opens the key at path, creating missing keys on the way. *created
    // (may be null) tells whether the last component was made.
    RegAPI::LONG EnsureKey(const KeyPath& path, std::string* why, bool* created = nullptr);
    // Opens an existing key (cached while the tree doesn't change).
    RegAPI::LONG OpenKey(const KeyPath& path, RegAPI::HKEY* handle);
    // Creates the value or replaces it; a value of another type, or one that
    // can't be rewritten in place, is deleted and created anew.
    RegAPI::LONG PutValue(const KeyPath& path, const std::u16string& name, RegAPI::DWORD type, const Bytes& data,
                          std::string* why);
    RegAPI::LONG DeleteValue(const KeyPath& path, const std::u16string& name, std::string* why);
    // Deletes one key; with recursive, its subtree first, leaves upward.
    RegAPI::LONG DeleteKey(const KeyPath& path, bool recursive, std::string* why);

private:
    RegAPI::LONG DeleteSubtree(const KeyPath& path, std::string* why);
    void Forget() { cachedValid_ = false; }
    static std::u16string Folded(const KeyPath& path);

    HiveSession& session_;
    // Keys made in this session, by ASCII-folded path: such a key has no
    // children but those made here too, so a child that isn't in the set
    // needn't be looked for before it is created.
    std::set<std::u16string> made_;
    bool cachedValid_ = false;
    KeyPath cachedPath_;
    RegAPI::HKEY cachedHandle_ = nullptr;
};

}  // namespace TamvikTool
