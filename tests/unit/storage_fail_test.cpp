// Edits on a hive whose storage refuses to grow: every call that fails for
// want of a cell must leave each key and value reachable that was reachable
// before, and give back the cells it took. The hive lives in memory; a test
// seals the free cells it doesn't want used, so that the allocation it aims at
// needs a new bin, and the storage refuses that bin's write.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "api/EntryFrame.h"
#include "edit/Edit.h"
#include "support/ApiListing.h"
#include "support/FailingStorage.h"
#include "support/HiveBuilder.h"

namespace {

using namespace RegAPI;
using Tamvik::HandleOf;
using TamvikTest::Bytes;
using TamvikTest::CountingBytes;
using TamvikTest::HiveBuilder;
using TamvikTest::HiveImage;
using TamvikTest::MemoryStorage;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

constexpr std::uint32_t kNone = 0xFFFFFFFF;

TreeKey Named(const std::string& name) {
    TreeKey key;
    key.name = name;
    return key;
}

TreeValue Value(const std::string& name, const Bytes& data) {
    TreeValue value;
    value.name = name;
    value.data = data;
    return value;
}

// The public listing of a hive image, taken from a fresh file; a sound hive has no problems.
std::vector<std::string> Listing(const Bytes& file) {
    TamvikTest::TempFile copy(file);
    const TamvikTest::ApiListing listing = TamvikTest::ListHiveFile(copy.Path());
    EXPECT_TRUE(listing.opened);
    EXPECT_TRUE(listing.problems.empty()) << listing.problems.front();
    return listing.lines;
}

// A hive in memory with its storage; free cells other than those kept are
// sealed, and no new bin can be written.
class StorageFailRig {
public:
    StorageFailRig(Bytes file, const std::set<std::uint32_t>& keepFree) {
        TamvikTest::SealFreeCells(file, keepFree);
        before_ = file;
        storage_ = std::make_unique<MemoryStorage>(std::move(file));
        storage_->RefuseNewBins();
        hive_ = storage_->OpenHive();
    }

    Tamvik::Hive* Hive() { return hive_.get(); }
    HKEY Key(const std::u16string& path) {
        HKEY key = nullptr;
        const std::u16string full = path.empty() ? u"ROOT" : u"ROOT\\" + path;
        return RegOpenKeyExW(HandleOf(hive_.get()), full.c_str(), 0, 0, &key) == Result::Ok ? key : nullptr;
    }
    const Bytes& Before() const { return before_; }
    const Bytes& Now() const { return storage_->bytes; }
    std::uint32_t RefusedWrites() const { return storage_->refusedWrites; }

    // What every failed call that reached the storage's refusal must leave: the same keys and values, the same
    // allocated cells (what the call took is given back), and a file hivex reads.
    void ExpectReachableAsBefore(bool refusalReached = true) {
        if (refusalReached) {
            EXPECT_GT(storage_->refusedWrites, 0u) << "the call never met the refused allocation";
        }
        EXPECT_EQ(Listing(Now()), Listing(before_));
        EXPECT_EQ(HiveImage(Now()).AllocatedCells(), HiveImage(before_).AllocatedCells());
        TamvikTest::TempFile copy(Now());
        const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(copy.Path());
        if (hivex.available) {
            EXPECT_TRUE(hivex.ok) << hivex.output;
        }
    }

private:
    Bytes before_;
    std::unique_ptr<MemoryStorage> storage_;
    std::unique_ptr<Tamvik::Hive> hive_;
};

// --- Subkeys -------------------------------------------------------------------------

TEST(StorageFailKey, LeafThatCantMoveKeepsTheOwnersSubkeys) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("B"), Named("D")};
    HiveBuilder builder;
    const std::uint32_t room = builder.AddFreeCell(88);  // the new nk of a 4-byte name fits, the list doesn't
    builder.AddTree(root);
    StorageFailRig rig(builder.Build(), {room});
    const std::uint32_t list = HiveImage(rig.Before()).U32(HiveImage(rig.Before()).RootCell(), 0x1C);

    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rig.Key(u""), "Cccc", &created), Result::CannotCreate);
    EXPECT_GT(rig.RefusedWrites(), 0u) << "the test must reach the new bin";
    const HiveImage after(rig.Now());
    EXPECT_EQ(after.U32(after.RootCell(), 0x1C), list);
    EXPECT_EQ(after.CellSize(list), HiveImage(rig.Before()).CellSize(list)) << "the old leaf is taken back";
    EXPECT_GT(after.CellSize(room), 0) << "the nk is released";
    rig.ExpectReachableAsBefore();
    // A second try on the same owner meets the same refusal and the same sound hive.
    HKEY again = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rig.Key(u""), "A", &again), Result::CannotCreate);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailKey, LeafBetweenSmallFreeCellsIsTakenBackWhole) {
    // [free 8][lf of B, D: 24][free 8]: freeing the leaf merges all three into
    // 40 bytes, just what the list of three needs, so the move succeeds there;
    // with one neighbour sealed it can't, and the leaf must come back out of the merge.
    for (bool sealAfter : {false, true}) {
        SCOPED_TRACE(sealAfter ? "free cell before the leaf only" : "free cells on both sides");
        HiveBuilder builder;
        const std::uint32_t room = builder.AddFreeCell(88);
        TamvikTest::NkFields fields;
        fields.name = "Root";
        const std::uint32_t root = builder.AddNk(fields);
        fields.parent = root;
        fields.name = "B";
        const std::uint32_t b = builder.AddNk(fields);
        fields.name = "D";
        const std::uint32_t d = builder.AddNk(fields);
        const std::uint32_t before = builder.AddFreeCell(8);
        const std::uint32_t leaf = builder.AddLf({b, d}, {"B", "D"});
        const std::uint32_t after = builder.AddFreeCell(8);
        builder.AddCell(Bytes(12, 0));  // a fence: nothing behind merges
        builder.PatchU32(root, 0x14, 2);
        builder.PatchU32(root, 0x1C, leaf);
        builder.SetRoot(root);
        std::set<std::uint32_t> keep = {room, before};
        if (!sealAfter) keep.insert(after);
        StorageFailRig rig(builder.Build(), keep);

        HKEY created = nullptr;
        const LONG result = RegCreateKeyExA(rig.Key(u""), "Cccc", &created);
        const HiveImage image(rig.Now());
        if (!sealAfter) {
            ASSERT_EQ(result, Result::Ok);
            EXPECT_EQ(image.U32(root, 0x1C), before) << "the list moves into the merged space";
            EXPECT_EQ(image.CellSize(before), -40);
            std::vector<std::string> names;
            for (std::uint32_t key : image.SubKeys(root)) names.push_back(image.KeyName(key));
            EXPECT_EQ(names, (std::vector<std::string>{"B", "Cccc", "D"}));
        } else {
            ASSERT_EQ(result, Result::CannotCreate);
            EXPECT_EQ(image.U32(root, 0x1C), leaf);
            EXPECT_EQ(image.CellSize(before), 8);
            EXPECT_EQ(image.CellSize(leaf), -24);
            rig.ExpectReachableAsBefore();
        }
    }
}

TEST(StorageFailKey, FirstLeafThatCantBeHadReleasesTheNk) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Leaf")};
    HiveBuilder builder;
    const std::uint32_t room = builder.AddFreeCell(88);
    builder.AddTree(root);
    StorageFailRig rig(builder.Build(), {room});
    Tamvik::Key* leaf = Tamvik::KeyOf(rig.Key(u"Leaf"));
    ASSERT_NE(leaf, nullptr);
    std::unique_ptr<Tamvik::Key> created;
    EXPECT_FALSE(Tamvik::AddSubKey(leaf, rig.Hive(), "Abcd", &created));
    EXPECT_EQ(created, nullptr);
    EXPECT_EQ(leaf->SubKeyCount(), 0u);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailKey, NoRoomForTheNkWritesNothing) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("B")};
    HiveBuilder builder;
    builder.AddTree(root);
    StorageFailRig rig(builder.Build(), {});
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExW(rig.Key(u""), u"New", &created), Result::CannotCreate);
    EXPECT_EQ(rig.Now(), rig.Before());
}

TEST(StorageFailKey, RiOwnerRefusesWithItsLeavesIntact) {
    TreeKey root = Named("Root");
    root.list = TamvikTest::ListKind::Ri;
    root.subkeys = {Named("A"), Named("B"), Named("C")};
    // Room enough for the nk: only the kind of the list can refuse here.
    HiveBuilder withRoom;
    const std::uint32_t room = withRoom.AddFreeCell(88);
    withRoom.AddTree(root);
    StorageFailRig rig2(withRoom.Build(), {room});
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rig2.Key(u""), "Bb", &created), Result::CannotCreate);
    rig2.ExpectReachableAsBefore(false);
}

// --- Values -----------------------------------------------------------------------------

// "Full" with the values A, B and C in a list cell of listCell bytes (16 holds
// the three entries exactly, so a fourth makes the list move; 24 takes it in place),
// an empty key "Empty", and free cells placed where a test wants them.
struct ValueLayout {
    Bytes file;
    std::uint32_t full = 0;
    std::uint32_t empty = 0;
    std::uint32_t list = 0;
    std::vector<std::uint32_t> free;
};
ValueLayout MakeValueLayout(std::uint32_t listCell, const std::vector<std::uint32_t>& freeSizes,
                            const Bytes& bData = {2}) {
    HiveBuilder builder;
    ValueLayout out;
    for (std::uint32_t size : freeSizes) out.free.push_back(builder.AddFreeCell(size));
    TamvikTest::NkFields fields;
    fields.name = "Root";
    const std::uint32_t root = builder.AddNk(fields);
    fields.parent = root;
    fields.name = "Full";
    out.full = builder.AddNk(fields);
    fields.name = "Empty";
    out.empty = builder.AddNk(fields);
    const std::uint32_t rootList = builder.AddLf({out.empty, out.full}, {"Empty", "Full"});
    TamvikTest::VkFields value;
    value.name = "A";
    value.dataLength = 0x80000001;
    value.dataCell = 1;
    const std::uint32_t a = builder.AddVk(value);
    value.name = "B";
    if (bData.size() <= 4) {
        value.dataLength = 0x80000000u | static_cast<std::uint32_t>(bData.size());
        value.dataCell = bData.empty() ? 0 : bData[0];
    } else {
        value.dataLength = static_cast<std::uint32_t>(bData.size());
        value.dataCell = builder.AddData(bData);
    }
    const std::uint32_t b = builder.AddVk(value);
    value.name = "C";
    value.dataLength = 0x80000001;
    value.dataCell = 3;
    const std::uint32_t c = builder.AddVk(value);
    out.list = builder.AddValueList({a, b, c}, listCell);
    builder.AddCell(Bytes(12, 0));  // a fence between the list and the bin's free rest
    builder.PatchU32(root, 0x14, 2);
    builder.PatchU32(root, 0x1C, rootList);
    builder.PatchU32(out.full, 0x24, 3);
    builder.PatchU32(out.full, 0x28, out.list);
    builder.SetRoot(root);
    out.file = builder.Build();
    return out;
}

TEST(StorageFailValue, ListThatCantMoveKeepsTheValues) {
    ValueLayout layout = MakeValueLayout(16, {32});  // room for the vk of a 4-byte name only
    StorageFailRig rig(layout.file, {layout.free[0]});
    const Bytes data = {9};
    EXPECT_EQ(RegSetValueNewW(rig.Key(u"Full"), u"Newv", 0, 3, data.data(), 1), Result::Invalid);
    EXPECT_GT(rig.RefusedWrites(), 0u);
    const HiveImage image(rig.Now());
    EXPECT_EQ(image.U32(layout.full, 0x28), layout.list);
    EXPECT_EQ(image.CellSize(layout.list), -16);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailValue, FirstValueWithoutDataCellReleasesValueAndList) {
    ValueLayout layout = MakeValueLayout(16, {32, 8});
    StorageFailRig rig(layout.file, {layout.free[0], layout.free[1]});
    const Bytes data = CountingBytes(10);
    EXPECT_EQ(RegSetValueNewW(rig.Key(u"Empty"), u"Newv", 0, 3, data.data(), 10), Result::Invalid);
    const HiveImage image(rig.Now());
    EXPECT_EQ(image.U32(layout.empty, 0x24), 0u);
    EXPECT_EQ(image.U32(layout.empty, 0x28), kNone);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailValue, DataCellRefusedAfterTheListMovedLeavesTheOwnerOnTheMovedList) {
    // The list of four goes to the free cell of 24; the data (40 bytes of cell) finds no room.
    ValueLayout layout = MakeValueLayout(16, {32, 24});
    StorageFailRig rig(layout.file, {layout.free[0], layout.free[1]});
    const Bytes data = CountingBytes(30);
    EXPECT_EQ(RegSetValueNewW(rig.Key(u"Full"), u"Newv", 0, 3, data.data(), 30), Result::Invalid);
    const HiveImage image(rig.Now());
    EXPECT_EQ(image.U32(layout.full, 0x24), 3u);
    const std::uint32_t list = image.U32(layout.full, 0x28);
    EXPECT_TRUE(list == layout.list || list == layout.free[1]) << list;
    EXPECT_TRUE(image.IsAllocated(list)) << "the owner never names a released list";
    EXPECT_EQ(Listing(rig.Now()), Listing(rig.Before()));
    // The old or the new list cell went free: one list cell is allocated either way.
    std::set<std::uint32_t> expected = HiveImage(rig.Before()).AllocatedCells();
    expected.erase(layout.list);
    expected.insert(list);
    EXPECT_EQ(image.AllocatedCells(), expected);
}

TEST(StorageFailValue, DataCellRefusedWithTheListInPlaceChangesNoOwner) {
    ValueLayout layout = MakeValueLayout(24, {32});
    StorageFailRig rig(layout.file, {layout.free[0]});
    const Bytes data = CountingBytes(30);
    EXPECT_EQ(RegSetValueNewW(rig.Key(u"Full"), u"Newv", 0, 3, data.data(), 30), Result::Invalid);
    const HiveImage image(rig.Now());
    EXPECT_EQ(image.U32(layout.full, 0x28), layout.list);
    EXPECT_EQ(image.U32(layout.full, 0x24), 3u);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailValue, DbRefusedAfterItsFirstSegmentReleasesEverySegment) {
    // One segment fits in the free cell of 16352; the second needs a new bin.
    ValueLayout layout = MakeValueLayout(24, {32, 16352});
    StorageFailRig rig(layout.file, {layout.free[0], layout.free[1]});
    const Bytes data = CountingBytes(40000);
    EXPECT_EQ(RegSetValueNewW(rig.Key(u"Full"), u"Bigv", 0, 3, data.data(), 40000), Result::Invalid);
    rig.ExpectReachableAsBefore();
}

TEST(StorageFailValue, AddValueOnTheNodeReportsFalseAndKeepsCounts) {
    ValueLayout layout = MakeValueLayout(16, {32});
    StorageFailRig rig(layout.file, {layout.free[0]});
    Tamvik::Key* full = Tamvik::KeyOf(rig.Key(u"Full"));
    ASSERT_NE(full, nullptr);
    const Bytes data = {1, 2};
    EXPECT_FALSE(Tamvik::AddValue(full, rig.Hive(), "Newv", data.data(), 3, 2));
    EXPECT_EQ(full->ValueCount(), 3u);
    EXPECT_EQ(full->Field(Tamvik::NkField::ValueListCell), layout.list);
    // The node still finds its values.
    EXPECT_NE(full->FindValue(rig.Hive(), u"B"), nullptr);
    rig.ExpectReachableAsBefore();
}

// --- Data rewrite ------------------------------------------------------------------------

TEST(StorageFailData, RewritesThatNeedNewCellsChangeNothing) {
    struct Case {
        const char* what;
        Bytes old;
        std::uint32_t newLength;
    };
    const std::vector<Case> cases = {
        {"inline to a cell", {1, 2}, 5},
        {"cell to a bigger cell", CountingBytes(6), 13},
        {"cell across the line into a db", CountingBytes(16000), 16345},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ValueLayout layout = MakeValueLayout(16, {}, c.old);
        StorageFailRig rig(layout.file, {});
        const Bytes data = CountingBytes(c.newLength, 3);
        EXPECT_EQ(RegSetValueExW(rig.Key(u"Full"), u"B", 0, 3, data.data(), c.newLength), Result::Invalid);
        EXPECT_EQ(rig.Now(), rig.Before());
        EXPECT_GT(rig.RefusedWrites(), 0u);
    }
}

TEST(StorageFailData, DbFallingBelowTheLineWithoutACellKeepsTheDb) {
    TreeKey root = Named("Root");
    root.values = {Value("Big", CountingBytes(20000))};
    HiveBuilder builder;
    builder.AddTree(root);
    StorageFailRig rig(builder.Build(), {});
    const Bytes data = CountingBytes(100);
    EXPECT_EQ(RegSetValueExW(rig.Key(u""), u"Big", 0, 3, data.data(), 100), Result::Invalid);
    EXPECT_EQ(rig.Now(), rig.Before());
}

// --- A write refused by number ---------------------------------------------------------------

TEST(StorageFailWrite, RefusedWriteOfTheNewBinLeavesBinsSize) {
    TreeKey root = Named("Root");
    HiveBuilder builder;
    builder.AddTree(root);
    Bytes file = builder.Build();
    TamvikTest::SealFreeCells(file);
    MemoryStorage storage(file);
    std::unique_ptr<Tamvik::Hive> hive = storage.OpenHive();
    // The bin is the first write of the call.
    storage.RefuseWriteNumber(1);
    HKEY rootKey = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HandleOf(hive.get()), u"ROOT", 0, 0, &rootKey), Result::Ok);
    HKEY created = nullptr;
    EXPECT_EQ(RegCreateKeyExA(rootKey, "New", &created), Result::CannotCreate);
    EXPECT_EQ(storage.bytes, file);
    // The next attempt gets its bin.
    EXPECT_EQ(RegCreateKeyExA(rootKey, "New", &created), Result::Ok);
    EXPECT_EQ(HiveImage(storage.bytes).BinsSize(), HiveImage(file).BinsSize() + 4096);
}

}  // namespace
