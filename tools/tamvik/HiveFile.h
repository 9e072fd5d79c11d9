// The bytes of a hive file read directly: the base block, the bins and the
// cell headers. Used by info and check, which look at the file itself rather
// than through the library.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "HiveSource.h"
#include "Text.h"
#include "store/Format.h"

namespace TamvikTool {

constexpr std::uint32_t kBaseBlockBytes = Tamvik::kBaseBlockSize;
constexpr std::uint32_t kNoCellOffset = 0xFFFFFFFF;

// A finding, located by file offset. Warnings don't make a hive unsound.
struct Finding {
    std::uint64_t fileOffset = 0;
    std::string text;
    bool warning = false;
};

struct BaseBlock {
    bool signatureOk = false;
    std::uint32_t sequence1 = 0, sequence2 = 0;
    std::uint64_t timestamp = 0;
    std::uint32_t major = 0, minor = 0, fileType = 0, format = 0;
    std::uint32_t rootCell = 0, binsSize = 0, clustering = 0;
    std::uint32_t storedChecksum = 0, computedChecksum = 0;
    std::u16string fileName;
};

struct Bin {
    std::uint32_t offset = 0;  // relative to the bins area
    std::uint32_t size = 0;
};

struct CellCounts {
    std::uint64_t usedCells = 0, usedBytes = 0, freeCells = 0, freeBytes = 0;
    std::uint64_t keys = 0, values = 0, security = 0;  // allocated nk, vk, sk cells
};

class HiveFile {
public:
    // Reads the file; throws ToolError when it can't be read at all.
    explicit HiveFile(HiveSource& source);

    const BaseBlock& Base() const { return base_; }
    const std::vector<Bin>& Bins() const { return bins_; }
    const CellCounts& Counts() const { return counts_; }
    const std::vector<Finding>& Findings() const { return findings_; }
    std::uint64_t FileSize() const { return fileSize_; }

    // Offset of the payload inside a cell: 8 in version 1.1, 4 otherwise.
    std::uint32_t PayloadStart() const { return Tamvik::PayloadOffset(base_.minor); }
    // Signed size of the cell starting exactly at offset; 0 if there is none.
    std::int32_t CellSizeAt(std::uint32_t offset) const;
    // Payload of an allocated cell at offset, or null; *size gets its length.
    const std::uint8_t* Payload(std::uint32_t offset, std::uint32_t* size) const;
    // Offsets of all allocated cells, in file order.
    const std::vector<std::uint32_t>& AllocatedCells() const { return allocated_; }

private:
    void ReadBaseBlock();
    void ScanBins();
    void ScanCells(const Bin& bin);
    void Add(std::uint64_t fileOffset, std::string text, bool warning = false);

    Bytes bytes_;
    BaseBlock base_;
    std::vector<Bin> bins_;
    CellCounts counts_;
    std::vector<Finding> findings_;
    std::unordered_map<std::uint32_t, std::int32_t> cells_;
    std::vector<std::uint32_t> allocated_;
    bool fileTooShort_ = false;
    std::uint64_t fileSize_ = 0;  // before a short file is padded to a base block
};

// "0x1234".
std::string Hex(std::uint64_t value);

// Why the library won't open a file as a hive, read from its base block:
// "empty file", "only 12 bytes, ...", "no regf signature", "base block
// checksum is wrong: ..."; empty when none of these holds.
std::string WhyNotAHive(HiveSource& source);

}  // namespace TamvikTool
