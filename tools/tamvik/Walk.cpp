#include "Walk.h"

#include "api/ToolEntry.h"

namespace TamvikTool {

using namespace RegAPI;

namespace {
// Room for the longest name a record can hold (65535 bytes, one character
// each when narrow) and its terminator, so the capacity test never refuses.
constexpr DWORD kNameCapacity = 65537;

// A count read from a damaged key can claim billions of entries its list
// doesn't hold. A walk over one stops where the library says there is no
// such entry (87), or after this many failures in a row: real damage
// leaves a few unreadable entries, not thousands.
constexpr DWORD kFailureRun = 64;

// Goes through entries 0 to count - 1 with read(i), which gives the result
// for entry i; stops early as said above. The result: the first failure.
template <class Read>
LONG ForEachEntry(DWORD count, Read read) {
    LONG first = Result::Ok;
    DWORD failures = 0;
    for (DWORD i = 0; i < count; ++i) {
        const LONG r = read(i);
        if (r == Result::Ok) {
            failures = 0;
            continue;
        }
        if (first == Result::Ok) first = r;
        if (r == Result::Invalid || ++failures >= kFailureRun) break;
    }
    return first;
}
}  // namespace

std::vector<SubKey> SubKeys(HKEY key, LONG* result) {
    *result = Result::Ok;
    std::vector<SubKey> names;
    DWORD count = 0;
    LONG r = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr, nullptr);
    if (r != Result::Ok) {
        *result = r;
        return names;
    }
    std::u16string buffer(kNameCapacity, u'\0');
    *result = ForEachEntry(count, [&](DWORD i) {
        DWORD length = kNameCapacity;
        const LONG r = RegEnumKeyExW(key, i, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (r == Result::Ok) names.push_back({i, std::u16string(buffer.data(), length)});
        return r;
    });
    return names;
}

std::vector<ValueEntry> ReadValues(HKEY key, LONG* result) {
    *result = Result::Ok;
    std::vector<ValueEntry> values;
    DWORD count = 0;
    LONG r = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count, nullptr, nullptr,
                              nullptr, nullptr);
    if (r != Result::Ok) {
        *result = r;
        return values;
    }
    std::u16string buffer(kNameCapacity, u'\0');
    *result = ForEachEntry(count, [&](DWORD i) {
        ValueEntry entry;
        entry.index = i;
        DWORD length = kNameCapacity;
        DWORD size = 0;
        // First the size (a null data pointer), then the data itself.
        LONG r = RegEnumValueW(key, i, buffer.data(), &length, nullptr, &entry.type, nullptr, &size);
        if (r == Result::Ok) {
            entry.name.assign(buffer.data(), length);
            if (size != 0) {
                entry.data.resize(size);
                DWORD got = size;
                length = kNameCapacity;
                r = RegEnumValueW(key, i, buffer.data(), &length, nullptr, &entry.type, entry.data.data(), &got);
                if (r == Result::Ok) entry.data.resize(got);
                else entry.data.clear();
            }
        }
        entry.result = r;
        // An index the library says isn't there is no entry to list.
        if (r != Result::Invalid) values.push_back(std::move(entry));
        return r;
    });
    return values;
}

LONG ReadValue(HKEY key, const std::u16string& name, ValueEntry* entry) {
    DWORD type = 0, size = 0;
    LONG r = RegQueryValueExW(key, name.c_str(), nullptr, &type, nullptr, &size);
    if (r != Result::Ok) return r;
    entry->name = name;
    entry->type = type;
    entry->data.assign(size, 0);
    if (size != 0) {
        DWORD got = size;
        r = RegQueryValueExW(key, name.c_str(), nullptr, &type, entry->data.data(), &got);
        if (r != Result::Ok) return r;
        entry->data.resize(got);
    }
    entry->result = Result::Ok;
    return Result::Ok;
}

void WalkTree(HKEY handle, const KeyPath& path, const WalkEvents& events, bool recursive) {
    if (events.onKey) events.onKey(path, handle);
    if (!recursive) return;
    LONG listResult = Result::Ok;
    // The names are taken first: enumeration ends no handle, opening does.
    const std::vector<SubKey> subKeys = SubKeys(handle, &listResult);
    if (listResult != Result::Ok && events.onListError) events.onListError(path, listResult);
    if (events.onSubKeys) events.onSubKeys(path, subKeys);
    KeyPath childPath = path;
    childPath.emplace_back();
    for (const SubKey& subKey : subKeys) {
        childPath.back() = subKey.name;
        if (events.enter && !events.enter(childPath)) continue;
        HKEY child = nullptr;
        LONG r = Tamvik::ToolEdit::OpenSubKeyAt(handle, subKey.index, &child);
        if (r != Result::Ok) {
            if (events.onUnreachable) events.onUnreachable(childPath, r);
            continue;
        }
        WalkTree(child, childPath, events, true);
    }
}

}  // namespace TamvikTool
