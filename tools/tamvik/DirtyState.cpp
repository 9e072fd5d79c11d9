#include "DirtyState.h"

#include "Session.h"
#include "logs/Files.h"

namespace TamvikTool {

using namespace TamvikLogs;

namespace {

std::string Count(std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::string DirtReason(const BaseBlock& base) {
    std::string why;
    if (!base.signatureOk)
        why = "base block signature is not \"regf\"";
    else if (!base.ChecksumOk())
        why = "base block checksum is wrong";
    if (base.sequence1 != base.sequence2)
        why += (why.empty() ? "" : ", ") + std::string("sequence numbers ") + std::to_string(base.sequence1) + " and " +
               std::to_string(base.sequence2) + " differ";
    return why;
}

std::string DescribeLog(const LogVerdict& log) {
    std::string line = log.path + ": ";
    if (log.format == LogFormat::Old)
        line += "old format" + (log.pages != 0 ? ", " + Count(log.pages, "dirty page", "dirty pages") : "");
    else if (log.format == LogFormat::New)
        line += "new format, " + Count(log.entries, "entry", "entries") + " of " + Count(log.pages, "page", "pages");
    else
        line += "no log";
    if (log.appliedEntries != 0)
        line += "; applies " + Count(log.appliedEntries, "entry", "entries");
    else if (log.appliedPages != 0)
        line += "; applies";
    else if (log.applies)
        line += "; nothing in it applies";
    if (!log.note.empty()) line += "; " + log.note;
    return line;
}

std::string DescribeApplied(const ReplayResult& r) {
    if (r.format == LogFormat::Old) return Count(r.pages, "dirty page", "dirty pages");
    return Count(r.entries, "entry", "entries") + " (sequence " + std::to_string(r.firstSequence) + " to " +
           std::to_string(r.lastSequence) + ", " + Count(r.pages, "page", "pages") + ")";
}

std::vector<LogFile> LoadLogs(HiveSource& source, const std::vector<std::string>& named) {
    std::vector<LogFile> logs;
    for (const std::string& path : named.empty() ? source.Logs() : named) {
        Bytes bytes;
        std::string error;
        if (!(named.empty() ? source.ReadLog(path, &bytes, &error) : ReadFile(path, &bytes, &error)))
            throw ToolError(path + ": can't read the log: " + error);
        logs.push_back(LoadLog(path, std::move(bytes)));
    }
    return logs;
}

DirtyState InspectDirt(HiveSource& source, const std::string& replayArguments) {
    DirtyState state;
    Bytes hive;
    std::string error;
    if (!source.ReadHive(&hive, &error)) return state;
    const BaseBlock base = ReadBaseBlock(hive);
    if (!base.Dirty()) return state;
    std::vector<LogFile> logs;
    try {
        logs = LoadLogs(source, {});
    } catch (const ToolError& e) {
        state.dirty = true;
        state.reason = DirtReason(base);
        state.replay = std::string("not possible: ") + e.what();
        return state;
    }
    // A file without the signature and without logs is no hive to speak of.
    if (!base.signatureOk && logs.empty()) return state;
    state.dirty = true;
    state.reason = DirtReason(base);
    const ReplayResult r = Replay(hive, logs);
    for (const LogVerdict& log : r.logs) state.logs.push_back(DescribeLog(log));
    if (r.logs.empty())
        state.replay = "not possible: no logs beside the hive";
    else if (!r.failure.empty())
        state.replay = "not possible: " + r.failure;
    else if (!r.incomplete.empty())
        state.replay = "would stop early: " + r.incomplete + " (tamvik replay --partial " + replayArguments + ")";
    else
        state.replay = "would apply " + DescribeApplied(r) + ": tamvik replay " + replayArguments;
    return state;
}

}  // namespace TamvikTool
