// The edit functions on nodes directly: the lh hash, and the caches of a Key
// node across deleting its last subkey and adding a new one.
#include <gtest/gtest.h>

#include <memory>

#include "api/EntryFrame.h"
#include "edit/Edit.h"
#include "support/FailingStorage.h"
#include "support/HiveBuilder.h"

namespace {

using TamvikTest::HiveBuilder;
using TamvikTest::MemoryStorage;
using TamvikTest::TreeKey;

TEST(NodeEditHash, BytesAddAsSignedEightBitNumbers) {
    EXPECT_EQ(Tamvik::NameHash("abc"), 91494u);
    EXPECT_EQ(Tamvik::NameHash("ab"), 2471u);
    EXPECT_EQ(Tamvik::NameHash("AB"), 2471u);
    EXPECT_EQ(Tamvik::NameHash(""), 0u);
    // 0xC4 adds -60 untouched by toupper; 0x80 adds -128.
    EXPECT_EQ(Tamvik::NameHash("a\xC4"), 65u * 37 - 60);
    EXPECT_EQ(Tamvik::NameHash("\x80"), 0xFFFFFF80u);
}

TEST(NodeEditCache, SubkeyAddedAfterTheLastWasDeletedIsFoundThroughTheSameNode) {
    TreeKey root;
    root.name = "Root";
    TreeKey parent;
    parent.name = "Parent";
    TreeKey kid;
    kid.name = "Kid";
    parent.subkeys = {kid};
    root.subkeys = {parent};
    HiveBuilder builder;
    builder.AddTree(root);
    MemoryStorage storage(builder.Build());
    std::unique_ptr<Tamvik::Hive> hive = storage.OpenHive();
    auto* rootKey = dynamic_cast<Tamvik::Key*>(hive->FindChild(hive.get(), u"ROOT"));
    ASSERT_NE(rootKey, nullptr);
    Tamvik::Key* parentKey = rootKey->FindSubKey(hive.get(), u"PARENT");
    ASSERT_NE(parentKey, nullptr);
    Tamvik::Key* kidKey = parentKey->FindSubKey(hive.get(), u"KID");
    ASSERT_NE(kidKey, nullptr);
    ASSERT_TRUE(Tamvik::DeleteKey(kidKey, hive.get()));
    EXPECT_EQ(parentKey->subKeyList, nullptr);
    EXPECT_EQ(parentKey->Field(Tamvik::NkField::SubKeyListCell), 0xFFFFFFFFu);
    std::unique_ptr<Tamvik::Key> created;
    ASSERT_TRUE(Tamvik::AddSubKey(parentKey, hive.get(), "Newer", &created));
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->GetParent(), parentKey);
    Tamvik::Key* found = parentKey->FindSubKey(hive.get(), u"NEWER");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->GetOffset(), created->GetOffset());
    EXPECT_EQ(parentKey->FindSubKey(hive.get(), u"KID"), nullptr);
}

}  // namespace
