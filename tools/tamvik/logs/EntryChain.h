// Which new-format entries a replay applies, and in what order: from the
// first one wanted, each next one with the sequence number after it, across
// all the logs given, until none follows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "LogFile.h"

namespace TamvikLogs {

struct EntryRef {
    std::size_t log = 0, entry = 0;  // indices into the logs and their entries
};

struct EntryChain {
    std::vector<EntryRef> steps;  // in sequence order
    // Why the logs hold later entries than the chain reaches (a broken entry,
    // a gap), or that the first one wanted is missing; empty otherwise.
    std::string gap;
};

// pool: indices of the logs to draw from. Entries older than minimum, or
// than the base block of their own log, were applied before and are passed
// over. With exact, a chain that begins after minimum is built all the
// same, and the missing start is its gap.
EntryChain BuildChain(const std::vector<LogFile>& logs, const std::vector<std::size_t>& pool, std::uint32_t minimum,
                      bool exact);

}  // namespace TamvikLogs
