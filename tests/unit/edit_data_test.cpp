// Replacing value data through RegSetValueExW: every row of the resize policy
// (inline, one cell, db), the 16344-byte line in newer hives crossed both
// ways, and the refusals that must leave the file as it was.
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
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

// A root holding one value "V" of the given data and form, and a second value
// "Other" so that MaxValueData isn't only V's.
struct OneValueHive {
    Bytes file;
    std::uint32_t root = 0;
};
OneValueHive MakeHive(const Bytes& data, DataForm form = DataForm::Auto, std::uint32_t minorVersion = 5,
                      std::uint32_t type = 3) {
    TreeKey root;
    root.name = "Root";
    TreeValue value;
    value.name = "V";
    value.data = data;
    value.form = form;
    value.type = type;
    TreeValue other;
    other.name = "Other";
    other.data = {1};
    root.values = {value, other};
    HiveBuilder builder(minorVersion);
    OneValueHive out;
    out.root = builder.AddTree(root);
    out.file = builder.Build();
    return out;
}

// Sets V to data in one session and gives the closed file's image.
struct SetOutcome {
    LONG result = -1;
    HiveImage image{Bytes{}};
};
SetOutcome SetV(const Bytes& file, const Bytes& data, DWORD type = 3) {
    EditSession session(file);
    SetOutcome outcome;
    HKEY root = session.Key(u"");
    if (root == nullptr) return outcome;
    outcome.result = RegSetValueExW(root, u"V", 0, type, data.data(), static_cast<DWORD>(data.size()));
    session.Close();
    outcome.image = session.Image();
    return outcome;
}

std::uint32_t VOf(const HiveImage& image) { return image.FindValue(image.RootCell(), "V"); }

// --- Inline before ------------------------------------------------------------------

TEST(EditSetData, InlineFourToTwoKeepsTheTrailingBytes) {
    OneValueHive hive = MakeHive({1, 2, 3, 4});
    SetOutcome out = SetV(hive.file, {9, 8});
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    EXPECT_EQ(out.image.U32(vk, 0x04), 0x80000002u);
    EXPECT_EQ(out.image.PayloadBytes(vk, 0x08, 4), (Bytes{9, 8, 3, 4}));
    EXPECT_EQ(out.image.U32(hive.root, 0x40), 4u);
}

TEST(EditSetData, InlineTwoToThreeRaisesMaxValueData) {
    OneValueHive hive = MakeHive({1, 2});
    ASSERT_EQ(HiveImage(hive.file).U32(hive.root, 0x40), 2u);
    SetOutcome out = SetV(hive.file, {7, 7, 7});
    ASSERT_EQ(out.result, Result::Ok);
    EXPECT_EQ(out.image.U32(VOf(out.image), 0x04), 0x80000003u);
    EXPECT_EQ(out.image.U32(hive.root, 0x40), 3u);
}

TEST(EditSetData, InlineToFiveBytesMakesADataCell) {
    OneValueHive hive = MakeHive({1, 2, 3});
    SetOutcome out = SetV(hive.file, {5, 4, 3, 2, 1});
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    EXPECT_EQ(out.image.U32(vk, 0x04), 5u) << "no top bit";
    EXPECT_EQ(out.image.CellSize(out.image.U32(vk, 0x08)), -16);
    EXPECT_EQ(out.image.ValueData(vk), (Bytes{5, 4, 3, 2, 1}));
    EXPECT_EQ(out.image.U32(hive.root, 0x40), 5u);
}

// --- One data cell before ----------------------------------------------------------------

TEST(EditSetData, CellOfSixteenTakesTwelveInPlaceAndMovesAtThirteen) {
    OneValueHive hive = MakeHive(CountingBytes(6));
    const HiveImage before(hive.file);
    const std::uint32_t oldCell = before.U32(VOf(before), 0x08);
    ASSERT_EQ(before.CellSize(oldCell), -16);

    SetOutcome twelve = SetV(hive.file, CountingBytes(12, 40));
    ASSERT_EQ(twelve.result, Result::Ok);
    EXPECT_EQ(twelve.image.U32(VOf(twelve.image), 0x08), oldCell);
    EXPECT_EQ(twelve.image.U32(VOf(twelve.image), 0x04), 12u);
    EXPECT_EQ(twelve.image.ValueData(VOf(twelve.image)), CountingBytes(12, 40));
    EXPECT_EQ(twelve.image.U32(hive.root, 0x40), 12u);

    SetOutcome thirteen = SetV(hive.file, CountingBytes(13, 50));
    ASSERT_EQ(thirteen.result, Result::Ok);
    const std::uint32_t moved = thirteen.image.U32(VOf(thirteen.image), 0x08);
    EXPECT_NE(moved, oldCell);
    EXPECT_EQ(thirteen.image.CellSize(moved), -24);
    EXPECT_GT(thirteen.image.CellSize(oldCell), 0) << "the old cell is released";
    EXPECT_EQ(thirteen.image.ValueData(VOf(thirteen.image)), CountingBytes(13, 50));
}

TEST(EditSetData, ShrinkingStaysInTheCellAndKeepsMaxValueData) {
    OneValueHive hive = MakeHive(CountingBytes(20));
    const HiveImage before(hive.file);
    const std::uint32_t cell = before.U32(VOf(before), 0x08);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    const Bytes three = {0xA1, 0xA2, 0xA3};
    ASSERT_EQ(RegSetValueExW(root, u"v", 0, 3, three.data(), 3), Result::Ok);
    BYTE back[32] = {};
    DWORD size = sizeof back;
    ASSERT_EQ(RegQueryValueExW(root, u"V", nullptr, nullptr, back, &size), Result::Ok);
    EXPECT_EQ(Bytes(back, back + size), three);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t vk = VOf(image);
    EXPECT_EQ(image.U32(vk, 0x04), 3u) << "data never goes back inline";
    EXPECT_EQ(image.U32(vk, 0x08), cell);
    EXPECT_EQ(image.PayloadBytes(cell, 0, 20), [] {
        Bytes expected = CountingBytes(20);
        expected[0] = 0xA1;
        expected[1] = 0xA2;
        expected[2] = 0xA3;
        return expected;
    }()) << "bytes behind the new ones keep what they held";
    EXPECT_EQ(image.U32(image.RootCell(), 0x40), 20u);
}

TEST(EditSetData, SameLengthRewritesOnlyTheDataCell) {
    OneValueHive hive = MakeHive(CountingBytes(20));
    const HiveImage before(hive.file);
    const std::uint32_t cell = before.U32(VOf(before), 0x08);
    SetOutcome out = SetV(hive.file, CountingBytes(20, 90));
    ASSERT_EQ(out.result, Result::Ok);
    Bytes expected = hive.file;
    const Bytes data = CountingBytes(20, 90);
    std::copy(data.begin(), data.end(), expected.begin() + 4096 + cell + 4);
    EXPECT_EQ(out.image.File(), expected) << "the vk and the owner are left alone";
}

TEST(EditSetData, TwentyThousandBytesInVersionThreeAreAnOrdinaryCell) {
    OneValueHive hive = MakeHive(CountingBytes(20000), DataForm::Auto, 3);
    const HiveImage before(hive.file);
    const std::uint32_t cell = before.U32(VOf(before), 0x08);

    SetOutcome same = SetV(hive.file, CountingBytes(20000, 3));
    ASSERT_EQ(same.result, Result::Ok);
    EXPECT_EQ(same.image.U32(VOf(same.image), 0x08), cell);
    EXPECT_EQ(same.image.ValueData(VOf(same.image)), CountingBytes(20000, 3));

    // The cell holds 20004 bytes: that much stays in place, one more moves.
    SetOutcome filled = SetV(hive.file, CountingBytes(20004, 6));
    ASSERT_EQ(filled.result, Result::Ok);
    EXPECT_EQ(filled.image.U32(VOf(filled.image), 0x08), cell);

    SetOutcome grown = SetV(hive.file, CountingBytes(20005, 4));
    ASSERT_EQ(grown.result, Result::Ok);
    const std::uint32_t fresh = grown.image.U32(VOf(grown.image), 0x08);
    EXPECT_NE(fresh, cell);
    EXPECT_NE(grown.image.Signature(fresh), "db");
    EXPECT_EQ(grown.image.ValueData(VOf(grown.image)), CountingBytes(20005, 4));

    SetOutcome shrunk = SetV(hive.file, CountingBytes(100, 5));
    ASSERT_EQ(shrunk.result, Result::Ok);
    EXPECT_EQ(shrunk.image.U32(VOf(shrunk.image), 0x08), cell);
}

// --- The line of 16344 bytes in newer hives ---------------------------------------------

TEST(EditSetData, CrossingUpwardBuildsADbAndReleasesTheCell) {
    OneValueHive hive = MakeHive(CountingBytes(16344), DataForm::Cell);
    const HiveImage before(hive.file);
    const std::uint32_t cell = before.U32(VOf(before), 0x08);
    SetOutcome out = SetV(hive.file, CountingBytes(16345, 8));
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    const std::uint32_t db = out.image.U32(vk, 0x08);
    ASSERT_EQ(out.image.Signature(db), "db");
    EXPECT_EQ(out.image.U16(db, 2), 2u);
    EXPECT_GT(out.image.CellSize(cell), 0);
    EXPECT_EQ(out.image.U32(vk, 0x04), 16345u);
    EXPECT_EQ(out.image.ValueData(vk), CountingBytes(16345, 8));
    EXPECT_EQ(out.image.U32(hive.root, 0x40), 16345u);
    TamvikTest::TempFile written(out.image.File());
    const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(written.Path());
    if (hivex.available) {
        EXPECT_TRUE(hivex.ok) << hivex.output;
    }
}

TEST(EditSetData, InlineGrowingPastTheLineBuildsADb) {
    OneValueHive hive = MakeHive({1, 2});
    SetOutcome out = SetV(hive.file, CountingBytes(30000, 2));
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    EXPECT_EQ(out.image.Signature(out.image.U32(vk, 0x08)), "db");
    EXPECT_EQ(out.image.ValueData(vk), CountingBytes(30000, 2));
}

TEST(EditSetData, CrossingDownwardTurnsTheDbIntoACellAndReleasesEverything) {
    OneValueHive hive = MakeHive(CountingBytes(16345), DataForm::Db);
    const HiveImage before(hive.file);
    const std::uint32_t db = before.U32(VOf(before), 0x08);
    const std::uint32_t list = before.U32(db, 4);
    const std::uint32_t seg0 = before.U32(list, 0);
    const std::uint32_t seg1 = before.U32(list, 4);
    SetOutcome out = SetV(hive.file, CountingBytes(16344, 9));
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    const std::uint32_t cell = out.image.U32(vk, 0x08);
    EXPECT_NE(out.image.Signature(cell), "db");
    EXPECT_EQ(out.image.U32(vk, 0x04), 16344u);
    EXPECT_EQ(out.image.ValueData(vk), CountingBytes(16344, 9));
    const std::set<std::uint32_t> allocated = out.image.AllocatedCells();
    for (std::uint32_t gone : {db, list, seg0, seg1}) {
        if (gone != cell) {
            EXPECT_EQ(allocated.count(gone), 0u) << gone;
        }
    }
    EXPECT_EQ(out.image.U32(hive.root, 0x40), 16345u) << "MaxValueData never falls";
}

TEST(EditSetData, DbFallingFarBecomesASmallCell) {
    OneValueHive hive = MakeHive(CountingBytes(40000), DataForm::Db);
    SetOutcome out = SetV(hive.file, CountingBytes(100, 1));
    ASSERT_EQ(out.result, Result::Ok);
    const std::uint32_t vk = VOf(out.image);
    EXPECT_EQ(out.image.CellSize(out.image.U32(vk, 0x08)), -104);
    EXPECT_EQ(out.image.ValueData(vk), CountingBytes(100, 1));
}

TEST(EditSetData, DbGrowingIsRefusedWithNothingChanged) {
    OneValueHive hive = MakeHive(CountingBytes(20000), DataForm::Db);
    SetOutcome out = SetV(hive.file, CountingBytes(20001));
    EXPECT_EQ(out.result, Result::Invalid);
    EXPECT_EQ(out.image.File(), hive.file);
}

TEST(EditSetData, DbWithItsOwnLengthIsRewrittenInPlace) {
    OneValueHive hive = MakeHive(CountingBytes(40000), DataForm::Db);
    const HiveImage before(hive.file);
    const std::uint32_t db = before.U32(VOf(before), 0x08);
    SetOutcome out = SetV(hive.file, CountingBytes(40000, 77));
    ASSERT_EQ(out.result, Result::Ok);
    EXPECT_EQ(out.image.U32(VOf(out.image), 0x08), db);
    EXPECT_EQ(out.image.U32(db, 4), before.U32(db, 4));
    EXPECT_EQ(out.image.AllocatedCells(), before.AllocatedCells());
    EXPECT_EQ(out.image.ValueData(VOf(out.image)), CountingBytes(40000, 77));
}

TEST(EditSetData, DbShrinkingAboveTheLineDropsSurplusSegments) {
    OneValueHive hive = MakeHive(CountingBytes(40000), DataForm::Db);
    const HiveImage before(hive.file);
    const std::uint32_t db = before.U32(VOf(before), 0x08);
    const std::uint32_t third = before.U32(before.U32(db, 4), 8);
    SetOutcome out = SetV(hive.file, CountingBytes(20000, 66));
    ASSERT_EQ(out.result, Result::Ok);
    EXPECT_EQ(out.image.U32(VOf(out.image), 0x08), db);
    EXPECT_EQ(out.image.U16(db, 2), 2u);
    EXPECT_GT(out.image.CellSize(third), 0);
    EXPECT_EQ(out.image.ValueData(VOf(out.image)), CountingBytes(20000, 66));
}

// --- Refusals -------------------------------------------------------------------------

TEST(EditSetData, RefusalsLeaveEveryByte) {
    OneValueHive hive = MakeHive({1, 0, 0, 0}, DataForm::Auto, 5, 4);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    const Bytes eight(8, 1);
    EXPECT_EQ(RegSetValueExW(root, u"V", 0, 3, eight.data(), 4), Result::Invalid) << "another type";
    EXPECT_EQ(RegSetValueExW(root, u"V", 0, 4, eight.data(), 8), Result::Invalid) << "fixed size";
    EXPECT_EQ(RegSetValueExW(root, u"Missing", 0, 4, eight.data(), 4), Result::Invalid);
    EXPECT_EQ(RegSetValueExW(root, u"V", 0, 4, eight.data(), 0), Result::Invalid);
    EXPECT_EQ(RegSetValueExW(root, u"V", 0, 4, nullptr, 4), Result::Invalid);
    EXPECT_EQ(RegSetValueExW(root, nullptr, 0, 4, eight.data(), 4), Result::Invalid);
    HKEY none = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, u"NoValues", &none), Result::Ok);
    const Bytes withKey = [&] {
        session.Close();
        return session.file.Read();
    }();
    EditSession again(withKey);
    HKEY empty = again.Key(u"NoValues");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(RegSetValueExW(empty, u"V", 0, 4, eight.data(), 4), Result::Invalid) << "a key without values";
    again.Close();
    EXPECT_EQ(again.file.Read(), withKey);
    const HiveImage image(withKey);
    EXPECT_EQ(image.U32(VOf(image), 0x04), 0x80000004u);
    EXPECT_EQ(image.U32(VOf(image), 0x08), 1u);
}

TEST(EditSetData, FixedSizeTypeWithItsLengthIsReplaced) {
    OneValueHive hive = MakeHive({1, 0, 0, 0}, DataForm::Auto, 5, 4);
    SetOutcome out = SetV(hive.file, {0x44, 0x33, 0x22, 0x11}, 4);
    ASSERT_EQ(out.result, Result::Ok);
    EXPECT_EQ(out.image.U32(VOf(out.image), 0x08), 0x11223344u);
}

}  // namespace
