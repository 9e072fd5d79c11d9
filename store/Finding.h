// What an integrity check reports at each place where the hive doesn't hold:
// a status (its outcome, the file offset, a sentence), which part of the
// format it concerns, and whether it is only a warning, which leaves the hive
// sound.
#pragma once

#include <cstdint>
#include <string>

#include "store/Status.h"

namespace Tamvik {

enum class FindingKind : std::uint8_t {
    File,       // the file is shorter than what its base block describes
    Signature,  // the base block's "regf"
    Checksum,
    Dirty,      // sequence numbers that differ: a write that did not end
    Version,
    BaseBlock,  // another field of the base block
    Bin,        // a bin header, or the run of bins
    Cell,       // a cell's size, or its neighbours
    Reference,  // a cell that a reference names doesn't hold what it should
    Unreached,  // allocated cells that no reference reaches
};

struct Finding : Status {
    FindingKind kind = FindingKind::File;
    bool warning = false;

    static Finding Of(FindingKind kind, std::uint64_t fileOffset, std::string text, bool warning = false) {
        Finding f;
        f.code = kind == FindingKind::Signature || kind == FindingKind::Checksum ? StatusCode::NotAHive
                                                                                 : StatusCode::Damaged;
        f.fileOffset = fileOffset;
        f.text = std::move(text);
        f.kind = kind;
        f.warning = warning;
        return f;
    }
};

// An offset or a number as findings show it: "0x1f20".
std::string Hex(std::uint64_t value);

}  // namespace Tamvik
