#include "BaseBlock.h"

#include "store/BinWalk.h"

namespace TamvikLogs {

std::uint32_t BaseBlock::SectorBytes() const {
    return clustering >= 1 && clustering <= kMaxClustering ? clustering * kLogSectorBytes : kLogSectorBytes;
}

BaseBlock ReadBaseBlock(const std::uint8_t* data, std::size_t size) {
    if (size < kLogSectorBytes) return {};
    return {Tamvik::BaseBlock::Decode(data, size)};
}

std::uint64_t FirstBinTimestamp(const Bytes& hive) {
    if (hive.size() < kBaseBlockBytes + kBinHeaderBytes) return 0;
    const Tamvik::BinHeader first = Tamvik::BinHeader::Decode(hive.data() + kBaseBlockBytes);
    return first.signatureOk ? first.timestamp : 0;
}

}  // namespace TamvikLogs
