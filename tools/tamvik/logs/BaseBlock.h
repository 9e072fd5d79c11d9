// The facts of a base block that tell whether a hive is dirty and whether a
// log belongs to it, over the store's decoding of the block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Format.h"
#include "store/BaseBlock.h"

namespace TamvikLogs {

struct BaseBlock : Tamvik::BaseBlock {
    // A hive needs its logs when its base block can't be trusted or a write
    // of it began (sequence 1 moved) and never ended (sequence 2 didn't).
    bool Dirty() const { return !Valid() || sequence1 != sequence2; }
    // Bytes of the first log sector, which holds the base block copy.
    std::uint32_t SectorBytes() const;
};

// Reads the facts; fewer than kLogSectorBytes bytes give a block whose
// signature is not ok and whose numbers are 0.
BaseBlock ReadBaseBlock(const std::uint8_t* data, std::size_t size);
inline BaseBlock ReadBaseBlock(const Bytes& bytes) { return ReadBaseBlock(bytes.data(), bytes.size()); }

// The timestamp in the header of the first bin, which stands in for the
// base block's when that can't be trusted; 0 when there is no first bin.
std::uint64_t FirstBinTimestamp(const Bytes& hive);

}  // namespace TamvikLogs
