// The base block's checksum, shared by the library and the tool.
#pragma once

#include <cstdint>

namespace Tamvik {

// XOR of the base block's first kChecksumWords words, with 0 and 0xFFFFFFFF replaced.
std::uint32_t BaseBlockChecksum(const std::uint8_t* baseBlock);

}  // namespace Tamvik
