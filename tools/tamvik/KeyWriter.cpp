#include "KeyWriter.h"

#include "Walk.h"
#include "edit/NameForms.h"
#include "store/Platform.h"

namespace TamvikTool {

using Tamvik::Status;

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

bool WindowsOrder(const Args& args) {
    if (args.Has("--library-order") && args.Has("--windows-order"))
        UsageError("--library-order and --windows-order exclude each other");
    return !args.Has("--library-order");
}

int KeyWriter::Reach(const KeyPath& path, bool create, std::string* why, bool* created) {
    if (created != nullptr) *created = false;
    if (levels_.empty()) levels_.push_back({u"", u"", session_.Root(), false});
    // The levels that agree with the path stay; the rest are looked up again.
    std::size_t keep = 1;
    while (keep < levels_.size() && keep - 1 < path.size() && levels_[keep].folded == Fold(path[keep - 1])) ++keep;
    levels_.resize(keep);
    Tamvik::HiveAccess& hive = session_.Hive();
    for (std::size_t i = keep - 1; i < path.size(); ++i) {
        const Level parent = levels_.back();
        std::u16string folded = Fold(path[i]);
        std::u16string full = parent.path + u'\\' + folded;
        bool made = made_.count(full) != 0;
        Cell cell = 0;
        // Below a key made here, only keys made here exist.
        Status found = parent.made && !made ? Status::Of(Tamvik::StatusCode::NotFound, "made here")
                                            : hive.FindSubKey(parent.cell, path[i], &cell);
        if (!found) {
            const KeyPath upTo(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            if (!create) {
                *why = Where(upTo) + ": can't open";
                return ResultOf(found, Asked::Open);
            }
            if (std::string problem = NameProblem(path[i], true); !problem.empty()) {
                *why = Where(upTo) + ": " + problem;
                return Result::Invalid;
            }
            const Status made_here = hive.CreateSubKey(parent.cell, path[i], order_, &cell);
            if (!made_here) {
                *why = Where(upTo) + ": can't create";
                return ResultOf(made_here, Asked::Create);
            }
            made_[full];
            made = true;
            touched_.insert(KeyPath(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(i)));
            if (created != nullptr && i + 1 == path.size()) *created = true;
        }
        levels_.push_back({std::move(folded), std::move(full), cell, made});
    }
    return Result::Ok;
}

int KeyWriter::EnsureKey(const KeyPath& path, std::string* why, bool* created) { return Reach(path, true, why, created); }

int KeyWriter::OpenKey(const KeyPath& path, Cell* key, std::string* why) {
    const int r = Reach(path, false, why, nullptr);
    if (r == Result::Ok) *key = levels_.back().cell;
    return r;
}

int KeyWriter::PutValue(const KeyPath& path, const std::u16string& name, std::uint32_t type, const Bytes& data,
                        std::string* why) {
    if (std::string problem = NameProblem(name, false); !problem.empty()) {
        *why = Where(path, &name) + ": " + problem;
        return Result::Invalid;
    }
    if (int r = Reach(path, false, why, nullptr); r != Result::Ok) return r;
    const Level& level = levels_.back();
    const bool surelyNew = level.made && made_[level.path].insert(Fold(name)).second;
    const Status set = session_.Hive().SetValue(level.cell, name, type, data.data(),
                                                static_cast<std::uint32_t>(data.size()), surelyNew);
    if (!set) *why = Where(path, &name) + ": can't store";
    return ResultOf(set, Asked::Change);
}

int KeyWriter::DeleteValue(const KeyPath& path, const std::u16string& name, std::string* why) {
    if (int r = Reach(path, false, why, nullptr); r != Result::Ok) return r;
    const Level& level = levels_.back();
    const Status deleted = session_.Hive().DeleteValue(level.cell, name);
    if (!deleted) *why = Where(path, &name) + ": can't delete";
    else if (level.made) made_[level.path].erase(Fold(name));
    return ResultOf(deleted, Asked::Change);
}

int KeyWriter::DeleteTree(KeyPath& path, std::string* why) {
    if (int r = Reach(path, false, why, nullptr); r != Result::Ok) return r;
    const Cell key = levels_.back().cell;
    int listResult = Result::Ok;
    const std::vector<SubKey> subKeys = SubKeys(session_.Hive(), key, &listResult);
    if (listResult != Result::Ok) {
        *why = Where(path) + ": its subkeys can't be listed";
        return listResult;
    }
    for (const SubKey& subKey : subKeys) {
        path.push_back(subKey.name);
        const int r = DeleteTree(path, why);
        path.pop_back();
        if (r != Result::Ok) return r;
    }
    const std::u16string name = path.back();
    path.pop_back();
    int r = Reach(path, false, why, nullptr);
    if (r == Result::Ok) {
        made_.erase(levels_.back().path + u'\\' + Fold(name));
        r = ResultOf(session_.Hive().DeleteSubKey(levels_.back().cell, key), Asked::Change);
    }
    path.push_back(name);
    if (r != Result::Ok) *why = Where(path) + ": can't delete";
    return r;
}

int KeyWriter::DeleteKey(const KeyPath& path, bool recursive, std::string* why) {
    if (path.empty()) {
        *why = "the root key can't be deleted";
        return Result::Invalid;
    }
    Cell key = 0;
    if (int r = OpenKey(path, &key, why); r != Result::Ok) return r;
    Tamvik::KeyInfo info;
    session_.Hive().Info(key, &info);
    if (info.subKeys != 0 && !recursive) {
        *why = Where(path) + ": has " + std::to_string(info.subKeys) + " subkeys (-r deletes them too)";
        return Result::Invalid;
    }
    KeyPath walk = path;
    return DeleteTree(walk, why);
}

int KeyWriter::Sort(const KeyPath& path, bool* changed, std::string* why) {
    Cell key = 0;
    if (int r = OpenKey(path, &key, why); r != Result::Ok) return r;
    const Status sorted = session_.Hive().SortSubKeys(key, changed);
    if (!sorted) *why = Where(path) + ": its subkey list can't be sorted";
    return ResultOf(sorted, Asked::List);
}

int KeyWriter::SortTouched(std::size_t* sorted, std::string* why) {
    *sorted = 0;
    const std::set<KeyPath> touched = std::move(touched_);
    for (const KeyPath& path : touched) {
        Cell key = 0;
        // A key deleted after it got a subkey has no list left to sort.
        std::string ignored;
        if (OpenKey(path, &key, &ignored) != Result::Ok) continue;
        bool changed = false;
        if (int r = Sort(path, &changed, why); r != Result::Ok) return r;
        *sorted += changed ? 1 : 0;
    }
    return Result::Ok;
}

}  // namespace TamvikTool
