// The numbers of the hive file format: sizes, signatures and field offsets.
// Record offsets count from the start of a cell's payload.
#pragma once

#include <cstdint>

namespace Tamvik {

constexpr std::uint32_t kBaseBlockSize = 4096;
constexpr std::uint32_t kChecksumWords = 127;  // the base block checksum covers the words before it
constexpr std::uint32_t kBinHeaderSize = 32;
constexpr std::uint32_t kNoCell = 0xFFFFFFFF;     // "no cell" in an offset field
constexpr std::uint32_t kInlineData = 0x80000000;  // DataLength bit: data stands in DataCell
constexpr std::uint32_t kSegmentSize = 16344;      // bytes of one db segment
constexpr std::uint32_t kMaxInlineData = 4;        // bytes that fit in DataCell itself
constexpr std::uint32_t kBinAlignment = 4096;
constexpr std::uint32_t kCellAlignment = 8;     // cell sizes are multiples of it
constexpr std::uint32_t kCellSizeField = 4;     // the CellSize in front of every cell
// File positions are an offset plus 4096 in 32 bits: no offset may pass this.
constexpr std::uint32_t kMaxAreaOffset = 0xFFFFFFFF - kBaseBlockSize;

// Signatures as little-endian numbers.
constexpr std::uint32_t kRegfSignature = 0x66676572;  // "regf"
constexpr std::uint32_t kHbinSignature = 0x6E696268;  // "hbin"
constexpr std::uint16_t kNkSignature = 0x6B6E;        // "nk"
constexpr std::uint16_t kVkSignature = 0x6B76;        // "vk"
constexpr std::uint16_t kSkSignature = 0x6B73;        // "sk"
constexpr std::uint16_t kLfSignature = 0x666C;        // "lf"
constexpr std::uint16_t kLhSignature = 0x686C;        // "lh"
constexpr std::uint16_t kLiSignature = 0x696C;        // "li"
constexpr std::uint16_t kRiSignature = 0x6972;        // "ri"
constexpr std::uint16_t kDbSignature = 0x6264;        // "db"

// Bytes per entry of a subkey list: li and ri hold an offset, lf and lh an
// offset and a hint.
constexpr std::uint32_t kLeafEntry = 4;
constexpr std::uint32_t kFastEntry = 8;
constexpr std::uint32_t ListEntrySize(std::uint16_t signature) {
    return signature == kLfSignature || signature == kLhSignature ? kFastEntry : kLeafEntry;
}

// Value types whose data the library reads as text or as a fixed-size number.
namespace ValueType {
constexpr std::uint32_t String = 1;
constexpr std::uint32_t ExpandString = 2;
constexpr std::uint32_t Dword = 4;
constexpr std::uint32_t DwordBigEndian = 5;
constexpr std::uint32_t MultiString = 7;
constexpr std::uint32_t Qword = 11;
}  // namespace ValueType

// Smallest cells in which a record is recognised.
constexpr std::uint32_t kMinKeyCell = 80;
constexpr std::uint32_t kMinValueCell = 24;
constexpr std::uint32_t kMinSecurityCell = 64;

// FileType of a hive (its logs have others) and the one Format there is.
constexpr std::uint32_t kPrimaryFileType = 0;
constexpr std::uint32_t kDirectLoadFormat = 1;

namespace BaseBlockField {
constexpr std::uint32_t Signature = 0x000;
constexpr std::uint32_t Sequence1 = 0x004;
constexpr std::uint32_t Sequence2 = 0x008;
constexpr std::uint32_t Timestamp = 0x00C;
constexpr std::uint32_t MajorVersion = 0x014;
constexpr std::uint32_t MinorVersion = 0x018;
constexpr std::uint32_t FileType = 0x01C;
constexpr std::uint32_t Format = 0x020;
constexpr std::uint32_t RootCell = 0x024;
constexpr std::uint32_t BinsSize = 0x028;
constexpr std::uint32_t Clustering = 0x02C;
constexpr std::uint32_t FileName = 0x030;
constexpr std::uint32_t Flags = 0x090;
constexpr std::uint32_t Checksum = 0x1FC;
}  // namespace BaseBlockField

namespace BinField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t BinOffset = 0x04;
constexpr std::uint32_t BinSize = 0x08;
constexpr std::uint32_t Timestamp = 0x14;
}  // namespace BinField

namespace NkField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t Flags = 0x02;
constexpr std::uint32_t Timestamp = 0x04;
constexpr std::uint32_t ParentCell = 0x10;
constexpr std::uint32_t SubKeyCount = 0x14;
constexpr std::uint32_t VolatileSubKeyCount = 0x18;
constexpr std::uint32_t SubKeyListCell = 0x1C;
constexpr std::uint32_t VolatileSubKeyListCell = 0x20;
constexpr std::uint32_t ValueCount = 0x24;
constexpr std::uint32_t ValueListCell = 0x28;
constexpr std::uint32_t SecurityCell = 0x2C;
constexpr std::uint32_t ClassCell = 0x30;
constexpr std::uint32_t MaxSubKeyName = 0x34;
constexpr std::uint32_t MaxClassName = 0x38;
constexpr std::uint32_t MaxValueName = 0x3C;
constexpr std::uint32_t MaxValueData = 0x40;
constexpr std::uint32_t NameLength = 0x48;
constexpr std::uint32_t ClassLength = 0x4A;
constexpr std::uint32_t Name = 0x4C;
constexpr std::uint16_t HiveEntryFlag = 0x04;  // the root key of a hive
constexpr std::uint16_t NoDeleteFlag = 0x08;
constexpr std::uint16_t NarrowNameFlag = 0x20;
}  // namespace NkField

namespace VkField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t NameLength = 0x02;
constexpr std::uint32_t DataLength = 0x04;
constexpr std::uint32_t DataCell = 0x08;
constexpr std::uint32_t Type = 0x0C;
constexpr std::uint32_t Flags = 0x10;
constexpr std::uint32_t Name = 0x14;
constexpr std::uint16_t NarrowNameFlag = 0x01;
}  // namespace VkField

namespace SkField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t NextSecurity = 0x04;
constexpr std::uint32_t PrevSecurity = 0x08;
constexpr std::uint32_t RefCount = 0x0C;
constexpr std::uint32_t DescriptorLength = 0x10;
constexpr std::uint32_t Descriptor = 0x14;
}  // namespace SkField

// lf, lh, li and ri share their header.
namespace ListField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t Count = 0x02;
constexpr std::uint32_t Entries = 0x04;
}  // namespace ListField

namespace DbField {
constexpr std::uint32_t Signature = 0x00;
constexpr std::uint32_t SegmentCount = 0x02;
constexpr std::uint32_t SegmentListCell = 0x04;
constexpr std::uint32_t Size = 0x08;
}  // namespace DbField

// A CellSize's magnitude: the cell's length, whether allocated (negative) or free.
constexpr std::uint32_t CellMagnitude(std::int32_t cellSize) {
    return cellSize < 0 ? 0u - static_cast<std::uint32_t>(cellSize) : static_cast<std::uint32_t>(cellSize);
}
// Sizes of whole bins, and of a bins area: a positive multiple of 4096.
constexpr bool IsWholeBins(std::uint32_t size) { return size != 0 && size % kBinAlignment == 0; }

// Versions a hive can have: major 1, minor 1 to 6.
constexpr bool KnownMajorVersion(std::uint32_t major) { return major == 1; }
constexpr bool KnownMinorVersion(std::uint32_t minor) { return minor >= 1 && minor <= 6; }
// The rules that hang on MinorVersion. Cells of a hive of minor version 1
// carry a back link to the cell before them, which moves the payload to +8.
constexpr bool HasCellBackLinks(std::uint32_t minorVersion) { return minorVersion == 1; }
constexpr std::uint32_t PayloadOffset(std::uint32_t minorVersion) { return HasCellBackLinks(minorVersion) ? 8 : 4; }
// A new hive is written with the cell layout without back links.
constexpr bool WritableMinorVersion(std::uint32_t minor) { return KnownMinorVersion(minor) && !HasCellBackLinks(minor); }
// From minor version 4 on, data longer than one segment (and not inline)
// lies in segments behind a db record.
constexpr bool IsBigDataLength(std::uint32_t minorVersion, std::uint32_t dataLength) {
    return minorVersion >= 4 && dataLength >= kSegmentSize + 1 && dataLength <= 0x7FFFFFFF;
}

// The remainder rule: a free cell serves a need when the rest can become a
// free cell of its own (0 or a multiple of 8), or is exactly 4 bytes, which
// the new cell then takes too: no cell of 4 bytes is ever made.
constexpr std::uint32_t kTakenRest = 4;
inline bool RestIsUsable(std::uint32_t rest) { return rest % kCellAlignment == 0 || rest == kTakenRest; }

// Number of db segments that hold a length, and the same cut to the 16 bits of SegmentCount.
constexpr std::uint32_t SegmentsNeeded(std::uint32_t length) {
    return static_cast<std::uint32_t>((static_cast<std::uint64_t>(length) + kSegmentSize - 1) / kSegmentSize);
}
inline std::uint16_t SegmentsFor(std::uint32_t length) { return static_cast<std::uint16_t>(SegmentsNeeded(length)); }
// Bytes of a length that segment i holds: whole segments, then the rest, then none.
constexpr std::uint32_t SegmentShare(std::uint32_t length, std::uint32_t i) {
    const std::uint64_t start = std::uint64_t{i} * kSegmentSize;
    return start >= length ? 0 : static_cast<std::uint32_t>(length - start < kSegmentSize ? length - start : kSegmentSize);
}

}  // namespace Tamvik
