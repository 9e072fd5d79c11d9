#include "nodes/Data.h"

#include <algorithm>
#include <cstring>

#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/Hive.h"

namespace Tamvik {

MidData::MidData(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_,
                 std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Data(NodeClass::PlainData, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

WString MidData::GetName() const { return u"MidData"; }

bool MidData::Read(Hive*, std::uint8_t* target, std::uint32_t length) { return ReadFrom(record, target, length); }

bool MidData::ReadFrom(const RecordRef& record, std::uint8_t* target, std::uint32_t length) {
    // A length beyond the cell is a damaged record: deliver what the cell holds and say so.
    std::uint32_t copied = std::min(length, record.Size());
    if (copied != 0) std::memcpy(target, record.Data(), copied);
    return copied == length;
}

bool MidData::Write(Hive*, const std::uint8_t* source, std::uint32_t length) {
    if (length > record.Size()) return false;
    if (length != 0) std::memcpy(record.Data(), source, length);
    return true;
}

void MidData::Free(Hive* hive) { FreeCellAt(hive, offset); }

BigData::BigData(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_,
                 std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Data(NodeClass::BigData, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

WString BigData::GetName() const { return u"BigData"; }

bool BigData::HasDbSignature() const {
    return record.Holds(0, DbField::Size) && record.U16(DbField::Signature) == kDbSignature;
}

std::unique_ptr<SubDatList> BigData::GetSegmentList(Hive* hive) {
    return BuildNodeAt<SubDatList>(hive, record.U32(DbField::SegmentListCell), this, CellKind::SegmentList);
}

bool BigData::Read(Hive* hive, std::uint8_t* target, std::uint32_t length) {
    std::unique_ptr<SubDatList> list = GetSegmentList(hive);
    if (list == nullptr) return false;
    std::uint32_t remaining = length;
    std::uint64_t position = 0;
    // A SegmentCount beyond what the list cell holds is cut to its entries.
    const std::uint32_t segments = std::min(SegmentCount(), list->EntriesHeld());
    // More segments than the length needs: the surplus is not read past length.
    for (std::uint32_t i = 0; i < segments && remaining != 0; ++i) {
        std::unique_ptr<MidData> segment = list->GetAt(hive, i);
        if (segment == nullptr) return false;
        std::uint32_t chunk = std::min(remaining, kSegmentSize);
        if (!segment->Read(hive, target + position, chunk)) return false;
        remaining -= chunk;
        position += chunk;
    }
    return true;
}

bool BigData::Write(Hive* hive, const std::uint8_t* source, std::uint32_t length) {
    std::unique_ptr<SubDatList> list = GetSegmentList(hive);
    if (list == nullptr) return false;
    const std::uint32_t oldCount = SegmentCount();
    const std::uint32_t newCount = SegmentsFor(length);
    for (std::uint32_t i = newCount; i < oldCount; ++i) {
        std::unique_ptr<MidData> segment = list->GetAt(hive, i);
        if (segment == nullptr) return false;
        segment->Free(hive);
    }
    if (newCount == 0) FreeCellAt(hive, list->GetOffset());
    record.SetU16(DbField::SegmentCount, static_cast<std::uint16_t>(newCount));
    if (newCount == 0) record.SetU32(DbField::SegmentListCell, kNoCell);
    for (std::uint32_t i = 0; i < newCount; ++i) {
        std::unique_ptr<MidData> segment = list->GetAt(hive, i);
        if (segment == nullptr) return false;
        const std::uint32_t chunk = SegmentShare(length, i);
        if (!segment->Write(hive, source + static_cast<std::uint64_t>(i) * kSegmentSize, chunk)) return false;
        segment->Save(hive);
    }
    Save(hive);
    return true;
}

void BigData::Free(Hive* hive) {
    std::unique_ptr<SubDatList> list = GetSegmentList(hive);
    if (list == nullptr) return;
    const std::uint32_t segments = std::min(SegmentCount(), list->EntriesHeld());
    for (std::uint32_t i = 0; i < segments; ++i) {
        std::unique_ptr<MidData> segment = list->GetAt(hive, i);
        if (segment == nullptr) return;
        segment->Free(hive);
    }
    FreeCellAt(hive, list->GetOffset());
    FreeCellAt(hive, offset);
}

SubDatList::SubDatList(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_,
                       std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Node(NodeClass::SegmentList, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

WString SubDatList::GetName() const { return u"SubDatList"; }

std::unique_ptr<MidData> SubDatList::GetAt(Hive* hive, std::uint32_t index) {
    const std::optional<std::uint32_t> cell = EntryAt(index);
    return cell ? BuildNodeAt<MidData>(hive, *cell, this, CellKind::PlainData) : nullptr;
}

}  // namespace Tamvik
