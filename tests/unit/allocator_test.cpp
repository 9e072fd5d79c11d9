// The cell allocator on hand-laid bins: first fit in file order, the remainder
// rule, the size of appended bins, and the merging of freed cells.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <utility>

#include "store/Allocator.h"
#include "store/ByteOrder.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;

// A Hive constructed straight over a temporary copy of some bytes.
class HiveOverFile {
public:
    explicit HiveOverFile(const Bytes& bytes) : file_(bytes) {
        store_ = Tamvik::OpenFileStore(file_.Path().c_str(), "r+b");
        if (store_ == nullptr) throw std::runtime_error("can't open " + file_.Path());
        hive_ = std::make_unique<Tamvik::Hive>(file_.WidePath(), store_, &Tamvik::FileSeek, &Tamvik::FileRead,
                                               &Tamvik::FileWrite);
    }
    ~HiveOverFile() {
        hive_.reset();
        Tamvik::CloseFileStore(store_);
    }
    Tamvik::Hive* get() { return hive_.get(); }
    Tamvik::Hive* operator->() { return hive_.get(); }
    // What the file holds now, with the stream's buffer written out first.
    Bytes Disk() {
        std::fflush(store_->File());
        return file_.Read();
    }
    // CellSize (or any word) at an offset of the bins area, as the file holds it.
    std::int32_t SizeAt(std::uint32_t areaOffset) { return Tamvik::LoadI32(&Disk().at(4096 + areaOffset)); }
    std::uint32_t WordAt(std::uint32_t areaOffset) { return Tamvik::LoadU32(&Disk().at(4096 + areaOffset)); }

private:
    TamvikTest::TempFile file_;
    Tamvik::FileStore* store_ = nullptr;
    std::unique_ptr<Tamvik::Hive> hive_;
};

// Lays out cells of the given sizes in the current bin; a negative size is allocated.
void Cells(HiveBuilder& builder, std::initializer_list<std::int32_t> sizes) {
    for (std::int32_t size : sizes) {
        if (size < 0) builder.AddCell({}, true, static_cast<std::uint32_t>(-size));
        else builder.AddFreeCell(static_cast<std::uint32_t>(size));
    }
}

// A hive of one bin with no free space at all.
HiveBuilder FullBin(std::uint32_t minorVersion = 5) {
    HiveBuilder builder(minorVersion);
    builder.AddCell({}, true, 4064);
    return builder;
}

// ---------------------------------------------------------------------------
// FindFreeCell

TEST(FindFreeCell, GivesNeedBackOnEveryPath) {
    HiveOverFile hive(FullBin().Build());
    for (auto [asked, need] : {std::pair{0u, 8u}, {4u, 8u}, {5u, 16u}, {12u, 16u}, {83u, 88u}, {4060u, 4064u}}) {
        std::uint32_t size = asked;
        std::uint32_t found = 12345;
        EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 0u);
        EXPECT_EQ(size, need) << "asked " << asked;
        EXPECT_EQ(found, 12345u) << "found is left alone when nothing fits";
    }
}

TEST(FindFreeCell, TakesTheFirstFittingCellNotTheBest) {
    HiveBuilder builder;
    Cells(builder, {-16, 16, 64, -16, 24, -16});  // at 32, 48, 64, 128, 144, 168
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;  // need 24: the cell at 144 fits exactly, the one at 64 comes first
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 64u);
    EXPECT_EQ(found, 64u);
    // Exactly the size of the first free cell is enough for it.
    size = 12;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 48u);
    EXPECT_EQ(found, 16u);
}

TEST(FindFreeCell, ZeroCellSizeLeavesTheBinButNotTheSearch) {
    HiveBuilder builder;
    Cells(builder, {-16, -16, 64});  // the rest of the bin is free behind these
    builder.SetCellSize(48, 0);
    builder.AddBin();
    Cells(builder, {-16});           // then free from 4144
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 4144u);
    EXPECT_EQ(found, 4096u - 48);
}

TEST(FindFreeCell, ForeignHeaderEndsTheSearchAndABinIsAppended) {
    HiveBuilder builder = FullBin();
    const std::uint32_t second = builder.AddBin();  // all free, but not reachable
    builder.BreakBinSignature(second);
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;
    std::uint32_t found = 7;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 0u);
    EXPECT_EQ(found, 7u);

    const std::uint32_t cell = Tamvik::CreateCell(hive.get(), 20, {});
    EXPECT_EQ(cell, 8192u + 32);
    EXPECT_EQ(hive->BinsSize(), 12288u);
    EXPECT_EQ(hive.SizeAt(8192 + 32), -24);
    EXPECT_EQ(hive.SizeAt(second + 32), 4064) << "the free cell behind the foreign header stays";
}

TEST(FindFreeCell, ZeroBinSizeEndsTheSearch) {
    HiveBuilder builder = FullBin();
    const std::uint32_t second = builder.AddBin();
    builder.SetBinSize(second, 0);
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 0u);
}

TEST(FindFreeCell, EmptyBinsAreaFindsNothing) {
    HiveBuilder builder = FullBin();
    builder.SetBinsSizeOverride(0);
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 0u);
    EXPECT_EQ(size, 24u);
}

// ---------------------------------------------------------------------------
// The remainder rule, through PlanCell and CreateCell

struct Planned {
    Tamvik::CellPlan plan;
    bool ok = false;
};

Planned Plan(Tamvik::Hive* hive, std::uint32_t asked) {
    Planned result;
    result.ok = Tamvik::PlanCell(hive, asked, result.plan);
    return result;
}

TEST(Remainder, ExactFitUsesTheWholeCell) {
    HiveBuilder builder;
    Cells(builder, {-16, 24, -16});  // free cell of 24 at 48
    HiveOverFile hive(builder.Build());
    Planned p = Plan(hive.get(), 20);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.plan.offset, 48u);
    EXPECT_EQ(p.plan.cellSize, 24u);
    EXPECT_EQ(p.plan.imageLength, 24u);
    EXPECT_EQ(p.plan.remainder, 0u);

    EXPECT_EQ(Tamvik::CreateCell(hive.get(), 20, [](std::uint8_t* record, std::uint32_t capacity) {
                  EXPECT_EQ(capacity, 20u);
                  std::fill(record, record + capacity, 0xAB);
              }),
              48u);
    const Bytes disk = hive.Disk();
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 48]), -24);
    EXPECT_EQ(disk[4096 + 52], 0xAB);
    EXPECT_EQ(disk[4096 + 71], 0xAB);
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 72]), -16) << "nothing written behind the cell";
}

TEST(Remainder, RestOfEightBecomesAFreeCell) {
    HiveBuilder builder;
    Cells(builder, {-16});
    builder.AddCell(Bytes(28, 0xEE), false, 32);  // free cell of 32 at 48, old bytes inside
    Cells(builder, {-16});
    HiveOverFile hive(builder.Build());
    Planned p = Plan(hive.get(), 20);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.plan.cellSize, 24u);
    EXPECT_EQ(p.plan.imageLength, 28u);
    EXPECT_EQ(p.plan.remainder, 8u);

    EXPECT_EQ(Tamvik::CreateCell(hive.get(), 20, {}), 48u);
    const Bytes disk = hive.Disk();
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 48]), -24);
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 72]), 8);
    EXPECT_EQ(disk[4096 + 76], 0xEE) << "the remainder's payload keeps its old bytes";
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 80]), -16);
}

TEST(Remainder, ForeignRestOfFourGoesWithTheCell) {
    HiveBuilder builder;
    Cells(builder, {-16, 28, -20});  // 28 at 48, allocated 20 at 76, free rest from 96
    HiveOverFile hive(builder.Build());
    Planned p = Plan(hive.get(), 20);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.plan.offset, 48u);
    EXPECT_EQ(p.plan.cellSize, 28u);
    EXPECT_EQ(p.plan.imageLength, 28u);
    EXPECT_EQ(p.plan.remainder, 0u);

    EXPECT_EQ(Tamvik::CreateCell(hive.get(), 20, {}), 48u);
    EXPECT_EQ(hive.SizeAt(48), -28);
    EXPECT_EQ(hive.SizeAt(76), -20) << "no cell of 4 bytes may appear";
}

TEST(Remainder, ForeignRestThatCantBeSplitIsPassedBy) {
    HiveBuilder builder;
    Cells(builder, {-16, 36, -20});  // 36 at 48: rest 12 for a need of 24
    HiveOverFile hive(builder.Build());
    std::uint32_t size = 20;
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 104u);
    EXPECT_EQ(found, 4096u - 104);
    // A need that takes it whole, or leaves a rest of 8, still uses it.
    size = 28;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 48u);
    EXPECT_EQ(found, 36u);
}

TEST(Remainder, NewBinIsSplitTheSameWay) {
    HiveOverFile hive(FullBin().Build());
    // An nk with a 3-byte name: asked 83, need 88.
    EXPECT_EQ(Tamvik::CreateCell(hive.get(), 83, {}), 4096u + 32);
    EXPECT_EQ(hive.SizeAt(4096 + 32), -88);
    EXPECT_EQ(hive.SizeAt(4096 + 32 + 88), 3976);
    EXPECT_EQ(hive.Disk().size(), 4096u + 8192u);
}

TEST(Remainder, NeedOfOneBinExactlyOrJustMore) {
    {
        HiveOverFile hive(FullBin().Build());
        Planned p = Plan(hive.get(), 4060);  // need 4064
        ASSERT_TRUE(p.ok);
        EXPECT_EQ(p.plan.offset, 4128u);
        EXPECT_EQ(p.plan.cellSize, 4064u);
        EXPECT_EQ(p.plan.remainder, 0u);
        EXPECT_EQ(hive->BinsSize(), 8192u);
    }
    HiveOverFile hive(FullBin().Build());
    EXPECT_EQ(Tamvik::CreateCell(hive.get(), 4068, {}), 4128u);  // need 4072
    EXPECT_EQ(hive->BinsSize(), 4096u + 8192u);
    EXPECT_EQ(hive.SizeAt(4128), -4072);
    EXPECT_EQ(hive.SizeAt(4128 + 4072), 4088);
}

TEST(WriteDataCell, CopiesTheBytesAndZeroFillsTheCell) {
    HiveBuilder builder;
    Cells(builder, {-16});
    builder.AddCell(Bytes(12, 0xCC), false, 16);  // free cell of 16 at 48 holding old bytes
    HiveOverFile hive(builder.Build());
    const std::uint8_t data[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(Tamvik::WriteDataCell(hive.get(), data, 5), 48u);
    const Bytes disk = hive.Disk();
    EXPECT_EQ(Tamvik::LoadI32(&disk[4096 + 48]), -16);
    const Bytes payload(disk.begin() + 4096 + 52, disk.begin() + 4096 + 64);
    EXPECT_EQ(payload, (Bytes{1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Creation, SecondLayoutIsRefusedAndNothingIsWritten) {
    for (bool full : {false, true}) {
        HiveBuilder builder = full ? FullBin(1) : HiveBuilder(1);
        if (!full) Cells(builder, {-16, 64});
        HiveOverFile hive(builder.Build());
        const Bytes before = hive.Disk();
        Tamvik::CellPlan plan;
        EXPECT_FALSE(Tamvik::PlanCell(hive.get(), 20, plan));
        bool filled = false;
        EXPECT_EQ(Tamvik::CreateCell(hive.get(), 20, [&](std::uint8_t*, std::uint32_t) { filled = true; }), 0u);
        EXPECT_FALSE(filled);
        const std::uint8_t data[8] = {};
        EXPECT_EQ(Tamvik::WriteDataCell(hive.get(), data, sizeof data), 0u);
        EXPECT_EQ(hive.Disk(), before) << (full ? "full hive" : "hive with room");
        EXPECT_EQ(hive->BinsSize(), before.size() - 4096);
    }
}

// ---------------------------------------------------------------------------
// AppendBin

TEST(AppendBin, SizeTableAndWhatReachesTheFile) {
    const std::pair<std::uint32_t, std::uint32_t> table[] = {{8, 4096},     {4064, 4096},  {4072, 8192},
                                                             {8160, 8192},  {8168, 12288}, {12256, 12288}};
    for (auto [need, binSize] : table) {
        SCOPED_TRACE("need " + std::to_string(need));
        HiveBuilder builder = FullBin();
        Bytes original = builder.Build();
        original[0x400] = 0x5C;  // a byte of the base block nobody interprets
        HiveOverFile hive(original);
        std::uint32_t found = 0;
        const auto before = static_cast<std::int64_t>(std::time(nullptr));
        EXPECT_EQ(Tamvik::AppendBin(hive.get(), need, found), 4096u + 32);
        const auto after = static_cast<std::int64_t>(std::time(nullptr));
        EXPECT_EQ(found, binSize - 32);
        EXPECT_EQ(hive->BinsSize(), 4096 + binSize);

        const Bytes disk = hive.Disk();
        ASSERT_EQ(disk.size(), 4096u + 4096u + binSize);
        const std::uint8_t* bin = &disk[4096 + 4096];
        EXPECT_EQ(Tamvik::LoadU32(bin), 0x6E696268u);
        EXPECT_EQ(Tamvik::LoadU32(bin + 4), 4096u);
        EXPECT_EQ(Tamvik::LoadU32(bin + 8), binSize);
        // Seconds since 1970, not 100-nanosecond ticks.
        const auto stamp = static_cast<std::int64_t>(Tamvik::LoadU32(bin + 0x14)) |
                           (static_cast<std::int64_t>(Tamvik::LoadU32(bin + 0x18)) << 32);
        EXPECT_GE(stamp, before);
        EXPECT_LE(stamp, after);
        EXPECT_EQ(Tamvik::LoadI32(bin + 32), static_cast<std::int32_t>(binSize - 32));

        // The base block on disk: new BinsSize, fresh checksum, the rest as it was.
        EXPECT_EQ(Tamvik::LoadU32(&disk[0x28]), 4096 + binSize);
        EXPECT_EQ(Tamvik::LoadU32(&disk[0x1FC]), Tamvik::BaseBlockChecksum(disk.data()));
        EXPECT_EQ(disk[0x400], 0x5C);
        EXPECT_TRUE(std::equal(disk.begin(), disk.begin() + 0x28, original.begin()));
        EXPECT_TRUE(std::equal(disk.begin() + 0x2C, disk.begin() + 0x1FC, original.begin() + 0x2C));
        // The old bin is untouched.
        EXPECT_TRUE(std::equal(disk.begin() + 4096, disk.begin() + 8192, original.begin() + 4096));
    }
}

TEST(AppendBin, FirstBinOfAnEmptyArea) {
    HiveBuilder builder;
    HiveOverFile hive(builder.Build());
    ASSERT_EQ(hive->BinsSize(), 0u);
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::AppendBin(hive.get(), 8, found), 32u) << "BinsSize + 32, never BinsSize";
    EXPECT_EQ(hive->BinsSize(), 4096u);
}

// ---------------------------------------------------------------------------
// FreeCell

TEST(FreeCell, MergesForward) {
    HiveBuilder builder;
    Cells(builder, {-16, -24, 40, -16});  // at 32, 48, 72, 112
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef cell = hive->GetCell(48);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_FALSE(cell.IsValid());
    EXPECT_EQ(hive.SizeAt(32), -16);
    EXPECT_EQ(hive.SizeAt(48), 64);
    EXPECT_EQ(hive.SizeAt(72), 40) << "the absorbed header stays as dead bytes";
    EXPECT_EQ(hive.SizeAt(112), -16);
}

TEST(FreeCell, MergesBackward) {
    HiveBuilder builder;
    Cells(builder, {16, -24, -16});  // at 32, 48, 72
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef cell = hive->GetCell(48);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_EQ(hive.SizeAt(32), 40);
    EXPECT_EQ(hive.SizeAt(48), 24);
    EXPECT_EQ(hive.SizeAt(72), -16);
}

TEST(FreeCell, MergesBothWaysIntoThePrecedingCell) {
    HiveBuilder builder;
    Cells(builder, {-8, 16, -24, 40, -16});  // at 32, 40, 56, 80, 120
    builder.PatchArea(56 + 4, {0xD1, 0xD2, 0xD3, 0xD4});
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef cell = hive->GetCell(56);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_EQ(hive.SizeAt(32), -8);
    EXPECT_EQ(hive.SizeAt(40), 16 + 24 + 40);
    EXPECT_EQ(hive.SizeAt(56), 24 + 40);
    EXPECT_EQ(hive.SizeAt(80), 40);
    EXPECT_EQ(hive.SizeAt(120), -16);
    EXPECT_EQ(hive.WordAt(60), 0xD4D3D2D1u) << "the payload of a freed cell isn't cleared";

    // The bin walks as [8 alloc][80 free][16 alloc]..., and the merged cell is found whole.
    std::uint32_t size = 76;
    std::uint32_t found = 0;
    EXPECT_EQ(Tamvik::FindFreeCell(hive.get(), size, found), 40u);
    EXPECT_EQ(found, 80u);
}

TEST(FreeCell, FirstCellOfABinDoesNotMergeIntoThePreviousBin) {
    HiveBuilder builder;
    Cells(builder, {-16});       // the first bin ends in a free cell from 48
    builder.AddBin();
    Cells(builder, {-16, -16});  // at 4128, 4144
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef first = hive->GetCell(4128);
    Tamvik::FreeCell(first, hive.get());
    EXPECT_EQ(hive.SizeAt(4128), 16);
    EXPECT_EQ(hive.SizeAt(48), 4048);
}

TEST(FreeCell, LastCellOfABinDoesNotReachIntoAFreeNextBin) {
    HiveBuilder builder;
    Cells(builder, {-16, -4048});
    builder.AddBin();  // starts with one free cell of 4064
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef last = hive->GetCell(48);
    Tamvik::FreeCell(last, hive.get());
    EXPECT_EQ(hive.SizeAt(48), 4048);
    EXPECT_EQ(hive.SizeAt(4128), 4064);
}

TEST(FreeCell, CellOutsideEveryBinOnlyTurnsPositive) {
    HiveBuilder builder;
    Cells(builder, {-16, 16, -16});
    builder.SetBinSize(0, 0);  // FindBin can place nothing
    HiveOverFile hive(builder.Build());
    Tamvik::CellRef cell = hive->GetCell(32);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_FALSE(cell.IsValid());
    EXPECT_EQ(hive.SizeAt(32), 16);
    EXPECT_EQ(hive.SizeAt(48), 16);
}

TEST(FreeCell, ChangesNeitherBinsSizeNorTheBaseBlock) {
    HiveBuilder builder;
    Cells(builder, {16, -24, 40, -16});
    HiveOverFile hive(builder.Build());
    const Bytes before = hive.Disk();
    Tamvik::FreeCellAt(hive.get(), 48);
    const Bytes after = hive.Disk();
    EXPECT_EQ(after.size(), before.size());
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + 4096, after.begin()));
    EXPECT_EQ(hive->BinsSize(), 4096u);
    EXPECT_EQ(hive.SizeAt(32), 80);
}

TEST(FreeCellAt, IgnoresWhatIsNoAllocatedCell) {
    HiveBuilder builder;
    Cells(builder, {16, -24, 40, -16});
    HiveOverFile hive(builder.Build());
    const Bytes before = hive.Disk();
    for (std::uint32_t offset : {0u, 36u, 32u, 72u, 4096u, 0xFFFFFFFFu}) Tamvik::FreeCellAt(hive.get(), offset);
    EXPECT_EQ(hive.Disk(), before);
}

// The second layout: freeing also mends the PrevLink of the cell behind.
class SecondLayoutFree : public ::testing::Test {
protected:
    // Lays the cells into a second bin, so that links relative to the bin differ from area offsets.
    HiveBuilder InSecondBin(std::initializer_list<std::int32_t> sizes) {
        HiveBuilder builder(1);
        Cells(builder, {-4064});
        builder.AddBin();
        Cells(builder, sizes);
        return builder;
    }
    static constexpr std::uint32_t kBin = 4096;
};

TEST_F(SecondLayoutFree, ForwardMergeRelinksTheCellBehind) {
    HiveOverFile hive(InSecondBin({-16, -24, 40, -16}).Build());  // 4128, 4144, 4168, 4208
    ASSERT_EQ(hive.WordAt(4208 + 4), 4168u - kBin);
    Tamvik::CellRef cell = hive->GetCell(4144);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_EQ(hive.SizeAt(4144), 64);
    EXPECT_EQ(hive.WordAt(4208 + 4), 4144u - kBin);
    EXPECT_EQ(hive.SizeAt(4208), -16);
    EXPECT_EQ(hive.WordAt(4144 + 4), 4128u - kBin) << "the freed cell keeps its own link";
}

TEST_F(SecondLayoutFree, BackwardMergeRelinksTheCellBehind) {
    HiveOverFile hive(InSecondBin({16, -24, -16}).Build());  // 4128, 4144, 4168
    Tamvik::CellRef cell = hive->GetCell(4144);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_EQ(hive.SizeAt(4128), 40);
    EXPECT_EQ(hive.WordAt(4168 + 4), 4128u - kBin);
}

TEST_F(SecondLayoutFree, MergeBothWaysRelinksToThePrecedingCell) {
    HiveOverFile hive(InSecondBin({16, -24, 40, -16}).Build());  // 4128, 4144, 4168, 4208
    Tamvik::CellRef cell = hive->GetCell(4144);
    Tamvik::FreeCell(cell, hive.get());
    EXPECT_EQ(hive.SizeAt(4128), 80);
    EXPECT_EQ(hive.WordAt(4208 + 4), 4128u - kBin);
    EXPECT_EQ(hive.SizeAt(4208), -16);
    EXPECT_EQ(hive.WordAt(4128 + 4), 0xFFFFFFFFu) << "the first cell stays first";
}

TEST_F(SecondLayoutFree, NoCellBehindMeansNoLinkToMend) {
    // The freed cell merges with the bin's closing free cell: nothing lies behind.
    HiveOverFile hive(InSecondBin({-16, -24}).Build());  // 4128, 4144, free from 4168 to the end
    const Bytes before = hive.Disk();
    Tamvik::CellRef cell = hive->GetCell(4144);
    Tamvik::FreeCell(cell, hive.get());
    const Bytes after = hive.Disk();
    EXPECT_EQ(Tamvik::LoadI32(&after[4096 + 4144]), 8192 - 4144);
    EXPECT_EQ(after.size(), before.size());
    // Only the freed cell's size field changed.
    for (std::size_t i = 0; i < after.size(); ++i) {
        if (i >= 4096 + 4144 && i < 4096 + 4148) continue;
        ASSERT_EQ(after[i], before[i]) << "file byte " << i;
    }
}

}  // namespace
