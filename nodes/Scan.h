// The scan by name shared by subkey lists and value lists. It gives what a
// scan from position 0 would give, building one node per position and keeping
// the match, or else the last position's node, as the list's child. A hive in
// memory reads the hashes of names through hashAt and remembers them in the
// list's NameIndex, so a later lookup builds only the node it returns; a hive
// on a volume is scanned literally, so that its device sees each read the scan
// makes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "store/NameIndex.h"

namespace Tamvik {

// One node per position from 0, each replacing the last as child, up to the
// match. beyond(i), asked when position i gave nothing, tells that no later
// position can give a node either, so the scan ends as it would, without reads.
template <class Child, class GetAt, class Beyond>
Child* ScanLiterally(std::unique_ptr<Child>& child, std::uint64_t count, std::u16string_view wanted, GetAt getAt,
                     Beyond beyond) {
    for (std::uint64_t i = 0; i < count; ++i) {
        child.reset();
        child = getAt(static_cast<std::uint32_t>(i));
        if (child != nullptr && child->NameMatches(wanted)) return child.get();
        if (child == nullptr && beyond(i)) return nullptr;
    }
    return nullptr;
}

// The walk's lookup (see NameIndex::ordered): the node at the next position
// in order, as child, when its name is wanted, which FollowsOrdered; else
// null, and the scan by name answers. limit, matchesAt and getAt are as for
// ScanByName. Once a walk is under way the name there is almost always the
// one asked for, so the node is built first and its name compared, reading
// the cell once; the first position is tested before a node is built, since
// a lookup of another kind starts there too.
template <class Child, class MatchesAt, class GetAt>
Child* NextInOrder(std::unique_ptr<Child>& child, NameIndex& index, std::uint64_t limit, std::u16string_view wanted,
                   MatchesAt matchesAt, GetAt getAt) {
    const std::uint32_t next = index.ordered;
    if (next >= limit || (next == 0 && !matchesAt(next))) return nullptr;
    child.reset();
    child = getAt(next);
    if (child == nullptr || (next != 0 && !child->NameMatches(wanted))) return nullptr;
    index.AddOrdered(wanted);
    return child.get();
}

// child: the list's cached child, which a lookup checks before calling this.
// count: entries the owner counts; limit: positions that can give a node.
// wanted: the upper-case name looked for, with its hash.
// hashAt(i): LookupHash of the upper-case name at position i, when a node can be built there.
// matchesAt(i): whether a node can be built at position i and its name is wanted.
// getAt(i): a new node for position i, or null.
template <class Child, class HashAt, class MatchesAt, class GetAt>
Child* ScanByName(std::unique_ptr<Child>& child, NameIndex& index, std::uint64_t count, std::uint64_t limit,
                  const HashedName& hashed, HashAt hashAt, MatchesAt matchesAt, GetAt getAt) {
    const std::u16string_view wanted = hashed.name;
    const std::uint64_t wantedHash = hashed.hash;
    std::optional<std::uint32_t> match;
    if (std::optional<std::uint32_t> known = index.Find(wantedHash); known && *known < limit) match = known;
    // A caller walking a list opens the names it enumerates in turn: the first
    // position not read yet is then the one. Its name being wanted, its hash is
    // wanted's, and no earlier position had that hash: it is what the loop
    // below would find, found without hashing it.
    bool named = false;  // the name at match is known to be wanted
    if (!match && index.scanned < limit && matchesAt(static_cast<std::uint32_t>(index.scanned))) {
        match = static_cast<std::uint32_t>(index.scanned);
        named = true;
        index.Add(wantedHash, *match);
        index.scanned = *match + 1;
    }
    for (std::uint64_t i = index.scanned; !match && i < limit; ++i) {
        const std::optional<std::uint64_t> hash = hashAt(static_cast<std::uint32_t>(i));
        index.scanned = i + 1;
        if (!hash) continue;
        index.Add(*hash, static_cast<std::uint32_t>(i));
        if (*hash == wantedHash) match = static_cast<std::uint32_t>(i);
    }
    child.reset();
    if (match) {
        child = getAt(*match);
        if (child != nullptr) {
            if (named || child->NameMatches(wanted)) return child.get();
            // Another name with the same hash comes first: only the names themselves can tell.
            return ScanLiterally(child, count, wanted, getAt, [&](std::uint64_t i) { return i >= limit; });
        }
    }
    // No match: the list keeps what the last position gives, as a full scan leaves it.
    if (limit == count && limit > 0) child = getAt(static_cast<std::uint32_t>(limit - 1));
    return nullptr;
}

}  // namespace Tamvik
