// The read-only functions on keys: open by path, close, counts, enumeration, flush.
#include <algorithm>
#include <cstring>

#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "nodes/SubKeyList.h"

namespace RegAPI {

using namespace Tamvik;

namespace {

// The name of subkey index of key, for the enumeration functions, copied to
// name; *nameLength is the room the caller has, terminator included.
LONG EnumKeyName(Key* key, DWORD index, DWORD* nameLength, NameTarget name) {
    if (key == nullptr || nameLength == nullptr) return Result::Invalid;
    if (key->SubKeyCount() == 0 || index >= key->SubKeyCount()) return Result::Invalid;
    Hive* hive = HiveAbove(key);
    if (hive == nullptr) return Result::Invalid;
    const std::optional<std::size_t> length = key->EnumSubKeyNameInto(hive, index, name);
    if (!length) return Result::Corrupt;
    if (*nameLength < *length + 1) return Result::Invalid;
    *nameLength = static_cast<DWORD>(*length);
    return Result::Ok;
}

}  // namespace

LONG RegOpenKeyExW(HKEY key, const WCHAR* path, DWORD, DWORD, HKEY* result) {
    if (key == nullptr || path == nullptr || result == nullptr) return Result::Invalid;
    Node* start = NodeOf(key);
    Hive* hive = start != nullptr ? HiveAbove(start) : nullptr;
    if (hive == nullptr) return Result::Invalid;
    Key* found = NodeAs<Key>(WalkPath(start, hive, path));
    if (found == nullptr) return Result::Invalid;
    *result = HandleOf(found);
    return Result::Ok;
}

LONG RegOpenKeyExA(HKEY key, const char* path, DWORD options, DWORD access, HKEY* result) {
    if (path == nullptr) return Result::Invalid;
    std::optional<WString> widePath = WidenArgument(path);
    if (!widePath) return Result::Invalid;
    return RegOpenKeyExW(key, widePath->c_str(), options, access, result);
}

LONG RegCloseKey(HKEY key) { return KeyOf(key) != nullptr ? Result::Ok : Result::Invalid; }

LONG RegFlushKey(HKEY) { return Result::Ok; }

LONG RegQueryInfoKeyW(HKEY key, WCHAR*, DWORD*, DWORD*, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD*,
                      DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD*, FILETIME*) {
    Key* node = KeyOf(key);
    if (node == nullptr) return Result::Invalid;
    if (subKeys != nullptr) *subKeys = node->SubKeyCount();
    if (maxSubKeyLength != nullptr) *maxSubKeyLength = MaxNameUnits(node->Field(NkField::MaxSubKeyName));
    if (values != nullptr) *values = node->ValueCount();
    if (maxValueNameLength != nullptr) *maxValueNameLength = MaxNameUnits(node->Field(NkField::MaxValueName));
    if (maxValueLength != nullptr) *maxValueLength = node->Field(NkField::MaxValueData);
    return Result::Ok;
}

LONG RegQueryInfoKeyA(HKEY key, char*, DWORD* classLength, DWORD* reserved, DWORD* subKeys, DWORD* maxSubKeyLength,
                      DWORD* maxClassLength, DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength,
                      DWORD* securitySize, FILETIME* lastWriteTime) {
    return RegQueryInfoKeyW(key, nullptr, classLength, reserved, subKeys, maxSubKeyLength, maxClassLength, values,
                            maxValueNameLength, maxValueLength, securitySize, lastWriteTime);
}

LONG RegEnumKeyExW(HKEY key, DWORD index, WCHAR* name, DWORD* nameLength, DWORD*, WCHAR*, DWORD*, FILETIME*) {
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || nameLength == nullptr) return Result::Invalid;
    return EnumKeyName(node, index, nameLength, NameTarget{name, *nameLength});
}

LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD*, char*, DWORD*, FILETIME*) {
    if (name == nullptr || nameLength == nullptr) return Result::Invalid;
    // name holds *nameLength + 1 bytes; the text is always terminated within them.
    const std::uint64_t room = static_cast<std::uint64_t>(*nameLength) + 1;
    WString found;
    Key* node = KeyOf(key);
    LONG result = node == nullptr ? Result::Invalid : EnumKeyName(node, index, nameLength, NameTarget{nullptr, 0, &found});
    if (result != Result::Ok) {
        name[0] = 0;
        return result;
    }
    std::string narrow = NarrowLossyFit(found, room - 1);
    std::memcpy(name, narrow.data(), narrow.size());
    name[narrow.size()] = 0;
    *nameLength = static_cast<DWORD>(found.size());
    return Result::Ok;
}

}  // namespace RegAPI
