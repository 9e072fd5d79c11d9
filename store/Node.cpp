#include "store/Node.h"

#include <cstring>
#include <vector>

#include "store/ByteOrder.h"
#include "store/Hive.h"

namespace Tamvik {

Node::Node(std::uint32_t offset_, Node* parent_, std::unique_ptr<std::uint8_t[]> buffer_, std::uint32_t bufferSize_)
    : offset(offset_), parent(parent_), buffer(std::move(buffer_)), bufferSize(bufferSize_) {}

Node::~Node() = default;

Node* Node::GetParent() const { return parent; }
std::uint8_t* Node::GetBuffer() const { return buffer.get(); }
std::uint32_t Node::GetOffset() const { return offset; }
WString Node::GetName() const { return WString(); }

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

Node* Node::GetRoot() {
    Node* node = this;
    while (node->GetParent() != nullptr) node = node->GetParent();
    return node;
}

Node* Node::FindChild(Hive*, const char16_t*) { return nullptr; }

void Node::Save(Hive* hive) {
    if (hive == nullptr) return;
    CellRef cell = hive->GetCell(offset);
    if (!cell.IsUsable()) return;
    // A cell that has been released and given out again at another size is no
    // longer this image's cell: writing it would damage its new owner.
    if (cell.Magnitude() != bufferSize || buffer == nullptr) return;
    hive->WriteArea(offset, buffer.get(), bufferSize);
}


}  // namespace Tamvik
