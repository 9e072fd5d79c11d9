// The hive file being rebuilt in memory: log pages copied into it, and a
// record of where the logs wrote, for judging its bins afterwards.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LogFile.h"

namespace TamvikLogs {

class HiveImage {
public:
    explicit HiveImage(const Bytes& primary);

    // Puts the log's base block copy in place of the hive's own.
    void TakeBaseBlock(const LogFile& log);
    // Grows the file with zeros to hold binsSize bytes of bins.
    void Grow(std::uint32_t binsSize);
    // Copies one page whose ranges parsing has checked against binsSize.
    void Apply(const LogFile& log, const PageCopy& page, std::uint32_t binsSize);
    // Walks the bins over [0, binsSize) (grown to first): a broken bin is a fault where a log
    // wrote it or where the hive's own bins didn't reach (vouched bytes);
    // elsewhere it was broken before and is left for check. Empty when sound.
    std::string CheckBins(std::uint32_t binsSize, std::uint64_t vouched);
    // The clean file: both sequence numbers, the bins size, a primary file
    // type, the entry's flag bit when given, and a fresh checksum.
    Bytes Finish(std::uint32_t sequence, std::uint32_t binsSize, std::optional<std::uint32_t> entryFlags) &&;

private:
    bool Written(std::uint64_t from, std::uint64_t to) const;

    Bytes bytes_;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> written_;  // bins offsets [from, to)
};

}  // namespace TamvikLogs
