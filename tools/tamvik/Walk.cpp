#include "Walk.h"

#include "api/ToolEntry.h"

namespace TamvikTool {

using namespace RegAPI;

namespace {
// Room for the longest name a record can hold (65535 bytes, one character
// each when narrow) and its terminator, so the capacity test never refuses.
constexpr DWORD kNameCapacity = 65537;
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
    for (DWORD i = 0; i < count; ++i) {
        DWORD length = kNameCapacity;
        r = RegEnumKeyExW(key, i, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (r != Result::Ok) {
            if (*result == Result::Ok) *result = r;
            continue;
        }
        names.push_back({i, std::u16string(buffer.data(), length)});
    }
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
    for (DWORD i = 0; i < count; ++i) {
        ValueEntry entry;
        entry.index = i;
        DWORD length = kNameCapacity;
        DWORD size = 0;
        // First the size (a null data pointer), then the data itself.
        r = RegEnumValueW(key, i, buffer.data(), &length, nullptr, &entry.type, nullptr, &size);
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
        if (r != Result::Ok && *result == Result::Ok) *result = r;
        values.push_back(std::move(entry));
    }
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
