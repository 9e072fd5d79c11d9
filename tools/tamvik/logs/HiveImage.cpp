#include "HiveImage.h"

#include <algorithm>
#include <cstring>

#include "Hex.h"
#include "store/BinWalk.h"

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
    for (Tamvik::BinWalk bins(binsSize); bins.More();) {
        const std::uint64_t at = bins.At();
        // at and every size are multiples of kBinUnit, so a header fits.
        const Tamvik::BinHeader h = Tamvik::BinHeader::Decode(bytes_.data() + kBaseBlockBytes + at);
        std::string fault;
        if (!h.signatureOk)
            fault = "no \"hbin\" signature";
        else if (h.binOffset != at)
            fault = "it records its offset as " + Hex(h.binOffset);
        else if (!Tamvik::IsWholeBins(h.binSize) || h.binSize > binsSize - at)
            fault = "its size " + Hex(h.binSize) + " doesn't fit";
        if (!fault.empty()) {
            if (Written(at, at + kBinHeaderBytes) || at >= vouched)
                return "the bin at " + Hex(at) + " is broken: " + fault;
            return {};
        }
        bins.Next(h.binSize);
    }
    return {};
}

Bytes HiveImage::Finish(std::uint32_t sequence, std::uint32_t binsSize, std::optional<std::uint32_t> entryFlags) && {
    std::uint8_t* b = bytes_.data();
    StoreU32(b + BaseField::Sequence1, sequence);
    StoreU32(b + BaseField::Sequence2, sequence);
    StoreU32(b + BaseField::FileType, FileType::Primary);
    Tamvik::EncodeBinsSize(b, binsSize);
    if (entryFlags)
        StoreU32(b + BaseField::Flags,
                (LoadU32(b + BaseField::Flags) & ~kEntryFlagsMask) | (*entryFlags & kEntryFlagsMask));
    Tamvik::EncodeChecksum(b);
    return std::move(bytes_);
}

}  // namespace TamvikLogs
