// Values of any name and any data for the tool: the default value (an empty
// name), empty data, names beyond Latin-1 stored as UTF-16, names with a NUL.
#include <cstring>
#include <memory>

#include "api/EntryFrame.h"
#include "api/ValueRead.h"
#include "edit/Edit.h"
#include "edit/NameForms.h"
#include "api/ToolEntry.h"
#include "nodes/Data.h"
#include "nodes/MakeNode.h"

namespace Tamvik::ToolEdit {

using namespace RegAPI;

namespace {

// The value of that name, held by the key's cached list as a lookup leaves it.
Val* FindNamed(Key* owner, Hive* hive, const WString& name) {
    if (name.find(u'\0') == WString::npos) return FindValueNamed(owner, name, &hive);
    const std::uint32_t count = owner->ValueCount();
    if (count == 0) return nullptr;
    if (owner->valueList == nullptr) {
        owner->valueList = owner->GetValueList(hive);
        owner->carriedValueNames.reset();
    }
    if (owner->valueList == nullptr) return nullptr;
    for (std::uint32_t i = 0; i < count && i < owner->valueList->EntriesHeld(); ++i) {
        std::unique_ptr<Val> value = owner->valueList->GetAt(hive, i);
        if (value == nullptr || UpperCaseName(value->GetName()) != UpperCaseName(name)) continue;
        owner->valueList->child = std::move(value);
        return owner->valueList->child.get();
    }
    return nullptr;
}

}  // namespace

LONG SetValue(HKEY handle, const WString& name, DWORD type, const BYTE* data, DWORD size, bool surelyNew) {
    const WriteBack writeBack(handle);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || (size != 0 && data == nullptr)) return Result::Invalid;
    const std::optional<NewName> stored = StoredName(name);
    if (!stored) return Result::Invalid;
    if (!surelyNew) {
        if (Val* value = FindNamed(owner, hive, name)) return ReplaceValue(value, hive, type, data, size) ? Result::Ok : Result::Invalid;
    }
    return AddValue(owner, hive, *stored, type, data, size, Caller::Internal) ? Result::Ok : Result::Invalid;
}

LONG DeleteValue(HKEY handle, const WString& name) {
    const WriteBack writeBack(handle);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr) return Result::Invalid;
    Val* value = FindNamed(owner, hive, name);
    if (value == nullptr) return Result::Invalid;
    Tamvik::DeleteValue(value, hive);
    return Result::Ok;
}

}  // namespace Tamvik::ToolEdit
