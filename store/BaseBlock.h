// The base block, decoded in one place for the library, the tool and the log
// code: every field anyone looks at, and the checksum stored and computed.
// What the library writes of it is encoded here as well.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tamvik {

// The fields and the checksum lie in the block's first 512 bytes; the rest of
// the 4096 is never read.
constexpr std::uint32_t kBaseBlockFieldBytes = 0x200;
constexpr std::uint32_t kFileNameUnits = 32;  // UTF-16 units of the FileName field

struct BaseBlock {
    bool signatureOk = false;
    std::uint32_t sequence1 = 0, sequence2 = 0;
    std::uint64_t timestamp = 0;
    std::uint32_t majorVersion = 0, minorVersion = 0, fileType = 0, format = 0;
    std::uint32_t rootCell = 0, binsSize = 0, clustering = 0, flags = 0;
    std::u16string fileName;  // up to its first NUL
    std::uint32_t storedChecksum = 0, computedChecksum = 0;

    // The fields of a block of size bytes; those it doesn't hold read as zeros.
    static BaseBlock Decode(const std::uint8_t* block, std::size_t size);

    bool ChecksumOk() const { return storedChecksum == computedChecksum; }
    // What an open demands: the signature and a checksum that adds up.
    bool Valid() const { return signatureOk && ChecksumOk(); }
};

// XOR of the block's words before the checksum, with 0 and 0xFFFFFFFF replaced.
std::uint32_t BaseBlockChecksum(const std::uint8_t* block);

// The fields the library changes: BinsSize when it appends a bin, and then
// the checksum of the block as it stands (which is given back).
void EncodeBinsSize(std::uint8_t* block, std::uint32_t binsSize);
std::uint32_t EncodeChecksum(std::uint8_t* block);

}  // namespace Tamvik
