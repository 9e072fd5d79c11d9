// replay: applies the transaction logs of a dirty hive and writes the clean
// hive to a new file.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Args.h"
#include "AtomicFile.h"
#include "Commands.h"
#include "DirtyState.h"
#include "EditGuard.h"
#include "Session.h"
#include "logs/Files.h"

namespace TamvikTool {

using namespace TamvikLogs;

namespace {

constexpr char kReplayedSuffix[] = ".replayed";

}  // namespace

int RunReplay(const Args& args) {
    const HivePlace place = HivePlace::From(args);
    // Nothing is ever written into an image: the clean hive goes to a local file.
    if (place.InImage() && !args.Value("-o"))
        UsageError("with --image, -o OUT names the local file to write the replayed hive to");
    const std::string out = args.Value("-o").value_or(place.hive + kReplayedSuffix);
    const bool force = args.Has("--force");

    struct stat hiveInfo {
    }, outInfo{};
    if (!place.InImage() && ::stat(place.hive.c_str(), &hiveInfo) != 0)
        throw ToolError(place.hive + ": can't open: " + std::strerror(errno));
    const bool exists = ::stat(out.c_str(), &outInfo) == 0;
    const bool inPlace =
        !place.InImage() && exists && outInfo.st_dev == hiveInfo.st_dev && outInfo.st_ino == hiveInfo.st_ino;
    if (exists && !force)
        UsageError(out + (inPlace ? " is the hive itself: give --force to replace it with the replayed hive"
                                  : " exists: give --force to replace it"));
    // A file replaced is locked like a hive being edited, before it is read.
    std::unique_ptr<HiveLock> lock = exists ? std::make_unique<HiveLock>(out) : nullptr;

    const std::unique_ptr<HiveSource> source = place.Source();
    const std::string& hive = source->Name();
    Bytes bytes;
    std::string error;
    if (!source->ReadHive(&bytes, &error)) throw ToolError(hive + ": can't read: " + error);
    const BaseBlock base = ReadBaseBlock(bytes);
    if (!base.Dirty()) {
        std::printf("%s: clean (sequence number %u, checksum ok): nothing to replay, no file written\n", hive.c_str(),
                    base.sequence1);
        return kExitOk;
    }
    const std::vector<LogFile> logs = LoadLogs(*source, args.All("--log"));
    if (logs.empty())
        throw ToolError(hive + ": dirty (" + DirtReason(base) + ") but no logs beside it (" + place.hive +
                        ".LOG, .LOG1 or .LOG2 in any letter case): name them with --log; no file written");
    const ReplayResult r = Replay(bytes, logs);
    for (const LogVerdict& log : r.logs) std::fprintf(stderr, "tamvik replay: log %s\n", DescribeLog(log).c_str());
    if (!r.failure.empty()) throw ToolError(hive + ": can't replay: " + r.failure + "; no file written");
    if (!r.incomplete.empty()) {
        if (!args.Has("--partial"))
            throw ToolError(hive + ": " + r.incomplete + "; no file written (--partial writes the hive with what " +
                            "applies, " + DescribeApplied(r) + ", as Windows would load it)");
        std::fprintf(stderr, "tamvik replay: warning: %s\n", r.incomplete.c_str());
    }
    WriteFileAtomically(out, r.image, inPlace ? hiveInfo.st_mode & 07777 : NewFileMode(), force);
    std::printf("%s: applied %s%s; wrote %s (sequence number %u, bins size %u, %zu bytes)\n", hive.c_str(),
                DescribeApplied(r).c_str(), r.baseBlockFromLog ? ", base block taken from the log" : "", out.c_str(),
                r.sequence, r.binsSize, r.image.size());
    return kExitOk;
}

}  // namespace TamvikTool
