#include "HiveImage.h"

#include <algorithm>
#include <cstring>

#include "Hex.h"

namespace TamvikLogs {

HiveImage::HiveImage(const Bytes& primary) : bytes_(primary) {
    if (bytes_.size() < kBaseBlockBytes) bytes_.resize(kBaseBlockBytes, 0);
}

void HiveImage::TakeBaseBlock(const LogFile& log) {
    // Only the first sector was logged; the rest of the block stays.
    std::memcpy(bytes_.data(), log.bytes.data(), kLogSectorBytes);
    StoreU32(bytes_.data() + BaseField::FileType, FileType::Primary);
}

void HiveImage::Grow(std::uint32_t binsSize) {
    if (bytes_.size() - kBaseBlockBytes < binsSize) bytes_.resize(std::size_t{kBaseBlockBytes} + binsSize, 0);
}

void HiveImage::Apply(const LogFile& log, const PageCopy& page, std::uint32_t binsSize) {
    Grow(binsSize);
    std::memcpy(bytes_.data() + kBaseBlockBytes + page.binsOffset, log.bytes.data() + page.logOffset, page.size);
    written_.emplace_back(page.binsOffset, std::uint64_t{page.binsOffset} + page.size);
}

bool HiveImage::Written(std::uint64_t from, std::uint64_t to) const {
    return std::any_of(written_.begin(), written_.end(),
                       [&](const auto& range) { return range.first < to && from < range.second; });
}

std::string HiveImage::CheckBins(std::uint32_t binsSize, std::uint64_t vouched) {
    Grow(binsSize);
    std::uint64_t at = 0;
    while (at < binsSize) {
        const std::uint8_t* h = bytes_.data() + kBaseBlockBytes + at;
        // at and every size are multiples of kBinUnit, so a header fits.
        const std::uint32_t size = LoadU32(h + BinField::Size);
        std::string fault;
        if (!HasSignature(h, kHbinSignature))
            fault = "no \"hbin\" signature";
        else if (LoadU32(h + BinField::Offset) != at)
            fault = "it records its offset as " + Hex(LoadU32(h + BinField::Offset));
        else if (size < kBinUnit || size % kBinUnit != 0 || size > binsSize - at)
            fault = "its size " + Hex(size) + " doesn't fit";
        if (!fault.empty()) {
            if (Written(at, at + kBinHeaderBytes) || at >= vouched)
                return "the bin at " + Hex(at) + " is broken: " + fault;
            return {};
        }
        at += size;
    }
    return {};
}

Bytes HiveImage::Finish(std::uint32_t sequence, std::uint32_t binsSize, std::optional<std::uint32_t> entryFlags) && {
    std::uint8_t* b = bytes_.data();
    StoreU32(b + BaseField::Sequence1, sequence);
    StoreU32(b + BaseField::Sequence2, sequence);
    StoreU32(b + BaseField::FileType, FileType::Primary);
    StoreU32(b + BaseField::BinsSize, binsSize);
    if (entryFlags)
        StoreU32(b + BaseField::Flags,
                (LoadU32(b + BaseField::Flags) & ~kEntryFlagsMask) | (*entryFlags & kEntryFlagsMask));
    StoreU32(b + BaseField::Checksum, BaseBlockChecksum(b));
    return std::move(bytes_);
}

}  // namespace TamvikLogs
