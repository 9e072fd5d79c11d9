#include "nodes/MakeNode.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <optional>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/Security.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {

// A node and its cell's image share one block: the node in front, in room
// that fits every class, the image behind it. One allocation per node instead
// of two; Node::operator delete gives the block back.
constexpr std::size_t kNodeRoom =
    (std::max({sizeof(Key), sizeof(Val), sizeof(SubValList), sizeof(Security), sizeof(Indirect), sizeof(IndxLeaf),
               sizeof(FastLeaf), sizeof(HashLeaf), sizeof(MidData), sizeof(BigData), sizeof(SubDatList)}) +
     alignof(std::max_align_t) - 1) /
    alignof(std::max_align_t) * alignof(std::max_align_t);

// Blocks come in a few sizes, not one per cell size: the allocator then hands
// back the block of a node just released instead of carving a new one.
constexpr std::size_t kBlockStep = 128;
constexpr std::size_t BlockSize(std::uint32_t imageSize) {
    return (kNodeRoom + imageSize + kBlockStep - 1) / kBlockStep * kBlockStep;
}

class NodeBlock {
public:
    // nothrow: memory that can't be had is a null node, never an exception.
    explicit NodeBlock(std::uint32_t imageSize) : block_(::operator new(BlockSize(imageSize), std::nothrow)) {}
    ~NodeBlock() { ::operator delete(block_); }
    NodeBlock(const NodeBlock&) = delete;
    NodeBlock& operator=(const NodeBlock&) = delete;

    explicit operator bool() const { return block_ != nullptr; }
    std::uint8_t* Image() const { return static_cast<std::uint8_t*>(block_) + kNodeRoom; }
    // Builds the node over image (its own, or bytes elsewhere); the block is the node's from then on.
    template <class T>
    std::unique_ptr<Node> Build(std::uint32_t offset, Node* parent, std::uint8_t* image, std::uint32_t size,
                                std::uint32_t payload) {
        Node* node = new (block_) T(offset, parent, image, size, payload);
        block_ = nullptr;
        return std::unique_ptr<Node>(node);
    }

private:
    void* block_;
};

// The node of the class the image holds, built in block over image; null when it holds none.
std::unique_ptr<Node> BuildOver(NodeBlock& block, std::uint32_t offset, Node* parent, std::uint8_t* image,
                                std::uint32_t size, std::uint32_t payload, CellKind kind) {
    const std::optional<NodeClass> cls = ClassOfCell(image, size, payload, kind);
    if (!cls) return nullptr;
    switch (*cls) {
        case NodeClass::Key: return block.Build<Key>(offset, parent, image, size, payload);
        case NodeClass::Value: return block.Build<Val>(offset, parent, image, size, payload);
        case NodeClass::ValueList: return block.Build<SubValList>(offset, parent, image, size, payload);
        case NodeClass::Security: return block.Build<Security>(offset, parent, image, size, payload);
        case NodeClass::Indirect: return block.Build<Indirect>(offset, parent, image, size, payload);
        case NodeClass::IndexLeaf: return block.Build<IndxLeaf>(offset, parent, image, size, payload);
        case NodeClass::FastLeaf: return block.Build<FastLeaf>(offset, parent, image, size, payload);
        case NodeClass::HashLeaf: return block.Build<HashLeaf>(offset, parent, image, size, payload);
        case NodeClass::PlainData: return block.Build<MidData>(offset, parent, image, size, payload);
        case NodeClass::BigData: return block.Build<BigData>(offset, parent, image, size, payload);
        case NodeClass::SegmentList: return block.Build<SubDatList>(offset, parent, image, size, payload);
        case NodeClass::Hive: break;
    }
    return nullptr;
}

}  // namespace

// The one child of a hive, its root key, is built here: the store knows cells, not keys.
Node* Hive::FindChild(Hive*, const char16_t*) {
    if (rootKey == nullptr) rootKey = MakeNode(GetRootCell(), this, this, CellKind::BySignature);
    return rootKey.get();
}

std::unique_ptr<Node> MakeNode(const CellRef& ref, Hive* hive, Node* parent, CellKind kind) {
    if (!ref.IsValid() || hive == nullptr) return nullptr;
    const std::uint32_t size = ref.Magnitude();
    if (!hive->Supplies(ref.offset, size)) return nullptr;
    NodeBlock block(size);
    if (!block || (size != 0 && !hive->ReadArea(ref.offset, block.Image(), size))) return nullptr;
    return BuildOver(block, ref.offset, parent, block.Image(), size, PayloadOffset(hive->MinorVersion()), kind);
}

std::unique_ptr<Node> MakeNodeFromImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    std::uint32_t size = 0;
    const std::uint8_t* bytes = hive->UsableCellBytes(cellOffset, &size);
    if (bytes == nullptr) return nullptr;
    NodeBlock block(size);
    if (!block) return nullptr;
    std::memcpy(block.Image(), bytes, size);
    return BuildOver(block, cellOffset, parent, block.Image(), size, PayloadOffset(hive->MinorVersion()), kind);
}

std::unique_ptr<Node> MakeNodeOverImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    std::uint32_t size = 0;
    const std::uint8_t* bytes = hive->UsableCellBytes(cellOffset, &size);
    if (bytes == nullptr) return nullptr;
    NodeBlock block(0);
    if (!block) return nullptr;
    // Read only (see MakeNode.h): the node's image is never written.
    return BuildOver(block, cellOffset, parent, const_cast<std::uint8_t*>(bytes), size,
                     PayloadOffset(hive->MinorVersion()), kind);
}

}  // namespace Tamvik
