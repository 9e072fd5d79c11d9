// Transaction logs laid out byte by byte for the replay tests: a copy of a
// hive's base block, then the entries of the new format or the dirty vector
// and pages of the old one. Offsets, sizes, bit order and the checksum are
// worked out here on their own, not taken from the tool: a builder that
// shared a rule with the replay would follow a fault in it and hide it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "support/Files.h"

namespace TamvikTest {

constexpr std::uint64_t kHiveTime = 0x01D295059E68E89E;  // the timestamp a hive and its logs share

// A base block (a hive's, made dirty): its sequence numbers, its timestamp,
// and the checksum made anew (or one off).
void SetBaseBlock(std::uint8_t* base, std::uint32_t primary, std::uint32_t secondary, bool checksumValid = true,
                  std::uint64_t timestamp = kHiveTime);

struct LogPage {
    std::uint32_t binsOffset;
    Bytes bytes;  // a multiple of 512 bytes
};

class LogBuilder {
public:
    static constexpr std::uint32_t kOld = 1, kNew = 6;  // file types

    // The log's first sector is the hive's (clustering times 512 bytes), as
    // a hive writer copies it: file type, both sequence numbers, checksum set.
    LogBuilder(const Bytes& hive, std::uint32_t fileType, std::uint32_t sequence, std::uint64_t timestamp = kHiveTime);
    // New format: one entry more; binsSize 0 is the hive's. Gives its file offset.
    std::size_t AddEntry(std::uint32_t sequence, const std::vector<LogPage>& pages, std::uint32_t binsSize = 0);
    // Old format: the 512-byte page of the bins with this index is dirty.
    void AddDirtyPage(std::uint32_t page, const Bytes& content) { dirty_[page] = content; }
    Bytes Build() const;

private:
    Bytes log_;  // base block sector and new-format entries
    std::uint32_t sector_, binsSize_;
    std::map<std::uint32_t, Bytes> dirty_;
};

}  // namespace TamvikTest
