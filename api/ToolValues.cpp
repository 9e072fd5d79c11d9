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
#include "store/Allocator.h"

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
        if (value == nullptr || !SameName(value->GetName(), name)) continue;
        owner->valueList->child = std::move(value);
        return owner->valueList->child.get();
    }
    return nullptr;
}

// Data of more than 4 bytes in a cell of its own, or a db when it is big; 0 on failure.
std::uint32_t WriteData(Hive* hive, const BYTE* data, DWORD size) {
    return NeedsBigData(hive, size) ? WriteBigData(hive, data, size) : WriteDataCell(hive, data, size);
}

void ReleaseData(Hive* hive, std::uint32_t cell, DWORD size) {
    if (cell == 0) return;
    if (NeedsBigData(hive, size)) {
        if (std::unique_ptr<BigData> db = BuildNodeAt<BigData>(hive, cell, nullptr, CellKind::BigDataRecord)) {
            db->Free(hive);
            return;
        }
    }
    FreeCellAt(hive, cell);
}

// DataLength and DataCell for the data: inline up to 4 bytes.
void PointAtData(RecordRef& record, const BYTE* data, DWORD size, std::uint32_t cell) {
    if (size > 4) {
        record.SetU32(VkField::DataLength, size);
        record.SetU32(VkField::DataCell, cell);
        return;
    }
    std::uint8_t inline_[4] = {};
    if (size != 0) std::memcpy(inline_, data, size);
    record.SetU32(VkField::DataLength, kInlineData + size);
    record.SetU32(VkField::DataCell, LoadU32(inline_));
}

// The new data is written before the old is released, so a failure leaves the value as it was.
LONG Replace(Val* value, Hive* hive, DWORD type, const BYTE* data, DWORD size) {
    const std::uint32_t cell = size > 4 ? WriteData(hive, data, size) : 0;
    if (size > 4 && cell == 0) return Result::Invalid;
    FreeValueData(value, hive);
    value->record.SetU32(VkField::Type, type);
    PointAtData(value->record, data, size, cell);
    value->Save(hive);
    UpdateMaxValueData(value, hive, size);
    return Result::Ok;
}

LONG Add(Key* owner, Hive* hive, const StoredName& stored, std::uint32_t units, DWORD type, const BYTE* data,
         DWORD size) {
    if (owner->record.U16(NkField::Signature) != kNkSignature) return Result::Invalid;
    const std::uint32_t dataCell = size > 4 ? WriteData(hive, data, size) : 0;
    if (size > 4 && dataCell == 0) return Result::Invalid;
    const std::uint32_t valueCell =
        CreateCell(hive, VkField::Name + static_cast<std::uint32_t>(stored.bytes.size()),
                   [&](std::uint8_t* record, std::uint32_t capacity) {
                       InitValueRecord(record, stored.bytes, data, type, size);
                       RecordRef view(record, capacity);
                       PointAtData(view, data, size, dataCell);
                       if (!stored.compressed) StoreU16(record + VkField::Flags, 0);
                   });
    const std::uint32_t listCell = valueCell == 0 ? 0 : WriteValueList(owner, hive, valueCell);
    if (listCell == 0) {
        FreeCellAt(hive, valueCell);
        ReleaseData(hive, dataCell, size);
        owner->carriedValueNames.reset();
        return Result::Invalid;
    }
    owner->SetField(NkField::ValueCount, owner->ValueCount() + 1);
    owner->SetField(NkField::ValueListCell, listCell);
    if (((owner->Field(NkField::MaxValueName) & 0xFFFF) >> 1) < units) owner->SetField(NkField::MaxValueName, units * 2);
    if (owner->Field(NkField::MaxValueData) < size) owner->SetField(NkField::MaxValueData, size);
    owner->Save(hive);
    return Result::Ok;
}

}  // namespace

LONG SetValue(HKEY handle, const WString& name, DWORD type, const BYTE* data, DWORD size, bool surelyNew) {
    const WriteBack writeBack(handle);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || (size != 0 && data == nullptr)) return Result::Invalid;
    const std::optional<StoredName> stored = StoreName(name);
    if (!stored) return Result::Invalid;
    if (!surelyNew) {
        if (Val* value = FindNamed(owner, hive, name)) return Replace(value, hive, type, data, size);
    }
    return Add(owner, hive, *stored, static_cast<std::uint32_t>(name.size()), type, data, size);
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
