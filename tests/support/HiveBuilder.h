// Lays out a hive file byte by byte for tests: bins of chosen sizes, free and
// allocated cells, records of every kind, a tree of keys and values, and
// damaged variants. Cell offsets are relative to the bins area, as in a hive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTest {

using Bytes = std::vector<std::uint8_t>;

// The kinds of subkey list the tree builder can lay out.
enum class ListKind { Lf, Lh, Li, Ri };

// How a value's data is stored by the tree builder.
enum class DataForm {
    Auto,    // inline up to 4 bytes, db from 16345 bytes when MinorVersion >= 4, else one cell
    Inline,  // in DataCell (at most 4 bytes)
    Cell,    // one data cell, whatever the length
    Db,      // a db record with segments of 16344 bytes
};

struct TreeValue {
    std::string name;           // stored narrow (Latin-1 bytes) unless wideName is set
    std::uint32_t type = 3;
    Bytes data;
    DataForm form = DataForm::Auto;
    bool wideName = false;      // store the name as UTF-16LE (each byte of name widened)
};

struct TreeKey {
    std::string name;            // stored narrow unless wideName is set
    std::vector<TreeValue> values;
    std::vector<TreeKey> subkeys;
    ListKind list = ListKind::Lf;
    std::uint32_t riLeafSize = 2;  // for ListKind::Ri: keys per leaf (leaves are lf)
    bool wideName = false;
};

// Fields of an nk record; defaults give a sound empty key.
struct NkFields {
    std::string name;
    bool wideName = false;           // clear bit 0x20 and store name bytes as given
    std::uint16_t flags = 0x20;      // used as is when wideName is false
    std::uint32_t parent = 0;
    std::uint32_t subKeyCount = 0;
    std::uint32_t subKeyList = 0xFFFFFFFF;
    std::uint32_t valueCount = 0;
    std::uint32_t valueList = 0xFFFFFFFF;
    std::uint32_t security = 0xFFFFFFFF;
    std::uint32_t classCell = 0xFFFFFFFF;
    std::uint16_t classLength = 0;
    std::uint32_t maxSubKeyName = 0;
    std::uint32_t maxValueName = 0;
    std::uint32_t maxValueData = 0;
    std::int32_t nameLengthOverride = -1;  // >= 0: NameLength field regardless of name
};

// Fields of a vk record.
struct VkFields {
    std::string name;
    bool wideName = false;           // Flags bit 0 clear; name bytes stored as given
    std::uint32_t dataLength = 0;    // as stored, inline bit included
    std::uint32_t dataCell = 0;      // offset, or the inline bytes
    std::uint32_t type = 3;
    std::int32_t nameLengthOverride = -1;
};

class HiveBuilder {
public:
    explicit HiveBuilder(std::uint32_t minorVersion = 5);

    std::uint32_t MinorVersion() const { return minorVersion_; }
    // Payload offset inside a cell: 8 in MinorVersion 1, else 4.
    std::uint32_t PayloadOffset() const { return minorVersion_ == 1 ? 8 : 4; }

    // --- Bins and raw cells -------------------------------------------------
    // Starts a new bin of the given size (a multiple of 4096); gives its offset.
    // The previous bin's unused rest becomes one free cell.
    std::uint32_t AddBin(std::uint32_t size = 4096);
    // Places a cell holding payload in the current bin (a new bin of fitting
    // size is started when it doesn't fit). cellSize 0: payload + header, up to
    // a multiple of 8. Gives the cell offset.
    std::uint32_t AddCell(const Bytes& payload, bool allocated = true, std::uint32_t cellSize = 0);
    // A free cell of exactly cellSize bytes (header included).
    std::uint32_t AddFreeCell(std::uint32_t cellSize);
    // Ends the current bin: its rest becomes one free cell (nothing if it is full).
    void CloseBin();

    // --- Records ------------------------------------------------------------
    std::uint32_t AddNk(const NkFields& fields, std::uint32_t cellSize = 0);
    std::uint32_t AddVk(const VkFields& fields, std::uint32_t cellSize = 0);
    // An sk with the given links; a minimal self-relative descriptor follows the header.
    std::uint32_t AddSk(std::uint32_t next, std::uint32_t prev, std::uint32_t refCount, std::uint32_t cellSize = 0);
    // Leaves: entries are nk offsets; hints are computed (lf: first 4 name bytes given, lh: hash).
    std::uint32_t AddLf(const std::vector<std::uint32_t>& keys, const std::vector<std::string>& names = {},
                        std::uint32_t cellSize = 0);
    std::uint32_t AddLh(const std::vector<std::uint32_t>& keys, const std::vector<std::string>& names = {},
                        std::uint32_t cellSize = 0);
    std::uint32_t AddLi(const std::vector<std::uint32_t>& keys, std::uint32_t cellSize = 0);
    std::uint32_t AddRi(const std::vector<std::uint32_t>& leaves, std::uint32_t cellSize = 0);
    // A list record with any signature and Count (entries of entrySize bytes).
    std::uint32_t AddListRaw(const std::string& signature, std::uint16_t count, const Bytes& entries,
                             std::uint32_t cellSize = 0);
    std::uint32_t AddValueList(const std::vector<std::uint32_t>& values, std::uint32_t cellSize = 0);
    std::uint32_t AddData(const Bytes& data, std::uint32_t cellSize = 0);
    std::uint32_t AddSegmentList(const std::vector<std::uint32_t>& segments, std::uint32_t cellSize = 0);
    std::uint32_t AddDb(std::uint16_t segmentCount, std::uint32_t segmentList, std::uint32_t cellSize = 0);
    // A whole db value: segments of 16344 bytes, their list and the db record; gives the db offset.
    std::uint32_t AddBigData(const Bytes& data);

    // --- A tree in one call -------------------------------------------------
    // Lays out root and everything below it, with one sk shared by all keys
    // (RefCount = number of keys), sets RootCell, and gives the root's offset.
    std::uint32_t AddTree(const TreeKey& root);
    // Offset of the nk of a key laid out by AddTree, by its path of names
    // below the root ("" is the root, "A\\B" a grandchild).
    std::uint32_t KeyOffset(const std::string& path) const;
    // Offset of the sk that AddTree made.
    std::uint32_t TreeSecurity() const { return treeSecurity_; }

    // --- Changes after the fact ----------------------------------------------
    void SetRoot(std::uint32_t cellOffset) { root_ = cellOffset; }
    // Overwrites bytes of a cell's payload (offset counted from the payload start).
    void PatchPayload(std::uint32_t cellOffset, std::uint32_t at, const Bytes& bytes);
    void PatchU16(std::uint32_t cellOffset, std::uint32_t at, std::uint16_t value);
    void PatchU32(std::uint32_t cellOffset, std::uint32_t at, std::uint32_t value);
    // Overwrites a cell's CellSize field.
    void SetCellSize(std::uint32_t cellOffset, std::int32_t size);
    // Overwrites any bytes of the bins area.
    void PatchArea(std::uint32_t areaOffset, const Bytes& bytes);

    // --- Base block and damage ------------------------------------------------
    void SetChecksumValid(bool valid) { checksumValid_ = valid; }
    // BinsSize to store instead of the real length of the bins (-1: the real one).
    void SetBinsSizeOverride(std::int64_t size) { binsSizeOverride_ = size; }
    void SetBinSize(std::uint32_t binOffset, std::uint32_t size);        // e.g. 0
    void BreakBinSignature(std::uint32_t binOffset);                     // "hbin" -> "xbin"
    void SetSignature(const std::string& regf) { signature_ = regf; }   // base block signature

    // The file: base block (checksum as chosen) and the bins.
    Bytes Build() const;
    // The bins area alone, as laid out so far.
    const Bytes& Area() const { return area_; }
    std::uint32_t BinsSize() const { return static_cast<std::uint32_t>(area_.size()); }

private:
    std::uint32_t PlaceCell(const Bytes& payload, bool allocated, std::uint32_t cellSize);
    std::uint32_t LayOutKey(const TreeKey& key, std::uint32_t parent, const std::string& path);
    std::uint32_t LayOutValue(const TreeValue& value);

    std::uint32_t minorVersion_;
    Bytes area_;
    std::uint32_t binStart_ = 0;   // offset of the current bin
    std::uint32_t binEnd_ = 0;     // end of the current bin
    std::uint32_t position_ = 0;   // next free place in the current bin
    std::uint32_t lastCell_ = 0xFFFFFFFF;  // for PrevLink in MinorVersion 1
    std::uint32_t root_ = 0xFFFFFFFF;
    std::uint32_t treeSecurity_ = 0xFFFFFFFF;
    bool checksumValid_ = true;
    std::int64_t binsSizeOverride_ = -1;
    std::string signature_ = "regf";
    std::vector<std::pair<std::string, std::uint32_t>> keyOffsets_;
};

// The lh hash of a name: 37 * h + toupper(byte) (bytes >= 0x80 as negative 8-bit numbers).
std::uint32_t LhHash(const std::string& name);
// The checksum rule of the base block.
std::uint32_t ChecksumOf(const Bytes& baseBlock);

}  // namespace TamvikTest
