#include "store/Hive.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "store/BinWalk.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {
// Above this size a read is first probed at its last byte, so that a damaged
// size can't make us allocate far more than the storage holds.
constexpr std::uint32_t kProbeThreshold = 1u << 20;
}  // namespace

std::uint32_t BinRef::Signature() const { return LoadU32(header + BinField::Signature); }
std::uint32_t BinRef::BinOffset() const { return LoadU32(header + BinField::BinOffset); }
std::uint32_t BinRef::BinSize() const { return LoadU32(header + BinField::BinSize); }

Hive::Hive(const WString& fileName_, std::unique_ptr<FileImage> image)
    : Node(NodeClass::Hive, kNoCell, nullptr, nullptr, 0), closeHandle(nullptr), fileName(fileName_), image_(std::move(image)),
      bins_(std::make_unique<BinIndex>(*image_)) {
    storage.context = image_.get();
    // Whatever of the base block the file holds stands in the image; VerifyBaseBlock judges it.
    std::memset(baseBlock_, 0, sizeof baseBlock_);
    const std::uint64_t held = std::min<std::uint64_t>(image_->Size(), kBaseBlockSize);
    if (held != 0) std::memcpy(baseBlock_, image_->At(0, held), held);
    header_ = BaseBlock::Decode(baseBlock_, sizeof baseBlock_);
}

Hive::Hive(const WString& fileName_, void* context, SeekOp seek, ReadOp read, WriteOp write)
    : Node(NodeClass::Hive, kNoCell, nullptr, nullptr, 0), closeHandle(context), fileName(fileName_) {
    storage.context = context;
    storage.seek = seek;
    storage.read = read;
    storage.write = write;
    std::memset(baseBlock_, 0, sizeof baseBlock_);
    // Whatever arrives stands in the image; VerifyBaseBlock judges it.
    if (SeekPosition(0)) ReadElement(baseBlock_, kBaseBlockSize);
    header_ = BaseBlock::Decode(baseBlock_, sizeof baseBlock_);
}

Hive::~Hive() {
    // The nodes go first, while what they hand over on their way can still be taken (and is not).
    closing_ = true;
    rootKey.reset();
    createdKeys.clear();
}

void Hive::ParkNames(std::uint32_t listCell, bool values, NameIndex&& names) {
    // A short list is scanned again for less than keeping its index costs.
    if (image_ == nullptr || closing_ || names.scanned < kPositionsWorthParking) return;
    if (parkedGeneration_ != generation_) {
        parked_.clear();
        parkedGeneration_ = generation_;
    }
    try {
        parked_.insert_or_assign(std::uint64_t{listCell} << 1 | values, std::move(names));
    } catch (const std::bad_alloc&) {
        // What isn't kept is learnt again.
    }
}

std::optional<NameIndex> Hive::TakeNames(std::uint32_t listCell, bool values) {
    if (parked_.empty()) return std::nullopt;
    if (parkedGeneration_ != generation_) {
        parked_.clear();
        return std::nullopt;
    }
    auto it = parked_.find(std::uint64_t{listCell} << 1 | values);
    if (it == parked_.end()) return std::nullopt;
    NameIndex names = std::move(it->second);
    parked_.erase(it);
    return names;
}

WString Hive::GetName() const { return fileName; }

void Hive::SetBinsSize(std::uint32_t size) {
    EncodeBinsSize(baseBlock_, size);
    baseBlockWritten_ = false;
    header_.binsSize = size;
    header_.computedChecksum = BaseBlockChecksum(baseBlock_);
    ++generation_;  // cells behind the old end can be had now
}

bool Hive::VerifyBaseBlock() const { return header_.Valid(); }

bool Hive::SeekPosition(std::uint64_t position) { return storage.seek(storage.context, &position, 0); }

bool Hive::ReadElement(void* target, std::uint32_t size) {
    std::uint32_t count = 1;
    return storage.read(storage.context, target, size, &count);
}

bool Hive::WriteElement(const void* source, std::uint32_t size) {
    std::uint32_t count = 1;
    return storage.write(storage.context, source, size, &count);
}

bool Hive::SeekArea(std::uint32_t areaOffset) {
    return areaOffset <= kMaxAreaOffset && SeekPosition(static_cast<std::uint64_t>(areaOffset) + kBaseBlockSize);
}

bool Hive::ReadArea(std::uint32_t areaOffset, void* target, std::uint32_t size) {
    if (image_ == nullptr) return SeekArea(areaOffset) && ReadElement(target, size);
    const std::uint8_t* bytes = areaOffset <= kMaxAreaOffset ? image_->At(areaOffset + std::uint64_t{kBaseBlockSize}, size)
                                                             : nullptr;
    if (bytes == nullptr) return false;
    if (size != 0) std::memcpy(target, bytes, size);
    return true;
}

void Hive::Touched(std::uint32_t areaOffset, std::uint64_t size) {
    bins_->Touched(areaOffset, size);
    cellWatch.Written(areaOffset, size);
    ++generation_;
}

bool Hive::WriteArea(std::uint32_t areaOffset, const void* source, std::uint32_t size) {
    if (image_ == nullptr) return SeekArea(areaOffset) && WriteElement(source, size);
    if (areaOffset > kMaxAreaOffset || !image_->Write(areaOffset + std::uint64_t{kBaseBlockSize}, source, size))
        return false;
    Touched(areaOffset, size);
    return true;
}

bool Hive::WriteNewBin(std::uint32_t areaOffset, const std::uint8_t* head, std::uint32_t headLength,
                       std::uint32_t size) {
    if (image_ == nullptr) {
        // A volume takes the bin in one write, as its device would see it.
        std::unique_ptr<std::uint8_t[]> bin(new (std::nothrow) std::uint8_t[size]());
        if (bin == nullptr) return false;
        std::memcpy(bin.get(), head, headLength);
        return WriteArea(areaOffset, bin.get(), size);
    }
    if (areaOffset > kMaxAreaOffset ||
        !image_->WriteThrough(areaOffset + std::uint64_t{kBaseBlockSize}, head, headLength, size - headLength))
        return false;
    Touched(areaOffset, size);
    return true;
}

bool Hive::Flush() { return image_ == nullptr || image_->Flush(); }

bool Hive::Sync() { return image_ == nullptr || image_->Sync(); }

bool Hive::Supplies(std::uint32_t areaOffset, std::uint32_t size) {
    if (image_ != nullptr)
        return areaOffset <= kMaxAreaOffset && image_->At(areaOffset + std::uint64_t{kBaseBlockSize}, size) != nullptr;
    if (size <= kProbeThreshold) return true;
    const std::uint64_t last = static_cast<std::uint64_t>(areaOffset) + size - 1;
    std::uint8_t probe = 0;
    return last <= kMaxAreaOffset && ReadArea(static_cast<std::uint32_t>(last), &probe, 1);
}

std::unique_ptr<std::uint8_t[]> Hive::ReadAreaBlock(std::uint32_t areaOffset, std::uint32_t size) {
    if (!Supplies(areaOffset, size)) return nullptr;
    // nothrow: a block that can't be had is a failed read, reported as null. It
    // isn't cleared first: the read fills it whole, or the block is dropped.
    std::unique_ptr<std::uint8_t[]> block(new (std::nothrow) std::uint8_t[size == 0 ? 1 : size]);
    if (block == nullptr) return nullptr;
    if (size != 0 && !ReadArea(areaOffset, block.get(), size)) return nullptr;
    return block;
}

CellRef Hive::GetCell(std::uint32_t cellOffset) {
    CellRef ref;
    if (!MayHoldCell(cellOffset)) return ref;
    std::uint8_t copied[kCellHeaderRead];
    // In memory the header is read in place; a volume reads it through its device.
    const std::uint8_t* head = AreaBytes(cellOffset, kCellHeaderRead);
    if (head == nullptr) {
        if (image_ != nullptr || !ReadArea(cellOffset, copied, sizeof copied)) return ref;
        head = copied;
    }
    ref.offset = cellOffset;
    ref.size = LoadI32(head);
    ref.word1 = LoadU32(head + 4);
    ref.word2 = LoadU32(head + 8);
    ref.storage = &storage;
    return ref;
}

CellRef Hive::GetRootCell() { return GetCell(RootCell()); }

BinRef Hive::GetBin(std::uint32_t binOffset) {
    BinRef bin;
    if (binOffset == kNoCell) return bin;
    if (!ReadArea(binOffset, bin.header, kBinHeaderSize)) return BinRef();
    bin.offset = binOffset;
    bin.storage = &storage;
    return bin;
}

BinRef Hive::FindBin(const CellRef& cell) {
    const std::uint32_t binsSize = BinsSize();
    if (image_ != nullptr) {
        std::uint32_t walkOffset = 0;
        return bins_->Locate(binsSize, cell.offset, &walkOffset) ? GetBin(walkOffset) : BinRef();
    }
    for (BinWalk bins(binsSize); bins.More();) {
        BinRef bin = GetBin(bins.At());
        if (!bin.IsValid()) return BinRef();
        // The bin its header says holds the cell, wherever the walk read that header.
        const std::uint64_t start = bin.BinOffset(), size = bin.BinSize();
        if (cell.offset >= start && cell.offset < start + size) return bin;
        bins.Next(bin.BinSize());
    }
    return BinRef();
}

void Hive::WriteBaseBlock() {
    if (image_ != nullptr && baseBlockWritten_) {
        ++generation_;
        return;
    }
    header_.storedChecksum = header_.computedChecksum = EncodeChecksum(baseBlock_);
    if (image_ != nullptr) {
        baseBlockWritten_ = image_->Write(0, baseBlock_, kBaseBlockSize);
        ++generation_;
    } else if (SeekPosition(0)) {
        WriteElement(baseBlock_, kBaseBlockSize);
    }
}

void Hive::WriteCell(std::uint32_t cellOffset, const std::uint8_t* image, std::uint32_t size) {
    WriteBaseBlock();
    WriteArea(cellOffset, image, size);
}

}  // namespace Tamvik
