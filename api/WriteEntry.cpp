// Creating keys and values, replacing data, deleting keys and values, for wide
// callers (and RegCreateKeyExA, which the wide create goes through).
#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "api/ValueRead.h"
#include "api/WriteChecks.h"
#include "edit/Edit.h"
#include "nodes/MakeNode.h"

namespace Tamvik {

bool HasFixedSize(RegAPI::DWORD type) {
    return type == ValueType::Dword || type == ValueType::DwordBigEndian || type == ValueType::Qword;
}

RegAPI::LONG ReplaceValue(Key* key, const WString& name, RegAPI::DWORD type, RegAPI::DWORD size,
                          const RegAPI::BYTE* storedData, RegAPI::DWORD storedSize) {
    using namespace RegAPI;
    Hive* hive = nullptr;
    Val* value = FindValueNamed(key, name, &hive);
    if (value == nullptr) return Result::Invalid;
    if (type != value->ValueType()) return Result::Invalid;
    if (HasFixedSize(type) && size != value->StoredLength()) return Result::Invalid;
    return SetValueData(value, hive, storedData, storedSize) ? Result::Ok : Result::Invalid;
}

bool ValueExists(Key* key, const WString& name) {
    Hive* hive = nullptr;
    return key->ValueCount() != 0 && FindValueNamed(key, name, &hive) != nullptr;
}

RegAPI::LONG CreateValue(Key* key, const std::string& narrowName, const WString& wideName, RegAPI::DWORD type,
                         const RegAPI::BYTE* data, RegAPI::DWORD size) {
    using namespace RegAPI;
    Hive* hive = HiveAbove(key);
    // The default value (an empty name) is the internal functions' alone.
    if (hive == nullptr || narrowName.empty() || narrowName.size() > kMaxNameBytes) return Result::Invalid;
    return AddValue(key, hive, CodePageName(narrowName, wideName), type, data, size, Caller::Exported)
               ? Result::Ok
               : Result::Invalid;
}

RegAPI::LONG DeleteKeyAt(Key* key, const char16_t* path) {
    using namespace RegAPI;
    Hive* hive = HiveAbove(key);
    if (hive == nullptr) return Result::Invalid;
    Key* target = NodeAs<Key>(WalkPath(key, hive, path));
    if (target == nullptr) return Result::Invalid;
    return DeleteKey(target, hive) ? Result::Ok : Result::Invalid;
}

RegAPI::LONG DeleteValueNamed(Key* key, const char16_t* name) {
    using namespace RegAPI;
    Hive* hive = nullptr;
    Val* value = FindValueNamed(key, WString(name), &hive);
    if (value == nullptr) return Result::Invalid;
    DeleteValue(value, hive);
    return Result::Ok;
}

}  // namespace Tamvik

namespace RegAPI {

using namespace Tamvik;

LONG RegCreateKeyExA(HKEY key, const char* name, HKEY* result) {
    const WriteBack writeBack(key);
    Key* owner = KeyOf(key);
    if (owner == nullptr || name == nullptr || result == nullptr) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(name);
    if (!wide || wide->empty()) return Result::Invalid;
    const std::string narrow(name);
    if (narrow.size() > kMaxNameBytes) return Result::CannotCreate;
    Hive* hive = HiveAbove(owner);
    if (hive == nullptr) return Result::Invalid;
    std::uint32_t cell = 0;
    const Status made = CreateSubKey(owner, hive, CodePageName(narrow, *wide), {Caller::Exported, ListOrder::Library}, &cell,
                                   &HiveLeafMemo(hive));
    if (made.code == StatusCode::Exists) return Result::AlreadyExists;
    if (!made) return Result::CannotCreate;
    const CellRef ref = hive->GetCell(cell);
    if (!ref.IsUsable()) return Result::CannotCreate;
    std::unique_ptr<Key> created = NarrowNode<Key>(MakeNode(ref, hive, owner, CellKind::BySignature));
    Key* handle = created.get();
    if (created != nullptr) hive->createdKeys.push_back(std::move(created));
    *result = HandleOf(handle);
    return Result::Ok;
}

LONG RegCreateKeyExW(HKEY key, const WCHAR* name, HKEY* result) {
    if (name == nullptr) return Result::Invalid;
    std::optional<std::string> narrow = NarrowArgument(name);
    if (!narrow) return Result::Invalid;
    return RegCreateKeyExA(key, narrow->c_str(), result);
}

LONG RegSetValueExW(HKEY key, const WCHAR* name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || data == nullptr || size == 0 || node->ValueCount() == 0)
        return Result::Invalid;
    return ReplaceValue(node, WString(name), type, size, data, size);
}

LONG RegSetValueNewW(HKEY key, const WCHAR* name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || data == nullptr || size == 0) return Result::Invalid;
    if (ValueExists(node, WString(name))) return Result::AlreadyExists;
    std::optional<std::string> narrow = NarrowArgument(name);
    if (!narrow) return Result::Invalid;
    return CreateValue(node, *narrow, WString(name), type, data, size);
}

LONG RegDeleteKeyW(HKEY key, const WCHAR* path) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || path == nullptr) return Result::Invalid;
    return DeleteKeyAt(node, path);
}

LONG RegDeleteValueW(HKEY key, const WCHAR* name) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr) return Result::Invalid;
    return DeleteValueNamed(node, name);
}

}  // namespace RegAPI
