// ls and get: reading keys and values through the library.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "Json.h"
#include "KeyTime.h"
#include "Session.h"
#include "ValueText.h"
#include "Walk.h"
#include "api/ToolEntry.h"

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
            std::printf("%s%s = <unreadable %s>\n", indent.c_str(),
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

// The facts ls -l and --json show of a key.
struct KeyFacts {
    KeyTime time;
    DWORD subKeys = 0, values = 0;
};

KeyFacts FactsOf(HKEY key) {
    KeyFacts facts;
    std::uint64_t stamp = 0;
    Tamvik::ToolEdit::KeyTimestamp(key, &stamp);
    facts.time = DecodeKeyTime(stamp);
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &facts.subKeys, nullptr, nullptr, &facts.values, nullptr,
                     nullptr, nullptr, nullptr);
    return facts;
}

// "2023-01-18 11:39:48 UTC  filetime  ", the column ls -l puts before a key.
std::string TimeColumn(const KeyFacts& facts) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%-23s  %-8s  ", facts.time.text.c_str(), facts.time.clock);
    return buffer;
}

std::string ValuesJson(HKEY key, bool* ok) {
    LONG result = Result::Ok;
    std::string out = "\"values\": [";
    bool first = true;
    for (const ValueEntry& v : ReadValues(key, &result)) {
        out += (first ? "" : ", ") + ValueJson(v);
        first = false;
        *ok = *ok && v.result == Result::Ok;
    }
    *ok = *ok && result == Result::Ok;
    return out + "]";
}

std::string KeyJson(const KeyPath& path, HKEY key) {
    const KeyFacts facts = FactsOf(key);
    return "{\"path\": " + JsonString(JoinPath(path)) + ", " + KeyFieldsJson(facts.time, facts.subKeys, facts.values);
}

}  // namespace

int RunLs(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"-r", false, "--recursive"}, {"-l", false, "--long"}, {"--json", false}}, 1, 2, "ls");
    const KeyPath path = ParseKeyPath(args.positional.size() > 1 ? args.positional[1] : "");
    const bool json = args.Has("--json"), long_ = args.Has("-l");
    HiveSession session(args.positional[0], true);
    HKEY key = session.Open(path);
    bool ok = true;
    auto listError = [&](const KeyPath& at, LONG r) {
        std::fprintf(stderr, "tamvik ls: %s: key %s: subkeys can't be listed %s\n", session.Path().c_str(),
                     ShowPath(at).c_str(), DescribeResult(r).c_str());
        ok = false;
    };
    if (!args.Has("-r")) {
        LONG result = Result::Ok;
        std::string subKeysJson;
        for (const SubKey& subKey : SubKeys(key, &result)) {
            HKEY child = nullptr;
            const bool facts = (json || long_) && Tamvik::ToolEdit::OpenSubKeyAt(key, subKey.index, &child) == Result::Ok;
            const KeyFacts f = facts ? FactsOf(child) : KeyFacts{};
            if (json)
                subKeysJson += std::string(subKeysJson.empty() ? "" : ", ") + "{\"name\": " + JsonString(subKey.name) +
                               ", " + KeyFieldsJson(f.time, f.subKeys, f.values) + "}";
            else
                std::printf("%s%s\\\n", long_ ? TimeColumn(f).c_str() : "", ToDisplay(subKey.name).c_str());
        }
        if (result != Result::Ok) listError(path, result);
        if (json) {
            std::printf("%s, \"subkeys\": [%s], %s}\n", KeyJson(path, key).c_str(), subKeysJson.c_str(),
                        ValuesJson(key, &ok).c_str());
        } else {
            ok = PrintValues(key, "") && ok;
        }
        return ok ? kExitOk : kExitFailed;
    }
    WalkEvents events;
    bool first = true;
    events.onKey = [&](const KeyPath& at, HKEY handle) {
        if (json) {
            std::printf("%s%s, %s}", first ? "[\n" : ",\n", KeyJson(at, handle).c_str(), ValuesJson(handle, &ok).c_str());
            first = false;
            return;
        }
        std::printf("%s%s\n", long_ ? TimeColumn(FactsOf(handle)).c_str() : "", ShowPath(at).c_str());
        ok = PrintValues(handle, "  ") && ok;
    };
    events.onUnreachable = [&](const KeyPath& at, LONG r) {
        std::fprintf(stderr, "tamvik ls: %s: key %s: can't open %s\n", session.Path().c_str(), ShowPath(at).c_str(),
                     DescribeResult(r).c_str());
        ok = false;
    };
    events.onListError = listError;
    WalkTree(key, path, events);
    if (json) std::printf("\n]\n");
    return ok ? kExitOk : kExitFailed;
}

int RunGet(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"--raw", false}, {"--type", false}, {"--json", false}}, 3, 3, "get");
    const KeyPath path = ParseKeyPath(args.positional[1]);
    std::optional<std::u16string> name = FromUtf8(args.positional[2]);
    if (!name) UsageError("value name is not valid UTF-8");
    HiveSession session(args.positional[0], true);
    HKEY key = session.Open(path);
    ValueEntry entry;
    LONG r = ReadValue(key, *name, &entry);
    if (r != Result::Ok)
        throw ToolError(session.Path() + ": key " + ShowPath(path) + ", value " + ShowName(*name) + ": can't read " +
                        DescribeResult(r));
    if (args.Has("--json")) {
        const std::string value = ValueJson(entry);
        std::printf("{\"path\": %s, %s\n", JsonString(JoinPath(path)).c_str(), value.c_str() + 1);
        return kExitOk;
    }
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
