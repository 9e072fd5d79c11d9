// export: a key and its subtree as .reg text.
#include <cstdio>
#include <memory>

#include "Args.h"
#include "Commands.h"
#include "Progress.h"
#include "RegText.h"
#include "Session.h"
#include "Walk.h"

namespace TamvikTool {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

// The bracketed path of a key: the prefix, then the path from the root.
std::u16string KeyLine(const std::u16string& prefix, const KeyPath& path) {
    if (prefix.empty()) return JoinPath(path);
    return path.empty() ? prefix : prefix + JoinPath(path);
}

}  // namespace

int RunExport(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional.size() > 1 ? args.positional[1] : "");
    const std::u16string prefix = ParsePrefix(args.Value("--prefix").value_or(""));
    HiveSession session(HivePlace::From(args));
    const Cell start = session.Open(path);

    std::unique_ptr<std::FILE, FileCloser> file;
    std::FILE* out = stdout;
    if (auto o = args.Value("-o")) {
        file.reset(std::fopen(o->c_str(), "wb"));
        if (!file) throw ToolError(*o + ": can't create the output file");
        out = file.get();
    }
    RegWriter writer(out, args.Has("--utf8"));
    writer.Header();
    bool complete = true;
    std::uint64_t keys = 0;
    Progress progress("export: keys");
    auto warn = [&](const KeyPath& at, const std::string& what) {
        std::fprintf(stderr, "tamvik export: %s: key %s: %s\n", session.Path().c_str(), ShowPath(at).c_str(),
                     what.c_str());
        complete = false;
    };
    WalkEvents events;
    events.onKey = [&](const KeyPath& at, Cell key) {
        writer.Key(KeyLine(prefix, at));
        int result = Result::Ok;
        for (const ValueEntry& v : ReadValues(session.Hive(), key, &result)) {
            if (v.result != Result::Ok) {
                warn(at, "value #" + std::to_string(v.index) + " \"" + ToUtf8(v.name) + "\" skipped: " +
                             DescribeResult(v.result));
                continue;
            }
            writer.Value(v.name, v.type, v.data);
        }
        progress.Update(++keys);
    };
    events.onListError = [&](const KeyPath& at, int r) { warn(at, "subkeys incomplete: " + DescribeResult(r)); };
    WalkTree(session.Hive(), start, path, events);
    writer.End();
    if (std::fflush(out) != 0 || !writer.Good()) throw ToolError("write error on the output");
    return complete ? kExitOk : kExitFailed;
}

}  // namespace TamvikTool
