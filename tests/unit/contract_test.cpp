// Guards what every caller meets first: opening and closing hives, the tests
// each entry point makes and their order, what paths mean, and which calls end
// which handles.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "api/EntryFrame.h"
#include "nodes/SubKeyList.h"
#include "store/Hive.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;

// ROOT (values V, S) +- A (B, C; value val) +- E ("" and "\B" below it) +- MiXed
HiveBuilder PathHive() {
    TreeKey root{"ROOT", {{"V", 4, {1, 0, 0, 0}}, {"S", 1, {'a', 0, 'b', 0, 0, 0}}}};
    TreeKey a{"A", {{"val", 4, {1, 2, 3, 4}}}, {TreeKey{"B"}, TreeKey{"C"}}};
    TreeKey unnamed{"", {}, {TreeKey{"B"}}};
    root.subkeys = {a, TreeKey{"E", {}, {unnamed}}, TreeKey{"MiXed"}};
    HiveBuilder builder;
    builder.AddTree(root);
    return builder;
}

int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++count;
        closedir(dir);
    }
    return count;
}

LONG OpenAndClose(const std::u16string& path, bool readOnly) {
    HKEY hive = nullptr;
    const LONG result = OpenHiveW(path.c_str(), &hive, readOnly);
    EXPECT_EQ(hive == nullptr, result != Result::Ok) << "a refused open leaves the out-argument alone";
    if (hive != nullptr) {
        EXPECT_EQ(CloseHive(&hive), Result::Ok);
    }
    return result;
}

TEST(Open, ResultsOfEachKindOfFile) {
    const Bytes sound = PathHive().Build();
    HiveBuilder foreign = PathHive(), badSum = PathHive();
    foreign.SetSignature("regq");
    badSum.SetChecksumValid(false);
    struct Case {
        const char* what;
        Bytes bytes;
        LONG expected;
    } cases[] = {
        {"sound", sound, 0},
        {"empty", {}, 5},
        {"cut before the checksum", Bytes(sound.begin(), sound.begin() + 300), 5},
        // The first 512 bytes hold signature and checksum: only they are judged.
        {"cut at 512 bytes", Bytes(sound.begin(), sound.begin() + 512), 0},
        {"text", Bytes(5000, 'x'), 5},
        {"foreign signature", foreign.Build(), 5},
        {"checksum one bit off", badSum.Build(), 5},
    };
    const int descriptors = OpenDescriptors();
    for (const Case& c : cases) {
        TempFile file(c.bytes);
        EXPECT_EQ(OpenAndClose(file.WidePath(), false), c.expected) << c.what;
        EXPECT_EQ(OpenAndClose(file.WidePath(), true), c.expected) << c.what;
        HKEY hive = nullptr;
        EXPECT_EQ(OpenHiveA(file.Path().c_str(), &hive, true), c.expected) << c.what;
        if (hive != nullptr) CloseHive(&hive);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors) << "a refused open closes its stream";
    for (const char16_t* missing : {u"/nonexistent-dir/x", u"", u"/tmp"})
        EXPECT_EQ(OpenAndClose(missing, false), Result::Invalid);
    HKEY hive = nullptr;
    EXPECT_EQ(OpenHiveW(nullptr, &hive, false), Result::Invalid);
    EXPECT_EQ(OpenHiveA(nullptr, &hive, false), Result::Invalid);

    TempFile readOnly(sound);
    ASSERT_EQ(chmod(readOnly.Path().c_str(), 0400), 0);
    EXPECT_EQ(OpenAndClose(readOnly.WidePath(), true), Result::Ok);
    if (access(readOnly.Path().c_str(), W_OK) != 0) {  // root may write it anyway
        EXPECT_EQ(OpenAndClose(readOnly.WidePath(), false), Result::Invalid);
    }
}

TEST(Open, CloseTakesOnlyAHiveHandleAndOnlyOnce) {
    TestHive test(PathHive());
    HKEY root = test.Key();
    ASSERT_NE(root, nullptr);
    HKEY keyHandle = root;
    EXPECT_EQ(CloseHive(nullptr), Result::Invalid);
    EXPECT_EQ(CloseHive(&keyHandle), Result::Invalid);
    EXPECT_EQ(CloseHiveByVolume(&keyHandle, nullptr), Result::Invalid);
    EXPECT_EQ(keyHandle, root);
    EXPECT_EQ(RegCloseKey(test.hive), Result::Invalid);
    EXPECT_NE(test.Key(u"A"), nullptr) << "the hive stays open";
    HKEY hive = test.hive;
    EXPECT_EQ(CloseTestHive(&hive), Result::Ok);
    EXPECT_EQ(hive, nullptr);
    EXPECT_EQ(CloseTestHive(&hive), Result::Invalid) << "closing the same variable again";
    test.hive = nullptr;
}

// Each entry point's tests, in their order: every row breaks the first test
// that a later row passes. Out-arguments keep their content on refusal.
TEST(Contract, RefusalsComeInTheirOrder) {
    TestHive test(PathHive());
    HKEY h = test.hive, root = test.Key();
    ASSERT_NE(root, nullptr);
    // Opened afresh for each call: a lookup of A under the root ends the handle of MiXed.
    auto mixed = [&] { return test.Key(u"MiXed"); };
    WCHAR name[64];
    char narrow[64];
    DWORD length = 64, size = 4, type = 77, zero = 0, small = 1;
    BYTE data[8] = {};
    HKEY out = nullptr;
    const BYTE one[4] = {1, 0, 0, 0};
    struct Row {
        const char* what;
        std::function<LONG()> call;
        LONG expected;
    } rows[] = {
        {"open: null key", [&] { return RegOpenKeyExW(nullptr, u"A", 0, 0, &out); }, 87},
        {"open: null path", [&] { return RegOpenKeyExW(root, nullptr, 0, 0, &out); }, 87},
        {"open: null result", [&] { return RegOpenKeyExW(root, u"A", 0, 0, nullptr); }, 87},
        {"open A: null path", [&] { return RegOpenKeyExA(root, nullptr, 0, 0, &out); }, 87},
        {"open A: null key", [&] { return RegOpenKeyExA(nullptr, "A", 0, 0, &out); }, 87},
        {"close: null", [&] { return RegCloseKey(nullptr); }, 87},
        {"flush: anything", [&] { return RegFlushKey(nullptr) + RegFlushKey(h); }, 0},
        {"info: null", [&] { return RegQueryInfoKeyW(nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }, 87},
        {"info: hive", [&] { return RegQueryInfoKeyA(h, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }, 87},
        {"info: all out null", [&] { return RegQueryInfoKeyW(root, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }, 0},
        {"enum key: hive", [&] { return RegEnumKeyExW(h, 0, name, &length, 0, 0, 0, 0); }, 87},
        {"enum key: null name", [&] { return RegEnumKeyExW(root, 0, nullptr, &length, 0, 0, 0, 0); }, 87},
        {"enum key: null length", [&] { return RegEnumKeyExW(root, 0, name, nullptr, 0, 0, 0, 0); }, 87},
        {"enum key: no subkeys", [&] { return RegEnumKeyExW(mixed(), 0, name, &length, 0, 0, 0, 0); }, 87},
        {"enum key: past the end", [&] { return RegEnumKeyExW(root, 3, name, &length, 0, 0, 0, 0); }, 87},
        {"enum key: no room for the terminator", [&] { return RegEnumKeyExW(root, 0, name, &small, 0, 0, 0, 0); }, 87},
        {"enum key A: null name first", [&] { return RegEnumKeyExA(nullptr, 0, nullptr, &length, 0, 0, 0, 0); }, 87},
        {"enum key A: hive", [&] { return RegEnumKeyExA(h, 0, narrow, &length, 0, 0, 0, 0); }, 87},
        {"query: hive", [&] { return RegQueryValueExW(h, u"V", 0, &type, data, &size); }, 87},
        {"query: null name", [&] { return RegQueryValueExW(root, nullptr, 0, &type, data, &size); }, 87},
        {"query: no values", [&] { return RegQueryValueExW(mixed(), u"", 0, &type, data, &size); }, 87},
        {"query: missing", [&] { return RegQueryValueExW(root, u"W", 0, &type, data, &size); }, 87},
        {"query A: no values", [&] { return RegQueryValueExA(mixed(), "V", 0, &type, data, &size); }, 87},
        {"enum value: null name", [&] { return RegEnumValueW(root, 0, nullptr, &length, 0, &type, data, &size); }, 87},
        {"enum value: null length", [&] { return RegEnumValueW(root, 0, name, nullptr, 0, &type, data, &size); }, 87},
        {"enum value: no values", [&] { return RegEnumValueW(mixed(), 0, name, &length, 0, &type, data, &size); }, 87},
        {"enum value: past the end", [&] { return RegEnumValueA(root, 2, narrow, &length, 0, &type, data, &size); }, 87},
        {"create: hive", [&] { return RegCreateKeyExW(h, u"N", &out); }, 87},
        {"create: null name", [&] { return RegCreateKeyExW(root, nullptr, &out); }, 87},
        {"create: null result", [&] { return RegCreateKeyExA(root, "N", nullptr); }, 87},
        {"create: empty name", [&] { return RegCreateKeyExA(root, "", &out); }, 87},
        {"create: exists in another case", [&] { return RegCreateKeyExW(root, u"mixed", &out); }, 72},
        {"set: hive", [&] { return RegSetValueExW(h, u"V", 0, 4, one, 4); }, 87},
        {"set: null name", [&] { return RegSetValueExW(root, nullptr, 0, 4, one, 4); }, 87},
        {"set: null data", [&] { return RegSetValueExW(root, u"V", 0, 4, nullptr, 4); }, 87},
        {"set: size 0", [&] { return RegSetValueExW(root, u"V", 0, 4, one, zero); }, 87},
        {"set: no values", [&] { return RegSetValueExW(mixed(), u"V", 0, 4, one, 4); }, 87},
        {"set: missing", [&] { return RegSetValueExW(root, u"W", 0, 4, one, 4); }, 87},
        {"set: another type", [&] { return RegSetValueExW(root, u"V", 0, 3, one, 4); }, 87},
        {"set: fixed size type, other size", [&] { return RegSetValueExW(root, u"V", 0, 4, one, 3); }, 87},
        {"set A: size 0", [&] { return RegSetValueExA(root, "V", 0, 4, one, 0); }, 87},
        {"new: null data", [&] { return RegSetValueNewW(root, u"N", 0, 3, nullptr, 4); }, 87},
        {"new: size 0", [&] { return RegSetValueNewW(root, u"N", 0, 3, one, 0); }, 87},
        {"new: exists in another case", [&] { return RegSetValueNewW(root, u"s", 0, 3, one, 4); }, 72},
        {"new: empty name", [&] { return RegSetValueNewW(root, u"", 0, 3, one, 4); }, 87},
        {"new A: hive", [&] { return RegSetValueNewA(h, "N", 0, 3, one, 4); }, 87},
        {"delete key: hive", [&] { return RegDeleteKeyW(h, u"A"); }, 87},
        {"delete key: null path", [&] { return RegDeleteKeyW(root, nullptr); }, 87},
        {"delete key: empty path", [&] { return RegDeleteKeyW(root, u""); }, 87},
        {"delete key: has subkeys", [&] { return RegDeleteKeyW(root, u"A"); }, 87},
        {"delete key A: null path", [&] { return RegDeleteKeyA(root, nullptr); }, 87},
        {"delete value: hive", [&] { return RegDeleteValueW(h, u"V"); }, 87},
        {"delete value: null name", [&] { return RegDeleteValueW(root, nullptr); }, 87},
        {"delete value: no values", [&] { return RegDeleteValueW(mixed(), u"V"); }, 87},
        {"delete value A: null name", [&] { return RegDeleteValueA(root, nullptr); }, 87},
    };
    const Bytes before = test.Disk();
    for (const Row& row : rows) {
        length = 64, size = 4, type = 77, out = nullptr, small = 1;
        std::fill(std::begin(data), std::end(data), 0xEE);
        EXPECT_EQ(row.call(), row.expected) << row.what;
        if (row.expected == 0) continue;
        EXPECT_TRUE(out == nullptr && length == 64 && size == 4 && type == 77 && small == 1 && data[0] == 0xEE)
            << row.what << ": an out-argument was written";
    }
    EXPECT_EQ(test.Disk(), before) << "a refused call wrote to the file";
}

// What a path means from a hive handle and from a key handle.
TEST(Contract, PathsFromEachKindOfHandle) {
    TestHive test(PathHive());
    HKEY root = test.Key();
    ASSERT_NE(root, nullptr);
    auto open = [](HKEY from, const char16_t* path) -> std::u16string {
        HKEY key = nullptr;
        if (RegOpenKeyExW(from, path, 0, 0, &key) != Result::Ok) return u"-";
        return Tamvik::KeyOf(key)->GetPath().substr(Tamvik::KeyOf(key)->GetPath().find(u"\\ROOT") + 5);
    };
    struct Case {
        bool fromHive;
        const char16_t* path;
        const char16_t* reaches;  // path below the root, "-" for 87
    } cases[] = {
        {true, u"", u""},         {true, u"X", u""},          {true, u"\\", u""},         {true, u"\\X", u""},
        {true, u"X\\A", u"\\A"},  {true, u"\\X\\a\\b", u"\\A\\B"}, {true, u"\\\\A", u"\\A"}, {true, u"X\\", u"-"},
        {true, u"X\\A\\", u"-"},  {true, u"X\\E\\", u"\\E\\"},  {true, u"X\\E\\\\B", u"\\E\\\\B"},
        {false, u"A", u"\\A"},    {false, u"\\A", u"\\A"},     {false, u"A\\C", u"\\A\\C"}, {false, u"", u"-"},
        {false, u"\\", u"-"},     {false, u"A\\", u"-"},       {false, u"A\\\\B", u"-"},    {false, u"ROOT", u"-"},
        {false, u"mixed", u"\\MiXed"}, {false, u"E\\\\b", u"\\E\\\\B"}, {false, u"Missing", u"-"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(open(c.fromHive ? test.hive : root, c.path), c.reaches)
            << (c.fromHive ? "hive " : "key ") << Utf8(c.path);
    HKEY wide = nullptr, narrowKey = nullptr, odd = nullptr;
    ASSERT_EQ(RegOpenKeyExW(test.hive, u"X\\A\\C", 0, 0, &wide), Result::Ok);
    EXPECT_EQ(RegOpenKeyExA(test.hive, "x\\a\\c", 0, 0, &narrowKey), Result::Ok);
    EXPECT_EQ(RegOpenKeyExW(test.hive, u"X\\A\\C", 0xFFFFFFFF, 0x12345678, &odd), Result::Ok);
    EXPECT_TRUE(narrowKey == wide && odd == wide) << "the same path gives the same pointer; options mean nothing";
}

Tamvik::Key* CachedChild(HKEY key) {
    Tamvik::Key* node = Tamvik::KeyOf(key);
    return node == nullptr || node->subKeyList == nullptr ? nullptr : node->subKeyList->child.get();
}

// Handles live on one path down from the root: a lookup of another name under
// a key ends that key's cached child, whatever it finds; nothing else does.
TEST(Contract, WhichCallsEndHandles) {
    TestHive test(PathHive());
    HKEY root = test.Key(), a = test.Key(u"A"), b = test.Key(u"A\\B");
    ASSERT_TRUE(root && a && b);
    EXPECT_EQ(test.Key(u"a\\b"), b) << "a repeated lookup ends nothing";
    EXPECT_EQ(CachedChild(a), Tamvik::KeyOf(b));
    // Reads, enumerations, closes and flushes leave every cache as it was.
    WCHAR name[64];
    for (DWORD i = 0; i < 4; ++i) {
        DWORD length = 64, size = 0;
        RegEnumKeyExW(root, i, name, &length, 0, 0, 0, 0);
        length = 64;
        RegEnumValueW(a, i, name, &length, 0, 0, 0, &size);
    }
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(a, u"VAL", 0, 0, 0, &size) + RegCloseKey(a) + RegCloseKey(a) + RegFlushKey(a), 0);
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(a));
    EXPECT_EQ(CachedChild(a), Tamvik::KeyOf(b));

    HKEY c = test.Key(u"A\\C");
    EXPECT_TRUE(CachedChild(root) == Tamvik::KeyOf(a) && CachedChild(a) == Tamvik::KeyOf(c)) << "a sibling ends B only";
    HKEY mixed = test.Key(u"MiXed");
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(mixed)) << "another branch ends A and all below it";
    EXPECT_EQ(test.Key(u"MiXed"), mixed) << "a repeated lookup ends nothing, wherever the key stands";
    // A miss leaves the last entry of the scanned list cached, found again without a read.
    HKEY missing = root;
    EXPECT_EQ(RegOpenKeyExW(root, u"Zzz", 0, 0, &missing), Result::Invalid);
    EXPECT_EQ(missing, root);
    EXPECT_EQ(CachedChild(root)->GetName(), u"MiXed");
    // Under a key without subkeys a lookup touches no cache at all.
    mixed = test.Key(u"MiXed");
    EXPECT_EQ(RegOpenKeyExW(mixed, u"Any", 0, 0, &missing), Result::Invalid);
    EXPECT_EQ(Tamvik::KeyOf(mixed)->subKeyList, nullptr);
}

// A long list's learnt names outlive its node, for the next lookup in it,
// until any edit (the cells they name may have moved). A volume keeps none.
TEST(Contract, LongListsKeepTheirLearntNamesUntilAnEdit) {
    if (VolumeMode()) GTEST_SKIP() << "a volume is scanned literally";
    TreeKey many{"P"};
    for (int i = 0; i < 40; ++i) many.subkeys.push_back(TreeKey{(i < 10 ? "K0" : "K") + std::to_string(i)});
    HiveBuilder builder;
    builder.AddTree(TreeKey{"ROOT", {}, {many, TreeKey{"Q"}}});
    TestHive test(builder);
    const BYTE one[4] = {1};
    const auto learnAndPark = [&](const std::u16string& name) {
        ASSERT_NE(test.Key(u"P\\" + name), nullptr);
        ASSERT_NE(test.Key(u"Q"), nullptr) << "ends P and with it its list";
    };
    ASSERT_EQ(RegSetValueNewW(test.Key(u"Q"), u"x", 0, 4, one, 4), Result::Ok);
    learnAndPark(u"K31");
    const std::uint32_t list = Image(test.Disk()).U32(builder.KeyOffset("P"), Tamvik::NkField::SubKeyListCell);
    Tamvik::Hive& hive = *test.Internal();
    EXPECT_FALSE(hive.TakeNames(list, true));
    const std::optional<Tamvik::NameIndex> names = hive.TakeNames(list, false);
    ASSERT_TRUE(names);
    EXPECT_EQ(names->scanned, 32u);
    learnAndPark(u"K30");
    EXPECT_FALSE(hive.TakeNames(list, false)) << "31 names are scanned again for less";
    learnAndPark(u"K39");
    ASSERT_EQ(RegSetValueNewW(test.Key(u"Q"), u"y", 0, 4, one, 4), Result::Ok);
    EXPECT_FALSE(hive.TakeNames(list, false));
}

// A run of creations under one parent compares the siblings' names it read
// before; a name changed in the file since, with the list unchanged, is seen.
// In a list out of order a new name still goes before the first it sorts before.
TEST(Contract, RunsOfCreatesUnderOneParent) {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"ROOT", {}, {TreeKey{"P", {}, {TreeKey{"A"}, TreeKey{"C"}}},
                                         TreeKey{"Q", {}, {TreeKey{"C"}, TreeKey{"A"}}}}});
    TestHive test(builder);
    const auto subkeys = [&](const std::u16string& path) {
        std::string names;
        for (const std::string& line : ListKey(test.hive, path).lines)
            if (line.size() > 3 && line[0] == 'K') names += line.substr(3);
        return names;
    };
    for (const char* name : {"D", "E"}) ASSERT_EQ(Create(test.Key(u"P"), name), Result::Ok);
    ASSERT_TRUE(test.Internal()->WriteArea(builder.KeyOffset("P\\A") + 4 + Tamvik::NkField::Name, "B", 1));
    EXPECT_EQ(Create(test.Key(u"P"), "b"), Result::AlreadyExists);
    ASSERT_EQ(Create(test.Key(u"P"), "A"), Result::Ok);
    EXPECT_EQ(subkeys(u"P"), "ABCDE");
    for (const char* name : {"D", "B"}) ASSERT_EQ(Create(test.Key(u"Q"), name), Result::Ok);
    EXPECT_EQ(subkeys(u"Q"), "BCAD");
}

// A new key's cell that a damaged bin lays over a sibling already read sends
// the insert back to the names as they read now, as a first creation would.
TEST(Contract, ANewKeyLaidOverASiblingIsCaught) {
    HiveBuilder b;
    b.AddFree(40);  // where the moving lists go
    const std::uint32_t over = b.AddFree(8);
    const std::uint32_t a = b.AddNk({"A"});
    const std::uint32_t p = b.AddNk({"P", 0x20, 1, b.AddList("lf", {a}, {"A"})});
    b.SetRoot(b.AddNk({"ROOT", 0x2C, 1, b.AddList("lf", {p}, {"P"})}));
    b.CloseBin();
    b.PatchArea(over, {0x60, 0, 0, 0});  // the free cell in front reaches over A
    for (bool reopened : {false, true}) {
        TestHive test(b);
        ASSERT_EQ(Create(test.Key(u"P"), "LongLongLongName1"), Result::Ok);
        if (reopened) {
            ASSERT_EQ(test.Reopen(), Result::Ok);
        }
        EXPECT_EQ(Create(test.Key(u"P"), "B"), Result::CannotCreate) << reopened;
    }
}

// A handle whose node has died, or that never was one, is refused by every
// entry point that takes a handle, before anything follows it.
TEST(Contract, EndedHandlesGive87) {
    const BYTE data[4] = {1, 2, 3, 4};
    const std::vector<std::function<LONG(HKEY)>> calls = {
        [](HKEY k) { HKEY out = nullptr; return RegOpenKeyExW(k, u"B", 0, 0, &out); },
        [](HKEY k) { HKEY out = nullptr; return RegOpenKeyExA(k, "", 0, 0, &out); },
        [](HKEY k) { return RegCloseKey(k); },
        [](HKEY k) { DWORD n = 0; return RegQueryInfoKeyW(k, 0, 0, 0, &n, 0, 0, 0, 0, 0, 0, 0); },
        [](HKEY k) { DWORD n = 0; return RegQueryInfoKeyA(k, 0, 0, 0, &n, 0, 0, 0, 0, 0, 0, 0); },
        [](HKEY k) { WCHAR name[8]; DWORD n = 8; return RegEnumKeyExW(k, 0, name, &n, 0, 0, 0, 0); },
        [](HKEY k) { char name[8]; DWORD n = 8; return RegEnumKeyExA(k, 0, name, &n, 0, 0, 0, 0); },
        [](HKEY k) { WCHAR name[8]; DWORD n = 8; return RegEnumValueW(k, 0, name, &n, 0, 0, 0, 0); },
        [](HKEY k) { char name[8]; DWORD n = 8; return RegEnumValueA(k, 0, name, &n, 0, 0, 0, 0); },
        [](HKEY k) { DWORD n = 0; return RegQueryValueExW(k, u"val", 0, 0, 0, &n); },
        [](HKEY k) { DWORD n = 0; return RegQueryValueExA(k, "val", 0, 0, 0, &n); },
        [](HKEY k) { HKEY out = nullptr; return RegCreateKeyExW(k, u"N", &out); },
        [](HKEY k) { HKEY out = nullptr; return RegCreateKeyExA(k, "N", &out); },
        [&](HKEY k) { return RegSetValueExW(k, u"val", 0, 4, data, 4); },
        [&](HKEY k) { return RegSetValueExA(k, "val", 0, 4, data, 4); },
        [&](HKEY k) { return RegSetValueNewW(k, u"w", 0, 4, data, 4); },
        [&](HKEY k) { return RegSetValueNewA(k, "w", 0, 4, data, 4); },
        [](HKEY k) { return RegDeleteKeyW(k, u"B"); },
        [](HKEY k) { return RegDeleteKeyA(k, "B"); },
        [](HKEY k) { return RegDeleteValueW(k, u"val"); },
        [](HKEY k) { return RegDeleteValueA(k, "val"); },
        [](HKEY k) { HKEY copy = k; return CloseHive(&copy); },
        [](HKEY k) { HKEY copy = k; return CloseHiveByVolume(&copy, nullptr); },
    };
    const auto expectRefused = [&](HKEY handle, const char* how) {
        for (std::size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i](handle), Result::Invalid) << how << ", call " << i;
    };
    TestHive test(PathHive());
    const Bytes before = test.Disk();
    HKEY b = test.Key(u"A\\B");
    ASSERT_NE(test.Key(u"A\\C"), nullptr);
    expectRefused(b, "a sibling opened");
    HKEY a = test.Key(u"A");
    ASSERT_NE(test.Key(u"E"), nullptr);
    expectRefused(a, "another branch opened");
    int local = 0;
    expectRefused(reinterpret_cast<HKEY>(&local), "never a handle");
    expectRefused(reinterpret_cast<HKEY>(reinterpret_cast<char*>(test.Key()) + 8), "inside a key");
    EXPECT_EQ(test.Disk(), before) << "nothing reached the file";
    HKEY mixed = test.Key(u"MiXed");
    ASSERT_EQ(RegDeleteKeyW(test.Key(), u"MiXed"), Result::Ok);
    expectRefused(mixed, "the key deleted");
    HKEY root = test.Key(), hive = test.hive;
    test.Close();
    expectRefused(root, "the hive closed");
    expectRefused(hive, "the hive closed (its own handle)");
    EXPECT_EQ(RegFlushKey(nullptr), Result::Ok);
}

// With many hives open, handles share the set's slots; each one that ends,
// wherever its slot lies, is refused at once.
TEST(Contract, HandlesEndOneByOneAmongMany) {
    std::vector<std::unique_ptr<TestHive>> hives;
    for (int i = 0; i < 150; ++i) hives.push_back(std::make_unique<TestHive>(PathHive(), true));
    for (auto& test : hives) {
        HKEY hive = test->hive, root = test->Key();
        test->Close();
        DWORD n = 0;
        ASSERT_EQ(RegQueryInfoKeyW(hive, 0, 0, 0, &n, 0, 0, 0, 0, 0, 0, 0), Result::Invalid);
        ASSERT_EQ(RegQueryInfoKeyW(root, 0, 0, 0, &n, 0, 0, 0, 0, 0, 0, 0), Result::Invalid);
    }
}

// A create's handle is a second node of its key. Once the key is deleted
// through a lookup and its cell given out again at another size, a write
// through that handle must leave the cell's new owner alone.
TEST(Contract, AStaleCreateHandleWritesOverNoReusedCell) {
    TestHive test(PathHive());
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExW(test.Key(), u"New", &created), Result::Ok);
    ASSERT_EQ(RegDeleteKeyW(test.Key(), u"New"), Result::Ok);
    const BYTE data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(RegSetValueNewW(test.Key(), u"x", 0, 3, data, 8), Result::Ok);
    RegSetValueNewW(created, u"v", 0, 3, data, 8);
    BYTE read[8] = {};
    DWORD size = 8;
    EXPECT_EQ(RegQueryValueExW(test.Key(), u"x", 0, 0, read, &size), Result::Ok);
    EXPECT_TRUE(size == 8 && std::equal(read, read + 8, data));
}

TEST(Contract, RootCellThatIsNoKeyGives87) {
    HiveBuilder builder = PathHive();
    builder.SetRoot(builder.TreeSecurity());
    TestHive test(builder);
    HKEY out = nullptr;
    EXPECT_EQ(RegOpenKeyExW(test.hive, u"", 0, 0, &out), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(test.hive, u"X\\A", 0, 0, &out), Result::Invalid);
}

}  // namespace
