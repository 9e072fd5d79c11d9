// The one place where a cell becomes a typed node.
#pragma once

#include <cstdint>
#include <memory>

#include "store/Hive.h"

namespace Tamvik {

// What the caller of MakeNode expects the cell to be.
enum class CellKind : std::uint32_t {
    BySignature,
    ValueList,
    PlainData,
    BigDataRecord,
    SegmentList,
};

// Reads the whole cell and builds the node of its class, or null. Never throws.
std::unique_ptr<Node> MakeNode(const CellRef& ref, Hive* hive, Node* parent, CellKind kind);

// Narrows an owned node to a class; a node of another class is destroyed and null given.
template <class T>
std::unique_ptr<T> NarrowNode(std::unique_ptr<Node> node) {
    T* narrowed = dynamic_cast<T*>(node.get());
    if (narrowed == nullptr) return nullptr;
    node.release();
    return std::unique_ptr<T>(narrowed);
}

// GetCell, a usable cell, MakeNode and the narrowing, in one step.
template <class T>
std::unique_ptr<T> BuildNodeAt(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    CellRef ref = hive->GetCell(cellOffset);
    if (!ref.IsUsable()) return nullptr;
    return NarrowNode<T>(MakeNode(ref, hive, parent, kind));
}

}  // namespace Tamvik
