// A key: the mirror of one nk cell and what callers hold as a key handle. It
// caches at most one subkey list and one value list, which form, with the
// lists' cached children, the one chain of long-lived nodes below the hive.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "store/NameIndex.h"
#include "store/Format.h"
#include "store/Node.h"
#include "store/Record.h"

namespace Tamvik {

class SubKeyList;
class SubValList;
enum class CellKind : std::uint32_t;
class Val;

class Key : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::Key; }
    Key(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
        std::uint32_t payloadOffset);
    ~Key() override;

    WString GetName() const override;
    // The name into out; see RecordNameInto.
    std::size_t NameInto(NameTarget target) const;
    bool NameMatches(std::u16string_view upper) const override;
    // LookupHash of the upper-case name.
    std::uint64_t UpperNameHash() const;
    Node* FindChild(Hive* hive, std::u16string_view name) override;

    // New list nodes built from the file, owned by the caller; the caches are left alone.
    std::unique_ptr<SubKeyList> GetSubKeyList(Hive* hive);
    std::unique_ptr<SubValList> GetValueList(Hive* hive);
    // The lists the enumerations go by, as GetSubKeyList and GetValueList would
    // build them now; owned by the key. On a volume they are built anew at each
    // call. In a hive in memory they are kept while the hive takes no write and
    // the key's list field stays, since a list built anew would be the same.
    SubKeyList* EnumSubKeyList(Hive* hive);
    SubValList* EnumValueList(Hive* hive);
    // The name of the subkey at a position of the list EnumSubKeyList gives,
    // as its NameInto writes it; nothing when no list can be built or it
    // gives none. In a hive in memory a leaf list's cell is read in place, kept
    // as EnumSubKeyList keeps its list, and no list node is built.
    std::optional<std::size_t> EnumSubKeyNameInto(Hive* hive, std::uint32_t position, NameTarget target);
    // The vk offset at a position of the list EnumValueList gives, or nothing
    // when no list can be built there or it holds no such entry. In a hive in
    // memory the list's cell is read in place, kept as EnumValueList keeps
    // its list, and no list node is built.
    std::optional<std::uint32_t> EnumValueCell(Hive* hive, std::uint32_t position);
    // Lookups by upper-case name through the cached lists; the result stays owned by the list.
    Key* FindSubKey(Hive* hive, std::u16string_view name);
    Val* FindValue(Hive* hive, std::u16string_view name);
    // The same by position, as the enumerations count them.
    Key* SubKeyAt(Hive* hive, std::uint32_t position);
    Val* ValueAt(Hive* hive, std::uint32_t position);

    std::uint32_t Field(std::uint32_t fieldOffset) const { return record.U32(fieldOffset); }
    // An edit of a hive opened read-only still changes its keys in memory
    // (only the file refuses it): a key standing over such an image, which is
    // mapped unwritable, takes a copy of its own at its first change.
    void SetField(std::uint32_t fieldOffset, std::uint32_t value) {
        if (!sharesImage_ || OwnImage()) record.SetU32(fieldOffset, value);
    }
    // The key stands over the image of a hive opened read-only, not over a copy.
    void ShareReadOnlyImage() { sharesImage_ = true; }
    std::uint32_t SubKeyCount() const { return Field(NkField::SubKeyCount); }
    std::uint32_t ValueCount() const { return Field(NkField::ValueCount); }
    // Raises a MaxSubKeyName or MaxValueName field to a name of this many characters.
    void RaiseMaxName(std::uint32_t fieldOffset, std::uint32_t units);

    // What an edit did to one of the key's lists. The key keeps or drops what
    // it cached of its lists by it: the one place where those caches change
    // after an edit.
    enum class ListChange : std::uint8_t {
        SubKeysRewritten,   // the subkey list was written anew, moved, or its entries reordered
        SubKeyRemoved,      // an entry left the cached subkey list, whose image was changed in place
        ValueAppending,     // the value list is about to be written anew with one entry more
        ValueAppended,      // it was, and the owner counts the new value
        ValueAppendFailed,  // that append didn't happen
        ValueRemoved,       // an entry left the cached value list, changed in place
    };
    // For ValueAppended: the hive's write count after the append, and the new value's name.
    void ListChanged(ListChange change, std::uint64_t generation = 0, const WString& appended = {});

    RecordRef record;
    std::uint32_t index = kNoCell;
    std::unique_ptr<SubKeyList> subKeyList;
    std::unique_ptr<SubValList> valueList;

    // Names of the value list's positions, kept while a new value is appended
    // and the cached list is rebuilt: the entries before the new one don't move,
    // so a lookup after the addition doesn't read every value again.
    // Held apart: most keys never carry any, and every key handle is a Key.
    std::unique_ptr<NameIndex> carriedValueNames;

private:
    bool NarrowName() const;
    // Moves the key onto a copy of its image; false when no memory can be had.
    bool OwnImage();
    template <class List>
    struct Snapshot {
        std::unique_ptr<List> list;
        std::uint64_t generation = 0;
        std::uint32_t cell = kNoCell;
    };
    template <class List, class Build>
    List* Current(Snapshot<List>& snapshot, Hive* hive, std::uint32_t cell, Build build);
    Snapshot<SubKeyList> enumSubKeys_;
    Snapshot<SubValList> enumValues_;
    // EnumValueCell's list in a hive in memory: its record in the image, while
    // the hive's Generation and the key's list field stay.
    struct ImageSnapshot {
        RecordRef record;
        std::uint64_t generation = 0;
        std::uint32_t cell = kNoCell;
        NodeClass cls = NodeClass::Hive;  // of the node the cell would give
        bool held = false;
    };
    // Brings a snapshot to the cell at cell, classified as kind; false when no node of kind stands there.
    static bool Refresh(ImageSnapshot& kept, Hive* hive, std::uint32_t cell, CellKind kind);
    static bool Reclassify(ImageSnapshot& kept, Hive* hive, std::uint32_t cell, CellKind kind);
    ImageSnapshot enumValueImage_;
    // The same for EnumSubKeyNameInto's list.
    ImageSnapshot enumSubKeyImage_;
    bool sharesImage_ = false;
    std::unique_ptr<std::uint8_t[]> ownImage_;  // the copy OwnImage made
};

// The name of the key whose nk cell is at cellOffset, when a Key can be built
// there; and the hash of that name upper-cased.
std::optional<WString> KeyNameAt(Hive* hive, std::uint32_t cellOffset);
std::optional<std::size_t> KeyNameInto(Hive* hive, std::uint32_t cellOffset, NameTarget target);
std::optional<std::uint64_t> KeyNameHashAt(Hive* hive, std::uint32_t cellOffset);
// Whether that name, upper-cased, is upper; and whether a Key can be built there at all.
std::optional<bool> KeyNameMatchesAt(Hive* hive, std::uint32_t cellOffset, std::u16string_view upper);
bool KeyStandsAt(Hive* hive, std::uint32_t cellOffset);
// Whether a Key can be built from the cell at cellOffset of a hive in memory,
// the cell is cellSize bytes long, and the key's name reads back as name, unit
// for unit: then KeyNameInto gives name, as it did when those were read.
bool KeyStillReadsAs(Hive* hive, std::uint32_t cellOffset, std::uint32_t cellSize, std::u16string_view name);
// Whether an nk record stores its name compressed, a byte a character.
bool NarrowKeyName(const RecordRef& record);

// The characters a MaxSubKeyName or MaxValueName field stands for: its low 16
// bits hold twice the longest name's length.
constexpr std::uint32_t MaxNameUnits(std::uint32_t field) { return (field & 0xFFFF) >> 1; }

// The nearest Key strictly above node, or null.
Key* OwnerKey(const Node* node);

// A record's name as a wide string: one unit per byte when narrow, UTF-16 units
// when wide (an odd last byte dropped), cut at the end of the record.
WString RecordName(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow);
// The same name copied to target; gives its length in units.
std::size_t RecordNameInto(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow,
                           NameTarget target);
// LookupHash of the same name upper-cased, and whether it equals upper, without building it.
std::uint64_t RecordNameHash(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField,
                             bool narrow);
bool RecordNameMatches(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow,
                       std::u16string_view upper);

}  // namespace Tamvik
