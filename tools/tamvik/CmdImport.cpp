// import: merges a .reg file into a hive.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "EditGuard.h"
#include "KeyWriter.h"
#include "Input.h"
#include "Progress.h"
#include "RegText.h"
#include "Session.h"

namespace TamvikTool {

namespace {

// Case-insensitive (ASCII) test that path starts with prefix as whole components.
bool StripPrefix(const std::u16string& prefix, std::u16string* path) {
    if (path->size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        char16_t a = (*path)[i], b = prefix[i];
        if (a >= u'a' && a <= u'z') a = static_cast<char16_t>(a - 32);
        if (b >= u'a' && b <= u'z') b = static_cast<char16_t>(b - 32);
        if (a != b) return false;
    }
    if (path->size() > prefix.size() && (*path)[prefix.size()] != u'\\') return false;
    path->erase(0, prefix.size());
    return true;
}

// Applies the operations in file order; gives how many failed, each told on stderr.
std::size_t Apply(HiveSession& session, const std::vector<RegOp>& ops, const std::vector<KeyPath>& paths,
                  bool windowsOrder) {
    KeyWriter writer(session, windowsOrder ? Tamvik::ListOrder::Windows : Tamvik::ListOrder::Library);
    std::size_t failures = 0;
    Progress progress("import: entries");
    for (std::size_t i = 0; i < ops.size(); ++i) {
        const RegOp& op = ops[i];
        const KeyPath& path = paths[i];
        std::string why;
        int r = Result::Ok;
        Cell probe = 0;
        switch (op.kind) {
            case RegOp::CreateKey: r = writer.EnsureKey(path, &why); break;
            case RegOp::DeleteKey:
                // Deleting a key that isn't there is no error, as in the registry editor.
                if (writer.OpenKey(path, &probe, &why) == Result::Ok) r = writer.DeleteKey(path, true, &why);
                break;
            case RegOp::SetValue: r = writer.PutValue(path, op.name, op.type, op.data, &why); break;
            case RegOp::DeleteValue:
                // Likewise a value that isn't there.
                r = writer.DeleteValue(path, op.name, &why);
                if (r == Result::Invalid) r = Result::Ok;
                break;
        }
        if (r != Result::Ok) {
            ++failures;
            std::fprintf(stderr, "tamvik import: %s: line %d: %s %s\n", session.Path().c_str(), op.line, why.c_str(),
                         DescribeResult(r).c_str());
        }
        progress.Update(i + 1, ops.size());
    }
    std::size_t sorted = 0;
    std::string why;
    if (int r = windowsOrder ? writer.SortTouched(&sorted, &why) : Result::Ok; r != Result::Ok)
        throw ToolError(session.Path() + ": " + why + " " + DescribeResult(r));
    return failures;
}

}  // namespace

int RunImport(const Args& args) {
    const std::u16string prefix = ParsePrefix(args.Value("--prefix").value_or(""));
    const std::string& regName = args.positional[1];
    // Everything is parsed and every key path and name checked before the
    // hive opens, so that a bad file changes nothing.
    RegParse parse = ParseRegText(ReadInput(regName));
    std::vector<KeyPath> paths;
    paths.reserve(parse.ops.size());
    for (const RegOp& op : parse.ops) {
        const std::string line = "line " + std::to_string(op.line) + ": ";
        std::u16string keyPath = op.keyPath;
        if (!StripPrefix(prefix, &keyPath)) {
            parse.errors.push_back(line + "key " + ToUtf8(op.keyPath) + " is outside the prefix " +
                                   (prefix.empty() ? "\\" : ToUtf8(prefix)));
            keyPath.clear();
        }
        paths.push_back(SplitKeyPath(keyPath));
        for (const std::u16string& part : paths.back())
            if (std::string problem = NameProblem(part, true); !problem.empty())
                parse.errors.push_back(line + "key " + ToUtf8(op.keyPath) + ": " + problem);
        if (op.kind == RegOp::DeleteKey && paths.back().empty())
            parse.errors.push_back(line + "the root key can't be deleted");
        if (std::string problem = NameProblem(op.name, false); !problem.empty())
            parse.errors.push_back(line + "value \"" + ToUtf8(op.name) + "\": " + problem);
    }
    if (!parse.errors.empty()) {
        for (const auto& e : parse.errors) std::fprintf(stderr, "tamvik import: %s: %s\n", regName.c_str(), e.c_str());
        throw ToolError(regName + ": not imported (" + std::to_string(parse.errors.size()) +
                            " error(s) in the file; the hive is unchanged)",
                        kExitUsage);
    }

    const bool windowsOrder = WindowsOrder(args);
    EditSession edit(HivePlace::From(args), EditOptions::From(args));
    std::size_t failures = 0;
    {
        HiveSession& session = edit.Session();
        failures = Apply(session, parse.ops, paths, windowsOrder);
    }
    // What could be imported is kept; each entry that couldn't was told.
    edit.Commit();
    if (failures != 0)
        throw ToolError(edit.HivePath() + ": " + std::to_string(failures) + " of " + std::to_string(parse.ops.size()) +
                        " entries not imported (each told above)");
    return kExitOk;
}

}  // namespace TamvikTool
