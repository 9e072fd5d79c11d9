#include "store/HiveScan.h"

#include <algorithm>
#include <cstdio>

#include "store/BinWalk.h"

namespace Tamvik {

std::string Hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

namespace {

std::string Number(std::int64_t value) { return std::to_string(value); }

}  // namespace

HiveScan::HiveScan(std::span<const std::uint8_t> file) : file_(file) {
    base_ = BaseBlock::Decode(file_.data(), file_.size());
    CheckBaseBlock();
    // Without a whole base block there are no bins to read.
    if (file_.size() >= kBaseBlockSize) ScanBins();
}

void HiveScan::Add(FindingKind kind, std::uint64_t fileOffset, std::string text, bool warning) {
    findings_.push_back(Finding::Of(kind, fileOffset, std::move(text), warning));
}

void HiveScan::CheckBaseBlock() {
    namespace At = BaseBlockField;
    const BaseBlock& b = base_;
    // A short file's missing bytes read as zeros.
    const std::uint64_t length = std::max<std::uint64_t>(file_.size(), kBaseBlockSize);
    if (file_.size() < kBaseBlockSize)
        Add(FindingKind::File, 0, "file of " + Number(file_.size()) + " bytes is shorter than a base block");
    if (!b.signatureOk) Add(FindingKind::Signature, At::Signature, "base block: signature is not \"regf\"");
    if (!b.ChecksumOk())
        Add(FindingKind::Checksum, At::Checksum,
            "base block: checksum " + Hex(b.storedChecksum) + ", computed " + Hex(b.computedChecksum));
    if (b.sequence1 != b.sequence2)
        Add(FindingKind::Dirty, At::Sequence1,
            "base block: sequence numbers " + Number(b.sequence1) + " and " + Number(b.sequence2) +
                " differ: the hive is dirty, its last write did not end");
    if (!KnownMajorVersion(b.majorVersion))
        Add(FindingKind::Version, At::MajorVersion, "base block: major version " + Number(b.majorVersion) + ", expected 1");
    if (!KnownMinorVersion(b.minorVersion))
        Add(FindingKind::Version, At::MinorVersion, "base block: minor version " + Number(b.minorVersion) + " is unknown");
    if (b.fileType != kPrimaryFileType)
        Add(FindingKind::BaseBlock, At::FileType, "base block: file type " + Number(b.fileType) + " is not a primary file",
            true);
    if (b.format != kDirectLoadFormat)
        Add(FindingKind::BaseBlock, At::Format, "base block: format " + Number(b.format) + ", expected 1");
    if (!IsWholeBins(b.binsSize))
        Add(FindingKind::BaseBlock, At::BinsSize,
            "base block: bins size " + Hex(b.binsSize) + " is not a positive multiple of 4096");
    if (std::uint64_t{b.binsSize} + kBaseBlockSize > length)
        Add(FindingKind::File, At::BinsSize,
            "base block: bins size " + Hex(b.binsSize) + " runs past the end of the file (" + Number(length) + " bytes)");
}

void HiveScan::ScanBins() {
    // The bins the base block claims, as far as the file holds them.
    const std::uint64_t end = std::min<std::uint64_t>(base_.binsSize, file_.size() - kBaseBlockSize);
    BinWalk bins(end);
    cells_ = CellBitmap(end);
    allocated_ = CellBitmap(end);
    // Each bin that can't be taken ends the run: what lies behind it can't be found.
    while (bins.More() && bins.At() + std::uint64_t{kBinHeaderSize} <= end) {
        const std::uint64_t at = kBaseBlockSize + std::uint64_t{bins.At()};
        const BinHeader header = BinHeader::Decode(file_.data() + at);
        const std::string bin = "bin at " + Hex(bins.At());
        if (!header.signatureOk) {
            Add(FindingKind::Bin, at, bin + ": signature is not \"hbin\"; the bins behind it are not read");
            return;
        }
        if (header.binOffset != bins.At())
            Add(FindingKind::Bin, at + BinField::BinOffset, bin + ": records its offset as " + Hex(header.binOffset));
        if (!IsWholeBins(header.binSize)) {
            Add(FindingKind::Bin, at + BinField::BinSize, bin + ": size " + Hex(header.binSize) + " is not a multiple of 4096");
            return;
        }
        if (bins.At() + std::uint64_t{header.binSize} > end) {
            Add(FindingKind::Bin, at + BinField::BinSize, bin + ": size " + Hex(header.binSize) + " runs past the bins area");
            return;
        }
        bins_.push_back({bins.At(), header.binSize});
        ScanCells(bins_.back());
        bins.Next(header.binSize);
    }
    if (bins.Reached() != base_.binsSize)
        Add(FindingKind::Bin, BaseBlockField::BinsSize,
            "bins cover " + Hex(bins.Reached()) + " bytes, the base block says " + Hex(base_.binsSize));
}

void HiveScan::ScanCells(const BinExtent& bin) {
    const std::uint8_t* area = file_.data() + kBaseBlockSize;
    bool previousFree = false;
    // Every bin and every cell taken is a multiple of 8 long, so the walk
    // ends exactly at the bin's end unless a cell stops it.
    for (CellWalk cells(bin.offset, std::uint64_t{bin.offset} + bin.size); cells.More();) {
        const auto offset = static_cast<std::uint32_t>(cells.At());
        const std::uint64_t at = kBaseBlockSize + std::uint64_t{offset};
        const std::int32_t size = cells.SizeIn(area);
        const std::uint32_t magnitude = CellMagnitude(size);
        if (size == 0 || magnitude % kCellAlignment != 0 || !cells.Fits(size)) {
            Add(FindingKind::Cell, at,
                "cell " + Hex(offset) + ": size " + Number(size) +
                    (size == 0 ? " ends the cells early"
                               : magnitude % kCellAlignment != 0 ? " is not a multiple of 8" : " runs past the end of its bin"));
            return;
        }
        cells_.Insert(offset);
        if (size < 0) {
            allocated_.Insert(offset);
            ++counts_.usedCells;
            counts_.usedBytes += magnitude;
            if (magnitude > PayloadStart()) {
                const std::uint16_t signature = LoadU16(file_.data() + at + PayloadStart());
                counts_.keys += signature == kNkSignature;
                counts_.values += signature == kVkSignature;
                counts_.security += signature == kSkSignature;
            }
        } else {
            ++counts_.freeCells;
            counts_.freeBytes += magnitude;
            // The library merges free neighbours; two in a row were left by another writer.
            if (previousFree)
                Add(FindingKind::Cell, at, "cell " + Hex(offset) + ": free cell follows a free cell (not merged)", true);
        }
        previousFree = size > 0;
        cells.Next(size);
    }
}

std::int32_t HiveScan::CellSizeAt(std::uint32_t offset) const {
    if (offset % kCellAlignment != 0 || !cells_.Contains(offset)) return 0;
    return LoadI32(file_.data() + kBaseBlockSize + offset);
}

std::span<const std::uint8_t> HiveScan::AllocatedCell(std::uint32_t offset) const {
    // The scan took only cells that lie inside their bin, inside the file.
    const std::int32_t cell = CellSizeAt(offset);
    if (cell >= 0) return {};
    return file_.subspan(kBaseBlockSize + std::size_t{offset}, CellMagnitude(cell));
}

const std::uint8_t* HiveScan::Payload(std::uint32_t offset, std::uint32_t* size) const {
    // Every cell of the scan is at least 8 bytes long: its payload may be empty.
    const std::span<const std::uint8_t> cell = AllocatedCell(offset);
    if (cell.empty()) return nullptr;
    *size = static_cast<std::uint32_t>(cell.size()) - PayloadStart();
    return cell.data() + PayloadStart();
}

Status WhyNotAHive(std::span<const std::uint8_t> head) {
    if (head.empty()) return Status::Of(StatusCode::NotAHive, "empty file");
    if (head.size() < kBaseBlockSize)
        return Status::Of(StatusCode::NotAHive,
                          "only " + Number(head.size()) + " bytes, fewer than the 4096 of a base block");
    const BaseBlock b = BaseBlock::Decode(head.data(), head.size());
    if (!b.signatureOk) return Status::Of(StatusCode::NotAHive, "no regf signature", BaseBlockField::Signature);
    if (!b.ChecksumOk())
        return Status::Of(StatusCode::NotAHive,
                          "base block checksum is wrong: stored " + Hex(b.storedChecksum) + ", computed " +
                              Hex(b.computedChecksum),
                          BaseBlockField::Checksum);
    return Status::Success();
}

}  // namespace Tamvik
