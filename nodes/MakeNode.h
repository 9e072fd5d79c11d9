// The one place where a cell becomes a typed node.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "store/ByteOrder.h"
#include "store/Hive.h"
#include "store/Record.h"

namespace Tamvik {

// What the caller of MakeNode expects the cell to be.
enum class CellKind : std::uint32_t {
    BySignature,
    ValueList,
    PlainData,
    BigDataRecord,
    SegmentList,
};

// The class MakeNode builds from a cell's image, or nothing. Inline: each
// caller expects one class, and its own copy of these tests then predicts well.
inline std::optional<NodeClass> ClassOfCell(const std::uint8_t* image, std::uint32_t size, std::uint32_t payload,
                                            CellKind kind) {
    switch (kind) {
        case CellKind::ValueList: return NodeClass::ValueList;
        case CellKind::PlainData: return NodeClass::PlainData;
        case CellKind::BigDataRecord: return NodeClass::BigData;
        case CellKind::SegmentList: return NodeClass::SegmentList;
        case CellKind::BySignature: break;
        default: return std::nullopt;
    }
    // A cell too small to hold a signature at the payload holds none.
    if (size < payload + 2) return std::nullopt;
    const std::uint16_t signature = LoadU16(image + payload);
    if (size >= kMinKeyCell && signature == kNkSignature) return NodeClass::Key;
    if (size >= kMinValueCell && signature == kVkSignature) return NodeClass::Value;
    if (size >= kMinSecurityCell && signature == kSkSignature) return NodeClass::Security;
    if (signature == kRiSignature) return NodeClass::Indirect;
    if (signature == kLiSignature) return NodeClass::IndexLeaf;
    if (signature == kLfSignature) return NodeClass::FastLeaf;
    if (signature == kLhSignature) return NodeClass::HashLeaf;
    return std::nullopt;
}

// A usable cell of a hive in memory, in place, with the class of node it
// holds; nothing on a volume, or when no node of kind can be built there.
struct ImageCell {
    const std::uint8_t* bytes;
    std::uint32_t size;
    std::uint32_t payload;
    NodeClass cls;

    // The record in place, for reading only: it is never written through.
    RecordRef Record() const { return PayloadOf(const_cast<std::uint8_t*>(bytes), size, payload); }
};
std::optional<ImageCell> ClassifyInImage(Hive* hive, std::uint32_t cellOffset, CellKind kind);
// The cell when it holds a node of class cls by its signature; else nothing.
inline std::optional<ImageCell> ImageCellOf(Hive* hive, std::uint32_t cellOffset, NodeClass cls) {
    std::optional<ImageCell> cell = ClassifyInImage(hive, cellOffset, CellKind::BySignature);
    if (!cell || cell->cls != cls) return std::nullopt;
    return cell;
}

// Reads the whole cell and builds the node of its class, or null. Never throws.
std::unique_ptr<Node> MakeNode(const CellRef& ref, Hive* hive, Node* parent, CellKind kind);

// The same for a cell of a hive in memory, without reading it: the node
// stands over the image's bytes. For a node that is only read, and only while
// the hive's Generation stays (a write may change or move those bytes). Null
// on a volume.
std::unique_ptr<Node> MakeNodeOverImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind);

// MakeNode of the cell at cellOffset of a hive in memory, its header and
// bytes read in place in one step: the node BuildNodeAt gives there.
std::unique_ptr<Node> MakeNodeFromImage(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind);

// Narrows an owned node to a class; a node of another class is destroyed and null given.
template <class T>
std::unique_ptr<T> NarrowNode(std::unique_ptr<Node> node) {
    T* narrowed = NodeAs<T>(node.get());
    if (narrowed == nullptr) return nullptr;
    node.release();
    return std::unique_ptr<T>(narrowed);
}

// GetCell, a usable cell, MakeNode and the narrowing, in one step.
template <class T>
std::unique_ptr<T> BuildNodeAt(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
    if (hive->Image() != nullptr) return NarrowNode<T>(MakeNodeFromImage(hive, cellOffset, parent, kind));
    CellRef ref = hive->GetCell(cellOffset);
    if (!ref.IsUsable()) return nullptr;
    return NarrowNode<T>(MakeNode(ref, hive, parent, kind));
}

// A node of class T standing over a cell's bytes that it neither owns nor
// copies: for reading only, while those bytes stay. It exists when the cell
// holds a T, by the same test MakeNode makes.
template <class T>
class ImageView {
public:
    ImageView() = default;
    ImageView(std::uint32_t offset, Node* parent, const std::uint8_t* image, std::uint32_t size,
              std::uint32_t payload, CellKind kind) {
        Emplace(offset, parent, image, size, payload, kind);
    }
    // Builds the view when none stands yet; gives it, or null.
    T* Emplace(std::uint32_t offset, Node* parent, const std::uint8_t* image, std::uint32_t size,
               std::uint32_t payload, CellKind kind) {
        if (image == nullptr || view_) return get();
        const std::optional<NodeClass> cls = ClassOfCell(image, size, payload, kind);
        if (!cls || !T::Holds(*cls)) return nullptr;
        // Read only: the view's image is never written (see above).
        view_.emplace(offset, parent, const_cast<std::uint8_t*>(image), size, payload);
        return &*view_;
    }
    ImageView(const ImageView&) = delete;
    ImageView& operator=(const ImageView&) = delete;

    T* get() { return view_ ? &*view_ : nullptr; }
    T* operator->() { return &*view_; }
    explicit operator bool() const { return view_.has_value(); }

private:
    std::optional<T> view_;
};

// A node for one step of a call that writes nothing while it lives: it exists
// exactly when BuildNodeAt would give a node. In a hive in memory it stands
// over the cell's bytes in the image, without a copy or an allocation; on a
// volume it is built by BuildNodeAt, with the same device calls. It must not
// be written or saved.
template <class T>
class Transient {
public:
    Transient(Hive* hive, std::uint32_t cellOffset, Node* parent, CellKind kind) {
        if (hive->Image() == nullptr) {
            owned_ = BuildNodeAt<T>(hive, cellOffset, parent, kind);
            node_ = owned_.get();
            return;
        }
        std::uint32_t size = 0;
        const std::uint8_t* bytes = hive->UsableCellBytes(cellOffset, &size);
        if (bytes == nullptr) return;
        node_ = view_.Emplace(cellOffset, parent, bytes, size, PayloadOffset(hive->MinorVersion()), kind);
    }
    Transient(const Transient&) = delete;
    Transient& operator=(const Transient&) = delete;

    T* get() const { return node_; }
    T* operator->() const { return node_; }
    explicit operator bool() const { return node_ != nullptr; }

private:
    std::unique_ptr<T> owned_;
    ImageView<T> view_;
    T* node_ = nullptr;
};

}  // namespace Tamvik
