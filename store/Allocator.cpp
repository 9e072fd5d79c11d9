#include "store/Allocator.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "store/BinWalk.h"
#include "store/ByteOrder.h"
#include "store/Platform.h"

namespace Tamvik {

namespace {

// Largest asked size whose cell size still fits the signed 32 bits of CellSize.
constexpr std::uint32_t kMaxAskedSize = 0x7FFFFFF0u - 12;

// Room for the bytes of one cell or bin on their way to the hive: on the
// stack when they fit, as nearly all do, so that a write allocates nothing.
// Null when a large one can't be had.
template <std::size_t kInline>
class Scratch {
public:
    explicit Scratch(std::uint64_t length) {
        if (length <= kInline) {
            data_ = inline_;
        } else {
            // nothrow: bytes that can't be had are a failed write, not an exception.
            heap_.reset(new (std::nothrow) std::uint8_t[length]);
            data_ = heap_.get();
        }
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    std::uint8_t* get() const { return data_; }

private:
    alignas(8) std::uint8_t inline_[kInline];
    std::unique_ptr<std::uint8_t[]> heap_;
    std::uint8_t* data_ = nullptr;
};
constexpr std::size_t kInlineCell = 8192;  // a bin of two pages, and any cell it can hold

// Writes back the 12 header bytes of a cell as they stand in its CellRef.
void WriteCellHeader(Hive* hive, const CellRef& cell) {
    std::uint8_t head[12];
    StoreI32(head, cell.size);
    StoreU32(head + 4, cell.word1);
    StoreU32(head + 8, cell.word2);
    hive->WriteArea(cell.offset, head, sizeof head);
}

void WriteSizeField(Hive* hive, std::uint32_t cellOffset, std::int32_t size) {
    std::uint8_t field[4];
    StoreI32(field, size);
    hive->WriteArea(cellOffset, field, sizeof field);
}

// Size of the bin AppendBin makes for a need: a multiple of 4096 that holds need + 32.
std::uint64_t BinSizeFor(std::uint32_t need) {
    std::int64_t d = static_cast<std::int64_t>(static_cast<std::int32_t>(need)) - 4064;
    if (d <= 0) return 4096;
    if (d % 4096 == 0) return static_cast<std::uint64_t>(d) + 4096;
    return static_cast<std::uint64_t>(d / 4096 + 2) * 4096;
}

}  // namespace

std::uint32_t NeedFor(std::uint32_t askedSize) {
    if (askedSize > kMaxAskedSize) return 0;
    return (askedSize + 4 + 7) & ~7u;
}

std::uint32_t FindFreeCell(Hive* hive, std::uint32_t& size, std::uint32_t& found) {
    const std::uint32_t need = NeedFor(size);
    size = need;
    if (need == 0) return 0;
    const std::uint32_t binsSize = hive->BinsSize();
    if (hive->Bins() != nullptr) return hive->Bins()->FindFree(binsSize, need, found);
    // On a volume, the walk itself: the device sees every bin read.
    for (BinWalk bins(binsSize); bins.More();) {
        BinRef bin = hive->GetBin(bins.At());
        // The search ends at the first bin it can't take: no bin, an empty
        // one, or a header that names another place than the walk stands on.
        if (!bin.IsValid() || bin.Signature() != kHbinSignature || bin.BinSize() == 0) return 0;
        if (bin.BinOffset() != bins.At()) return 0;
        const std::uint32_t binSize = bin.BinSize();
        std::unique_ptr<std::uint8_t[]> image = hive->ReadAreaBlock(bin.BinOffset(), binSize);
        if (image == nullptr) return 0;
        // A bin too short to hold its own size field holds no cells either.
        const std::uint32_t limit =
            binSize < BinField::BinSize + 4 ? binSize : std::min(LoadU32(image.get() + BinField::BinSize), binSize);
        for (CellWalk cells(0, limit); cells.More();) {
            const std::int32_t cellSize = cells.SizeIn(image.get());
            const std::uint32_t magnitude = CellMagnitude(cellSize);
            // Only a free cell that ends inside the bin is taken.
            if (cellSize > 0 && magnitude >= need && cells.Fits(cellSize) && RestIsUsable(magnitude - need)) {
                found = magnitude;
                return static_cast<std::uint32_t>(bins.At() + cells.At());
            }
            cells.Next(cellSize);
        }
        bins.Next(binSize);
    }
    return 0;
}

namespace {
// The size of the bin AppendBin makes for need at the end of the bins; 0 when
// the hive can't grow by it.
std::uint32_t GrowthFor(Hive* hive, std::uint32_t need) {
    const std::uint64_t binSize = std::max<std::uint64_t>(BinSizeFor(need), hive->NewBinFloor());
    if (binSize > 0x7FFFF000u || hive->BinsSize() + binSize > 0xFFFFFFFFull - kBaseBlockSize) return 0;
    return static_cast<std::uint32_t>(binSize);
}

// The header of that bin and the size field of its one free cell, in the
// first kNewBinHead bytes of image; what lies behind is the caller's.
constexpr std::uint32_t kNewBinHead = kBinHeaderSize + kCellSizeField;
void NewBinImage(std::uint32_t binOffset, std::uint32_t binSize, std::uint8_t* image) {
    std::memset(image, 0, kNewBinHead);
    StoreU32(image + BinField::Signature, kHbinSignature);
    StoreU32(image + BinField::BinOffset, binOffset);
    StoreU32(image + BinField::BinSize, binSize);
    StoreU64(image + BinField::Timestamp, static_cast<std::uint64_t>(Time64()));
    StoreI32(image + kBinHeaderSize, static_cast<std::int32_t>(binSize - kBinHeaderSize));
}
}  // namespace

std::uint32_t AppendBin(Hive* hive, std::uint32_t need, std::uint32_t& found) {
    const std::uint32_t binsSize = hive->BinsSize(), binSize = GrowthFor(hive, need);
    if (binSize == 0) return 0;
    std::uint8_t head[kNewBinHead];
    NewBinImage(binsSize, binSize, head);
    if (!hive->WriteNewBin(binsSize, head, sizeof head, binSize)) return 0;
    found = binSize - kBinHeaderSize;
    hive->SetBinsSize(binsSize + binSize);
    hive->WriteBaseBlock();
    return binsSize + kBinHeaderSize;
}

CellRef NextCell(const BinRef& bin, Hive* hive, const CellRef& cell) {
    std::uint32_t step = cell.Magnitude();
    if (step == 0) return CellRef();
    std::uint64_t next = static_cast<std::uint64_t>(cell.offset) + step;
    if (next < bin.BinOffset() || next - bin.BinOffset() >= bin.BinSize() || next >= kNoCell) return CellRef();
    return hive->GetCell(static_cast<std::uint32_t>(next));
}

CellRef PrevCell(const BinRef& bin, Hive* hive, const CellRef& cell) {
    if (HasCellBackLinks(hive->MinorVersion())) {
        if (cell.word1 == kNoCell) return CellRef();
        std::uint64_t at = static_cast<std::uint64_t>(bin.BinOffset()) + cell.word1;
        if (at >= cell.offset) return CellRef();
        CellRef prev = hive->GetCell(static_cast<std::uint32_t>(at));
        // Only a link to the direct neighbour is followed.
        if (prev.IsValid() && static_cast<std::uint64_t>(prev.offset) + prev.Magnitude() != cell.offset)
            return CellRef();
        return prev;
    }
    // The cells in front of this one, up to the one that ends where it starts.
    // In memory the walk reads the size fields where they lie and builds a
    // CellRef only for the cell it gives; GetCell's checks are made all the same.
    const std::uint32_t binOffset = bin.BinOffset();
    const std::uint8_t* bytes =
        cell.offset >= binOffset ? hive->AreaBytes(binOffset, cell.offset - binOffset + kCellHeaderRead) : nullptr;
    if (bytes != nullptr) {
        const std::uint32_t binsSize = hive->BinsSize();
        // Every cell the walk stands on lies before this one: when this one is
        // in range, they all are, and only their alignment is left to check.
        const bool inRange = cell.offset <= binsSize && cell.offset <= kMaxAreaOffset;
        // The index knows cells of the walk (aligned, in range): it may start at the last one in front.
        const std::uint32_t known = inRange && hive->Bins() != nullptr ? hive->Bins()->RunCellBefore(binsSize, binOffset, cell.offset) : 0;
        const std::uint32_t from = known > binOffset && known < cell.offset ? known - binOffset - kBinHeaderSize : 0;
        for (CellWalk cells(from, cell.offset - binOffset); cells.More();) {
            const std::uint64_t at = binOffset + cells.At();
            if ((!inRange && (at >= binsSize || at > kMaxAreaOffset)) || at % kCellAlignment != 0) return CellRef();
            const std::int32_t size = cells.SizeIn(bytes);
            const std::uint64_t end = at + CellMagnitude(size);
            if (end == cell.offset) return hive->GetCell(static_cast<std::uint32_t>(at));
            if (end > cell.offset) return CellRef();
            cells.Next(size);
        }
        return CellRef();
    }
    for (CellWalk cells(bin.BinOffset(), cell.offset); cells.More();) {
        CellRef walk = hive->GetCell(static_cast<std::uint32_t>(cells.At()));
        if (!walk.IsValid()) return CellRef();
        const std::uint64_t end = cells.At() + walk.Magnitude();
        if (end == cell.offset) return walk;
        if (end > cell.offset) return CellRef();
        cells.Next(walk.size);
    }
    return CellRef();
}

void FreeCell(CellRef& cell, Hive* hive) {
    if (!cell.IsValid()) return;
    // The two words behind the size go back to the file with the header: take
    // them as the file holds them now. A ref read before other cells were
    // written can hold stale ones, and in an 8-byte cell the second word is the
    // next cell's size field, which a new cell behind may have changed since.
    if (CellRef fresh = hive->GetCell(cell.offset); fresh.IsValid()) {
        cell.word1 = fresh.word1;
        cell.word2 = fresh.word2;
    }
    std::uint32_t size = cell.Magnitude();
    BinRef bin = hive->FindBin(cell);
    if (bin.IsValid()) {
        const std::uint64_t binEnd = static_cast<std::uint64_t>(bin.BinOffset()) + bin.BinSize();
        const bool linked = HasCellBackLinks(hive->MinorVersion());
        CellRef next = NextCell(bin, hive, cell);
        if (next.IsValid() && next.size > 0 && static_cast<std::uint64_t>(next.offset) + next.Magnitude() <= binEnd) {
            if (linked && static_cast<std::uint64_t>(next.offset) + next.Magnitude() < binEnd) {
                CellRef after = NextCell(bin, hive, next);
                if (after.IsValid()) {
                    after.word1 = cell.offset - bin.BinOffset();
                    WriteCellHeader(hive, after);
                }
            }
            size += next.Magnitude();
        }
        CellRef prev = PrevCell(bin, hive, cell);
        if (prev.IsValid() && prev.size > 0) {
            if (linked && static_cast<std::uint64_t>(cell.offset) + size < binEnd) {
                CellRef behind = hive->GetCell(cell.offset + size);
                if (behind.IsValid()) {
                    behind.word1 = prev.offset - bin.BinOffset();
                    WriteCellHeader(hive, behind);
                }
            }
            prev.size = static_cast<std::int32_t>(prev.Magnitude() + size);
            WriteCellHeader(hive, prev);
        }
    }
    // The cell's own header goes last, also when it now lies inside the preceding cell.
    cell.size = static_cast<std::int32_t>(size);
    WriteCellHeader(hive, cell);
    cell.Invalidate();
}

void FreeCellAt(Hive* hive, std::uint32_t cellOffset) {
    CellRef cell = hive->GetCell(cellOffset);
    if (cell.IsUsable()) FreeCell(cell, hive);
}

namespace {

// The remainder rule: a cell of need bytes at offset, in a free cell of found bytes.
void Lay(std::uint32_t offset, std::uint32_t need, std::uint32_t found, CellPlan& plan) {
    const std::uint32_t rest = found - need;
    plan.offset = offset;
    if (rest == 0) {
        plan.cellSize = need;
        plan.imageLength = need;
        plan.remainder = 0;
    } else if (rest == 4) {
        plan.cellSize = need + 4;
        plan.imageLength = need + 4;
        plan.remainder = 0;
    } else {
        plan.cellSize = need;
        plan.imageLength = need + 4;
        plan.remainder = rest;
    }
}

void StoreSizeFields(const CellPlan& plan, std::uint8_t* image) {
    StoreI32(image, -static_cast<std::int32_t>(plan.cellSize));
    if (plan.remainder != 0) StoreI32(image + plan.cellSize, static_cast<std::int32_t>(plan.remainder));
}

// A new cell of the asked size, its bytes behind the size field put there by
// fill(record, capacity) in a zero-filled image: in the first free cell that
// serves, else in a new bin. In memory the new bin goes to the file with the
// cell already in it, in one write, where it would otherwise be written
// empty and the cell copied in after it: the bytes are the same. A record
// given as direct bytes (all of the record but the zeros behind it) goes to a
// free cell of a hive in memory straight from the caller's buffer.
std::uint32_t PlaceCell(Hive* hive, std::uint32_t askedSize, const RecordFiller& fill,
                        const std::uint8_t* direct = nullptr) {
    // Cells made here carry no back link, so a hive of the second layout can't take them.
    if (HasCellBackLinks(hive->MinorVersion())) return 0;
    std::uint32_t need = askedSize, found = 0;
    std::uint32_t offset = FindFreeCell(hive, need, found);
    if (need == 0) return 0;
    CellPlan plan;
    if (offset == 0 && hive->Image() != nullptr) {
        const std::uint32_t binsSize = hive->BinsSize(), binSize = GrowthFor(hive, need);
        if (binSize == 0) return 0;
        Lay(binsSize + kBinHeaderSize, need, binSize - kBinHeaderSize, plan);
        // The bin's header and the new cell (with the rest's size field): the zeros behind are the file's already.
        const std::uint32_t headLength = kBinHeaderSize + plan.imageLength;
        Scratch<kInlineCell> bin(headLength);
        if (bin.get() == nullptr) return 0;
        NewBinImage(binsSize, binSize, bin.get());
        std::uint8_t* image = bin.get() + kBinHeaderSize;
        std::uint8_t* record = image + kCellSizeField;
        const std::uint32_t capacity = plan.cellSize - kCellSizeField;
        if (direct != nullptr) {
            // The record's bytes, then zeros: nothing is cleared that is copied over.
            std::memcpy(record, direct, askedSize);
            std::memset(record + askedSize, 0, plan.imageLength - kCellSizeField - askedSize);
        } else {
            std::memset(record, 0, plan.imageLength - kCellSizeField);
            if (fill) fill(record, capacity);
        }
        StoreSizeFields(plan, image);
        if (!hive->WriteNewBin(binsSize, bin.get(), headLength, binSize)) return 0;
        hive->SetBinsSize(binsSize + binSize);
        hive->WriteBaseBlock();
        return plan.offset;
    }
    if (offset == 0) offset = AppendBin(hive, need, found);
    if (offset == 0) return 0;
    Lay(offset, need, found, plan);
    // Behind a direct record: zeros to the cell's end and the rest's size field, a few bytes.
    std::uint8_t tail[16] = {};
    const std::uint32_t tailFrom = kCellSizeField + askedSize;
    if (direct != nullptr && hive->Image() != nullptr && plan.imageLength - tailFrom <= sizeof tail) {
        std::uint8_t head[kCellSizeField];
        StoreI32(head, -static_cast<std::int32_t>(plan.cellSize));
        if (plan.remainder != 0) StoreI32(tail + (plan.cellSize - tailFrom), static_cast<std::int32_t>(plan.remainder));
        hive->WriteBaseBlock();
        hive->WriteArea(offset, head, kCellSizeField);
        hive->WriteArea(offset + kCellSizeField, direct, askedSize);
        if (plan.imageLength > tailFrom) hive->WriteArea(offset + tailFrom, tail, plan.imageLength - tailFrom);
        return offset;
    }
    Scratch<kInlineCell> image(plan.imageLength);
    if (image.get() == nullptr) return 0;
    std::memset(image.get(), 0, plan.imageLength);
    if (fill) fill(image.get() + kCellSizeField, plan.cellSize - kCellSizeField);
    WritePlannedCell(hive, plan, image.get());
    return plan.offset;
}

}  // namespace

bool PlanCell(Hive* hive, std::uint32_t askedSize, CellPlan& plan) {
    // Cells made here carry no back link, so a hive of the second layout can't take them.
    if (HasCellBackLinks(hive->MinorVersion())) return false;
    std::uint32_t need = askedSize;
    std::uint32_t found = 0;
    std::uint32_t offset = FindFreeCell(hive, need, found);
    if (need == 0) return false;
    if (offset == 0) offset = AppendBin(hive, need, found);
    if (offset == 0) return false;
    Lay(offset, need, found, plan);
    return true;
}

void WritePlannedCell(Hive* hive, const CellPlan& plan, std::uint8_t* image) {
    StoreSizeFields(plan, image);
    hive->WriteCell(plan.offset, image, plan.imageLength);
}

std::uint32_t CreateCell(Hive* hive, std::uint32_t askedSize, const RecordFiller& fill) {
    return PlaceCell(hive, askedSize, fill);
}

std::uint32_t WriteDataCell(Hive* hive, const std::uint8_t* data, std::uint32_t length) {
    // Long data is written from where it lies rather than copied into an image first.
    constexpr std::uint32_t kDirectFrom = 256;
    return PlaceCell(
        hive, length,
        [&](std::uint8_t* record, std::uint32_t) {
            if (length != 0) std::memcpy(record, data, length);
        },
        length >= kDirectFrom ? data : nullptr);
}

bool PlanListRewrite(Hive* hive, std::uint32_t listCell, std::uint32_t capacity, bool stays, std::uint32_t askedSize,
                     CellPlan& plan) {
    if (stays) {
        plan.offset = listCell;
        plan.cellSize = capacity;
        plan.imageLength = capacity;
        plan.remainder = 0;
        return true;
    }
    CellRef old = hive->GetCell(listCell);
    if (!old.IsUsable()) return false;
    const std::uint32_t oldOffset = old.offset;
    const std::uint32_t oldSize = old.Magnitude();
    FreeCell(old, hive);
    if (PlanCell(hive, askedSize, plan)) return true;
    ReclaimCell(hive, oldOffset, oldSize);
    return false;
}

bool ReclaimCell(Hive* hive, std::uint32_t cellOffset, std::uint32_t cellSize) {
    CellRef probe;
    probe.offset = cellOffset;
    BinRef bin = hive->FindBin(probe);
    if (!bin.IsValid()) return false;
    const std::uint64_t binEnd = static_cast<std::uint64_t>(bin.BinOffset()) + bin.BinSize();
    // The cells of the bin up to the one that holds cellOffset.
    for (CellWalk cells(bin.BinOffset(), std::uint64_t{cellOffset} + kCellSizeField); cells.More();) {
        const std::uint64_t position = cells.At();
        CellRef walk = hive->GetCell(static_cast<std::uint32_t>(position));
        if (!walk.IsValid()) return false;
        std::uint64_t end = position + walk.Magnitude();
        if (end > cellOffset) {
            std::uint64_t cellEnd = static_cast<std::uint64_t>(cellOffset) + cellSize;
            if (walk.size < 0 || cellEnd > end || end > binEnd) return false;
            if (position < cellOffset)
                WriteSizeField(hive, walk.offset, static_cast<std::int32_t>(cellOffset - position));
            WriteSizeField(hive, cellOffset, -static_cast<std::int32_t>(cellSize));
            if (cellEnd < end)
                WriteSizeField(hive, static_cast<std::uint32_t>(cellEnd), static_cast<std::int32_t>(end - cellEnd));
            return true;
        }
        cells.Next(walk.size);
    }
    return false;
}

}  // namespace Tamvik
