#include "nodes/MakeNode.h"

#include <algorithm>
#include <cstddef>
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

class NodeBlock {
public:
    // nothrow: memory that can't be had is a null node, never an exception.
    explicit NodeBlock(std::uint32_t imageSize) : block_(::operator new(kNodeRoom + imageSize, std::nothrow)) {}
    ~NodeBlock() { ::operator delete(block_); }
    NodeBlock(const NodeBlock&) = delete;
    NodeBlock& operator=(const NodeBlock&) = delete;

    explicit operator bool() const { return block_ != nullptr; }
    std::uint8_t* Image() const { return static_cast<std::uint8_t*>(block_) + kNodeRoom; }
    // Builds the node in front of the image; the block is the node's from then on.
    template <class T>
    std::unique_ptr<Node> Build(std::uint32_t offset, Node* parent, std::uint32_t size, std::uint32_t payload) {
        Node* node = new (block_) T(offset, parent, Image(), size, payload);
        block_ = nullptr;
        return std::unique_ptr<Node>(node);
    }

private:
    void* block_;
};

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
    const std::uint32_t payload = PayloadOffset(hive->MinorVersion());
    const std::optional<NodeClass> cls = ClassOfCell(block.Image(), size, payload, kind);
    if (!cls) return nullptr;
    const std::uint32_t offset = ref.offset;
    switch (*cls) {
        case NodeClass::Key: return block.Build<Key>(offset, parent, size, payload);
        case NodeClass::Value: return block.Build<Val>(offset, parent, size, payload);
        case NodeClass::ValueList: return block.Build<SubValList>(offset, parent, size, payload);
        case NodeClass::Security: return block.Build<Security>(offset, parent, size, payload);
        case NodeClass::Indirect: return block.Build<Indirect>(offset, parent, size, payload);
        case NodeClass::IndexLeaf: return block.Build<IndxLeaf>(offset, parent, size, payload);
        case NodeClass::FastLeaf: return block.Build<FastLeaf>(offset, parent, size, payload);
        case NodeClass::HashLeaf: return block.Build<HashLeaf>(offset, parent, size, payload);
        case NodeClass::PlainData: return block.Build<MidData>(offset, parent, size, payload);
        case NodeClass::BigData: return block.Build<BigData>(offset, parent, size, payload);
        case NodeClass::SegmentList: return block.Build<SubDatList>(offset, parent, size, payload);
        case NodeClass::Hive: break;
    }
    return nullptr;
}

}  // namespace Tamvik
