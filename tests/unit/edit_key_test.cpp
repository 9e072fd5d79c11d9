// Creating keys through RegCreateKeyExA/W: the records and cells a new key
// gets, where its entry lands in the parent's leaf, when the leaf moves, the
// sk count, and what each refusal leaves untouched.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "support/FailingStorage.h"
#include "support/HiveBuilder.h"

namespace {

using namespace RegAPI;
using TamvikTest::Bytes;
using TamvikTest::EditSession;
using TamvikTest::HiveBuilder;
using TamvikTest::HiveImage;
using TamvikTest::ListKind;
using TamvikTest::TreeKey;

constexpr std::uint32_t kNone = 0xFFFFFFFF;

// A key of that name with nothing below it.
TreeKey Named(const std::string& name) {
    TreeKey key;
    key.name = name;
    return key;
}

// The first four bytes of a name as an lf keeps them.
std::uint32_t Hint(const std::string& name) {
    std::uint32_t hint = 0;
    for (std::size_t i = 0; i < 4 && i < name.size(); ++i)
        hint |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(name[i])) << (8 * i);
    return hint;
}

std::vector<std::string> SubKeyNames(const HiveImage& image, std::uint32_t nk) {
    std::vector<std::string> names;
    for (std::uint32_t key : image.SubKeys(nk)) names.push_back(image.KeyName(key));
    return names;
}

// A root with the subkeys B and D (no subkeys of their own) under a list of the given kind.
Bytes TwoKeyHive(ListKind kind = ListKind::Lf) {
    TreeKey root = Named("Root");
    root.list = kind;
    root.subkeys = {Named("B"), Named("D")};
    HiveBuilder builder;
    builder.AddTree(root);
    return builder.Build();
}

// A root whose two subkeys B and D sit in an lf of the chosen cell size; the
// bytes behind the entries are filled with 0xEE to see whether a rewrite clears them.
struct SizedLeafHive {
    Bytes file;
    std::uint32_t list = 0;
};
SizedLeafHive LeafInCell(std::uint32_t cellSize) {
    HiveBuilder builder;
    const std::uint32_t sk = builder.AddSk(0, 0, 3);
    builder.PatchU32(sk, 4, sk);
    builder.PatchU32(sk, 8, sk);
    TamvikTest::NkFields rootFields;
    rootFields.name = "Root";
    rootFields.security = sk;
    const std::uint32_t root = builder.AddNk(rootFields);
    TamvikTest::NkFields child;
    child.parent = root;
    child.security = sk;
    child.name = "B";
    const std::uint32_t b = builder.AddNk(child);
    child.name = "D";
    const std::uint32_t d = builder.AddNk(child);
    SizedLeafHive out;
    out.list = builder.AddLf({b, d}, {"B", "D"}, cellSize);
    builder.PatchPayload(out.list, 20, Bytes(cellSize - 24, 0xEE));
    builder.PatchU32(root, 0x14, 2);
    builder.PatchU32(root, 0x1C, out.list);
    builder.PatchU32(root, 0x34, 2);
    builder.SetRoot(root);
    out.file = builder.Build();
    return out;
}

// --- The new record and the first leaf ----------------------------------------------

TEST(EditCreateKey, FirstSubkeyGetsLfOfOneAndAnNkOfTheRightShape) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Leaf")};
    HiveBuilder builder;
    builder.AddTree(root);
    EditSession session(builder.Build());
    ASSERT_EQ(session.openResult, Result::Ok);
    const std::uint32_t leafCell = builder.KeyOffset("Leaf");
    const std::uint32_t sk = builder.TreeSecurity();

    HKEY leaf = session.Key(u"Leaf");
    ASSERT_NE(leaf, nullptr);
    HKEY created = nullptr;
    const auto before = static_cast<std::uint64_t>(std::time(nullptr));
    ASSERT_EQ(RegCreateKeyExA(leaf, "Abcd", &created), Result::Ok);
    const auto after = static_cast<std::uint64_t>(std::time(nullptr));
    EXPECT_NE(created, nullptr);
    EXPECT_NE(created, leaf);
    session.Close();

    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(leafCell, 0x14), 1u);
    EXPECT_EQ(image.U32(leafCell, 0x34), 8u) << "MaxSubKeyName counts the 4 bytes twice";
    EXPECT_EQ(image.U64(leafCell, 0x04), 0u) << "the owner's Timestamp stays";
    const std::uint32_t list = image.U32(leafCell, 0x1C);
    EXPECT_EQ(image.Signature(list), "lf");
    EXPECT_EQ(image.U16(list, 2), 1u);
    EXPECT_EQ(image.CellSize(list), -24);
    EXPECT_EQ(image.U32(list, 8), Hint("Abcd"));

    const std::uint32_t nk = image.U32(list, 4);
    EXPECT_EQ(image.CellSize(nk), -88) << "asked 84, need 88";
    EXPECT_EQ(image.Signature(nk), "nk");
    EXPECT_EQ(image.U16(nk, 0x02), 0x20u);
    EXPECT_GE(image.U64(nk, 0x04), before);
    EXPECT_LE(image.U64(nk, 0x04), after) << "seconds since 1970, stored whole";
    EXPECT_EQ(image.U32(nk, 0x10), leafCell);
    EXPECT_EQ(image.U32(nk, 0x14), 0u);
    EXPECT_EQ(image.U32(nk, 0x1C), 0u) << "a new key's SubKeyListCell is 0";
    EXPECT_EQ(image.U32(nk, 0x24), 0u);
    EXPECT_EQ(image.U32(nk, 0x28), kNone);
    EXPECT_EQ(image.U32(nk, 0x2C), sk);
    EXPECT_EQ(image.U32(nk, 0x30), kNone);
    EXPECT_EQ(image.U32(nk, 0x34), 0u);
    EXPECT_EQ(image.U32(nk, 0x40), 0u);
    EXPECT_EQ(image.U16(nk, 0x48), 4u);
    EXPECT_EQ(image.U16(nk, 0x4A), 0u);
    EXPECT_EQ(image.KeyName(nk), "Abcd");
    EXPECT_EQ(image.U32(sk, 0x0C), 3u) << "two keys shared the sk; the new one is the third";
}

TEST(EditCreateKey, FiveByteNameTakes96AndASecondEntryMovesTheLfTo32) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Leaf")};
    HiveBuilder builder;
    builder.AddTree(root);
    // Two sessions, so that the first leaf's place can be read from a closed file.
    EditSession first(builder.Build());
    HKEY leaf = first.Key(u"Leaf");
    ASSERT_NE(leaf, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(leaf, "Abcde", &created), Result::Ok);
    first.Close();
    const std::uint32_t firstList = first.Image().U32(builder.KeyOffset("Leaf"), 0x1C);
    EditSession session(first.file.Read());
    leaf = session.Key(u"Leaf");
    ASSERT_NE(leaf, nullptr);
    ASSERT_EQ(RegCreateKeyExA(leaf, "Bcdef", &created), Result::Ok);
    session.Close();

    const HiveImage image = session.Image();
    const std::uint32_t leafCell = builder.KeyOffset("Leaf");
    const std::uint32_t list = image.U32(leafCell, 0x1C);
    EXPECT_NE(list, firstList) << "a list sized for its entries moves at the next addition";
    EXPECT_GT(image.CellSize(firstList), 0) << "the old leaf is released";
    EXPECT_EQ(image.CellSize(list), -32);
    EXPECT_EQ(image.U16(list, 2), 2u);
    EXPECT_EQ(SubKeyNames(image, leafCell), (std::vector<std::string>{"Abcde", "Bcdef"}));
    for (std::uint32_t nk : image.SubKeys(leafCell)) EXPECT_EQ(image.CellSize(nk), -96);
    EXPECT_EQ(image.U32(leafCell, 0x34), 10u);
}

TEST(EditCreateKey, FirstListIsLfEvenWhereTheHiveUsesLh) {
    TreeKey root = Named("Root");
    root.list = ListKind::Lh;
    root.subkeys = {Named("Leaf"), Named("Other")};
    HiveBuilder builder;
    builder.AddTree(root);
    EditSession session(builder.Build());
    HKEY leaf = session.Key(u"Leaf");
    ASSERT_NE(leaf, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(leaf, "First", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(leaf, "Second", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t list = image.U32(builder.KeyOffset("Leaf"), 0x1C);
    EXPECT_EQ(image.Signature(list), "lf");
    EXPECT_EQ(image.U16(list, 2), 2u);
    EXPECT_EQ(image.U32(list, 16), Hint("Seco"));
}

// --- Where the entry lands ---------------------------------------------------------

TEST(EditCreateKey, NewEntriesLandBeforeBetweenAndBehindAndOthersKeepTheirHints) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "A", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "c", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "E", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t rootCell = image.RootCell();
    ASSERT_EQ(SubKeyNames(image, rootCell), (std::vector<std::string>{"A", "B", "c", "D", "E"}));
    const std::uint32_t list = image.U32(rootCell, 0x1C);
    EXPECT_EQ(image.U16(list, 2), 5u);
    const std::vector<std::string> names = {"A", "B", "c", "D", "E"};
    for (std::uint32_t i = 0; i < names.size(); ++i) EXPECT_EQ(image.U32(list, 8 + 8 * i), Hint(names[i])) << i;
    EXPECT_EQ(image.U32(rootCell, 0x14), 5u);
}

TEST(EditCreateKey, UnderscoreSortsBeforeLettersAndCaseIsFolded) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "_under", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "bb", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "Ca", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"_under", "B", "bb", "Ca", "D"}));
}

TEST(EditCreateKey, LfHintHoldsTheFirstFourBytesInTheGivenCase) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "cAmElCase", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "x", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t list = image.U32(image.RootCell(), 0x1C);
    ASSERT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"B", "cAmElCase", "D", "x"}));
    EXPECT_EQ(image.U32(list, 16), Hint("cAmE"));
    EXPECT_EQ(image.U32(list, 32), static_cast<std::uint32_t>('x')) << "zeros behind a short name";
}

TEST(EditCreateKey, LhEntriesGetTheNameHash) {
    EditSession session(TwoKeyHive(ListKind::Lh));
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "ab", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "C", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(root, "Dabc", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t list = image.U32(image.RootCell(), 0x1C);
    EXPECT_EQ(image.Signature(list), "lh") << "an existing list keeps its kind";
    ASSERT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"ab", "B", "C", "D", "Dabc"}));
    EXPECT_EQ(image.U32(list, 8), 2471u) << "65 * 37 + 66";
    EXPECT_EQ(image.U32(list, 16), TamvikTest::LhHash("B"));
    EXPECT_EQ(image.U32(list, 24), 67u);
    EXPECT_EQ(image.U32(list, 40), ((68u * 37 + 65) * 37 + 66) * 37 + 67);
}

TEST(EditCreateKey, NamesWithoutCodePageFormCompareAsQuestionMark) {
    // Stored narrow byte 0xC4 reads back as U+00C4, which code page 936 lacks.
    TreeKey root = Named("Root");
    root.subkeys = {Named("\xC4")};
    HiveBuilder builder;
    builder.AddTree(root);
    EditSession session(builder.Build());
    HKEY rootKey = session.Key(u"");
    ASSERT_NE(rootKey, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(rootKey, "0digit", &created), Result::Ok);  // '0' < '?'
    ASSERT_EQ(RegCreateKeyExA(rootKey, "@at", &created), Result::Ok);     // '@' > '?'
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"0digit", "\xC4", "@at"}));
}

// --- Stay or move: the capacity test of the leaf -------------------------------------

TEST(EditCreateKey, LeafWithRoomForOneMoreEntryPlusEightStaysAndIsCleared) {
    // Two entries; a cell of 2 * 8 + 24 bytes passes the test.
    SizedLeafHive hive = LeafInCell(40);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "C", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(image.RootCell(), 0x1C), hive.list);
    EXPECT_EQ(image.CellSize(hive.list), -40) << "the size stays";
    EXPECT_EQ(image.U16(hive.list, 2), 3u);
    EXPECT_EQ(image.PayloadBytes(hive.list, 28, 8), Bytes(8, 0)) << "bytes behind the last entry are zeroed";
    EXPECT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"B", "C", "D"}));
}

TEST(EditCreateKey, LeafThatWouldJustHoldTheEntryMovesAnyway) {
    // 2 * 8 + 16 bytes would hold three entries, but the test asks for 8 more.
    SizedLeafHive hive = LeafInCell(32);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "C", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t list = image.U32(image.RootCell(), 0x1C);
    EXPECT_NE(list, hive.list);
    EXPECT_GT(image.CellSize(hive.list), 0);
    EXPECT_EQ(image.CellSize(list), -40) << "three entries: asked 32, need 40";
    EXPECT_EQ(SubKeyNames(image, image.RootCell()), (std::vector<std::string>{"B", "C", "D"}));
}

// --- Handles, sk and other keys -------------------------------------------------------

TEST(EditCreateKey, HandleOfNewKeyServesValuesAndSubkeysUntilClose) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY fresh = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, u"Fresh", &fresh), Result::Ok);
    DWORD subKeys = 9;
    DWORD values = 9;
    ASSERT_EQ(RegQueryInfoKeyW(fresh, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(subKeys, 0u);
    EXPECT_EQ(values, 0u);
    const BYTE data[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(RegSetValueNewW(fresh, u"Val", 0, 3, data, sizeof data), Result::Ok);
    HKEY other = nullptr;
    // Creating a sibling destroys the root's cached child, not the library's node of Fresh.
    ASSERT_EQ(RegCreateKeyExW(root, u"Sibling", &other), Result::Ok);
    HKEY grandchild = nullptr;
    ASSERT_EQ(RegCreateKeyExW(fresh, u"Child", &grandchild), Result::Ok);
    DWORD type = 0;
    BYTE back[16] = {};
    DWORD size = sizeof back;
    ASSERT_EQ(RegQueryValueExW(fresh, u"VAL", nullptr, &type, back, &size), Result::Ok);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(Bytes(back, back + 6), Bytes(data, data + 6));
    session.Close();

    const HiveImage image = session.Image();
    const std::uint32_t freshCell = image.KeyAt("Fresh");
    ASSERT_NE(freshCell, kNone);
    EXPECT_EQ(image.ValueData(image.FindValue(freshCell, "Val")), Bytes(data, data + 6));
    EXPECT_NE(image.KeyAt("Fresh\\Child"), kNone);
    EXPECT_NE(image.KeyAt("Sibling"), kNone);
    const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(session.file.Path());
    if (hivex.available) {
        EXPECT_TRUE(hivex.ok) << hivex.output;
    }
}

TEST(EditCreateKey, UnderAKeyWithoutUsableSkTheValueIsCopiedAndNothingCounted) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Bare")};
    HiveBuilder builder;
    builder.AddTree(root);
    builder.PatchU32(builder.KeyOffset("Bare"), 0x2C, kNone);
    EditSession session(builder.Build());
    HKEY bare = session.Key(u"Bare");
    ASSERT_NE(bare, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(bare, "Kid", &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(image.KeyAt("Bare\\Kid"), 0x2C), kNone);
    EXPECT_EQ(image.U32(builder.TreeSecurity(), 0x0C), 2u);
}

TEST(EditCreateKey, BackslashIsPartOfTheName) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, "C\\x", &created), Result::Ok);
    char16_t name[32] = {};
    DWORD length = 32;
    ASSERT_EQ(RegEnumKeyExW(root, 1, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(name), u"C\\x");
    HKEY opened = nullptr;
    EXPECT_EQ(RegOpenKeyExW(root, u"C\\x", 0, 0, &opened), Result::Invalid);
    session.Close();
    EXPECT_EQ(session.Image().U32(session.Image().RootCell(), 0x14), 3u);
}

TEST(EditCreateKey, DoubleByteNameIsStoredNarrowAndCanBeCreatedTwice) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY first = nullptr;
    HKEY second = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, u"\u4E2D\u6587", &first), Result::Ok);
    // Its stored bytes read back as other characters, so the duplicate test doesn't see it.
    EXPECT_EQ(RegCreateKeyExW(root, u"\u4E2D\u6587", &second), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    std::size_t found = 0;
    for (std::uint32_t nk : image.SubKeys(image.RootCell())) {
        if (image.KeyName(nk) == "\xD6\xD0\xCE\xC4") ++found;
    }
    EXPECT_EQ(found, 2u);
    EXPECT_EQ(image.U32(image.RootCell(), 0x34), 8u);
}

// --- Refusals leave the file as it was ------------------------------------------------

TEST(EditCreateKey, RefusalsLeaveEveryByte) {
    const Bytes original = TwoKeyHive();
    EditSession session(original);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = reinterpret_cast<HKEY>(&session);
    HKEY const untouched = created;
    EXPECT_EQ(RegCreateKeyExA(root, "b", &created), Result::AlreadyExists);
    EXPECT_EQ(RegCreateKeyExW(root, u"d", &created), Result::AlreadyExists);
    EXPECT_EQ(RegCreateKeyExA(root, "", &created), Result::Invalid);
    EXPECT_EQ(RegCreateKeyExA(root, nullptr, &created), Result::Invalid);
    EXPECT_EQ(RegCreateKeyExW(root, nullptr, &created), Result::Invalid);
    EXPECT_EQ(RegCreateKeyExA(root, "New", nullptr), Result::Invalid);
    EXPECT_EQ(RegCreateKeyExA(session.hive, "New", &created), Result::Invalid);
    EXPECT_EQ(RegCreateKeyExA(nullptr, "New", &created), Result::Invalid);
    const std::string tooLong(65536, 'n');
    EXPECT_EQ(RegCreateKeyExA(root, tooLong.c_str(), &created), Result::CannotCreate);
    EXPECT_EQ(created, untouched) << "*result is written only on success";
    // The handle still works: no refusal ended it.
    DWORD subKeys = 0;
    EXPECT_EQ(RegQueryInfoKeyW(root, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(subKeys, 2u);
    session.Close();
    EXPECT_EQ(session.file.Read(), original);
}

TEST(EditCreateKey, LongestNameIsTaken) {
    EditSession session(TwoKeyHive());
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    HKEY created = nullptr;
    const std::string longest(65535, 'n');
    ASSERT_EQ(RegCreateKeyExA(root, longest.c_str(), &created), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t nk = image.FindSubKey(image.RootCell(), longest);
    ASSERT_NE(nk, kNone);
    EXPECT_EQ(image.U16(nk, 0x48), 65535u);
}

TEST(EditCreateKey, ListThatCantBeReadDuringTheDuplicateTestGives57AndNothingWritten) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("B"), Named("D")};
    HiveBuilder builder;
    builder.AddTree(root);
    // Point the root's list at the sk: no list record stands there.
    builder.PatchU32(builder.KeyOffset(""), 0x1C, builder.TreeSecurity());
    const Bytes original = builder.Build();
    EditSession session(original);
    HKEY rootKey = session.Key(u"");
    ASSERT_NE(rootKey, nullptr);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rootKey, "New", &created), Result::CannotCreate);
    session.Close();
    EXPECT_EQ(session.file.Read(), original);
}

TEST(EditCreateKey, EntryThatCantBeBuiltDuringTheDuplicateTestGives57AndNothingWritten) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("B"), Named("D")};
    HiveBuilder builder;
    builder.AddTree(root);
    // The second entry names the sk instead of an nk.
    TamvikTest::HiveImage layout(builder.Build());
    const std::uint32_t leaf = layout.U32(layout.RootCell(), 0x1C);
    builder.PatchU32(leaf, 12, builder.TreeSecurity());
    const Bytes original = builder.Build();
    EditSession session(original);
    HKEY rootKey = session.Key(u"");
    ASSERT_NE(rootKey, nullptr);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rootKey, "New", &created), Result::CannotCreate);
    session.Close();
    EXPECT_EQ(session.file.Read(), original);
}

}  // namespace
