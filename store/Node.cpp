#include "store/Node.h"

#include <cstring>
#include <vector>

#include "store/ByteOrder.h"
#include "store/Hive.h"
#include "store/LiveHandles.h"
#include "store/NodeBlocks.h"

namespace Tamvik {

Node::Node(NodeClass cls, std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_, std::uint32_t bufferSize_)
    : offset(offset_), parent(parent_), root(parent_ != nullptr ? parent_->root : this), buffer(buffer_),
      bufferSize(bufferSize_), class_(cls) {}

Node::~Node() = default;

void Node::operator delete(Node* node, std::destroying_delete_t) {
    const bool handle = node->published;
    const std::uint32_t steps = node->blockSteps;
    node->~Node();
    if (handle) ReleaseHandleBlock(node, steps);
    else if (steps != 0) GiveNodeBlock(node, steps);
    else ::operator delete(static_cast<void*>(node));
}

Node* Node::GetParent() const { return parent; }
std::uint8_t* Node::GetBuffer() const { return buffer; }
std::uint32_t Node::GetOffset() const { return offset; }
WString Node::GetName() const { return WString(); }

bool Node::NameMatches(std::u16string_view upper) const { return UpperCaseName(GetName()) == upper; }

WString Node::GetPath() const {
    std::vector<const Node*> chain;
    for (const Node* node = this; node != nullptr; node = node->GetParent()) chain.push_back(node);
    WString path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        path += u'\\';
        path += (*it)->GetName();
    }
    return path;
}

Node* Node::FindChild(Hive*, std::u16string_view) { return nullptr; }

void Node::Save(Hive* hive) {
    if (hive == nullptr) return;
    CellRef cell = hive->GetCell(offset);
    if (!cell.IsUsable()) return;
    // A cell that has been released and given out again at another size is no
    // longer this image's cell: writing it would damage its new owner.
    if (cell.Magnitude() != bufferSize || buffer == nullptr) return;
    hive->WriteArea(offset, buffer, bufferSize);
}


}  // namespace Tamvik
