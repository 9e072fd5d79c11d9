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
#include "store/NodeBlocks.h"

namespace Tamvik {

namespace {

// A node and its cell's image share one block: the node in front, in room
// that fits its class, the image behind it. One allocation per node instead
// of two; Node::operator delete gives the block back.
constexpr std::size_t Room(std::size_t nodeSize) {
    return (nodeSize + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);
}
// Room for any class: for a cell whose class is known only once it is read.
constexpr std::size_t kNodeRoom =
    Room(std::max({sizeof(Key), sizeof(Val), sizeof(SubValList), sizeof(Security), sizeof(Indirect), sizeof(IndxLeaf),
                   sizeof(FastLeaf), sizeof(HashLeaf), sizeof(MidData), sizeof(BigData), sizeof(SubDatList)}));

template <class T>
constexpr std::size_t kRoomOf = Room(sizeof(T));

// Room for a node of that class: a key handle's block, the one made most, is
// then no larger than a key needs.
std::size_t RoomFor(NodeClass cls) {
    switch (cls) {
        case NodeClass::Key: return kRoomOf<Key>;
        case NodeClass::Value: return kRoomOf<Val>;
        case NodeClass::ValueList: return kRoomOf<SubValList>;
        case NodeClass::Security: return kRoomOf<Security>;
        case NodeClass::Indirect: return kRoomOf<Indirect>;
        case NodeClass::IndexLeaf: return kRoomOf<IndxLeaf>;
        case NodeClass::FastLeaf: return kRoomOf<FastLeaf>;
        case NodeClass::HashLeaf: return kRoomOf<HashLeaf>;
        case NodeClass::PlainData: return kRoomOf<MidData>;
        case NodeClass::BigData: return kRoomOf<BigData>;
        case NodeClass::SegmentList: return kRoomOf<SubDatList>;
        case NodeClass::Hive: break;
    }
    return kNodeRoom;
}

// Blocks come in a few sizes, not one per cell size: a block of a node just
// released is then handed back instead of a new one carved.
constexpr std::size_t BlockSteps(std::size_t room, std::uint32_t imageSize) {
    return (room + imageSize + kNodeBlockStep - 1) / kNodeBlockStep;
}

class NodeBlock {
public:
    // nothrow: memory that can't be had is a null node, never an exception.
    NodeBlock(std::size_t room, std::uint32_t imageSize)
        : steps_(BlockSteps(room, imageSize)), block_(TakeNodeBlock(steps_)), room_(room) {}
    ~NodeBlock() { GiveNodeBlock(block_, steps_); }
    NodeBlock(const NodeBlock&) = delete;
    NodeBlock& operator=(const NodeBlock&) = delete;

    explicit operator bool() const { return block_ != nullptr; }
    std::uint8_t* Image() const { return static_cast<std::uint8_t*>(block_) + room_; }
    // Builds the node over image (its own, or bytes elsewhere); the block is the node's from then on.
    template <class T>
    std::unique_ptr<Node> Build(std::uint32_t offset, Node* parent, std::uint8_t* image, std::uint32_t size,
                                std::uint32_t payload) {
        static_assert(kRoomOf<T> <= kNodeRoom);
        Node* node = new (block_) T(offset, parent, image, size, payload);
        node->OwnBlock(static_cast<std::uint32_t>(steps_));
        block_ = nullptr;
        return std::unique_ptr<Node>(node);
    }

private:
    std::size_t steps_;
    void* block_;
    std::size_t room_;
};

// The node of class cls, built in block over image. The block has room for
// that class.
std::unique_ptr<Node> BuildOver(NodeBlock& block, NodeClass cls, std::uint32_t offset, Node* parent,
                                std::uint8_t* image, std::uint32_t size, std::uint32_t payload) {
    switch (cls) {
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
Node* Hive::FindChild(Hive*, std::u16string_view) {
    if (rootKey == nullptr) rootKey = MakeNode(GetRootCell(), this, this, CellKind::BySignature);
    return rootKey.get();
}

std::unique_ptr<Node> MakeNode(const CellRef& ref, Hive* hive, Node* parent, CellKind kind) {
    if (!ref.IsValid() || hive == nullptr) return nullptr;
    const std::uint32_t size = ref.Magnitude();
    if (!hive->Supplies(ref.offset, size)) return nullptr;
    // The class is known only once the cell is read, into the block.
    NodeBlock block(kNodeRoom, size);
    if (!block || (size != 0 && !hive->ReadArea(ref.offset, block.Image(), size))) return nullptr;
    const std::uint32_t payload = PayloadOffset(hive->MinorVersion());
    const std::optional<NodeClass> cls = ClassOfCell(block.Image(), size, payload, kind);
    if (!cls) return nullptr;
    return BuildOver(block, *cls, ref.offset, parent, block.Image(), size, payload);
}

std::optional<ImageCell> ClassifyInImage(Hive* hive, std::uint32_t cellOffset, CellKind kind) {
    std::uint32_t size = 0;
    const std::uint8_t* bytes = hive->UsableCellBytes(cellOffset, &size);
    if (bytes == nullptr) return std::nullopt;
    const std::uint32_t payload = PayloadOffset(hive->MinorVersion());
    const std::optional<NodeClass> cls = ClassOfCell(bytes, size, payload, kind);
    if (!cls) return std::nullopt;
    return ImageCell{bytes, size, payload, *cls};
}

namespace {
// The node of a classified cell standing over the image's bytes. Read only
// (see MakeNode.h): the node's image is never written.
std::unique_ptr<Node> BuildOverImage(const ImageCell& cell, std::uint32_t cellOffset, Node* parent) {
    NodeBlock block(RoomFor(cell.cls), 0);
    if (!block) return nullptr;
    return BuildOver(block, cell.cls, cellOffset, parent, const_cast<std::uint8_t*>(cell.bytes), cell.size,
                     cell.payload);
}
}  // namespace

std::unique_ptr<Node> MakeNodeFromImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    const std::optional<ImageCell> cell = ClassifyInImage(hive, cellOffset, kind);
    if (!cell) return nullptr;
    // The image of a hive opened read-only never changes, so a key there, the
    // node a walk builds most, needs no copy: it stands over the image until
    // an edit in memory changes it (see Key::SetField).
    if (cell->cls == NodeClass::Key && hive->Image()->ReadOnly()) {
        std::unique_ptr<Node> key = BuildOverImage(*cell, cellOffset, parent);
        if (key != nullptr) static_cast<Key*>(key.get())->ShareReadOnlyImage();
        return key;
    }
    NodeBlock block(RoomFor(cell->cls), cell->size);
    if (!block) return nullptr;
    std::memcpy(block.Image(), cell->bytes, cell->size);
    return BuildOver(block, cell->cls, cellOffset, parent, block.Image(), cell->size, cell->payload);
}

std::unique_ptr<Node> MakeNodeOverImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    const std::optional<ImageCell> cell = ClassifyInImage(hive, cellOffset, kind);
    if (!cell) return nullptr;
    return BuildOverImage(*cell, cellOffset, parent);
}

}  // namespace Tamvik
