// Keys of any name for the tool: opened by position or by a name that can't
// be passed as a path, created in either name form, deleted.
#include <cstring>
#include <memory>
#include <vector>

#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "edit/Edit.h"
#include "edit/NameForms.h"
#include "api/ToolEntry.h"
#include "nodes/MakeNode.h"

namespace Tamvik::ToolEdit {

using namespace RegAPI;

namespace {

bool NeedsScan(const WString& name) {
    return name.find(u'\0') != WString::npos || name.find(u'\\') != WString::npos;
}

}  // namespace

LONG OpenSubKeyAt(HKEY handle, DWORD index, HKEY* result) {
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr || index >= owner->SubKeyCount()) return Result::Invalid;
    if (owner->subKeyList == nullptr) owner->subKeyList = owner->GetSubKeyList(hive);
    if (owner->subKeyList == nullptr) return Result::Corrupt;
    // The list holds the key it gives, as a lookup by name leaves it.
    owner->subKeyList->child = owner->subKeyList->GetAt(hive, index);
    if (owner->subKeyList->child == nullptr) return Result::Corrupt;
    *result = HandleOf(owner->subKeyList->child.get());
    return Result::Ok;
}

LONG OpenSubKey(HKEY handle, const WString& name, HKEY* result) {
    if (!NeedsScan(name)) return RegOpenKeyExW(handle, name.c_str(), 0, 0, result);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr) return Result::Invalid;
    const std::uint32_t count = owner->SubKeyCount();
    std::unique_ptr<SubKeyList> list = count == 0 ? nullptr : owner->GetSubKeyList(hive);
    for (std::uint32_t i = 0; list != nullptr && i < count; ++i) {
        std::optional<WString> existing = list->NameAt(hive, i);
        if (existing && UpperCaseName(*existing) == UpperCaseName(name)) return OpenSubKeyAt(handle, i, result);
    }
    return Result::Invalid;
}

LONG CreateSubKey(HKEY handle, const WString& name, ListOrder order, HKEY* result) {
    const WriteBack writeBack(handle);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr || name.empty()) return Result::Invalid;
    const std::optional<NewName> stored = StoredName(name);
    if (!stored) return Result::CannotCreate;
    std::uint32_t keyCell = 0;
    const Status made = Tamvik::CreateSubKey(owner, hive, *stored, {Caller::Internal, order}, &keyCell);
    if (made.code == StatusCode::Exists) return Result::AlreadyExists;
    if (!made) return Result::CannotCreate;
    std::unique_ptr<Key> created = BuildNodeAt<Key>(hive, keyCell, owner, CellKind::BySignature);
    if (created == nullptr) return Result::Corrupt;
    *result = HandleOf(created.get());
    hive->createdKeys.push_back(std::move(created));
    return Result::Ok;
}

LONG DeleteSubKey(HKEY handle, const WString& name) {
    const WriteBack writeBack(handle);
    HKEY child = nullptr;
    if (LONG r = OpenSubKey(handle, name, &child); r != Result::Ok) return r;
    Key* key = KeyOf(child);
    Hive* hive = key == nullptr ? nullptr : HiveAbove(key);
    if (hive == nullptr) return Result::Invalid;
    return DeleteKey(key, hive) ? Result::Ok : Result::Invalid;
}

LONG KeyTimestamp(HKEY handle, std::uint64_t* stamp) {
    Key* key = KeyOf(handle);
    if (key == nullptr || stamp == nullptr) return Result::Invalid;
    *stamp = key->Field(NkField::Timestamp) | static_cast<std::uint64_t>(key->Field(NkField::Timestamp + 4)) << 32;
    return Result::Ok;
}

}  // namespace Tamvik::ToolEdit
