// Creating values through RegSetValueNewW/A: vk and data cell sizes, the value
// list's growth and its stay-or-move threshold, the three data forms, the
// owner's counters, and refusals that must leave the file as it was.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/FailingStorage.h"
#include "support/HiveBuilder.h"

namespace {

using namespace RegAPI;
using TamvikTest::Bytes;
using TamvikTest::CountingBytes;
using TamvikTest::EditSession;
using TamvikTest::HiveBuilder;
using TamvikTest::HiveImage;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

constexpr std::uint32_t kNone = 0xFFFFFFFF;

TreeKey Named(const std::string& name) {
    TreeKey key;
    key.name = name;
    return key;
}

TreeValue Value(const std::string& name, const Bytes& data, std::uint32_t type = 3) {
    TreeValue value;
    value.name = name;
    value.data = data;
    value.type = type;
    return value;
}

// A root with one empty subkey "Empty" and the given values on "Full".
struct ValueHive {
    Bytes file;
    std::uint32_t empty = 0;
    std::uint32_t full = 0;
};
ValueHive MakeValueHive(const std::vector<TreeValue>& values, std::uint32_t minorVersion = 5) {
    TreeKey root = Named("Root");
    TreeKey full = Named("Full");
    full.values = values;
    root.subkeys = {Named("Empty"), full};
    HiveBuilder builder(minorVersion);
    builder.AddTree(root);
    ValueHive out;
    out.empty = builder.KeyOffset("Empty");
    out.full = builder.KeyOffset("Full");
    out.file = builder.Build();
    return out;
}

LONG AddBytes(HKEY key, const char16_t* name, const Bytes& data, DWORD type = 3) {
    return RegSetValueNewW(key, name, 0, type, data.data(), static_cast<DWORD>(data.size()));
}

// --- The records of a new value -------------------------------------------------------

TEST(EditAddValue, ValueCellsAndListCellsHaveTheirSizes) {
    ValueHive hive = MakeValueHive({});
    const char16_t* names[] = {u"Four", u"Fiver", u"Six", u"Sev"};
    // A fresh hive per count: the list's cell after 1, 2, 3 and 4 values.
    std::vector<std::int32_t> listSizes;
    for (std::size_t count = 1; count <= 4; ++count) {
        EditSession session(hive.file);
        HKEY key = session.Key(u"Empty");
        ASSERT_NE(key, nullptr);
        for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(AddBytes(key, names[i], {1, 2}), Result::Ok);
        session.Close();
        const HiveImage image = session.Image();
        listSizes.push_back(image.CellSize(image.U32(hive.empty, 0x28)));
        EXPECT_EQ(image.U32(hive.empty, 0x24), count);
        if (count == 4) {
            EXPECT_EQ(image.CellSize(image.FindValue(hive.empty, "Four")), -32) << "asked 28";
            EXPECT_EQ(image.CellSize(image.FindValue(hive.empty, "Fiver")), -40) << "asked 29";
        }
    }
    EXPECT_EQ(listSizes, (std::vector<std::int32_t>{-8, -16, -16, -24}));
}

TEST(EditAddValue, InlineUpToFourBytesAndCellsFromFive) {
    ValueHive hive = MakeValueHive({});
    EditSession session(hive.file);
    HKEY key = session.Key(u"Empty");
    ASSERT_NE(key, nullptr);
    ASSERT_EQ(AddBytes(key, u"In4", {9, 8, 7, 6}, 4), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"Cell5", {1, 2, 3, 4, 5}), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"Cell12", CountingBytes(12)), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"Cell13", CountingBytes(13)), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();

    const std::uint32_t in4 = image.FindValue(hive.empty, "In4");
    EXPECT_EQ(image.U32(in4, 0x04), 0x80000004u);
    EXPECT_EQ(image.PayloadBytes(in4, 0x08, 4), (Bytes{9, 8, 7, 6}));
    EXPECT_EQ(image.U32(in4, 0x0C), 4u);
    EXPECT_EQ(image.U16(in4, 0x10), 1u) << "narrow name flag";
    const std::uint32_t cell5 = image.FindValue(hive.empty, "Cell5");
    EXPECT_EQ(image.U32(cell5, 0x04), 5u);
    EXPECT_EQ(image.CellSize(image.U32(cell5, 0x08)), -16);
    EXPECT_EQ(image.ValueData(cell5), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(image.CellSize(image.U32(image.FindValue(hive.empty, "Cell12"), 0x08)), -16);
    EXPECT_EQ(image.CellSize(image.U32(image.FindValue(hive.empty, "Cell13"), 0x08)), -24);
    EXPECT_EQ(image.ValueData(image.FindValue(hive.empty, "Cell13")), CountingBytes(13));
    EXPECT_EQ(image.U32(hive.empty, 0x40), 13u);
    const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(session.file.Path());
    if (hivex.available) {
        EXPECT_TRUE(hivex.ok) << hivex.output;
    }
}

TEST(EditAddValue, NewValuesGoToTheEndOfTheListInTheOrderAdded) {
    ValueHive hive = MakeValueHive({});
    EditSession session(hive.file);
    HKEY key = session.Key(u"Empty");
    ASSERT_NE(key, nullptr);
    ASSERT_EQ(AddBytes(key, u"Z", {1}), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"A", {2}), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"M", {3}), Result::Ok);
    char16_t name[8] = {};
    DWORD length = 8;
    ASSERT_EQ(RegEnumValueW(key, 1, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(name), u"A");
    session.Close();
    const HiveImage image = session.Image();
    std::vector<std::uint8_t> order;
    for (std::uint32_t vk : image.Values(hive.empty)) order.push_back(image.PayloadBytes(vk, 0x14, 1)[0]);
    EXPECT_EQ(order, (std::vector<std::uint8_t>{'Z', 'A', 'M'}));
}

TEST(EditAddValue, OwnerCountersRiseButNeverFall) {
    ValueHive hive = MakeValueHive({Value("Abcd", {1, 2})});
    EditSession session(hive.file);
    HKEY empty = session.Key(u"Empty");
    ASSERT_NE(empty, nullptr);
    ASSERT_EQ(AddBytes(empty, u"Abc", {1, 2, 3}), Result::Ok);

    // Full: MaxValueName 8 from "Abcd"; a name of 5 bytes makes it 10, a shorter one leaves it.
    HKEY full = session.Key(u"Full");
    ASSERT_NE(full, nullptr);
    ASSERT_EQ(AddBytes(full, u"Fiver", {1}), Result::Ok);
    ASSERT_EQ(AddBytes(full, u"Ab", CountingBytes(7)), Result::Ok);
    ASSERT_EQ(AddBytes(full, u"Cd", {1}), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(hive.empty, 0x40), 3u) << "inline data counts too";
    EXPECT_EQ(image.U32(hive.empty, 0x3C), 6u);
    EXPECT_EQ(image.U32(hive.full, 0x3C), 10u);
    EXPECT_EQ(image.U32(hive.full, 0x40), 7u);
    EXPECT_EQ(image.U32(hive.full, 0x24), 4u);
}

TEST(EditAddValue, OwnerTimestampStays) {
    TreeKey root = Named("Root");
    root.subkeys = {Named("Stamped")};
    HiveBuilder builder;
    builder.AddTree(root);
    const std::uint32_t stamped = builder.KeyOffset("Stamped");
    builder.PatchU32(stamped, 0x04, 0x12345678);
    builder.PatchU32(stamped, 0x08, 0x01D00000);
    EditSession session(builder.Build());
    HKEY key = session.Key(u"Stamped");
    ASSERT_NE(key, nullptr);
    ASSERT_EQ(AddBytes(key, u"V", CountingBytes(40)), Result::Ok);
    session.Close();
    EXPECT_EQ(session.Image().U64(stamped, 0x04), 0x01D0000012345678ull);
}

// --- Stay or move: the capacity test of the value list ---------------------------------

// "Full" with the values A and B in a value list cell of the chosen size.
struct SizedListHive {
    Bytes file;
    std::uint32_t key = 0;
    std::uint32_t list = 0;
};
SizedListHive ValueListInCell(std::uint32_t cellSize) {
    HiveBuilder builder;
    // A free cell ahead of everything: a list that moves lands there (first fit),
    // so a move can't be mistaken for a rewrite in place.
    builder.AddFreeCell(16);
    TamvikTest::NkFields root;
    root.name = "Root";
    const std::uint32_t rootCell = builder.AddNk(root);
    TamvikTest::VkFields value;
    value.name = "A";
    value.dataLength = 0x80000001;
    const std::uint32_t a = builder.AddVk(value);
    value.name = "B";
    const std::uint32_t b = builder.AddVk(value);
    SizedListHive out;
    out.key = rootCell;
    out.list = builder.AddValueList({a, b}, cellSize);
    builder.PatchPayload(out.list, 8, Bytes(cellSize - 12, 0xEE));
    builder.PatchU32(rootCell, 0x24, 2);
    builder.PatchU32(rootCell, 0x28, out.list);
    builder.SetRoot(rootCell);
    out.file = builder.Build();
    return out;
}

TEST(EditAddValue, ListOfTwoInSixteenBytesMovesThoughTheEntryWouldFit) {
    SizedListHive hive = ValueListInCell(16);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(AddBytes(root, u"C", {3}), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t list = image.U32(hive.key, 0x28);
    EXPECT_NE(list, hive.list);
    EXPECT_GT(image.CellSize(hive.list), 0);
    EXPECT_EQ(image.CellSize(list), -16);
    EXPECT_EQ(image.Values(hive.key).size(), 3u);
    EXPECT_NE(image.FindValue(hive.key, "A"), kNone);
    EXPECT_NE(image.FindValue(hive.key, "C"), kNone);
}

TEST(EditAddValue, ListOfTwoInTwentyFourBytesIsRewrittenInPlace) {
    SizedListHive hive = ValueListInCell(24);
    EditSession session(hive.file);
    HKEY root = session.Key(u"");
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(AddBytes(root, u"C", {3}), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.U32(hive.key, 0x28), hive.list);
    EXPECT_EQ(image.CellSize(hive.list), -24);
    ASSERT_EQ(image.Values(hive.key).size(), 3u);
    EXPECT_EQ(image.PayloadBytes(image.Values(hive.key)[2], 0x14, 1), Bytes{'C'});
    EXPECT_EQ(image.PayloadBytes(hive.list, 12, 8), Bytes(8, 0)) << "the image beyond the entries is zero";
}

// --- Big data ----------------------------------------------------------------------

TEST(EditAddValue, BigDataBecomesADbWithSegmentsInNewerHives) {
    ValueHive hive = MakeValueHive({});
    EditSession session(hive.file);
    HKEY key = session.Key(u"Empty");
    ASSERT_NE(key, nullptr);
    const Bytes big = CountingBytes(40000, 5);
    ASSERT_EQ(AddBytes(key, u"Big", big), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"Edge", CountingBytes(16345, 6)), Result::Ok);
    ASSERT_EQ(AddBytes(key, u"Plain", CountingBytes(16344, 7)), Result::Ok);
    Bytes back(40000);
    DWORD size = 40000;
    DWORD type = 0;
    ASSERT_EQ(RegQueryValueExW(key, u"BIG", nullptr, &type, back.data(), &size), Result::Ok);
    EXPECT_EQ(back, big);
    session.Close();
    const HiveImage image = session.Image();

    const std::uint32_t bigVk = image.FindValue(hive.empty, "Big");
    EXPECT_EQ(image.U32(bigVk, 0x04), 40000u);
    const std::uint32_t db = image.U32(bigVk, 0x08);
    ASSERT_EQ(image.Signature(db), "db");
    EXPECT_EQ(image.U16(db, 2), 3u);
    const std::uint32_t segments = image.U32(db, 4);
    EXPECT_EQ(image.CellSize(image.U32(segments, 0)), -16352) << "16344 bytes of segment";
    EXPECT_EQ(image.ValueData(bigVk), big);

    const std::uint32_t edge = image.FindValue(hive.empty, "Edge");
    ASSERT_EQ(image.Signature(image.U32(edge, 0x08)), "db");
    EXPECT_EQ(image.U16(image.U32(edge, 0x08), 2), 2u);
    EXPECT_EQ(image.ValueData(edge), CountingBytes(16345, 6));

    const std::uint32_t plain = image.FindValue(hive.empty, "Plain");
    EXPECT_EQ(image.CellSize(image.U32(plain, 0x08)), -16352) << "up to 16344 bytes one plain cell";
    EXPECT_EQ(image.ValueData(plain), CountingBytes(16344, 7));
    const TamvikTest::HivexVerdict hivex = TamvikTest::HivexWalk(session.file.Path());
    if (hivex.available) {
        EXPECT_TRUE(hivex.ok) << hivex.output;
    }
}

TEST(EditAddValue, BigDataIsOneCellInVersionThree) {
    ValueHive hive = MakeValueHive({}, 3);
    EditSession session(hive.file);
    HKEY key = session.Key(u"Empty");
    ASSERT_NE(key, nullptr);
    ASSERT_EQ(AddBytes(key, u"Big", CountingBytes(20000)), Result::Ok);
    session.Close();
    const HiveImage image = session.Image();
    const std::uint32_t vk = image.FindValue(hive.empty, "Big");
    EXPECT_EQ(image.CellSize(image.U32(vk, 0x08)), -20008);
    EXPECT_EQ(image.ValueData(vk), CountingBytes(20000));
}

// --- Refusals ------------------------------------------------------------------------------

TEST(EditAddValue, RefusalsLeaveEveryByte) {
    ValueHive hive = MakeValueHive({Value("Have", {1, 2, 3, 4, 5, 6})});
    EditSession session(hive.file);
    HKEY full = session.Key(u"Full");
    ASSERT_NE(full, nullptr);
    const Bytes data = {7, 7};
    EXPECT_EQ(AddBytes(full, u"hAVE", data), Result::AlreadyExists);
    EXPECT_EQ(RegSetValueNewA(full, "HAVE", 0, 3, data.data(), 2), Result::AlreadyExists);
    EXPECT_EQ(RegSetValueNewW(full, u"New", 0, 3, data.data(), 0), Result::Invalid);
    EXPECT_EQ(RegSetValueNewW(full, u"New", 0, 3, nullptr, 2), Result::Invalid);
    EXPECT_EQ(RegSetValueNewW(full, nullptr, 0, 3, data.data(), 2), Result::Invalid);
    EXPECT_EQ(RegSetValueNewW(full, u"", 0, 3, data.data(), 2), Result::Invalid) << "an empty name can't be created";
    EXPECT_EQ(RegSetValueNewW(session.hive, u"New", 0, 3, data.data(), 2), Result::Invalid);
    const std::u16string tooLong(65536, u'v');
    EXPECT_EQ(RegSetValueNewW(full, tooLong.c_str(), 0, 3, data.data(), 2), Result::Invalid);
    session.Close();
    EXPECT_EQ(session.file.Read(), hive.file);
}

TEST(EditAddValue, AfterTheLastValueWentANewOneIsFoundThroughTheSameHandle) {
    ValueHive hive = MakeValueHive({Value("Only", {1, 2, 3, 4, 5})});
    EditSession session(hive.file);
    HKEY full = session.Key(u"Full");
    ASSERT_NE(full, nullptr);
    ASSERT_EQ(RegDeleteValueW(full, u"Only"), Result::Ok);
    ASSERT_EQ(AddBytes(full, u"Next", {4, 3, 2, 1, 0}), Result::Ok);
    BYTE back[8] = {};
    DWORD size = sizeof back;
    ASSERT_EQ(RegQueryValueExW(full, u"NEXT", nullptr, nullptr, back, &size), Result::Ok);
    EXPECT_EQ(Bytes(back, back + size), (Bytes{4, 3, 2, 1, 0}));
    session.Close();
    const HiveImage image = session.Image();
    EXPECT_EQ(image.Values(hive.full).size(), 1u);
    EXPECT_EQ(image.CellSize(image.U32(hive.full, 0x28)), -8);
}

}  // namespace
