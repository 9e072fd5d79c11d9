// One open hive: the base block image, the storage, and the answers to "what
// stands at this cell offset" and "in which bin does this cell lie". A hive in
// a file is held in memory (FileImage) and answers from there, with an index
// of its bins; a hive on a volume gets every byte through the caller's device,
// one seek and one transfer at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "store/BaseBlock.h"
#include "store/BinIndex.h"
#include "store/ByteOrder.h"
#include "store/FileImage.h"
#include "store/Format.h"
#include "store/NameIndex.h"
#include "store/Node.h"
#include "store/StorageOps.h"
#include "store/WriteWatch.h"

namespace Tamvik {

// Bytes GetCell reads at a cell offset: CellSize and the two words behind it.
constexpr std::uint32_t kCellHeaderRead = 12;

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
    std::uint32_t Magnitude() const { return CellMagnitude(size); }
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
    static bool Holds(NodeClass c) { return c == NodeClass::Hive; }
    // A hive in a file, read into memory.
    Hive(const WString& fileName, std::unique_ptr<FileImage> image);
    // A hive on a volume, reached through the storage operations.
    Hive(const WString& fileName, void* context, SeekOp seek, ReadOp read, WriteOp write);
    ~Hive() override;

    WString GetName() const override;
    // Gives the root key, whatever the name: the first component under a hive.
    // Built by the node tree, which knows keys (nodes/MakeNode.cpp).
    Node* FindChild(Hive* hive, std::u16string_view name) override;

    bool VerifyBaseBlock() const;
    CellRef GetCell(std::uint32_t cellOffset);
    CellRef GetRootCell();
    BinRef GetBin(std::uint32_t binOffset);
    BinRef FindBin(const CellRef& cell);
    void WriteBaseBlock();
    void WriteCell(std::uint32_t cellOffset, const std::uint8_t* image, std::uint32_t size);

    // The base block as read at the open, with what the library changed since.
    const BaseBlock& Header() const { return header_; }
    std::uint32_t MinorVersion() const { return header_.minorVersion; }
    std::uint32_t RootCell() const { return header_.rootCell; }
    std::uint32_t BinsSize() const { return header_.binsSize; }
    void SetBinsSize(std::uint32_t size);
    // The least size of a bin the allocator adds: 0 for the size the cell
    // needs, as the exported functions grow a hive; more for a caller that
    // adds many cells, so that the file grows in fewer, larger steps.
    std::uint32_t NewBinFloor() const { return newBinFloor_; }
    void SetNewBinFloor(std::uint32_t bytes) { newBinFloor_ = bytes; }

    // Transfers at an offset of the bins area, all or nothing; positions that
    // would pass 32 bits fail.
    bool ReadArea(std::uint32_t areaOffset, void* target, std::uint32_t size);
    bool WriteArea(std::uint32_t areaOffset, const void* source, std::uint32_t size);
    // Whether the storage can supply size bytes at areaOffset, found out
    // before memory for them is had: on a volume a large read is first probed
    // at its last byte, so that a damaged size can't make us allocate far more
    // than the storage holds.
    bool Supplies(std::uint32_t areaOffset, std::uint32_t size);
    // Reads size bytes into a new array, after Supplies.
    std::unique_ptr<std::uint8_t[]> ReadAreaBlock(std::uint32_t areaOffset, std::uint32_t size);
    // A new bin behind the last, in the file at once: false when the storage
    // refuses it. head holds its first headLength bytes; the rest are zeros.
    bool WriteNewBin(std::uint32_t areaOffset, const std::uint8_t* head, std::uint32_t headLength, std::uint32_t size);

    // The file's bytes in memory, or null for a hive on a volume. Only then
    // may caches and indexes answer in place of reads: a volume gets every
    // read and write its device would see without them.
    FileImage* Image() const { return image_.get(); }
    BinIndex* Bins() const { return bins_.get(); }
    // The bytes of the bins area at an offset, in place, for a hive in memory;
    // null on a volume or when the file doesn't hold them all. They stay as
    // they are until the next write.
    const std::uint8_t* AreaBytes(std::uint32_t areaOffset, std::uint32_t size) const {
        if (image_ == nullptr || areaOffset > kMaxAreaOffset) return nullptr;
        return image_->At(areaOffset + std::uint64_t{kBaseBlockSize}, size);
    }
    // The bytes of an allocated cell, header included, in place, and their
    // count: for a hive in memory, where GetCell gives a usable cell and the
    // file holds all of it; null otherwise, and always on a volume.
    const std::uint8_t* UsableCellBytes(std::uint32_t cellOffset, std::uint32_t* size) const {
        if (!MayHoldCell(cellOffset)) return nullptr;
        const std::uint8_t* head = AreaBytes(cellOffset, kCellHeaderRead);
        if (head == nullptr || LoadI32(head) >= 0) return nullptr;
        *size = CellMagnitude(LoadI32(head));
        return AreaBytes(cellOffset, *size);
    }
    // Whether a cell can start at cellOffset: inside the bins, behind the
    // first bin's header, aligned.
    bool MayHoldCell(std::uint32_t cellOffset) const {
        return cellOffset != kNoCell && cellOffset >= kBinHeaderSize && cellOffset < BinsSize() &&
               cellOffset % kCellAlignment == 0;
    }
    // Counts the writes to a hive in memory: what was built from its bytes at
    // one count is what would be built from them while the count stays.
    std::uint64_t Generation() const { return generation_; }
    // Hands what this call changed to the file; makes it durable as well.
    bool Flush();
    bool Sync();

    void* closeHandle;
    StorageOps storage;
    WString fileName;
    std::unique_ptr<Node> rootKey;

    // What the scans of a list learnt, handed over when its node goes, for the
    // next node of the same list cell (values: a value list) to take back.
    // Kept while the hive takes no write; hives in memory only.
    static constexpr std::uint64_t kPositionsWorthParking = 32;
    void ParkNames(std::uint32_t listCell, bool values, NameIndex&& names);
    std::optional<NameIndex> TakeNames(std::uint32_t listCell, bool values);

    // Keys made by the create functions: handed to callers, owned here, and
    // released with the hive so that a caller's handle stays good until the close.
    std::vector<std::unique_ptr<Node>> createdKeys;
    // What the edits keep between calls on this hive; only they know its type.
    std::shared_ptr<void> editMemo;
    // The cells that memo holds a reading of, marked by the writes over them.
    WriteWatch cellWatch;

private:
    bool SeekArea(std::uint32_t areaOffset);
    bool SeekPosition(std::uint64_t position);
    bool ReadElement(void* target, std::uint32_t size);
    bool WriteElement(const void* source, std::uint32_t size);
    void Touched(std::uint32_t areaOffset, std::uint64_t size);

    // The block is written back whole, so its image is kept whole.
    std::uint8_t baseBlock_[kBaseBlockSize];
    // The image holds baseBlock_ as it stands: writing it again would change nothing.
    bool baseBlockWritten_ = false;
    BaseBlock header_;
    std::unique_ptr<FileImage> image_;
    std::unique_ptr<BinIndex> bins_;
    std::uint64_t generation_ = 0;
    std::uint32_t newBinFloor_ = 0;
    std::unordered_map<std::uint64_t, NameIndex> parked_;
    std::uint64_t parkedGeneration_ = 0;
    bool closing_ = false;
};

}  // namespace Tamvik
