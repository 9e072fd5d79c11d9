#include "store/Hive.h"

#include <cstring>
#include <new>

#include "nodes/MakeNode.h"
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

Hive::Hive(const WString& fileName_, void* context, SeekOp seek, ReadOp read, WriteOp write)
    : Node(kNoCell, nullptr, nullptr, 0), closeHandle(context), fileName(fileName_) {
    storage.context = context;
    storage.seek = seek;
    storage.read = read;
    storage.write = write;
    std::memset(baseBlock, 0, sizeof baseBlock);
    std::uint64_t position = 0;
    if (!storage.seek(storage.context, &position, 0)) return;
    std::uint32_t count = 1;
    // Whatever arrives stands in the image; VerifyBaseBlock judges it.
    storage.read(storage.context, baseBlock, kBaseBlockSize, &count);
}

Hive::~Hive() = default;

WString Hive::GetName() const { return fileName; }

Node* Hive::FindChild(Hive*, const char16_t*) {
    if (rootKey == nullptr) rootKey = MakeNode(GetRootCell(), this, this, CellKind::BySignature);
    return rootKey.get();
}

std::uint32_t Hive::MinorVersion() const { return LoadU32(baseBlock + BaseBlockField::MinorVersion); }
std::uint32_t Hive::RootCell() const { return LoadU32(baseBlock + BaseBlockField::RootCell); }
std::uint32_t Hive::BinsSize() const { return LoadU32(baseBlock + BaseBlockField::BinsSize); }
void Hive::SetBinsSize(std::uint32_t size) { StoreU32(baseBlock + BaseBlockField::BinsSize, size); }

bool Hive::VerifyBaseBlock() const {
    return LoadU32(baseBlock + BaseBlockField::Signature) == kRegfSignature &&
           LoadU32(baseBlock + BaseBlockField::Checksum) == BaseBlockChecksum(baseBlock);
}

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
    // The file position of an offset is offset + 4096, which must stay within 32 bits.
    if (areaOffset > 0xFFFFFFFFu - kBaseBlockSize) return false;
    return SeekPosition(static_cast<std::uint64_t>(areaOffset) + kBaseBlockSize);
}

bool Hive::ReadArea(std::uint32_t areaOffset, void* target, std::uint32_t size) {
    return SeekArea(areaOffset) && ReadElement(target, size);
}

bool Hive::WriteArea(std::uint32_t areaOffset, const void* source, std::uint32_t size) {
    ForgetBinSummaries(areaOffset, size);
    return SeekArea(areaOffset) && WriteElement(source, size);
}

const Hive::BinSummary* Hive::FindBinSummary(std::uint32_t binOffset) const {
    auto it = binSummaries_.find(binOffset);
    return it == binSummaries_.end() ? nullptr : &it->second;
}

std::uint64_t Hive::SkipFullBins(std::uint64_t binOffset, std::uint32_t need) const {
    auto it = binSummaries_.find(static_cast<std::uint32_t>(binOffset));
    while (it != binSummaries_.end() && it->first == binOffset && it->second.largestFree < need) {
        binOffset += it->second.binSize;
        ++it;
    }
    return binOffset;
}

std::uint64_t Hive::SkipBinsBefore(std::uint64_t binOffset, std::uint32_t cellOffset) const {
    auto it = binSummaries_.find(static_cast<std::uint32_t>(binOffset));
    while (it != binSummaries_.end() && it->first == binOffset && cellOffset >= binOffset + it->second.binSize) {
        binOffset += it->second.binSize;
        ++it;
    }
    return binOffset;
}

void Hive::StoreBinSummary(std::uint32_t binOffset, BinSummary summary) { binSummaries_[binOffset] = summary; }

namespace {
// Drops the entries of a map keyed by offset whose range [offset, offset + length(entry)) meets a write.
template <class Map, class Length>
void ForgetOverlapping(Map& map, std::uint32_t areaOffset, std::uint64_t size, Length length) {
    if (map.empty()) return;
    const std::uint64_t end = static_cast<std::uint64_t>(areaOffset) + (size == 0 ? 1 : size);
    auto it = map.upper_bound(areaOffset);
    if (it != map.begin()) --it;
    while (it != map.end() && it->first < end) {
        if (static_cast<std::uint64_t>(it->first) + length(it->second) > areaOffset) it = map.erase(it);
        else ++it;
    }
}
}  // namespace

void Hive::ForgetBinSummaries(std::uint32_t areaOffset, std::uint64_t size) {
    ForgetOverlapping(binSummaries_, areaOffset, size, [](const BinSummary& bin) { return bin.binSize; });
    ForgetOverlapping(keyNames_, areaOffset, size, [](const KnownName& known) { return known.cellSize; });
}

const WString* Hive::FindKeyName(std::uint32_t cellOffset) const {
    auto it = keyNames_.find(cellOffset);
    return it == keyNames_.end() ? nullptr : &it->second.name;
}

void Hive::StoreKeyName(std::uint32_t cellOffset, std::uint32_t cellSize, const WString& name) {
    keyNames_[cellOffset] = KnownName{cellSize, name};
}

std::unique_ptr<std::uint8_t[]> Hive::ReadAreaBlock(std::uint32_t areaOffset, std::uint32_t size) {
    if (size > kProbeThreshold) {
        std::uint64_t last = static_cast<std::uint64_t>(areaOffset) + size - 1;
        std::uint8_t probe = 0;
        if (last > 0xFFFFFFFFu - kBaseBlockSize) return nullptr;
        if (!ReadArea(static_cast<std::uint32_t>(last), &probe, 1)) return nullptr;
    }
    // nothrow: a block that can't be had is a failed read, reported as null. It
    // isn't cleared first: the read fills it whole, or the block is dropped.
    std::unique_ptr<std::uint8_t[]> block(new (std::nothrow) std::uint8_t[size == 0 ? 1 : size]);
    if (block == nullptr) return nullptr;
    if (size != 0 && !ReadArea(areaOffset, block.get(), size)) return nullptr;
    return block;
}

CellRef Hive::GetCell(std::uint32_t cellOffset) {
    CellRef ref;
    if (cellOffset == kNoCell || cellOffset < kBinHeaderSize || cellOffset >= BinsSize() || cellOffset % 8 != 0)
        return ref;
    std::uint8_t head[12];
    if (!ReadArea(cellOffset, head, sizeof head)) return ref;
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
    std::uint32_t binsSize = BinsSize();
    if (binsSize == 0) return BinRef();
    std::uint64_t walk = 0;
    while (walk < binsSize) {
        // Bins whose headers a search has read (and no write has touched since)
        // are passed by without reading them again while the cell lies behind them.
        walk = SkipBinsBefore(walk, cell.offset);
        if (walk >= binsSize) return BinRef();
        BinRef bin = GetBin(static_cast<std::uint32_t>(walk));
        if (!bin.IsValid()) return BinRef();
        std::uint64_t start = bin.BinOffset();
        std::uint64_t size = bin.BinSize();
        if (cell.offset >= start && cell.offset < start + size) return bin;
        // A bin of size 0 gives no step forward: the walk ends there.
        if (size == 0) return BinRef();
        walk += size;
    }
    return BinRef();
}

void Hive::WriteBaseBlock() {
    StoreU32(baseBlock + BaseBlockField::Checksum, BaseBlockChecksum(baseBlock));
    if (SeekPosition(0)) WriteElement(baseBlock, kBaseBlockSize);
}

void Hive::WriteCell(std::uint32_t cellOffset, const std::uint8_t* image, std::uint32_t size) {
    WriteBaseBlock();
    WriteArea(cellOffset, image, size);
}

}  // namespace Tamvik
