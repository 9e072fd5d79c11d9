#include <algorithm>
#include <cstring>

#include "edit/Edit.h"
#include "nodes/Data.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"

namespace Tamvik {

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

void RemoveFromParent(Key* parent, Hive* hive, Key* key) {
    const std::uint32_t index = key->index;
    const std::uint32_t count = parent->SubKeyCount();
    // A list that empties frees its own cell; the key learns of it from its count.
    if (parent->subKeyList != nullptr) parent->subKeyList->RemoveAt(hive, index, nullptr);
    parent->SetField(NkField::SubKeyCount, count - 1);
    if (count - 1 == 0) {
        parent->SetField(NkField::SubKeyListCell, kNoCell);
        parent->SetField(NkField::MaxSubKeyName, 0);
        parent->SetField(NkField::MaxClassName, 0);
        parent->subKeyList.reset();
    }
    parent->Save(hive);
}

void DeleteValue(Val* value, Hive* hive) {
    FreeValueData(value, hive);
    CellRef own = hive->GetCell(value->GetOffset());
    if (!own.IsUsable()) return;
    FreeCell(own, hive);
    Key* owner = OwnerKey(value);
    if (owner == nullptr) return;
    owner->carriedValueNames.reset();  // positions behind the removed one move
    const std::uint32_t count = owner->ValueCount();
    const std::uint32_t index = value->index;
    if (owner->valueList != nullptr) RemoveValueEntry(owner->valueList.get(), hive, owner, index);
    owner->SetField(NkField::ValueCount, count - 1);
    if (count - 1 == 0) {
        owner->SetField(NkField::ValueListCell, kNoCell);
        owner->SetField(NkField::MaxValueName, 0);
        owner->SetField(NkField::MaxValueData, 0);
        owner->valueList.reset();
    }
    owner->Save(hive);
}

void RemoveValueEntry(SubValList* list, Hive* hive, Key* owner, std::uint32_t position) {
    const std::uint32_t count = owner->ValueCount();
    list->EntriesChanged();
    if (count == 1) {
        CellRef own = hive->GetCell(list->GetOffset());
        if (!own.IsUsable()) return;
        FreeCell(own, hive);
    } else {
        // Entries behind the position move down; a damaged count is cut to what the cell holds.
        const std::uint32_t last = std::min(count, list->EntriesHeld());
        if (last > 0 && position < last - 1) {
            std::uint8_t* entries = list->record.Data();
            std::memmove(entries + position * 4, entries + (position + 1) * 4,
                         static_cast<std::size_t>(last - 1 - position) * 4);
        }
        list->Save(hive);
    }
    list->child.reset();
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
