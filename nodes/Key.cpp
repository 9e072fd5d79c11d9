#include "nodes/Key.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "nodes/CaseRun.h"
#include "nodes/MakeNode.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/Hive.h"

namespace Tamvik {

Key::Key(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_, std::uint32_t bufferSize_,
         std::uint32_t payloadOffset)
    : Node(NodeClass::Key, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

Key::~Key() {
    // The cache chain can be thousands of keys deep: take it apart in a loop
    // rather than by nested destructors, so that the stack stays flat.
    std::unique_ptr<SubKeyList> list = std::move(subKeyList);
    while (list != nullptr) {
        std::unique_ptr<Key> below = std::move(list->child);
        list.reset();
        if (below == nullptr) break;
        list = std::move(below->subKeyList);
    }
    valueList.reset();
}

bool Key::OwnImage() {
    ownImage_.reset(new (std::nothrow) std::uint8_t[bufferSize]);
    if (ownImage_ == nullptr) return false;
    std::memcpy(ownImage_.get(), buffer, bufferSize);
    const std::uint32_t payloadOffset = static_cast<std::uint32_t>(record.Data() - buffer);
    buffer = ownImage_.get();
    record = RecordRef(buffer + payloadOffset, record.Size());
    sharesImage_ = false;
    return true;
}

namespace {
// Calls unit(u) for each UTF-16 unit of a record's name: one unit per byte
// when narrow, pairs of bytes when wide (an odd last byte dropped), cut at the
// end of the record. Gives the number of units.
std::uint32_t NameBytes(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField) {
    return std::min<std::uint32_t>(record.U16(lengthField), record.Available(nameField));
}

template <class Unit>
std::uint32_t ForEachNameUnit(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField,
                              bool narrow, Unit unit) {
    const std::uint32_t length = NameBytes(record, lengthField, nameField);
    const std::uint8_t* bytes = record.Data() + nameField;
    if (narrow) {
        for (std::uint32_t i = 0; i < length; ++i) unit(static_cast<char16_t>(bytes[i]));
        return length;
    }
    for (std::uint32_t i = 0; i < length / 2; ++i) unit(static_cast<char16_t>(LoadU16(bytes + 2 * i)));
    return length / 2;
}
}  // namespace

namespace {
std::size_t NameUnits(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow) {
    const std::uint32_t bytes = NameBytes(record, lengthField, nameField);
    return narrow ? bytes : bytes / 2;
}
}  // namespace

WString RecordName(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow) {
    WString name;
    RecordNameInto(record, lengthField, nameField, narrow, NameTarget{nullptr, 0, &name});
    return name;
}

std::size_t RecordNameInto(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow,
                           NameTarget target) {
    const std::size_t units = NameUnits(record, lengthField, nameField, narrow);
    char16_t* out = target.out;
    if (target.whole != nullptr) {
        target.whole->resize(units);
        out = target.whole->data();
    } else if (target.room < units + 1) {
        return units;
    }
    // Plain loops rather than a unit at a time through ForEachNameUnit: every
    // enumeration copies a name.
    const std::uint8_t* bytes = record.Data() + nameField;
    if (narrow) {
        WidenRun(bytes, units, out);
    } else {
        for (std::size_t i = 0; i < units; ++i) out[i] = static_cast<char16_t>(LoadU16(bytes + 2 * i));
    }
    if (target.whole == nullptr) out[units] = 0;
    return units;
}

std::uint64_t RecordNameHash(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField,
                             bool narrow) {
    const CaseMap& map = CurrentCaseMap();
    LookupHash hash;
    ForEachNameUnit(record, lengthField, nameField, narrow, [&](char16_t unit) { hash.Add(map.Upper(unit)); });
    return hash.Value();
}

bool RecordNameMatches(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow,
                       std::u16string_view upper) {
    // Most names asked about differ in length: that costs no unit read.
    if (NameUnits(record, lengthField, nameField, narrow) != upper.size()) return false;
    const CaseMap& map = CurrentCaseMap();
    const std::uint8_t* bytes = record.Data() + nameField;
    const std::size_t units = upper.size();
    if (narrow) return NarrowRunMatches(map, bytes, units, upper.data());
    for (std::size_t i = 0; i < units; ++i)
        if (map.Upper(static_cast<char16_t>(LoadU16(bytes + 2 * i))) != upper[i]) return false;
    return true;
}

bool NarrowKeyName(const RecordRef& record) { return (record.U16(NkField::Flags) & NkField::NarrowNameFlag) != 0; }

bool Key::NarrowName() const { return NarrowKeyName(record); }

WString Key::GetName() const { return RecordName(record, NkField::NameLength, NkField::Name, NarrowName()); }

std::size_t Key::NameInto(NameTarget target) const {
    return RecordNameInto(record, NkField::NameLength, NkField::Name, NarrowName(), target);
}

bool Key::NameMatches(std::u16string_view upper) const {
    return RecordNameMatches(record, NkField::NameLength, NkField::Name, NarrowName(), upper);
}

std::uint64_t Key::UpperNameHash() const {
    return RecordNameHash(record, NkField::NameLength, NkField::Name, NarrowName());
}

Node* Key::FindChild(Hive* hive, std::u16string_view name) { return FindSubKey(hive, name); }

void Key::RaiseMaxName(std::uint32_t fieldOffset, std::uint32_t units) {
    if (MaxNameUnits(Field(fieldOffset)) < units) SetField(fieldOffset, units * 2);
}

namespace {
// Names to carry over, or none when there's no memory for them: they only
// spare a later lookup some reads. nothrow new, as the node factory does.
std::unique_ptr<NameIndex> CarriedNames(NameIndex&& names) {
    return std::unique_ptr<NameIndex>(new (std::nothrow) NameIndex(std::move(names)));
}
}  // namespace

void Key::ListChanged(ListChange change, std::uint64_t generation, const WString& appended) {
    switch (change) {
        case ListChange::SubKeysRewritten: subKeyList.reset(); break;
        case ListChange::SubKeyRemoved:
            // The list took the change in its own image; the removed key was its child.
            if (subKeyList != nullptr) {
                subKeyList->EntriesChanged();
                subKeyList->child.reset();
            }
            if (SubKeyCount() == 0) subKeyList.reset();
            break;
        case ListChange::ValueAppending:
            // The entries before the new one keep their places: what scans learnt of them is carried over.
            if (valueList != nullptr) carriedValueNames = CarriedNames(valueList->TakeNames());
            valueList.reset();
            break;
        case ListChange::ValueAppended:
            // The carried names learn the new last position: the entries before it
            // stand where they stood, with their cells unchanged.
            if (carriedValueNames) {
                NameIndex& names = *carriedValueNames;
                names.Confirm(generation);
                const std::uint32_t position = ValueCount() - 1;
                if (names.scanned != position) break;
                const CaseMap& map = CurrentCaseMap();
                LookupHash hash;
                for (const char16_t unit : appended) hash.Add(map.Upper(unit));
                names.Add(hash.Value(), position);
                names.scanned = position + 1;
            }
            break;
        case ListChange::ValueAppendFailed: carriedValueNames.reset(); break;
        case ListChange::ValueRemoved:
            carriedValueNames.reset();  // positions behind the removed one move
            if (valueList != nullptr) {
                valueList->EntriesChanged();
                valueList->child.reset();
            }
            if (ValueCount() == 0) valueList.reset();
            break;
    }
}

std::unique_ptr<SubKeyList> Key::GetSubKeyList(Hive* hive) {
    return BuildNodeAt<SubKeyList>(hive, Field(NkField::SubKeyListCell), this, CellKind::BySignature);
}

std::unique_ptr<SubValList> Key::GetValueList(Hive* hive) {
    return BuildNodeAt<SubValList>(hive, Field(NkField::ValueListCell), this, CellKind::ValueList);
}

template <class List, class Build>
List* Key::Current(Snapshot<List>& snapshot, Hive* hive, std::uint32_t cell, Build build) {
    const bool kept = hive->Image() != nullptr && snapshot.list != nullptr &&
                      snapshot.generation == hive->Generation() && snapshot.cell == cell;
    if (!kept) {
        snapshot.list = build();
        snapshot.generation = hive->Generation();
        snapshot.cell = cell;
    }
    return snapshot.list.get();
}

// In memory the kept lists stand over the image's bytes: they are dropped at
// the next write anyway, and until then those bytes are what a copy would hold.
SubKeyList* Key::EnumSubKeyList(Hive* hive) {
    const std::uint32_t cell = Field(NkField::SubKeyListCell);
    return Current(enumSubKeys_, hive, cell, [&] {
        if (hive->Image() == nullptr) return GetSubKeyList(hive);
        return NarrowNode<SubKeyList>(MakeNodeOverImage(hive, cell, this, CellKind::BySignature));
    });
}

SubValList* Key::EnumValueList(Hive* hive) {
    const std::uint32_t cell = Field(NkField::ValueListCell);
    return Current(enumValues_, hive, cell, [&] {
        if (hive->Image() == nullptr) return GetValueList(hive);
        return NarrowNode<SubValList>(MakeNodeOverImage(hive, cell, this, CellKind::ValueList));
    });
}

inline bool Key::Refresh(ImageSnapshot& kept, Hive* hive, std::uint32_t cell, CellKind kind) {
    return (kept.held && kept.generation == hive->Generation() && kept.cell == cell) || Reclassify(kept, hive, cell, kind);
}

bool Key::Reclassify(ImageSnapshot& kept, Hive* hive, std::uint32_t cell, CellKind kind) {
    // The cell a list node over the image would stand over (see EnumValueList).
    const std::optional<ImageCell> image = ClassifyInImage(hive, cell, kind);
    kept.held = image.has_value();
    if (!kept.held) return false;
    kept.record = image->Record();
    kept.cls = image->cls;
    kept.generation = hive->Generation();
    kept.cell = cell;
    return true;
}

std::optional<std::uint32_t> Key::EnumValueCell(Hive* hive, std::uint32_t position) {
    if (hive->Image() == nullptr) {
        const SubValList* list = EnumValueList(hive);
        if (list == nullptr) return std::nullopt;
        return list->EntryAt(position);
    }
    if (!Refresh(enumValueImage_, hive, Field(NkField::ValueListCell), CellKind::ValueList)) return std::nullopt;
    return SubValList::EntryOf(enumValueImage_.record, position);
}

std::optional<std::size_t> Key::EnumSubKeyNameInto(Hive* hive, std::uint32_t position, NameTarget target) {
    if (hive->Image() != nullptr) {
        const ImageSnapshot& kept = enumSubKeyImage_;
        if (!Refresh(enumSubKeyImage_, hive, Field(NkField::SubKeyListCell), CellKind::BySignature) ||
            !SubKeyList::Holds(kept.cls))
            return std::nullopt;
        // An ri's positions run over its leaves: its node, with the leaves it keeps, answers.
        if (kept.cls != NodeClass::Indirect) {
            const std::uint32_t entrySize = ListEntrySize(kept.record.U16(ListField::Signature));
            const std::optional<std::uint32_t> cell = SubKeyList::LeafKeyCell(kept.record, entrySize, position);
            if (!cell) return std::nullopt;
            return KeyNameInto(hive, *cell, target);
        }
    }
    SubKeyList* list = EnumSubKeyList(hive);
    if (list == nullptr) return std::nullopt;
    return list->NameInto(hive, position, target);
}

Key* Key::FindSubKey(Hive* hive, std::u16string_view name) {
    if (SubKeyCount() == 0) return nullptr;
    if (subKeyList == nullptr) {
        subKeyList = GetSubKeyList(hive);
        if (subKeyList == nullptr) return nullptr;
        // Only an index of at least kPositionsWorthParking positions is parked,
        // and a scan of this key's list reads no more than it counts.
        if (SubKeyCount() >= Hive::kPositionsWorthParking)
            if (std::optional<NameIndex> learnt = hive->TakeNames(subKeyList->GetOffset(), false))
                subKeyList->AdoptNames(std::move(*learnt));
    }
    return NodeAs<Key>(subKeyList->FindChild(hive, name));
}

Val* Key::FindValue(Hive* hive, std::u16string_view name) {
    if (ValueCount() == 0) return nullptr;
    if (valueList == nullptr) {
        valueList = GetValueList(hive);
        if (!carriedValueNames && valueList != nullptr && ValueCount() >= Hive::kPositionsWorthParking)
            if (std::optional<NameIndex> parked = hive->TakeNames(valueList->GetOffset(), true))
                carriedValueNames = CarriedNames(std::move(*parked));
        if (valueList != nullptr && carriedValueNames) valueList->AdoptNames(std::move(*carriedValueNames));
        carriedValueNames.reset();
    }
    if (valueList == nullptr) return nullptr;
    return NodeAs<Val>(valueList->FindChild(hive, name));
}

Key* Key::SubKeyAt(Hive* hive, std::uint32_t position) {
    if (position >= SubKeyCount()) return nullptr;
    if (subKeyList == nullptr) subKeyList = GetSubKeyList(hive);
    if (subKeyList == nullptr) return nullptr;
    subKeyList->child = subKeyList->GetAt(hive, position);
    return subKeyList->child.get();
}

Val* Key::ValueAt(Hive* hive, std::uint32_t position) {
    if (position >= ValueCount()) return nullptr;
    if (valueList == nullptr) {
        valueList = GetValueList(hive);
        carriedValueNames.reset();
    }
    if (valueList == nullptr) return nullptr;
    valueList->child = valueList->GetAt(hive, position);
    return valueList->child.get();
}

namespace {
// visit(record) for the record of the key at cellOffset, when a Key can be
// built there. In a hive in memory the record is read in place: the name
// functions below need no more, and a whole Key costs more to build and take
// down than they do. On a volume a Key is built, with its device reads.
template <class Visit>
auto WithKeyRecord(Hive* hive, std::uint32_t cellOffset, Visit visit) -> std::optional<decltype(visit(RecordRef()))> {
    if (hive->Image() != nullptr) {
        const std::optional<ImageCell> cell = ImageCellOf(hive, cellOffset, NodeClass::Key);
        if (!cell) return std::nullopt;
        return visit(cell->Record());
    }
    const Transient<Key> key(hive, cellOffset, nullptr, CellKind::BySignature);
    if (!key) return std::nullopt;
    return visit(key->record);
}
}  // namespace

std::optional<WString> KeyNameAt(Hive* hive, std::uint32_t cellOffset) {
    return WithKeyRecord(hive, cellOffset, [](const RecordRef& record) {
        return RecordName(record, NkField::NameLength, NkField::Name, NarrowKeyName(record));
    });
}

std::optional<std::size_t> KeyNameInto(Hive* hive, std::uint32_t cellOffset, NameTarget target) {
    return WithKeyRecord(hive, cellOffset, [&](const RecordRef& record) {
        return RecordNameInto(record, NkField::NameLength, NkField::Name, NarrowKeyName(record), target);
    });
}

std::optional<std::uint64_t> KeyNameHashAt(Hive* hive, std::uint32_t cellOffset) {
    return WithKeyRecord(hive, cellOffset, [](const RecordRef& record) {
        return RecordNameHash(record, NkField::NameLength, NkField::Name, NarrowKeyName(record));
    });
}

std::optional<bool> KeyNameMatchesAt(Hive* hive, std::uint32_t cellOffset, std::u16string_view upper) {
    return WithKeyRecord(hive, cellOffset, [&](const RecordRef& record) {
        return RecordNameMatches(record, NkField::NameLength, NkField::Name, NarrowKeyName(record), upper);
    });
}

bool KeyStillReadsAs(Hive* hive, std::uint32_t cellOffset, std::uint32_t cellSize, std::u16string_view name) {
    const std::optional<ImageCell> cell = ImageCellOf(hive, cellOffset, NodeClass::Key);
    if (!cell || cell->size != cellSize) return false;
    const RecordRef record = cell->Record();
    const bool narrow = NarrowKeyName(record);
    if (NameUnits(record, NkField::NameLength, NkField::Name, narrow) != name.size()) return false;
    const std::uint8_t* bytes = record.Data() + NkField::Name;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t unit = narrow ? bytes[i] : static_cast<char16_t>(LoadU16(bytes + 2 * i));
        if (unit != name[i]) return false;
    }
    return true;
}

bool KeyStandsAt(Hive* hive, std::uint32_t cellOffset) {
    return WithKeyRecord(hive, cellOffset, [](const RecordRef&) { return true; }).has_value();
}

Key* OwnerKey(const Node* node) {
    for (Node* up = node->GetParent(); up != nullptr; up = up->GetParent())
        if (Key* key = NodeAs<Key>(up)) return key;
    return nullptr;
}

}  // namespace Tamvik
