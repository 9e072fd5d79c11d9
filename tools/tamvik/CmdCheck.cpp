// check: the structure read from the file, then a full walk through the library.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "DirtyState.h"
#include "HiveFile.h"
#include "Progress.h"
#include "Session.h"
#include "StructureCheck.h"
#include "Walk.h"

namespace TamvikTool {

using namespace RegAPI;

namespace {

struct Tally {
    std::uint64_t problems = 0, warnings = 0;
};

void Report(const std::string& hive, const Finding& f, Tally* tally) {
    (f.warning ? tally->warnings : tally->problems) += 1;
    std::printf("%s: %s at file offset %s: %s\n", hive.c_str(), f.warning ? "warning" : "problem",
                Hex(f.fileOffset).c_str(), f.text.c_str());
}

void ReportKey(const std::string& hive, const KeyPath& path, const std::string& text, bool warning, Tally* tally) {
    (warning ? tally->warnings : tally->problems) += 1;
    std::printf("%s: %s at key %s: %s\n", hive.c_str(), warning ? "warning" : "problem", ShowPath(path).c_str(),
                text.c_str());
}

}  // namespace

int RunCheck(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"-q", false, "--quiet"}}, 1, 1, "check");
    const std::string& hive = args.positional[0];
    Tally tally;
    HiveFile file(hive);
    for (const Finding& f : file.Findings()) Report(hive, f, &tally);
    // The dirt itself is among the findings above; these say what can mend it.
    if (const DirtyState dirt = InspectDirt(hive); dirt.dirty) {
        for (const std::string& log : dirt.logs) std::printf("%s: note: log %s\n", hive.c_str(), log.c_str());
        std::printf("%s: note: the hive is dirty; replay %s\n", hive.c_str(), dirt.replay.c_str());
    }
    StructureReport structure;
    if (file.Base().signatureOk) {
        structure = CheckStructure(file);
        for (const Finding& f : structure.findings) Report(hive, f, &tally);
    }

    // The same hive through the library: every key opened, every value read.
    std::uint64_t keys = 0, values = 0;
    try {
        HiveSession session(hive, true);
        Progress progress("check: keys");
        WalkEvents events;
        events.onKey = [&](const KeyPath& at, HKEY key) {
            ++keys;
            LONG result = Result::Ok;
            for (const ValueEntry& v : ReadValues(key, &result)) {
                ++values;
                if (v.result != Result::Ok)
                    ReportKey(hive, at, "value #" + std::to_string(v.index) + " \"" + ToUtf8(v.name) +
                                            "\" unreadable: " + DescribeResult(v.result), false, &tally);
            }
            if (result != Result::Ok && result != Result::MoreData)
                ReportKey(hive, at, "values can't be listed: " + DescribeResult(result), false, &tally);
            progress.Update(keys, structure.keys);
        };
        events.onUnreachable = [&](const KeyPath& at, LONG r) {
            const std::u16string& name = at.back();
            bool unusable = name.find(u'\0') != std::u16string::npos || name.find(u'\\') != std::u16string::npos;
            ReportKey(hive, at,
                      unusable ? "name holds a NUL or a backslash: the key can't be opened by path"
                               : "can't be opened: " + DescribeResult(r),
                      unusable, &tally);
        };
        events.onListError = [&](const KeyPath& at, LONG r) {
            ReportKey(hive, at, "subkeys can't be listed: " + DescribeResult(r), false, &tally);
        };
        WalkTree(session.Root(), {}, events);
    } catch (const ToolError& e) {
        ++tally.problems;
        std::printf("%s\n", e.what());
    }
    if (!args.Has("-q"))
        std::printf("%s: %llu problem(s), %llu warning(s); %llu keys and %llu values in the file's tree, %llu keys "
                    "and %llu values read through the library\n",
                    hive.c_str(), static_cast<unsigned long long>(tally.problems),
                    static_cast<unsigned long long>(tally.warnings), static_cast<unsigned long long>(structure.keys),
                    static_cast<unsigned long long>(structure.values), static_cast<unsigned long long>(keys),
                    static_cast<unsigned long long>(values));
    return tally.problems == 0 ? kExitOk : kExitFailed;
}

}  // namespace TamvikTool
