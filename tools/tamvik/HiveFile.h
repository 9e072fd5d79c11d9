// A hive file read whole for info, check and the edit refusal, with the
// library's scan of its bytes and its findings in the tool's words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HiveSource.h"
#include "Text.h"
#include "store/HiveScan.h"

namespace TamvikTool {

using Tamvik::Finding;

class HiveFile {
public:
    // Reads the file; throws ToolError when it can't be read at all.
    explicit HiveFile(HiveSource& source);
    HiveFile(const HiveFile&) = delete;
    HiveFile& operator=(const HiveFile&) = delete;

    const Tamvik::HiveScan& Scan() const { return scan_; }
    // The scan's findings, with what the tool offers to mend them.
    const std::vector<Finding>& Findings() const { return findings_; }

private:
    Bytes bytes_;
    Tamvik::HiveScan scan_;
    std::vector<Finding> findings_;
};

// "0x1234".
using Tamvik::Hex;

// Why the library won't open a file as a hive, from its base block:
// "empty file", "only 12 bytes, ...", "no regf signature", "base block
// checksum is wrong: ..."; empty when none of these holds.
std::string WhyNotAHive(HiveSource& source);

}  // namespace TamvikTool
