// Subkey lists by position: the arithmetic of an ri over its leaves, leaves
// that can't be built, nested or self-naming ri records, and Counts that claim
// more entries than the cell holds.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/SubKeyList.h"
#include "store/ByteOrder.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using namespace Tamvik;
using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;
using TamvikTest::NkFields;

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
    Key* Root() { return dynamic_cast<Key*>(hive_->FindChild(hive_.get(), u"")); }
    // The file as it stands now, for looking at what reached it; the stream's
    // buffer goes out first, so that a second reader sees every write.
    Bytes FileBytes() const {
        if (store_ != nullptr) std::fflush(store_->File());
        return file_.Read();
    }

private:
    TamvikTest::TempFile file_;
    FileStore* store_ = nullptr;
    std::unique_ptr<Hive> hive_;
};

// A root key whose subkey list is laid out by hand: keys K0..K(n-1) are made
// first, then the caller builds the list from their offsets.
struct HandList {
    HiveBuilder b;
    std::vector<std::uint32_t> keys;
    std::uint32_t root = 0;

    explicit HandList(int n) {
        for (int i = 0; i < n; ++i) {
            NkFields fields;
            fields.name = "K" + std::to_string(i);
            keys.push_back(b.AddNk(fields));
        }
        NkFields rootFields;
        rootFields.name = "Root";
        root = b.AddNk(rootFields);
        b.SetRoot(root);
    }
    void UseList(std::uint32_t list, std::uint32_t subKeyCount) {
        b.PatchU32(root, 0x14, subKeyCount);
        b.PatchU32(root, 0x1C, list);
    }
};

std::uint32_t U16At(const Bytes& file, std::uint32_t areaOffset) {
    return LoadU16(file.data() + 4096 + areaOffset);
}
std::uint32_t U32At(const Bytes& file, std::uint32_t areaOffset) {
    return LoadU32(file.data() + 4096 + areaOffset);
}

TEST(NodeIndirect, PositionsRunOverAllLeaves) {
    HandList t(5);
    const std::uint32_t first = t.b.AddLf({t.keys[0], t.keys[1], t.keys[2]});
    const std::uint32_t second = t.b.AddLf({t.keys[3], t.keys[4]});
    const std::uint32_t ri = t.b.AddRi({first, second});
    t.UseList(ri, 5);
    OpenedHive h(t.b);
    Key* root = h.Root();
    ASSERT_NE(root, nullptr);
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(dynamic_cast<Indirect*>(list.get()), nullptr);
    EXPECT_EQ(list->GetCount(), 2u);  // leaves, not keys
    for (std::uint32_t i = 0; i < 5; ++i) {
        std::unique_ptr<Key> key = list->GetAt(h.hive(), i);
        ASSERT_NE(key, nullptr) << i;
        EXPECT_EQ(key->GetName(), u"K" + std::u16string(1, static_cast<char16_t>(u'0' + i)));
        EXPECT_EQ(key->index, i);
        // The key hangs below the owning key, not below a leaf that is gone already.
        EXPECT_EQ(key->GetParent(), root);
    }
    EXPECT_EQ(list->GetAt(h.hive(), 5), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 0xFFFFFFFF), nullptr);
}

TEST(NodeIndirect, RemoveAtUsesTheWholeListPosition) {
    HandList t(5);
    const std::uint32_t first = t.b.AddLf({t.keys[0], t.keys[1], t.keys[2]});
    const std::uint32_t second = t.b.AddLf({t.keys[3], t.keys[4]});
    const std::uint32_t ri = t.b.AddRi({first, second});
    t.UseList(ri, 5);
    OpenedHive h(t.b);
    std::unique_ptr<SubKeyList> list = h.Root()->GetSubKeyList(h.hive());
    std::unique_ptr<Key> last = list->GetAt(h.hive(), 4);
    ASSERT_NE(last, nullptr);
    bool emptied = true;
    list->RemoveAt(h.hive(), last->index, &emptied);
    EXPECT_FALSE(emptied);
    const Bytes file = h.FileBytes();
    EXPECT_EQ(U16At(file, second + 4 + 2), 1u);           // the second leaf lost its last key
    EXPECT_EQ(U32At(file, second + 4 + 4), t.keys[3]);
    EXPECT_EQ(U16At(file, first + 4 + 2), 3u);            // the first one is untouched
    EXPECT_EQ(U16At(file, ri + 4 + 2), 2u);
    std::unique_ptr<SubKeyList> fresh = h.Root()->GetSubKeyList(h.hive());
    std::unique_ptr<Key> now = fresh->GetAt(h.hive(), 3);
    ASSERT_NE(now, nullptr);
    EXPECT_EQ(now->GetName(), u"K3");
    EXPECT_EQ(fresh->GetAt(h.hive(), 4), nullptr);
}

TEST(NodeIndirect, RemovingOnlyKeyOfFirstLeafDropsItsEntry) {
    HandList t(3);
    const std::uint32_t first = t.b.AddLf({t.keys[0]});
    const std::uint32_t second = t.b.AddLf({t.keys[1], t.keys[2]});
    const std::uint32_t ri = t.b.AddRi({first, second});
    t.UseList(ri, 3);
    OpenedHive h(t.b);
    std::unique_ptr<SubKeyList> list = h.Root()->GetSubKeyList(h.hive());
    bool emptied = true;
    list->RemoveAt(h.hive(), 0, &emptied);
    EXPECT_FALSE(emptied);
    const Bytes file = h.FileBytes();
    EXPECT_GT(static_cast<std::int32_t>(U32At(file, first)), 0);  // the leaf's cell is free
    EXPECT_EQ(U16At(file, ri + 4 + 2), 1u);
    EXPECT_EQ(U32At(file, ri + 4 + 4), second);
}

TEST(NodeIndirect, BadListCellEndsTheWalk) {
    HandList t(4);
    const std::uint32_t first = t.b.AddLf({t.keys[0], t.keys[1]});
    const std::uint32_t third = t.b.AddLf({t.keys[2], t.keys[3]});
    const std::uint32_t ri = t.b.AddRi({first, 0xFFFFFFFF, third});
    t.UseList(ri, 4);
    OpenedHive h(t.b);
    Key* root = h.Root();
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(list, nullptr);
    EXPECT_NE(list->GetAt(h.hive(), 1), nullptr);
    // Keys behind the bad entry are out of reach, also by name.
    EXPECT_EQ(list->GetAt(h.hive(), 2), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 3), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"K2"), nullptr);
    EXPECT_NE(root->FindSubKey(h.hive(), u"K1"), nullptr);
}

TEST(NodeIndirect, BadKeyInLeafMovesToNextLeafWithSamePosition) {
    HandList t(4);
    const std::uint32_t first = t.b.AddLf({t.keys[0], 0xFFFFFFFF, t.keys[1]});
    const std::uint32_t second = t.b.AddLf({t.keys[2], t.keys[3]});
    const std::uint32_t ri = t.b.AddRi({first, second});
    t.UseList(ri, 5);
    OpenedHive h(t.b);
    std::unique_ptr<SubKeyList> list = h.Root()->GetSubKeyList(h.hive());
    std::unique_ptr<Key> key = list->GetAt(h.hive(), 1);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"K3");  // position 1 of the second leaf
    EXPECT_EQ(key->index, 1u);
    key = list->GetAt(h.hive(), 2);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"K1");
}

TEST(NodeIndirect, NestedIndirectIsRefused) {
    HandList t(2);
    const std::uint32_t leaf = t.b.AddLf({t.keys[0], t.keys[1]});
    const std::uint32_t inner = t.b.AddRi({leaf});
    const std::uint32_t outer = t.b.AddRi({inner});
    t.UseList(outer, 2);
    OpenedHive h(t.b);
    Key* root = h.Root();
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(dynamic_cast<Indirect*>(list.get()), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 0), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 1), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"K0"), nullptr);
    bool emptied = true;
    list->RemoveAt(h.hive(), 0, &emptied);
    EXPECT_FALSE(emptied);
    const Bytes file = h.FileBytes();
    EXPECT_EQ(U16At(file, leaf + 4 + 2), 2u);
}

TEST(NodeIndirect, SelfNamingIndirectEnds) {
    HandList t(1);
    const std::uint32_t ri = t.b.AddRi({0, 0});
    t.b.PatchU32(ri, 4, ri);
    t.b.PatchU32(ri, 8, ri);
    t.UseList(ri, 3);
    OpenedHive h(t.b);
    Key* root = h.Root();
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 0), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"K0"), nullptr);
    bool emptied = true;
    list->RemoveAt(h.hive(), 0, &emptied);
    EXPECT_FALSE(emptied);
}

TEST(NodeIndirect, CountAboveCellStaysInside) {
    HandList t(2);
    const std::uint32_t leaf = t.b.AddLf({t.keys[0], t.keys[1]});
    const std::uint32_t ri = t.b.AddRi({leaf});  // one entry and one empty slot in a 16-byte cell
    t.b.PatchU16(ri, 2, 0xFFFF);
    t.UseList(ri, 2);
    OpenedHive h(t.b);
    Key* root = h.Root();
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(list->GetAt(h.hive(), 1), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 2), nullptr);
    EXPECT_EQ(list->GetAt(h.hive(), 60000), nullptr);
    EXPECT_NE(root->FindSubKey(h.hive(), u"K1"), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"K9"), nullptr);
}

TEST(NodeLeaves, AllLeafKindsGiveKeysByPosition) {
    HandList t(3);
    const std::uint32_t lf = t.b.AddLf({t.keys[0], t.keys[1], t.keys[2]});
    const std::uint32_t lh = t.b.AddLh({t.keys[0], t.keys[1], t.keys[2]}, {"K0", "K1", "K2"});
    const std::uint32_t li = t.b.AddLi({t.keys[0], t.keys[1], t.keys[2]});
    OpenedHive h(t.b);
    Key* root = h.Root();
    for (std::uint32_t cell : {lf, lh, li}) {
        CellRef ref = h.hive()->GetCell(cell);
        std::unique_ptr<SubKeyList> list = NarrowNode<SubKeyList>(MakeNode(ref, h.hive(), root, CellKind::BySignature));
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(list->GetCount(), 3u);
        std::unique_ptr<Key> key = list->GetAt(h.hive(), 2);
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->GetName(), u"K2");
        EXPECT_EQ(key->index, 2u);
        EXPECT_EQ(list->GetAt(h.hive(), 3), nullptr);  // index equal to Count
    }
}

TEST(NodeLeaves, RemoveAtCountChangesNothing) {
    HandList t(2);
    const std::uint32_t lf = t.b.AddLf({t.keys[0], t.keys[1]});
    t.UseList(lf, 2);
    OpenedHive h(t.b);
    Key* root = h.Root();
    Key* cached = root->FindSubKey(h.hive(), u"K1");
    ASSERT_NE(cached, nullptr);
    const Bytes before = h.FileBytes();
    bool emptied = true;
    root->subKeyList->RemoveAt(h.hive(), 2, &emptied);
    EXPECT_FALSE(emptied);
    EXPECT_EQ(root->subKeyList->child.get(), cached);
    EXPECT_EQ(h.FileBytes(), before);
}

TEST(NodeLeaves, CountAboveCellStaysInside) {
    HandList t(2);
    // lf with two entries: a 24-byte cell holding exactly two; Count claims five.
    const std::uint32_t lf = t.b.AddLf({t.keys[0], t.keys[1]});
    t.b.PatchU16(lf, 2, 5);
    const std::uint32_t li = t.b.AddLi({t.keys[0], t.keys[1]});  // 12 bytes of record: three slots in 16
    t.b.PatchU16(li, 2, 0xFFFF);
    t.UseList(lf, 5);
    OpenedHive h(t.b);
    Key* root = h.Root();
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(list->GetAt(h.hive(), 1), nullptr);
    for (std::uint32_t i = 2; i < 6; ++i) EXPECT_EQ(list->GetAt(h.hive(), i), nullptr) << i;
    EXPECT_NE(root->FindSubKey(h.hive(), u"K1"), nullptr);
    EXPECT_EQ(root->FindSubKey(h.hive(), u"K7"), nullptr);
    EXPECT_EQ(root->subKeyList->child, nullptr);

    std::unique_ptr<SubKeyList> leaf =
        NarrowNode<SubKeyList>(MakeNode(h.hive()->GetCell(li), h.hive(), root, CellKind::BySignature));
    ASSERT_NE(leaf, nullptr);
    EXPECT_NE(leaf->GetAt(h.hive(), 1), nullptr);
    EXPECT_EQ(leaf->GetAt(h.hive(), 3), nullptr);
    EXPECT_EQ(leaf->GetAt(h.hive(), 0xFFFE), nullptr);
    // Removing from a damaged leaf moves only entries the cell holds.
    bool emptied = true;
    list->RemoveAt(h.hive(), 0, &emptied);
    EXPECT_FALSE(emptied);
    const Bytes file = h.FileBytes();
    EXPECT_EQ(U16At(file, lf + 4 + 2), 4u);
    EXPECT_EQ(U32At(file, lf + 4 + 4), t.keys[1]);
    list->RemoveAt(h.hive(), 4, &emptied);  // a position past the cell
    EXPECT_EQ(U16At(h.FileBytes(), lf + 4 + 2), 4u);
}

}  // namespace
