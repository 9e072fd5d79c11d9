// Guards reading: every form a value's data takes (inline, one cell, db
// segments, and damaged variants of each), names in both forms, the four
// subkey list kinds and their damage, counts, and how data reaches a buffer.
#include <gtest/gtest.h>

#include "store/Format.h"
#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/Peers.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;
using Tamvik::kInlineData;

Bytes Pattern(std::size_t size, int seed = 1) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + seed);
    return data;
}

std::string Line(const std::string& name, int type, const Bytes& data) {
    return "V\t\\\t" + name + "\t" + std::to_string(type) + "\t" + HexBytes(data);
}

Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Every way a value's data can stand, sound and damaged, in one root key; the
// walk reads each by position and by name. Lines and problems are what a
// caller sees.
TEST(Read, EveryFormOfValueData) {
    HiveBuilder b;
    std::vector<std::uint32_t> values;
    auto value = [&](const char* name, std::uint32_t length, std::uint32_t cell, std::uint32_t type = 3) {
        values.push_back(b.AddVk({name, length, cell, type}));
    };
    value("in0", kInlineData, 0xAABBCCDD);
    value("in3", kInlineData | 3, 0x09030201);
    value("in4", kInlineData | 4, 0x04030201, 4);
    value("in6", kInlineData | 6, 0x04030201);  // more than the field holds
    value("cell5", 5, b.AddCell(Pattern(5)));
    value("at16344", 16344, b.AddCell(Pattern(16344)));  // the last length a plain cell takes
    value("db16345", 16345, b.AddBigData(Pattern(16345)));
    value("db40000", 40000, b.AddBigData(Pattern(40000)));
    const std::uint32_t seg = b.AddCell(Pattern(16344)), seg2 = b.AddCell(Pattern(16344, 2));
    value("surplusSegments", 16400, b.AddDb(3, b.AddOffsets({seg, seg2, seg})));
    value("missingSegment", 40000, b.AddDb(2, b.AddOffsets({seg, seg2})));
    value("countPastList", 40000, b.AddDb(200, b.AddOffsets({seg, seg2, seg})));
    value("listCutsCount", 60000, b.AddDb(200, b.AddOffsets({seg, seg2, seg})));
    value("noSegments", 20000, b.AddDb(0, b.AddOffsets({seg})));
    value("noList", 20000, b.AddDb(0, 0xFFFFFFFF));
    value("shortCell", 100, b.AddCell(Pattern(12)));
    value("zeroNoCell", 0, 0xFFFFFFFF);
    value("freeCell", 8, b.AddCell(Pattern(8), false));
    value("unaligned", 8, 0x44);
    value("badSegment", 20000, b.AddDb(2, b.AddOffsets({seg, 0x44})));
    value("shortSegment", 20000, b.AddDb(2, b.AddOffsets({seg, b.AddCell(Pattern(100))})));
    const std::uint32_t root = b.AddNk({"ROOT", 0x2C, 0, 0xFFFFFFFF, static_cast<std::uint32_t>(values.size()),
                                        b.AddOffsets(values)});
    b.SetRoot(root);
    TestHive test(b);
    const Listing listing = ListKey(test.hive);
    const Bytes one = Pattern(16344), both = Concat(one, Pattern(16344, 2));
    const std::vector<std::string> expected = {
        "K\t\\",
        Line("in0", 3, {}),
        Line("in3", 3, {1, 2, 3}),
        Line("in4", 4, {1, 2, 3, 4}),
        Line("in6", 3, {1, 2, 3, 4, 0, 0}),
        Line("cell5", 3, Pattern(5)),
        Line("at16344", 3, Pattern(16344)),
        Line("db16345", 3, Pattern(16345)),
        Line("db40000", 3, Pattern(40000)),
        Line("surplusSegments", 3, Bytes(both.begin(), both.begin() + 16400)),
        Line("missingSegment", 3, Concat(both, Bytes(40000 - both.size(), 0))),
        Line("countPastList", 3, Concat(both, Bytes(one.begin(), one.begin() + 7312))),
        Line("listCutsCount", 3, Concat(Concat(both, one), Bytes(60000 - 3 * one.size(), 0))),
        Line("noSegments", 3, Bytes(20000, 0)),
        Line("zeroNoCell", 3, {}),
    };
    EXPECT_EQ(CompareListings(expected, listing.lines, "ours"), "");
    const std::vector<std::string> problems = {
        "\\: RegEnumValueW read #13 gave 234",  // a db without a segment list
        "\\: RegEnumValueW read #14 gave 234",  // a cell shorter than its length
        "\\: RegEnumValueW read #16 gave 234",  // a free data cell
        "\\: RegEnumValueW read #17 gave 234",  // no cell starts there
        "\\: RegEnumValueW read #18 gave 234",  // a segment that isn't a cell
        "\\: RegEnumValueW read #19 gave 234",  // a segment shorter than its share
    };
    EXPECT_EQ(listing.problems, problems);
    // With a buffer, a length of 0 still needs a usable cell; without one it doesn't.
    HKEY key = test.Key();
    BYTE data[4];
    DWORD size = 4;
    EXPECT_EQ(RegQueryValueExW(key, u"zeroNoCell", 0, 0, data, &size), Result::MoreData);
    EXPECT_EQ(RegQueryValueExW(key, u"zeroNoCell", 0, 0, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 0u);
}

// The same lengths in a hive of version 1.3, where no length means a db.
TEST(Read, VersionThreeKnowsNoDb) {
    HiveBuilder b(3);
    TreeKey root{"ROOT", {{"big", 3, Pattern(40000)}, {"line", 3, Pattern(16345)}}};
    b.AddTree(root);
    TestHive test(b);
    const Listing listing = ListKey(test.hive);
    EXPECT_EQ(listing.lines, (std::vector<std::string>{"K\t\\", Line("big", 3, Pattern(40000)),
                                                       Line("line", 3, Pattern(16345))}));
    EXPECT_TRUE(listing.problems.empty());
}

// What reaches the caller's variables for each combination of buffer and size.
TEST(Read, DeliverFillsTypeDataAndSize) {
    HiveBuilder b;
    b.AddTree(TreeKey{"ROOT", {{"v", 1, {'a', 0, 'b', 0, 0, 0}}}});
    TestHive test(b);
    HKEY key = test.Key();
    struct Case {
        bool withData, withSize;
        DWORD capacity;
        LONG result;
        DWORD size;       // *dataSize after
        int bytesWritten;
    } cases[] = {
        {true, true, 6, 0, 6, 6},   {true, true, 100, 0, 6, 6}, {true, true, 5, 234, 5, 0},
        {false, true, 0, 0, 6, 0},  {false, true, 99, 0, 6, 0}, {true, false, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        for (bool byIndex : {false, true}) {
            BYTE data[8];
            std::fill(std::begin(data), std::end(data), 0xEE);
            DWORD type = 0, size = c.capacity, nameLength = 8;
            WCHAR name[8];
            const LONG rc = byIndex ? RegEnumValueW(key, 0, name, &nameLength, 0, &type, c.withData ? data : nullptr,
                                                    c.withSize ? &size : nullptr)
                                    : RegQueryValueExW(key, u"V", 0, &type, c.withData ? data : nullptr,
                                                       c.withSize ? &size : nullptr);
            const std::string what = "capacity " + std::to_string(c.capacity) + (byIndex ? " by index" : " by name");
            EXPECT_EQ(rc, c.result) << what;
            EXPECT_EQ(type, 1u) << what;
            if (c.withSize) {
                EXPECT_EQ(size, c.size) << what;
            }
            EXPECT_EQ(std::count(std::begin(data), std::end(data), 0xEE), 8 - c.bytesWritten) << what;
            if (byIndex) {
                EXPECT_EQ(std::u16string(name, nameLength), u"v") << "the name comes also with 234";
            }
        }
    }
    WCHAR name[2];
    DWORD nameLength = 1, size = 0;
    EXPECT_EQ(RegEnumValueW(key, 0, name, &nameLength, 0, 0, 0, &size), Result::Invalid) << "no room for the terminator";
    nameLength = 2;
    EXPECT_EQ(RegEnumValueW(key, 0, name, &nameLength, 0, 0, 0, &size), Result::Ok) << "room for name and terminator";
}

// Names: narrow bytes widen one to one, wide names drop an odd byte, the
// narrow bit is 0x20 in an nk and 1 in a vk, and a length past the cell is
// cut at the cell. Lookups compare in upper case, the first of two names
// equal but for case wins, and an empty name is a name.
TEST(Read, NamesAndLookups) {
    HiveBuilder b;
    std::vector<std::uint32_t> values = {
        b.AddVk({"\xC4", kInlineData | 1, 1}),
        b.AddVk({std::string("W\0i\0d", 5), kInlineData | 1, 2, 3, 0}),
        b.AddVk({"dup", kInlineData | 1, 3}),
        b.AddVk({"DUP", kInlineData | 1, 4}),
        b.AddVk({"", kInlineData | 1, 5}),
        b.AddVk({"cut", kInlineData | 1, 6, 3, 1, 200}),
    };
    std::vector<std::uint32_t> keys = {
        b.AddNk({"Narrow\xE9"}),
        b.AddNk({std::string("K\0e\0y\0", 7), 0}),
        b.AddNk({""}),
        b.AddNk({"Long", 0x20, 0, 0, 0, 0, 0, 0, 0, 300}, 88),
    };
    const std::uint32_t root = b.AddNk({"ROOT", 0x2C, 4, b.AddList("lf", keys), 6, b.AddOffsets(values)});
    b.SetRoot(root);
    TestHive test(b);
    const Listing listing = ListKey(test.hive);
    // By name, "DUP" reaches "dup", the first of the two: the walk checks that.
    // "cut" runs to the end of its 32-byte cell, where 8 name bytes stand.
    const std::vector<std::string> expected = {
        "K\t\\",
        "V\t\\\tÄ\t3\t01",
        "V\t\\\tWi\t3\t02",
        "V\t\\\tdup\t3\t03",
        "V\t\\\tDUP\t3\t04",
        "V\t\\\t\t3\t05",
        "V\t\\\tcut%00%00%00%00%00\t3\t06",
        "K\t\\Narrowé",
        "K\t\\Key",
        "K\t\\",
        "K\t\\Long%00%00%00%00\tSKIP",
    };
    EXPECT_EQ(CompareListings(expected, listing.lines, "ours"), "");
    EXPECT_TRUE(listing.problems.empty()) << listing.problems[0];
    HKEY root_ = test.Key();
    WCHAR name[400];
    std::vector<std::u16string> names;
    for (DWORD i = 0; i < 4; ++i) {
        DWORD length = 400;
        ASSERT_EQ(RegEnumKeyExW(root_, i, name, &length, 0, 0, 0, 0), Result::Ok);
        names.emplace_back(name, length);
    }
    EXPECT_EQ(names[0], u"Narrow\u00E9");
    EXPECT_EQ(names[1], u"Key");
    EXPECT_EQ(names[2], u"");
    EXPECT_EQ(names[3].size(), 88u - 4 - Tamvik::NkField::Name) << "a name past its cell ends at the cell";
    EXPECT_NE(test.Key(u"narrow\u00E9"), nullptr);
    EXPECT_NE(test.Key(u"key"), nullptr);
    HKEY unnamed = nullptr;
    EXPECT_EQ(RegOpenKeyExW(root_, u"\\", 0, 0, &unnamed), Result::Ok) << "an empty component finds the empty name";
}

// Bytes behind BinsSize are no part of the hive, whatever they hold.
TEST(Read, BytesPastTheBinsAreNoCells) {
    HiveBuilder b;
    const std::uint32_t next = 4096 + 32;  // the first cell of the second bin
    b.SetRoot(b.AddNk({"ROOT", 0x2C, 0, 0xFFFFFFFF, 1, b.AddOffsets({next})}));
    b.CloseBin();
    b.AddBin();
    ASSERT_EQ(b.AddVk({"v", kInlineData | 1, 7}), next);
    b.SetBinsSize(4096);
    TestHive test(b);
    WCHAR name[4];
    DWORD length = 4, size = 0;
    EXPECT_EQ(RegEnumValueW(test.Key(), 0, name, &length, 0, 0, 0, &size), Result::Corrupt);
    EXPECT_EQ(RegQueryValueExW(test.Key(), u"v", 0, 0, 0, &size), Result::Invalid);
}

TEST(Read, InfoReportsTheRecordsCounters) {
    HiveBuilder b;
    const std::uint32_t root = b.AddTree(TreeKey{"ROOT", {{"v", 3, {1}}}, {TreeKey{"A"}}});
    b.Patch32(root, Tamvik::NkField::MaxSubKeyName, 0x7FFF000B);  // only the low 16 bits count, halved
    b.Patch32(root, Tamvik::NkField::MaxValueName, 0x00010021);
    b.Patch32(root, Tamvik::NkField::MaxValueData, 0xFFFFFFF0);
    TestHive test(b);
    DWORD sub = 9, maxSub = 9, values = 9, maxName = 9, maxData = 9;
    ASSERT_EQ(RegQueryInfoKeyW(test.Key(), 0, 0, 0, &sub, &maxSub, 0, &values, &maxName, &maxData, 0, 0), 0);
    EXPECT_EQ(std::vector<DWORD>({sub, maxSub, values, maxName, maxData}),
              std::vector<DWORD>({1, 5, 1, 16, 0xFFFFFFF0}));
    EXPECT_EQ(RegQueryInfoKeyW(test.Key(u"A"), 0, 0, 0, 0, 0, 0, &values, 0, 0, 0, 0), 0);
    EXPECT_EQ(values, 0u);
}

// The four list kinds, an ri over leaves of each kind, and the ways lists lie.
TEST(Read, SubkeyListsOfEveryKindAndTheirDamage) {
    HiveBuilder b;
    auto key = [&](const std::string& name) { return b.AddNk({name}); };
    auto parent = [&](const std::string& name, std::uint32_t count, std::uint32_t list) {
        return b.AddNk({name, 0x20, count, list});
    };
    const std::uint32_t k1 = key("k1"), k2 = key("k2"), k3 = key("k3"), notKey = b.AddCell(Pattern(90));
    const std::uint32_t lf = b.AddList("lf", {k1, k2}, {"k1", "k2"}), lh = b.AddList("lh", {k3}, {"k3"});
    const std::uint32_t selfRi = b.AddCell({}, true, 16);
    b.PatchArea(selfRi + 4, {'r', 'i', 1, 0});
    b.Patch32(selfRi, 4, selfRi);
    const std::uint32_t riOfRi = b.AddList("ri", {b.AddList("ri", {lf})});
    std::vector<std::uint32_t> parents = {
        parent("Ri", 3, b.AddList("ri", {lf, lh})),
        parent("Li", 3, b.AddList("li", {k1, k2, k3})),
        parent("Lh", 1, lh),
        parent("BadLeafFirst", 3, b.AddList("ri", {notKey, lf, lh})),  // the walk ends at it
        parent("BadKeyInLeaf", 3, b.AddList("ri", {b.AddList("lf", {notKey}), lf})),
        parent("RiOfRi", 2, riOfRi),
        parent("SelfRi", 1, selfRi),
        parent("CountAboveEntries", 3, lf),
        parent("CountBelowEntries", 1, lf),
        parent("CountPastCell", 3, b.AddList("lf", {k1}, {}, 0, 65535)),
        parent("Unreadable", 1, 0xFFFFFFF8),
    };
    b.SetRoot(b.AddNk({"ROOT", 0x2C, static_cast<std::uint32_t>(parents.size()), b.AddList("lf", parents)}));
    TestHive test(b);
    // The subkeys each enumeration gives, "!" for 1015, until the count ends.
    auto enumerate = [&](const std::u16string& path) {
        HKEY key = test.Key(path);
        std::string out;
        DWORD count = 0;
        if (key == nullptr || RegQueryInfoKeyW(key, 0, 0, 0, &count, 0, 0, 0, 0, 0, 0, 0) != 0) return std::string("?");
        for (DWORD i = 0; i < count; ++i) {
            WCHAR name[16];
            DWORD length = 16;
            const LONG rc = RegEnumKeyExW(key, i, name, &length, 0, 0, 0, 0);
            out += rc == 0 ? Utf8(std::u16string(name, length)) + " " : rc == Result::Corrupt ? "! " : "? ";
        }
        return out;
    };
    const std::pair<const char16_t*, const char*> expected[] = {
        {u"Ri", "k1 k2 k3 "},          {u"Li", "k1 k2 k3 "},        {u"Lh", "k3 "},
        {u"BadLeafFirst", "! ! ! "},    {u"BadKeyInLeaf", "k1 k1 k2 "}, {u"RiOfRi", "! ! "},
        {u"SelfRi", "! "},             {u"CountAboveEntries", "k1 k2 ! "}, {u"CountBelowEntries", "k1 "},
        {u"CountPastCell", "k1 ! ! "},  {u"Unreadable", "! "},
    };
    for (const auto& [path, keys] : expected) EXPECT_EQ(enumerate(path), keys) << Utf8(path);
    // Lookups go by SubKeyCount and skip what can't be built.
    EXPECT_NE(test.Key(u"Ri\\K3"), nullptr);
    EXPECT_NE(test.Key(u"BadKeyInLeaf\\k2"), nullptr);
    EXPECT_EQ(test.Key(u"CountBelowEntries\\k2"), nullptr);
    EXPECT_NE(test.Key(u"CountAboveEntries\\k2"), nullptr);
    EXPECT_EQ(test.Key(u"SelfRi\\k1"), nullptr);
    EXPECT_EQ(test.Key(u"Unreadable\\k1"), nullptr);
}

}  // namespace
