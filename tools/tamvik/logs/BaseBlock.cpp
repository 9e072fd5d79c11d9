#include "BaseBlock.h"

namespace TamvikLogs {

std::uint32_t BaseBlock::SectorBytes() const {
    return clustering >= 1 && clustering <= kMaxClustering ? clustering * kLogSectorBytes : kLogSectorBytes;
}

BaseBlock ReadBaseBlock(const std::uint8_t* data, std::size_t size) {
    BaseBlock b;
    if (size < kLogSectorBytes) return b;
    b.signatureOk = HasSignature(data, kRegfSignature);
    b.sequence1 = LoadU32(data + BaseField::Sequence1);
    b.sequence2 = LoadU32(data + BaseField::Sequence2);
    b.timestamp = LoadU64(data + BaseField::Timestamp);
    b.fileType = LoadU32(data + BaseField::FileType);
    b.binsSize = LoadU32(data + BaseField::BinsSize);
    b.clustering = LoadU32(data + BaseField::Clustering);
    b.flags = LoadU32(data + BaseField::Flags);
    b.storedChecksum = LoadU32(data + BaseField::Checksum);
    b.computedChecksum = BaseBlockChecksum(data);
    return b;
}

std::uint64_t FirstBinTimestamp(const Bytes& hive) {
    if (hive.size() < kBaseBlockBytes + kBinHeaderBytes) return 0;
    const std::uint8_t* bin = hive.data() + kBaseBlockBytes;
    return HasSignature(bin, kHbinSignature) ? LoadU64(bin + BinField::Timestamp) : 0;
}

}  // namespace TamvikLogs
