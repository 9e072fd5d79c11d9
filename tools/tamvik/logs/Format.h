// The numbers of transaction logs that the log code reads: sizes, signatures
// and field offsets, named once; those of the hive itself come from the
// store. Everything here is little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace TamvikLogs {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kBaseBlockBytes = Tamvik::kBaseBlockSize;
constexpr std::uint32_t kLogSectorBytes = 512;    // unit of log layout; also an old-format dirty page
constexpr std::uint32_t kMaxClustering = 8;       // sectors of 4096 bytes at most
constexpr std::uint32_t kBinUnit = Tamvik::kBinAlignment;
constexpr std::uint32_t kBinHeaderBytes = Tamvik::kBinHeaderSize;

constexpr char kDirtSignature[] = "DIRT";
constexpr char kEntrySignature[] = "HvLE";
constexpr std::size_t kSignatureBytes = 4;

namespace BaseField {
using namespace Tamvik::BaseBlockField;
}  // namespace BaseField

namespace FileType {
constexpr std::uint32_t Primary = Tamvik::kPrimaryFileType;
constexpr std::uint32_t OldLog = 1;
constexpr std::uint32_t OldLog2000 = 2;  // the same layout, as Windows 2000 marked it
constexpr std::uint32_t NewLog = 6;
}  // namespace FileType

// A new-format log entry: a header, page references, then the pages.
namespace EntryField {
constexpr std::size_t Size = 0x04;
constexpr std::size_t Flags = 0x08;
constexpr std::size_t Sequence = 0x0C;
constexpr std::size_t BinsSize = 0x10;
constexpr std::size_t PageCount = 0x14;
constexpr std::size_t Hash1 = 0x18;
constexpr std::size_t Hash2 = 0x20;
constexpr std::size_t PageRefs = 0x28;  // also the length of the header
}  // namespace EntryField
constexpr std::size_t kHash2Bytes = EntryField::Hash2;  // hash-2 covers the header before it
constexpr std::size_t kPageRefBytes = 8;                // bins offset, size
constexpr std::uint32_t kEntryFlagsMask = 0x1;          // the one base block flag an entry carries

constexpr std::uint64_t kMarvinSeed = 0x82EF4D887A4E55C5;

using Tamvik::LoadU32;
using Tamvik::LoadU64;
using Tamvik::StoreU32;

inline bool HasSignature(const std::uint8_t* p, const char* signature) {
    return std::memcmp(p, signature, kSignatureBytes) == 0;
}

}  // namespace TamvikLogs
