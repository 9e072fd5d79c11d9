// Reading a value's data: which of the three forms DataLength and the format
// version select, db records of several segments, and records that claim more
// than their cells hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "nodes/Data.h"
#include "nodes/MakeNode.h"
#include "nodes/Val.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using namespace Tamvik;
using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;
using TamvikTest::VkFields;

constexpr std::uint32_t kSegment = 16344;
constexpr std::uint8_t kUntouched = 0xEE;  // what a target holds where nothing may be copied

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
    std::unique_ptr<Val> Value(std::uint32_t vk) {
        return NarrowNode<Val>(MakeNode(hive_->GetCell(vk), hive_.get(), nullptr, CellKind::BySignature));
    }

private:
    TamvikTest::TempFile file_;
    FileStore* store_ = nullptr;
    std::unique_ptr<Hive> hive_;
};

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + i * 13 + i / 251);
    return b;
}

std::uint32_t AddValue(HiveBuilder& b, std::uint32_t dataLength, std::uint32_t dataCell) {
    VkFields fields;
    fields.name = "v";
    fields.dataLength = dataLength;
    fields.dataCell = dataCell;
    return b.AddVk(fields);
}

// Reads through ReadData into a target larger than needed; the bytes behind
// capacity show whether anything was written past it.
struct Outcome {
    bool ok;
    Bytes target;
};
Outcome Read(OpenedHive& h, std::uint32_t vk, std::uint32_t capacity, std::size_t room) {
    std::unique_ptr<Val> value = h.Value(vk);
    EXPECT_NE(value, nullptr);
    Outcome out{false, Bytes(room, kUntouched)};
    if (value != nullptr) out.ok = value->ReadData(h.hive(), out.target.data(), capacity);
    return out;
}

bool AllUntouched(const Bytes& b, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to && i < b.size(); ++i)
        if (b[i] != kUntouched) return false;
    return true;
}

TEST(NodeReadData, PlainCellAtSegmentSizeInEveryVersion) {
    for (std::uint32_t version : {3u, 5u}) {
        SCOPED_TRACE(version);
        HiveBuilder b(version);
        const Bytes data = Pattern(kSegment, 1);
        const std::uint32_t vk = AddValue(b, kSegment, b.AddData(data));
        OpenedHive h(b);
        Outcome out = Read(h, vk, kSegment, kSegment + 8);
        EXPECT_TRUE(out.ok);
        EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
        EXPECT_TRUE(AllUntouched(out.target, kSegment, kSegment + 8));
    }
}

TEST(NodeReadData, OneMoreByteIsBigDataFromVersionFour) {
    const Bytes data = Pattern(kSegment + 1, 2);
    {
        HiveBuilder b(5);
        const std::uint32_t vk = AddValue(b, kSegment + 1, b.AddBigData(data));
        OpenedHive h(b);
        Outcome out = Read(h, vk, kSegment + 1, kSegment + 9);
        EXPECT_TRUE(out.ok);
        EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
        EXPECT_TRUE(AllUntouched(out.target, kSegment + 1, kSegment + 9));
    }
    {
        HiveBuilder b(4);
        const std::uint32_t vk = AddValue(b, kSegment + 1, b.AddBigData(data));
        OpenedHive h(b);
        EXPECT_TRUE(Read(h, vk, kSegment + 1, kSegment + 1).ok);
    }
}

TEST(NodeReadData, LengthAloneChoosesTheForm) {
    // A plain cell of 16345 bytes behind a version-5 value is taken for a db
    // record: its first bytes name segment list 0, which is no cell.
    Bytes data = Pattern(kSegment + 1, 3);
    std::fill(data.begin(), data.begin() + 8, 0);
    HiveBuilder b(5);
    const std::uint32_t vk = AddValue(b, kSegment + 1, b.AddData(data));
    OpenedHive h(b);
    EXPECT_FALSE(Read(h, vk, kSegment + 1, kSegment + 1).ok);
}

TEST(NodeReadData, VersionThreeReadsLongDataAsOneCell) {
    const Bytes data = Pattern(kSegment + 1, 4);
    HiveBuilder b(3);
    const std::uint32_t plain = AddValue(b, kSegment + 1, b.AddData(data));
    // The same length behind a db record: read as a plain cell, the 16-byte
    // record is all there is, and nothing is copied past its 12 bytes.
    const std::uint32_t db = AddValue(b, kSegment + 1, b.AddBigData(data));
    OpenedHive h(b);
    Outcome out = Read(h, plain, kSegment + 1, kSegment + 1);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.target, data);
    out = Read(h, db, kSegment + 1, kSegment + 1);
    EXPECT_FALSE(out.ok);
    EXPECT_EQ(out.target[0], 'd');
    EXPECT_EQ(out.target[1], 'b');
    EXPECT_TRUE(AllUntouched(out.target, 12, kSegment + 1));
}

TEST(NodeReadData, SegmentsAreJoinedInOrder) {
    for (std::uint32_t length : {20000u, 2 * kSegment, 2 * kSegment + 1, 40000u}) {
        SCOPED_TRACE(length);
        const Bytes data = Pattern(length, static_cast<std::uint8_t>(length));
        HiveBuilder b(5);
        const std::uint32_t db = b.AddBigData(data);
        const std::uint32_t vk = AddValue(b, length, db);
        OpenedHive h(b);
        Outcome out = Read(h, vk, length, length + 16);
        EXPECT_TRUE(out.ok);
        EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
        EXPECT_TRUE(AllUntouched(out.target, length, length + 16));
    }
}

TEST(NodeReadData, DbWithoutSegmentsCopiesNothing) {
    HiveBuilder b(5);
    const std::uint32_t someCell = b.AddData(Pattern(16, 5));
    const std::uint32_t emptyDb = b.AddDb(0, someCell);
    const std::uint32_t noListDb = b.AddDb(0, 0xFFFFFFFF);
    const std::uint32_t withList = AddValue(b, kSegment + 1, emptyDb);
    const std::uint32_t withoutList = AddValue(b, kSegment + 1, noListDb);
    OpenedHive h(b);
    Outcome out = Read(h, withList, kSegment + 1, kSegment + 1);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, kSegment + 1));
    // A db emptied by a rewrite names no list at all, and can't be read.
    EXPECT_FALSE(Read(h, withoutList, kSegment + 1, kSegment + 1).ok);
}

TEST(NodeReadData, SurplusSegmentsStopAtTheLength) {
    const Bytes data = Pattern(3 * kSegment, 6);
    HiveBuilder b(5);
    const std::uint32_t db = b.AddBigData(data);  // three segments
    const std::uint32_t vk = AddValue(b, 20000, db);
    OpenedHive h(b);
    Outcome out = Read(h, vk, 20000, 20000 + 64);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + 20000, out.target.begin()));
    EXPECT_TRUE(AllUntouched(out.target, 20000, 20000 + 64));
}

TEST(NodeReadData, MissingSegmentsLeaveTheTail) {
    const Bytes data = Pattern(2 * kSegment, 7);
    HiveBuilder b(5);
    const std::uint32_t db = b.AddBigData(data);
    b.PatchU16(db, 2, 1);  // SegmentCount 1 for 32688 bytes
    const std::uint32_t vk = AddValue(b, 2 * kSegment, db);
    OpenedHive h(b);
    Outcome out = Read(h, vk, 2 * kSegment, 2 * kSegment);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + kSegment, out.target.begin()));
    EXPECT_TRUE(AllUntouched(out.target, kSegment, 2 * kSegment));
}

// Disabled: BigData::Read gives false here (SubDatList::GetAt refuses position 3
// and the read fails) instead of reading the three held segments and giving true.
TEST(NodeReadData, SegmentCountAboveListCellIsCut) {
    // Three segments in a list cell of exactly 16 bytes; SegmentCount claims five
    // for a length that would need four. The count is cut to the three entries
    // the cell holds, and the read then ends as one with too few segments.
    const Bytes data = Pattern(3 * kSegment, 8);
    HiveBuilder b(5);
    const std::uint32_t db = b.AddBigData(data);
    b.PatchU16(db, 2, 5);
    const std::uint32_t length = 3 * kSegment + 100;
    const std::uint32_t vk = AddValue(b, length, db);
    OpenedHive h(b);
    Outcome out = Read(h, vk, length, length);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
    EXPECT_TRUE(AllUntouched(out.target, 3 * kSegment, length));
    EXPECT_TRUE(out.ok);
}

TEST(NodeReadData, InlineLengthZeroLooksAtNothing) {
    HiveBuilder b(5);
    const std::uint32_t vk = AddValue(b, 0x80000000u, 0xDEADBEEF);
    OpenedHive h(b);
    Outcome out = Read(h, vk, 0, 8);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, 8));
    out = Read(h, vk, 100, 8);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, 8));
}

TEST(NodeReadData, InlineFourNeedsCapacityFour) {
    HiveBuilder b(5);
    const std::uint32_t vk = AddValue(b, 0x80000004u, 0x44332211);
    OpenedHive h(b);
    Outcome out = Read(h, vk, 3, 8);
    EXPECT_FALSE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, 8));
    out = Read(h, vk, 4, 8);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.target[0], 0x11);
    EXPECT_EQ(out.target[1], 0x22);
    EXPECT_EQ(out.target[2], 0x33);
    EXPECT_EQ(out.target[3], 0x44);
    EXPECT_TRUE(AllUntouched(out.target, 4, 8));
}

TEST(NodeReadData, InlineShorterThanFourCopiesOnlyItsLength) {
    HiveBuilder b(5);
    const std::uint32_t vk = AddValue(b, 0x80000002u, 0x44332211);
    OpenedHive h(b);
    Outcome out = Read(h, vk, 2, 8);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.target[0], 0x11);
    EXPECT_EQ(out.target[1], 0x22);
    EXPECT_TRUE(AllUntouched(out.target, 2, 8));
}

TEST(NodeReadData, InlineAboveFourCopiesTheFourBytesOfDataCell) {
    HiveBuilder b(5);
    const std::uint32_t vk = AddValue(b, 0x80000006u, 0x44332211);
    OpenedHive h(b);
    EXPECT_FALSE(Read(h, vk, 5, 8).ok);
    Outcome out = Read(h, vk, 6, 8);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.target[3], 0x44);
    EXPECT_TRUE(AllUntouched(out.target, 4, 8));
}

TEST(NodeReadData, LengthZeroStillNeedsAUsableCell) {
    HiveBuilder b(5);
    const std::uint32_t none = AddValue(b, 0, 0xFFFFFFFF);
    const std::uint32_t odd = AddValue(b, 0, 0x1234);
    const std::uint32_t freeCell = AddValue(b, 0, b.AddCell(Bytes(4, 0), false, 16));
    const std::uint32_t usable = AddValue(b, 0, b.AddData(Pattern(8, 9)));
    OpenedHive h(b);
    EXPECT_FALSE(Read(h, none, 16, 16).ok);
    EXPECT_FALSE(Read(h, odd, 16, 16).ok);
    EXPECT_FALSE(Read(h, freeCell, 16, 16).ok);
    Outcome out = Read(h, usable, 0, 16);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, 16));
}

TEST(NodeReadData, CapacityIsTestedBeforeTheCell) {
    HiveBuilder b(5);
    const Bytes data = Pattern(40, 10);
    const std::uint32_t vk = AddValue(b, 40, b.AddData(data));
    OpenedHive h(b);
    Outcome out = Read(h, vk, 39, 48);
    EXPECT_FALSE(out.ok);
    EXPECT_TRUE(AllUntouched(out.target, 0, 48));
    out = Read(h, vk, 40, 48);
    EXPECT_TRUE(out.ok);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
    EXPECT_TRUE(AllUntouched(out.target, 40, 48));
}

TEST(NodeReadData, PlainCellShorterThanLengthStaysInside) {
    HiveBuilder b(5);
    const Bytes data = Pattern(12, 11);
    const std::uint32_t vk = AddValue(b, 100, b.AddData(data));  // a 16-byte cell, 12 bytes of data
    OpenedHive h(b);
    Outcome out = Read(h, vk, 100, 128);
    EXPECT_FALSE(out.ok);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), out.target.begin()));
    EXPECT_TRUE(AllUntouched(out.target, 12, 128));
}

TEST(NodeReadData, FirstLayoutReadsDataBehindThePrevLink) {
    HiveBuilder b(1);
    const Bytes data = Pattern(10, 12);
    const std::uint32_t vk = AddValue(b, 10, b.AddData(data));
    OpenedHive h(b);
    Outcome out = Read(h, vk, 10, 10);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.target, data);
}

TEST(NodeReadData, SegmentListEntriesPastTheCellGiveNoSegment) {
    HiveBuilder b(5);
    const std::uint32_t seg = b.AddData(Pattern(32, 13));
    const std::uint32_t list = b.AddSegmentList({seg, seg, seg});  // 16 bytes, three entries
    const std::uint32_t db = b.AddDb(3, list);
    OpenedHive h(b);
    std::unique_ptr<BigData> big =
        NarrowNode<BigData>(MakeNode(h.hive()->GetCell(db), h.hive(), nullptr, CellKind::BigDataRecord));
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->SegmentCount(), 3u);
    std::unique_ptr<SubDatList> segments = big->GetSegmentList(h.hive());
    ASSERT_NE(segments, nullptr);
    EXPECT_EQ(segments->GetParent(), big.get());
    EXPECT_NE(segments->GetAt(h.hive(), 2), nullptr);
    EXPECT_EQ(segments->GetAt(h.hive(), 3), nullptr);
    EXPECT_EQ(segments->GetAt(h.hive(), 0xFFFFFFFF), nullptr);
}

}  // namespace
