// Hives whose records lie: lists that lead back to themselves, counts far
// beyond their cells, names past the end of their cell, bin chains that wrap
// or run past the bins, db records whose segment count disagrees with the
// length, and a chain of keys 5000 deep. Every call has to end with a result
// number, and no read or write may leave its buffer (the suite also runs
// under ASan).
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "support/HiveBuilder.h"
#include "support/OpenMode.h"
#include "support/TempFile.h"

using namespace RegAPI;
using namespace TamvikTest;

namespace {

const std::set<LONG> kResultNumbers = {0, 5, 57, 72, 87, 234, 1015};

bool IsResultNumber(LONG result) { return kResultNumbers.count(result) != 0; }

// A walk with a bound on depth and on keys in all, so that a hive whose
// lists form cycles ends the walk rather than the test. Every result must be
// one of the seven numbers.
struct BoundedWalk {
    int keys = 0;
    int values = 0;
    int maxDepthSeen = 0;
    std::vector<std::string> odd;  // calls that gave something outside the seven

    void Key(HKEY key, int depth, int maxDepth = 32, int maxKeys = 500) {
        if (++keys > maxKeys) return;
        maxDepthSeen = std::max(maxDepthSeen, depth);
        DWORD subKeys = 0, valueCount = 0;
        Check(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &valueCount, nullptr,
                               nullptr, nullptr, nullptr),
              "RegQueryInfoKeyW");
        std::vector<WCHAR> name(65537);
        for (DWORD i = 0; i < std::min<DWORD>(valueCount, 64); ++i) {
            DWORD room = static_cast<DWORD>(name.size()), size = 0, type = 0;
            LONG result = RegEnumValueW(key, i, name.data(), &room, nullptr, &type, nullptr, &size);
            Check(result, "RegEnumValueW");
            if (result != Result::Ok) continue;
            ++values;
            std::vector<BYTE> data(std::min<DWORD>(size, 1u << 20) + 1);
            DWORD given = static_cast<DWORD>(data.size() - 1);
            room = static_cast<DWORD>(name.size());
            Check(RegEnumValueW(key, i, name.data(), &room, nullptr, &type, data.data(), &given), "RegEnumValueW data");
        }
        for (DWORD i = 0; i < std::min<DWORD>(subKeys, 64) && keys <= maxKeys; ++i) {
            DWORD room = static_cast<DWORD>(name.size());
            LONG result = RegEnumKeyExW(key, i, name.data(), &room, nullptr, nullptr, nullptr, nullptr);
            Check(result, "RegEnumKeyExW");
            if (result != Result::Ok || room == 0 || depth + 1 >= maxDepth) continue;
            const std::u16string child(name.data(), room);
            if (child.find_first_of(std::u16string(u"\\\0", 2)) != std::u16string::npos) continue;
            HKEY opened = nullptr;
            result = RegOpenKeyExW(key, child.c_str(), 0, 0, &opened);
            Check(result, "RegOpenKeyExW");
            if (result == Result::Ok) Key(opened, depth + 1, maxDepth, maxKeys);
        }
    }

    void Check(LONG result, const char* call) {
        if (!IsResultNumber(result)) odd.push_back(std::string(call) + " gave " + std::to_string(result));
    }
};

// One hive file from a builder, opened the way the suite's mode says.
class BuiltHive {
public:
    explicit BuiltHive(const HiveBuilder& builder) : file_(builder.Build()) {}
    ~BuiltHive() { Close(); }

    HKEY Open() {
        EXPECT_EQ(OpenTestHive(file_.Path(), &hive_), Result::Ok);
        return hive_;
    }
    // The root key, through an empty path from the hive handle.
    HKEY Root() {
        HKEY root = nullptr;
        EXPECT_EQ(RegOpenKeyExW(hive_, u"", 0, 0, &root), Result::Ok);
        return root;
    }
    void Close() {
        if (hive_ != nullptr) {
            EXPECT_EQ(CloseTestHive(&hive_), Result::Ok);
        }
        hive_ = nullptr;
    }
    // Closes and opens the file again: the edits' base block must still pass.
    HKEY Reopen() {
        Close();
        return Open();
    }

private:
    TempFile file_;
    HKEY hive_ = nullptr;
};

// A small tree: ROOT with values and the subkeys A (with a value) and B.
TreeKey SmallTree(ListKind kind = ListKind::Lf) {
    TreeKey root{"ROOT", {TreeValue{"v", 4, {1, 2, 3, 4}, DataForm::Auto, false}}, {}, kind, 1, false};
    root.subkeys.push_back(TreeKey{"A", {TreeValue{"w", 3, Bytes(12, 7), DataForm::Auto, false}}, {}, ListKind::Lf, 2,
                                   false});
    root.subkeys.push_back(TreeKey{"B", {}, {}, ListKind::Lf, 2, false});
    return root;
}

std::u16string EnumName(HKEY key, DWORD index, LONG* result) {
    std::vector<WCHAR> name(65537);
    DWORD room = static_cast<DWORD>(name.size());
    *result = RegEnumKeyExW(key, index, name.data(), &room, nullptr, nullptr, nullptr, nullptr);
    return *result == Result::Ok ? std::u16string(name.data(), room) : std::u16string();
}

// Edits that every damaged key has to answer with a number, whatever it is.
void EditEverything(HKEY key, BoundedWalk& walk) {
    HKEY created = nullptr;
    const BYTE data[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    walk.Check(RegCreateKeyExA(key, "Fresh", &created), "RegCreateKeyExA");
    walk.Check(RegSetValueNewW(key, u"nv", 0, 3, data, sizeof data), "RegSetValueNewW");
    walk.Check(RegSetValueExW(key, u"nv", 0, 3, data, 3), "RegSetValueExW");
    walk.Check(RegDeleteValueW(key, u"nv"), "RegDeleteValueW");
    walk.Check(RegDeleteKeyW(key, u"Fresh"), "RegDeleteKeyW");
    walk.Check(RegDeleteKeyW(key, u"A"), "RegDeleteKeyW A");
}

}  // namespace

// The root's subkey list names the root itself: each step down builds a new
// node of the same cell, so only a bound on depth ends a walk, and a path of
// any length leads somewhere.
TEST(DamagedRecords, SubKeyListThatNamesItsOwnKey) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    const std::uint32_t root = builder.KeyOffset("");
    builder.PatchU32(root, 0x1C, builder.AddLf({root, builder.KeyOffset("A")}, {"ROOT", "A"}));
    BuiltHive file(builder);
    HKEY hive = file.Open();
    ASSERT_NE(hive, nullptr);
    HKEY rootKey = file.Root();

    LONG result = 0;
    EXPECT_EQ(EnumName(rootKey, 0, &result), u"ROOT");
    BoundedWalk walk;
    walk.Key(rootKey, 0, 40, 300);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    EXPECT_EQ(walk.maxDepthSeen, 39);

    std::u16string path = u"ROOT";
    for (int i = 0; i < 200; ++i) path += u"\\root";
    HKEY deep = nullptr;
    EXPECT_EQ(RegOpenKeyExW(hive, path.c_str(), 0, 0, &deep), Result::Ok);
    DWORD subKeys = 0;
    EXPECT_EQ(RegQueryInfoKeyW(deep, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(subKeys, 2u);
    // The key lists itself, so it has a subkey and can't go.
    rootKey = file.Root();
    EXPECT_EQ(RegDeleteKeyW(rootKey, u"ROOT"), Result::Invalid);
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    ASSERT_NE(file.Reopen(), nullptr);
}

// An ri whose one entry names the ri: the list arithmetic must not recurse
// into it without end.
TEST(DamagedRecords, IndirectListThatNamesItself) {
    HiveBuilder builder;
    builder.AddTree(SmallTree(ListKind::Ri));
    const std::uint32_t root = builder.KeyOffset("");
    const std::uint32_t ri = builder.AddRi({0});
    builder.PatchU32(ri, 4, ri);
    builder.PatchU32(root, 0x1C, ri);
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();

    LONG result = 0;
    EnumName(rootKey, 0, &result);
    EXPECT_TRUE(result == Result::Corrupt || result == Result::Invalid) << result;
    HKEY found = nullptr;
    EXPECT_EQ(RegOpenKeyExW(rootKey, u"A", 0, 0, &found), Result::Invalid);
    HKEY created = nullptr;
    result = RegCreateKeyExA(rootKey, "C", &created);
    EXPECT_TRUE(IsResultNumber(result)) << result;
    EXPECT_EQ(RegDeleteKeyW(rootKey, u"A"), Result::Invalid);
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    ASSERT_NE(file.Reopen(), nullptr);
}

// Two ri that name each other: the cycle runs over two cells.
TEST(DamagedRecords, IndirectListsThatNameEachOther) {
    HiveBuilder builder;
    builder.AddTree(SmallTree(ListKind::Ri));
    const std::uint32_t root = builder.KeyOffset("");
    const std::uint32_t first = builder.AddRi({0, 0});
    const std::uint32_t second = builder.AddRi({first});
    builder.PatchU32(first, 4, second);
    builder.PatchU32(first, 8, builder.AddLf({builder.KeyOffset("A")}, {"A"}));
    builder.PatchU32(root, 0x1C, first);
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    HKEY found = nullptr;
    EXPECT_TRUE(IsResultNumber(RegOpenKeyExW(rootKey, u"NOPE", 0, 0, &found)));
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
}

// Bin chains that don't lead forward: a BinSize of 0, one that wraps the
// 32-bit offset back to the first bin, and one that runs far past BinsSize.
// Allocation and release walk these chains; both must end, and what is
// written must read back.
class DamagedBinChain : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(DamagedBinChain, AllocationAndReleaseEnd) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    const std::uint32_t second = builder.AddBin(4096);
    // Free cells given a payload, so that the builder never copies from an empty one.
    builder.AddCell(Bytes(4, 0), false, 256);
    builder.AddBin(4096);
    builder.AddCell(Bytes(4, 0), false, 512);
    builder.SetBinSize(second, GetParam());
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();

    std::vector<BYTE> data(200);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(i);
    for (int round = 0; round < 3; ++round) {
        const std::u16string name = u"n" + std::u16string(1, static_cast<char16_t>(u'0' + round));
        ASSERT_EQ(RegSetValueNewW(rootKey, name.c_str(), 0, 3, data.data(), static_cast<DWORD>(data.size())),
                  Result::Ok);
        std::vector<BYTE> back(data.size());
        DWORD size = static_cast<DWORD>(back.size());
        DWORD type = 0;
        ASSERT_EQ(RegQueryValueExW(rootKey, name.c_str(), nullptr, &type, back.data(), &size), Result::Ok);
        EXPECT_EQ(back, data);
    }
    EXPECT_EQ(RegDeleteValueW(rootKey, u"n1"), Result::Ok);
    EXPECT_EQ(RegDeleteValueW(rootKey, u"v"), Result::Ok);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rootKey, "C", &created), Result::Ok);
    EXPECT_EQ(RegDeleteKeyW(rootKey, u"A"), Result::Ok);

    rootKey = file.Reopen() != nullptr ? file.Root() : nullptr;
    ASSERT_NE(rootKey, nullptr);
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    EXPECT_EQ(walk.keys, 3);    // ROOT, B, C
    EXPECT_EQ(walk.values, 2);  // n0, n2
}

INSTANTIATE_TEST_SUITE_P(DamagedRecords, DamagedBinChain, ::testing::Values(0u, 0xFFFFF000u, 1u << 30, 4104u));

// A base block whose BinsSize is far beyond the file: reads past the end fail
// and a new bin still goes behind what BinsSize says.
TEST(DamagedRecords, BinsSizePastTheFile) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    builder.SetBinsSizeOverride(64 * 4096);
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
}

// A SubKeyCount and a leaf Count of 65535 over a leaf cell of two entries.
TEST(DamagedRecords, SubKeyCountFarBeyondItsLeaf) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    const std::uint32_t root = builder.KeyOffset("");
    builder.PatchU32(root, 0x1C, builder.AddListRaw("lf", 65535, Bytes(16, 0)));
    builder.PatchU32(root, 0x14, 65535);
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();

    DWORD subKeys = 0;
    ASSERT_EQ(RegQueryInfoKeyW(rootKey, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(subKeys, 65535u);
    for (DWORD index : {0u, 1u, 2u, 3u, 100u, 65534u}) {
        LONG result = 0;
        EnumName(rootKey, index, &result);
        EXPECT_TRUE(IsResultNumber(result)) << index << ": " << result;
    }
    HKEY found = nullptr;
    EXPECT_EQ(RegOpenKeyExW(rootKey, u"MISSING", 0, 0, &found), Result::Invalid);
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    ASSERT_NE(file.Reopen(), nullptr);
}

// A ValueCount of 65535 over a value list cell of one entry.
TEST(DamagedRecords, ValueCountFarBeyondItsList) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    builder.PatchU32(builder.KeyOffset("A"), 0x24, 65535);
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY keyA = nullptr;
    ASSERT_EQ(RegOpenKeyExW(file.Root(), u"A", 0, 0, &keyA), Result::Ok);

    std::vector<WCHAR> name(64);
    for (DWORD index : {0u, 1u, 2u, 65534u}) {
        DWORD room = static_cast<DWORD>(name.size());
        DWORD size = 0;
        LONG result = RegEnumValueW(keyA, index, name.data(), &room, nullptr, nullptr, nullptr, &size);
        EXPECT_TRUE(IsResultNumber(result)) << index << ": " << result;
        if (index == 0) {
            EXPECT_EQ(result, Result::Ok);
        }
    }
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(keyA, u"MISSING", nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(keyA, u"w", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 12u);
    BoundedWalk walk;
    walk.Key(keyA, 0);
    EditEverything(keyA, walk);
    EXPECT_TRUE(IsResultNumber(RegDeleteValueW(keyA, u"w")));
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
    ASSERT_NE(file.Reopen(), nullptr);
}

// A key name and a value name whose NameLength runs far past their cells.
TEST(DamagedRecords, NameLengthPastTheCell) {
    HiveBuilder builder;
    builder.AddTree(SmallTree());
    builder.PatchU16(builder.KeyOffset("A"), 0x48, 0xFFFF);
    builder.PatchU16(builder.KeyOffset("B"), 0x48, 0x0101);
    const std::uint32_t vk = builder.AddVk(VkFields{"short", false, 0x80000002u, 0x4142, 3, 40000});
    const std::uint32_t wide = builder.AddVk(VkFields{std::string("s\0", 2), true, 0x80000002u, 0x4142, 3, 0xFFFF});
    const std::uint32_t root = builder.KeyOffset("");
    builder.PatchU32(root, 0x24, 2);
    builder.PatchU32(root, 0x28, builder.AddValueList({vk, wide}));
    BuiltHive file(builder);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();

    for (DWORD index : {0u, 1u}) {
        LONG result = 0;
        const std::u16string name = EnumName(rootKey, index, &result);
        EXPECT_TRUE(result == Result::Ok || result == Result::Corrupt) << result;
        std::vector<char> narrow(16);
        DWORD room = static_cast<DWORD>(narrow.size() - 1);
        EXPECT_TRUE(IsResultNumber(RegEnumKeyExA(rootKey, index, narrow.data(), &room, nullptr, nullptr, nullptr,
                                                 nullptr)));
        EXPECT_EQ(narrow.back(), 0);
    }
    for (DWORD index : {0u, 1u}) {
        std::vector<WCHAR> name(65537);
        DWORD room = static_cast<DWORD>(name.size());
        EXPECT_TRUE(
            IsResultNumber(RegEnumValueW(rootKey, index, name.data(), &room, nullptr, nullptr, nullptr, nullptr)));
        std::vector<char> narrow(2 * 65536 + 1);
        room = static_cast<DWORD>(narrow.size());
        EXPECT_TRUE(
            IsResultNumber(RegEnumValueA(rootKey, index, narrow.data(), &room, nullptr, nullptr, nullptr, nullptr)));
    }
    BoundedWalk walk;
    walk.Key(rootKey, 0);
    EditEverything(rootKey, walk);
    EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
}

// db records whose SegmentCount disagrees with the length: more segments
// than the length needs (and than the list holds), and fewer.
class DamagedBigData : public ::testing::Test {
protected:
    void SetUp() override {
        first_ = Bytes(16344, 0x11);
        second_ = Bytes(16344, 0x22);
        builder_.AddTree(SmallTree());
        const std::uint32_t segments = builder_.AddSegmentList({builder_.AddData(first_), builder_.AddData(second_)});
        const std::uint32_t tooMany = builder_.AddDb(5, segments);  // 20000 bytes need 2
        const std::uint32_t tooFew = builder_.AddDb(1, segments);   // 40000 bytes need 3
        const std::uint32_t root = builder_.KeyOffset("");
        builder_.PatchU32(root, 0x24, 2);
        builder_.PatchU32(root, 0x28,
                          builder_.AddValueList({builder_.AddVk(VkFields{"many", false, 20000, tooMany, 3, -1}),
                                                 builder_.AddVk(VkFields{"few", false, 40000, tooFew, 3, -1})}));
    }

    HiveBuilder builder_;
    Bytes first_, second_;
};

TEST_F(DamagedBigData, MoreSegmentsThanTheLengthNeeds) {
    BuiltHive file(builder_);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();
    std::vector<BYTE> data(20000, 0xEE);
    DWORD size = static_cast<DWORD>(data.size());
    DWORD type = 0;
    LONG result = RegQueryValueExW(rootKey, u"many", nullptr, &type, data.data(), &size);
    EXPECT_TRUE(result == Result::Ok || result == Result::MoreData) << result;
    if (result == Result::Ok) {
        EXPECT_EQ(size, 20000u);
        EXPECT_TRUE(std::all_of(data.begin(), data.begin() + 16344, [](BYTE b) { return b == 0x11; }));
        EXPECT_TRUE(std::all_of(data.begin() + 16344, data.end(), [](BYTE b) { return b == 0x22; }));
    }
    // A rewrite of the same length and a release both have to stay in bounds.
    std::vector<BYTE> fresh(20000, 0x5A);
    EXPECT_TRUE(IsResultNumber(RegSetValueExW(rootKey, u"many", 0, 3, fresh.data(), 20000)));
    EXPECT_TRUE(IsResultNumber(RegSetValueExW(rootKey, u"many", 0, 3, fresh.data(), 100)));
    EXPECT_EQ(RegDeleteValueW(rootKey, u"many"), Result::Ok);
    ASSERT_NE(file.Reopen(), nullptr);
}

TEST_F(DamagedBigData, FewerSegmentsLeaveTheTailUntouched) {
    BuiltHive file(builder_);
    ASSERT_NE(file.Open(), nullptr);
    HKEY rootKey = file.Root();
    std::vector<BYTE> data(40000, 0xEE);
    DWORD size = static_cast<DWORD>(data.size());
    DWORD type = 0;
    ASSERT_EQ(RegQueryValueExW(rootKey, u"few", nullptr, &type, data.data(), &size), Result::Ok);
    EXPECT_TRUE(std::all_of(data.begin(), data.begin() + 16344, [](BYTE b) { return b == 0x11; }));
    EXPECT_TRUE(std::all_of(data.begin() + 16344, data.end(), [](BYTE b) { return b == 0xEE; }));
    std::vector<BYTE> fresh(40000, 0x5A);
    EXPECT_TRUE(IsResultNumber(RegSetValueExW(rootKey, u"few", 0, 3, fresh.data(), 40000)));
    EXPECT_EQ(RegDeleteValueW(rootKey, u"few"), Result::Ok);
    ASSERT_NE(file.Reopen(), nullptr);
}

// A chain of 5000 keys, each the only subkey of the one above: a lookup of
// the deepest one by its full path, and the close that tears down the cached
// chain, must both get by without running out of stack.
TEST(DamagedRecords, ChainOf5000Keys) {
    constexpr int kDepth = 5000;
    HiveBuilder builder;
    std::vector<std::uint32_t> keys;
    keys.push_back(builder.AddNk(NkFields{"ROOT", false, 0x2C}));
    for (int i = 0; i < kDepth; ++i) {
        NkFields fields;
        fields.name = "k" + std::to_string(i);
        fields.parent = keys.back();
        keys.push_back(builder.AddNk(fields));
    }
    for (int i = 0; i < kDepth; ++i) {
        builder.PatchU32(keys[i], 0x14, 1);
        builder.PatchU32(keys[i], 0x1C, builder.AddLf({keys[i + 1]}, {"k" + std::to_string(i)}));
    }
    builder.SetRoot(keys.front());
    BuiltHive file(builder);
    HKEY hive = file.Open();
    ASSERT_NE(hive, nullptr);

    std::u16string path = u"ROOT";
    for (int i = 0; i < kDepth; ++i) {
        const std::string component = "\\k" + std::to_string(i);
        path.append(component.begin(), component.end());
    }
    HKEY deepest = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, path.c_str(), 0, 0, &deepest), Result::Ok);
    std::vector<WCHAR> name(16);
    HKEY parent = nullptr;
    const std::u16string parentPath = path.substr(0, path.rfind(u'\\'));
    ASSERT_EQ(RegOpenKeyExW(hive, parentPath.c_str(), 0, 0, &parent), Result::Ok);
    DWORD room = static_cast<DWORD>(name.size());
    ASSERT_EQ(RegEnumKeyExW(parent, 0, name.data(), &room, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(name.data(), room), u"k4999");
    // The deepest key by path again, then the whole chain goes with the close.
    ASSERT_EQ(RegOpenKeyExW(hive, path.c_str(), 0, 0, &deepest), Result::Ok);
    DWORD subKeys = 1;
    EXPECT_EQ(RegQueryInfoKeyW(deepest, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(subKeys, 0u);
    const BYTE data[4] = {1, 2, 3, 4};
    EXPECT_EQ(RegSetValueNewW(deepest, u"leaf", 0, 4, data, 4), Result::Ok);
    file.Close();
}
