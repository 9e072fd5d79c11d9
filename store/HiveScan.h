// A hive's bytes read at the level of the file: the base block, the run of
// bins and the cells of each bin, with what doesn't hold reported as findings
// where it is found. Its facts (the bins, the cells and their counts) serve
// the walks that follow the references between the cells.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "store/BaseBlock.h"
#include "store/CellBitmap.h"
#include "store/Finding.h"
#include "store/Format.h"

namespace Tamvik {

struct BinExtent {
    std::uint32_t offset = 0;  // in the bins area
    std::uint32_t size = 0;
};

struct CellCounts {
    std::uint64_t usedCells = 0, usedBytes = 0, freeCells = 0, freeBytes = 0;
    std::uint64_t keys = 0, values = 0, security = 0;  // allocated nk, vk, sk cells
};

class HiveScan {
public:
    // The bytes of the whole file, which must stay as they are while the scan is used.
    explicit HiveScan(std::span<const std::uint8_t> file);

    const BaseBlock& Base() const { return base_; }
    std::uint64_t FileSize() const { return file_.size(); }
    // The bins read in order, up to the first that can't be taken.
    const std::vector<BinExtent>& Bins() const { return bins_; }
    const CellCounts& Counts() const { return counts_; }
    const std::vector<Finding>& Findings() const { return findings_; }

    std::uint32_t PayloadStart() const { return PayloadOffset(base_.minorVersion); }
    // Signed size of the cell that starts exactly at a cell offset; 0 if none does.
    std::int32_t CellSizeAt(std::uint32_t offset) const;
    // The payload of an allocated cell, or null; *size gets its length.
    const std::uint8_t* Payload(std::uint32_t offset, std::uint32_t* size) const;
    // The whole of an allocated cell, its size field included; empty if none starts there.
    std::span<const std::uint8_t> AllocatedCell(std::uint32_t offset) const;
    // Where the allocated cells start.
    const CellBitmap& AllocatedCells() const { return allocated_; }

private:
    void CheckBaseBlock();
    void ScanBins();
    void ScanCells(const BinExtent& bin);
    void Add(FindingKind kind, std::uint64_t fileOffset, std::string text, bool warning = false);

    std::span<const std::uint8_t> file_;
    BaseBlock base_;
    std::vector<BinExtent> bins_;
    // Where the cells the scan took start, all and allocated ones: the check
    // looks a cell up at each reference it follows. Sizes are read from the
    // file, which stays as it was.
    CellBitmap cells_, allocated_;
    CellCounts counts_;
    std::vector<Finding> findings_;
};

// Why an open refuses a file that begins with these bytes (NotAHive, with
// the reason), or Ok when its base block would be taken.
Status WhyNotAHive(std::span<const std::uint8_t> head);

}  // namespace Tamvik
