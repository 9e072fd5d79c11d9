#include "BaseBlock.h"

namespace TamvikLogs {

std::uint32_t BaseBlock::SectorBytes() const {
    return clustering >= 1 && clustering <= kMaxClustering ? clustering * kLogSectorBytes : kLogSectorBytes;
}

BaseBlock ReadBaseBlock(const std::uint8_t* data, std::size_t size) {
    BaseBlock b;
    if (size < kLogSectorBytes) return b;
    b.signatureOk = HasSignature(data, kRegfSignature);
    b.sequence1 = Load32(data + BaseField::Sequence1);
    b.sequence2 = Load32(data + BaseField::Sequence2);
    b.timestamp = Load64(data + BaseField::Timestamp);
    b.fileType = Load32(data + BaseField::FileType);
    b.binsSize = Load32(data + BaseField::BinsSize);
    b.clustering = Load32(data + BaseField::Clustering);
    b.flags = Load32(data + BaseField::Flags);
    b.storedChecksum = Load32(data + BaseField::Checksum);
    b.computedChecksum = BaseBlockChecksum(data);
    return b;
}

std::uint64_t FirstBinTimestamp(const Bytes& hive) {
    if (hive.size() < kBaseBlockBytes + kBinHeaderBytes) return 0;
    const std::uint8_t* bin = hive.data() + kBaseBlockBytes;
    return HasSignature(bin, kHbinSignature) ? Load64(bin + BinField::Timestamp) : 0;
}

}  // namespace TamvikLogs
