#include <algorithm>
#include <cstring>
#include <vector>

#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {
constexpr std::uint32_t kValueFixedSize = 24;  // size field and the fixed part of a vk
constexpr std::uint32_t kMaxValueEntries = 0x3FFFFFF0;

// After a failed data cell: the owner keeps its values. A list that moved holds
// them, with the new entry behind its count, so the owner is pointed at it.
void KeepValueList(Key* owner, Hive* hive, std::uint32_t oldList, std::uint32_t newList) {
    if (newList == oldList) return;
    owner->SetField(NkField::ValueListCell, newList);
    owner->Save(hive);
}
}  // namespace

bool NeedsBigData(Hive* hive, std::uint32_t length) { return IsBigDataLength(hive->MinorVersion(), length); }

void InitValueRecord(std::uint8_t* record, const std::string& name, const std::uint8_t* data, std::uint32_t type,
                     std::uint32_t length) {
    StoreU16(record + VkField::Signature, kVkSignature);
    StoreU16(record + VkField::NameLength, static_cast<std::uint16_t>(name.size()));
    if (length <= 4) {
        StoreU32(record + VkField::DataLength, kInlineData + length);
        if (length != 0) std::memcpy(record + VkField::DataCell, data, length);
    } else {
        StoreU32(record + VkField::DataLength, length);
        StoreU32(record + VkField::DataCell, 0);
    }
    StoreU32(record + VkField::Type, type);
    StoreU16(record + VkField::Flags, VkField::NarrowNameFlag);
    std::memcpy(record + VkField::Name, name.data(), name.size());
}

std::uint32_t WriteValueCell(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data,
                             std::uint32_t type, std::uint32_t length) {
    const std::size_t n = name.size();
    if (n == 0 || n > kMaxNameBytes) return 0;
    if (owner->record.U16(NkField::Signature) != kNkSignature) return 0;
    return CreateCell(hive, static_cast<std::uint32_t>(n) + kValueFixedSize,
                      [&](std::uint8_t* record, std::uint32_t) { InitValueRecord(record, name, data, type, length); });
}

std::uint32_t WriteValueList(Key* owner, Hive* hive, std::uint32_t valueCell) {
    const std::uint32_t count = owner->ValueCount();
    if (count >= kMaxValueEntries) return 0;
    const std::uint32_t asked = count * 4 + 4;
    if (count == 0) {
        return CreateCell(hive, asked, [&](std::uint8_t* record, std::uint32_t) { StoreU32(record, valueCell); });
    }
    std::unique_ptr<SubValList> list = owner->GetValueList(hive);
    if (list == nullptr || list->EntriesHeld() < count) return 0;
    // Unlike a subkey list, a value list stays only in a cell larger than it needs.
    CellPlan plan;
    const std::uint32_t capacity = list->GetBufferSize();
    const bool stays = static_cast<std::int32_t>(capacity) > static_cast<std::int32_t>(count * 4 + 8);
    if (!PlanListRewrite(hive, list->GetOffset(), capacity, stays, asked, plan)) return 0;
    std::vector<std::uint8_t> image(plan.imageLength);
    std::memcpy(image.data() + 4, list->record.Data(), static_cast<std::size_t>(count) * 4);
    StoreU32(image.data() + 4 + count * 4, valueCell);
    if (owner->valueList != nullptr) owner->carriedValueNames = owner->valueList->TakeNames();
    owner->valueList.reset();
    list.reset();
    WritePlannedCell(hive, plan, image.data());
    return plan.offset;
}

std::uint32_t WriteBigData(Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    const std::uint64_t segments = (static_cast<std::uint64_t>(length) + kSegmentSize - 1) / kSegmentSize;
    if (segments == 0 || segments > 0xFFFF) return 0;
    std::vector<std::uint32_t> cells;
    auto releaseAll = [&] {
        for (std::uint32_t cell : cells) FreeCellAt(hive, cell);
    };
    for (std::uint64_t i = 0; i < segments; ++i) {
        std::uint64_t start = i * kSegmentSize;
        auto chunk = static_cast<std::uint32_t>(std::min<std::uint64_t>(kSegmentSize, length - start));
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
    const auto count = static_cast<std::uint32_t>(segments);
    std::uint32_t list = CreateCell(hive, count * 4, [&](std::uint8_t* record, std::uint32_t) {
        for (std::uint32_t i = 0; i < count; ++i) StoreU32(record + 4 * i, cells[i]);
    });
    if (list == 0) {
        releaseAll();
        return 0;
    }
    std::uint32_t db = CreateCell(hive, DbField::Size, [&](std::uint8_t* record, std::uint32_t) {
        StoreU16(record + DbField::Signature, kDbSignature);
        StoreU16(record + DbField::SegmentCount, static_cast<std::uint16_t>(count));
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
// After a successful addition: the carried names learn the new last position.
void LearnAppendedName(Key* owner, Hive* hive, const std::string& name, std::uint32_t position) {
    if (!owner->carriedValueNames) return;
    NameIndex& names = *owner->carriedValueNames;
    // The entries before the new one stand where they stood, with their cells unchanged.
    names.Confirm(hive->Generation());
    if (names.scanned != position) return;
    const CaseMap& map = CurrentCaseMap();
    LookupHash hash;  // the name is stored narrow: a unit per byte
    for (const char byte : name) hash.Add(map.Upper(static_cast<unsigned char>(byte)));
    names.Add(hash.Value(), position);
    names.scanned = position + 1;
}
}  // namespace

bool AddValue(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data, std::uint32_t type,
              std::uint32_t length) {
    const bool added = AddValueCells(owner, hive, name, data, type, length);
    if (added) LearnAppendedName(owner, hive, name, owner->ValueCount() - 1);
    else owner->carriedValueNames.reset();
    return added;
}

bool AddValueCells(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data, std::uint32_t type,
                   std::uint32_t length) {
    const std::uint32_t count = owner->ValueCount();
    const std::uint32_t oldList = owner->Field(NkField::ValueListCell);
    std::uint32_t valueCell = 0;
    try {
        valueCell = WriteValueCell(owner, hive, name, data, type, length);
    } catch (...) {
        return false;  // no cell was written before the image could be had
    }
    if (valueCell == 0) return false;
    std::uint32_t listCell = 0;
    try {
        listCell = WriteValueList(owner, hive, valueCell);
    } catch (...) {
        listCell = 0;
    }
    if (listCell == 0) {
        FreeCellAt(hive, valueCell);
        return false;
    }
    if (length > 4) {
        std::uint32_t dataCell = NeedsBigData(hive, length) ? WriteBigData(hive, data, length)
                                                             : WriteDataCell(hive, data, length);
        if (dataCell == 0) {
            FreeCellAt(hive, valueCell);
            if (count == 0) FreeCellAt(hive, listCell);
            else KeepValueList(owner, hive, oldList, listCell);
            return false;
        }
        std::unique_ptr<Val> value = BuildNodeAt<Val>(hive, valueCell, owner, CellKind::BySignature);
        if (value == nullptr) {
            if (count != 0) KeepValueList(owner, hive, oldList, listCell);
            return false;
        }
        value->record.SetU32(VkField::DataCell, dataCell);
        value->Save(hive);
    }
    std::uint32_t newCount = count + 1;
    owner->SetField(NkField::ValueCount, newCount);
    if (newCount == 0) {
        owner->SetField(NkField::ValueListCell, kNoCell);
        owner->SetField(NkField::MaxValueName, 0);
        owner->SetField(NkField::MaxValueData, 0);
    }
    owner->SetField(NkField::ValueListCell, listCell);
    const auto n = static_cast<std::uint32_t>(name.size());
    if (((owner->Field(NkField::MaxValueName) & 0xFFFF) >> 1) < n) owner->SetField(NkField::MaxValueName, n * 2);
    if (owner->Field(NkField::MaxValueData) < length) owner->SetField(NkField::MaxValueData, length);
    owner->Save(hive);
    return true;
}

}  // namespace Tamvik
