#include "HiveFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logs/BaseBlock.h"
#include "logs/Files.h"
#include "Session.h"

namespace TamvikTool {

namespace {
constexpr std::uint32_t kBinHeader = Tamvik::kBinHeaderSize;
constexpr std::uint32_t kBinUnit = Tamvik::kBinAlignment;
}  // namespace

std::string Hex(std::uint64_t value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%llx", static_cast<unsigned long long>(value));
    return buffer;
}

HiveFile::HiveFile(HiveSource& source) {
    std::string error;
    if (!source.ReadHive(&bytes_, &error))
        throw ToolError(source.Name() + (error == "read error" ? ": can't read (" : ": can't open (") + error + ")");
    fileSize_ = bytes_.size();
    ReadBaseBlock();
    ScanBins();
}

std::string WhyNotAHive(HiveSource& source) {
    Bytes head;
    std::string error;
    if (!source.ReadHive(&head, &error, kBaseBlockBytes)) return error;
    if (head.empty()) return "empty file";
    if (head.size() < kBaseBlockBytes)
        return "only " + std::to_string(head.size()) + " bytes, fewer than the 4096 of a base block";
    if (std::memcmp(head.data(), "regf", 4) != 0) return "no regf signature";
    const std::uint32_t stored = LoadU32(head.data() + Tamvik::BaseBlockField::Checksum), computed = TamvikLogs::BaseBlockChecksum(head.data());
    if (stored != computed)
        return "base block checksum is wrong: stored " + Hex(stored) + ", computed " + Hex(computed);
    return {};
}

void HiveFile::Add(std::uint64_t fileOffset, std::string text, bool warning) {
    findings_.push_back({fileOffset, std::move(text), warning});
}

void HiveFile::ReadBaseBlock() {
    if (bytes_.size() < kBaseBlockBytes) {
        Add(0, "file of " + std::to_string(bytes_.size()) + " bytes is shorter than a base block");
        bytes_.resize(kBaseBlockBytes, 0);  // the facts below then read as zeros
        fileTooShort_ = true;
    }
    const std::uint8_t* b = bytes_.data();
    base_.signatureOk = std::memcmp(b, "regf", 4) == 0;
    base_.sequence1 = LoadU32(b + 0x04);
    base_.sequence2 = LoadU32(b + 0x08);
    base_.timestamp = LoadU64(b + 0x0C);
    base_.major = LoadU32(b + 0x14);
    base_.minor = LoadU32(b + 0x18);
    base_.fileType = LoadU32(b + 0x1C);
    base_.format = LoadU32(b + 0x20);
    base_.rootCell = LoadU32(b + 0x24);
    base_.binsSize = LoadU32(b + 0x28);
    base_.clustering = LoadU32(b + 0x2C);
    for (int i = 0; i < 32; ++i) {
        char16_t c = LoadU16(b + 0x30 + 2 * i);
        if (c == 0) break;
        base_.fileName += c;
    }
    base_.storedChecksum = LoadU32(b + 0x1FC);
    base_.computedChecksum = TamvikLogs::BaseBlockChecksum(b);

    if (!base_.signatureOk) Add(0x0, "base block: signature is not \"regf\"");
    if (base_.storedChecksum != base_.computedChecksum)
        Add(0x1FC, "base block: checksum " + Hex(base_.storedChecksum) + ", computed " + Hex(base_.computedChecksum));
    if (base_.sequence1 != base_.sequence2)
        Add(0x04, "base block: sequence numbers " + std::to_string(base_.sequence1) + " and " +
                      std::to_string(base_.sequence2) +
                      " differ: the hive is dirty, its last write did not end (see tamvik replay)");
    if (base_.major != 1) Add(0x14, "base block: major version " + std::to_string(base_.major) + ", expected 1");
    if (base_.minor < 1 || base_.minor > 6)
        Add(0x18, "base block: minor version " + std::to_string(base_.minor) + " is unknown");
    if (base_.fileType != 0) Add(0x1C, "base block: file type " + std::to_string(base_.fileType) + " is not a primary file", true);
    if (base_.format != 1) Add(0x20, "base block: format " + std::to_string(base_.format) + ", expected 1");
    if (base_.binsSize == 0 || base_.binsSize % kBinUnit != 0)
        Add(0x28, "base block: bins size " + Hex(base_.binsSize) + " is not a positive multiple of 4096");
    if (static_cast<std::uint64_t>(base_.binsSize) + kBaseBlockBytes > bytes_.size())
        Add(0x28, "base block: bins size " + Hex(base_.binsSize) + " runs past the end of the file (" +
                      std::to_string(bytes_.size()) + " bytes)");
}

void HiveFile::ScanBins() {
    if (fileTooShort_) return;
    const std::uint64_t end = std::min<std::uint64_t>(base_.binsSize, bytes_.size() - kBaseBlockBytes);
    std::uint64_t offset = 0;
    while (offset + kBinHeader <= end) {
        const std::uint8_t* h = bytes_.data() + kBaseBlockBytes + offset;
        const std::uint64_t at = kBaseBlockBytes + offset;
        if (std::memcmp(h, "hbin", 4) != 0) {
            Add(at, "bin at " + Hex(offset) + ": signature is not \"hbin\"; the bins behind it are not read");
            return;
        }
        Bin bin{static_cast<std::uint32_t>(offset), LoadU32(h + 8)};
        if (LoadU32(h + 4) != offset)
            Add(at + 4, "bin at " + Hex(offset) + ": records its offset as " + Hex(LoadU32(h + 4)));
        if (bin.size < kBinUnit || bin.size % kBinUnit != 0) {
            Add(at + 8, "bin at " + Hex(offset) + ": size " + Hex(bin.size) + " is not a multiple of 4096");
            return;
        }
        if (offset + bin.size > end) {
            Add(at + 8, "bin at " + Hex(offset) + ": size " + Hex(bin.size) + " runs past the bins area");
            return;
        }
        bins_.push_back(bin);
        ScanCells(bin);
        offset += bin.size;
    }
    if (offset != base_.binsSize)
        Add(0x28, "bins cover " + Hex(offset) + " bytes, the base block says " + Hex(base_.binsSize));
}

void HiveFile::ScanCells(const Bin& bin) {
    std::uint32_t offset = bin.offset + kBinHeader;
    const std::uint32_t end = bin.offset + bin.size;
    bool previousFree = false;
    while (offset < end) {
        const std::uint64_t at = kBaseBlockBytes + static_cast<std::uint64_t>(offset);
        if (end - offset < 8) {
            Add(at, "cell " + Hex(offset) + ": fewer than 8 bytes left in the bin");
            return;
        }
        const auto size = static_cast<std::int32_t>(LoadU32(bytes_.data() + at));
        const std::uint32_t magnitude = size < 0 ? 0u - static_cast<std::uint32_t>(size) : static_cast<std::uint32_t>(size);
        if (size == 0 || magnitude % 8 != 0 || magnitude > end - offset) {
            Add(at, "cell " + Hex(offset) + ": size " + std::to_string(size) +
                        (size == 0 ? " ends the cells early" : magnitude % 8 != 0 ? " is not a multiple of 8"
                                                                                   : " runs past the end of its bin"));
            return;
        }
        cells_[offset] = size;
        if (size < 0) {
            allocated_.push_back(offset);
            ++counts_.usedCells;
            counts_.usedBytes += magnitude;
            const std::uint8_t* payload = bytes_.data() + at + PayloadStart();
            if (magnitude >= PayloadStart() + 2) {
                if (std::memcmp(payload, "nk", 2) == 0) ++counts_.keys;
                else if (std::memcmp(payload, "vk", 2) == 0) ++counts_.values;
                else if (std::memcmp(payload, "sk", 2) == 0) ++counts_.security;
            }
            previousFree = false;
        } else {
            ++counts_.freeCells;
            counts_.freeBytes += magnitude;
            if (previousFree) Add(at, "cell " + Hex(offset) + ": free cell follows a free cell (not merged)", true);
            previousFree = true;
        }
        offset += magnitude;
    }
}

std::int32_t HiveFile::CellSizeAt(std::uint32_t offset) const {
    auto it = cells_.find(offset);
    return it == cells_.end() ? 0 : it->second;
}

const std::uint8_t* HiveFile::Payload(std::uint32_t offset, std::uint32_t* size) const {
    std::int32_t cell = CellSizeAt(offset);
    if (cell >= 0) return nullptr;
    const std::uint32_t magnitude = 0u - static_cast<std::uint32_t>(cell);
    if (magnitude < PayloadStart()) return nullptr;
    *size = magnitude - PayloadStart();
    return bytes_.data() + kBaseBlockBytes + offset + PayloadStart();
}

}  // namespace TamvikTool
