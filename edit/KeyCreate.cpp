#include <algorithm>
#include <cstring>
#include <vector>

#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"
#include "store/CodePage.h"

namespace Tamvik {

namespace {

// The exported functions counted a cell's size field into the size they ask
// for a record, and the allocator adds it again: their records get 4 bytes
// more than they need.
std::uint32_t RecordSlack(Caller caller) { return caller == Caller::Exported ? 4 : 0; }

void InitKeyRecord(Key* owner, std::uint8_t* record, const NewName& name) {
    StoreU16(record + NkField::Signature, kNkSignature);
    StoreU16(record + NkField::Flags, name.compressed ? NkField::NarrowNameFlag : 0);
    StoreU64(record + NkField::Timestamp, static_cast<std::uint64_t>(Time64()));
    StoreU32(record + NkField::ParentCell, owner->GetOffset());
    StoreU32(record + NkField::SubKeyCount, 0);
    StoreU32(record + NkField::SubKeyListCell, 0);
    StoreU32(record + NkField::ValueCount, 0);
    StoreU32(record + NkField::ValueListCell, kNoCell);
    StoreU32(record + NkField::SecurityCell, owner->Field(NkField::SecurityCell));
    StoreU32(record + NkField::ClassCell, kNoCell);
    StoreU16(record + NkField::NameLength, static_cast<std::uint16_t>(name.bytes.size()));
    StoreU16(record + NkField::ClassLength, 0);
    std::memcpy(record + NkField::Name, name.bytes.data(), name.bytes.size());
}

// Whether a subkey of that name is there, read at every position the
// library's lookups count, through a private list: the owner's caches, and so
// a caller's handles, stay as they are.
Status RefuseSameName(Key* owner, Hive* hive, const NewName& name) {
    const std::uint32_t count = owner->SubKeyCount();
    if (count == 0) return Status::Success();
    std::unique_ptr<SubKeyList> list = owner->GetSubKeyList(hive);
    if (list == nullptr) return Status::Of(StatusCode::Damaged, "the subkey list can't be read");
    const WString upper = UpperCaseName(name.wide);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::optional<WString> existing = list->NameAt(hive, i);
        if (!existing) return Status::Of(StatusCode::Damaged, "subkey #" + std::to_string(i) + " can't be read");
        if (UpperCaseName(*existing) == upper) return Status::Of(StatusCode::Exists, "a subkey of that name exists");
    }
    return Status::Success();
}

// A leaf with the new entry at position, in its cell when the rules keep it
// there, else in a new one; gives the leaf's cell, 0 on failure.
std::uint32_t InsertIntoLeaf(Key* owner, Hive* hive, SubKeyList& leaf, std::uint32_t position, std::uint32_t keyCell,
                             const NewName& name, Caller caller) {
    const std::uint32_t size = leaf.EntrySize(), count = leaf.GetCount();
    if (count >= kMaxLeafEntries) return 0;
    std::vector<std::uint8_t> record(ListField::Entries + static_cast<std::size_t>(count + 1) * size);
    const std::uint8_t* old = leaf.record.Data();
    std::memcpy(record.data(), old, ListField::Entries + position * size);
    std::memcpy(record.data() + ListField::Entries + (position + 1) * size, old + ListField::Entries + position * size,
                static_cast<std::size_t>(count - position) * size);
    StoreU16(record.data() + ListField::Count, static_cast<std::uint16_t>(count + 1));
    std::uint8_t* fresh = record.data() + ListField::Entries + position * size;
    StoreU32(fresh, keyCell);
    if (size == kFastEntry) StoreU32(fresh + 4, EntryHint(leaf.Signature(), name));

    CellPlan plan;
    const std::uint32_t capacity = leaf.GetBufferSize();
    const bool stays = SubKeyListStays(capacity, count, size, caller);
    if (!PlanListRewrite(hive, leaf.GetOffset(), capacity, stays, AskedSubKeyList(count, size, caller), plan)) return 0;
    owner->ListChanged(Key::ListChange::SubKeysRewritten);
    std::vector<std::uint8_t> image(plan.imageLength);
    std::memcpy(image.data() + 4, record.data(), std::min<std::size_t>(record.size(), plan.cellSize - 4));
    WritePlannedCell(hive, plan, image.data());
    return plan.offset;
}

}  // namespace

std::uint32_t InsertSubKeyEntry(Key* owner, Hive* hive, const NewName& name, std::uint32_t keyCell, EditRules rules) {
    const std::uint32_t count = owner->SubKeyCount();
    if (count == 0) {
        return CreateCell(hive, AskedSubKeyList(0, kFastEntry, rules.caller), [&](std::uint8_t* record, std::uint32_t) {
            StoreU16(record + ListField::Signature, kLfSignature);
            StoreU16(record + ListField::Count, 1);
            StoreU32(record + ListField::Entries, keyCell);
            StoreU32(record + ListField::Entries + 4, EntryHint(kLfSignature, name));
        });
    }
    std::unique_ptr<SubKeyList> read = owner->GetSubKeyList(hive);
    if (read == nullptr) return 0;
    if (rules.caller == Caller::Exported) {
        const std::uint16_t signature = read->Signature();
        if (read->GetCount() != count || (signature != kLfSignature && signature != kLhSignature)) return 0;
    }
    OpenedList list = OpenLeaves(hive, std::move(read));
    if (!list.Whole()) return 0;
    // Every count is checked, and every name up to the new one's place read,
    // before an old cell is touched: a refusal leaves the owner's list as it was.
    std::uint64_t seen = 0;
    for (SubKeyList* leaf : list.leaves) {
        if (!leaf->HoldsCount()) return 0;
        seen += leaf->GetCount();
    }
    if (seen != count) return 0;  // a damaged list is left as it is
    const std::string narrow = rules.order == ListOrder::Windows       ? std::string()
                               : name.form == NameForm::CodePage936 ? name.bytes
                                                                     : NarrowLossy(name.wide);
    std::size_t leafIndex = list.leaves.size() - 1;
    std::uint32_t position = list.leaves.back()->GetCount();
    bool placed = false;
    WString last;
    for (std::size_t j = 0; j < list.leaves.size() && !placed; ++j) {
        for (std::uint32_t i = 0; i < list.leaves[j]->GetCount() && !placed; ++i) {
            std::optional<WString> existing = KeyNameAt(hive, *list.leaves[j]->EntryCell(i));
            if (!existing) return 0;
            if (GoesBefore(name, narrow, *existing, rules.order)) {
                placed = true;
                leafIndex = j;
                position = i;
            }
            last = std::move(*existing);
        }
    }
    if (!placed && rules.caller == Caller::Exported && CompareLibraryOrder(narrow, last) == 0) return 0;
    SubKeyList& leaf = *list.leaves[leafIndex];
    const std::uint32_t leafCell = InsertIntoLeaf(owner, hive, leaf, position, keyCell, name, rules.caller);
    if (leafCell == 0 || list.top->IsLeaf()) return leafCell;
    // A leaf of an ri that moved: the ri names its new cell, in place.
    if (leafCell != leaf.GetOffset()) {
        list.top->record.SetU32(ListField::Entries + kLeafEntry * static_cast<std::uint32_t>(leafIndex), leafCell);
        list.top->Save(hive);
    }
    return list.top->GetOffset();
}

Status CreateSubKey(Key* owner, Hive* hive, const NewName& name, EditRules rules, std::uint32_t* keyCell) {
    const std::uint64_t where = owner->GetOffset() + std::uint64_t{kBaseBlockSize};
    if (name.bytes.size() > kMaxNameBytes) return Status::Of(StatusCode::Invalid, "the name is longer than a record holds");
    if (Status same = RefuseSameName(owner, hive, name); !same) return same;
    if (owner->record.U16(NkField::Signature) != kNkSignature)
        return Status::Of(StatusCode::Damaged, "the parent key's cell holds no nk record", where);
    const std::uint32_t cell =
        CreateCell(hive, NkField::Name + static_cast<std::uint32_t>(name.bytes.size()) + RecordSlack(rules.caller),
                   [&](std::uint8_t* record, std::uint32_t) { InitKeyRecord(owner, record, name); });
    if (cell == 0) return Status::Of(StatusCode::NoRoom, "no room for the new key's cell");
    const std::uint32_t listCell = InsertSubKeyEntry(owner, hive, name, cell, rules);
    if (listCell == 0) {
        FreeCellAt(hive, cell);
        return Status::Of(StatusCode::Damaged, "the subkey list can't take the new key", where);
    }
    owner->SetField(NkField::SubKeyCount, owner->SubKeyCount() + 1);
    owner->SetField(NkField::SubKeyListCell, listCell);
    owner->RaiseMaxName(NkField::MaxSubKeyName, name.Units());
    owner->Save(hive);
    AddSecurityRef(owner, hive);
    *keyCell = cell;
    return Status::Success();
}

}  // namespace Tamvik
