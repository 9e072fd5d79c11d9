// Fuzz harness: the input is a script of edits run on a new hive and, at the
// same time, on the in-memory model of the tests. A finding is any answer or
// listing that differs from the model's, not only a crash. Script: byte 0,
// bit 0 the hive's version (1.3 or 1.5), bit 1 open it as a file; then four
// bytes a step: kind, target key, name, data.
#include "Driver.h"
#include "support/HiveBuilder.h"
#include "support/Listing.h"
#include "support/ModelTree.h"

using namespace RegAPI;
using TamvikTest::ModelKey;
using TamvikTest::ModelTree;

namespace TamvikFuzz {

namespace {

// Few names, so that steps meet each other's keys and values; case differs.
const char* const kNames[] = {"a", "A", "b", "Key", "KEY", "v", "_x", "zz", "Long name with spaces", ""};
constexpr std::uint32_t kSizes[] = {0, 1, 4, 5, 8, 12, 13, 100, 4064, 16344, 16345, 20000};
constexpr std::uint32_t kTypes[] = {1, 3, 4, 7, 11};

std::vector<std::uint8_t> Data(std::uint8_t param) {
    std::vector<std::uint8_t> data(kSizes[param % std::size(kSizes)]);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(param * 31 + i);
    return data;
}

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

void Expect(LONG expected, LONG actual, const std::string& what) {
    const bool agree = expected == ModelTree::kAnyRefusal ? actual != Result::Ok : actual == expected;
    Require(agree, what + ": the model says " + std::to_string(expected) + ", the hive " + std::to_string(actual));
}

}  // namespace

void Harness(Bytes input) {
    if (input.empty()) return;
    const std::uint32_t minor = (input[0] & 1) != 0 ? 5 : 3;
    TamvikTest::HiveBuilder builder(minor);
    builder.AddTree(TamvikTest::TreeKey{"ROOT"});
    Bytes hiveBytes = builder.Build();
    hiveBytes[0x1F8] = (input[0] & 2) != 0 ? 2 : 0;  // the driver's mode byte: open as a file
    FixBaseBlock(hiveBytes);
    HiveUnderTest hive(hiveBytes);
    Require(hive.Open() == Result::Ok, "a new hive doesn't open");
    ModelTree model(minor, "\\");
    for (std::size_t at = 1; at + 4 <= input.size() && at < 1 + 4 * 64; at += 4) {
        const std::uint8_t* step = &input[at];
        std::vector<ModelKey*> keys = model.Keys();
        ModelKey& target = *keys[step[1] % keys.size()];
        HKEY key = nullptr;
        const std::u16string path = model.HivePath(target);
        Require(RegOpenKeyExW(hive.Handle(), (path.empty() ? path : u"ROOT\\" + path).c_str(), 0, 0, &key) == 0,
                "a key of the model doesn't open");
        const std::string name = kNames[step[2] % std::size(kNames)];
        const std::vector<std::uint8_t> data = Data(step[3]);
        const std::uint32_t type = kTypes[step[3] % std::size(kTypes)];
        const std::string where = model.ListingPath(target) + " '" + name + "'";
        HKEY created = nullptr;
        switch (step[0] % 5) {
            case 0:
                Expect(model.CreateKey(target, name), RegCreateKeyExW(key, Wide(name).c_str(), &created), "create " + where);
                break;
            case 1:
                Expect(model.NewValue(target, name, type, data),
                       RegSetValueNewW(key, Wide(name).c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())),
                       "new value " + where);
                break;
            case 2:
                Expect(model.SetValue(target, name, type, data),
                       RegSetValueExW(key, Wide(name).c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())),
                       "set value " + where);
                break;
            case 3:
                Expect(model.DeleteValue(target, name), RegDeleteValueW(key, Wide(name).c_str()), "delete value " + where);
                break;
            default:
                Expect(model.DeleteKey(target, name), RegDeleteKeyW(key, Wide(name).c_str()), "delete key " + where);
        }
    }
    const TamvikTest::Listing listing = TamvikTest::ListKey(hive.Handle());
    Require(listing.problems.empty(), listing.problems.empty() ? "" : listing.problems.front());
    Require(listing.lines == model.Listing(), "the hive's listing differs from the model's");
    hive.Close();
    Require(hive.Open() == Result::Ok, "an edited hive no longer opens");
}

}  // namespace TamvikFuzz
