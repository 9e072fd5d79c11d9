// One-off edits: set, mkkey, rm, rmkey. Every argument is checked before the
// hive is opened for writing.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "EditGuard.h"
#include "Input.h"
#include "KeyWriter.h"
#include "Session.h"
#include "ValueText.h"

namespace TamvikTool {

namespace {

std::u16string WideArgument(const std::string& text, const char* what) {
    std::optional<std::u16string> wide = FromUtf8(text);
    if (!wide) UsageError(std::string(what) + " is not valid UTF-8");
    return *wide;
}

// A value name from the command line: any text, '' for the default value.
std::u16string ValueName(const std::string& text) {
    std::u16string name = WideArgument(text, "value name");
    if (std::string problem = NameProblem(name, false); !problem.empty()) UsageError(problem);
    return name;
}

[[noreturn]] void Failed(const HiveSession& session, const std::string& why, int r) {
    throw ToolError(session.Path() + ": " + why + " " + DescribeResult(r));
}

}  // namespace

int RunSet(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional[1]);
    const std::u16string name = ValueName(args.positional[2]);
    std::optional<std::uint32_t> type = ParseTypeName(args.positional[3]);
    if (!type) UsageError("unknown type " + args.positional[3] + " (see tamvik set --help)");
    const std::vector<std::string> values(args.positional.begin() + 4, args.positional.end());
    // "-" and "@FILE" give the data from standard input or a file.
    const bool fromInput = values.size() == 1 && (values[0] == "-" || values[0].rfind('@', 0) == 0);
    const Bytes data = fromInput ? DataFromInput(*type, ReadInput(values[0] == "-" ? values[0] : values[0].substr(1)))
                                 : DataFromArguments(*type, values);
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    {
        HiveSession& session = edit.Session();
        KeyWriter writer(session);
        Cell key = 0;
        std::string why;
        int r = writer.OpenKey(path, &key, &why);
        if (r == Result::Ok) r = writer.PutValue(path, name, *type, data, &why);
        if (r != Result::Ok) Failed(session, why, r);
    }
    edit.Commit();
    return kExitOk;
}

int RunMkkey(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional[1]);
    if (path.empty()) UsageError("the root key exists already");
    for (const auto& part : path)
        if (std::string problem = NameProblem(part, true); !problem.empty())
            UsageError("key " + ShowPath(path) + ": " + problem);
    const bool windowsOrder = WindowsOrder(args);
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    {
        HiveSession& session = edit.Session();
        KeyWriter writer(session,
                         windowsOrder ? Tamvik::ListOrder::Windows : Tamvik::ListOrder::Library);
        std::string why;
        bool created = false;
        int r = writer.EnsureKey(path, &why, &created);
        if (r != Result::Ok) Failed(session, why, r);
        if (!created) Failed(session, "key " + ShowPath(path) + ": can't create", Result::AlreadyExists);
        std::size_t sorted = 0;
        if (windowsOrder && (r = writer.SortTouched(&sorted, &why)) != Result::Ok) Failed(session, why, r);
    }
    edit.Commit();
    return kExitOk;
}

int RunRm(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional[1]);
    const std::u16string name = ValueName(args.positional[2]);
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    {
        HiveSession& session = edit.Session();
        KeyWriter writer(session);
        std::string why;
        int r = writer.DeleteValue(path, name, &why);
        if (r != Result::Ok) Failed(session, why, r);
    }
    edit.Commit();
    return kExitOk;
}

int RunRmkey(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional[1]);
    if (path.empty()) UsageError("the root key can't be deleted");
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    {
        HiveSession& session = edit.Session();
        KeyWriter writer(session);
        std::string why;
        int r = writer.DeleteKey(path, args.Has("-r"), &why);
        if (r != Result::Ok) Failed(session, why, r);
    }
    edit.Commit();
    return kExitOk;
}

}  // namespace TamvikTool
