#include "store/Checksum.h"

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace Tamvik {

std::uint32_t BaseBlockChecksum(const std::uint8_t* baseBlock) {
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < kChecksumWords; ++i) sum ^= LoadU32(baseBlock + 4 * i);
    if (sum == 0xFFFFFFFF) return 0xFFFFFFFE;
    if (sum == 0) return 1;
    return sum;
}

}  // namespace Tamvik
