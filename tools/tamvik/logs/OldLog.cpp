// The old log format: after the base block sector, "DIRT" and a bitmap with
// one bit per 512-byte page of the bins data, then the pages whose bit is
// set, in bit order, from the next sector on.
#include <bit>

#include "LogFile.h"

namespace TamvikLogs {

namespace {

std::size_t RoundUp(std::size_t value, std::size_t unit) { return (value + unit - 1) / unit * unit; }

}  // namespace

void ParseOldLog(LogFile& log) {
    const Bytes& b = log.bytes;
    const std::uint32_t binsSize = log.base.binsSize;
    const std::size_t sector = log.base.SectorBytes();
    if (!Tamvik::IsWholeBins(binsSize)) {
        log.problem = "its bins size " + std::to_string(binsSize) + " is not a positive multiple of 4096";
        return;
    }
    const std::size_t bitmapAt = sector + kSignatureBytes;
    const std::size_t bitmapBytes = binsSize / kLogSectorBytes / 8;  // binsSize is a multiple of 4096
    if (b.size() < bitmapAt || !HasSignature(b.data() + sector, kDirtSignature)) {
        log.problem = "no \"DIRT\" dirty vector after its base block";
        return;
    }
    if (b.size() - bitmapAt < bitmapBytes) {
        log.problem = "truncated: its dirty vector needs " + std::to_string(bitmapBytes) + " bytes";
        return;
    }
    std::size_t dirty = 0;
    for (std::size_t i = 0; i < bitmapBytes; ++i) dirty += static_cast<std::size_t>(std::popcount(b[bitmapAt + i]));
    const std::size_t pagesAt = RoundUp(bitmapAt + bitmapBytes, sector);
    const std::size_t room = b.size() > pagesAt ? (b.size() - pagesAt) / kLogSectorBytes : 0;
    if (dirty > room) {
        log.problem = "truncated: " + std::to_string(dirty) + " dirty pages, the file holds " + std::to_string(room);
        return;
    }
    log.dirtyPages.reserve(dirty);
    for (std::size_t i = 0; i < bitmapBytes; ++i)
        for (int bit = 0; bit < 8; ++bit)
            if ((b[bitmapAt + i] >> bit) & 1) {
                const std::size_t logOffset = pagesAt + log.dirtyPages.size() * kLogSectorBytes;
                const auto binsOffset = static_cast<std::uint32_t>((i * 8 + bit) * kLogSectorBytes);
                log.dirtyPages.push_back({binsOffset, logOffset, kLogSectorBytes});
            }
}

}  // namespace TamvikLogs
