// ls and get: reading keys and values through the library.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "Session.h"
#include "ValueText.h"
#include "Walk.h"

namespace TamvikTool {

using namespace RegAPI;

namespace {

std::string ShowName(const std::u16string& name) {
    if (name.empty()) return "@";
    std::string shown(1, '"');
    shown += ToDisplay(name);
    shown += '"';
    return shown;
}

// Prints the values of one key, indented; gives false if one was unreadable.
bool PrintValues(HKEY key, const std::string& indent) {
    LONG result = Result::Ok;
    bool ok = true;
    for (const ValueEntry& v : ReadValues(key, &result)) {
        if (v.result != Result::Ok) {
            std::printf("%s%s = <unreadable: %s>\n", indent.c_str(),
                        v.name.empty() && v.type == 0 ? std::string(1, '#').append(std::to_string(v.index)).c_str()
                                                         : ShowName(v.name).c_str(),
                        DescribeResult(v.result).c_str());
            ok = false;
            continue;
        }
        std::printf("%s%s = %s %s\n", indent.c_str(), ShowName(v.name).c_str(), TypeName(v.type).c_str(),
                    ShowData(v.type, v.data).c_str());
    }
    if (result != Result::Ok) ok = false;
    return ok;
}

}  // namespace

int RunLs(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"-r", false, "--recursive"}}, 1, 2, "ls");
    const KeyPath path = ParseKeyPath(args.positional.size() > 1 ? args.positional[1] : "");
    HiveSession session(args.positional[0], true);
    HKEY key = session.Open(path);
    bool ok = true;
    if (!args.Has("-r")) {
        LONG result = Result::Ok;
        for (const SubKey& subKey : SubKeys(key, &result)) std::printf("%s\\\n", ToDisplay(subKey.name).c_str());
        if (result != Result::Ok) {
            std::fprintf(stderr, "tamvik ls: %s: subkeys of %s: %s\n", session.Path().c_str(), ShowPath(path).c_str(),
                         DescribeResult(result).c_str());
            ok = false;
        }
        ok = PrintValues(key, "") && ok;
        return ok ? kExitOk : kExitFailed;
    }
    WalkEvents events;
    events.onKey = [&](const KeyPath& at, HKEY handle) {
        std::printf("%s\n", ShowPath(at).c_str());
        ok = PrintValues(handle, "  ") && ok;
    };
    events.onUnreachable = [&](const KeyPath& at, LONG r) {
        std::fprintf(stderr, "tamvik ls: %s: key %s can't be opened: %s\n", session.Path().c_str(),
                     ShowPath(at).c_str(), DescribeResult(r).c_str());
        ok = false;
    };
    events.onListError = [&](const KeyPath& at, LONG r) {
        std::fprintf(stderr, "tamvik ls: %s: subkeys of %s: %s\n", session.Path().c_str(), ShowPath(at).c_str(),
                     DescribeResult(r).c_str());
        ok = false;
    };
    WalkTree(key, path, events);
    return ok ? kExitOk : kExitFailed;
}

int RunGet(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"--raw", false}, {"--type", false}}, 3, 3, "get");
    const KeyPath path = ParseKeyPath(args.positional[1]);
    std::optional<std::u16string> name = FromUtf8(args.positional[2]);
    if (!name) UsageError("value name is not valid UTF-8");
    HiveSession session(args.positional[0], true);
    HKEY key = session.Open(path);
    ValueEntry entry;
    LONG r = ReadValue(key, *name, &entry);
    if (r != Result::Ok)
        throw ToolError(session.Path() + ": key " + ShowPath(path) + ", value " + ShowName(*name) + ": " +
                        DescribeResult(r));
    if (args.Has("--type")) std::printf("%s\n", TypeName(entry.type).c_str());
    if (args.Has("--raw")) {
        std::fflush(stdout);
        if (!entry.data.empty() && std::fwrite(entry.data.data(), 1, entry.data.size(), stdout) != entry.data.size())
            throw ToolError("can't write to standard output");
    } else {
        std::fputs(PrintData(entry.type, entry.data).c_str(), stdout);
    }
    return kExitOk;
}

}  // namespace TamvikTool
