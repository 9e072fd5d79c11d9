// The replay engine: applies the transaction logs of a dirty hive to a copy
// of its file in memory and gives the bytes of the clean hive, or says why it
// can't. It never writes a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "BaseBlock.h"
#include "LogFile.h"

namespace TamvikLogs {

// What became of one log.
struct LogVerdict {
    std::string path;
    LogFormat format = LogFormat::None;
    bool applies = false;                              // it belongs to the hive and can be read
    std::string note;                                  // why it doesn't apply or isn't used, or where its entries stop
    std::size_t entries = 0, pages = 0;                // what it holds that is sound
    std::size_t appliedEntries = 0, appliedPages = 0;  // what the replay took from it
};

struct ReplayResult {
    BaseBlock primary;
    std::vector<LogVerdict> logs;                       // in the order given
    LogFormat format = LogFormat::None;                 // of the logs applied
    std::size_t entries = 0, pages = 0;                 // applied (entries: new format only)
    std::uint32_t firstSequence = 0, lastSequence = 0;  // of the entries applied
    bool baseBlockFromLog = false;                      // the hive's own base block couldn't be trusted
    // The logs hold later changes that were not applied, and why (a broken
    // entry, a gap in the sequence). The image holds what came before.
    std::string incomplete;
    // Why no hive could be made; the image is then empty.
    std::string failure;
    Bytes image;
    std::uint32_t sequence = 0, binsSize = 0;  // of the replayed hive
};

// hive: the whole primary file. Logs that don't belong to it (another
// timestamp) or can't be read are listed with the reason and left out.
ReplayResult Replay(const Bytes& hive, const std::vector<LogFile>& logs);

}  // namespace TamvikLogs
