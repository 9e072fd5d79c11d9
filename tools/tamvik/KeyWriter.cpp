#include "KeyWriter.h"

#include "Walk.h"

namespace TamvikTool {

using namespace RegAPI;

std::string NameProblem(const std::u16string& name, bool isKey) {
    if (name.empty()) return isKey ? "a key name can't be empty" : "the library can't create a value with an empty name";
    if (name.find(u'\0') != std::u16string::npos) return "a name can't hold a NUL character";
    if (isKey && name.find(u'\\') != std::u16string::npos) return "a key name can't hold a backslash";
    if (!IsAscii(name))
        return "name is not 7-bit ASCII: the library stores new names in code page 936, so it would read back as "
               "other characters";
    return {};
}

LONG KeyWriter::OpenKey(const KeyPath& path, HKEY* handle) {
    if (cachedValid_ && cachedPath_ == path) {
        *handle = cachedHandle_;
        return Result::Ok;
    }
    LONG r = session_.TryOpen(path, handle);
    if (r == Result::Ok) {
        cachedValid_ = true;
        cachedPath_ = path;
        cachedHandle_ = *handle;
    }
    return r;
}

std::u16string KeyWriter::Folded(const KeyPath& path) {
    std::u16string out = JoinPath(path);
    for (char16_t& c : out)
        if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 32);
    return out;
}

LONG KeyWriter::EnsureKey(const KeyPath& path, std::string* why, bool* created) {
    if (created != nullptr) *created = false;
    HKEY handle = nullptr;
    if (cachedValid_ && cachedPath_ == path) return Result::Ok;
    Forget();
    HKEY current = session_.Root();
    bool parentMade = false;  // the key at current was made in this session
    for (std::size_t i = 0; i < path.size(); ++i) {
        const std::u16string& name = path[i];
        const KeyPath upTo(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        const std::u16string folded = Folded(upTo);
        const bool madeHere = made_.count(folded) != 0;
        const bool surelyNew = parentMade && !madeHere;
        bool reachable = name.find(u'\0') == std::u16string::npos && name.find(u'\\') == std::u16string::npos;
        LONG r = surelyNew || !reachable ? Result::Invalid : RegOpenKeyExW(current, name.c_str(), 0, 0, &handle);
        if (r == Result::Ok) {
            current = handle;
            parentMade = madeHere;
            continue;
        }
        std::string problem = NameProblem(name, true);
        if (!problem.empty()) {
            *why = "key " + ShowPath(upTo) + ": " + problem;
            return Result::Invalid;
        }
        HKEY made = nullptr;
        r = RegCreateKeyExW(current, name.c_str(), &made);
        if (r != Result::Ok) {
            *why = "key " + ShowPath(upTo) + ": can't create";
            return r;
        }
        made_.insert(folded);
        // The new node serves the steps that follow at once; no other node
        // of this key exists until it is opened again by path.
        current = made;
        parentMade = true;
        if (created != nullptr && i + 1 == path.size()) *created = true;
    }
    cachedValid_ = true;
    cachedPath_ = path;
    cachedHandle_ = current;
    return Result::Ok;
}

LONG KeyWriter::PutValue(const KeyPath& path, const std::u16string& name, DWORD type, const Bytes& data,
                         std::string* why) {
    const std::string where = "key " + ShowPath(path) + ", value \"" + ToUtf8(name) + "\"";
    // Refusals that the library would only find after the old value is gone.
    if (data.empty()) {
        *why = where + ": the library can't store a value with no data";
        return Result::Invalid;
    }
    HKEY key = nullptr;
    LONG r = OpenKey(path, &key);
    if (r != Result::Ok) {
        *why = "key " + ShowPath(path) + ": can't open";
        return r;
    }
    DWORD oldType = 0;
    const bool exists = name.find(u'\0') == std::u16string::npos &&
                        RegQueryValueExW(key, name.c_str(), nullptr, &oldType, nullptr, nullptr) == Result::Ok;
    if (exists && oldType == type) {
        r = RegSetValueExW(key, name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()));
        if (r == Result::Ok) return r;
        // Not rewritable in place (a fixed-size type with another length, a
        // big value that would grow): create it anew below.
    }
    std::string problem = NameProblem(name, false);
    if (!problem.empty()) {
        *why = where + ": " + problem;
        return Result::Invalid;
    }
    if (exists) {
        r = RegDeleteValueW(key, name.c_str());
        if (r != Result::Ok) {
            *why = where + ": can't delete the old value";
            return r;
        }
    }
    r = RegSetValueNewW(key, name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()));
    if (r != Result::Ok) *why = where + ": can't create";
    return r;
}

LONG KeyWriter::DeleteValue(const KeyPath& path, const std::u16string& name, std::string* why) {
    HKEY key = nullptr;
    LONG r = OpenKey(path, &key);
    if (r != Result::Ok) {
        *why = "key " + ShowPath(path) + ": can't open";
        return r;
    }
    r = name.find(u'\0') == std::u16string::npos ? RegDeleteValueW(key, name.c_str()) : Result::Invalid;
    if (r != Result::Ok) *why = "key " + ShowPath(path) + ", value \"" + ToUtf8(name) + "\": can't delete";
    return r;
}

LONG KeyWriter::DeleteSubtree(const KeyPath& path, std::string* why) {
    HKEY key = nullptr;
    LONG r = session_.TryOpen(path, &key);
    if (r != Result::Ok) {
        *why = "key " + ShowPath(path) + ": can't open";
        return r;
    }
    LONG listResult = Result::Ok;
    const std::vector<std::u16string> names = SubKeyNames(key, &listResult);
    if (listResult != Result::Ok) {
        *why = "key " + ShowPath(path) + ": subkeys can't be listed";
        return listResult;
    }
    KeyPath child = path;
    child.emplace_back();
    for (const auto& name : names) {
        child.back() = name;
        if (name.find(u'\0') != std::u16string::npos || name.find(u'\\') != std::u16string::npos) {
            *why = "key " + ShowPath(child) + ": its name can't be given as a path, so it can't be deleted";
            return Result::Invalid;
        }
        r = DeleteSubtree(child, why);
        if (r != Result::Ok) return r;
    }
    // The handles above were ended by the deletions below: open the parent anew.
    KeyPath parentPath(path.begin(), path.end() - 1);
    HKEY parent = nullptr;
    r = session_.TryOpen(parentPath, &parent);
    if (r == Result::Ok) r = RegDeleteKeyW(parent, path.back().c_str());
    if (r != Result::Ok) *why = "key " + ShowPath(path) + ": can't delete";
    return r;
}

LONG KeyWriter::DeleteKey(const KeyPath& path, bool recursive, std::string* why) {
    Forget();
    made_.clear();  // a key deleted and made again must be looked for
    if (path.empty()) {
        *why = "the root key can't be deleted";
        return Result::Invalid;
    }
    if (recursive) return DeleteSubtree(path, why);
    HKEY key = nullptr;
    LONG r = session_.TryOpen(path, &key);
    if (r != Result::Ok) {
        *why = "key " + ShowPath(path) + ": can't open";
        return r;
    }
    DWORD subKeys = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
    if (subKeys != 0) {
        *why = "key " + ShowPath(path) + ": has " + std::to_string(subKeys) + " subkeys (use -r)";
        return Result::Invalid;
    }
    KeyPath parentPath(path.begin(), path.end() - 1);
    HKEY parent = nullptr;
    r = session_.TryOpen(parentPath, &parent);
    if (r == Result::Ok) r = RegDeleteKeyW(parent, path.back().c_str());
    if (r != Result::Ok) *why = "key " + ShowPath(path) + ": can't delete";
    return r;
}

}  // namespace TamvikTool
