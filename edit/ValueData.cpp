#include <algorithm>
#include <cstring>

#include "edit/Edit.h"
#include "nodes/Data.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {

// Releases the data a value held before it got new cells: segments, list and
// db cell of a real db record, or just the cell.
void ReleaseOldData(Hive* hive, Val* value, CellRef& old, bool big) {
    if (big) {
        std::unique_ptr<BigData> db = NarrowNode<BigData>(MakeNode(old, hive, value, CellKind::BigDataRecord));
        if (db != nullptr && db->HasDbSignature()) {
            db->Free(hive);
            return;
        }
    }
    FreeCell(old, hive);
}

bool SetInline(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    const std::uint32_t held = value->DataLength() - kInlineData;
    if (length <= 4) {
        if (length != 0) std::memcpy(value->record.Data() + VkField::DataCell, data, length);
        if (length > held) UpdateMaxValueData(value, hive, length);
        value->record.SetU32(VkField::DataLength, kInlineData + length);
        value->Save(hive);
        return true;
    }
    const std::uint32_t cell = WriteOutOfLine(hive, data, length);
    if (cell == 0) return false;
    value->record.SetU32(VkField::DataLength, length);
    value->record.SetU32(VkField::DataCell, cell);
    UpdateMaxValueData(value, hive, length);
    value->Save(hive);
    return true;
}

bool Grow(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    CellRef old = hive->GetCell(value->DataCell());
    if (!old.IsUsable()) return false;
    if (IsBigDataLength(hive->MinorVersion(), value->DataLength())) return false;  // a db can't grow
    if (NeedsBigData(hive, length)) {
        // Crossing upward over 16344 bytes: the data goes into a db, so that its form agrees with its length.
        const std::uint32_t db = WriteBigData(hive, data, length);
        if (db == 0) return false;
        value->record.SetU32(VkField::DataCell, db);
        FreeCell(old, hive);
    } else if (static_cast<std::uint64_t>(old.Magnitude()) >= static_cast<std::uint64_t>(length) + 4) {
        std::unique_ptr<Data> cell = NarrowNode<Data>(MakeNode(old, hive, value, CellKind::PlainData));
        if (cell == nullptr || !cell->Write(hive, data, length)) return false;
        cell->Save(hive);
    } else {
        const std::uint32_t fresh = WriteDataCell(hive, data, length);
        if (fresh == 0) return false;
        value->record.SetU32(VkField::DataCell, fresh);
        FreeCell(old, hive);
    }
    UpdateMaxValueData(value, hive, length);
    value->record.SetU32(VkField::DataLength, length);
    value->Save(hive);
    return true;
}

bool Shrink(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    const std::uint32_t oldLength = value->DataLength();
    const bool big = IsBigDataLength(hive->MinorVersion(), oldLength);
    if (big && !NeedsBigData(hive, length)) {
        // A db value falling to 16344 bytes or less becomes a plain data cell.
        CellRef old = hive->GetCell(value->DataCell());
        if (!old.IsUsable()) return false;
        const std::uint32_t fresh = WriteDataCell(hive, data, length);
        if (fresh == 0) return false;
        value->record.SetU32(VkField::DataCell, fresh);
        value->record.SetU32(VkField::DataLength, length);
        value->Save(hive);
        ReleaseOldData(hive, value, old, true);
        return true;
    }
    if (big) {
        // Only a real db record is followed to its segments.
        CellRef cell = hive->GetCell(value->DataCell());
        if (!cell.IsUsable()) return false;
        std::unique_ptr<BigData> db = NarrowNode<BigData>(MakeNode(cell, hive, value, CellKind::BigDataRecord));
        if (db == nullptr || !db->HasDbSignature()) return false;
    }
    if (length < oldLength) {
        value->record.SetU32(VkField::DataLength, length);
        value->Save(hive);
    }
    CellRef cell = hive->GetCell(value->DataCell());
    if (!cell.IsUsable()) return false;
    std::unique_ptr<Data> node =
        NarrowNode<Data>(MakeNode(cell, hive, value, big ? CellKind::BigDataRecord : CellKind::PlainData));
    if (node == nullptr || !node->Write(hive, data, length)) return false;
    node->Save(hive);
    return true;
}

}  // namespace

void UpdateMaxValueData(Val* value, Hive* hive, std::uint32_t length) {
    Key* owner = OwnerKey(value);
    if (owner == nullptr || length <= owner->Field(NkField::MaxValueData)) return;
    owner->SetField(NkField::MaxValueData, length);
    owner->Save(hive);
}

Status ReplaceValue(Val* value, Hive* hive, std::uint32_t type, const std::uint8_t* data, std::uint32_t length) {
    const std::uint32_t cell = length > 4 ? WriteOutOfLine(hive, data, length) : 0;
    if (length > 4 && cell == 0) return Status::Of(StatusCode::NoRoom, "no room for the value's data");
    FreeValueData(value, hive);
    value->record.SetU32(VkField::Type, type);
    if (length > 4) {
        value->record.SetU32(VkField::DataLength, length);
        value->record.SetU32(VkField::DataCell, cell);
    } else {
        std::uint8_t inlined[4] = {};
        if (length != 0) std::memcpy(inlined, data, length);
        value->record.SetU32(VkField::DataLength, kInlineData + length);
        value->record.SetU32(VkField::DataCell, LoadU32(inlined));
    }
    value->Save(hive);
    UpdateMaxValueData(value, hive, length);
    return Status::Success();
}

bool SetValueData(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    if (value->DataLength() >= kInlineData) return SetInline(value, hive, data, length);
    if (length > value->DataLength()) return Grow(value, hive, data, length);
    return Shrink(value, hive, data, length);
}

}  // namespace Tamvik
