// What the tool tells about a dirty hive, shared by info, check, replay and
// the edit guard: why it is dirty, what each log holds, what replay applies.
#pragma once

#include <string>
#include <vector>

#include "HiveSource.h"
#include "logs/Replay.h"

namespace TamvikTool {

// "sequence numbers 3 and 2 differ", "base block checksum is wrong", or both.
std::string DirtReason(const TamvikLogs::BaseBlock& base);
// One line for one log: its format, what it holds and what became of it.
std::string DescribeLog(const TamvikLogs::LogVerdict& log);
// "4 entries (sequence 2 to 5, 5 pages)" or "64 dirty pages".
std::string DescribeApplied(const TamvikLogs::ReplayResult& result);

// The logs of a hive: those named (local files), or else those found beside
// it. Throws ToolError when a file can't be read.
std::vector<TamvikLogs::LogFile> LoadLogs(HiveSource& source, const std::vector<std::string>& named);

struct DirtyState {
    bool dirty = false;
    std::string reason;
    std::vector<std::string> logs;  // DescribeLog lines
    std::string replay;             // what tamvik replay would do
};

// The base block of the hive file and, when it is dirty, a replay in memory
// of the logs beside it. A file that can't be read counts as clean here.
// replayArguments: what tamvik replay would be given for it, for the advice.
DirtyState InspectDirt(HiveSource& source, const std::string& replayArguments);

}  // namespace TamvikTool
