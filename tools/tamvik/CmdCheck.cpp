// check: the structure read from the file, then a full walk through the library.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "DirtyState.h"
#include "EditGuard.h"
#include "HiveFile.h"
#include "KeyWriter.h"
#include "Progress.h"
#include "Session.h"
#include "Walk.h"
#include "edit/NameForms.h"
#include "nodes/ReferenceCheck.h"

namespace TamvikTool {

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

// The first pair of neighbours out of the order Windows keeps, as a warning; empty when in order.
std::string OrderProblem(const std::vector<SubKey>& subKeys) {
    for (std::size_t i = 1; i < subKeys.size(); ++i) {
        const int order = Tamvik::CompareWindowsOrder(subKeys[i - 1].name, subKeys[i].name);
        if (order == 0) return "two subkeys named alike in upper case: \"" + ToDisplay(subKeys[i].name) + "\"";
        if (order > 0)
            return "subkey list not in Windows order: \"" + ToDisplay(subKeys[i - 1].name) + "\" before \"" +
                   ToDisplay(subKeys[i].name) + "\" (tamvik check --repair sorts it)";
    }
    return {};
}

// Puts the lists in Windows order, in a copy that replaces the hive.
void Repair(const std::string& hive, const std::vector<KeyPath>& lists, const Args& args) {
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    {
        HiveSession& session = edit.Session();
        KeyWriter writer(session);
        for (const KeyPath& path : lists) {
            bool changed = false;
            std::string why;
            if (int r = writer.Sort(path, &changed, &why); r != Result::Ok)
                throw ToolError(hive + ": " + why + " " + DescribeResult(r) + "; the hive is unchanged");
            if (changed) std::printf("%s: repaired at key %s: subkey list put in Windows order\n", hive.c_str(),
                                     ShowPath(path).c_str());
        }
    }
    edit.Commit();
}

int RunCheck(const Args& args) {
    const HivePlace place = HivePlace::From(args);
    std::unique_ptr<HiveSource> source = place.Source();
    const std::string hive = source->Name();
    std::vector<KeyPath> unordered;
    Tally tally;
    HiveFile file(*source);
    for (const Finding& f : file.Findings()) Report(hive, f, &tally);
    // The dirt itself is among the findings above; these say what can mend it.
    if (const DirtyState dirt = InspectDirt(*source, place.ReplayArguments()); dirt.dirty) {
        for (const std::string& log : dirt.logs) std::printf("%s: note: log %s\n", hive.c_str(), log.c_str());
        std::printf("%s: note: the hive is dirty; replay %s\n", hive.c_str(), dirt.replay.c_str());
    }
    Tamvik::ReferenceReport structure;
    if (file.Scan().Base().signatureOk) {
        structure = Tamvik::CheckReferences(file.Scan());
        for (const Finding& f : structure.findings) Report(hive, f, &tally);
    }

    // The same hive through the library: every key opened, every value read.
    std::uint64_t keys = 0, values = 0;
    try {
        HiveSession session(*source);
        Progress progress("check: keys");
        WalkEvents events;
        events.onKey = [&](const KeyPath& at, Cell key) {
            ++keys;
            int result = Result::Ok;
            for (const ValueEntry& v : ReadValues(session.Hive(), key, &result)) {
                ++values;
                if (v.result != Result::Ok)
                    ReportKey(hive, at, "value #" + std::to_string(v.index) + " \"" + ToUtf8(v.name) +
                                            "\" unreadable " + DescribeResult(v.result), false, &tally);
            }
            if (result != Result::Ok && result != Result::MoreData)
                ReportKey(hive, at, "values can't be listed " + DescribeResult(result), false, &tally);
            progress.Update(keys, structure.keys);
        };
        events.onSubKeys = [&](const KeyPath& at, const std::vector<SubKey>& subKeys) {
            for (const SubKey& subKey : subKeys)
                if (subKey.name.find(u'\\') != std::u16string::npos)
                    ReportKey(hive, at, "subkey \"" + ToDisplay(subKey.name) + "\" holds a backslash: no path names it",
                              true, &tally);
            const std::string problem = OrderProblem(subKeys);
            if (problem.empty()) return;
            ReportKey(hive, at, problem, true, &tally);
            if (problem.rfind("subkey list", 0) == 0) unordered.push_back(at);
        };
        events.onListError = [&](const KeyPath& at, int r) {
            ReportKey(hive, at, "subkeys can't be listed " + DescribeResult(r), false, &tally);
        };
        WalkTree(session.Hive(), session.Root(), {}, events);
    } catch (const ToolError& e) {
        ++tally.problems;
        std::printf("%s\n", e.what());
    }
    source.reset();  // a repair opens the image again, for writing
    if (args.Has("--repair") && !unordered.empty()) Repair(hive, unordered, args);
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
