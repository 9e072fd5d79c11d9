// What a list's scans by name have learnt so far: the upper-case name of each
// position read, so that a repeated lookup needs no build per position. It is
// kept with the list node, whose image it describes, and dropped when the list
// changes or the case rules (the locale) change.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "store/Platform.h"

namespace Tamvik {

class NameIndex {
public:
    // Forgets everything when the locale that upper-cased the names has changed.
    void Refresh();
    void Clear();
    // First position of a name among those read, if any.
    std::optional<std::uint32_t> Find(const WString& upper) const;
    // Records the name of the next position read (positions come in order).
    void Add(const WString& upper, std::uint32_t position);

    std::uint64_t scanned = 0;             // positions 0 .. scanned-1 have been read
    std::optional<std::uint64_t> limit;    // positions a scan can reach, once known

private:
    std::string locale_;
    std::unordered_map<WString, std::uint32_t> first_;
};

}  // namespace Tamvik
