// One open hive: the base block image, the storage, and the answers to "what
// stands at this cell offset" and "in which bin does this cell lie".
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "store/Format.h"
#include "store/Node.h"
#include "store/StorageOps.h"

namespace Tamvik {

// What was found at a cell offset: a by-value copy that doesn't follow the file.
struct CellRef {
    std::uint32_t offset = kNoCell;
    std::int32_t size = 0;
    std::uint32_t word1 = 0;
    std::uint32_t word2 = 0;
    StorageOps* storage = nullptr;

    bool IsValid() const { return offset != kNoCell && storage != nullptr; }
    // Valid and allocated: the only kind of cell a reference may lead to.
    bool IsUsable() const { return IsValid() && size < 0; }
    // Magnitude of the size, as a step or a length.
    std::uint32_t Magnitude() const {
        return size < 0 ? 0u - static_cast<std::uint32_t>(size) : static_cast<std::uint32_t>(size);
    }
    void Invalidate() {
        offset = kNoCell;
        storage = nullptr;
    }
};

// The same for a bin: its offset and a copy of its 32-byte header.
struct BinRef {
    std::uint32_t offset = kNoCell;
    std::uint8_t header[kBinHeaderSize] = {};
    StorageOps* storage = nullptr;

    bool IsValid() const { return offset != kNoCell && storage != nullptr; }
    std::uint32_t Signature() const;
    std::uint32_t BinOffset() const;
    std::uint32_t BinSize() const;
};

class Hive : public Node {
public:
    Hive(const WString& fileName, void* context, SeekOp seek, ReadOp read, WriteOp write);
    ~Hive() override;

    WString GetName() const override;
    // Gives the root key, whatever the name: the first component under a hive.
    Node* FindChild(Hive* hive, const char16_t* name) override;

    bool VerifyBaseBlock() const;
    CellRef GetCell(std::uint32_t cellOffset);
    CellRef GetRootCell();
    BinRef GetBin(std::uint32_t binOffset);
    BinRef FindBin(const CellRef& cell);
    void WriteBaseBlock();
    void WriteCell(std::uint32_t cellOffset, const std::uint8_t* image, std::uint32_t size);

    std::uint32_t MinorVersion() const;
    std::uint32_t RootCell() const;
    std::uint32_t BinsSize() const;
    void SetBinsSize(std::uint32_t size);

    // Transfers at an offset of the bins area: a seek of their own, then one
    // element of the whole size. Positions that would pass 32 bits fail.
    bool SeekArea(std::uint32_t areaOffset);
    bool ReadArea(std::uint32_t areaOffset, void* target, std::uint32_t size);
    bool WriteArea(std::uint32_t areaOffset, const void* source, std::uint32_t size);
    // Reads size bytes into a new array; a length that the storage can't
    // supply is found out before a large array is allocated.
    std::unique_ptr<std::uint8_t[]> ReadAreaBlock(std::uint32_t areaOffset, std::uint32_t size);

    std::uint8_t baseBlock[kBaseBlockSize];
    void* closeHandle;
    StorageOps storage;
    WString fileName;
    std::unique_ptr<Node> rootKey;
    // What the last search learnt of a bin: its size and its largest free cell
    // that lies inside it. A write into the bin drops the entry, so it always
    // agrees with the file; it lets a search pass by a full bin without reading it.
    struct BinSummary {
        std::uint32_t binSize;
        std::uint32_t largestFree;
    };
    const BinSummary* FindBinSummary(std::uint32_t binOffset) const;
    // From binOffset on, passes by the run of bins known to have no free cell
    // of need bytes; gives the offset of the first bin that has to be read.
    std::uint64_t SkipFullBins(std::uint64_t binOffset, std::uint32_t need) const;
    // The same for bins that lie wholly before a cell offset.
    std::uint64_t SkipBinsBefore(std::uint64_t binOffset, std::uint32_t cellOffset) const;
    void StoreBinSummary(std::uint32_t binOffset, BinSummary summary);

    // Names of nk cells read so far, by cell offset; dropped by any write into
    // the cell, so a name found here is what the file holds.
    const WString* FindKeyName(std::uint32_t cellOffset) const;
    void StoreKeyName(std::uint32_t cellOffset, std::uint32_t cellSize, const WString& name);

    // Keys made by the create functions: handed to callers, owned here, and
    // released with the hive so that a caller's handle stays good until the close.
    std::vector<std::unique_ptr<Node>> createdKeys;

private:
    void ForgetBinSummaries(std::uint32_t areaOffset, std::uint64_t size);
    std::map<std::uint32_t, BinSummary> binSummaries_;
    struct KnownName {
        std::uint32_t cellSize;
        WString name;
    };
    std::map<std::uint32_t, KnownName> keyNames_;

    bool SeekPosition(std::uint64_t position);
    bool ReadElement(void* target, std::uint32_t size);
    bool WriteElement(const void* source, std::uint32_t size);
};

// Sum of the first 127 words of the base block, with 0 and 0xFFFFFFFF replaced.
std::uint32_t BaseBlockChecksum(const std::uint8_t* baseBlock);

}  // namespace Tamvik
