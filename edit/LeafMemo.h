// What the internal API keeps of the last parent it gave a new subkey, so
// that a run of creations under one parent reads each sibling's name once,
// not once per creation: the parent's single leaf as it was last written, and
// the name each of its entries leads to. It serves a creation only while the
// leaf in the file still holds exactly those bytes; anything else is read anew.
#pragma once

#include <cstdint>
#include <vector>

#include "store/Platform.h"

namespace Tamvik {

struct LeafMemo {
    std::uint32_t owner = 0;          // the parent's nk cell; 0 when nothing is kept
    std::uint32_t leaf = 0;           // its leaf's cell
    std::vector<std::uint8_t> bytes;  // the leaf's record up to its last entry
    std::vector<WString> names;       // the name at each entry, as the record reads back
    bool windowsOrdered = false;      // the names stand in Windows' order

    void Forget() {
        owner = leaf = 0;
        bytes.clear();
        names.clear();
    }
};

}  // namespace Tamvik
