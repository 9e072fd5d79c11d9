// Opening keys by path through the entry points: what each form of path means
// under a hive handle and under a key handle, and which handles a lookup ends
// or leaves alone. The same tests run once more with hives opened by volume.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "RegAPI.h"
#include "api/EntryFrame.h"
#include "nodes/SubKeyList.h"
#include "support/HiveBuilder.h"
#include "support/OpenMode.h"
#include "support/TempFile.h"

namespace {

using namespace RegAPI;
using TamvikTest::HiveBuilder;
using TamvikTest::TreeKey;

// ROOT
//  +- A      (B, C below it; a value)
//  +- E      ("" below it, and B below that)
//  +- MiXed
TreeKey PathTree() {
    TreeKey root;
    root.name = "ROOT";
    TreeKey a;
    a.name = "A";
    a.subkeys.emplace_back().name = "B";
    a.subkeys.emplace_back().name = "C";
    a.values = {{"val", 4, {1, 2, 3, 4}}};
    TreeKey e;
    e.name = "E";
    TreeKey unnamed;
    unnamed.name = "";
    unnamed.subkeys.emplace_back().name = "B";
    e.subkeys = {unnamed};
    TreeKey mixed;
    mixed.name = "MiXed";
    root.subkeys = {a, e, mixed};
    return root;
}

// A built hive opened the way the suite's mode says, closed at the end.
class OpenTree {
public:
    explicit OpenTree(const HiveBuilder& builder) : file_(builder.Build()) {
        openResult = TamvikTest::OpenTestHive(file_.Path(), &hive);
    }
    ~OpenTree() {
        if (hive != nullptr) TamvikTest::CloseTestHive(&hive);
    }
    // The key a path leads to from start, or null for any result but 0.
    HKEY Open(HKEY start, const char16_t* path) {
        HKEY result = nullptr;
        return RegOpenKeyExW(start, path, 0, 0, &result) == Result::Ok ? result : nullptr;
    }
    std::u16string NameOf(HKEY key) {
        Tamvik::Key* node = Tamvik::KeyOf(key);
        return node != nullptr ? node->GetName() : u"<not a key>";
    }

    HKEY hive = nullptr;
    LONG openResult = -1;

private:
    TamvikTest::TempFile file_;
};

class ReadPaths : public ::testing::Test {
protected:
    void SetUp() override {
        builder.AddTree(PathTree());
        tree = std::make_unique<OpenTree>(builder);
        ASSERT_EQ(tree->openResult, Result::Ok);
        root = tree->Open(tree->hive, u"");
        ASSERT_NE(root, nullptr);
    }
    HKEY Open(HKEY start, const char16_t* path) { return tree->Open(start, path); }

    HiveBuilder builder;
    std::unique_ptr<OpenTree> tree;
    HKEY root = nullptr;
};

TEST_F(ReadPaths, HiveHandleConsumesTheFirstComponent) {
    HKEY hive = tree->hive;
    EXPECT_EQ(Open(hive, u""), root);
    EXPECT_EQ(Open(hive, u"X"), root);
    EXPECT_EQ(Open(hive, u"ROOT"), root);
    EXPECT_EQ(Open(hive, u"\\"), root);
    EXPECT_EQ(Open(hive, u"\\X"), root);
    HKEY a = Open(hive, u"X\\A");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(tree->NameOf(a), u"A");
    EXPECT_EQ(Open(hive, u"\\X\\A"), a);
    HKEY b = Open(hive, u"X\\A\\B");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(tree->NameOf(b), u"B");
    EXPECT_EQ(Tamvik::KeyOf(b)->GetParent(), Tamvik::KeyOf(a));
    // Two leading backslashes: the empty component between them is the one the hive takes.
    EXPECT_EQ(Open(hive, u"\\\\A"), a);
}

TEST_F(ReadPaths, TrailingBackslashNeedsAnEmptyName) {
    HKEY hive = tree->hive;
    EXPECT_EQ(Open(hive, u"X\\"), nullptr);
    EXPECT_EQ(Open(hive, u"X\\A\\"), nullptr);
    HKEY unnamed = Open(hive, u"X\\E\\");
    ASSERT_NE(unnamed, nullptr);
    EXPECT_EQ(tree->NameOf(unnamed), u"");
    HKEY below = Open(hive, u"X\\E\\\\B");
    ASSERT_NE(below, nullptr);
    EXPECT_EQ(tree->NameOf(below), u"B");
    EXPECT_EQ(Tamvik::KeyOf(below)->GetParent(), Tamvik::KeyOf(unnamed));
}

TEST_F(ReadPaths, KeyHandleOnlyGoesDown) {
    HKEY a = Open(root, u"A");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(tree->NameOf(a), u"A");
    EXPECT_EQ(Open(root, u"\\A"), a);
    HKEY b = Open(root, u"A\\B");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(tree->NameOf(b), u"B");
    HKEY result = root;
    EXPECT_EQ(RegOpenKeyExW(root, u"", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(result, root);  // written only on success
    EXPECT_EQ(Open(root, u"\\"), nullptr);
    EXPECT_EQ(Open(root, u"A\\"), nullptr);
    EXPECT_EQ(Open(root, u"A\\\\B"), nullptr);
    EXPECT_EQ(Open(root, u"ROOT"), nullptr);  // the key's own name is no step
    EXPECT_EQ(Open(root, u"ROOT\\A"), nullptr);
}

TEST_F(ReadPaths, EmptyComponentsFindEmptyNamedKey) {
    HKEY e = Open(root, u"E");
    ASSERT_NE(e, nullptr);
    HKEY unnamed = Open(e, u"");
    ASSERT_NE(unnamed, nullptr);
    EXPECT_EQ(tree->NameOf(unnamed), u"");
    EXPECT_EQ(Open(e, u"\\"), unnamed);
    EXPECT_EQ(Open(root, u"E\\"), unnamed);
    HKEY b = Open(root, u"E\\\\B");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(tree->NameOf(b), u"B");
    EXPECT_EQ(Open(e, u"\\\\B"), b);
}

TEST_F(ReadPaths, CaseDoesNotMatterAndGivesSamePointer) {
    HKEY upper = Open(tree->hive, u"X\\A\\B");
    ASSERT_NE(upper, nullptr);
    EXPECT_EQ(Open(tree->hive, u"x\\a\\b"), upper);
    EXPECT_EQ(Open(root, u"a\\B"), upper);
    HKEY mixed = Open(root, u"mixed");
    ASSERT_NE(mixed, nullptr);
    EXPECT_EQ(tree->NameOf(mixed), u"MiXed");  // stored case
    EXPECT_EQ(Open(root, u"MIXED"), mixed);
    EXPECT_EQ(Open(root, u"MiXeD"), mixed);
}

TEST_F(ReadPaths, OptionsAndAccessAreIgnored) {
    HKEY plain = Open(root, u"A");
    HKEY other = nullptr;
    ASSERT_EQ(RegOpenKeyExW(root, u"A", 0xFFFFFFFF, 0x12345678, &other), Result::Ok);
    EXPECT_EQ(other, plain);
}

TEST_F(ReadPaths, ArgumentTests) {
    HKEY result = root;
    EXPECT_EQ(RegOpenKeyExW(nullptr, u"A", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(root, nullptr, 0, 0, &result), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(root, u"A", 0, 0, nullptr), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(root, u"Missing", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(root, u"A\\Missing", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(result, root);
}

TEST_F(ReadPaths, NarrowPathsMeanTheSame) {
    HKEY wide = Open(tree->hive, u"X\\A\\C");
    ASSERT_NE(wide, nullptr);
    HKEY narrow = nullptr;
    EXPECT_EQ(RegOpenKeyExA(tree->hive, "x\\a\\c", 0, 0, &narrow), Result::Ok);
    EXPECT_EQ(narrow, wide);
    EXPECT_EQ(RegOpenKeyExA(root, "", 0, 0, &narrow), Result::Invalid);
    // A null path is refused before any conversion looks at it.
    HKEY untouched = root;
    EXPECT_EQ(RegOpenKeyExA(root, nullptr, 0, 0, &untouched), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExA(nullptr, nullptr, 0, 0, &untouched), Result::Invalid);
    EXPECT_EQ(untouched, root);
    EXPECT_EQ(RegOpenKeyExA(nullptr, "A", 0, 0, &untouched), Result::Invalid);
}

TEST(ReadPathsRoot, RootCellThatIsNoKeyGivesInvalid) {
    HiveBuilder b;
    b.AddTree(PathTree());
    b.SetRoot(b.TreeSecurity());  // an sk: it builds, but it is no key
    OpenTree tree(b);
    ASSERT_EQ(tree.openResult, Result::Ok);
    HKEY result = nullptr;
    EXPECT_EQ(RegOpenKeyExW(tree.hive, u"", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(tree.hive, u"X\\A", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(result, nullptr);
}

// --- Which handles a call ends -------------------------------------------------------

// The child that the subkey list cached by a key holds, or null.
Tamvik::Key* CachedChild(HKEY key) {
    Tamvik::Key* node = Tamvik::KeyOf(key);
    if (node == nullptr || node->subKeyList == nullptr) return nullptr;
    return node->subKeyList->child.get();
}

TEST_F(ReadPaths, RepeatedLookupEndsNothing) {
    HKEY b = Open(root, u"A\\B");
    ASSERT_NE(b, nullptr);
    HKEY a = Open(root, u"A");
    EXPECT_EQ(CachedChild(a), Tamvik::KeyOf(b));  // opening A again left B alive
    EXPECT_EQ(Open(root, u"A\\B"), b);
    EXPECT_EQ(RegQueryInfoKeyW(b, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
}

TEST_F(ReadPaths, SiblingLookupEndsTheOtherBranch) {
    HKEY a = Open(root, u"A");
    ASSERT_NE(Open(a, u"B"), nullptr);
    HKEY mixed = Open(root, u"MiXed");
    ASSERT_NE(mixed, nullptr);
    // The root's list holds one child, MiXed: A and B below it are gone.
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(mixed));
    HKEY again = Open(root, u"A");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(tree->NameOf(again), u"A");
    EXPECT_EQ(CachedChild(again), nullptr);  // a new A, with nothing cached below it
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(again));
}

TEST_F(ReadPaths, KeysOnOnePathStayTogether) {
    HKEY a = Open(root, u"A");
    HKEY b = Open(a, u"B");
    ASSERT_NE(b, nullptr);
    HKEY c = Open(a, u"C");  // ends B, not A
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(a));
    EXPECT_EQ(CachedChild(a), Tamvik::KeyOf(c));
    EXPECT_EQ(Open(root, u"A"), a);
    EXPECT_EQ(RegCloseKey(a), Result::Ok);
    EXPECT_EQ(RegCloseKey(a), Result::Ok);
    EXPECT_EQ(Open(root, u"A\\C"), c);  // closing ends nothing
}

TEST_F(ReadPaths, FailedLookupMovesTheCacheToTheLastEntry) {
    HKEY a = Open(root, u"A");
    ASSERT_NE(a, nullptr);
    HKEY result = a;
    EXPECT_EQ(RegOpenKeyExW(tree->hive, u"X\\Z", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(result, a);
    Tamvik::Key* cached = CachedChild(root);
    ASSERT_NE(cached, nullptr);
    EXPECT_EQ(cached->GetName(), u"MiXed");
    EXPECT_EQ(Open(root, u"MIXED"), Tamvik::HandleOf(cached));
    // A miss deeper down moves the caches along the way: here A's, below a found A.
    HKEY b = Open(root, u"A\\B");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(RegOpenKeyExW(root, u"A\\Q", 0, 0, &result), Result::Invalid);
    HKEY a2 = Open(root, u"A");
    ASSERT_NE(CachedChild(a2), nullptr);
    EXPECT_EQ(CachedChild(a2)->GetName(), u"C");
}

TEST_F(ReadPaths, LookupUnderKeyWithoutSubkeysLeavesCaches) {
    HKEY b = Open(root, u"A\\B");
    ASSERT_NE(b, nullptr);
    HKEY result = nullptr;
    EXPECT_EQ(RegOpenKeyExW(b, u"Anything", 0, 0, &result), Result::Invalid);
    EXPECT_EQ(Tamvik::KeyOf(b)->subKeyList, nullptr);
    EXPECT_EQ(Open(root, u"A\\B"), b);
}

TEST_F(ReadPaths, EnumerationAndQueriesEndNoHandle) {
    HKEY a = Open(root, u"A");
    HKEY b = Open(a, u"B");
    ASSERT_NE(b, nullptr);
    Tamvik::SubKeyList* rootList = Tamvik::KeyOf(root)->subKeyList.get();
    Tamvik::SubKeyList* aList = Tamvik::KeyOf(a)->subKeyList.get();
    char16_t name[64];
    for (DWORD i = 0; i < 4; ++i) {
        DWORD length = 64;
        RegEnumKeyExW(root, i, name, &length, nullptr, nullptr, nullptr, nullptr);
        length = 64;
        RegEnumKeyExW(a, i, name, &length, nullptr, nullptr, nullptr, nullptr);
        length = 64;
        char narrow[64];
        RegEnumKeyExA(a, i, narrow, &length, nullptr, nullptr, nullptr, nullptr);
        length = 64;
        DWORD size = 0;
        RegEnumValueW(a, i, name, &length, nullptr, nullptr, nullptr, &size);
    }
    DWORD count = 0;
    EXPECT_EQ(RegQueryInfoKeyW(a, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(a, u"VAL", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(RegFlushKey(a), Result::Ok);
    // The same list nodes and the same children are cached as before.
    EXPECT_EQ(Tamvik::KeyOf(root)->subKeyList.get(), rootList);
    EXPECT_EQ(Tamvik::KeyOf(a)->subKeyList.get(), aList);
    EXPECT_EQ(CachedChild(root), Tamvik::KeyOf(a));
    EXPECT_EQ(CachedChild(a), Tamvik::KeyOf(b));
    EXPECT_EQ(Open(tree->hive, u"X\\A\\B"), b);
}

TEST(ReadPathsCounts, SubKeyCountAboveEntries) {
    HiveBuilder b;
    const std::uint32_t rootCell = b.AddTree(PathTree());
    b.PatchU32(rootCell, 0x14, 4);  // three entries in the list
    OpenTree tree(b);
    ASSERT_EQ(tree.openResult, Result::Ok);
    HKEY root = tree.Open(tree.hive, u"");
    ASSERT_NE(root, nullptr);
    EXPECT_NE(tree.Open(root, u"MiXed"), nullptr);
    EXPECT_EQ(tree.Open(root, u"Nope"), nullptr);
    EXPECT_EQ(CachedChild(root), nullptr);
    char16_t name[16];
    DWORD length = 16;
    EXPECT_EQ(RegEnumKeyExW(root, 3, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Corrupt);
    EXPECT_EQ(RegEnumKeyExW(root, 4, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
}

TEST(ReadPathsCounts, SubKeyCountBelowEntries) {
    HiveBuilder b;
    const std::uint32_t rootCell = b.AddTree(PathTree());
    b.PatchU32(rootCell, 0x14, 2);
    OpenTree tree(b);
    ASSERT_EQ(tree.openResult, Result::Ok);
    HKEY root = tree.Open(tree.hive, u"");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(tree.Open(root, u"MiXed"), nullptr);
    EXPECT_NE(tree.Open(root, u"E"), nullptr);
    char16_t name[16];
    DWORD length = 16;
    EXPECT_EQ(RegEnumKeyExW(root, 2, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(length, 16u);
}

TEST(ReadPathsCounts, UnreadableSubkeyList) {
    HiveBuilder b;
    const std::uint32_t rootCell = b.AddTree(PathTree());
    b.PatchU32(rootCell, 0x1C, 0xFFFFFFF8);
    OpenTree tree(b);
    ASSERT_EQ(tree.openResult, Result::Ok);
    HKEY root = tree.Open(tree.hive, u"");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(tree.Open(root, u"A"), nullptr);
    char16_t name[16];
    DWORD length = 16;
    EXPECT_EQ(RegEnumKeyExW(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Corrupt);
}

}  // namespace
