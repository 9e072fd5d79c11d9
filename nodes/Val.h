// A value (one vk cell) and a value list (one cell of vk offsets, counted by
// the owning key's ValueCount). A Val never leaves the library.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "store/NameIndex.h"
#include "store/Format.h"
#include "store/Node.h"
#include "store/Record.h"

namespace Tamvik {

class Val : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::Value; }
    Val(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
        std::uint32_t payloadOffset);

    WString GetName() const override;
    // The name into out; see RecordNameInto.
    std::size_t NameInto(NameTarget target) const;
    bool NameMatches(std::u16string_view upper) const override;
    // LookupHash of the upper-case name.
    std::uint64_t UpperNameHash() const;
    // Copies the whole data to target; false when it doesn't fit in capacity or can't be read.
    bool ReadData(Hive* hive, std::uint8_t* target, std::uint32_t capacity);

    std::uint32_t DataLength() const { return record.U32(VkField::DataLength); }
    std::uint32_t DataCell() const { return record.U32(VkField::DataCell); }
    std::uint32_t ValueType() const { return record.U32(VkField::Type); }
    bool IsInline() const { return DataLength() >= kInlineData; }
    // Whether the cells the data lies in can hold the stored length at all, so
    // that a damaged length never makes a reader allocate far more than the hive holds.
    bool DataFits(Hive* hive) const;
    // DataLength without the inline bit.
    std::uint32_t StoredLength() const { return DataLength() & ~kInlineData; }

    std::uint32_t index = kNoCell;
    RecordRef record;

private:
    bool NarrowName() const;
};

class SubValList : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::ValueList; }
    SubValList(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
               std::uint32_t payloadOffset);
    ~SubValList() override;

    WString GetName() const override;
    // Scan by upper-case name over ValueCount entries; the match stays owned as child.
    Node* FindChild(Hive* hive, std::u16string_view name) override;
    // A new value at a position, or null; positions past the cell give null.
    std::unique_ptr<Val> GetAt(Hive* hive, std::uint32_t index);
    // The vk offset at a position, or nothing past the cell.
    std::optional<std::uint32_t> EntryAt(std::uint32_t index) const { return EntryOf(record, index); }
    // The same of a value list's record wherever it lies.
    static std::optional<std::uint32_t> EntryOf(const RecordRef& list, std::uint32_t index) {
        if (index >= list.Size() / kEntry) return std::nullopt;
        return list.U32(index * kEntry);
    }
    // LookupHash of the upper-case name GetAt's value would have, or nothing when GetAt gives null.
    std::optional<std::uint64_t> NameHashAt(Hive* hive, std::uint32_t index);
    // Entries that the cell can hold.
    std::uint32_t EntriesHeld() const { return record.Size() / kEntry; }

    // The list's image has changed: names read by earlier scans no longer hold.
    void EntriesChanged() { names.Clear(); }
    // Hands over what scans have learnt, for the list that replaces this one.
    NameIndex TakeNames() { return std::move(names); }
    void AdoptNames(NameIndex&& learnt) { names = std::move(learnt); }

    RecordRef record;
    std::unique_ptr<Val> child;

private:
    static constexpr std::uint32_t kEntry = 4;  // a vk offset
    NameIndex names;
};

// Whether a vk record stores its name compressed, a byte a character.
bool NarrowValueName(const RecordRef& record);
// Whether a Val can be built from the cell at cellOffset of a hive in memory,
// and then whether its name, upper-cased, is upper; read in place, no node built.
std::optional<bool> ValueNameMatchesAt(Hive* hive, std::uint32_t cellOffset, std::u16string_view upper);

}  // namespace Tamvik
