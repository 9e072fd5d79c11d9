#include "store/BaseBlock.h"

#include <algorithm>
#include <cstring>

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace Tamvik {

BaseBlock BaseBlock::Decode(const std::uint8_t* block, std::size_t size) {
    std::uint8_t fields[kBaseBlockFieldBytes] = {};
    if (size != 0) std::memcpy(fields, block, std::min<std::size_t>(size, sizeof fields));
    namespace At = BaseBlockField;
    BaseBlock b;
    b.signatureOk = LoadU32(fields + At::Signature) == kRegfSignature;
    b.sequence1 = LoadU32(fields + At::Sequence1);
    b.sequence2 = LoadU32(fields + At::Sequence2);
    b.timestamp = LoadU64(fields + At::Timestamp);
    b.majorVersion = LoadU32(fields + At::MajorVersion);
    b.minorVersion = LoadU32(fields + At::MinorVersion);
    b.fileType = LoadU32(fields + At::FileType);
    b.format = LoadU32(fields + At::Format);
    b.rootCell = LoadU32(fields + At::RootCell);
    b.binsSize = LoadU32(fields + At::BinsSize);
    b.clustering = LoadU32(fields + At::Clustering);
    b.flags = LoadU32(fields + At::Flags);
    for (std::uint32_t i = 0; i < kFileNameUnits; ++i) {
        const char16_t unit = LoadU16(fields + At::FileName + 2 * i);
        if (unit == 0) break;
        b.fileName += unit;
    }
    b.storedChecksum = LoadU32(fields + At::Checksum);
    b.computedChecksum = BaseBlockChecksum(fields);
    return b;
}

std::uint32_t BaseBlockChecksum(const std::uint8_t* block) {
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < kChecksumWords; ++i) sum ^= LoadU32(block + 4 * i);
    if (sum == 0xFFFFFFFF) return 0xFFFFFFFE;
    if (sum == 0) return 1;
    return sum;
}

void EncodeBinsSize(std::uint8_t* block, std::uint32_t binsSize) { StoreU32(block + BaseBlockField::BinsSize, binsSize); }

std::uint32_t EncodeChecksum(std::uint8_t* block) {
    const std::uint32_t sum = BaseBlockChecksum(block);
    StoreU32(block + BaseBlockField::Checksum, sum);
    return sum;
}

}  // namespace Tamvik
