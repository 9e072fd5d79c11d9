// Lays out a hive file byte by byte: bins of chosen sizes, free and allocated
// cells, records of every kind, a whole tree of keys and values, and damage.
// Offsets are cell offsets, relative to the bins area as in a hive.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"

namespace TamvikTest {

enum class ListKind { Lf, Lh, Li, Ri };

enum class DataForm {
    Auto,    // inline up to 4 bytes, db from 16345 bytes when MinorVersion >= 4, else one cell
    Inline,  // in DataCell (at most 4 bytes)
    Cell,    // one data cell, whatever the length
    Db,      // a db record with segments of 16344 bytes
};

struct TreeValue {
    std::string name{};  // Latin-1 bytes; stored narrow unless wideName
    std::uint32_t type = 3;
    Bytes data{};
    DataForm form = DataForm::Auto;
    bool wideName = false;
};

struct TreeKey {
    std::string name{};
    std::vector<TreeValue> values{};
    std::vector<TreeKey> subkeys{};
    ListKind list = ListKind::Lf;
    std::uint32_t riLeafSize = 2;  // ListKind::Ri: keys per lf leaf
    bool wideName = false;
};

struct NkFields {
    std::string name{};  // stored bytes, as given
    std::uint16_t flags = 0x20;
    std::uint32_t subKeyCount = 0, subKeyList = 0xFFFFFFFF;
    std::uint32_t valueCount = 0, valueList = 0xFFFFFFFF;
    std::uint32_t security = 0xFFFFFFFF, classCell = 0xFFFFFFFF;
    std::uint16_t classLength = 0;
    std::int32_t nameLength = -1;  // >= 0: stored instead of the name's length
};

struct VkFields {
    std::string name{};
    std::uint32_t dataLength = 0;  // as stored, inline bit included
    std::uint32_t dataCell = 0;
    std::uint32_t type = 3;
    std::uint16_t flags = 1;
    std::int32_t nameLength = -1;
};

class HiveBuilder {
public:
    explicit HiveBuilder(std::uint32_t minorVersion = 5) : minor_(minorVersion) {}
    // Told here on its own, not taken from the library: a builder that shared
    // the rule would follow a fault in it and hide it.
    std::uint32_t Payload() const { return minor_ == 1 ? 8 : 4; }

    // A new bin; the rest of the bin before it becomes one free cell.
    std::uint32_t AddBin(std::uint32_t size = 4096);
    // A cell in the current bin (a new bin when it doesn't fit). cellSize 0:
    // payload and header rounded up to 8. A longer payload is cut to the cell.
    std::uint32_t AddCell(const Bytes& payload, bool allocated = true, std::uint32_t cellSize = 0);
    std::uint32_t AddFree(std::uint32_t cellSize) { return AddCell({}, false, cellSize); }
    // Cells of these sizes in a row; a negative size is allocated, a positive one free.
    void AddCells(std::initializer_list<std::int32_t> sizes);
    // Ends the current bin: its rest becomes one free cell, or an allocated
    // one where a test wants no free space at all.
    void CloseBin(bool allocated = false);

    std::uint32_t AddNk(const NkFields& fields, std::uint32_t cellSize = 0);
    std::uint32_t AddVk(const VkFields& fields, std::uint32_t cellSize = 0);
    std::uint32_t AddSk(std::uint32_t next, std::uint32_t prev, std::uint32_t refCount, std::uint32_t cellSize = 0);
    // "lf"/"lh" take 8-byte entries with hints from names; "li"/"ri" (or any
    // other signature) 4-byte entries. count < 0: the number of entries.
    std::uint32_t AddList(const char* signature, const std::vector<std::uint32_t>& entries,
                          const std::vector<std::string>& names = {}, std::uint32_t cellSize = 0, int count = -1);
    // A value list or segment list: bare offsets.
    std::uint32_t AddOffsets(const std::vector<std::uint32_t>& offsets, std::uint32_t cellSize = 0);
    std::uint32_t AddDb(std::uint16_t segmentCount, std::uint32_t segmentList, std::uint32_t cellSize = 0);
    // Segments, their list and the db record; gives the db's offset.
    std::uint32_t AddBigData(const Bytes& data);

    // Lays out root and everything below it with one sk shared by all keys,
    // sets RootCell, and gives the root's offset.
    std::uint32_t AddTree(const TreeKey& root);
    // The nk of a key of the tree by its path below the root ("" root, "A\\B").
    std::uint32_t KeyOffset(const std::string& path) const;
    std::uint32_t TreeSecurity() const { return treeSecurity_; }

    void SetRoot(std::uint32_t cell) { root_ = cell; }
    void PatchArea(std::uint32_t areaOffset, const Bytes& bytes);
    void Patch16(std::uint32_t cell, std::uint32_t field, std::uint16_t value);  // field: from the payload start
    void Patch32(std::uint32_t cell, std::uint32_t field, std::uint32_t value);
    void SetCellSize(std::uint32_t cell, std::int32_t size);
    void SetBinSize(std::uint32_t bin, std::uint32_t size);
    void BreakBinSignature(std::uint32_t bin) { PatchArea(bin, {'x'}); }

    void SetChecksumValid(bool valid) { checksumValid_ = valid; }
    void SetBinsSize(std::int64_t size) { binsSize_ = size; }  // -1: the real length
    void SetSignature(const std::string& regf) { signature_ = regf; }

    // Base block and bins; the builder stays open for more.
    Bytes Build() const;
    std::uint32_t BinsSize() const { return static_cast<std::uint32_t>(area_.size()); }

private:
    std::uint32_t LayOutKey(const TreeKey& key, std::uint32_t parent, const std::string& path);
    std::uint32_t LayOutValue(const TreeValue& value);

    std::uint32_t minor_;
    Bytes area_;
    std::uint32_t binStart_ = 0, binEnd_ = 0, position_ = 0;
    std::uint32_t lastCell_ = 0xFFFFFFFF;  // for PrevLink in MinorVersion 1
    std::uint32_t root_ = 0xFFFFFFFF, treeSecurity_ = 0xFFFFFFFF;
    bool checksumValid_ = true;
    std::int64_t binsSize_ = -1;
    std::string signature_ = "regf";
    std::vector<std::pair<std::string, std::uint32_t>> keyOffsets_;
};

// The lh hash and the base block checksum, worked out independently of the library.
std::uint32_t LhHash(const std::string& name);
std::uint32_t ChecksumOf(const std::uint8_t* baseBlock);

}  // namespace TamvikTest
