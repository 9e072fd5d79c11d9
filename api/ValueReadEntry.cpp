// Reading values by name and by position, for wide callers.
#include <algorithm>

#include "api/ValueRead.h"
#include "nodes/Key.h"

namespace Tamvik {

Val* FindValueNamed(Key* key, const WString& name, Hive** hive) {
    *hive = HiveAbove(key);
    if (*hive == nullptr) return nullptr;
    const CaseRulesHold rules;
    const WString upper = UpperCaseName(name);
    return key->FindValue(*hive, std::u16string_view(upper.c_str()));
}

RegAPI::LONG Deliver(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data, RegAPI::DWORD* dataSize) {
    using namespace RegAPI;
    if (type != nullptr) *type = value->ValueType();
    if (dataSize == nullptr) return Result::Ok;
    if (data == nullptr) {
        *dataSize = value->StoredLength();
        return Result::Ok;
    }
    if (!value->ReadData(hive, data, *dataSize)) return Result::MoreData;
    *dataSize = value->StoredLength();
    return Result::Ok;
}

}  // namespace Tamvik

namespace RegAPI {

using namespace Tamvik;

LONG RegQueryValueExW(HKEY key, const WCHAR* name, DWORD*, DWORD* type, BYTE* data, DWORD* dataSize) {
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || node->ValueCount() == 0) return Result::Invalid;
    Hive* hive = nullptr;
    Val* value = FindValueNamed(node, WString(name), &hive);
    if (value == nullptr) return Result::Invalid;
    return Deliver(value, hive, type, data, dataSize);
}

LONG RegEnumValueW(HKEY key, DWORD index, WCHAR* name, DWORD* nameLength, DWORD*, DWORD* type, BYTE* data,
                   DWORD* dataSize) {
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || nameLength == nullptr) return Result::Invalid;
    return WithValueAt(node, index, [&](Val* value, Hive* hive) {
        // *nameLength is the room in name, terminator included: nothing is written past it.
        const std::size_t length = value->NameInto(NameTarget{name, *nameLength});
        if (*nameLength < length + 1) return Result::Invalid;
        *nameLength = static_cast<DWORD>(length);
        return Deliver(value, hive, type, data, dataSize);
    });
}

}  // namespace RegAPI
