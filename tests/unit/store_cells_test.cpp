// What a Hive answers about cells and bins: the bounds of GetCell, the walk of
// FindBin, and the neighbours of a cell inside its bin.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "store/Allocator.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;

// The file operations with a count of the reads that reach them, so that a
// test can tell a refused offset from a failed read.
struct CountingStore {
    Tamvik::FileStore* store = nullptr;
    int reads = 0;

    static bool Seek(void* context, std::uint64_t* position, std::uint32_t origin) {
        return Tamvik::FileSeek(static_cast<CountingStore*>(context)->store, position, origin);
    }
    static bool Read(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
        auto* self = static_cast<CountingStore*>(context);
        ++self->reads;
        return Tamvik::FileRead(self->store, buffer, elementSize, count);
    }
    static bool Write(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
        return Tamvik::FileWrite(static_cast<CountingStore*>(context)->store, buffer, elementSize, count);
    }
};

// A Hive constructed straight over a temporary copy of some bytes, its reads counted.
class HiveOverFile {
public:
    explicit HiveOverFile(const Bytes& bytes) : file_(bytes) {
        counter_.store = Tamvik::OpenFileStore(file_.Path().c_str(), "r+b");
        if (counter_.store == nullptr) throw std::runtime_error("can't open " + file_.Path());
        hive_ = std::make_unique<Tamvik::Hive>(file_.WidePath(), &counter_, &CountingStore::Seek,
                                               &CountingStore::Read, &CountingStore::Write);
    }
    ~HiveOverFile() {
        hive_.reset();
        Tamvik::CloseFileStore(counter_.store);
    }
    Tamvik::Hive* operator->() { return hive_.get(); }
    Tamvik::Hive* get() { return hive_.get(); }
    int Reads() const { return counter_.reads; }

private:
    TamvikTest::TempFile file_;
    CountingStore counter_;
    std::unique_ptr<Tamvik::Hive> hive_;
};

// One bin of 4096 bytes: an allocated cell at 32 with a known payload, a free one at 48.
HiveBuilder OneBin() {
    HiveBuilder builder;
    builder.AddCell({0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});  // 16 bytes at 32
    builder.AddFreeCell(16);                                             // at 48
    return builder;
}

TEST(GetCell, OffsetsBelowThirtyTwoOrUnalignedAreRefusedWithoutARead) {
    HiveOverFile hive(OneBin().Build());
    const int before = hive.Reads();
    for (std::uint32_t offset : {0u, 8u, 24u, 31u, 36u, 33u, 4096u, 4104u, 0xFFFFFFFFu, 0xFFFFFFF8u}) {
        EXPECT_FALSE(hive->GetCell(offset).IsValid()) << "offset " << offset;
    }
    EXPECT_EQ(hive.Reads(), before) << "a refused offset must not be read";
}

TEST(GetCell, GivesSizeAndTheTwoWordsBehindIt) {
    HiveOverFile hive(OneBin().Build());
    Tamvik::CellRef cell = hive->GetCell(32);
    ASSERT_TRUE(cell.IsUsable());
    EXPECT_EQ(cell.offset, 32u);
    EXPECT_EQ(cell.size, -16);
    EXPECT_EQ(cell.word1, 0x44332211u);
    EXPECT_EQ(cell.word2, 0x88776655u);
    EXPECT_EQ(cell.storage, &hive->storage);

    // A free cell is valid too; only its sign tells it apart.
    Tamvik::CellRef free = hive->GetCell(48);
    EXPECT_TRUE(free.IsValid());
    EXPECT_FALSE(free.IsUsable());
    EXPECT_EQ(free.size, 16);

    // Any aligned offset inside a cell is read as one: GetCell doesn't walk.
    EXPECT_TRUE(hive->GetCell(4080).IsValid());
}

TEST(GetCell, LessThanTwelveBytesLeftInTheFileIsMissing) {
    HiveBuilder builder = OneBin();
    builder.SetBinsSizeOverride(8192);  // claims a second bin that the file lacks
    HiveOverFile hive(builder.Build());
    EXPECT_TRUE(hive->GetCell(4080).IsValid());   // exactly 16 bytes left
    EXPECT_FALSE(hive->GetCell(4088).IsValid());  // 8 bytes left
    EXPECT_FALSE(hive->GetCell(4096).IsValid());  // nothing left
}

TEST(GetCell, SecondLayoutGivesThePrevLinkAsFirstWord) {
    HiveBuilder builder(1);
    builder.AddCell(Bytes(8, 0));   // 16 bytes at 32
    builder.AddCell(Bytes(8, 0));   // at 48
    HiveOverFile hive(builder.Build());
    EXPECT_EQ(hive->GetCell(32).word1, 0xFFFFFFFFu);
    // Counted from the bin's start, so the first cell of the bin is 32.
    EXPECT_EQ(hive->GetCell(48).word1, 32u);
    EXPECT_EQ(hive->GetCell(64).word1, 48u);
}

// Three bins of 4096, 8192 and 4096 bytes, each with a cell at its start.
HiveBuilder ThreeBins() {
    HiveBuilder builder;
    builder.AddCell(Bytes(8, 1));
    builder.AddBin(8192);
    builder.AddCell(Bytes(8, 2));
    builder.AddBin(4096);
    builder.AddCell(Bytes(8, 3));
    return builder;
}

Tamvik::CellRef At(std::uint32_t offset) {
    Tamvik::CellRef cell;
    cell.offset = offset;
    return cell;
}

TEST(FindBin, PlacesCellsInEachOfSeveralBins) {
    HiveOverFile hive(ThreeBins().Build());
    struct Case {
        std::uint32_t cell, bin, size;
    };
    for (Case c : {Case{32, 0, 4096}, Case{4088, 0, 4096}, Case{4096, 4096, 8192}, Case{4128, 4096, 8192},
                   Case{12280, 4096, 8192}, Case{12288, 12288, 4096}, Case{16376, 12288, 4096}}) {
        Tamvik::BinRef bin = hive->FindBin(At(c.cell));
        ASSERT_TRUE(bin.IsValid()) << "cell " << c.cell;
        EXPECT_EQ(bin.offset, c.bin) << "cell " << c.cell;
        EXPECT_EQ(bin.BinOffset(), c.bin);
        EXPECT_EQ(bin.BinSize(), c.size);
        EXPECT_EQ(bin.Signature(), 0x6E696268u);
    }
    EXPECT_FALSE(hive->FindBin(At(16384)).IsValid());
    EXPECT_FALSE(hive->FindBin(At(0xFFFFFFF0)).IsValid());
}

TEST(FindBin, EmptyBinsAreaGivesNothingWithoutARead) {
    HiveBuilder builder = ThreeBins();
    builder.SetBinsSizeOverride(0);
    HiveOverFile hive(builder.Build());
    const int before = hive.Reads();
    EXPECT_FALSE(hive->FindBin(At(32)).IsValid());
    EXPECT_EQ(hive.Reads(), before);
}

TEST(FindBin, ZeroBinSizeEndsTheWalk) {
    // In the first bin: nothing behind it can be reached.
    {
        HiveBuilder builder = ThreeBins();
        builder.SetBinSize(0, 0);
        HiveOverFile hive(builder.Build());
        EXPECT_FALSE(hive->FindBin(At(32)).IsValid());
        EXPECT_FALSE(hive->FindBin(At(4128)).IsValid());
    }
    // In the middle bin: the first is still found, the last one isn't.
    HiveBuilder builder = ThreeBins();
    builder.SetBinSize(4096, 0);
    HiveOverFile hive(builder.Build());
    EXPECT_TRUE(hive->FindBin(At(32)).IsValid());
    EXPECT_FALSE(hive->FindBin(At(12320)).IsValid());
}

TEST(FindBin, JudgesByTheHeaderFieldsNotByTheWalk) {
    HiveBuilder builder = ThreeBins();
    // The second bin claims to start at 8192: the cell at 4128, though the walk
    // passes over it, lies in none of the stated ranges.
    builder.PatchArea(4096 + 4, {0x00, 0x20, 0, 0});
    HiveOverFile hive(builder.Build());
    EXPECT_FALSE(hive->FindBin(At(4128)).IsValid());
    EXPECT_TRUE(hive->FindBin(At(32)).IsValid());
}

TEST(GetBin, GivesWhateverStandsThere) {
    HiveOverFile hive(ThreeBins().Build());
    // Not a bin header, but 32 bytes can be read.
    Tamvik::BinRef odd = hive->GetBin(32);
    EXPECT_TRUE(odd.IsValid());
    EXPECT_NE(odd.Signature(), 0x6E696268u);
    EXPECT_FALSE(hive->GetBin(0xFFFFFFFF).IsValid());
    EXPECT_FALSE(hive->GetBin(16384).IsValid());  // behind the end of the file
}

// A bin of [16 alloc][24 free][16 alloc][rest free] at 32, 48, 72, 88.
TEST(Neighbours, StayInsideTheBin) {
    HiveBuilder builder;
    builder.AddCell(Bytes(8, 0));
    builder.AddFreeCell(24);
    builder.AddCell(Bytes(8, 0));
    builder.AddBin();
    builder.AddFreeCell(64);
    HiveOverFile hive(builder.Build());
    Tamvik::Hive* h = hive.get();

    Tamvik::BinRef first = h->FindBin(At(32));
    Tamvik::CellRef cell = h->GetCell(48);
    EXPECT_EQ(Tamvik::NextCell(first, h, cell).offset, 72u);
    EXPECT_EQ(Tamvik::PrevCell(first, h, cell).offset, 32u);
    EXPECT_EQ(Tamvik::PrevCell(first, h, h->GetCell(88)).offset, 72u);
    EXPECT_FALSE(Tamvik::PrevCell(first, h, h->GetCell(32)).IsValid());

    // The closing free cell of the first bin has no next, though the next bin starts free.
    Tamvik::CellRef last = h->GetCell(88);
    ASSERT_EQ(last.size, 4096 - 88);
    EXPECT_FALSE(Tamvik::NextCell(first, h, last).IsValid());
    Tamvik::BinRef second = h->FindBin(At(4128));
    EXPECT_FALSE(Tamvik::PrevCell(second, h, h->GetCell(4128)).IsValid());
}

TEST(Neighbours, SecondLayoutFollowsTheLink) {
    HiveBuilder builder(1);
    builder.AddBin();
    builder.AddCell(Bytes(8, 0));   // 16 bytes at 32
    builder.AddCell(Bytes(24, 0));  // 32 bytes at 48
    builder.AddCell(Bytes(8, 0));   // at 80
    HiveOverFile hive(builder.Build());
    Tamvik::Hive* h = hive.get();
    Tamvik::BinRef bin = h->FindBin(At(80));
    EXPECT_EQ(Tamvik::PrevCell(bin, h, h->GetCell(80)).offset, 48u);
    EXPECT_EQ(Tamvik::PrevCell(bin, h, h->GetCell(48)).offset, 32u);
    EXPECT_FALSE(Tamvik::PrevCell(bin, h, h->GetCell(32)).IsValid());
}

}  // namespace
