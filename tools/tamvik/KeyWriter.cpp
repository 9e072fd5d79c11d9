#include "KeyWriter.h"

#include "Walk.h"
#include "edit/NameForms.h"
#include "store/Platform.h"

namespace TamvikTool {

using namespace RegAPI;
namespace ToolEdit = Tamvik::ToolEdit;

namespace {

std::u16string Fold(const std::u16string& name) { return Tamvik::UpperCaseName(name); }

std::string Where(const KeyPath& path, const std::u16string* value = nullptr) {
    std::string where = "key " + ShowPath(path);
    if (value != nullptr) where += value->empty() ? ", default value" : ", value \"" + ToDisplay(*value) + "\"";
    return where;
}

}  // namespace

std::string NameProblem(const std::u16string& name, bool isKey) {
    if (isKey && name.empty()) return "a key name can't be empty";
    if (isKey && name.find(u'\\') != std::u16string::npos) return "a key name can't hold a backslash";
    if (!Tamvik::StoredName(name)) return "the name is longer than the 65535 bytes a record holds";
    return {};
}

LONG KeyWriter::Reach(const KeyPath& path, bool create, std::string* why, bool* created) {
    if (created != nullptr) *created = false;
    if (levels_.empty()) levels_.push_back({u"", u"", session_.Root(), false});
    // The levels that agree with the path stay open; the rest are dropped
    // before anything is opened beside them.
    std::size_t keep = 1;
    while (keep < levels_.size() && keep - 1 < path.size() && levels_[keep].folded == Fold(path[keep - 1])) ++keep;
    levels_.resize(keep);
    for (std::size_t i = keep - 1; i < path.size(); ++i) {
        const Level parent = levels_.back();
        std::u16string folded = Fold(path[i]);
        std::u16string full = parent.path + u'\\' + folded;
        bool made = made_.count(full) != 0;
        HKEY handle = nullptr;
        // Below a key made here, only keys made here exist.
        LONG r = parent.made && !made ? Result::Invalid : ToolEdit::OpenSubKey(parent.handle, path[i], &handle);
        if (r != Result::Ok) {
            const KeyPath upTo(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            if (!create) {
                *why = Where(upTo) + ": can't open";
                return r;
            }
            if (std::string problem = NameProblem(path[i], true); !problem.empty()) {
                *why = Where(upTo) + ": " + problem;
                return Result::Invalid;
            }
            r = ToolEdit::CreateSubKey(parent.handle, path[i], order_, &handle);
            if (r != Result::Ok) {
                *why = Where(upTo) + ": can't create";
                return r;
            }
            made_[full];
            made = true;
            touched_.insert(KeyPath(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(i)));
            if (created != nullptr && i + 1 == path.size()) *created = true;
        }
        levels_.push_back({std::move(folded), std::move(full), handle, made});
    }
    return Result::Ok;
}

LONG KeyWriter::EnsureKey(const KeyPath& path, std::string* why, bool* created) {
    return Reach(path, true, why, created);
}

LONG KeyWriter::OpenKey(const KeyPath& path, HKEY* handle, std::string* why) {
    const LONG r = Reach(path, false, why, nullptr);
    if (r == Result::Ok) *handle = levels_.back().handle;
    return r;
}

LONG KeyWriter::PutValue(const KeyPath& path, const std::u16string& name, DWORD type, const Bytes& data,
                         std::string* why) {
    if (std::string problem = NameProblem(name, false); !problem.empty()) {
        *why = Where(path, &name) + ": " + problem;
        return Result::Invalid;
    }
    LONG r = Reach(path, false, why, nullptr);
    if (r != Result::Ok) return r;
    const Level& level = levels_.back();
    const bool surelyNew = level.made && made_[level.path].insert(Fold(name)).second;
    r = ToolEdit::SetValue(level.handle, name, type, data.data(), static_cast<DWORD>(data.size()), surelyNew);
    if (r != Result::Ok) *why = Where(path, &name) + ": can't store";
    return r;
}

LONG KeyWriter::DeleteValue(const KeyPath& path, const std::u16string& name, std::string* why) {
    LONG r = Reach(path, false, why, nullptr);
    if (r != Result::Ok) return r;
    const Level& level = levels_.back();
    r = ToolEdit::DeleteValue(level.handle, name);
    if (r != Result::Ok) *why = Where(path, &name) + ": can't delete";
    else if (level.made) made_[level.path].erase(Fold(name));
    return r;
}

LONG KeyWriter::DeleteTree(KeyPath& path, std::string* why) {
    LONG r = Reach(path, false, why, nullptr);
    if (r != Result::Ok) return r;
    LONG listResult = Result::Ok;
    const std::vector<SubKey> subKeys = SubKeys(levels_.back().handle, &listResult);
    if (listResult != Result::Ok) {
        *why = Where(path) + ": its subkeys can't be listed";
        return listResult;
    }
    for (const SubKey& subKey : subKeys) {
        path.push_back(subKey.name);
        r = DeleteTree(path, why);
        path.pop_back();
        if (r != Result::Ok) return r;
    }
    const std::u16string name = path.back();
    path.pop_back();
    r = Reach(path, false, why, nullptr);
    if (r == Result::Ok) {
        made_.erase(levels_.back().path + u'\\' + Fold(name));
        r = ToolEdit::DeleteSubKey(levels_.back().handle, name);
    }
    path.push_back(name);
    if (r != Result::Ok) *why = Where(path) + ": can't delete";
    return r;
}

LONG KeyWriter::DeleteKey(const KeyPath& path, bool recursive, std::string* why) {
    if (path.empty()) {
        *why = "the root key can't be deleted";
        return Result::Invalid;
    }
    HKEY key = nullptr;
    LONG r = OpenKey(path, &key, why);
    if (r != Result::Ok) return r;
    DWORD subKeys = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
    if (subKeys != 0 && !recursive) {
        *why = Where(path) + ": has " + std::to_string(subKeys) + " subkeys (-r deletes them too)";
        return Result::Invalid;
    }
    KeyPath walk = path;
    return DeleteTree(walk, why);
}

LONG KeyWriter::Sort(const KeyPath& path, bool* changed, std::string* why) {
    HKEY key = nullptr;
    LONG r = OpenKey(path, &key, why);
    if (r != Result::Ok) return r;
    r = ToolEdit::SortSubKeys(key, changed);
    if (r != Result::Ok) *why = Where(path) + ": its subkey list can't be sorted";
    return r;
}

LONG KeyWriter::SortTouched(std::size_t* sorted, std::string* why) {
    *sorted = 0;
    const std::set<KeyPath> touched = std::move(touched_);
    for (const KeyPath& path : touched) {
        HKEY key = nullptr;
        // A key deleted after it got a subkey has no list left to sort.
        std::string ignored;
        if (OpenKey(path, &key, &ignored) != Result::Ok) continue;
        bool changed = false;
        if (LONG r = Sort(path, &changed, why); r != Result::Ok) return r;
        *sorted += changed ? 1 : 0;
    }
    return Result::Ok;
}

}  // namespace TamvikTool
