// import: merges a .reg file into a hive.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "EditGuard.h"
#include "KeyWriter.h"
#include "Progress.h"
#include "RegText.h"
#include "Session.h"

namespace TamvikTool {

using namespace RegAPI;

namespace {

Bytes ReadInput(const std::string& name) {
    std::FILE* in = name == "-" ? stdin : std::fopen(name.c_str(), "rb");
    if (in == nullptr) UsageError(name + ": can't open the .reg file");
    Bytes bytes;
    std::uint8_t buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    bool failed = std::ferror(in) != 0;
    if (in != stdin) std::fclose(in);
    if (failed) UsageError(name + ": read error");
    return bytes;
}

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

}  // namespace

int RunImport(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"--prefix", true}, {"--force", false}}, 2, 2, "import");
    std::u16string prefix;
    if (auto p = args.Value("--prefix")) {
        std::optional<std::u16string> wide = FromUtf8(*p);
        if (!wide) UsageError("prefix is not valid UTF-8");
        prefix = *wide;
        while (!prefix.empty() && prefix.back() == u'\\') prefix.pop_back();
    }
    const std::string& regName = args.positional[1];
    // Everything is parsed and every key path checked before the hive opens,
    // so that a bad file changes nothing.
    RegParse parse = ParseRegText(ReadInput(regName));
    std::vector<KeyPath> paths;
    paths.reserve(parse.ops.size());
    for (const RegOp& op : parse.ops) {
        std::u16string keyPath = op.keyPath;
        if (!StripPrefix(prefix, &keyPath)) {
            parse.errors.push_back("line " + std::to_string(op.line) + ": key " + ToUtf8(op.keyPath) +
                                   " is outside the prefix " + (prefix.empty() ? "\\" : ToUtf8(prefix)));
            continue;
        }
        paths.push_back(SplitKeyPath(keyPath));
    }
    if (!parse.errors.empty()) {
        for (const auto& e : parse.errors) std::fprintf(stderr, "tamvik import: %s: %s\n", regName.c_str(), e.c_str());
        throw ToolError(regName + ": " + std::to_string(parse.errors.size()) + " error(s), hive not changed", kExitUsage);
    }

    GuardEdit(args.positional[0], args.Has("--force"));
    HiveSession session(args.positional[0], false);
    KeyWriter writer(session);
    std::size_t failures = 0;
    Progress progress("import: entries");
    for (std::size_t i = 0; i < parse.ops.size(); ++i) {
        const RegOp& op = parse.ops[i];
        const KeyPath& path = paths[i];
        std::string why;
        LONG r = Result::Ok;
        switch (op.kind) {
            case RegOp::CreateKey: r = writer.EnsureKey(path, &why); break;
            case RegOp::DeleteKey: {
                HKEY probe = nullptr;
                // Deleting a key that isn't there is no error, as in the registry editor.
                if (session.TryOpen(path, &probe) == Result::Ok) r = writer.DeleteKey(path, true, &why);
                break;
            }
            case RegOp::SetValue: r = writer.PutValue(path, op.name, op.type, op.data, &why); break;
            case RegOp::DeleteValue: {
                HKEY key = nullptr;
                DWORD type = 0;
                // Likewise a value that isn't there.
                if (writer.OpenKey(path, &key) == Result::Ok &&
                    RegQueryValueExW(key, op.name.c_str(), nullptr, &type, nullptr, nullptr) == Result::Ok)
                    r = writer.DeleteValue(path, op.name, &why);
                break;
            }
        }
        if (r != Result::Ok) {
            ++failures;
            std::fprintf(stderr, "tamvik import: %s: line %d: %s: %s\n", session.Path().c_str(), op.line, why.c_str(),
                         DescribeResult(r).c_str());
        }
        progress.Update(i + 1, parse.ops.size());
    }
    if (failures != 0)
        throw ToolError(session.Path() + ": " + std::to_string(failures) + " of " + std::to_string(parse.ops.size()) +
                        " entries not imported");
    return kExitOk;
}

}  // namespace TamvikTool
