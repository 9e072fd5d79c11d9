// Guards what the library promises on hostile input and failing storage:
// every damaged real hive and every lie built byte by byte (cycles, counts
// past their cells, names past their cells, bin chains that lead nowhere)
// opens or is refused, is walked to its end through every read function and
// edited with result numbers only; and an edit whose storage refuses a new
// bin leaves every key and value reachable and no cell leaked.
#include <gtest/gtest.h>

#include <filesystem>

#include "nodes/ReferenceCheck.h"
#include "store/Format.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/Probe.h"
#include "support/Samples.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;
namespace NkField = Tamvik::NkField;
constexpr std::uint32_t kNone = 0xFFFFFFFF;

// A few edits on the root and its first subkey; every call must end with a number.
void EditSome(HKEY hive, std::vector<std::string>& violations) {
    auto check = [&](LONG result, const char* call) {
        if (!IsResultNumber(result)) violations.push_back(std::string(call) + " gave " + std::to_string(result));
    };
    HKEY root = nullptr, created = nullptr, child = nullptr;
    if (RegOpenKeyExW(hive, u"", 0, 0, &root) != Result::Ok) return;
    const BYTE data[40] = {'d', 0, 'a', 0};
    check(RegCreateKeyExA(root, "TamvikNew", &created), "RegCreateKeyExA");
    check(RegSetValueNewW(root, u"TamvikValue", 0, 1, data, sizeof data), "RegSetValueNewW");
    check(RegSetValueExW(root, u"TamvikValue", 0, 1, data, 10), "RegSetValueExW");
    check(RegSetValueNewA(root, "TamvikNarrow", 0, 1, data, 4), "RegSetValueNewA");
    check(RegDeleteValueW(root, u"TamvikValue"), "RegDeleteValueW");
    check(RegDeleteKeyA(root, "TamvikNew"), "RegDeleteKeyA");
    WCHAR name[600];
    DWORD room = 600, type = 0, size = 0;
    if (RegEnumKeyExW(root, 0, name, &room, 0, 0, 0, 0) != Result::Ok || room == 0) return;
    const std::u16string childName(name, room);
    if (RegOpenKeyExW(root, childName.c_str(), 0, 0, &child) != Result::Ok) return;
    room = 600;
    if (RegEnumValueW(child, 0, name, &room, 0, &type, 0, &size) == Result::Ok) {
        const std::vector<BYTE> fresh(std::clamp<DWORD>(size, 100, 70000), 0x42);
        check(RegSetValueExW(child, std::u16string(name, room).c_str(), 0, type, fresh.data(), 100), "RegSetValueExW shrink");
        check(RegSetValueExW(child, std::u16string(name, room).c_str(), 0, type, fresh.data(),
                             static_cast<DWORD>(fresh.size())), "RegSetValueExW existing");
        check(RegDeleteValueW(child, std::u16string(name, room).c_str()), "RegDeleteValueW existing");
    }
    check(RegDeleteKeyW(root, childName.c_str()), "RegDeleteKeyW existing");
}

// Opens, probes, edits, closes, opens again and probes again: the violations met.
std::vector<std::string> Survive(const Bytes& bytes, LONG* opened = nullptr) {
    TestHive test(bytes);
    if (opened != nullptr) *opened = test.openResult;
    if (test.openResult != Result::Ok) return {};
    std::vector<std::string> violations = Probe(test.hive).violations;
    EditSome(test.hive, violations);
    for (const std::string& v : Probe(test.hive, {24, 600}).violations) violations.push_back("after edits: " + v);
    if (test.Reopen() != Result::Ok) violations.push_back("an edited hive no longer opens");
    return violations;
}

TEST(Damage, RealDamagedHivesOpenOrAreRefusedAndEveryCallEnds) {
    SKIP_WITHOUT_SHARED_HIVES();
    int opened = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(SharedHives() + "/damaged")) {
        if (!entry.is_regular_file()) continue;
        LONG result = 0;
        const std::vector<std::string> violations = Survive(ReadFileBytes(entry.path()), &result);
        EXPECT_TRUE(result == Result::Ok || result == Result::HiveRefused) << entry.path() << ": " << result;
        EXPECT_TRUE(violations.empty()) << entry.path() << ": " << violations.front();
        opened += result == Result::Ok;
    }
    EXPECT_GE(opened, 30);
    // The base block alone decides.
    for (const auto& [name, expected] : std::vector<std::pair<const char*, LONG>>{
             {"EZ-Registry__SAN_OTHER", 5}, {"yarp__BadBaseBlockHive/BadBaseBlockHive", 5}, {"yarp__GarbageHive", 5},
             {"yarp__TruncatedHiveBin", 5}, {"yarp__TruncatedHive", 0}, {"yarp__TruncatedNameHive", 0},
             {"plaso__corrupt_sub_key_list.hiv", 0}, {"EZ-Registry__SAMBadHBinHeader", 0}}) {
        TestHive test(ReadFileBytes(SharedHives() + "/damaged/" + name), true);
        EXPECT_EQ(test.openResult, expected) << name;
    }
}

// Lies built byte by byte, each breaking one rule a reader must not trust;
// the library's integrity check names each where it lies.
TEST(Damage, LiesBuiltByteByByteEnd) {
    const std::map<std::string, std::vector<std::string>> told = {
        {"self-listed", {"0x1068: key is listed more than once (a loop or a shared entry)"}},
        {"ri-naming-itself", {"ri entry is not an lf, lh or li list", "is also named elsewhere"}}, {"ri-pair", {"ri entry is not an lf, lh or li list"}},
        {"huge-counts", {"subkey leaf of 65535 entries is larger than its cell", "0x1068: key counts 4294967295 subkeys, its list holds 0"}},
        {"names-past-cells", {"key name of 65535 bytes runs past its cell", "value name runs past its cell"}},
        {"db-at-odds", {"segment list is smaller than its count", "db has 1 segments, 3 needed", "data of 3000 bytes is larger",
                        "data of 30000 bytes needs a db record", "inline data of 9 bytes (at most 4 fit)",
                        "0x6060: db segment list 0x5020 is also named elsewhere (cross-linked cells)"}},
        {"owners-at-odds", {"sk reference count 0, but 1 keys use it", "sk ring broken: next 0x", "key records parent 0x",
                            "class name of 100 bytes is larger than its cell", "segment smaller than its share of the data"}},
        {"big-data-cell-past-the-file", {"0x10c0: value list 0x408 names no cell"}},
    };
    for (const auto& [name, bytes] : DamagedSamples()) {
        const std::vector<std::string> violations = Survive(bytes);
        EXPECT_TRUE(violations.empty()) << name << ": " << violations.front();
        std::string texts;
        for (const Tamvik::Finding& f : Tamvik::CheckReferences(Tamvik::HiveScan(bytes)).findings)
            if (!f.warning) texts += Tamvik::Hex(f.fileOffset) + ": " + f.text + "\n";
        for (const std::string& text : told.count(name) != 0 ? told.at(name) : std::vector<std::string>{})
            EXPECT_NE(texts.find(text), std::string::npos) << name << ": " << text << "\n" << texts;
    }
    // A chain of keys thousands deep: opened to the bottom, closed on a flat stack.
    HiveBuilder deep;
    std::uint32_t below = deep.AddNk({"leaf"});
    for (int i = 0; i < 5000; ++i) below = deep.AddNk({"k", 0x20, 1, deep.AddList("lf", {below})});
    deep.SetRoot(below);
    TestHive test(deep);
    HKEY key = test.Key();
    for (int i = 0; i < 5000 && key != nullptr; ++i) {
        HKEY next = nullptr;
        key = RegOpenKeyExW(key, i < 4999 ? u"k" : u"leaf", 0, 0, &next) == Result::Ok ? next : nullptr;
    }
    EXPECT_NE(key, nullptr);
}

// A leaf whose cell holds more entries than its Count, under a key that counts
// them all: the entries past Count name no subkey, by position or by name,
// in a hive opened for writing and in one opened read-only.
TEST(Damage, EntriesPastALeafsCountNameNoKey) {
    for (const char* signature : {"lf", "lh", "li"}) {
        for (const bool readOnly : {false, true}) {
            HiveBuilder builder;
            const std::vector<std::uint32_t> keys = {builder.AddNk({"a"}), builder.AddNk({"b"}), builder.AddNk({"c"})};
            const std::uint32_t list = builder.AddList(signature, keys, {"a", "b", "c"}, 0, 2);
            builder.SetRoot(builder.AddNk({"root", 0x20, 3, list}));
            TestHive test(builder, readOnly);
            WCHAR name[8];
            for (DWORD i = 0; i < 3; ++i) {
                DWORD length = 8;
                EXPECT_EQ(RegEnumKeyExW(test.Key(), i, name, &length, nullptr, nullptr, nullptr, nullptr),
                          i < 2 ? Result::Ok : Result::Corrupt) << signature << i;
            }
            HKEY found = nullptr;
            EXPECT_EQ(RegOpenKeyExW(test.Key(), u"b", 0, 0, &found), Result::Ok) << signature;
            EXPECT_EQ(RegOpenKeyExW(test.Key(), u"c", 0, 0, &found), Result::Invalid) << signature;
        }
    }
}

// A listed key's nk lying inside the free cell the new key's nk then takes:
// the create must judge the list by what the file holds after that write, not
// by the names it read before it.
TEST(Damage, ACreateThatWritesOverAListedKeyReadsTheListAgain) {
    HiveBuilder b;
    const std::uint32_t cover = b.AddCell(Bytes(8), true, 16);
    const std::uint32_t listed = b.AddNk({"B"}, 88);
    b.SetRoot(b.AddNk({"Root", 0x2C, 1, b.AddList("lf", {listed}, {"B"})}));
    b.CloseBin(true);
    b.SetCellSize(cover, 16 + 88);  // free now, and over B's nk
    TestHive test(b);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExW(test.Key(), u"C", &created), Result::CannotCreate);
}

// --- Storage that refuses new bins ------------------------------------------------

// Root with subkeys B, D, Empty and Full in an lf of 40 bytes (or an ri over
// it), a free cell of leafHole bytes right before that leaf; Full with values
// A (inline), B (8 bytes) and C (a db of 20000 bytes) in a list of listCell
// bytes; and no free space but the holes asked for.
HiveBuilder Cramped(std::vector<std::uint32_t> holes, std::uint32_t listCell = 16, bool ri = false,
                    std::uint32_t leafHole = 0) {
    HiveBuilder b;
    const std::uint32_t big = b.AddBigData(Bytes(20000, 7));
    b.CloseBin(true);
    const std::uint32_t values = b.AddOffsets({b.AddVk({"A", 0x80000001, 1}), b.AddVk({"B", 8, b.AddCell(Bytes(8, 2))}),
                                               b.AddVk({"C", 20000, big})}, listCell);
    const std::uint32_t full = b.AddNk({"Full", 0x20, 0, kNone, 3, values}), empty = b.AddNk({"Empty"});
    const std::uint32_t bk = b.AddNk({"B"}), dk = b.AddNk({"D"});
    if (leafHole != 0) b.AddFree(leafHole);
    const std::uint32_t lf = b.AddList("lf", {bk, dk, empty, full}, {"B", "D", "Empty", "Full"}, 40);
    b.AddCells({-16});  // a fence behind the leaf
    b.SetRoot(b.AddNk({"Root", 0x2C, 4, ri ? b.AddList("ri", {lf}) : lf}));
    for (std::uint32_t hole : holes) b.AddFree(hole);
    b.CloseBin(true);
    return b;
}

TEST(Damage, RefusedNewBinsLoseNothing) {
    const Bytes data(40000, 9);
    auto set = [&](const char16_t* name, DWORD size) {
        return [=, &data](HKEY key) { return RegSetValueExW(key, name, 0, 3, data.data(), size); };
    };
    auto add = [&](const char16_t* name, DWORD size) {
        return [=, &data](HKEY key) { return RegSetValueNewW(key, name, 0, 3, data.data(), size); };
    };
    struct Case {
        const char* what;
        HiveBuilder hive;
        const char16_t* key;
        std::function<LONG(HKEY)> edit;
        LONG result;
        bool fileUnchanged;
    } cases[] = {
        {"no room for the nk", Cramped({}), u"", [](HKEY k) { return Create(k, "New"); }, 57, true},
        {"a leaf that can't move", Cramped({88}), u"", [](HKEY k) { return Create(k, "Cccc"); }, 57, false},
        {"a leaf merged with a free neighbour", Cramped({88}, 16, false, 8), u"", [](HKEY k) { return Create(k, "C"); },
         57, false},
        {"an ri owner", Cramped({96}, 16, true), u"", [](HKEY k) { return Create(k, "Bb"); }, 57, false},
        {"a value list that can't move", Cramped({32}), u"Full", add(u"Newv", 1), 87, false},
        {"a first value without its data cell", Cramped({32, 8}), u"Empty", add(u"Newv", 10), 87, false},
        {"data refused after the list moved", Cramped({32, 24}), u"Full", add(u"Newv", 30), 87, false},
        {"data refused with the list in place", Cramped({32}, 24), u"Full", add(u"Newv", 30), 87, false},
        {"a db refused after its first segment", Cramped({32, 24, 16352}), u"Full", add(u"Bigv", 40000), 87, false},
        {"a cell that must move", Cramped({}), u"Full", set(u"B", 30), 87, true},
        {"inline data that must move", Cramped({}), u"Full", set(u"A", 5), 87, true},
        {"a db falling below the line", Cramped({}), u"Full", set(u"C", 100), 87, true},
    };
    for (Case& c : cases) {
        TempFile file(c.hive.Build());
        const Bytes before = file.Read();
        TestDevice device;
        device.refuseWritesFrom = before.size();  // no new bin can be had
        HKEY hive = nullptr, key = nullptr;
        ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
        const Listing listing = ListKey(hive);
        const std::u16string path = *c.key == 0 ? u"" : u"R\\" + std::u16string(c.key);
        ASSERT_EQ(RegOpenKeyExW(hive, path.c_str(), 0, 0, &key), Result::Ok) << c.what;
        EXPECT_EQ(c.edit(key), c.result) << c.what;
        EXPECT_EQ(ListKey(hive).lines, listing.lines) << c.what << ": a key or value was lost or added";
        EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
        const Bytes after = file.Read();
        if (c.fileUnchanged) {
            EXPECT_EQ(after, before) << c.what;
        }
        std::size_t was = 0, now = 0;
        for (const auto& [offset, size] : Image(before).Cells()) was += size < 0;
        for (const auto& [offset, size] : Image(after).Cells()) now += size < 0;
        EXPECT_EQ(now, was) << c.what << ": cells leaked or lost";
    }
    // A refused write of the new bin itself: nothing changes, and the next try gets its bin.
    TempFile file(Cramped({}).Build());
    TestDevice device;
    HKEY hive = nullptr, root = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(hive, u"", 0, 0, &root), Result::Ok);
    device.RefuseWrite(1);
    const Bytes before = file.Read();
    EXPECT_EQ(Create(root, "New"), Result::CannotCreate);
    EXPECT_EQ(file.Read(), before);
    EXPECT_EQ(Create(root, "New"), Result::Ok);
    EXPECT_EQ(Image(file.Read()).BinsSize(), Image(before).BinsSize() + 4096);
    CloseHiveByVolume(&hive, &device);
}

}  // namespace
