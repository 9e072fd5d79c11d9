#include "Walk.h"

namespace TamvikTool {

using Tamvik::Status;

namespace {
// A count read from a damaged key can claim billions of entries its list
// doesn't hold. A walk over one stops after this many unreadable entries in
// a row: real damage leaves a few, not thousands.
constexpr std::uint32_t kFailureRun = 64;
}  // namespace

std::vector<SubKey> SubKeys(Tamvik::HiveAccess& hive, Cell key, int* result) {
    std::vector<Tamvik::SubKeyItem> items;
    const Status listed = hive.SubKeys(key, &items);
    *result = ResultOf(listed, Asked::List);
    std::vector<SubKey> subKeys;
    std::uint32_t failures = 0;
    for (std::uint32_t i = 0; i < items.size() && failures < kFailureRun; ++i) {
        if (!items[i].status) {
            ++failures;
            continue;
        }
        failures = 0;
        subKeys.push_back({i, std::move(items[i].name), items[i].cell});
    }
    return subKeys;
}

std::vector<ValueEntry> ReadValues(Tamvik::HiveAccess& hive, Cell key, int* result) {
    std::vector<Tamvik::ValueItem> items;
    const Status listed = hive.Values(key, true, &items);
    *result = ResultOf(listed, Asked::List);
    std::vector<ValueEntry> values;
    std::uint32_t failures = 0;
    const auto add = [&](ValueEntry entry) {
        failures = entry.result == Result::Ok ? 0 : failures + 1;
        values.push_back(std::move(entry));
    };
    for (std::uint32_t i = 0; i < items.size() && failures < kFailureRun; ++i)
        add({std::move(items[i].name), items[i].type, std::move(items[i].data), ResultOf(items[i].status, Asked::List), i});
    // Positions the key counts beyond what its list holds are each unreadable.
    Tamvik::KeyInfo info;
    if (!listed && hive.Info(key, &info))
        for (auto i = static_cast<std::uint32_t>(items.size()); i < info.values && failures < kFailureRun; ++i)
            add({{}, 0, {}, Result::Corrupt, i});
    return values;
}

int ReadValue(Tamvik::HiveAccess& hive, Cell key, const std::u16string& name, ValueEntry* entry) {
    Tamvik::ValueItem item;
    const Status read = hive.FindValue(key, name, true, &item);
    if (!read) return ResultOf(read, Asked::Read);
    *entry = {name, item.type, std::move(item.data), Result::Ok, 0};
    return Result::Ok;
}

void WalkTree(Tamvik::HiveAccess& hive, Cell key, const KeyPath& path, const WalkEvents& events, bool recursive) {
    if (events.onKey) events.onKey(path, key);
    if (!recursive) return;
    int listResult = Result::Ok;
    const std::vector<SubKey> subKeys = SubKeys(hive, key, &listResult);
    if (listResult != Result::Ok && events.onListError) events.onListError(path, listResult);
    if (events.onSubKeys) events.onSubKeys(path, subKeys);
    KeyPath childPath = path;
    childPath.emplace_back();
    for (const SubKey& subKey : subKeys) {
        childPath.back() = subKey.name;
        if (events.enter && !events.enter(childPath)) continue;
        WalkTree(hive, subKey.cell, childPath, events, true);
    }
}

}  // namespace TamvikTool
