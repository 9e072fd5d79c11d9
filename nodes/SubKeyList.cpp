#include "nodes/SubKeyList.h"

#include <algorithm>

#include "nodes/MakeNode.h"
#include "nodes/Scan.h"
#include "store/Hive.h"

namespace Tamvik {

SubKeyList::SubKeyList(NodeClass cls, std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_,
                       std::uint32_t bufferSize_, std::uint32_t payloadOffset)
    : Node(cls, offset_, parent_, buffer_, bufferSize_),
      record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

SubKeyList::~SubKeyList() {
    // The hive keeps only an index worth keeping (see ParkNames); most lists have none.
    if (names.scanned < Hive::kPositionsWorthParking) return;
    if (Hive* hive = NodeAs<Hive>(RootAbove())) hive->ParkNames(offset, false, std::move(names));
}

WString SubKeyList::GetName() const { return u"SubKeyList"; }

std::uint32_t SubKeyList::GetCount() const { return record.U16(ListField::Count); }

std::uint32_t SubKeyList::EntriesHeld(std::uint32_t entrySize) const {
    return record.Available(ListField::Entries) / entrySize;
}

bool SubKeyList::IsLeaf() const { return NodeAs<Indirect>(this) == nullptr; }

std::optional<std::uint32_t> SubKeyList::EntryCell(std::uint32_t i) const {
    const std::uint32_t size = EntrySize();
    if (i >= EntriesHeld(size)) return std::nullopt;
    return record.U32(ListField::Entries + i * size);
}

bool SubKeyList::HoldsCount() const {
    return record.Holds(ListField::Entries, static_cast<std::uint64_t>(GetCount()) * EntrySize());
}

std::optional<std::uint32_t> SubKeyList::KeyCellAt(Hive* hive, std::uint32_t index) {
    if (index >= GetCount()) return std::nullopt;
    const std::optional<std::uint32_t> cell = EntryCell(index);
    if (!cell || !KeyStandsAt(hive, *cell)) return std::nullopt;
    return cell;
}

std::uint64_t SubKeyList::LeafLimit() const {
    const std::uint32_t entrySize = NodeAs<FastLeaf>(this) != nullptr ? kFastEntry : kLeafEntry;
    return std::min(GetCount(), EntriesHeld(entrySize));
}

std::uint64_t SubKeyList::PositionLimit(Hive*) { return LeafLimit(); }

Node* SubKeyList::FindChild(Hive* hive, std::u16string_view wanted) {
    Key* owner = NodeAs<Key>(GetParent());
    if (owner == nullptr) return nullptr;
    const std::uint32_t count = owner->SubKeyCount();
    if (count == 0) return nullptr;
    if (hive->Image() == nullptr) {
        if (child != nullptr && child->NameMatches(wanted)) return child.get();
        return ScanLiterally(child, count, wanted, [&](std::uint32_t i) { return GetAt(hive, i); },
                             [&](std::uint64_t i) { return NothingFrom(i); });
    }
    names.Refresh(hive->Generation());
    // The child a walk opened last in order is named as the last name in
    // order: a name after that one isn't its name.
    const bool afterOrdered = names.FollowsOrdered(wanted);
    const bool childOpenedLast = child != nullptr && names.ordered != 0 && child->index == names.ordered - 1;
    if (child != nullptr && !(afterOrdered && childOpenedLast) && child->NameMatches(wanted)) return child.get();
    if (!names.limit) names.limit = PositionLimit(hive);
    // Positions past the limit build nothing, so the scan ends as it would after them.
    const std::uint64_t limit = std::min<std::uint64_t>(count, *names.limit);
    const auto matchesAt = [&](std::uint32_t i) { return NameMatchesAt(hive, i, wanted).value_or(false); };
    const auto getAt = [&](std::uint32_t i) { return GetAt(hive, i); };
    if (afterOrdered)
        if (Key* next = NextInOrder(child, names, limit, wanted, matchesAt, getAt)) return next;
    return ScanByName(child, names, count, limit, HashedName{wanted, LookupHash::Of(wanted.data(), wanted.size())},
                      [&](std::uint32_t i) { return NameHashAt(hive, i); }, matchesAt, getAt);
}

bool SubKeyList::NothingFrom(std::uint64_t position) const { return position >= LeafLimit(); }

std::optional<WString> SubKeyList::NameAt(Hive* hive, std::uint32_t index) {
    WString name;
    if (!NameInto(hive, index, NameTarget{nullptr, 0, &name})) return std::nullopt;
    return name;
}

std::optional<std::size_t> SubKeyList::NameInto(Hive* hive, std::uint32_t index, NameTarget target) {
    std::unique_ptr<Key> key = GetAt(hive, index);
    if (key == nullptr) return std::nullopt;
    return key->NameInto(target);
}

std::optional<std::uint64_t> SubKeyList::NameHashAt(Hive* hive, std::uint32_t index) {
    std::unique_ptr<Key> key = GetAt(hive, index);
    if (key == nullptr) return std::nullopt;
    return key->UpperNameHash();
}

std::optional<bool> SubKeyList::NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) {
    std::unique_ptr<Key> key = GetAt(hive, index);
    if (key == nullptr) return std::nullopt;
    return key->NameMatches(upper);
}

std::optional<bool> SubKeyList::LeafNameMatchesAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize,
                                                  std::u16string_view upper) {
    const std::optional<std::uint32_t> cell = LeafKeyCell(record, entrySize, index);
    if (!cell) return std::nullopt;
    return KeyNameMatchesAt(hive, *cell, upper);
}

std::optional<std::uint64_t> SubKeyList::LeafNameHashAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize) {
    const std::optional<std::uint32_t> cell = LeafKeyCell(record, entrySize, index);
    if (!cell) return std::nullopt;
    return KeyNameHashAt(hive, *cell);
}

std::optional<std::size_t> SubKeyList::LeafNameInto(Hive* hive, std::uint32_t index, std::uint32_t entrySize,
                                                    NameTarget target) {
    const std::optional<std::uint32_t> cell = LeafKeyCell(record, entrySize, index);
    if (!cell) return std::nullopt;
    return KeyNameInto(hive, *cell, target);
}

std::unique_ptr<Key> SubKeyList::LeafGetAt(Hive* hive, std::uint32_t index, std::uint32_t entrySize) {
    const std::optional<std::uint32_t> cell = LeafKeyCell(record, entrySize, index);
    if (!cell) return nullptr;
    std::unique_ptr<Key> key = BuildNodeAt<Key>(hive, *cell, OwnerKey(this), CellKind::BySignature);
    if (key != nullptr) key->index = index;
    return key;
}

std::unique_ptr<Key> IndxLeaf::GetAt(Hive* hive, std::uint32_t index) { return LeafGetAt(hive, index, kLeafEntry); }
std::optional<std::size_t> IndxLeaf::NameInto(Hive* hive, std::uint32_t index, NameTarget target) {
    return LeafNameInto(hive, index, kLeafEntry, target);
}
std::optional<std::uint64_t> IndxLeaf::NameHashAt(Hive* hive, std::uint32_t index) {
    return LeafNameHashAt(hive, index, kLeafEntry);
}
std::optional<bool> IndxLeaf::NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) {
    return LeafNameMatchesAt(hive, index, kLeafEntry, upper);
}
std::unique_ptr<Key> FastLeaf::GetAt(Hive* hive, std::uint32_t index) { return LeafGetAt(hive, index, kFastEntry); }
std::optional<std::size_t> FastLeaf::NameInto(Hive* hive, std::uint32_t index, NameTarget target) {
    return LeafNameInto(hive, index, kFastEntry, target);
}
std::optional<std::uint64_t> FastLeaf::NameHashAt(Hive* hive, std::uint32_t index) {
    return LeafNameHashAt(hive, index, kFastEntry);
}
std::optional<bool> FastLeaf::NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) {
    return LeafNameMatchesAt(hive, index, kFastEntry, upper);
}

LeafEntry Indirect::LeafAt(Hive* hive, std::uint32_t entry) {
    LeafEntry found;
    if (entry >= EntriesHeld(kLeafEntry)) {
        found.fault = LeafFault::PastRecord;
        return found;
    }
    found.cell = record.U32(ListField::Entries + entry * kLeafEntry);
    found.leaf = BuildNodeAt<SubKeyList>(hive, found.cell, OwnerKey(this), CellKind::BySignature);
    found.fault = FaultOfLeaf(found.leaf.get());
    if (found.fault != LeafFault::None) found.leaf.reset();
    return found;
}

const std::vector<std::unique_ptr<SubKeyList>>* Indirect::KeptLeaves(Hive* hive) {
    if (hive->Image() == nullptr) return nullptr;
    if (leavesKept_ && leavesGeneration_ == hive->Generation()) return &leaves_;
    leaves_.clear();
    resumeLeaf_ = 0;
    resumeStart_ = 0;
    const std::uint32_t count = GetCount();
    for (std::uint32_t j = 0; j < count; ++j) {
        std::unique_ptr<SubKeyList> leaf = LeafAt(hive, j).leaf;
        if (leaf == nullptr) break;  // the walk of GetAt ends at a leaf that can't be built
        leaves_.push_back(std::move(leaf));
    }
    leavesKept_ = true;
    leavesGeneration_ = hive->Generation();
    return &leaves_;
}

template <class AtLeaf>
auto Indirect::WalkTo(Hive* hive, std::uint32_t index, AtLeaf atLeaf) -> decltype(atLeaf(nullptr, 0u)) {
    lastWalkPassedAll = false;
    const std::vector<std::unique_ptr<SubKeyList>>* kept = KeptLeaves(hive);
    std::uint32_t remaining = index;
    std::uint32_t first = 0;
    if (kept != nullptr && index >= resumeStart_) {
        // Every leaf before the one the last walk reached is only passed by this one too.
        first = resumeLeaf_;
        remaining = static_cast<std::uint32_t>(index - resumeStart_);
    }
    bool triedALeaf = false;  // some leaf was asked for the position
    const std::uint32_t count = GetCount();
    for (std::uint32_t j = first; j < count; ++j) {
        std::unique_ptr<SubKeyList> built;
        SubKeyList* leaf = nullptr;
        if (kept != nullptr) {
            if (j < kept->size()) leaf = (*kept)[j].get();
        } else {
            built = LeafAt(hive, j).leaf;
            leaf = built.get();
        }
        if (leaf == nullptr) break;
        const std::uint32_t leafCount = leaf->GetCount();
        if (remaining < leafCount) {
            // The first leaf reached starts where index less remaining says (a
            // leaf tried after a bad entry doesn't: remaining stays then).
            if (kept != nullptr && !triedALeaf) {
                resumeLeaf_ = j;
                resumeStart_ = std::uint64_t{index} - remaining;
            }
            triedALeaf = true;
            if (auto found = atLeaf(leaf, remaining)) return found;
            continue;  // a bad entry: the next leaf is tried with the same remaining position
        }
        remaining -= leafCount;
    }
    // A later position passes the same leaves the same way.
    lastWalkPassedAll = !triedALeaf;
    return {};
}

std::uint64_t Indirect::PositionLimit(Hive* hive) {
    std::uint64_t total = 0;
    if (const auto* kept = KeptLeaves(hive)) {
        for (const auto& leaf : *kept) total += leaf->GetCount();
        return total;
    }
    const std::uint32_t count = GetCount();
    for (std::uint32_t j = 0; j < count; ++j) {
        std::unique_ptr<SubKeyList> leaf = LeafAt(hive, j).leaf;
        if (leaf == nullptr) break;
        total += leaf->GetCount();
    }
    return total;
}

std::unique_ptr<Key> Indirect::GetAt(Hive* hive, std::uint32_t index) {
    std::unique_ptr<Key> key = WalkTo(hive, index, [&](SubKeyList* leaf, std::uint32_t at) { return leaf->GetAt(hive, at); });
    if (key != nullptr) key->index = index;
    return key;
}

std::optional<std::size_t> Indirect::NameInto(Hive* hive, std::uint32_t index, NameTarget target) {
    return WalkTo(hive, index, [&](SubKeyList* leaf, std::uint32_t at) { return leaf->NameInto(hive, at, target); });
}

std::optional<std::uint64_t> Indirect::NameHashAt(Hive* hive, std::uint32_t index) {
    return WalkTo(hive, index, [&](SubKeyList* leaf, std::uint32_t at) { return leaf->NameHashAt(hive, at); });
}
std::optional<bool> Indirect::NameMatchesAt(Hive* hive, std::uint32_t index, std::u16string_view upper) {
    return WalkTo(hive, index, [&](SubKeyList* leaf, std::uint32_t at) { return leaf->NameMatchesAt(hive, at, upper); });
}

void Indirect::EntriesChanged() {
    names.Clear();
    leavesKept_ = false;
}

std::optional<std::uint32_t> Indirect::KeyCellAt(Hive* hive, std::uint32_t index) {
    return WalkTo(hive, index, [&](SubKeyList* leaf, std::uint32_t at) { return leaf->KeyCellAt(hive, at); });
}

OpenedList OpenLeaves(Hive* hive, std::unique_ptr<SubKeyList> list) {
    OpenedList opened;
    opened.top = std::move(list);
    if (opened.top == nullptr) return opened;
    Indirect* ri = NodeAs<Indirect>(opened.top.get());
    if (ri == nullptr) {
        opened.leaves.push_back(opened.top.get());
        return opened;
    }
    for (std::uint32_t j = 0; j < ri->GetCount(); ++j) {
        LeafEntry entry = ri->LeafAt(hive, j);
        if (entry.fault != LeafFault::None) {
            opened.fault = entry.fault;
            opened.faultEntry = j;
            return opened;
        }
        opened.leaves.push_back(entry.leaf.get());
        opened.ownLeaves.push_back(std::move(entry.leaf));
    }
    return opened;
}

}  // namespace Tamvik
