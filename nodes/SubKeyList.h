// The four subkey list records behind one face: position-based GetAt, the
// scan by name that holds a key's one looked-up child, and the opening of an
// ri to its leaves that edits and structure walks share.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <variant>
#include <vector>

#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "store/NameIndex.h"
#include "store/Node.h"
#include "store/Record.h"

namespace Tamvik {

class SubKeyList : public Node {
public:
    static bool Holds(NodeClass c) {
        return c == NodeClass::Indirect || c == NodeClass::IndexLeaf || c == NodeClass::FastLeaf ||
               c == NodeClass::HashLeaf;
    }
    SubKeyList(NodeClass cls, std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
               std::uint32_t payloadOffset);
    ~SubKeyList() override;

    WString GetName() const override;
    // Scan by upper-case name; the match stays owned by the list as child.
    Node* FindChild(Hive* hive, std::u16string_view name) override;

    // A new key at a position counted over all keys of the list, or null.
    virtual std::unique_ptr<Key> GetAt(Hive* hive, std::uint32_t index) = 0;
    // The nk offset GetAt's key would stand at, found without building it.
    virtual std::optional<std::uint32_t> KeyCellAt(Hive* hive, std::uint32_t index);
    // Count of the record: keys in a leaf, leaves in an ri.
    virtual std::uint32_t GetCount() const;
    // The name GetAt's key would have, or nothing when GetAt gives null; and
    // the LookupHash of that name upper-cased.
    std::optional<WString> NameAt(Hive* hive, std::uint32_t index);
    virtual std::optional<std::uint64_t> NameHashAt(Hive* hive, std::uint32_t index);
    // Whether that name, upper-cased, is upper; nothing when GetAt gives null.
    virtual std::optional<bool> NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper);
    // The length of that name, written to out as RecordNameInto writes it.
    virtual std::optional<std::size_t> NameInto(Hive* hive, std::uint32_t index, NameTarget target);

    std::uint16_t Signature() const { return record.U16(ListField::Signature); }
    std::uint32_t EntrySize() const { return ListEntrySize(Signature()); }
    bool IsLeaf() const;
    // The offset entry i of a leaf holds, when the record holds that entry.
    std::optional<std::uint32_t> EntryCell(std::uint32_t i) const;
    // Positions below this can give a key; none at or above it can.
    std::uint64_t Positions(Hive* hive) { return PositionLimit(hive); }
    // Whether the record holds all Count entries.
    bool HoldsCount() const;
    // An edit changed the list's entries: what scans learnt of them no longer holds.
    virtual void EntriesChanged() { names.Clear(); }
    // The nk offset at position index of a leaf's record wherever it lies,
    // entries entrySize bytes: nothing past Count or past the record.
    static std::optional<std::uint32_t> LeafKeyCell(const RecordRef& leaf, std::uint32_t entrySize,
                                                    std::uint32_t index) {
        if (index >= leaf.U16(ListField::Count) || index >= leaf.Available(ListField::Entries) / entrySize)
            return std::nullopt;
        return leaf.U32(ListField::Entries + index * entrySize);
    }
    // Takes over what the scans of an earlier node of this list learnt.
    void AdoptNames(NameIndex&& learnt) { names = std::move(learnt); }

    RecordRef record;
    std::unique_ptr<Key> child;

protected:
    // Names read by earlier scans of this list; cleared when an entry is removed.
    NameIndex names;
    // Positions at or above this give no key, so a scan can stop there.
    virtual std::uint64_t PositionLimit(Hive* hive);
    // Asked when GetAt(position) gave null: whether every later position gives null too.
    virtual bool NothingFrom(std::uint64_t position) const;
    // Shared by the leaves, which differ only in their entry size.
    std::unique_ptr<Key> LeafGetAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize);
    std::optional<std::size_t> LeafNameInto(Hive* hive, std::uint32_t index, std::uint32_t entrySize,
                                            NameTarget target);
    std::optional<std::uint64_t> LeafNameHashAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize);
    std::optional<bool> LeafNameMatchesAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize,
                                          std::u16string_view upper);
    // Positions of a leaf that can give a key: Count, cut to what the record holds.
    std::uint64_t LeafLimit() const;
    // Entries that the record can hold, whatever Count says.
    std::uint32_t EntriesHeld(std::uint32_t entrySize) const;
};

// What is wrong with an entry of an ri, if anything.
enum class LeafFault : std::uint8_t {
    None,
    PastRecord,  // the entry lies outside the ri's cell
    NoList,      // no usable cell holding a subkey list stands at its offset
    NotALeaf,    // it names another ri: nesting would break the positions and could loop
};

// What an ri entry is worth when its offset gives list (null: no list there).
// Only a leaf serves: an ri inside an ri would break the position arithmetic,
// and could reach itself.
inline LeafFault FaultOfLeaf(const SubKeyList* list) {
    return list == nullptr ? LeafFault::NoList : list->IsLeaf() ? LeafFault::None : LeafFault::NotALeaf;
}

// One entry of an ri: the offset it holds and the leaf built there.
struct LeafEntry {
    std::uint32_t cell = kNoCell;
    std::unique_ptr<SubKeyList> leaf;  // null when fault says why
    LeafFault fault = LeafFault::None;
};

// An ri: a list of leaves. Positions run over the keys of all leaves in order.
class Indirect : public SubKeyList {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::Indirect; }
    Indirect(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize, std::uint32_t payloadOffset)
        : SubKeyList(NodeClass::Indirect, offset, parent, buffer, bufferSize, payloadOffset) {}
    std::unique_ptr<Key> GetAt(Hive* hive, std::uint32_t index) override;
    std::optional<std::uint32_t> KeyCellAt(Hive* hive, std::uint32_t index) override;
    std::optional<std::size_t> NameInto(Hive* hive, std::uint32_t index, NameTarget target) override;
    std::optional<std::uint64_t> NameHashAt(Hive* hive, std::uint32_t index) override;
    std::optional<bool> NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) override;
    void EntriesChanged() override;
    // The leaf entry j names, built from the file, or the fault that stops it.
    LeafEntry LeafAt(Hive* hive, std::uint32_t entry);

protected:
    std::uint64_t PositionLimit(Hive* hive) override;
    bool NothingFrom(std::uint64_t) const override { return lastWalkPassedAll; }

private:
    // In a hive in memory: the leaves up to the first that can't be built, read
    // once and kept while the hive takes no write. Null on a volume, where each
    // walk reads them anew.
    const std::vector<std::unique_ptr<SubKeyList>>* KeptLeaves(Hive* hive);
    // The walk of GetAt: from the first leaf to the one that holds the
    // position, asking atLeaf(leaf, position in the leaf) there.
    template <class AtLeaf>
    auto WalkTo(Hive* hive, std::uint32_t index, AtLeaf atLeaf) -> decltype(atLeaf(nullptr, 0u));

    std::vector<std::unique_ptr<SubKeyList>> leaves_;
    bool leavesKept_ = false;
    std::uint64_t leavesGeneration_ = 0;
    // The last walk passed every leaf it could build without reaching its position.
    bool lastWalkPassedAll = false;
    // The kept leaf the last walk reached, and the position of its first key:
    // a walk in order starts there instead of at the first leaf.
    std::uint32_t resumeLeaf_ = 0;
    std::uint64_t resumeStart_ = 0;
};

// An li: key offsets only.
class IndxLeaf : public SubKeyList {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::IndexLeaf; }
    IndxLeaf(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize, std::uint32_t payloadOffset)
        : SubKeyList(NodeClass::IndexLeaf, offset, parent, buffer, bufferSize, payloadOffset) {}
    std::unique_ptr<Key> GetAt(Hive* hive, std::uint32_t index) override;
    std::optional<std::size_t> NameInto(Hive* hive, std::uint32_t index, NameTarget target) override;
    std::optional<std::uint64_t> NameHashAt(Hive* hive, std::uint32_t index) override;
    std::optional<bool> NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) override;
};

// An lf: key offsets with the first four name bytes beside each.
class FastLeaf : public SubKeyList {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::FastLeaf || c == NodeClass::HashLeaf; }
    FastLeaf(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize, std::uint32_t payloadOffset)
        : FastLeaf(NodeClass::FastLeaf, offset, parent, buffer, bufferSize, payloadOffset) {}
    // For the lh, an lf with hashes.
    FastLeaf(NodeClass cls, std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
             std::uint32_t payloadOffset)
        : SubKeyList(cls, offset, parent, buffer, bufferSize, payloadOffset) {}
    std::unique_ptr<Key> GetAt(Hive* hive, std::uint32_t index) override;
    std::optional<std::size_t> NameInto(Hive* hive, std::uint32_t index, NameTarget target) override;
    std::optional<std::uint64_t> NameHashAt(Hive* hive, std::uint32_t index) override;
    std::optional<bool> NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) override;
};

// An lh: as an lf, with a name hash beside each key.
class HashLeaf : public FastLeaf {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::HashLeaf; }
    HashLeaf(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize, std::uint32_t payloadOffset)
        : FastLeaf(NodeClass::HashLeaf, offset, parent, buffer, bufferSize, payloadOffset) {}
};

// A subkey list standing over a cell's bytes, as ImageView stands for one
// class: the signature picks which of the four it is.
class SubKeyListView {
public:
    SubKeyListView(std::uint32_t offset, const std::uint8_t* image, std::uint32_t size, std::uint32_t payload) {
        const std::optional<NodeClass> cls =
            image == nullptr ? std::nullopt : ClassOfCell(image, size, payload, CellKind::BySignature);
        // Read only: the view's image is never written.
        auto* bytes = const_cast<std::uint8_t*>(image);
        if (cls == NodeClass::Indirect) list_.emplace<Indirect>(offset, nullptr, bytes, size, payload);
        if (cls == NodeClass::IndexLeaf) list_.emplace<IndxLeaf>(offset, nullptr, bytes, size, payload);
        if (cls == NodeClass::FastLeaf) list_.emplace<FastLeaf>(offset, nullptr, bytes, size, payload);
        if (cls == NodeClass::HashLeaf) list_.emplace<HashLeaf>(offset, nullptr, bytes, size, payload);
    }
    SubKeyListView(const SubKeyListView&) = delete;
    SubKeyListView& operator=(const SubKeyListView&) = delete;
    // The list, or null when the cell holds none.
    SubKeyList* get() {
        return std::visit([](auto& list) -> SubKeyList* {
            if constexpr (std::is_same_v<std::decay_t<decltype(list)>, std::monostate>) return nullptr;
            else return &list;
        }, list_);
    }

private:
    std::variant<std::monostate, Indirect, IndxLeaf, FastLeaf, HashLeaf> list_;
};

// A key's subkey list opened to its leaves: the list itself when it is a
// leaf, else every leaf its ri names, in order. Opening stops at the first
// entry of an ri that gives no leaf, which fault and faultEntry tell.
struct OpenedList {
    std::unique_ptr<SubKeyList> top;
    std::vector<std::unique_ptr<SubKeyList>> ownLeaves;  // an ri's leaves, built for this
    std::vector<SubKeyList*> leaves;
    LeafFault fault = LeafFault::None;
    std::uint32_t faultEntry = 0;
    bool Whole() const { return top != nullptr && fault == LeafFault::None; }
};
OpenedList OpenLeaves(Hive* hive, std::unique_ptr<SubKeyList> list);

}  // namespace Tamvik
