#include "nodes/Val.h"

#include <algorithm>
#include <cstring>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Scan.h"
#include "store/Hive.h"

namespace Tamvik {

Val::Val(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_, std::uint32_t bufferSize_,
         std::uint32_t payloadOffset)
    : Node(NodeClass::Value, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

bool NarrowValueName(const RecordRef& record) { return (record.U16(VkField::Flags) & VkField::NarrowNameFlag) != 0; }

bool Val::NarrowName() const { return NarrowValueName(record); }

std::optional<bool> ValueNameMatchesAt(Hive* hive, std::uint32_t cellOffset, std::u16string_view upper) {
    const std::optional<ImageCell> cell = ImageCellOf(hive, cellOffset, NodeClass::Value);
    if (!cell) return std::nullopt;
    const RecordRef record = cell->Record();
    return RecordNameMatches(record, VkField::NameLength, VkField::Name, NarrowValueName(record), upper);
}

WString Val::GetName() const { return RecordName(record, VkField::NameLength, VkField::Name, NarrowName()); }

std::size_t Val::NameInto(NameTarget target) const {
    return RecordNameInto(record, VkField::NameLength, VkField::Name, NarrowName(), target);
}

bool Val::NameMatches(std::u16string_view upper) const {
    return RecordNameMatches(record, VkField::NameLength, VkField::Name, NarrowName(), upper);
}

std::uint64_t Val::UpperNameHash() const {
    return RecordNameHash(record, VkField::NameLength, VkField::Name, NarrowName());
}

bool Val::DataFits(Hive* hive) const {
    constexpr std::uint32_t kLargeData = 16u << 20;  // below this, a read may simply fail
    const std::uint32_t length = StoredLength();
    if (IsInline() || length <= kLargeData) return true;
    const CellRef cell = hive->GetCell(DataCell());
    if (!cell.IsUsable()) return false;
    if (IsBigDataLength(hive->MinorVersion(), length))
        return (cell.word1 >> 16) >= SegmentsNeeded(length);  // the db's SegmentCount
    return cell.Magnitude() >= static_cast<std::uint64_t>(length) + 4;
}

bool Val::ReadData(Hive* hive, std::uint8_t* target, std::uint32_t capacity) {
    const std::uint32_t dataLength = DataLength();
    const std::uint32_t length = StoredLength();
    if (length > capacity) return false;
    if (dataLength >= kInlineData) {
        // The format holds at most 4 inline bytes: a longer claim reads only what DataCell holds.
        std::uint32_t available = std::min(record.Available(VkField::DataCell), kMaxInlineData);
        std::uint32_t copied = std::min(length, available);
        if (copied != 0) std::memcpy(target, record.Data() + VkField::DataCell, copied);
        return true;
    }
    if (IsBigDataLength(hive->MinorVersion(), length)) {
        const Transient<BigData> data(hive, DataCell(), this, CellKind::BigDataRecord);
        return data && data->Read(hive, target, length);
    }
    if (hive->Image() != nullptr) {
        // In memory the cell is read in place, as a Transient<MidData> would read it, without building one.
        std::uint32_t size = 0;
        const std::uint8_t* bytes = hive->UsableCellBytes(DataCell(), &size);
        // Read only: the record is never written.
        return bytes != nullptr &&
               MidData::ReadFrom(PayloadOf(const_cast<std::uint8_t*>(bytes), size, PayloadOffset(hive->MinorVersion())),
                                 target, length);
    }
    const Transient<MidData> data(hive, DataCell(), this, CellKind::PlainData);
    return data && data->Read(hive, target, length);
}

SubValList::SubValList(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_,
                       std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Node(NodeClass::ValueList, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

SubValList::~SubValList() {
    // The hive keeps only an index worth keeping (see ParkNames); most lists have none.
    if (names.scanned < Hive::kPositionsWorthParking) return;
    if (Hive* hive = NodeAs<Hive>(RootAbove())) hive->ParkNames(offset, true, std::move(names));
}

WString SubValList::GetName() const { return u"SubValList"; }

Node* SubValList::FindChild(Hive* hive, std::u16string_view name) {
    Key* owner = NodeAs<Key>(GetParent());
    if (owner == nullptr) return nullptr;
    const std::uint32_t count = owner->ValueCount();
    if (count == 0) return nullptr;
    const HashedName hashed{name, LookupHash::Of(name.data(), name.size())};
    const std::u16string_view wanted = hashed.name;
    if (child != nullptr && child->NameMatches(wanted)) return child.get();
    // Entries past the cell build nothing, so the scan ends as it would after them.
    const std::uint32_t limit = std::min(count, EntriesHeld());
    if (hive->Image() == nullptr) {
        return ScanLiterally(child, count, wanted, [&](std::uint32_t i) { return GetAt(hive, i); },
                             [&](std::uint64_t i) { return i >= limit; });
    }
    names.Refresh(hive->Generation());
    return ScanByName(
        child, names, count, limit, hashed, [&](std::uint32_t i) { return NameHashAt(hive, i); },
        [&](std::uint32_t i) {
            const std::optional<std::uint32_t> cell = EntryAt(i);
            if (!cell) return false;
            const Transient<Val> value(hive, *cell, this, CellKind::BySignature);
            return value && value->NameMatches(wanted);
        },
        [&](std::uint32_t i) { return GetAt(hive, i); });
}

std::optional<std::uint64_t> SubValList::NameHashAt(Hive* hive, std::uint32_t index) {
    const std::optional<std::uint32_t> cell = EntryAt(index);
    if (!cell) return std::nullopt;
    const Transient<Val> value(hive, *cell, this, CellKind::BySignature);
    if (!value) return std::nullopt;
    return value->UpperNameHash();
}

std::unique_ptr<Val> SubValList::GetAt(Hive* hive, std::uint32_t index) {
    const std::optional<std::uint32_t> cell = EntryAt(index);
    if (!cell) return nullptr;
    std::unique_ptr<Val> value = BuildNodeAt<Val>(hive, *cell, this, CellKind::BySignature);
    if (value != nullptr) value->index = index;
    return value;
}

}  // namespace Tamvik
