#include <algorithm>
#include <cstring>
#include <vector>

#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {

// As for keys: the exported functions' records are asked 4 bytes more than they need.
std::uint32_t RecordSlack(Caller caller) { return caller == Caller::Exported ? 4 : 0; }

// After a failed data cell: the owner keeps its values. A list that moved holds
// them, with the new entry behind its count, so the owner is pointed at it.
void KeepValueList(Key* owner, Hive* hive, std::uint32_t oldList, std::uint32_t newList) {
    if (newList == oldList) return;
    owner->SetField(NkField::ValueListCell, newList);
    owner->Save(hive);
}

void InitValueRecord(std::uint8_t* record, const NewName& name, const std::uint8_t* data, std::uint32_t type,
                     std::uint32_t length) {
    StoreU16(record + VkField::Signature, kVkSignature);
    StoreU16(record + VkField::NameLength, static_cast<std::uint16_t>(name.bytes.size()));
    if (length <= 4) {
        StoreU32(record + VkField::DataLength, kInlineData + length);
        if (length != 0) std::memcpy(record + VkField::DataCell, data, length);
    } else {
        StoreU32(record + VkField::DataLength, length);
        StoreU32(record + VkField::DataCell, 0);
    }
    StoreU32(record + VkField::Type, type);
    StoreU16(record + VkField::Flags, name.compressed ? VkField::NarrowNameFlag : 0);
    std::memcpy(record + VkField::Name, name.bytes.data(), name.bytes.size());
}

// Writes the new vk's data cell field, when its cell still holds a vk.
bool PointValueAtData(Hive* hive, Key* owner, std::uint32_t valueCell, std::uint32_t dataCell) {
    if (hive->Image() != nullptr) {
        // In memory the field alone is written: the rest of the record is as it was just made.
        const std::optional<ImageCell> cell = ImageCellOf(hive, valueCell, NodeClass::Value);
        if (!cell) return false;
        WriteRecordField(hive, valueCell, *cell, VkField::DataCell, dataCell);
        return true;
    }
    std::unique_ptr<Val> value = BuildNodeAt<Val>(hive, valueCell, owner, CellKind::BySignature);
    if (value == nullptr) return false;
    value->record.SetU32(VkField::DataCell, dataCell);
    value->Save(hive);
    return true;
}

}  // namespace

bool NeedsBigData(Hive* hive, std::uint32_t length) { return IsBigDataLength(hive->MinorVersion(), length); }

std::uint32_t WriteOutOfLine(Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    return NeedsBigData(hive, length) ? WriteBigData(hive, data, length) : WriteDataCell(hive, data, length);
}

std::uint32_t AppendValueEntry(Key* owner, Hive* hive, std::uint32_t valueCell, Caller caller) {
    const std::uint32_t count = owner->ValueCount();
    if (count >= kMaxValueEntries) return 0;
    const std::uint32_t asked = AskedValueList(count, caller);
    if (count == 0) {
        return CreateCell(hive, asked, [&](std::uint8_t* record, std::uint32_t) { StoreU32(record, valueCell); });
    }
    if (caller == Caller::Internal) {
        // A cell with room for the entry takes just those four bytes, where
        // the exported functions write the whole list again.
        const std::uint32_t listCell = owner->Field(NkField::ValueListCell);
        std::uint32_t size = 0;
        if (hive->UsableCellBytes(listCell, &size) != nullptr && ValueListStays(size, count, caller)) {
            std::uint8_t entry[4];
            StoreU32(entry, valueCell);
            owner->ListChanged(Key::ListChange::ValueAppending);
            hive->WriteCell(listCell + kCellSizeField + count * 4, entry, sizeof entry);
            return listCell;
        }
    }
    std::unique_ptr<SubValList> list = owner->GetValueList(hive);
    if (list == nullptr || list->EntriesHeld() < count) return 0;
    CellPlan plan;
    const std::uint32_t capacity = list->GetBufferSize();
    if (!PlanListRewrite(hive, list->GetOffset(), capacity, ValueListStays(capacity, count, caller), asked, plan)) return 0;
    std::vector<std::uint8_t> image(plan.imageLength);
    std::memcpy(image.data() + 4, list->record.Data(), static_cast<std::size_t>(count) * 4);
    StoreU32(image.data() + 4 + count * 4, valueCell);
    owner->ListChanged(Key::ListChange::ValueAppending);
    list.reset();
    WritePlannedCell(hive, plan, image.data());
    return plan.offset;
}

std::uint32_t WriteBigData(Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    const std::uint32_t segments = SegmentsNeeded(length);
    if (segments == 0 || segments > 0xFFFF) return 0;  // SegmentCount has 16 bits
    std::vector<std::uint32_t> cells;
    auto releaseAll = [&] {
        for (std::uint32_t cell : cells) FreeCellAt(hive, cell);
    };
    for (std::uint32_t i = 0; i < segments; ++i) {
        const std::uint64_t start = std::uint64_t{i} * kSegmentSize;
        const std::uint32_t chunk = SegmentShare(length, i);
        // Every segment gets a cell of the full segment size, the last one too,
        // as hives written by the system itself have them; readers that take a
        // segment's length from its cell size then read the last one right.
        std::uint32_t cell = CreateCell(hive, kSegmentSize, [&](std::uint8_t* record, std::uint32_t) {
            std::memcpy(record, data + start, chunk);
        });
        if (cell == 0) {
            releaseAll();
            return 0;
        }
        cells.push_back(cell);
    }
    std::uint32_t list = CreateCell(hive, segments * 4, [&](std::uint8_t* record, std::uint32_t) {
        for (std::uint32_t i = 0; i < segments; ++i) StoreU32(record + 4 * i, cells[i]);
    });
    if (list == 0) {
        releaseAll();
        return 0;
    }
    std::uint32_t db = CreateCell(hive, DbField::Size, [&](std::uint8_t* record, std::uint32_t) {
        StoreU16(record + DbField::Signature, kDbSignature);
        StoreU16(record + DbField::SegmentCount, static_cast<std::uint16_t>(segments));
        StoreU32(record + DbField::SegmentListCell, list);
    });
    if (db == 0) {
        FreeCellAt(hive, list);
        releaseAll();
        return 0;
    }
    return db;
}

namespace {
Status AddValueCells(Key* owner, Hive* hive, const NewName& name, std::uint32_t type, const std::uint8_t* data,
                     std::uint32_t length, Caller caller) {
    const std::uint64_t where = owner->GetOffset() + std::uint64_t{kBaseBlockSize};
    if (name.bytes.size() > kMaxNameBytes) return Status::Of(StatusCode::Invalid, "the name is longer than a record holds");
    if (owner->record.U16(NkField::Signature) != kNkSignature)
        return Status::Of(StatusCode::Damaged, "the key's cell holds no nk record", where);
    const std::uint32_t count = owner->ValueCount();
    const std::uint32_t oldList = owner->Field(NkField::ValueListCell);
    // The internal API writes data that fits one cell first, so that the vk
    // names that cell as it is written, with no second write of the vk.
    const bool dataFirst = caller == Caller::Internal && length > 4 && !NeedsBigData(hive, length);
    std::uint32_t dataCell = 0;
    if (dataFirst) {
        try {
            dataCell = WriteDataCell(hive, data, length);
        } catch (...) {
            return Status::Of(StatusCode::NoMemory, "no memory for the value's data");  // nothing was written
        }
        if (dataCell == 0) return Status::Of(StatusCode::NoRoom, "no room for the value's data");
    }
    const auto dropData = [&] {
        if (dataFirst) FreeCellAt(hive, dataCell);
    };
    std::uint32_t valueCell = 0;
    try {
        valueCell = CreateCell(hive, VkField::Name + static_cast<std::uint32_t>(name.bytes.size()) + RecordSlack(caller),
                               [&](std::uint8_t* record, std::uint32_t) {
                                   InitValueRecord(record, name, data, type, length);
                                   if (dataFirst) StoreU32(record + VkField::DataCell, dataCell);
                               });
    } catch (...) {
        dropData();
        return Status::Of(StatusCode::NoMemory, "no memory for the value's cell");
    }
    if (valueCell == 0) {
        dropData();
        return Status::Of(StatusCode::NoRoom, "no room for the value's cell");
    }
    std::uint32_t listCell = 0;
    try {
        listCell = AppendValueEntry(owner, hive, valueCell, caller);
    } catch (...) {
        listCell = 0;
    }
    if (listCell == 0) {
        FreeCellAt(hive, valueCell);
        dropData();
        return Status::Of(StatusCode::Damaged, "the value list can't take the new value", where);
    }
    if (length > 4 && !dataFirst) {
        dataCell = WriteOutOfLine(hive, data, length);
        if (dataCell == 0) {
            FreeCellAt(hive, valueCell);
            if (count == 0) FreeCellAt(hive, listCell);
            else KeepValueList(owner, hive, oldList, listCell);
            return Status::Of(StatusCode::NoRoom, "no room for the value's data");
        }
        if (!PointValueAtData(hive, owner, valueCell, dataCell)) {
            if (count != 0) KeepValueList(owner, hive, oldList, listCell);
            return Status::Of(StatusCode::Damaged, "the new value's cell can't be read back");
        }
    }
    owner->SetField(NkField::ValueCount, count + 1);
    owner->SetField(NkField::ValueListCell, listCell);
    owner->RaiseMaxName(NkField::MaxValueName, name.Units());
    if (owner->Field(NkField::MaxValueData) < length) owner->SetField(NkField::MaxValueData, length);
    owner->Save(hive);
    return Status::Success();
}
}  // namespace

Status AddValue(Key* owner, Hive* hive, const NewName& name, std::uint32_t type, const std::uint8_t* data,
                std::uint32_t length, Caller caller) {
    Status added = AddValueCells(owner, hive, name, type, data, length, caller);
    if (added) owner->ListChanged(Key::ListChange::ValueAppended, hive->Generation(), name.units);
    else owner->ListChanged(Key::ListChange::ValueAppendFailed);
    return added;
}

}  // namespace Tamvik
