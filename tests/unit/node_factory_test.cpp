// The factory that turns cells into nodes: which class a cell becomes by size
// and signature, where the signature is looked for, and what the nodes report
// about themselves (names, paths, lookups that don't apply to them).
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Security.h"
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
using TamvikTest::VkFields;

// A laid-out hive written to a temporary file and opened as a Hive over a file
// store, without the entry points, so that nodes can be built one by one.
class OpenedHive {
public:
    explicit OpenedHive(const HiveBuilder& builder) : file_(builder.Build()) {
        store_ = OpenFileStore(file_.Path().c_str(), "r+b");
        if (store_ != nullptr) hive_ = std::make_unique<Hive>(u"test.hiv", store_, &FileSeek, &FileRead, &FileWrite);
    }
    ~OpenedHive() {
        hive_.reset();  // the nodes go before the stream they read from
        if (store_ != nullptr) CloseFileStore(store_);
    }
    Hive* hive() const { return hive_.get(); }
    std::unique_ptr<Node> Make(std::uint32_t cell, Node* parent = nullptr, CellKind kind = CellKind::BySignature) {
        return MakeNode(hive_->GetCell(cell), hive_.get(), parent, kind);
    }
    Key* Root() { return dynamic_cast<Key*>(hive_->FindChild(hive_.get(), u"ignored")); }

private:
    TamvikTest::TempFile file_;
    FileStore* store_ = nullptr;
    std::unique_ptr<Hive> hive_;
};

template <class T>
bool Is(const std::unique_ptr<Node>& node) {
    return dynamic_cast<T*>(node.get()) != nullptr;
}

NkFields Nk(const std::string& name) {
    NkFields fields;
    fields.name = name;
    return fields;
}

TEST(NodeFactory, KeyNeedsEightyByteCell) {
    HiveBuilder b;
    const std::uint32_t tooSmall = b.AddNk(Nk(""), 72);
    const std::uint32_t exact = b.AddNk(Nk(""), 80);
    OpenedHive h(b);
    // A short nk is no key, and no later rule of the table picks it up either.
    EXPECT_EQ(h.Make(tooSmall), nullptr);
    std::unique_ptr<Node> key = h.Make(exact);
    ASSERT_TRUE(Is<Key>(key));
    EXPECT_EQ(key->GetName(), u"");
    EXPECT_EQ(key->GetOffset(), exact);
}

TEST(NodeFactory, ValueNeedsTwentyFourByteCell) {
    HiveBuilder b;
    VkFields vk;
    const std::uint32_t exact = b.AddVk(vk, 24);
    const std::uint32_t tooSmall = b.AddVk(vk, 16);
    OpenedHive h(b);
    EXPECT_TRUE(Is<Val>(h.Make(exact)));
    EXPECT_EQ(h.Make(tooSmall), nullptr);
}

TEST(NodeFactory, SecurityNeedsSixtyFourByteCell) {
    HiveBuilder b;
    const std::uint32_t small = b.AddSk(0, 0, 1, 56);
    const std::uint32_t exact = b.AddSk(0, 0, 1, 64);
    OpenedHive h(b);
    EXPECT_EQ(h.Make(small), nullptr);
    EXPECT_TRUE(Is<Security>(h.Make(exact)));
}

TEST(NodeFactory, ListsHaveNoSizeTest) {
    HiveBuilder b;
    const std::uint32_t lf = b.AddListRaw("lf", 0, {}, 8);
    const std::uint32_t lh = b.AddListRaw("lh", 0, {}, 8);
    const std::uint32_t li = b.AddListRaw("li", 0, {}, 8);
    const std::uint32_t ri = b.AddListRaw("ri", 0, {}, 8);
    const std::uint32_t unknown = b.AddListRaw("zz", 0, {}, 8);
    OpenedHive h(b);
    std::unique_ptr<Node> fast = h.Make(lf);
    ASSERT_TRUE(Is<FastLeaf>(fast));
    EXPECT_FALSE(Is<HashLeaf>(fast));
    EXPECT_TRUE(Is<HashLeaf>(h.Make(lh)));
    EXPECT_TRUE(Is<IndxLeaf>(h.Make(li)));
    EXPECT_TRUE(Is<Indirect>(h.Make(ri)));
    EXPECT_EQ(h.Make(unknown), nullptr);
    // An empty 8-byte leaf answers every position with null.
    auto* leaf = dynamic_cast<SubKeyList*>(fast.get());
    EXPECT_EQ(leaf->GetCount(), 0u);
    EXPECT_EQ(leaf->GetAt(h.hive(), 0), nullptr);
    EXPECT_EQ(leaf->GetName(), u"SubKeyList");
}

TEST(NodeFactory, ExplicitKindsIgnoreSignatureAndSize) {
    HiveBuilder b;
    const std::uint32_t nk = b.AddNk(Nk("Key"));
    const std::uint32_t tiny = b.AddCell({'n', 'k'}, true, 8);
    OpenedHive h(b);
    for (std::uint32_t cell : {nk, tiny}) {
        std::unique_ptr<Node> list = h.Make(cell, nullptr, CellKind::ValueList);
        ASSERT_TRUE(Is<SubValList>(list));
        EXPECT_EQ(list->GetName(), u"SubValList");
        std::unique_ptr<Node> mid = h.Make(cell, nullptr, CellKind::PlainData);
        ASSERT_TRUE(Is<MidData>(mid));
        EXPECT_EQ(mid->GetName(), u"MidData");
        std::unique_ptr<Node> big = h.Make(cell, nullptr, CellKind::BigDataRecord);
        ASSERT_TRUE(Is<BigData>(big));
        EXPECT_EQ(big->GetName(), u"BigData");
        std::unique_ptr<Node> segments = h.Make(cell, nullptr, CellKind::SegmentList);
        ASSERT_TRUE(Is<SubDatList>(segments));
        EXPECT_EQ(segments->GetName(), u"SubDatList");
    }
    EXPECT_EQ(h.Make(nk, nullptr, static_cast<CellKind>(5)), nullptr);
    EXPECT_EQ(h.Make(nk, nullptr, static_cast<CellKind>(0xFFFFFFFF)), nullptr);
}

TEST(NodeFactory, InvalidCellRefGivesNull) {
    HiveBuilder b;
    b.AddNk(Nk("Key"));
    OpenedHive h(b);
    EXPECT_EQ(MakeNode(CellRef(), h.hive(), nullptr, CellKind::BySignature), nullptr);
    EXPECT_EQ(MakeNode(CellRef(), h.hive(), nullptr, CellKind::PlainData), nullptr);
}

TEST(NodeFactory, SignatureFollowsTheCellHeader) {
    // The first layout puts a PrevLink word behind the size, so the record
    // starts 8 bytes in; all other versions start it 4 bytes in.
    for (std::uint32_t version : {0u, 1u, 2u, 3u, 5u}) {
        SCOPED_TRACE(version);
        HiveBuilder b(version);
        const std::uint32_t proper = b.AddNk(Nk("K"));
        // Cells of 88 bytes with "nk" 4 bytes in and 8 bytes in respectively.
        const std::uint32_t atFour = b.AddCell(Bytes(88 - b.PayloadOffset(), 0));
        b.PatchArea(atFour + 4, {'n', 'k'});
        const std::uint32_t atEight = b.AddCell(Bytes(88 - b.PayloadOffset(), 0));
        b.PatchArea(atEight + 8, {'n', 'k'});
        OpenedHive h(b);
        std::unique_ptr<Node> key = h.Make(proper);
        ASSERT_TRUE(Is<Key>(key));
        EXPECT_EQ(key->GetName(), u"K");
        EXPECT_EQ(Is<Key>(h.Make(atFour)), version != 1);
        EXPECT_EQ(Is<Key>(h.Make(atEight)), version == 1);
    }
}

TEST(NodeFactory, CellTooSmallForSignatureHoldsNone) {
    HiveBuilder b(1);
    const std::uint32_t bare = b.AddCell({}, true, 8);  // header only: size and PrevLink
    OpenedHive h(b);
    EXPECT_EQ(h.Make(bare), nullptr);
    EXPECT_TRUE(Is<MidData>(h.Make(bare, nullptr, CellKind::PlainData)));
}

TEST(NodeFactory, FreshNodesHaveEmptyCaches) {
    HiveBuilder b;
    const std::uint32_t nk = b.AddNk(Nk("K"));
    const std::uint32_t vk = b.AddVk(VkFields{});
    OpenedHive h(b);
    std::unique_ptr<Node> node = h.Make(nk);
    auto* key = dynamic_cast<Key*>(node.get());
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->index, 0xFFFFFFFFu);
    EXPECT_EQ(key->subKeyList, nullptr);
    EXPECT_EQ(key->valueList, nullptr);
    std::unique_ptr<Node> valueNode = h.Make(vk);
    auto* value = dynamic_cast<Val*>(valueNode.get());
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->index, 0xFFFFFFFFu);
}

// A root with one subkey that has a value and a subkey of its own.
TreeKey SmallTree() {
    TreeKey root;
    root.name = "Root";
    TreeKey a;
    a.name = "A";
    a.values = {{"v", 4, {1, 2, 3, 4}}};
    a.subkeys.emplace_back().name = "B";
    root.subkeys = {a};
    return root;
}

TEST(NodePaths, PathsRunFromTheHiveName) {
    HiveBuilder b;
    b.AddTree(SmallTree());
    OpenedHive h(b);
    EXPECT_EQ(h.hive()->GetPath(), u"\\test.hiv");
    Key* root = h.Root();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->GetPath(), u"\\test.hiv\\Root");
    Key* a = root->FindSubKey(h.hive(), u"A");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->GetPath(), u"\\test.hiv\\Root\\A");
    // A key's parent is the key above it, never the list that produced it.
    EXPECT_EQ(a->GetParent(), root);
    Key* inner = a->FindSubKey(h.hive(), u"B");
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->GetPath(), u"\\test.hiv\\Root\\A\\B");
    EXPECT_EQ(inner->GetRoot(), h.hive());
    // A value hangs below its list, and the list's name shows in the path.
    Val* value = a->FindValue(h.hive(), u"V");
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->GetPath(), u"\\test.hiv\\Root\\A\\SubValList\\v");
    EXPECT_EQ(OwnerKey(value), a);
    std::unique_ptr<SubKeyList> list = root->GetSubKeyList(h.hive());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->GetPath(), u"\\test.hiv\\Root\\SubKeyList");
}

TEST(NodePaths, SecurityHasNoNameAndStandsAlone) {
    HiveBuilder b;
    b.AddTree(SmallTree());
    OpenedHive h(b);
    std::unique_ptr<Node> orphan = h.Make(b.TreeSecurity());
    ASSERT_TRUE(Is<Security>(orphan));
    EXPECT_EQ(orphan->GetName(), u"");
    EXPECT_EQ(orphan->GetPath(), u"\\");
    EXPECT_EQ(orphan->GetRoot(), orphan.get());
    EXPECT_EQ(orphan->FindChild(h.hive(), u""), nullptr);
    std::unique_ptr<Node> below = h.Make(b.TreeSecurity(), h.hive());
    EXPECT_EQ(below->GetPath(), u"\\test.hiv\\");
}

TEST(NodePaths, ValueHasNoChildren) {
    HiveBuilder b;
    b.AddTree(SmallTree());
    OpenedHive h(b);
    Key* a = h.Root()->FindSubKey(h.hive(), u"A");
    ASSERT_NE(a, nullptr);
    Val* value = a->FindValue(h.hive(), u"V");
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->FindChild(h.hive(), u"V"), nullptr);
    EXPECT_EQ(value->FindChild(h.hive(), u""), nullptr);
    EXPECT_EQ(value->FindChild(h.hive(), u"B"), nullptr);
}

TEST(NodePaths, HiveGivesItsRootWhateverTheName) {
    HiveBuilder b;
    b.AddTree(SmallTree());
    OpenedHive h(b);
    Node* first = h.hive()->FindChild(h.hive(), u"");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(h.hive()->FindChild(h.hive(), u"ANYTHING"), first);
    EXPECT_EQ(h.hive()->FindChild(h.hive(), u"ROOT"), first);
    EXPECT_EQ(first->GetParent(), h.hive());
}

TEST(NodePaths, FreeRootCellIsStillBuilt) {
    HiveBuilder b;
    const std::uint32_t root = b.AddTree(SmallTree());
    b.SetCellSize(root, 88);  // positive: marked free, same size
    OpenedHive h(b);
    Key* key = h.Root();
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetName(), u"Root");
}

TEST(NodePaths, UnreadableRootIsRetriedAndNotCached) {
    HiveBuilder b;
    b.AddTree(SmallTree());
    b.SetRoot(0xFFFFFFFF);
    OpenedHive h(b);
    EXPECT_EQ(h.hive()->FindChild(h.hive(), u""), nullptr);
    EXPECT_EQ(h.hive()->rootKey, nullptr);
    EXPECT_EQ(h.hive()->FindChild(h.hive(), u""), nullptr);
}

}  // namespace
