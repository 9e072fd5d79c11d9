// The walks over the bins of a hive and over the cells of one bin, with the
// format's rules for where each step lands and where a walk has to end. A
// walk reads nothing itself: each caller reads a header or a size field from
// wherever it keeps the bytes (the file image, the device, a log's copy) and
// says at its call site what a damaged spot means to it.
#pragma once

#include <cstdint>

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace Tamvik {

// The fields of a bin header, from its kBinHeaderSize bytes.
struct BinHeader {
    bool signatureOk = false;
    std::uint32_t binOffset = 0, binSize = 0;
    std::uint64_t timestamp = 0;

    static BinHeader Decode(const std::uint8_t* header) {
        return {LoadU32(header + BinField::Signature) == kHbinSignature, LoadU32(header + BinField::BinOffset),
                LoadU32(header + BinField::BinSize), LoadU64(header + BinField::Timestamp)};
    }
};

// The bins in file order: the first at offset 0 of the bins area, each next
// one BinSize further on, while the offset stays below end (BinsSize). A
// size of 0 gives no step forward and ends the walk.
class BinWalk {
public:
    explicit BinWalk(std::uint64_t end = 0) : end_(end) {}
    bool More() const { return !stopped_ && at_ < end_; }
    std::uint32_t At() const { return static_cast<std::uint32_t>(at_); }
    // How far the walk got: the end of the last bin it stepped over.
    std::uint64_t Reached() const { return at_; }
    void Next(std::uint32_t binSize) {
        if (binSize == 0) stopped_ = true;
        at_ += binSize;
    }
    // BinsSize grew: a walk that ran out of bins may go on.
    void ExtendTo(std::uint64_t end) { end_ = end; }

private:
    std::uint64_t at_ = 0, end_;
    bool stopped_ = false;
};

// The cells of the bin at binStart in order: the first behind the bin
// header, each next one the magnitude of the current CellSize further on,
// while a whole size field lies before end. A CellSize of 0 gives no step
// forward and ends the walk. Positions count in the caller's frame: from the
// bin's start (binStart 0) or from the start of the bins area.
class CellWalk {
public:
    CellWalk(std::uint64_t binStart, std::uint64_t end) : at_(binStart + kBinHeaderSize), end_(end) {}
    bool More() const { return !stopped_ && at_ + kCellSizeField <= end_; }
    std::uint64_t At() const { return at_; }
    // The CellSize at the walk's position, from bytes that start where its frame does.
    std::int32_t SizeIn(const std::uint8_t* frame) const { return LoadI32(frame + at_); }
    // Whether a cell of this size at the walk's position ends by end.
    bool Fits(std::int32_t cellSize) const { return at_ + CellMagnitude(cellSize) <= end_; }
    void Next(std::int32_t cellSize) {
        if (cellSize == 0) stopped_ = true;
        at_ += CellMagnitude(cellSize);
    }
    // The walk met a CellSize of 0.
    bool EndedAtZero() const { return stopped_; }
    // Steps over the allocated cells (negative CellSizes) from the walk's
    // position on, as Next would one by one: for walks that judge only free cells.
    void SkipAllocated(const std::uint8_t* frame) {
        while (More()) {
            const std::int32_t size = SizeIn(frame);
            if (size >= 0) return;
            at_ += CellMagnitude(size);
        }
    }

private:
    std::uint64_t at_, end_;
    bool stopped_ = false;
};

}  // namespace Tamvik
