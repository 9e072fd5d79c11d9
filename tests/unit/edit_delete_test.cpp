// Deleting values and keys through RegDeleteValueW/RegDeleteKeyW: which cells
// go, how lists close up (leaves, ri parents), what the owner's counters keep,
// the sk reference counts and rings, and hives of the first layout, where
// nothing may be created but reading, rewriting in place and deleting work.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/FailingStorage.h"
#include "support/HiveBuilder.h"

namespace {

using namespace RegAPI;
using TamvikTest::Bytes;
using TamvikTest::CountingBytes;
using TamvikTest::DataForm;
using TamvikTest::EditSession;
using TamvikTest::HiveBuilder;
using TamvikTest::HiveImage;
using TamvikTest::ListKind;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

constexpr std::uint32_t kNone = 0xFFFFFFFF;

TreeKey Named(const std::string& name) {
    TreeKey key;
    key.name = name;
    return key;
}

TreeValue Value(const std::string& name, const Bytes& data, DataForm form = DataForm::Auto) {
    TreeValue value;
    value.name = name;
    value.data = data;
    value.form = form;
    return value;
}

std::vector<std::string> SubKeyNames(const HiveImage& image, std::uint32_t nk) {
    std::vector<std::string> names;
    for (std::uint32_t key : image.SubKeys(nk)) names.push_back(image.KeyName(key));
    return names;
}

void ExpectHivexReads(const std::string& path) {
    const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(path);
    if (hivex.available) {
        EXPECT_TRUE(hivex.ok) << hivex.output;
    }
}

// --- Values -------------------------------------------------------------------------

TEST(EditDeleteValue, OnlyValueTakesItsListAndCountersWithIt) {
    TreeKey root = Named("Root");
    root.values = {Value("Only", CountingBytes(10))};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const HiveImage before(builder.Build());
    const std::uint32_t vk = before.Values(rootCell)[0];
    const std::uint32_t list = before.U32(rootCell, 0x28);
    const std::uint32_t data = before.U32(vk, 0x08);
    EditSession session(builder.Build());
    ASSERT_EQ(RegDeleteValueW(session.Key(u""), u"only"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(rootCell, 0x24), 0u);
    EXPECT_EQ(image.U32(rootCell, 0x28), kNone);
    EXPECT_EQ(image.U32(rootCell, 0x3C), 0u);
    EXPECT_EQ(image.U32(rootCell, 0x40), 0u);
    for (std::uint32_t cell : {vk, list, data}) EXPECT_FALSE(image.IsAllocated(cell)) << cell;
}

TEST(EditDeleteValue, MiddleAndLastEntriesCloseUpTheList) {
    TreeKey root = Named("Root");
    root.values = {Value("First", {1}), Value("Middle", CountingBytes(30)), Value("Last", {3})};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const HiveImage before(builder.Build());
    const std::vector<std::uint32_t> vks = before.Values(rootCell);
    const std::uint32_t list = before.U32(rootCell, 0x28);

    EditSession session(builder.Build());
    ASSERT_EQ(RegDeleteValueW(session.Key(u""), u"Middle"), Result::Ok);
    session.Close();
    HiveImage image = session.Image();
    EXPECT_EQ(image.Values(rootCell), (std::vector<std::uint32_t>{vks[0], vks[2]}));
    EXPECT_EQ(image.U32(list, 8), vks[2]) << "the old last entry stays behind the new end";
    EXPECT_EQ(image.CellSize(list), before.CellSize(list));
    EXPECT_FALSE(image.IsAllocated(vks[1]));
    EXPECT_EQ(image.U32(rootCell, 0x3C), 12u) << "MaxValueName stays";
    EXPECT_EQ(image.U32(rootCell, 0x40), 30u) << "MaxValueData stays";

    EditSession last(builder.Build());
    ASSERT_EQ(RegDeleteValueW(last.Key(u""), u"Last"), Result::Ok);
    EXPECT_EQ(RegDeleteValueW(last.Key(u""), u"Last"), Result::Invalid);
    last.Close();
    image = last.Image();
    EXPECT_EQ(image.Values(rootCell), (std::vector<std::uint32_t>{vks[0], vks[1]}));
    ExpectHivexReads(last.file.Path());
}

TEST(EditDeleteValue, EmptyNameDeletesTheNamelessValue) {
    TreeKey root = Named("Root");
    root.values = {Value("", {1, 2}), Value("Named", {3})};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    EditSession session(builder.Build());
    ASSERT_EQ(RegDeleteValueW(session.Key(u""), u""), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    ASSERT_EQ(image.Values(rootCell).size(), 1u);
    EXPECT_NE(image.FindValue(rootCell, "Named"), kNone);
}

// --- Keys --------------------------------------------------------------------------------

TEST(EditDeleteKey, OnlySubkeyClearsTheParentsListFields) {
    TreeKey root = Named("Root");
    TreeKey kid = Named("Kid");
    kid.values = {Value("Small", {1, 2}), Value("Mid", CountingBytes(10)), Value("Big", CountingBytes(20000))};
    root.subkeys = {kid};
    root.values = {Value("Keep", CountingBytes(8))};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const Bytes original = builder.Build();
    const HiveImage before(original);
    const std::set<std::uint32_t> allocatedBefore = before.AllocatedCells();
    const std::uint32_t leaf = before.U32(rootCell, 0x1C);
    const std::uint32_t sk = builder.TreeSecurity();

    EditSession session(original);
    HKEY rootKey = session.Key(u"");
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"kid"), Result::Ok);
    // A new subkey through the same handle is found afterwards.
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(rootKey, "Again", &created), Result::Ok);
    HKEY opened = nullptr;
    EXPECT_EQ(RegOpenKeyExW(rootKey, u"again", 0, 0, &opened), Result::Ok);
    session.Close();

    // A second run without the re-creation, for the state right after the deletion.
    EditSession only(original);
    ASSERT_EQ(RegDeleteKeyW(only.Key(u""), u"Kid"), Result::Ok);
    only.Close();
    const HiveImage image = only.Image();
    EXPECT_EQ(image.U32(rootCell, 0x14), 0u);
    EXPECT_EQ(image.U32(rootCell, 0x1C), kNone);
    EXPECT_EQ(image.U32(rootCell, 0x34), 0u);
    EXPECT_EQ(image.U32(rootCell, 0x38), 0u);
    EXPECT_EQ(image.U32(rootCell, 0x3C), 8u) << "value counters of the parent stay";
    EXPECT_EQ(image.U32(rootCell, 0x40), 8u);
    EXPECT_EQ(image.U64(rootCell, 0x04), before.U64(rootCell, 0x04)) << "no time is written";
    EXPECT_EQ(image.U32(sk, 0x0C), 1u);
    // Everything of Kid is free: its nk, values, data, db parts, list, and the leaf.
    std::set<std::uint32_t> expected = allocatedBefore;
    for (std::uint32_t cell : allocatedBefore) {
        if (cell != leaf && image.IsAllocated(cell)) continue;
        expected.erase(cell);
    }
    EXPECT_EQ(image.AllocatedCells(), expected);
    EXPECT_EQ(expected.size(), 5u) << "sk, root nk, root's value list, Keep's vk and data cell";
    EXPECT_EQ(image.AllocatedCells().count(leaf), 0u);
    ExpectHivexReads(only.file.Path());
}

TEST(EditDeleteKey, MiddleOfThreeKeepsMaxSubKeyName) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("A"), Named("Longest"), Named("C")};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    EditSession session(builder.Build());
    ASSERT_EQ(RegDeleteKeyW(session.Key(u""), u"Longest"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(SubKeyNames(image, rootCell), (std::vector<std::string>{"A", "C"}));
    EXPECT_EQ(image.U32(rootCell, 0x14), 2u);
    EXPECT_EQ(image.U32(rootCell, 0x34), 14u);
    EXPECT_FALSE(image.IsAllocated(builder.KeyOffset("Longest")));
}

TEST(EditDeleteKey, KeyWithSubkeysIsRefusedAndEveryByteStays) {
    TreeKey root = Named("Root");
    TreeKey parent = Named("Parent");
    parent.subkeys = {Named("Child")};
    parent.values = {Value("V", CountingBytes(9))};
    root.subkeys = {parent};
    HiveBuilder builder;
    builder.AddTree(root);
    const Bytes original = builder.Build();
    EditSession session(original);
    HKEY rootKey = session.Key(u"");
    EXPECT_EQ(RegDeleteKeyW(rootKey, u"Parent"), Result::Invalid);
    EXPECT_EQ(RegDeleteKeyW(rootKey, u"Missing"), Result::Invalid);
    EXPECT_EQ(RegDeleteKeyW(rootKey, u""), Result::Invalid);
    EXPECT_EQ(RegDeleteKeyW(session.hive, u"ROOT"), Result::Invalid);
    EXPECT_EQ(RegDeleteKeyW(rootKey, nullptr), Result::Invalid);
    session.Close();
    EXPECT_EQ(session.file.Read(), original);
}

// A root whose four keys K0..K3 sit in an ri of two lf leaves of two keys.
TEST(EditDeleteKey, KeyInTheSecondLeafOfAnRi) {
    TreeKey root = Named("Root");
    root.list = ListKind::Ri;
    root.subkeys = {Named("K0"), Named("K1"), Named("K2"), Named("K3")};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const HiveImage before(builder.Build());
    const std::uint32_t ri = before.U32(rootCell, 0x1C);
    const std::uint32_t secondLeaf = before.U32(ri, 8);

    EditSession session(builder.Build());
    HKEY rootKey = session.Key(u"");
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"K2"), Result::Ok);
    session.Close();
    HiveImage image = session.Image();
    EXPECT_EQ(SubKeyNames(image, rootCell), (std::vector<std::string>{"K0", "K1", "K3"}));
    EXPECT_EQ(image.U16(ri, 2), 2u);
    EXPECT_EQ(image.U16(secondLeaf, 2), 1u);

    // Emptying the second leaf takes it out of the ri.
    EditSession emptied(session.file.Read());
    ASSERT_EQ(RegDeleteKeyW(emptied.Key(u""), u"K3"), Result::Ok);
    emptied.Close();
    image = emptied.Image();
    EXPECT_EQ(SubKeyNames(image, rootCell), (std::vector<std::string>{"K0", "K1"}));
    EXPECT_EQ(image.U16(ri, 2), 1u);
    EXPECT_FALSE(image.IsAllocated(secondLeaf));
    EXPECT_EQ(image.U32(rootCell, 0x14), 2u);
    ExpectHivexReads(emptied.file.Path());
}

TEST(EditDeleteKey, OnlyKeyOfTheOnlyLeafFreesTheRi) {
    TreeKey root = Named("Root");
    root.list = ListKind::Ri;
    root.subkeys = {Named("Lone")};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const HiveImage before(builder.Build());
    const std::uint32_t ri = before.U32(rootCell, 0x1C);
    const std::uint32_t leaf = before.U32(ri, 4);
    EditSession session(builder.Build());
    ASSERT_EQ(RegDeleteKeyW(session.Key(u""), u"Lone"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(rootCell, 0x1C), kNone);
    EXPECT_FALSE(image.IsAllocated(ri));
    EXPECT_FALSE(image.IsAllocated(leaf));
}

TEST(EditDeleteKey, ClassCellGoesOnlyWithAClassLength) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Classy"), Named("Plain")};
    HiveBuilder builder;
    const std::uint32_t rootCell = builder.AddTree(root);
    const std::uint32_t classA = builder.AddData({'C', 0, 'l', 0});
    const std::uint32_t classB = builder.AddData({'C', 0, 'l', 0});
    builder.PatchU32(builder.KeyOffset("Classy"), 0x30, classA);
    builder.PatchU16(builder.KeyOffset("Classy"), 0x4A, 4);
    builder.PatchU32(builder.KeyOffset("Plain"), 0x30, classB);
    EditSession session(builder.Build());
    HKEY rootKey = session.Key(u"");
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"Classy"), Result::Ok);
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"Plain"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_FALSE(image.IsAllocated(classA));
    EXPECT_TRUE(image.IsAllocated(classB));
    EXPECT_EQ(image.U32(rootCell, 0x14), 0u);
}

// --- sk reference counts and rings ----------------------------------------------------

TEST(EditSecurity, CreateRaisesAndDeleteLowersTheCount) {
    TreeKey root = Named("Root");
    HiveBuilder builder;
    builder.AddTree(root);
    const std::uint32_t sk = builder.TreeSecurity();
    EditSession session(builder.Build());
    HKEY rootKey = session.Key(u"");
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExA(rootKey, "One", &created), Result::Ok);
    ASSERT_EQ(RegCreateKeyExA(rootKey, "Two", &created), Result::Ok);
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"One"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(sk, 0x0C), 2u);
    EXPECT_EQ(image.U32(sk, 0x04), sk);
    EXPECT_EQ(image.U32(sk, 0x08), sk);
}

// Keys "Own" and "Shared" under a root; Own gets an sk of its own (RefCount 1)
// placed in a ring with the tree's sk and, for rings of three, one more.
struct RingHive {
    Bytes file;
    std::uint32_t treeSk = 0;
    std::uint32_t ownSk = 0;
    std::uint32_t thirdSk = kNone;
};
RingHive MakeRing(std::size_t ringSize) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Own"), Named("Shared")};
    HiveBuilder builder;
    builder.AddTree(root);
    RingHive out;
    out.treeSk = builder.TreeSecurity();
    out.ownSk = builder.AddSk(0, 0, 1);
    std::vector<std::uint32_t> ring = {out.treeSk, out.ownSk};
    if (ringSize == 3) {
        out.thirdSk = builder.AddSk(0, 0, 5);
        ring.push_back(out.thirdSk);
    }
    if (ringSize == 1) ring = {out.ownSk};
    for (std::size_t i = 0; i < ring.size(); ++i) {
        builder.PatchU32(ring[i], 0x04, ring[(i + 1) % ring.size()]);
        builder.PatchU32(ring[i], 0x08, ring[(i + ring.size() - 1) % ring.size()]);
    }
    builder.PatchU32(out.treeSk, 0x0C, 2);  // Root and Shared
    builder.PatchU32(builder.KeyOffset("Own"), 0x2C, out.ownSk);
    out.file = builder.Build();
    return out;
}

HiveImage DeleteOwn(const Bytes& file) {
    EditSession session(file);
    EXPECT_EQ(RegDeleteKeyW(session.Key(u""), u"Own"), Result::Ok);
    session.Close();
    return session.Image();
}

TEST(EditSecurity, LastReferenceInARingOfOneFreesTheCell) {
    RingHive hive = MakeRing(1);
    const HiveImage image = DeleteOwn(hive.file);
    EXPECT_FALSE(image.IsAllocated(hive.ownSk));
    EXPECT_EQ(image.U32(hive.treeSk, 0x0C), 2u);
}

TEST(EditSecurity, InARingOfTwoTheSurvivorLinksToItself) {
    RingHive hive = MakeRing(2);
    const HiveImage image = DeleteOwn(hive.file);
    EXPECT_FALSE(image.IsAllocated(hive.ownSk));
    EXPECT_EQ(image.U32(hive.treeSk, 0x04), hive.treeSk);
    EXPECT_EQ(image.U32(hive.treeSk, 0x08), hive.treeSk);
}

TEST(EditSecurity, InARingOfThreeTheOtherTwoLinkToEachOther) {
    RingHive hive = MakeRing(3);
    const HiveImage image = DeleteOwn(hive.file);
    EXPECT_FALSE(image.IsAllocated(hive.ownSk));
    EXPECT_EQ(image.U32(hive.treeSk, 0x04), hive.thirdSk);
    EXPECT_EQ(image.U32(hive.treeSk, 0x08), hive.thirdSk);
    EXPECT_EQ(image.U32(hive.thirdSk, 0x04), hive.treeSk);
    EXPECT_EQ(image.U32(hive.thirdSk, 0x08), hive.treeSk);
    EXPECT_EQ(image.U32(hive.thirdSk, 0x0C), 5u);
}

TEST(EditSecurity, SharedCellLosesOneReferenceAndKeepsItsRing) {
    RingHive hive = MakeRing(3);
    EditSession session(hive.file);
    ASSERT_EQ(RegDeleteKeyW(session.Key(u""), u"Shared"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_TRUE(image.IsAllocated(hive.treeSk));
    EXPECT_EQ(image.U32(hive.treeSk, 0x0C), 1u);
    EXPECT_EQ(image.U32(hive.treeSk, 0x04), hive.ownSk);
    EXPECT_EQ(image.U32(hive.treeSk, 0x08), hive.thirdSk);
}

// --- The first layout: no new cells ----------------------------------------------------------

TEST(EditMinorOne, CreationIsRefusedWithNothingWritten) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Sub")};
    root.values = {Value("V", CountingBytes(12))};
    HiveBuilder builder(1);
    builder.AddTree(root);
    const Bytes original = builder.Build();
    EditSession session(original);
    HKEY rootKey = session.Key(u"");
    ASSERT_NE(rootKey, nullptr);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rootKey, "New", &created), Result::CannotCreate);
    EXPECT_EQ(RegCreateKeyExW(session.Key(u"Sub"), u"New", &created), Result::CannotCreate);
    const Bytes data = CountingBytes(20);
    EXPECT_EQ(RegSetValueNewW(rootKey, u"New", 0, 3, data.data(), 2), Result::Invalid);
    EXPECT_EQ(RegSetValueNewW(rootKey, u"Big", 0, 3, data.data(), 20), Result::Invalid);
    EXPECT_EQ(RegSetValueExW(rootKey, u"V", 0, 3, data.data(), 20), Result::Invalid) << "growing needs a new cell";
    session.Close();
    EXPECT_EQ(session.file.Read(), original);
}

TEST(EditMinorOne, ReadingRewritingInPlaceAndDeletingWork) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Gone"), Named("Stays")};
    root.values = {Value("V", CountingBytes(12)), Value("W", {1, 2})};
    HiveBuilder builder(1);
    const std::uint32_t rootCell = builder.AddTree(root);
    EditSession session(builder.Build());
    HKEY rootKey = session.Key(u"");
    ASSERT_NE(rootKey, nullptr);
    const Bytes fresh = CountingBytes(12, 99);
    ASSERT_EQ(RegSetValueExW(rootKey, u"V", 0, 3, fresh.data(), 12), Result::Ok);
    ASSERT_EQ(RegSetValueExW(rootKey, u"V", 0, 3, fresh.data(), 7), Result::Ok);
    BYTE back[16] = {};
    DWORD size = sizeof back;
    ASSERT_EQ(RegQueryValueExW(rootKey, u"V", nullptr, nullptr, back, &size), Result::Ok);
    EXPECT_EQ(Bytes(back, back + size), Bytes(fresh.begin(), fresh.begin() + 7));
    ASSERT_EQ(RegDeleteValueW(rootKey, u"W"), Result::Ok);
    ASSERT_EQ(RegDeleteKeyW(rootKey, u"Gone"), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(SubKeyNames(image, rootCell), (std::vector<std::string>{"Stays"}));
    ASSERT_EQ(image.Values(rootCell).size(), 1u);
    EXPECT_EQ(image.ValueData(image.Values(rootCell)[0]), Bytes(fresh.begin(), fresh.begin() + 7));
    EXPECT_FALSE(image.IsAllocated(builder.KeyOffset("Gone")));
}

}  // namespace
