// What the creations keep of the last parent they gave a new subkey, so that
// a run of creations under one parent compares each sibling's name as it
// was read, not read again: the parent's single leaf as it was last written,
// and the name each of its entries leads to. It serves a creation only while
// the leaf in the file holds exactly those bytes and each sibling's cell still
// reads back as the name and the size kept; anything else is read anew. The
// hive's write watch tells which siblings a write may have changed: only
// those are read again.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "store/Hive.h"
#include "store/Platform.h"

namespace Tamvik {


struct LeafMemo {
    std::uint32_t owner = 0;          // the parent's nk cell; 0 when nothing is kept
    std::uint32_t leaf = 0;           // its leaf's cell
    std::vector<std::uint8_t> bytes;  // the leaf's record up to its last entry
    // Per entry, in the leaf's order:
    std::vector<WString> names;        // the name, as the record reads back
    std::vector<std::uint32_t> cells;  // the entry's cell and that cell's size, as read
    std::vector<std::uint32_t> sizes;
    bool windowsOrdered = false;  // the names stand in Windows' order
    // Made when the library's order is first asked for (its narrow forms may
    // need the code page's tables), then kept: the narrow form each name is
    // compared by, and whether they stand in that order under orderRules.
    std::vector<std::string> orderKeys;
    std::uint64_t orderRules = 0;
    bool libraryOrdered = false;
    // Each name's upper-case hash under the case rules numbered rules.
    std::uint64_t rules = 0;
    std::vector<std::uint64_t> upperHashes;
    WriteWatch* watch = nullptr;  // the hive's, watching each sibling's cell
    std::vector<std::uint32_t> marks;  // the cells it marked, taken at each creation

    void Forget() {
        owner = leaf = 0;
        bytes.clear();
        names.clear();
        orderKeys.clear();
        cells.clear();
        sizes.clear();
        upperHashes.clear();
        rules = orderRules = 0;
        if (watch != nullptr) watch->Clear();
    }
    // A sibling read at position names.size().
    void Add(WString name, std::uint32_t cell, std::uint32_t size) { Insert(names.size(), std::move(name), cell, size); }
    void Insert(std::size_t at, WString name, std::uint32_t cell, std::uint32_t size) {
        names.insert(names.begin() + at, std::move(name));
        cells.insert(cells.begin() + at, cell);
        sizes.insert(sizes.begin() + at, size);
        // A cell's header is read whole, even when the cell is shorter.
        if (watch != nullptr) watch->Add(cell, std::max(size, kCellHeaderRead));
    }
};

// The memo the creations keep for a hive, made at first use; it goes with the hive.
LeafMemo& HiveLeafMemo(Hive* hive);

}  // namespace Tamvik
