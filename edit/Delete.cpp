#include <algorithm>

#include "edit/Edit.h"
#include "nodes/Data.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"

namespace Tamvik {

namespace {
void RemoveFromParent(Key* parent, Hive* hive, Key* key);
}  // namespace

bool DeleteKey(Key* key, Hive* hive) {
    if (key->SubKeyCount() != 0) return false;
    Key* parent = OwnerKey(key);
    if (parent == nullptr) return false;  // the root key has no list to leave
    DeleteValues(key, hive);
    ReleaseSecurity(key, hive);
    if (key->record.U16(NkField::ClassLength) != 0) {
        CellRef classCell = hive->GetCell(key->Field(NkField::ClassCell));
        if (classCell.IsUsable()) {
            FreeCell(classCell, hive);
            key->SetField(NkField::ClassCell, kNoCell);
        }
    }
    CellRef own = hive->GetCell(key->GetOffset());
    if (!own.IsUsable()) return false;
    FreeCell(own, hive);
    RemoveFromParent(parent, hive, key);  // destroys key: it is the list's child
    return true;
}

void DeleteValues(Key* key, Hive* hive) {
    const std::uint32_t count = key->ValueCount();
    if (count == 0) return;
    if (key->valueList == nullptr) key->valueList = key->GetValueList(hive);
    if (key->valueList == nullptr) return;
    // Entries past the list's cell give no value; start where one can.
    std::uint32_t i = std::min(count, key->valueList->EntriesHeld());
    while (i-- > 0 && key->valueList != nullptr) {
        std::unique_ptr<Val> value = key->valueList->GetAt(hive, i);
        if (value != nullptr) DeleteValue(value.get(), hive);
    }
}

namespace {

// Takes entry index out of a leaf or an ri, in its image; true when it was
// the last, and the list freed its own cell.
bool TakeEntry(SubKeyList& list, Hive* hive, std::uint32_t index) {
    const std::uint32_t count = list.GetCount();
    list.record.SetU16(ListField::Count, static_cast<std::uint16_t>(count - 1));
    if (count - 1 == 0) {
        CellRef own = hive->GetCell(list.GetOffset());
        if (!own.IsUsable()) return false;
        FreeCell(own, hive);
        return true;
    }
    DropEntry(list.record, ListField::Entries, count, index, list.EntrySize());
    list.Save(hive);
    return false;
}

// Takes the key at a position out of parent's cached subkey list: out of its
// leaf, and a leaf that empties out of the ri.
void RemoveSubKeyEntry(Key* parent, Hive* hive, std::uint32_t index) {
    SubKeyList* list = parent->subKeyList.get();
    if (list == nullptr) return;
    Indirect* ri = NodeAs<Indirect>(list);
    if (ri == nullptr) {
        if (index < list->GetCount() && list->EntryCell(index)) TakeEntry(*list, hive, index);
        return;
    }
    std::uint32_t remaining = index;
    for (std::uint32_t j = 0; j < ri->GetCount(); ++j) {
        const LeafEntry entry = ri->LeafAt(hive, j);
        if (entry.leaf == nullptr) return;
        const std::uint32_t leafCount = entry.leaf->GetCount();
        if (remaining >= leafCount) {
            remaining -= leafCount;
            continue;
        }
        if (entry.leaf->EntryCell(remaining) && TakeEntry(*entry.leaf, hive, remaining)) TakeEntry(*ri, hive, j);
        return;
    }
}

void RemoveValueEntry(Key* owner, Hive* hive, std::uint32_t position) {
    SubValList* list = owner->valueList.get();
    if (list == nullptr) return;
    const std::uint32_t count = owner->ValueCount();
    if (count == 1) {
        CellRef own = hive->GetCell(list->GetOffset());
        if (own.IsUsable()) FreeCell(own, hive);
        return;
    }
    DropEntry(list->record, 0, count, position, 4);
    list->Save(hive);
}

void RemoveFromParent(Key* parent, Hive* hive, Key* key) {
    const std::uint32_t count = parent->SubKeyCount();
    RemoveSubKeyEntry(parent, hive, key->index);
    parent->SetField(NkField::SubKeyCount, count - 1);
    if (count - 1 == 0) {
        parent->SetField(NkField::SubKeyListCell, kNoCell);
        parent->SetField(NkField::MaxSubKeyName, 0);
        parent->SetField(NkField::MaxClassName, 0);
    }
    parent->ListChanged(Key::ListChange::SubKeyRemoved);  // destroys key: it is the list's child
    parent->Save(hive);
}

}  // namespace

Status DeleteSubKeyAt(Key* owner, Hive* hive, std::uint32_t position) {
    if (position >= owner->SubKeyCount()) return Status::Of(StatusCode::NotFound, "no subkey at that position");
    Key* key = owner->SubKeyAt(hive, position);
    if (key == nullptr)
        return Status::Of(StatusCode::Damaged, "the subkey can't be read", owner->GetOffset() + std::uint64_t{kBaseBlockSize});
    if (key->SubKeyCount() != 0) return Status::Of(StatusCode::NotEmpty, "the key has subkeys");
    if (!DeleteKey(key, hive)) return Status::Of(StatusCode::Damaged, "the key's cell can't be released");
    return Status::Success();
}

void DeleteValue(Val* value, Hive* hive) {
    FreeValueData(value, hive);
    CellRef own = hive->GetCell(value->GetOffset());
    if (!own.IsUsable()) return;
    FreeCell(own, hive);
    Key* owner = OwnerKey(value);
    if (owner == nullptr) return;
    const std::uint32_t count = owner->ValueCount();
    RemoveValueEntry(owner, hive, value->index);
    owner->SetField(NkField::ValueCount, count - 1);
    if (count - 1 == 0) {
        owner->SetField(NkField::ValueListCell, kNoCell);
        owner->SetField(NkField::MaxValueName, 0);
        owner->SetField(NkField::MaxValueData, 0);
    }
    owner->ListChanged(Key::ListChange::ValueRemoved);  // destroys value when it is the list's child
    owner->Save(hive);
}

void FreeValueData(Val* value, Hive* hive) {
    if (value->DataLength() >= kInlineData) return;
    CellRef cell = hive->GetCell(value->DataCell());
    if (!cell.IsUsable()) return;
    if (IsBigDataLength(hive->MinorVersion(), value->DataLength())) {
        std::unique_ptr<BigData> db = NarrowNode<BigData>(MakeNode(cell, hive, value, CellKind::BigDataRecord));
        if (db == nullptr) return;
        // Plain data under a big length is released as the one cell it is: its
        // bytes are never taken for segment offsets.
        if (db->HasDbSignature()) db->Free(hive);
        else FreeCell(cell, hive);
        return;
    }
    if (std::unique_ptr<Data> data = NarrowNode<Data>(MakeNode(cell, hive, value, CellKind::PlainData))) data->Free(hive);
}

}  // namespace Tamvik
