// Fuzz harness: the first bytes of the input are a short script of edits,
// the rest is a hive file. The hive is walked once to find edit targets, the
// script runs on it, and then the hive is walked again, closed, and opened
// once more: an edit writes a fresh base block, so a hive that opened before
// must open after.
//
// Script layout: byte 0, bits 0-3: number of steps (0-15); bit 4: open as a
// file instead of a device; bit 5: open the file read-only. Then four bytes
// per step: kind, target key, name, parameter.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"

using namespace RegAPI;
using namespace TamvikFuzz;

namespace {

// Names the script can use, each in narrow and in wide form: empty, plain,
// differing in case only, with a backslash, long, with bytes above 0x7F
// (code page 936 and not), with a character that has no narrow form.
struct ScriptName {
    std::string narrow;
    std::u16string wide;
};

const std::vector<ScriptName>& NameTable() {
    static const std::vector<ScriptName> table = [] {
        std::vector<ScriptName> names;
        auto plain = [&](const std::string& text) { names.push_back({text, std::u16string(text.begin(), text.end())}); };
        plain("");
        plain("a");
        plain("A");
        plain("Ab");
        plain("aB");
        plain("Software");
        plain("x\\y");
        plain("_under");
        plain(std::string(300, 'k'));
        plain(std::string(2000, 'L'));
        names.push_back({"\xC4\xE3\xBA\xC3", u"\u4F60\u597D"});  // the same two characters in both forms
        names.push_back({"\xFF\xFE", u"\u00FF\u00FE"});         // no valid code page 936 text
        names.push_back({"z", u"\U0001F600"});                   // no narrow form at all
        plain("ZZZZ");
        plain("db");
        plain("v");
        return names;
    }();
    return table;
}

constexpr DWORD kTypes[] = {0, 1, 2, 3, 4, 7, 11, 5};
constexpr DWORD kSizes[] = {1, 2, 3, 4, 5, 8, 12, 13, 16, 100, 4064, 16343, 16344, 16345, 20000, 40000};

// Data of a decoded size; the content only has to be deterministic.
std::vector<BYTE> MakeData(DWORD size, std::uint8_t seed) {
    std::vector<BYTE> data(size);
    for (DWORD i = 0; i < size; ++i) data[i] = static_cast<BYTE>(seed + i * 7);
    if (size >= 2) data[size - 1] = data[size - 2] = 0;  // most string data ends in a terminator
    return data;
}

struct Step {
    std::uint8_t kind, target, name, param;
};

class Script {
public:
    Script(HKEY hive, std::vector<std::u16string> paths) : hive_(hive), paths_(std::move(paths)) {
        paths_.insert(paths_.begin(), u"");
    }

    void Run(const Step& step) {
        HKEY key = Target(step.target);
        if (key == nullptr) return;
        const bool narrow = (step.kind & 8) != 0;
        const ScriptName& name = NameTable()[step.name % NameTable().size()];
        switch (step.kind % 8) {
            case 0: CreateKey(key, name, narrow, step.target); break;
            case 1: NewValue(key, name, narrow, step.param); break;
            case 2: SetExisting(key, step.name, narrow, step.param, /*keepLength=*/false); break;
            case 3: DeleteValue(key, step.name, name, narrow, (step.param & 1) != 0); break;
            case 4: DeleteKey(key, step.name, name, narrow, (step.param & 1) != 0); break;
            case 5: CreateAndFill(key, name, step.param); break;
            case 6: SetExisting(key, step.name, narrow, step.param, /*keepLength=*/true); break;
            default: ReadValue(key, step.name); break;
        }
    }

private:
    // Each step opens its key afresh from the hive: an earlier step may have
    // moved the caches, and with them ended any handle kept from before.
    HKEY Target(std::uint8_t selector) {
        const std::u16string& path = paths_[selector % paths_.size()];
        HKEY key = nullptr;
        const std::u16string full = path.empty() ? std::u16string() : u"ROOT\\" + path;
        LONG result = RegOpenKeyExW(hive_, full.c_str(), 0, 0, &key);
        CheckResult(result, "RegOpenKeyExW target");
        return result == Result::Ok ? key : nullptr;
    }

    std::u16string PathOf(std::uint8_t selector, const std::u16string& child) const {
        const std::u16string& path = paths_[selector % paths_.size()];
        return path.empty() ? child : path + u"\\" + child;
    }

    void CreateKey(HKEY key, const ScriptName& name, bool narrow, std::uint8_t selector) {
        HKEY created = nullptr;
        LONG result = narrow ? RegCreateKeyExA(key, name.narrow.c_str(), &created)
                             : RegCreateKeyExW(key, name.wide.c_str(), &created);
        CheckResult(result, "RegCreateKeyEx");
        Expect(result == Result::Ok || result == Result::Invalid || result == Result::CannotCreate ||
                   result == Result::AlreadyExists || result == Result::Corrupt,
               "RegCreateKeyEx gave a number it never gives");
        if (result == Result::Ok && created != nullptr) {
            DWORD subKeys = 1, values = 1;
            Expect(RegQueryInfoKeyW(created, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr,
                                    nullptr, nullptr, nullptr) == Result::Ok,
                   "RegQueryInfoKeyW on a new key");
            Expect(subKeys == 0 && values == 0, "a new key has subkeys or values");
            if (paths_.size() < 80) paths_.push_back(PathOf(selector, name.wide));
        }
    }

    void NewValue(HKEY key, const ScriptName& name, bool narrow, std::uint8_t param) {
        const DWORD type = kTypes[param & 7];
        const std::vector<BYTE> data = MakeData(kSizes[(param >> 3) & 15], param);
        LONG result = narrow ? RegSetValueNewA(key, name.narrow.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()))
                             : RegSetValueNewW(key, name.wide.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()));
        CheckResult(result, "RegSetValueNew");
    }

    // The name of value index of key, if it can be read.
    bool ValueAt(HKEY key, std::uint8_t index, std::u16string* name, DWORD* type, DWORD* length) {
        DWORD values = 0;
        if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr, nullptr,
                             nullptr, nullptr) != Result::Ok ||
            values == 0)
            return false;
        std::vector<WCHAR> buffer(65537);
        DWORD room = static_cast<DWORD>(buffer.size());
        LONG result =
            RegEnumValueW(key, index % values, buffer.data(), &room, nullptr, type, nullptr, length);
        CheckResult(result, "RegEnumValueW in a script");
        if (result != Result::Ok) return false;
        name->assign(buffer.data(), room);
        return name->find(u'\0') == std::u16string::npos;
    }

    void SetExisting(HKEY key, std::uint8_t index, bool narrow, std::uint8_t param, bool keepLength) {
        std::u16string name;
        DWORD type = 0, length = 0;
        if (!ValueAt(key, index, &name, &type, &length)) return;
        if ((param & 0x80) != 0) type = kTypes[param & 7];  // sometimes the wrong type
        DWORD size = keepLength ? length : kSizes[(param >> 3) & 15];
        if (size == 0 || size > 65536) size = 4;
        const std::vector<BYTE> data = MakeData(size, param);
        LONG result;
        if (narrow) {
            const std::string narrowName(name.begin(), name.end());  // only ASCII names survive this
            result = RegSetValueExA(key, narrowName.c_str(), 0, type, data.data(), size);
        } else {
            result = RegSetValueExW(key, name.c_str(), 0, type, data.data(), size);
        }
        CheckResult(result, "RegSetValueEx");
    }

    void DeleteValue(HKEY key, std::uint8_t index, const ScriptName& tableName, bool narrow, bool byTable) {
        std::u16string name = tableName.wide;
        DWORD type = 0, length = 0;
        if (!byTable && !ValueAt(key, index, &name, &type, &length)) return;
        LONG result;
        if (narrow) {
            const std::string narrowName = byTable ? tableName.narrow : std::string(name.begin(), name.end());
            result = RegDeleteValueA(key, narrowName.c_str());
        } else {
            result = RegDeleteValueW(key, name.c_str());
        }
        CheckResult(result, "RegDeleteValue");
        Expect(result == Result::Ok || result == Result::Invalid, "RegDeleteValue gave a number it never gives");
    }

    void DeleteKey(HKEY key, std::uint8_t index, const ScriptName& tableName, bool narrow, bool byTable) {
        std::u16string name = tableName.wide;
        if (!byTable) {
            DWORD subKeys = 0;
            if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, nullptr, nullptr) != Result::Ok ||
                subKeys == 0)
                return;
            std::vector<WCHAR> buffer(65537);
            DWORD room = static_cast<DWORD>(buffer.size());
            LONG result = RegEnumKeyExW(key, index % subKeys, buffer.data(), &room, nullptr, nullptr, nullptr, nullptr);
            CheckResult(result, "RegEnumKeyExW in a script");
            if (result != Result::Ok) return;
            name.assign(buffer.data(), room);
            if (name.find(u'\0') != std::u16string::npos) return;
        }
        LONG result;
        if (narrow) {
            const std::string narrowName = byTable ? tableName.narrow : std::string(name.begin(), name.end());
            result = RegDeleteKeyA(key, narrowName.c_str());
        } else {
            result = RegDeleteKeyW(key, name.c_str());
        }
        CheckResult(result, "RegDeleteKey");
        Expect(result == Result::Ok || result == Result::Invalid, "RegDeleteKey gave a number it never gives");
    }

    // A key made in this run, used through the handle the create gave.
    void CreateAndFill(HKEY key, const ScriptName& name, std::uint8_t param) {
        HKEY created = nullptr;
        LONG result = RegCreateKeyExW(key, name.wide.c_str(), &created);
        CheckResult(result, "RegCreateKeyExW");
        if (result != Result::Ok || created == nullptr) return;
        const std::vector<BYTE> data = MakeData(kSizes[(param >> 3) & 15], param);
        CheckResult(RegSetValueNewW(created, u"v", 0, kTypes[param & 7], data.data(), static_cast<DWORD>(data.size())),
                    "RegSetValueNewW on a new key");
        HKEY grandchild = nullptr;
        CheckResult(RegCreateKeyExA(created, "sub", &grandchild), "RegCreateKeyExA below a new key");
        CheckResult(RegDeleteValueW(created, u"v"), "RegDeleteValueW on a new key");
        CheckResult(RegDeleteKeyW(created, u"sub"), "RegDeleteKeyW below a new key");
    }

    void ReadValue(HKEY key, std::uint8_t index) {
        std::u16string name;
        DWORD type = 0, length = 0;
        if (!ValueAt(key, index, &name, &type, &length) || length > (1u << 20)) return;
        std::vector<BYTE> data(length + 1);
        DWORD room = length;
        CheckResult(RegQueryValueExW(key, name.c_str(), nullptr, &type, data.data(), &room), "RegQueryValueExW");
    }

    HKEY hive_;
    std::vector<std::u16string> paths_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t header = data[0];
    const std::size_t stepCount = header & 15;
    if (size < 1 + 4 * stepCount) return 0;
    std::vector<Step> steps;
    for (std::size_t i = 0; i < stepCount; ++i) {
        const std::uint8_t* p = data + 1 + 4 * i;
        steps.push_back({p[0], p[1], p[2], p[3]});
    }
    Bytes bytes(data + 1 + 4 * stepCount, data + size);
    FixBaseBlock(bytes);
    const bool viaFile = (header & 0x10) != 0;
    const bool readOnly = viaFile && (header & 0x20) != 0;

    HiveUnderTest hive(bytes, viaFile, readOnly);
    if (hive.Open() != Result::Ok) return 0;
    WalkLimits survey;
    survey.maxKeys = 120;
    survey.maxIndex = 24;
    survey.maxPaths = 40;
    WalkResult before = WalkHive(hive.Handle(), survey);
    {
        Script script(hive.Handle(), std::move(before.keyPaths));
        for (const Step& step : steps) script.Run(step);
    }
    WalkLimits after;
    after.maxKeys = 600;
    after.maxIndex = 48;
    WalkHive(hive.Handle(), after);
    hive.Close();

    // The edits leave a base block with a fresh checksum behind them.
    HiveUnderTest again(hive.Contents(), viaFile, /*readOnly=*/true);
    Expect(again.Open() == Result::Ok, "the hive no longer opens after the edits");
    WalkHive(again.Handle(), survey);
    return 0;
}
