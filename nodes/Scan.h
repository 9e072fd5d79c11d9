// The scan by name shared by subkey lists and value lists. It gives what a
// scan from position 0 would give, building one node per position, but it
// remembers the names it has read in the list's NameIndex, so a later lookup
// builds only the node it returns.
#pragma once

#include <cstdint>
#include <memory>

#include "nodes/NameIndex.h"

namespace Tamvik {

// child: the list's cached child, which a lookup checks before calling this.
// count: entries the owner counts; limit: positions that can give a node.
// getAt(i): a new node for position i, or null.
template <class Child, class GetAt>
Child* ScanByName(std::unique_ptr<Child>& child, NameIndex& index, std::uint64_t count, std::uint64_t limit,
                  const WString& wanted, GetAt getAt) {
    if (std::optional<std::uint32_t> known = index.Find(wanted); known && *known < limit) {
        child.reset();
        child = getAt(*known);
        if (child != nullptr) return child.get();
    }
    bool lastBuilt = false;
    for (std::uint64_t i = index.scanned; i < limit; ++i) {
        child.reset();
        child = getAt(static_cast<std::uint32_t>(i));
        index.scanned = i + 1;
        lastBuilt = i + 1 == limit;
        if (child == nullptr) continue;
        WString upper = UpperCaseName(child->GetName());
        const bool match = upper == wanted;
        index.Add(std::move(upper), static_cast<std::uint32_t>(i));
        if (match) return child.get();
    }
    // No match: the list keeps what the last position gives, as a full scan leaves it.
    if (limit < count) {
        child.reset();
    } else if (!lastBuilt) {
        child.reset();
        if (limit > 0) child = getAt(static_cast<std::uint32_t>(limit - 1));
    }
    return nullptr;
}

}  // namespace Tamvik
