#include "store/BinIndex.h"

#include <algorithm>

#include "store/BinWalk.h"
#include "store/ByteOrder.h"
#include "store/FileImage.h"
#include "store/Format.h"

namespace Tamvik {

bool BinIndex::Readable(std::uint64_t areaOffset, std::uint64_t length) const {
    // File positions are worked out in 32 bits, as the storage does.
    return areaOffset <= kMaxAreaOffset && image_.At(kBaseBlockSize + areaOffset, length) != nullptr;
}

void BinIndex::Extend(std::uint32_t binsSize) {
    // Nothing that ended a walk changed: the walks stand where they stood.
    if (built_ && binsSize == binsSize_ && image_.Size() == imageSize_) return;
    // A file that grew can make readable what ended a walk; a BinsSize that
    // fell would end it earlier. Either way the walks start again.
    if (built_ && (binsSize < binsSize_ || (image_.Size() != imageSize_ && endedAtFileEnd_))) built_ = false;
    if (!built_) {
        walk_.clear();
        binWalk_ = BinWalk();
        searchStopped_ = endedAtFileEnd_ = false;
        inOrder_ = true;
        searchable_ = placed_ = 0;
        stale_.clear();
        allocatedRun_.clear();
        runMapped_.clear();
        pageBin_.clear();
        pageCursor_ = 0;
        std::fill(runCells_.begin(), runCells_.end(), 0);
        built_ = true;
    }
    imageSize_ = image_.Size();
    binsSize_ = binsSize;
    binWalk_.ExtendTo(binsSize);
    // A bit for every 8 bytes the file holds: a searchable bin lies inside it.
    runCells_.resize(imageSize_ / kCellAlignment / 64 + 1, 0);
    while (binWalk_.More()) {
        const std::uint32_t at = binWalk_.At();
        // A header the file doesn't hold ends the walks here; a longer file starts them again.
        if (!Readable(at, kBinHeaderSize)) {
            endedAtFileEnd_ = true;
            break;
        }
        const BinHeader header = BinHeader::Decode(image_.At(kBaseBlockSize + std::uint64_t{at}, kBinHeaderSize));
        const Bin bin{at, header.binOffset, header.binSize};
        walk_.push_back(bin);
        inOrder_ = inOrder_ && bin.binOffset == bin.at;
        if (!searchStopped_) {
            // FindFreeCell's rule: its search ends at the first bin it can't take.
            const bool takes = header.signatureOk && bin.binSize != 0 && bin.binOffset == bin.at;
            if (takes && Readable(at, bin.binSize)) {
                ++searchable_;
                stale_.push_back(true);
                allocatedRun_.push_back(kBinHeaderSize);
                runMapped_.push_back(at % kCellAlignment == 0);
            } else {
                searchStopped_ = true;
                endedAtFileEnd_ = endedAtFileEnd_ || takes;
            }
        }
        binWalk_.Next(bin.binSize);
    }
    const std::uint64_t pages = std::min(binWalk_.Reached(), imageSize_ + kPage) / kPage;
    for (std::uint64_t page = pageBin_.size(); page < pages && !walk_.empty(); ++page) {
        while (pageCursor_ + 1 < walk_.size() && walk_[pageCursor_ + 1].at <= page * kPage) ++pageCursor_;
        pageBin_.push_back(static_cast<std::uint32_t>(pageCursor_));
    }
    if (placed_ == searchable_) return;
    if (leaves_ < searchable_) {
        std::size_t leaves = std::max<std::size_t>(leaves_, 64);
        while (leaves < searchable_) leaves *= 2;
        std::vector<std::uint32_t> tree(2 * leaves, 0);
        for (std::size_t i = 0; i < placed_; ++i) tree[leaves + i] = tree_[leaves_ + i];
        tree_ = std::move(tree);
        leaves_ = leaves;
        for (std::size_t i = leaves_ - 1; i > 0; --i) tree_[i] = std::max(tree_[2 * i], tree_[2 * i + 1]);
    }
    // New bins are looked at when a search first comes by.
    for (; placed_ < searchable_; ++placed_) Set(placed_, kVisit);
}

std::uint32_t BinIndex::Scan(std::size_t bin, std::uint32_t need, std::uint32_t& found, std::uint32_t& summary) {
    const Bin& b = walk_[bin];
    const std::uint8_t* bytes = image_.At(kBaseBlockSize + b.at, b.binSize);
    summary = 0;
    // The walk takes up where its allocated run ended: the cells in front can serve no need.
    bool run = true;
    for (CellWalk cells(allocatedRun_[bin] - kBinHeaderSize, b.binSize); cells.More();) {
        const std::int32_t size = cells.SizeIn(bytes);
        const std::uint32_t magnitude = CellMagnitude(size);
        if (run && size >= 0) {
            run = false;
            allocatedRun_[bin] = static_cast<std::uint32_t>(cells.At());
        }
        if (run) MarkRunCell(bin, b.at + cells.At());
        if (size > 0 && cells.Fits(size)) {
            if (magnitude >= need && RestIsUsable(magnitude - need)) {
                found = magnitude;
                return static_cast<std::uint32_t>(b.at + cells.At());
            }
            // Free cells of other sizes than whole multiples of 8 only a walk can judge.
            if (magnitude % kCellAlignment != 0) summary = kVisit;
            if (summary != kVisit) summary = std::max(summary, magnitude);
        }
        cells.Next(size);
        if (run)
            allocatedRun_[bin] = static_cast<std::uint32_t>(std::min<std::uint64_t>(cells.At(), b.binSize));
        else
            cells.SkipAllocated(bytes);  // past the run only free cells are judged
    }
    return 0;
}

void BinIndex::ForgetRun(std::size_t bin) {
    allocatedRun_[bin] = kBinHeaderSize;
    const Bin& b = walk_[bin];
    runMapped_[bin] = b.at % kCellAlignment == 0;
    ClearRunBits(bin, b.at / kCellAlignment);
}

void BinIndex::ClearRunBits(std::size_t bin, std::uint64_t fromUnit) {
    // The bin's own bits only: a neighbour's run keeps its cells.
    const Bin& b = walk_[bin];
    const std::uint64_t last = std::min<std::uint64_t>((std::uint64_t{b.at} + b.binSize) / kCellAlignment, runCells_.size() * 64);
    for (std::uint64_t unit = fromUnit; unit < last;) {
        // The units [unit, to) of one word.
        const std::uint64_t to = std::min(last, (unit / 64 + 1) * 64);
        const std::uint64_t width = to - unit;
        const std::uint64_t bits = width == 64 ? ~std::uint64_t{0} : ((std::uint64_t{1} << width) - 1) << (unit % 64);
        runCells_[unit / 64] &= ~bits;
        unit = to;
    }
}

void BinIndex::CutRun(std::size_t bin, std::uint64_t areaOffset) {
    const Bin& b = walk_[bin];
    if (!runMapped_[bin] || areaOffset < std::uint64_t{b.at} + kBinHeaderSize) return ForgetRun(bin);
    // The walk is the same up to the first cell of the run whose size field
    // the write may have reached (one from areaOffset - 3 on): the run ends there.
    const std::uint64_t runEnd = std::uint64_t{b.at} + allocatedRun_[bin];
    const std::uint64_t limit = std::min<std::uint64_t>((runEnd + kCellAlignment - 1) / kCellAlignment, runCells_.size() * 64);
    const std::uint64_t cut = NextRunCell((areaOffset + kCellAlignment - kCellSizeField) / kCellAlignment, limit);
    if (cut == limit) return;
    allocatedRun_[bin] = static_cast<std::uint32_t>(cut * kCellAlignment - b.at);
    ClearRunBits(bin, cut);
}

void BinIndex::MarkRunCell(std::size_t bin, std::uint64_t areaOffset) {
    const std::uint64_t unit = areaOffset / kCellAlignment;
    if (areaOffset % kCellAlignment != 0 || unit / 64 >= runCells_.size()) {
        runMapped_[bin] = false;
        return;
    }
    runCells_[unit / 64] |= std::uint64_t{1} << (unit % 64);
}

std::uint64_t BinIndex::NextRunCell(std::uint64_t unit, std::uint64_t limit) const {
    while (unit < limit) {
        const std::uint64_t bits = runCells_[unit / 64] >> (unit % 64);
        if (bits != 0) return std::min(limit, unit + static_cast<std::uint64_t>(__builtin_ctzll(bits)));
        unit = (unit / 64 + 1) * 64;
    }
    return limit;
}

std::uint64_t BinIndex::LastRunCell(std::uint64_t first, std::uint64_t limit) const {
    for (std::uint64_t unit = limit; unit > first;) {
        // The bits of the word below unit, from first on.
        const std::uint64_t word = (unit - 1) / 64, low = std::max(first, word * 64);
        std::uint64_t bits = runCells_[word] & (~std::uint64_t{0} >> (63 - (unit - 1) % 64));
        bits &= ~std::uint64_t{0} << (low % 64);
        if (bits != 0) return word * 64 + 63 - static_cast<std::uint64_t>(__builtin_clzll(bits));
        unit = low;
    }
    return limit;
}

bool BinIndex::InsideRun(std::size_t bin, std::uint64_t areaOffset, std::uint64_t end) const {
    if (bin >= searchable_ || !runMapped_[bin]) return false;
    const std::uint64_t runEnd = std::uint64_t{walk_[bin].at} + allocatedRun_[bin];
    if (areaOffset < std::uint64_t{walk_[bin].at} + kBinHeaderSize || end > runEnd || end <= areaOffset ||
        runEnd / kCellAlignment / 64 >= runCells_.size())
        return false;
    // Each cell of the run whose size field the write reached must still
    // reach just to the next cell of the run (a record rewritten whole, with
    // its size field as it was); the walk is then the same.
    const std::uint64_t lastUnit = runEnd / kCellAlignment;
    const std::uint64_t to = (end + kCellAlignment - 1) / kCellAlignment;  // cells up to end - 1
    // Cells from areaOffset - 3 on.
    for (std::uint64_t unit = NextRunCell((areaOffset + kCellAlignment - kCellSizeField) / kCellAlignment, to); unit < to;) {
        const std::uint64_t next = NextRunCell(unit + 1, lastUnit);
        const std::uint8_t* field = image_.At(kBaseBlockSize + unit * kCellAlignment, kCellSizeField);
        if (field == nullptr || LoadI32(field) != -static_cast<std::int64_t>((next - unit) * kCellAlignment)) return false;
        unit = next < to ? next : to;
    }
    return true;
}

void BinIndex::Set(std::size_t bin, std::uint32_t value) {
    std::size_t node = leaves_ + bin;
    tree_[node] = value;
    // Up while the maxima change: above the first that keeps its value, none does.
    for (node /= 2; node > 0; node /= 2) {
        const std::uint32_t max = std::max(tree_[2 * node], tree_[2 * node + 1]);
        if (tree_[node] == max) break;
        tree_[node] = max;
    }
}

std::size_t BinIndex::FirstAtLeast(std::size_t from, std::uint32_t need) const {
    if (from >= searchable_) return searchable_;
    std::size_t node = leaves_ + from;
    if (tree_[node] >= need) return from;
    if (from == 0) {
        // From the first leaf the search goes straight down from the root.
        if (tree_[1] < need) return searchable_;
        node = 1;
    } else {
        // Up from the leaf until a right-hand subtree holds one, then down to its first.
        while (node > 1) {
            if (node % 2 == 0 && tree_[node + 1] >= need) {
                node += 1;
                break;
            }
            node /= 2;
        }
        if (node == 1) return searchable_;
    }
    while (node < leaves_) node = tree_[2 * node] >= need ? 2 * node : 2 * node + 1;
    return std::min(node - leaves_, searchable_);
}

std::uint32_t BinIndex::FindFree(std::uint32_t binsSize, std::uint32_t need, std::uint32_t& found) {
    if (binsSize == 0) return 0;
    Extend(binsSize);
    for (std::size_t bin = FirstAtLeast(0, need); bin < searchable_; bin = FirstAtLeast(bin + 1, need)) {
        std::uint32_t summary = 0;
        if (const std::uint32_t cell = Scan(bin, need, found, summary)) return cell;
        // A walk that found nothing went through the whole bin: what it learnt
        // holds until the bin is written (a bin that served stays to be looked at).
        if (stale_[bin]) {
            stale_[bin] = false;
            Set(bin, summary);
        }
    }
    return 0;
}

bool BinIndex::Locate(std::uint32_t binsSize, std::uint32_t cellOffset, std::uint32_t* walkOffset) {
    if (binsSize == 0) return false;
    Extend(binsSize);
    auto holds = [&](const Bin& bin) {
        return cellOffset >= bin.binOffset && cellOffset < static_cast<std::uint64_t>(bin.binOffset) + bin.binSize;
    };
    if (inOrder_) {
        // The bins tile the walk in order: the last one starting at or before the cell.
        if (walk_.empty()) return false;
        const Bin& bin = walk_[BinAt(cellOffset)];
        if (bin.at > cellOffset || !holds(bin)) return false;
        *walkOffset = bin.at;
        return true;
    }
    for (const Bin& bin : walk_) {
        if (holds(bin)) {
            *walkOffset = bin.at;
            return true;
        }
    }
    return false;
}

void BinIndex::Touched(std::uint64_t areaOffset, std::uint64_t length) {
    if (!built_) return;
    const std::uint64_t end = areaOffset + length;
    auto mark = [&](std::size_t i) {
        // Inside a cell of the run and clear of its size fields: no walk changes.
        if (InsideRun(i, areaOffset, end)) return;
        const Bin& bin = walk_[i];
        if (areaOffset < static_cast<std::uint64_t>(bin.at) + kBinHeaderSize && end > bin.at) built_ = false;
        // Bytes changed inside the run: the walks start again in front of them.
        if (i < searchable_ && areaOffset < static_cast<std::uint64_t>(bin.at) + allocatedRun_[i]) CutRun(i, areaOffset);
        // A stale bin's leaf is kVisit already: the tree needs no walk up again.
        if (i < searchable_ && !stale_[i]) {
            stale_[i] = true;
            Set(i, kVisit);
        }
    };
    if (!inOrder_) {
        for (std::size_t i = 0; i < walk_.size() && built_; ++i)
            if (areaOffset < static_cast<std::uint64_t>(walk_[i].at) + walk_[i].binSize && end > walk_[i].at) mark(i);
        return;
    }
    for (std::size_t i = BinAt(areaOffset); i < walk_.size() && walk_[i].at < end && built_; ++i) {
        if (areaOffset < static_cast<std::uint64_t>(walk_[i].at) + walk_[i].binSize) mark(i);
    }
}

std::size_t BinIndex::BinAt(std::uint64_t areaOffset) {
    auto first = walk_.begin(), last = walk_.end();
    if (const std::uint64_t page = areaOffset / kPage; page < pageBin_.size()) {
        // The answer lies from the bin of this page's start to that of the
        // next one's; mostly it is the first, the only one starting in front.
        const std::size_t bin = pageBin_[page];
        if (bin + 1 == walk_.size() || walk_[bin + 1].at > areaOffset) return bin;
        first += bin;
        if (page + 1 < pageBin_.size()) last = walk_.begin() + pageBin_[page + 1] + 1;
    }
    auto it = std::upper_bound(first, last, areaOffset, [](std::uint64_t offset, const Bin& bin) { return offset < bin.at; });
    return it == walk_.begin() ? 0 : static_cast<std::size_t>(it - walk_.begin()) - 1;
}

std::uint32_t BinIndex::RunCellBefore(std::uint32_t binsSize, std::uint32_t binOffset, std::uint32_t cellOffset) {
    if (binsSize == 0) return 0;
    Extend(binsSize);
    if (!inOrder_ || walk_.empty()) return 0;
    const std::size_t bin = BinAt(cellOffset);
    if (bin >= searchable_ || !runMapped_[bin]) return 0;
    const Bin& b = walk_[bin];
    if (b.at != binOffset || cellOffset < std::uint64_t{b.at} + kBinHeaderSize ||
        cellOffset >= std::uint64_t{b.at} + b.binSize)
        return 0;
    // The run's cells are the bin's bits: the last one in front of the cell.
    const std::uint64_t first = (std::uint64_t{b.at} + kBinHeaderSize) / kCellAlignment;
    const std::uint64_t limit = std::min<std::uint64_t>((std::uint64_t{cellOffset} + kCellAlignment - 1) / kCellAlignment,
                                                        runCells_.size() * 64);
    if (limit <= first) return 0;
    const std::uint64_t unit = LastRunCell(first, limit);
    return unit == limit ? 0 : static_cast<std::uint32_t>(unit * kCellAlignment);
}

}  // namespace Tamvik
