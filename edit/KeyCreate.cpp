#include <algorithm>
#include <cstring>
#include <vector>

#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"
#include "store/CodePage.h"
#include "store/NameIndex.h"

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

// What the check for a subkey of the same name learns on its way that the
// insert would read again: where the new name goes in a list of one leaf, and
// the cells it read to know it. The insert takes it over only when the new
// key's cell was written clear of every one of those cells, so that a second
// reading could find nothing else.
struct Placement {
    bool known = false;
    std::uint32_t leafCell = 0, count = 0, position = 0;
    bool placed = false;      // before the entry at position, else behind the last
    bool sameAsLast = false;  // the library's order finds it equal to the last name
    std::vector<std::pair<std::uint64_t, std::uint64_t>> cells;  // start and end of each cell read
    // Where the siblings' cells are watched instead of listed: a write over one marks it.
    const WriteWatch* siblings = nullptr;
    const CaseMap* map = nullptr;  // the case rules the names were compared under

    // Adds the cell at offset, its size to *size when asked; false when its
    // size field isn't in memory to be read.
    bool Read(Hive* hive, std::uint32_t offset, std::uint32_t* size = nullptr) {
        const std::uint8_t* field = hive->AreaBytes(offset, kCellSizeField);
        if (field == nullptr) return false;
        if (size != nullptr) *size = CellMagnitude(LoadI32(field));
        Add(offset, CellMagnitude(LoadI32(field)));
        return true;
    }
    void Add(std::uint32_t offset, std::uint32_t size) {
        // A cell's header is read whole, even when the cell is shorter.
        cells.emplace_back(offset, offset + std::uint64_t{std::max(size, kCellHeaderRead)});
    }
    bool ClearOf(std::uint64_t from, std::uint64_t to) const {
        return std::none_of(cells.begin(), cells.end(), [&](const auto& c) { return c.first < to && c.second > from; }) &&
               (siblings == nullptr || !siblings->Marked());
    }
};

std::string NarrowForOrder(const NewName& name, ListOrder order) {
    if (order == ListOrder::Windows) return std::string();
    return name.form == NameForm::CodePage936 ? name.bytes : NarrowLossy(name.wide);
}

bool SameName(std::u16string_view existing, const WString& upper, const CaseMap& map) {
    if (existing.size() != upper.size()) return false;
    std::size_t k = 0;
    while (k < upper.size() && map.Upper(existing[k]) == upper[k]) ++k;
    return k == upper.size();
}

// The record of the leaf at leafCell, up to its last entry, in place; null
// when the file doesn't hold it in an allocated cell.
const std::uint8_t* LeafRecord(Hive* hive, std::uint32_t leafCell, std::uint32_t count, std::uint32_t entrySize) {
    const std::uint64_t length = ListField::Entries + std::uint64_t{count} * entrySize;
    const std::uint8_t* cell = hive->AreaBytes(leafCell, kCellSizeField);
    if (cell == nullptr || LoadI32(cell) >= 0 || CellMagnitude(LoadI32(cell)) < kCellSizeField + length) return nullptr;
    cell = hive->AreaBytes(leafCell, static_cast<std::uint32_t>(kCellSizeField + length));
    return cell == nullptr ? nullptr : cell + kCellSizeField;
}

// Whether the memo holds owner's leaf as the file holds it now: the same
// record, and each entry's key reading back as the name kept.
bool Recalls(LeafMemo& memo, Hive* hive, std::uint32_t owner, const SubKeyList& leaf, std::uint32_t count) {
    if (memo.owner != owner || memo.leaf != leaf.GetOffset() || memo.names.size() != count) return false;
    const std::uint8_t* record = LeafRecord(hive, memo.leaf, count, leaf.EntrySize());
    if (record == nullptr || memo.bytes.size() != ListField::Entries + std::size_t{count} * leaf.EntrySize() ||
        std::memcmp(record, memo.bytes.data(), memo.bytes.size()) != 0)
        return false;
    auto reads = [&](std::size_t i) { return KeyStillReadsAs(hive, memo.cells[i], memo.sizes[i], memo.names[i]); };
    // Without a watch, or when it lost count, every sibling; else those written over since.
    const bool all = memo.watch == nullptr || memo.watch->TakeMarks(memo.marks);
    if (all) {
        for (std::uint32_t i = 0; i < count; ++i)
            if (!reads(i)) return false;
        return true;
    }
    std::sort(memo.marks.begin(), memo.marks.end());
    memo.marks.erase(std::unique(memo.marks.begin(), memo.marks.end()), memo.marks.end());
    for (std::uint32_t mark : memo.marks) {
        // Siblings may share a cell in a damaged list.
        for (auto it = memo.cells.begin(); (it = std::find(it, memo.cells.end(), mark)) != memo.cells.end(); ++it)
            if (!reads(static_cast<std::size_t>(it - memo.cells.begin()))) return false;
    }
    return true;
}

std::uint64_t UpperHash(std::u16string_view name, const CaseMap& map) {
    LookupHash hash;
    for (char16_t unit : name) hash.Add(map.Upper(unit));
    return hash.Value();
}

bool LibraryOrdered(const std::string& a, const std::string& b) { return CompareNoCase(a.c_str(), b.c_str()) <= 0; }

// The names' upper-case hashes, made for the rules in force.
void Refresh(LeafMemo& memo, const CaseMap& map) {
    if (memo.rules == map.Rules() && memo.upperHashes.size() == memo.names.size()) return;
    memo.upperHashes.clear();
    for (const WString& name : memo.names) memo.upperHashes.push_back(UpperHash(name, map));
    memo.rules = map.Rules();
}

// The names' forms for the library's order, and whether they stand in it
// under the rules in force.
const std::vector<std::string>& OrderKeys(LeafMemo& memo, const CaseMap& map) {
    if (memo.orderKeys.size() != memo.names.size()) {
        memo.orderKeys.clear();
        for (const WString& name : memo.names) memo.orderKeys.push_back(LibraryOrderKey(name));
        memo.orderRules = 0;
    }
    if (memo.orderRules != map.Rules()) {
        memo.libraryOrdered = true;
        for (std::size_t i = 1; i < memo.orderKeys.size() && memo.libraryOrdered; ++i)
            memo.libraryOrdered = LibraryOrdered(memo.orderKeys[i - 1], memo.orderKeys[i]);
        memo.orderRules = map.Rules();
    }
    return memo.orderKeys;
}

// Where the new name goes among the remembered ones: before the first it goes
// before. Among names standing in the order asked for, that is the first
// name greater than it, found by halving.
std::uint32_t PositionAmong(LeafMemo& memo, const NewName& name, const std::string& narrow, ListOrder order,
                            const CaseMap& map) {
    const std::vector<WString>& names = memo.names;
    if (order == ListOrder::Windows) {
        if (memo.windowsOrdered) {
            const auto at = std::upper_bound(names.begin(), names.end(), name.wide, [](const WString& a, const WString& b) {
                return CompareWindowsOrder(a, b) < 0;
            });
            return static_cast<std::uint32_t>(at - names.begin());
        }
        std::uint32_t i = 0;
        while (i < names.size() && !GoesBefore(name, narrow, names[i], order)) ++i;
        return i;
    }
    const std::vector<std::string>& keys = OrderKeys(memo, map);
    auto before = [](const std::string& a, const std::string& b) { return CompareNoCase(a.c_str(), b.c_str()) < 0; };
    if (memo.libraryOrdered)
        return static_cast<std::uint32_t>(std::upper_bound(keys.begin(), keys.end(), narrow, before) - keys.begin());
    std::uint32_t i = 0;
    while (i < keys.size() && !before(narrow, keys[i])) ++i;
    return i;
}

// Whether a subkey of that name is there, read at every position the
// library's lookups count, through a private list: the owner's caches, and so
// a caller's handles, stay as they are. Where the list is one leaf of a hive
// in memory, also where the insert would put the name. A memo that holds the
// leaf as it stands serves for reading the names; one that doesn't is filled
// with the names read, to be kept once the insert is made.
Status RefuseSameName(Key* owner, Hive* hive, const NewName& name, EditRules rules, Placement* placement, LeafMemo* memo) {
    const std::uint32_t count = owner->SubKeyCount();
    if (memo != nullptr && count == 0) memo->Forget();
    if (count == 0) return Status::Success();
    std::unique_ptr<SubKeyList> list = owner->GetSubKeyList(hive);
    if (list == nullptr) return Status::Of(StatusCode::Damaged, "the subkey list can't be read");
    const CaseMap& map = CurrentCaseMap();
    WString upper = name.wide;
    for (char16_t& unit : upper) unit = map.Upper(unit);
    Placement& learnt = *placement;
    learnt.map = &map;
    const bool leaf = list->IsLeaf();
    learnt.known = hive->Image() != nullptr && leaf && learnt.Read(hive, owner->GetOffset()) &&
                   learnt.Read(hive, list->GetOffset());
    const std::string narrow = learnt.known ? NarrowForOrder(name, rules.order) : std::string();
    if (memo != nullptr && learnt.known && Recalls(*memo, hive, owner->GetOffset(), *list, count)) {
        Refresh(*memo, map);
        // Names of another upper-case hash can't be the same name.
        const std::uint64_t hash = LookupHash::Of(upper.data(), upper.size());
        for (std::uint32_t i = 0; i < count; ++i)
            if (memo->upperHashes[i] == hash && SameName(memo->names[i], upper, map))
                return Status::Of(StatusCode::Exists, "a subkey of that name exists");
        // The marks were taken just now: any the new key's cell leaves are its own.
        if (memo->watch != nullptr) learnt.siblings = memo->watch;
        else
            for (std::uint32_t i = 0; i < count; ++i) learnt.Add(memo->cells[i], memo->sizes[i]);
        learnt.leafCell = list->GetOffset();
        learnt.count = count;
        learnt.position = PositionAmong(*memo, name, narrow, rules.order, map);
        learnt.placed = learnt.position < count;
        learnt.sameAsLast = !learnt.placed && rules.caller == Caller::Exported &&
                            CompareNoCase(narrow.c_str(), OrderKeys(*memo, map).back().c_str()) == 0;
        return Status::Success();
    }
    // Filled while it can serve: a leaf in memory, read whole.
    const bool filling = memo != nullptr && learnt.known;
    if (memo != nullptr) {
        memo->Forget();
        memo->windowsOrdered = true;
    }
    // One buffer for every name read: each is compared where it lies, unit by unit.
    WString existing;
    for (std::uint32_t i = 0; i < count; ++i) {
        // A leaf's entry is read here as its NameInto reads it, and serves the placement too.
        const std::uint32_t entry = leaf && i < list->GetCount() ? list->EntryCell(i).value_or(kNoCell) : kNoCell;
        const NameTarget into{nullptr, 0, &existing};
        const bool read = leaf ? entry != kNoCell && KeyNameInto(hive, entry, into) : list->NameInto(hive, i, into).has_value();
        if (!read)
            return Status::Of(StatusCode::Damaged, "subkey #" + std::to_string(i) + " can't be read");
        if (SameName(existing, upper, map)) return Status::Of(StatusCode::Exists, "a subkey of that name exists");
        if (!learnt.known) continue;
        std::uint32_t size = 0;
        learnt.known = learnt.Read(hive, entry, &size);
        if (!learnt.placed && GoesBefore(name, narrow, existing, rules.order)) {
            learnt.placed = true;
            learnt.position = i;
        }
        if (!filling || !learnt.known) continue;
        if (!memo->names.empty() && CompareWindowsOrder(memo->names.back(), existing) > 0) memo->windowsOrdered = false;
        memo->Add(existing, entry, size);
    }
    if (learnt.known) {
        learnt.leafCell = list->GetOffset();
        learnt.count = count;
        if (!learnt.placed) {
            learnt.position = count;
            learnt.sameAsLast = rules.caller == Caller::Exported && CompareLibraryOrder(narrow, existing) == 0;
        }
    }
    return Status::Success();
}

// After a new key's entry went into the single leaf at leafCell at the
// learnt position: the memo keeps that leaf, with the new name among the
// names read, when it was filled for this list.
void Remember(LeafMemo* memo, Hive* hive, std::uint32_t owner, std::uint32_t leafCell, std::uint32_t keyCell,
              const Placement& placement, const NewName& name) {
    if (memo == nullptr) return;
    std::vector<WString>& names = memo->names;
    const std::uint32_t count = placement.count + 1;
    if (names.size() != placement.count || placement.position > names.size()) return memo->Forget();
    const std::uint8_t* keyField = hive->AreaBytes(keyCell, kCellSizeField);
    if (keyField == nullptr) return memo->Forget();
    const std::uint8_t* record = hive->AreaBytes(leafCell, kCellSizeField + ListField::Entries);
    const std::uint16_t signature = record == nullptr ? 0 : LoadU16(record + kCellSizeField + ListField::Signature);
    if (signature != kLfSignature && signature != kLhSignature && signature != kLiSignature) return memo->Forget();
    record = LeafRecord(hive, leafCell, count, ListEntrySize(signature));
    const std::uint32_t size = ListEntrySize(signature);
    if (record == nullptr || LoadU16(record + ListField::Count) != count ||
        LoadU32(record + ListField::Entries + placement.position * size) != keyCell)
        return memo->Forget();
    const auto at = names.begin() + placement.position;
    if (at != names.begin() && CompareWindowsOrder(*(at - 1), name.units) > 0) memo->windowsOrdered = false;
    if (at != names.end() && CompareWindowsOrder(name.units, *at) > 0) memo->windowsOrdered = false;
    const std::size_t position = placement.position;
    // The new key as the writes since left it.
    const std::uint32_t keySize = CellMagnitude(LoadI32(keyField));
    if (!KeyStillReadsAs(hive, keyCell, keySize, name.units)) return memo->Forget();
    memo->Insert(position, name.units, keyCell, keySize);
    // What holds under the rules in force is kept up to date while they stay;
    // anything else is made again when next asked for.
    const CaseMap* map = placement.map;
    if (map != nullptr && memo->upperHashes.size() == placement.count && memo->rules == map->Rules())
        memo->upperHashes.insert(memo->upperHashes.begin() + position, UpperHash(name.units, *map));
    else
        memo->upperHashes.clear();
    std::vector<std::string>& keys = memo->orderKeys;
    if (!keys.empty() && keys.size() == placement.count) {
        keys.insert(keys.begin() + position, LibraryOrderKey(name.units));
        const bool kept = map != nullptr && memo->orderRules == map->Rules();
        if (!kept) memo->orderRules = 0;
        if (kept && position > 0 && !LibraryOrdered(keys[position - 1], keys[position])) memo->libraryOrdered = false;
        if (kept && position + 1 < keys.size() && !LibraryOrdered(keys[position], keys[position + 1])) memo->libraryOrdered = false;
    } else {
        keys.clear();
    }
    memo->bytes.assign(record, record + ListField::Entries + std::size_t{count} * size);
    memo->owner = owner;
    memo->leaf = leafCell;
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

// The list of owner with the new key's entry; placement, when known, stands
// for reading the names of a single leaf again.
std::uint32_t InsertEntry(Key* owner, Hive* hive, const NewName& name, std::uint32_t keyCell, EditRules rules,
                          const Placement* placement) {
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
    if (placement != nullptr && list.top->IsLeaf() && list.top->GetOffset() == placement->leafCell &&
        list.top->GetCount() == placement->count) {
        if (!placement->placed && placement->sameAsLast) return 0;
        return InsertIntoLeaf(owner, hive, *list.top, placement->position, keyCell, name, rules.caller);
    }
    const std::string narrow = NarrowForOrder(name, rules.order);
    std::size_t leafIndex = list.leaves.size() - 1;
    std::uint32_t position = list.leaves.back()->GetCount();
    bool placed = false;
    // Two buffers, swapped at each step, hold the name read and the one before it.
    WString existing, last;
    for (std::size_t j = 0; j < list.leaves.size() && !placed; ++j) {
        for (std::uint32_t i = 0; i < list.leaves[j]->GetCount() && !placed; ++i) {
            if (!KeyNameInto(hive, *list.leaves[j]->EntryCell(i), NameTarget{nullptr, 0, &existing})) return 0;
            if (GoesBefore(name, narrow, existing, rules.order)) {
                placed = true;
                leafIndex = j;
                position = i;
            }
            last.swap(existing);
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

}  // namespace

std::uint32_t InsertSubKeyEntry(Key* owner, Hive* hive, const NewName& name, std::uint32_t keyCell, EditRules rules) {
    return InsertEntry(owner, hive, name, keyCell, rules, nullptr);
}

LeafMemo& HiveLeafMemo(Hive* hive) {
    if (hive->editMemo == nullptr) {
        auto memo = std::make_shared<LeafMemo>();
        memo->watch = &hive->cellWatch;
        hive->editMemo = std::move(memo);
    }
    return *static_cast<LeafMemo*>(hive->editMemo.get());
}

Status CreateSubKey(Key* owner, Hive* hive, const NewName& name, EditRules rules, std::uint32_t* keyCell, LeafMemo* memo) {
    const std::uint64_t where = owner->GetOffset() + std::uint64_t{kBaseBlockSize};
    if (name.bytes.size() > kMaxNameBytes) return Status::Of(StatusCode::Invalid, "the name is longer than a record holds");
    Placement placement;
    if (Status same = RefuseSameName(owner, hive, name, rules, &placement, memo); !same) return same;
    if (owner->record.U16(NkField::Signature) != kNkSignature)
        return Status::Of(StatusCode::Damaged, "the parent key's cell holds no nk record", where);
    const std::uint32_t asked = NkField::Name + static_cast<std::uint32_t>(name.bytes.size()) + RecordSlack(rules.caller);
    const std::uint32_t binsBefore = hive->BinsSize();
    const std::uint32_t cell =
        CreateCell(hive, asked, [&](std::uint8_t* record, std::uint32_t) { InitKeyRecord(owner, record, name); });
    if (cell == 0) return Status::Of(StatusCode::NoRoom, "no room for the new key's cell");
    // What that wrote: a whole new bin, or the cell and the size field of the free rest behind it.
    const bool grew = hive->BinsSize() != binsBefore;
    const std::uint64_t wroteFrom = grew ? binsBefore : cell;
    const std::uint64_t wroteTo = grew ? hive->BinsSize() : cell + std::uint64_t{NeedFor(asked)} + kCellSizeField;
    const bool clear = placement.known && placement.ClearOf(wroteFrom, wroteTo);
    const std::uint32_t listCell = InsertEntry(owner, hive, name, cell, rules, clear ? &placement : nullptr);
    if (listCell == 0) {
        if (memo != nullptr) memo->Forget();
        FreeCellAt(hive, cell);
        return Status::Of(StatusCode::Damaged, "the subkey list can't take the new key", where);
    }
    const std::uint32_t count = owner->SubKeyCount();
    owner->SetField(NkField::SubKeyCount, count + 1);
    owner->SetField(NkField::SubKeyListCell, listCell);
    owner->RaiseMaxName(NkField::MaxSubKeyName, name.Units());
    owner->Save(hive);
    AddSecurityRef(owner, hive);
    if (count == 0 && memo != nullptr) {
        // A first key: its new leaf holds just this name.
        placement = Placement();
        memo->Forget();
        memo->windowsOrdered = true;
    }
    if (count == 0 || clear) Remember(memo, hive, owner->GetOffset(), listCell, cell, placement, name);
    else if (memo != nullptr) memo->Forget();
    *keyCell = cell;
    return Status::Success();
}

}  // namespace Tamvik
