// Base of every in-memory mirror of a hive element: the hive itself, keys,
// values, lists and data. A node holds a private image of its whole cell,
// which the factory places in the same block of memory as the node.
#pragma once

#include <cstdint>
#include <new>
#include <string_view>

#include "store/Platform.h"

namespace Tamvik {

class Hive;

// The class of a node, for the tests that narrow a node to its class: the
// entry points and lists make them at every step, and a run-time type test
// would cost more than the step itself.
enum class NodeClass : std::uint8_t {
    Hive,
    Key,
    Value,
    ValueList,
    Security,
    Indirect,
    IndexLeaf,
    FastLeaf,
    HashLeaf,
    PlainData,
    BigData,
    SegmentList,
};

class Node {
public:
    // cls: the class of the node being built, which Class gives.
    // buffer: the cell's image, bufferSize bytes, which must outlive the node.
    Node(NodeClass cls, std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    // A node and its image are one block of memory (see MakeNode), released
    // as one. The block of a node that was a handle is held back a while
    // (see LiveHandles.h), so that the next node isn't built at the address
    // a caller may still hold.
    static void operator delete(Node* node, std::destroying_delete_t);

    // Not virtual: the entry points and lists narrow nodes at every step.
    NodeClass Class() const { return class_; }

    virtual Node* GetParent() const;
    virtual std::uint8_t* GetBuffer() const;
    virtual std::uint32_t GetOffset() const;
    virtual WString GetName() const;
    // Whether UpperCaseName of GetName is upper, found without building either.
    virtual bool NameMatches(std::u16string_view upper) const;
    virtual WString GetPath() const;
    // The top of the parent chain (the node itself at the top). Not virtual:
    // every entry point asks it to find its hive.
    Node* GetRoot() const { return root; }
    virtual Node* FindChild(Hive* hive, std::u16string_view upper);
    // Writes the image back over the cell, if the cell is still allocated at the image's size.
    virtual void Save(Hive* hive);
    virtual ~Node();

    std::uint32_t GetBufferSize() const { return bufferSize; }
    // Whether the node was handed to a caller as a handle (see LiveHandles.h).
    bool Published() const { return published; }
    void MarkPublished() { published = true; }
    // The node stands in a block of that many steps from TakeNodeBlock (see
    // NodeBlocks.h), which its delete gives back there.
    void OwnBlock(std::uint32_t steps) { blockSteps = steps; }
    // The top of the parent chain when it is another node: safe in a
    // destructor, where asking a parentless node its own class is not.
    Node* RootAbove() const { return root != this ? root : nullptr; }

protected:
    std::uint32_t offset;
    std::uint32_t blockSteps = 0;  // see OwnBlock; 0: the node came from plain new, or is no block's
    Node* parent;  // not owned
    Node* root;    // the top of the parent chain, fixed with it
    std::uint8_t* buffer;  // not owned: it lives in the node's block
    std::uint32_t bufferSize;  // bytes in buffer; the bound of every access to the image

private:
    bool published = false;
    NodeClass class_;
};

// The node as a T when its class is T or derives from it, else null.
template <class T>
T* NodeAs(Node* node) {
    return node != nullptr && T::Holds(node->Class()) ? static_cast<T*>(node) : nullptr;
}
template <class T>
const T* NodeAs(const Node* node) {
    return node != nullptr && T::Holds(node->Class()) ? static_cast<const T*>(node) : nullptr;
}

}  // namespace Tamvik
