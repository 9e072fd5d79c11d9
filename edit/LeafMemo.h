// What the creations keep of the last parent they gave a new subkey, so that
// a run of creations under one parent compares each sibling's name as it
// was read, not read again: the parent's single leaf as it was last written,
// and the name each of its entries leads to. It serves a creation only while
// the leaf in the file holds exactly those bytes and each sibling's cell still
// reads back as the name and the size kept; anything else is read anew.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "store/Platform.h"

namespace Tamvik {

class Hive;

struct LeafMemo {
    std::uint32_t owner = 0;          // the parent's nk cell; 0 when nothing is kept
    std::uint32_t leaf = 0;           // its leaf's cell
    std::vector<std::uint8_t> bytes;  // the leaf's record up to its last entry
    // Per entry, in the leaf's order:
    std::vector<WString> names;        // the name, as the record reads back
    std::vector<std::string> orderKeys;  // the narrow form the library's order compares
    std::vector<std::uint32_t> cells;    // the entry's cell and that cell's size, as read
    std::vector<std::uint32_t> sizes;
    bool windowsOrdered = false;  // the names stand in Windows' order
    // Under the case rules numbered rules: each name's upper-case hash, and
    // whether the order keys stand in the library's order.
    std::uint64_t rules = 0;
    std::vector<std::uint64_t> upperHashes;
    bool libraryOrdered = false;

    void Forget() {
        owner = leaf = 0;
        bytes.clear();
        names.clear();
        orderKeys.clear();
        cells.clear();
        sizes.clear();
        upperHashes.clear();
        rules = 0;
    }
    // A sibling read at position names.size().
    void Add(WString name, std::string orderKey, std::uint32_t cell, std::uint32_t size) {
        names.push_back(std::move(name));
        orderKeys.push_back(std::move(orderKey));
        cells.push_back(cell);
        sizes.push_back(size);
    }
};

// The memo the exported creations keep for a hive, made at first use; it goes with the hive.
LeafMemo& ExportedLeafMemo(Hive* hive);

}  // namespace Tamvik
