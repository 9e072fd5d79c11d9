#include "nodes/Val.h"

#include <algorithm>
#include <cstring>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Scan.h"
#include "store/Hive.h"

namespace Tamvik {

bool IsBigDataLength(std::uint32_t minorVersion, std::uint32_t dataLength) {
    return minorVersion >= 4 && dataLength >= kSegmentSize + 1 && dataLength <= 0x7FFFFFFF;
}

Val::Val(std::uint32_t offset_, Node* parent_, std::unique_ptr<std::uint8_t[]> buffer_, std::uint32_t bufferSize_,
         std::uint32_t payloadOffset)
    : Node(offset_, parent_, std::move(buffer_), bufferSize_),
      record(PayloadOf(buffer.get(), bufferSize_, payloadOffset)) {}

WString Val::GetName() const {
    bool narrow = (record.U16(VkField::Flags) & VkField::NarrowNameFlag) != 0;
    return RecordName(record, VkField::NameLength, VkField::Name, narrow);
}

bool Val::ReadData(Hive* hive, std::uint8_t* target, std::uint32_t capacity) {
    const std::uint32_t dataLength = DataLength();
    const std::uint32_t length = StoredLength();
    if (length > capacity) return false;
    if (dataLength >= kInlineData) {
        // The format holds at most 4 inline bytes: a longer claim reads only what DataCell holds.
        std::uint32_t available = std::min<std::uint32_t>(record.Available(VkField::DataCell), 4);
        std::uint32_t copied = std::min(length, available);
        if (copied != 0) std::memcpy(target, record.Data() + VkField::DataCell, copied);
        return true;
    }
    CellRef cell = hive->GetCell(DataCell());
    if (!cell.IsUsable()) return false;
    CellKind kind = IsBigDataLength(hive->MinorVersion(), length) ? CellKind::BigDataRecord : CellKind::PlainData;
    std::unique_ptr<Data> data = NarrowNode<Data>(MakeNode(cell, hive, this, kind));
    if (data == nullptr) return false;
    return data->Read(hive, target, length);
}

SubValList::SubValList(std::uint32_t offset_, Node* parent_, std::unique_ptr<std::uint8_t[]> buffer_,
                       std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Node(offset_, parent_, std::move(buffer_), bufferSize_),
      record(PayloadOf(buffer.get(), bufferSize_, payloadOffset)) {}

SubValList::~SubValList() = default;

WString SubValList::GetName() const { return u"SubValList"; }

Node* SubValList::FindChild(Hive* hive, const char16_t* name) {
    Key* owner = dynamic_cast<Key*>(GetParent());
    if (owner == nullptr) return nullptr;
    const std::uint32_t count = owner->ValueCount();
    if (count == 0) return nullptr;
    const WString wanted(name);
    if (child != nullptr && UpperCaseName(child->GetName()) == wanted) return child.get();
    // Entries past the cell build nothing, so the scan ends as it would after them.
    const std::uint32_t limit = std::min(count, EntriesHeld());
    if (hive->Image() == nullptr) {
        return ScanLiterally(child, count, wanted, [&](std::uint32_t i) { return GetAt(hive, i); },
                             [&](std::uint64_t i) { return i >= limit; });
    }
    names.Refresh();
    auto nameAt = [&](std::uint32_t i) -> std::optional<WString> {
        std::unique_ptr<Val> value = GetAt(hive, i);
        if (value == nullptr) return std::nullopt;
        return value->GetName();
    };
    return ScanByName(child, names, count, limit, wanted, nameAt, [&](std::uint32_t i) { return GetAt(hive, i); });
}

std::unique_ptr<Val> SubValList::GetAt(Hive* hive, std::uint32_t index) {
    if (index >= EntriesHeld()) return nullptr;
    std::unique_ptr<Val> value = BuildNodeAt<Val>(hive, record.U32(index * 4), this, CellKind::BySignature);
    if (value != nullptr) value->index = index;
    return value;
}

}  // namespace Tamvik
