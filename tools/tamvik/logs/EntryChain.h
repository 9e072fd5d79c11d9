// Which new-format entries a replay applies, and in what order. Each log
// gives a run: its first entry, which must carry the log's own base block
// number, then each next one numbered one more. The runs are joined in
// sequence order, each starting one after the last, until one doesn't.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LogFile.h"

namespace TamvikLogs {

struct EntryRef {
    std::size_t log = 0, entry = 0;  // indices into the logs and their entries
};

struct EntryChain {
    std::vector<EntryRef> steps;  // in sequence order
    // Why entries the hive needs are left out (a broken entry, a gap, a log
    // whose first entry breaks the rule, a log that must be missing); empty
    // when the chain takes everything the logs hold for the hive.
    std::string gap;
};

// pool: indices of the logs to draw from. hiveSequence: the secondary
// sequence number of a hive whose base block is trusted; a log whose first
// entry is older than it was reset before the hive's last write, and gives
// nothing. Without it (the base block comes from a log) only the logs' own
// numbers count.
EntryChain BuildChain(const std::vector<LogFile>& logs, const std::vector<std::size_t>& pool,
                      std::optional<std::uint32_t> hiveSequence);

}  // namespace TamvikLogs
