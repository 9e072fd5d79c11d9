// The rules of list cells shared by every edit: the size a list with one
// entry more is asked, whether it stays in its cell, taking an entry out of a
// record, and the order Windows keeps.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include "edit/Edit.h"
#include "store/Allocator.h"

namespace Tamvik {

std::uint32_t ListRoom(std::uint32_t entries, std::uint32_t most) {
    // Half as much again, at least four: a list that grows by one entry at a
    // time moves to a new cell a logarithmic number of times, not at every step.
    const std::uint64_t room = std::max<std::uint64_t>(4, entries + std::uint64_t{entries} / 2);
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(room, std::max(most, entries)));
}

std::uint32_t AskedSubKeyList(std::uint32_t count, std::uint32_t entrySize, Caller caller) {
    if (caller == Caller::Exported) return count * kFastEntry + 16;
    return ListField::Entries + ListRoom(count + 1, kMaxLeafEntries) * entrySize;
}

bool SubKeyListStays(std::uint32_t capacity, std::uint32_t count, std::uint32_t entrySize, Caller caller) {
    if (caller == Caller::Exported)
        return static_cast<std::int32_t>(capacity) >= static_cast<std::int32_t>(AskedSubKeyList(count, entrySize, caller) + 8);
    return capacity >= NeedFor(ListField::Entries + (count + 1) * entrySize);
}

std::uint32_t AskedValueList(std::uint32_t count, Caller caller) {
    if (caller == Caller::Exported) return count * 4 + 4;
    return ListRoom(count + 1, kMaxValueEntries) * 4;
}

bool ValueListStays(std::uint32_t capacity, std::uint32_t count, Caller caller) {
    // The exported functions keep a value list only in a cell larger than it needs.
    if (caller == Caller::Exported) return static_cast<std::int32_t>(capacity) > static_cast<std::int32_t>(count * 4 + 8);
    return capacity >= NeedFor((count + 1) * 4);
}

void DropEntry(RecordRef& record, std::uint32_t at, std::uint32_t count, std::uint32_t index, std::uint32_t entrySize) {
    const std::uint32_t held = record.Available(at) / entrySize;
    if (held == 0 || count == 0) return;
    // A damaged count is cut to what the record holds.
    const std::uint32_t last = std::min(count - 1, held - 1);
    if (index >= last) return;
    std::uint8_t* entries = record.Data() + at;
    std::memmove(entries + index * entrySize, entries + (index + 1) * entrySize,
                 static_cast<std::size_t>(last - index) * entrySize);
}

namespace {
struct SortEntry {
    std::uint32_t cell, hint;
    std::uint16_t from;  // signature of the leaf it came from: its hint's kind
    WString name, upper;
};
}  // namespace

Status SortSubKeys(Key* owner, Hive* hive, bool* changed) {
    if (changed != nullptr) *changed = false;
    const std::uint32_t count = owner->SubKeyCount();
    if (count < 2) return Status::Success();
    const std::uint64_t where = owner->GetOffset() + std::uint64_t{kBaseBlockSize};
    const OpenedList list = OpenLeaves(hive, owner->GetSubKeyList(hive));
    if (!list.Whole()) return Status::Of(StatusCode::Damaged, "the subkey list can't be opened to its leaves", where);
    // Everything is read and checked before any entry moves: a damaged list stays as it is.
    std::vector<SortEntry> entries;
    for (SubKeyList* leaf : list.leaves) {
        if (!leaf->HoldsCount()) return Status::Of(StatusCode::Damaged, "a leaf counts more entries than its cell holds", where);
        const std::uint32_t size = leaf->EntrySize();
        for (std::uint32_t i = 0; i < leaf->GetCount(); ++i) {
            const std::uint32_t at = ListField::Entries + i * size;
            SortEntry e{leaf->record.U32(at), size == kFastEntry ? leaf->record.U32(at + 4) : 0, leaf->Signature(), {}, {}};
            std::optional<WString> name = KeyNameAt(hive, e.cell);
            if (!name) return Status::Of(StatusCode::Damaged, "a subkey's name can't be read", e.cell + std::uint64_t{kBaseBlockSize});
            e.name = std::move(*name);
            e.upper = WindowsUpperName(e.name);
            entries.push_back(std::move(e));
        }
    }
    if (entries.size() != count) return Status::Of(StatusCode::Damaged, "the leaves hold another count than the key", where);
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return entries[a].upper < entries[b].upper; });
    std::size_t k = 0;
    bool anyMoved = false;
    for (SubKeyList* leaf : list.leaves) {
        const std::uint32_t size = leaf->EntrySize();
        bool moved = false;
        for (std::uint32_t i = 0; i < leaf->GetCount(); ++i, ++k) {
            if (order[k] == k) continue;
            const SortEntry& e = entries[order[k]];
            const std::uint32_t at = ListField::Entries + i * size;
            moved = true;
            leaf->record.SetU32(at, e.cell);
            if (size == kFastEntry)
                leaf->record.SetU32(at + 4, e.from == leaf->Signature() ? e.hint : HintFor(leaf->Signature(), e.name));
        }
        if (!moved) continue;
        // The cached list and what its scans learnt are of the old order.
        if (!anyMoved) owner->ListChanged(Key::ListChange::SubKeysRewritten);
        anyMoved = true;
        leaf->Save(hive);
    }
    if (changed != nullptr) *changed = anyMoved;
    return Status::Success();
}

}  // namespace Tamvik
