// ls and get: reading keys and values through the library.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "Json.h"
#include "KeyTime.h"
#include "Session.h"
#include "ValueText.h"
#include "Walk.h"

namespace TamvikTool {

namespace {

std::string ShowName(const std::u16string& name) {
    if (name.empty()) return "@";
    std::string shown(1, '"');
    shown += ToDisplay(name);
    shown += '"';
    return shown;
}

// Prints the values of one key, indented; gives false if one was unreadable.
bool PrintValues(Tamvik::HiveAccess& hive, Cell key, const std::string& indent) {
    int result = Result::Ok;
    bool ok = true;
    for (const ValueEntry& v : ReadValues(hive, key, &result)) {
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
    std::uint32_t subKeys = 0, values = 0;
};

KeyFacts FactsOf(Tamvik::HiveAccess& hive, Cell key) {
    Tamvik::KeyInfo info;
    if (!hive.Info(key, &info)) return {};
    return {DecodeKeyTime(info.timestamp), info.subKeys, info.values};
}

// "2023-01-18 11:39:48 UTC  filetime  ", the column ls -l puts before a key.
std::string TimeColumn(const KeyFacts& facts) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%-23s  %-8s  ", facts.time.text.c_str(), facts.time.clock);
    return buffer;
}

std::string ValuesJson(Tamvik::HiveAccess& hive, Cell key, bool* ok) {
    int result = Result::Ok;
    std::string out = "\"values\": [";
    bool first = true;
    for (const ValueEntry& v : ReadValues(hive, key, &result)) {
        out += (first ? "" : ", ") + ValueJson(v);
        first = false;
        *ok = *ok && v.result == Result::Ok;
    }
    *ok = *ok && result == Result::Ok;
    return out + "]";
}

std::string KeyJson(Tamvik::HiveAccess& hive, const KeyPath& path, Cell key) {
    const KeyFacts facts = FactsOf(hive, key);
    return "{\"path\": " + JsonString(JoinPath(path)) + ", " + KeyFieldsJson(facts.time, facts.subKeys, facts.values);
}

}  // namespace

int RunLs(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional.size() > 1 ? args.positional[1] : "");
    const bool json = args.Has("--json"), long_ = args.Has("-l");
    HiveSession session(HivePlace::From(args));
    Tamvik::HiveAccess& hive = session.Hive();
    const Cell key = session.Open(path);
    bool ok = true;
    auto listError = [&](const KeyPath& at, int r) {
        std::fprintf(stderr, "tamvik ls: %s: key %s: subkeys can't be listed %s\n", session.Path().c_str(),
                     ShowPath(at).c_str(), DescribeResult(r).c_str());
        ok = false;
    };
    if (!args.Has("-r")) {
        int result = Result::Ok;
        std::string subKeysJson;
        for (const SubKey& subKey : SubKeys(hive, key, &result)) {
            const KeyFacts f = json || long_ ? FactsOf(hive, subKey.cell) : KeyFacts{};
            if (json)
                subKeysJson += std::string(subKeysJson.empty() ? "" : ", ") + "{\"name\": " + JsonString(subKey.name) +
                               ", " + KeyFieldsJson(f.time, f.subKeys, f.values) + "}";
            else
                std::printf("%s%s\\\n", long_ ? TimeColumn(f).c_str() : "", ToDisplay(subKey.name).c_str());
        }
        if (result != Result::Ok) listError(path, result);
        if (json) {
            std::printf("%s, \"subkeys\": [%s], %s}\n", KeyJson(hive, path, key).c_str(), subKeysJson.c_str(),
                        ValuesJson(hive, key, &ok).c_str());
        } else {
            ok = PrintValues(hive, key, "") && ok;
        }
        return ok ? kExitOk : kExitFailed;
    }
    WalkEvents events;
    bool first = true;
    events.onKey = [&](const KeyPath& at, Cell found) {
        if (json) {
            std::printf("%s%s, %s}", first ? "[\n" : ",\n", KeyJson(hive, at, found).c_str(),
                        ValuesJson(hive, found, &ok).c_str());
            first = false;
            return;
        }
        std::printf("%s%s\n", long_ ? TimeColumn(FactsOf(hive, found)).c_str() : "", ShowPath(at).c_str());
        ok = PrintValues(hive, found, "  ") && ok;
    };
    events.onListError = listError;
    WalkTree(hive, key, path, events);
    if (json) std::printf("\n]\n");
    return ok ? kExitOk : kExitFailed;
}

int RunGet(const Args& args) {
    const KeyPath path = ParseKeyPath(args.positional[1]);
    std::optional<std::u16string> name = FromUtf8(args.positional[2]);
    if (!name) UsageError("value name is not valid UTF-8");
    HiveSession session(HivePlace::From(args));
    const Cell key = session.Open(path);
    ValueEntry entry;
    const int r = ReadValue(session.Hive(), key, *name, &entry);
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
