// Subkey lists put into the order Windows keeps.
#include <algorithm>
#include <memory>
#include <numeric>
#include <vector>

#include "api/EntryFrame.h"
#include "edit/NameForms.h"
#include "api/ToolEntry.h"
#include "nodes/MakeNode.h"
#include "nodes/SubKeyList.h"

namespace Tamvik::ToolEdit {

using namespace RegAPI;

namespace {

struct Entry {
    std::uint32_t cell, hint;
    std::uint16_t from;  // signature of the leaf it came from: its hint's kind
    WString name, upper;
};

}  // namespace

LONG SortSubKeys(HKEY handle, bool* changed) {
    const WriteBack writeBack(handle);
    if (changed != nullptr) *changed = false;
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr) return Result::Invalid;
    const std::uint32_t count = owner->SubKeyCount();
    if (count < 2) return Result::Ok;
    std::unique_ptr<SubKeyList> top = owner->GetSubKeyList(hive);
    if (top == nullptr) return Result::Corrupt;
    std::vector<std::unique_ptr<SubKeyList>> ownLeaves;
    std::vector<SubKeyList*> leaves;
    if (top->Signature() == kRiSignature) {
        for (std::uint32_t j = 0; j < top->GetCount(); ++j) {
            if (!top->record.Holds(ListField::Entries + 4 * j, 4)) return Result::Corrupt;
            const std::uint32_t cell = top->record.U32(ListField::Entries + 4 * j);
            ownLeaves.push_back(BuildNodeAt<SubKeyList>(hive, cell, owner, CellKind::BySignature));
            if (ownLeaves.back() == nullptr || ownLeaves.back()->Signature() == kRiSignature) return Result::Corrupt;
            leaves.push_back(ownLeaves.back().get());
        }
    } else {
        leaves.push_back(top.get());
    }
    // Everything is read and checked before any entry moves: a damaged list stays as it is.
    std::vector<Entry> entries;
    for (SubKeyList* leaf : leaves) {
        const std::uint32_t size = ListEntrySize(leaf->Signature()), n = leaf->GetCount();
        if (!leaf->record.Holds(ListField::Entries, static_cast<std::uint64_t>(n) * size)) return Result::Corrupt;
        for (std::uint32_t i = 0; i < n; ++i) {
            const std::uint32_t at = ListField::Entries + i * size;
            Entry e{leaf->record.U32(at), size == 8 ? leaf->record.U32(at + 4) : 0, leaf->Signature(), {}, {}};
            std::optional<WString> name = KeyNameAt(hive, e.cell);
            if (!name) return Result::Corrupt;
            e.name = std::move(*name);
            e.upper = WindowsUpperName(e.name);
            entries.push_back(std::move(e));
        }
    }
    if (entries.size() != count) return Result::Corrupt;
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return entries[a].upper < entries[b].upper; });
    std::size_t k = 0;
    for (SubKeyList* leaf : leaves) {
        const std::uint32_t size = ListEntrySize(leaf->Signature());
        bool moved = false;
        for (std::uint32_t i = 0; i < leaf->GetCount(); ++i, ++k) {
            const Entry& e = entries[order[k]];
            const std::uint32_t at = ListField::Entries + i * size;
            if (order[k] == k) continue;
            moved = true;
            leaf->record.SetU32(at, e.cell);
            if (size == 8) leaf->record.SetU32(at + 4, e.from == leaf->Signature() ? e.hint : HintFor(leaf->Signature(), e.name));
        }
        if (!moved) continue;
        leaf->Save(hive);
        if (changed != nullptr) *changed = true;
        // The cached list and its names describe the old order.
        owner->subKeyList.reset();
    }
    return Result::Ok;
}

}  // namespace Tamvik::ToolEdit
