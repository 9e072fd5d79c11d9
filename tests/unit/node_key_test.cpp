// Keys and values as nodes: how names are read (also from damaged records),
// and the one-element caches that the lookups by name keep and move.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using namespace Tamvik;
using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;
using TamvikTest::NkFields;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;
using TamvikTest::VkFields;

// A laid-out hive opened as a Hive over a file store, below the entry points.
class OpenedHive {
public:
    explicit OpenedHive(const HiveBuilder& builder) : file_(builder.Build()) {
        store_ = OpenFileStore(file_.Path().c_str(), "r+b");
        if (store_ != nullptr) hive_ = std::make_unique<Hive>(u"test.hiv", store_, &FileSeek, &FileRead, &FileWrite);
    }
    ~OpenedHive() {
        hive_.reset();
        if (store_ != nullptr) CloseFileStore(store_);
    }
    Hive* hive() const { return hive_.get(); }
    template <class T>
    std::unique_ptr<T> Build(std::uint32_t cell, Node* parent = nullptr) {
        return NarrowNode<T>(MakeNode(hive_->GetCell(cell), hive_.get(), parent, CellKind::BySignature));
    }
    Key* Root() { return dynamic_cast<Key*>(hive_->FindChild(hive_.get(), u"")); }

private:
    TamvikTest::TempFile file_;
    FileStore* store_ = nullptr;
    std::unique_ptr<Hive> hive_;
};

NkFields Nk(const std::string& name) {
    NkFields fields;
    fields.name = name;
    return fields;
}

// --- Names ---------------------------------------------------------------------

TEST(NodeNames, NarrowHighByteWidensToSameNumber) {
    HiveBuilder b;
    const std::uint32_t nk = b.AddNk(Nk("Caf\xE9\x9F"));
    OpenedHive h(b);
    std::unique_ptr<Key> key = h.Build<Key>(nk);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), std::u16string(u"Caf\u00E9\u009F"));
}

TEST(NodeNames, WideNameDropsOddByte) {
    HiveBuilder b;
    NkFields fields = Nk(std::string("A\0B\0C\0D", 7));
    fields.wideName = true;
    const std::uint32_t nk = b.AddNk(fields);
    OpenedHive h(b);
    std::unique_ptr<Key> key = h.Build<Key>(nk);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"ABC");
}

TEST(NodeNames, ValueNameFlagIsBitZero) {
    HiveBuilder b;
    VkFields narrow;
    narrow.name = "Ab";
    VkFields wide;
    wide.name = std::string("A\0b\0", 4);
    wide.wideName = true;
    const std::uint32_t n = b.AddVk(narrow);
    const std::uint32_t w = b.AddVk(wide);
    OpenedHive h(b);
    EXPECT_EQ(h.Build<Val>(n)->GetName(), u"Ab");
    EXPECT_EQ(h.Build<Val>(w)->GetName(), u"Ab");
}

TEST(NodeNames, KeyNameLengthPastCellEndsAtImage) {
    HiveBuilder b;
    NkFields fields = Nk("Abc");
    fields.nameLengthOverride = 200;
    const std::uint32_t nk = b.AddNk(fields);  // 0x4C + 3 bytes of record: an 88-byte cell
    // Fill the padding so that the bytes up to the image's end are known.
    b.PatchPayload(nk, 0x4C + 3, Bytes(5, 'x'));
    OpenedHive h(b);
    std::unique_ptr<Key> key = h.Build<Key>(nk);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"Abcxxxxx");
}

TEST(NodeNames, WideKeyNameLengthPastCellKeepsWholeUnits) {
    HiveBuilder b;
    NkFields fields = Nk(std::string("A\0B\0", 4));
    fields.wideName = true;
    fields.nameLengthOverride = 0xFFFF;
    const std::uint32_t nk = b.AddNk(fields);  // 0x4C + 4 bytes: an 88-byte cell, 8 name bytes
    b.PatchPayload(nk, 0x4C + 4, {'C', 0, 'D', 0});
    OpenedHive h(b);
    std::unique_ptr<Key> key = h.Build<Key>(nk);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"ABCD");
}

TEST(NodeNames, ValueNameLengthPastCellEndsAtImage) {
    HiveBuilder b;
    VkFields fields;
    fields.name = "v";
    fields.nameLengthOverride = 300;
    const std::uint32_t vk = b.AddVk(fields);  // 0x14 + 1 bytes of record: a 32-byte cell
    b.PatchPayload(vk, 0x15, Bytes(7, 'y'));
    OpenedHive h(b);
    std::unique_ptr<Val> value = h.Build<Val>(vk);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->GetName(), u"vyyyyyyy");
}

// --- Lookups and their caches ----------------------------------------------------

// Root with subkeys A, B, C (A with one subkey) and values x, y, z.
TreeKey ThreeByThree() {
    TreeKey root;
    root.name = "Root";
    for (const char* name : {"A", "B", "C"}) root.subkeys.emplace_back().name = name;
    root.subkeys[0].subkeys.emplace_back().name = "Inner";
    root.values = {{"x", 4, {1, 0, 0, 0}}, {"y", 4, {2, 0, 0, 0}}, {"z", 4, {3, 0, 0, 0}}};
    return root;
}

TEST(NodeLookups, RepeatedLookupGivesSameNode) {
    HiveBuilder b;
    b.AddTree(ThreeByThree());
    OpenedHive h(b);
    Key* root = h.Root();
    Key* first = root->FindSubKey(h.hive(), u"B");
    ASSERT_NE(first, nullptr);
    SubKeyList* list = root->subKeyList.get();
    EXPECT_EQ(root->FindSubKey(h.hive(), u"B"), first);
    EXPECT_EQ(root->subKeyList.get(), list);
    EXPECT_EQ(first->index, 1u);
}

TEST(NodeLookups, LowerCaseArgumentNeverMatches) {
    // The caller upper-cases; the list only upper-cases the stored side.
    HiveBuilder b;
    b.AddTree(ThreeByThree());
    OpenedHive h(b);
    Key* root = h.Root();
    EXPECT_EQ(root->FindSubKey(h.hive(), u"a"), nullptr);
    EXPECT_EQ(root->FindValue(h.hive(), u"x"), nullptr);
    EXPECT_NE(root->FindValue(h.hive(), u"X"), nullptr);
}

TEST(NodeLookups, LookupOfAnotherNameReplacesChild) {
    HiveBuilder b;
    b.AddTree(ThreeByThree());
    OpenedHive h(b);
    Key* root = h.Root();
    Key* a = root->FindSubKey(h.hive(), u"A");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(a->FindSubKey(h.hive(), u"INNER"), nullptr);
    Key* c = root->FindSubKey(h.hive(), u"C");
    ASSERT_NE(c, nullptr);
    // The list holds one child: C now, and with A went everything cached below it.
    EXPECT_EQ(root->subKeyList->child.get(), c);
    EXPECT_EQ(c->GetName(), u"C");
    Key* again = root->FindSubKey(h.hive(), u"A");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->GetName(), u"A");
    EXPECT_EQ(again->subKeyList, nullptr);
}

TEST(NodeLookups, FailedLookupLeavesLastEntryCached) {
    HiveBuilder b;
    b.AddTree(ThreeByThree());
    OpenedHive h(b);
    Key* root = h.Root();
    ASSERT_NE(root->FindSubKey(h.hive(), u"A"), nullptr);
    SubKeyList* list = root->subKeyList.get();
    EXPECT_EQ(root->FindSubKey(h.hive(), u"Z"), nullptr);
    EXPECT_EQ(root->subKeyList.get(), list);  // the list stays; only the child moved
    ASSERT_NE(list->child, nullptr);
    EXPECT_EQ(list->child->GetName(), u"C");
    Key* cached = list->child.get();
    EXPECT_EQ(root->FindSubKey(h.hive(), u"C"), cached);
    // A second miss, with every name read before, still ends on the last entry.
    ASSERT_NE(root->FindSubKey(h.hive(), u"A"), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"ZZ"), nullptr);
    ASSERT_NE(list->child, nullptr);
    EXPECT_EQ(list->child->GetName(), u"C");

    ASSERT_NE(root->FindValue(h.hive(), u"X"), nullptr);
    EXPECT_EQ(root->FindValue(h.hive(), u"NOPE"), nullptr);
    ASSERT_NE(root->valueList->child, nullptr);
    EXPECT_EQ(root->valueList->child->GetName(), u"z");
}

TEST(NodeLookups, CountZeroTouchesNoCache) {
    HiveBuilder b;
    b.AddTree(ThreeByThree());
    OpenedHive h(b);
    Key* root = h.Root();
    Key* b1 = root->FindSubKey(h.hive(), u"B");
    ASSERT_NE(b1, nullptr);
    // B has neither subkeys nor values: nothing is built for it.
    EXPECT_EQ(b1->FindSubKey(h.hive(), u"ANY"), nullptr);
    EXPECT_EQ(b1->FindValue(h.hive(), u""), nullptr);
    EXPECT_EQ(b1->subKeyList, nullptr);
    EXPECT_EQ(b1->valueList, nullptr);
    // A count that drops to 0 in the image leaves the cached child in place.
    ASSERT_NE(root->FindValue(h.hive(), u"Y"), nullptr);
    Val* y = root->valueList->child.get();
    root->SetField(NkField::SubKeyCount, 0);
    root->SetField(NkField::ValueCount, 0);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"A"), nullptr);
    EXPECT_EQ(root->subKeyList->child.get(), b1);
    EXPECT_EQ(root->FindValue(h.hive(), u"X"), nullptr);
    EXPECT_EQ(root->valueList->child.get(), y);
}

TEST(NodeLookups, ValueCountZeroNeverReadsTheList) {
    HiveBuilder b;
    TreeKey tree = ThreeByThree();
    const std::uint32_t root = b.AddTree(tree);
    b.PatchU32(root, 0x24, 0);  // the list cell stays named, but the count says none
    OpenedHive h(b);
    Key* key = h.Root();
    EXPECT_EQ(key->FindValue(h.hive(), u"X"), nullptr);
    EXPECT_EQ(key->valueList, nullptr);
}

TEST(NodeLookups, SubKeyCountAboveEntriesEndsWithNullChild) {
    HiveBuilder b;
    const std::uint32_t root = b.AddTree(ThreeByThree());
    b.PatchU32(root, 0x14, 5);
    OpenedHive h(b);
    Key* key = h.Root();
    ASSERT_NE(key->FindSubKey(h.hive(), u"C"), nullptr);
    EXPECT_EQ(key->FindSubKey(h.hive(), u"Q"), nullptr);
    EXPECT_EQ(key->subKeyList->child, nullptr);
    EXPECT_NE(key->FindSubKey(h.hive(), u"B"), nullptr);
}

TEST(NodeLookups, SubKeyCountBelowEntriesHidesTheRest) {
    HiveBuilder b;
    const std::uint32_t root = b.AddTree(ThreeByThree());
    b.PatchU32(root, 0x14, 2);
    b.PatchU32(root, 0x24, 2);
    OpenedHive h(b);
    Key* key = h.Root();
    EXPECT_EQ(key->FindSubKey(h.hive(), u"C"), nullptr);
    ASSERT_NE(key->subKeyList->child, nullptr);
    EXPECT_EQ(key->subKeyList->child->GetName(), u"B");
    EXPECT_EQ(key->FindValue(h.hive(), u"Z"), nullptr);
    // The list itself still holds the entry.
    std::unique_ptr<Key> third = key->subKeyList->GetAt(h.hive(), 2);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->GetName(), u"C");
}

TEST(NodeLookups, FirstOfNamesEqualButForCaseWins) {
    HiveBuilder b;
    TreeKey root;
    root.name = "Root";
    for (const char* name : {"dup", "Other", "DUP"}) root.subkeys.emplace_back().name = name;
    root.values = {{"val", 4, {1, 0, 0, 0}}, {"VAL", 4, {2, 0, 0, 0}}};
    b.AddTree(root);
    OpenedHive h(b);
    Key* key = h.Root();
    Key* found = key->FindSubKey(h.hive(), u"DUP");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->GetName(), u"dup");
    EXPECT_EQ(found->index, 0u);
    ASSERT_NE(key->FindSubKey(h.hive(), u"OTHER"), nullptr);
    found = key->FindSubKey(h.hive(), u"DUP");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->index, 0u);
    Val* value = key->FindValue(h.hive(), u"VAL");
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->GetName(), u"val");
}

TEST(NodeLookups, BadEntryIsSkippedByTheScan) {
    HiveBuilder b;
    NkFields rootFields = Nk("Root");
    const std::uint32_t good = b.AddNk(Nk("Good"));
    const std::uint32_t notKey = b.AddVk(VkFields{});
    const std::uint32_t root = b.AddNk(rootFields);
    const std::uint32_t list = b.AddLf({notKey, 0xFFFFFFFF, good});
    b.PatchU32(root, 0x14, 3);
    b.PatchU32(root, 0x1C, list);
    b.SetRoot(root);
    OpenedHive h(b);
    Key* key = h.Root();
    ASSERT_NE(key, nullptr);
    Key* found = key->FindSubKey(h.hive(), u"GOOD");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->index, 2u);
    EXPECT_EQ(key->subKeyList->GetAt(h.hive(), 0), nullptr);
    EXPECT_EQ(key->subKeyList->GetAt(h.hive(), 1), nullptr);
}

TEST(NodeLookups, EmptyNameFindsEmptyNamedKey) {
    HiveBuilder b;
    TreeKey root;
    root.name = "Root";
    root.subkeys.emplace_back().name = "Named";
    root.subkeys.emplace_back().name = "";
    b.AddTree(root);
    OpenedHive h(b);
    Key* found = h.Root()->FindSubKey(h.hive(), u"");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->index, 1u);
}

TEST(NodeLookups, ValueCountAboveCellIsCutToTheCell) {
    HiveBuilder b;
    const std::uint32_t root = b.AddTree(ThreeByThree());  // three values: a list cell of exactly 16 bytes
    b.PatchU32(root, 0x24, 9);
    OpenedHive h(b);
    Key* key = h.Root();
    ASSERT_NE(key->FindValue(h.hive(), u"Z"), nullptr);
    EXPECT_EQ(key->FindValue(h.hive(), u"W"), nullptr);
    EXPECT_EQ(key->valueList->child, nullptr);
    EXPECT_EQ(key->valueList->EntriesHeld(), 3u);
    EXPECT_EQ(key->valueList->GetAt(h.hive(), 3), nullptr);
    EXPECT_EQ(key->valueList->GetAt(h.hive(), 8), nullptr);
    EXPECT_EQ(key->valueList->GetAt(h.hive(), 0xFFFFFFFF), nullptr);
}

}  // namespace
