// Fuzz harness: the input's first bytes are a short script of edits, the rest
// a hive file. The hive is walked to find targets, the script runs, the hive
// is walked again, closed, and must open once more: every edit writes a
// fresh base block. Script: byte 0, bits 0-3 the number of steps, bit 5 open
// read-only; then four bytes a step: kind, target key, name, parameter.
#include <algorithm>
#include <span>

#include "Driver.h"

using namespace RegAPI;

namespace TamvikFuzz {

namespace {

struct Name {
    std::string narrow;
    std::u16string wide;
};

// Empty, plain, differing in case only, with a backslash, long, with bytes
// above 0x7F (code page 936 and not), and one with no narrow form at all.
const std::vector<Name>& Names() {
    static const std::vector<Name> names = [] {
        std::vector<Name> out;
        for (const std::string& text : {std::string(), std::string("a"), std::string("A"), std::string("Ab"),
                                        std::string("aB"), std::string("x\\y"), std::string("_under"),
                                        std::string(300, 'k'), std::string(2000, 'L'), std::string("v")})
            out.push_back({text, std::u16string(text.begin(), text.end())});
        out.push_back({"\xC4\xE3\xBA\xC3", u"\u4F60\u597D"});
        out.push_back({"\xFF\xFE", u"\u00FF\u00FE"});
        out.push_back({"z", u"\U0001F600"});
        return out;
    }();
    return names;
}

constexpr DWORD kTypes[] = {0, 1, 2, 3, 4, 7, 11, 5};
constexpr DWORD kSizes[] = {1, 2, 3, 4, 5, 8, 12, 13, 16, 100, 4064, 16343, 16344, 16345, 20000, 40000};

std::vector<BYTE> Data(std::uint8_t param) {
    std::vector<BYTE> data(kSizes[(param >> 3) & 15]);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(param + i * 7);
    return data;
}

LONG Check(LONG result, const char* call) {
    Require(TamvikTest::IsResultNumber(result), call);
    return result;
}

// The name of the entry at index among a key's values or subkeys, if it can be passed on.
bool EntryName(HKEY key, std::uint8_t index, bool value, std::u16string* name) {
    DWORD subKeys = 0, values = 0;
    if (RegQueryInfoKeyW(key, 0, 0, 0, &subKeys, 0, 0, &values, 0, 0, 0, 0) != Result::Ok) return false;
    const DWORD count = value ? values : subKeys;
    // Room for any name; kept for the process, as a fresh block this large costs a mapping under ASan.
    static std::vector<WCHAR> buffer(65537);
    DWORD room = static_cast<DWORD>(buffer.size());
    if (count == 0 || (value ? RegEnumValueW(key, index % count, buffer.data(), &room, 0, 0, 0, 0)
                             : RegEnumKeyExW(key, index % count, buffer.data(), &room, 0, 0, 0, 0)) != Result::Ok)
        return false;
    name->assign(buffer.data(), room);
    return name->find(u'\0') == std::u16string::npos;
}

// Gives true when the step deleted a key.
bool Step(HKEY key, const std::uint8_t* step) {
    const bool narrow = (step[0] & 8) != 0;
    const Name& name = Names()[step[2] % Names().size()];
    const std::vector<BYTE> data = Data(step[3]);
    const DWORD type = kTypes[step[3] & 7], size = static_cast<DWORD>(data.size());
    HKEY created = nullptr;
    std::u16string existing;
    switch (step[0] % 7) {
        case 0:
            Check(narrow ? RegCreateKeyExA(key, name.narrow.c_str(), &created) : RegCreateKeyExW(key, name.wide.c_str(), &created),
                  "create");
            if (created != nullptr) {
                // A new key's own handle serves at once.
                DWORD subKeys = 1, values = 1;
                Require(RegQueryInfoKeyW(created, 0, 0, 0, &subKeys, 0, 0, &values, 0, 0, 0, 0) == 0 && subKeys == 0 &&
                        values == 0, "a new key isn't empty");
                Check(RegSetValueNewW(created, u"v", 0, type, data.data(), size), "new value on a new key");
                Check(RegCreateKeyExA(created, "sub", &created), "create below a new key");
            }
            break;
        case 1:
            Check(narrow ? RegSetValueNewA(key, name.narrow.c_str(), 0, type, data.data(), size)
                         : RegSetValueNewW(key, name.wide.c_str(), 0, type, data.data(), size), "new value");
            break;
        case 2:
        case 3:
            if (EntryName(key, step[2], true, &existing)) {
                DWORD oldType = 0, length = 0;
                RegQueryValueExW(key, existing.c_str(), 0, &oldType, 0, &length);
                const DWORD keep = std::clamp<DWORD>(length, 1, 65536);
                std::vector<BYTE> same(keep, step[3]);
                Check(step[0] % 7 == 2 ? RegSetValueExW(key, existing.c_str(), 0, oldType, data.data(), size)
                                       : RegSetValueExW(key, existing.c_str(), 0, oldType, same.data(), keep), "set");
            }
            break;
        case 4:
            if (step[3] & 1) existing = name.wide;
            else if (!EntryName(key, step[2], true, &existing)) break;
            Check(narrow ? RegDeleteValueA(key, std::string(existing.begin(), existing.end()).c_str())
                         : RegDeleteValueW(key, existing.c_str()), "delete value");
            break;
        case 5:
            if (step[3] & 1) existing = name.wide;
            else if (!EntryName(key, step[2], false, &existing)) break;
            return Check(narrow ? RegDeleteKeyA(key, std::string(existing.begin(), existing.end()).c_str())
                                : RegDeleteKeyW(key, existing.c_str()), "delete key") == Result::Ok;
        default:
            if (EntryName(key, step[2], true, &existing)) {
                static std::vector<BYTE> buffer(1 << 16);
                DWORD room = static_cast<DWORD>(buffer.size());
                Check(RegQueryValueExA(key, std::string(existing.begin(), existing.end()).c_str(), 0, 0, buffer.data(), &room),
                      "narrow read");
            }
    }
    return false;
}

LONG OpenPath(HKEY hive, const std::u16string& path, HKEY* key) {
    return RegOpenKeyExW(hive, (path.empty() ? path : u"ROOT\\" + path).c_str(), 0, 0, key);
}

}  // namespace

void Harness(Bytes input) {
    if (input.empty()) return;
    const std::size_t steps = input[0] & 15, script = 1 + 4 * steps;
    if (input.size() < script) return;
    Bytes bytes(input.begin() + static_cast<std::ptrdiff_t>(script), input.end());
    FixBaseBlock(bytes);
    HiveUnderTest hive(bytes, (input[0] & 0x20) != 0);
    if (hive.Open() != Result::Ok) return;
    // fuzz_walk checks the unedited hive in full; here the walk finds targets.
    TamvikTest::ProbeResult first = TamvikTest::Probe(hive.Handle(), kSessionWalkLimits);
    Require(first);
    first.paths.insert(first.paths.begin(), u"");
    // In a hive the tool would edit, keys that open before the edits must open
    // after them, unless a key was deleted. (The library trusts what it reads:
    // in a damaged hive an edit may overwrite what a lying cell hides.)
    std::vector<std::u16string> reachable;
    const std::size_t watched = SoundForTheTool(bytes) ? std::min<std::size_t>(first.paths.size(), 16) : 0;
    for (const std::u16string& path : std::span(first.paths).first(watched)) {
        HKEY key = nullptr;
        if (OpenPath(hive.Handle(), path, &key) == Result::Ok) reachable.push_back(path);
    }
    bool deletedAKey = false;
    for (std::size_t i = 0; i < steps; ++i) {
        // Each step opens its key afresh: an earlier one may have ended any handle kept.
        const std::u16string& path = first.paths[input[2 + 4 * i] % first.paths.size()];
        HKEY key = nullptr;
        if (Check(OpenPath(hive.Handle(), path, &key), "open a target") == Result::Ok && Step(key, &input[1 + 4 * i]))
            deletedAKey = true;
    }
    // Each node holds its own copy of its cell: a second node of one key (a
    // create's handle, or a list two keys share in a damaged hive) doesn't see
    // edits made through the other, so a lookup may miss what an enumeration
    // finds. In session the walk must only stay safe; the reopened hive,
    // built afresh from the file, must answer by the contract.
    TamvikTest::Probe(hive.Handle(), {4, 24, 4, 1024, false});
    hive.Close();
    Require(hive.Open() == Result::Ok, "an edited hive no longer opens");
    Require(TamvikTest::Probe(hive.Handle(), kWalkLimits));
    for (const std::u16string& path : reachable) {
        HKEY key = nullptr;
        Require(deletedAKey || OpenPath(hive.Handle(), path, &key) == Result::Ok, "an edit lost a key that was readable");
    }
}

}  // namespace TamvikFuzz
