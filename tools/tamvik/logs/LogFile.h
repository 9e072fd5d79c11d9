// A transaction log read whole and parsed: its base block copy, and either
// the dirty pages of the old format or the entries of the new one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "BaseBlock.h"

namespace TamvikLogs {

enum class LogFormat { None, Old, New };

// Bytes of a log that belong in the hive: where they go in the bins data,
// and where they lie in the log. Parsing checks both ranges.
struct PageCopy {
    std::uint32_t binsOffset = 0;
    std::size_t logOffset = 0;
    std::uint32_t size = 0;
};

struct LogEntry {
    std::size_t at = 0;  // file offset
    std::uint32_t size = 0, flags = 0, sequence = 0, binsSize = 0;
    bool sequenceKnown = false;  // false when even the header is cut short
    std::vector<PageCopy> pages;
    std::string problem;  // why it can't be applied; empty for a sound entry
};

struct LogFile {
    std::string path;
    Bytes bytes;
    BaseBlock base;
    LogFormat format = LogFormat::None;
    std::string problem;               // why the file serves no replay at all
    std::vector<PageCopy> dirtyPages;  // old format, in bitmap order
    // New format: the sound entries in file order, then at most one that
    // isn't, where reading stopped.
    std::vector<LogEntry> entries;

    std::size_t SoundEntries() const;
    std::size_t PageCount() const;  // dirty pages, or page references of the sound entries
};

// Classifies the file by its base block and parses it.
LogFile LoadLog(std::string path, Bytes bytes);

// The parsers behind LoadLog: each fills its part of log or sets log.problem.
void ParseOldLog(LogFile& log);
void ParseNewLog(LogFile& log);

}  // namespace TamvikLogs
