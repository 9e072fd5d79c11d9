// Reading through the entry points: what each outcome of a value read leaves in
// the caller's arguments, how the enumerations treat the room the caller gives
// for a name, the counts of a key, and records that claim more than their cells
// hold. The same tests run once more with hives opened by volume.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "support/HiveBuilder.h"
#include "support/OpenMode.h"
#include "support/TempFile.h"

namespace {

using namespace RegAPI;
using TamvikTest::Bytes;
using TamvikTest::DataForm;
using TamvikTest::HiveBuilder;
using TamvikTest::NkFields;
using TamvikTest::TreeKey;
using TamvikTest::VkFields;

constexpr DWORD kUntouchedWord = 0xCDCDCDCD;
constexpr BYTE kUntouchedByte = 0xEE;

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + i * 29 + i / 253);
    return b;
}

const Bytes kHello = {'h', 0, 'e', 0, 'l', 0, 'l', 0, 'o', 0, 0, 0};

// ROOT: values Dword, Str, Empty, "" and Big; subkeys Alpha (nothing below),
// Caf\xE9 and A\xDF\xC4 (narrow names with high bytes), a wide-named key of
// three Chinese characters, and Odd, made by hand: values with no data cell,
// a Chinese name, a name length past its cell, inline length 6 and a bad entry,
// and one subkey whose name length runs past its cell.
struct ValueHive {
    HiveBuilder b;
    std::uint32_t root = 0;
    std::uint32_t odd = 0;

    ValueHive() {
        TreeKey tree;
        tree.name = "ROOT";
        tree.values = {
            {"Dword", 4, {1, 2, 3, 4}},
            {"Str", 1, kHello},
            {"Empty", 3, {}, DataForm::Inline},
            {"", 3, {7, 8}},
            {"Big", 3, Pattern(20000, 1)},
        };
        for (const char* name : {"Alpha", "Caf\xE9", "A\xDF\xC4"}) tree.subkeys.emplace_back().name = name;
        root = b.AddTree(tree);

        NkFields chinese;
        chinese.name = "\x2D\x4E\x87\x65\x57\x5B";  // U+4E2D U+6587 U+5B57, stored wide
        chinese.wideName = true;
        chinese.parent = root;
        const std::uint32_t chineseKey = b.AddNk(chinese);

        NkFields longName;
        longName.name = "Abc";
        longName.nameLengthOverride = 200;
        const std::uint32_t damagedKey = b.AddNk(longName);
        b.PatchPayload(damagedKey, 0x4C + 3, Bytes(5, 'x'));  // the rest of the 88-byte cell

        VkFields noCell;
        noCell.name = "NoCell";
        noCell.dataLength = 0;
        noCell.dataCell = 0xFFFFFFFF;
        VkFields wideName;
        wideName.name = "\x2D\x4E\x87\x65";  // U+4E2D U+6587
        wideName.wideName = true;
        wideName.dataLength = 0x80000002;
        wideName.dataCell = 0x0000BBAA;
        VkFields longValue;
        longValue.name = "v";
        longValue.nameLengthOverride = 300;
        longValue.dataLength = 0x80000000;
        VkFields six;
        six.name = "Six";
        six.type = 3;
        six.dataLength = 0x80000006;
        six.dataCell = 0x44332211;
        const std::uint32_t v0 = b.AddVk(noCell);
        const std::uint32_t v1 = b.AddVk(wideName);
        const std::uint32_t v2 = b.AddVk(longValue);
        b.PatchPayload(v2, 0x15, Bytes(7, 'y'));
        const std::uint32_t v3 = b.AddVk(six);

        NkFields oddFields;
        oddFields.name = "Odd";
        oddFields.parent = root;
        oddFields.subKeyCount = 1;
        oddFields.subKeyList = b.AddLf({damagedKey});
        oddFields.valueCount = 5;
        oddFields.valueList = b.AddValueList({v0, v1, v2, v3, 0x12345678});
        odd = b.AddNk(oddFields);

        // The root's list again, with the two hand-made keys added.
        const std::uint32_t list = b.AddLf({b.KeyOffset("Alpha"), b.KeyOffset("Caf\xE9"), b.KeyOffset("A\xDF\xC4"),
                                            chineseKey, odd});
        b.PatchU32(root, 0x14, 5);
        b.PatchU32(root, 0x1C, list);
        b.PatchU32(root, 0x34, 0x0003000B);  // the low 16 bits, halved: 5
        b.PatchU32(root, 0x3C, 0xFFFF0011);  // 8
        b.PatchU32(root, 0x40, 0x80000001);
    }
};

class ReadValues : public ::testing::Test {
protected:
    void SetUp() override {
        file = std::make_unique<TamvikTest::TempFile>(layout.b.Build());
        ASSERT_EQ(TamvikTest::OpenTestHive(file->Path(), &hive), Result::Ok);
        ASSERT_EQ(RegOpenKeyExW(hive, u"", 0, 0, &root), Result::Ok);
    }
    void TearDown() override {
        if (hive != nullptr) TamvikTest::CloseTestHive(&hive);
    }
    HKEY Key(const char16_t* path) {
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExW(root, path, 0, 0, &key), Result::Ok) << "opening a key of the test hive";
        return key;
    }

    ValueHive layout;
    std::unique_ptr<TamvikTest::TempFile> file;
    HKEY hive = nullptr;
    HKEY root = nullptr;
};

// --- RegQueryValueExW: the outcomes of Deliver ------------------------------------------

TEST_F(ReadValues, QueryDeliversTypeDataAndSize) {
    DWORD type = kUntouchedWord;
    BYTE data[64];
    std::memset(data, kUntouchedByte, sizeof data);
    DWORD size = sizeof data;
    ASSERT_EQ(RegQueryValueExW(root, u"Str", nullptr, &type, data, &size), Result::Ok);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(size, 12u);
    EXPECT_EQ(Bytes(data, data + 12), kHello);
    EXPECT_EQ(data[12], kUntouchedByte);
}

TEST_F(ReadValues, QueryWithoutDataGivesTheSize) {
    DWORD type = kUntouchedWord;
    DWORD size = kUntouchedWord;
    ASSERT_EQ(RegQueryValueExW(root, u"Big", nullptr, &type, nullptr, &size), Result::Ok);
    EXPECT_EQ(type, 3u);
    EXPECT_EQ(size, 20000u);
    size = kUntouchedWord;
    ASSERT_EQ(RegQueryValueExW(root, u"Dword", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 4u);  // the inline bit never shows
}

TEST_F(ReadValues, QueryWithoutSizeTouchesNoData) {
    DWORD type = kUntouchedWord;
    BYTE data[16];
    std::memset(data, kUntouchedByte, sizeof data);
    ASSERT_EQ(RegQueryValueExW(root, u"Str", nullptr, &type, data, nullptr), Result::Ok);
    EXPECT_EQ(type, 1u);
    for (BYTE byte : data) EXPECT_EQ(byte, kUntouchedByte);
}

TEST_F(ReadValues, QueryWithNothingTestsExistence) {
    EXPECT_EQ(RegQueryValueExW(root, u"Str", nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(RegQueryValueExW(root, u"Nope", nullptr, nullptr, nullptr, nullptr), Result::Invalid);
}

TEST_F(ReadValues, QueryCapacityEdge) {
    BYTE data[16];
    DWORD size = 12;
    ASSERT_EQ(RegQueryValueExW(root, u"Str", nullptr, nullptr, data, &size), Result::Ok);
    EXPECT_EQ(size, 12u);
    DWORD type = kUntouchedWord;
    std::memset(data, kUntouchedByte, sizeof data);
    size = 11;
    ASSERT_EQ(RegQueryValueExW(root, u"Str", nullptr, &type, data, &size), Result::MoreData);
    EXPECT_EQ(size, 11u);  // the capacity stays: no needed size on this path
    EXPECT_EQ(type, 1u);
    for (BYTE byte : data) EXPECT_EQ(byte, kUntouchedByte);
}

TEST_F(ReadValues, QueryFailuresTouchNothing) {
    DWORD type = kUntouchedWord;
    BYTE data[8];
    std::memset(data, kUntouchedByte, sizeof data);
    DWORD size = sizeof data;
    EXPECT_EQ(RegQueryValueExW(root, u"Missing", nullptr, &type, data, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(root, nullptr, nullptr, &type, data, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(nullptr, u"Str", nullptr, &type, data, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(hive, u"Str", nullptr, &type, data, &size), Result::Invalid);
    EXPECT_EQ(type, kUntouchedWord);
    EXPECT_EQ(size, sizeof data);
    for (BYTE byte : data) EXPECT_EQ(byte, kUntouchedByte);
}

TEST_F(ReadValues, QueryNamesIgnoreCase) {
    DWORD value = 0;
    DWORD size = sizeof value;
    ASSERT_EQ(RegQueryValueExW(root, u"dWORD", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size), Result::Ok);
    EXPECT_EQ(value, 0x04030201u);
}

TEST_F(ReadValues, EmptyNameFindsUnnamedValue) {
    BYTE data[4] = {0, 0, 0, 0};
    DWORD size = sizeof data;
    ASSERT_EQ(RegQueryValueExW(root, u"", nullptr, nullptr, data, &size), Result::Ok);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(data[0], 7);
    EXPECT_EQ(data[1], 8);
}

TEST_F(ReadValues, InlineLengthZero) {
    BYTE data[4];
    std::memset(data, kUntouchedByte, sizeof data);
    DWORD size = sizeof data;
    ASSERT_EQ(RegQueryValueExW(root, u"Empty", nullptr, nullptr, data, &size), Result::Ok);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(data[0], kUntouchedByte);
}

TEST_F(ReadValues, BigDataComesWhole) {
    std::vector<BYTE> data(20000 + 8, kUntouchedByte);
    DWORD size = static_cast<DWORD>(data.size());
    ASSERT_EQ(RegQueryValueExW(root, u"Big", nullptr, nullptr, data.data(), &size), Result::Ok);
    EXPECT_EQ(size, 20000u);
    const Bytes expected = Pattern(20000, 1);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), data.begin()));
    EXPECT_EQ(data[20000], kUntouchedByte);
}

TEST_F(ReadValues, LengthZeroWithoutCellGives234WithABuffer) {
    HKEY odd = Key(u"Odd");
    DWORD type = kUntouchedWord;
    DWORD size = kUntouchedWord;
    ASSERT_EQ(RegQueryValueExW(odd, u"NoCell", nullptr, &type, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 0u);
    BYTE data[16];
    size = sizeof data;
    EXPECT_EQ(RegQueryValueExW(odd, u"NoCell", nullptr, &type, data, &size), Result::MoreData);
    EXPECT_EQ(size, 16u);
}

TEST_F(ReadValues, KeyWithoutValuesHasNone) {
    HKEY alpha = Key(u"Alpha");
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(alpha, u"", nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(alpha, u"Dword", nullptr, nullptr, nullptr, &size), Result::Invalid);
    char16_t name[8];
    DWORD length = 8;
    EXPECT_EQ(RegEnumValueW(alpha, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
}

// --- RegEnumValueW ----------------------------------------------------------------

TEST_F(ReadValues, EnumValuesInListOrderWithStoredCase) {
    const std::u16string expected[] = {u"Dword", u"Str", u"Empty", u"", u"Big"};
    for (DWORD i = 0; i < 5; ++i) {
        char16_t name[16];
        DWORD length = 16;
        DWORD size = kUntouchedWord;
        ASSERT_EQ(RegEnumValueW(root, i, name, &length, nullptr, nullptr, nullptr, &size), Result::Ok) << i;
        EXPECT_EQ(std::u16string(name), expected[i]);
        EXPECT_EQ(length, expected[i].size());
    }
    char16_t name[16] = u"kept";
    DWORD length = 16;
    EXPECT_EQ(RegEnumValueW(root, 5, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(std::u16string(name), u"kept");
    EXPECT_EQ(length, 16u);
}

TEST_F(ReadValues, EnumValueOn234StillGivesTheName) {
    char16_t name[16];
    DWORD length = 16;
    DWORD type = kUntouchedWord;
    BYTE data[4];
    std::memset(data, kUntouchedByte, sizeof data);
    DWORD size = sizeof data;
    ASSERT_EQ(RegEnumValueW(root, 1, name, &length, nullptr, &type, data, &size), Result::MoreData);
    EXPECT_EQ(std::u16string(name), u"Str");
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(size, 4u);
    for (BYTE byte : data) EXPECT_EQ(byte, kUntouchedByte);
}

TEST_F(ReadValues, EnumValueDeliversLikeQuery) {
    char16_t name[16];
    DWORD length = 16;
    DWORD type = kUntouchedWord;
    DWORD size = kUntouchedWord;
    ASSERT_EQ(RegEnumValueW(root, 4, name, &length, nullptr, &type, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 20000u);
    EXPECT_EQ(type, 3u);
    BYTE data[8];
    std::memset(data, kUntouchedByte, sizeof data);
    length = 16;
    ASSERT_EQ(RegEnumValueW(root, 0, name, &length, nullptr, nullptr, data, nullptr), Result::Ok);
    EXPECT_EQ(data[0], kUntouchedByte);
    size = sizeof data;
    length = 16;
    ASSERT_EQ(RegEnumValueW(root, 0, name, &length, nullptr, nullptr, data, &size), Result::Ok);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(data[3], 4);
    EXPECT_EQ(data[4], kUntouchedByte);
}

TEST_F(ReadValues, EnumValueNameRoomIncludesTheTerminator) {
    char16_t name[8] = u"kept";
    DWORD length = 5;  // "Dword" without room for its terminator
    DWORD type = kUntouchedWord;
    DWORD size = kUntouchedWord;
    EXPECT_EQ(RegEnumValueW(root, 0, name, &length, nullptr, &type, nullptr, &size), Result::Invalid);
    EXPECT_EQ(std::u16string(name), u"kept");
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(type, kUntouchedWord);
    EXPECT_EQ(size, kUntouchedWord);
    length = 6;
    ASSERT_EQ(RegEnumValueW(root, 0, name, &length, nullptr, &type, nullptr, &size), Result::Ok);
    EXPECT_EQ(std::u16string(name), u"Dword");
    EXPECT_EQ(length, 5u);
    // The unnamed value needs room for its terminator alone.
    length = 0;
    EXPECT_EQ(RegEnumValueW(root, 3, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    length = 1;
    ASSERT_EQ(RegEnumValueW(root, 3, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(name[0], 0);
}

TEST_F(ReadValues, EnumValueNarrowNameRoomCountsBytes) {
    HKEY odd = Key(u"Odd");
    char name[8];
    std::memset(name, 'k', sizeof name);
    DWORD length = 4;  // two double-byte characters, no room for the terminator
    EXPECT_EQ(RegEnumValueA(odd, 1, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(length, 4u);
    for (char c : name) EXPECT_EQ(c, 'k');
    length = 5;
    ASSERT_EQ(RegEnumValueA(odd, 1, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(std::string(name), "\xD6\xD0\xCE\xC4");
    EXPECT_EQ(name[5], 'k');
}

TEST_F(ReadValues, EnumValueArgumentTests) {
    char16_t name[8] = u"kept";
    DWORD length = 8;
    EXPECT_EQ(RegEnumValueW(nullptr, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumValueW(hive, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumValueW(root, 0, nullptr, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumValueW(root, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(std::u16string(name), u"kept");
}

TEST_F(ReadValues, EntryThatCantBeBuilt) {
    HKEY odd = Key(u"Odd");
    char16_t name[8] = u"kept";
    DWORD length = 8;
    DWORD type = kUntouchedWord;
    EXPECT_EQ(RegEnumValueW(odd, 4, name, &length, nullptr, &type, nullptr, nullptr), Result::Corrupt);
    EXPECT_EQ(std::u16string(name), u"kept");
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(type, kUntouchedWord);
    // By name the bad entry is no match and the scan ends without one.
    EXPECT_EQ(RegQueryValueExW(odd, u"Other", nullptr, &type, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(odd, u"SIX", nullptr, &type, nullptr, nullptr), Result::Ok);
}

TEST(ReadValueList, UnreadableValueList) {
    HiveBuilder b;
    TreeKey tree;
    tree.name = "ROOT";
    tree.values = {{"a", 4, {1, 0, 0, 0}}};
    const std::uint32_t root = b.AddTree(tree);
    b.PatchU32(root, 0x28, 0xFFFFFFF8);
    TamvikTest::TempFile file(b.Build());
    HKEY hive = nullptr;
    ASSERT_EQ(TamvikTest::OpenTestHive(file.Path(), &hive), Result::Ok);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"", 0, 0, &key), Result::Ok);
    char16_t name[8];
    DWORD length = 8;
    EXPECT_EQ(RegEnumValueW(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Corrupt);
    EXPECT_EQ(RegQueryValueExW(key, u"A", nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(TamvikTest::CloseTestHive(&hive), Result::Ok);
}

// --- Damaged records through the entry points ---------------------------------------------

TEST_F(ReadValues, NameLengthsPastTheCellEndAtIt) {
    HKEY odd = Key(u"Odd");
    char16_t name[16];
    DWORD length = 8;  // eight characters are there: no room for the terminator
    EXPECT_EQ(RegEnumKeyExW(odd, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    length = 9;
    ASSERT_EQ(RegEnumKeyExW(odd, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(std::u16string(name), u"Abcxxxxx");
    length = 16;
    ASSERT_EQ(RegEnumValueW(odd, 2, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(std::u16string(name), u"vyyyyyyy");
}

TEST_F(ReadValues, InlineLengthSixReadsFourBytes) {
    HKEY odd = Key(u"Odd");
    DWORD size = 0;
    ASSERT_EQ(RegQueryValueExW(odd, u"Six", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 6u);
    BYTE data[8];
    std::memset(data, kUntouchedByte, sizeof data);
    size = 5;
    EXPECT_EQ(RegQueryValueExW(odd, u"Six", nullptr, nullptr, data, &size), Result::MoreData);
    EXPECT_EQ(data[0], kUntouchedByte);
    size = 6;
    ASSERT_EQ(RegQueryValueExW(odd, u"Six", nullptr, nullptr, data, &size), Result::Ok);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(data[0], 0x11);
    EXPECT_EQ(data[3], 0x44);
    EXPECT_EQ(data[4], kUntouchedByte);
    EXPECT_EQ(data[5], kUntouchedByte);
}

// --- RegEnumKeyExW and RegEnumKeyExA ---------------------------------------------------

TEST_F(ReadValues, EnumKeyNameRoomIncludesTheTerminator) {
    char16_t name[8] = u"kept";
    DWORD length = 5;
    EXPECT_EQ(RegEnumKeyExW(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(std::u16string(name), u"kept");
    EXPECT_EQ(length, 5u);
    length = 6;
    ASSERT_EQ(RegEnumKeyExW(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(name), u"Alpha");
    EXPECT_EQ(length, 5u);
}

TEST_F(ReadValues, EnumKeyNamesInListOrder) {
    const std::u16string expected[] = {u"Alpha", u"Caf\u00E9", u"A\u00DF\u00C4", u"\u4E2D\u6587\u5B57", u"Odd"};
    for (DWORD i = 0; i < 5; ++i) {
        char16_t name[16];
        DWORD length = 16;
        ASSERT_EQ(RegEnumKeyExW(root, i, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok) << i;
        EXPECT_EQ(std::u16string(name), expected[i]);
        EXPECT_EQ(length, expected[i].size());
    }
    char16_t name[16] = u"kept";
    DWORD length = 16;
    EXPECT_EQ(RegEnumKeyExW(root, 5, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumKeyExW(Key(u"Alpha"), 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumKeyExW(hive, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumKeyExW(root, 0, nullptr, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumKeyExW(root, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(std::u16string(name), u"kept");
    EXPECT_EQ(length, 16u);
}

TEST_F(ReadValues, NarrowEnumKeyFailureLeavesEmptyName) {
    char name[8];
    std::memset(name, 'k', sizeof name);
    DWORD length = 7;
    EXPECT_EQ(RegEnumKeyExA(root, 5, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(name[0], 0);
    std::memset(name, 'k', sizeof name);
    EXPECT_EQ(RegEnumKeyExA(hive, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(name[0], 0);
    EXPECT_EQ(RegEnumKeyExA(root, 0, nullptr, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegEnumKeyExA(root, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    // Too little room for "Alpha": the wide test refuses it, and the name is empty.
    std::memset(name, 'k', sizeof name);
    length = 5;
    EXPECT_EQ(RegEnumKeyExA(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(name[0], 0);
    EXPECT_EQ(length, 5u);
}

TEST_F(ReadValues, NarrowEnumKeyReplacesWhatCodePageLacks) {
    char name[8];
    std::memset(name, 'k', sizeof name);
    DWORD length = 7;
    ASSERT_EQ(RegEnumKeyExA(root, 2, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::string(name), "A??");
    EXPECT_EQ(length, 3u);
    // A Latin-1 letter that the code page has comes out as its two bytes.
    std::memset(name, 'k', sizeof name);
    length = 7;
    ASSERT_EQ(RegEnumKeyExA(root, 1, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::string(name), "Caf\xA8\xA6");
    EXPECT_EQ(length, 4u);  // characters, not bytes
}

TEST_F(ReadValues, NarrowEnumKeyCutsDoubleByteTextAndTerminates) {
    // Three double-byte characters need six bytes and a terminator; a length of
    // n characters gives n + 1 bytes of room.
    struct Case {
        DWORD length;
        std::string text;
    };
    for (const Case& c : {Case{4, "\xD6\xD0\xCE\xC4"}, Case{5, "\xD6\xD0\xCE\xC4"},
                          Case{6, "\xD6\xD0\xCE\xC4\xD7\xD6"}}) {
        SCOPED_TRACE(c.length);
        char name[16];
        std::memset(name, 'k', sizeof name);
        DWORD length = c.length;
        ASSERT_EQ(RegEnumKeyExA(root, 3, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
        EXPECT_EQ(length, 3u);
        EXPECT_EQ(std::string(name), c.text);
        for (std::size_t i = c.length + 1; i < sizeof name; ++i) EXPECT_EQ(name[i], 'k') << i;
    }
}

// --- RegQueryInfoKeyW and RegQueryInfoKeyA -------------------------------------------

TEST_F(ReadValues, InfoKeyReportsTheRecord) {
    DWORD subKeys = kUntouchedWord, maxSubKey = kUntouchedWord, values = kUntouchedWord;
    DWORD maxValueName = kUntouchedWord, maxValueLength = kUntouchedWord;
    DWORD classLength = kUntouchedWord, reserved = kUntouchedWord, maxClass = kUntouchedWord;
    DWORD security = kUntouchedWord;
    FILETIME written{kUntouchedWord, kUntouchedWord};
    char16_t className[4] = u"cls";
    ASSERT_EQ(RegQueryInfoKeyW(root, className, &classLength, &reserved, &subKeys, &maxSubKey, &maxClass, &values,
                               &maxValueName, &maxValueLength, &security, &written),
              Result::Ok);
    EXPECT_EQ(subKeys, 5u);
    EXPECT_EQ(maxSubKey, 5u);
    EXPECT_EQ(values, 5u);
    EXPECT_EQ(maxValueName, 8u);
    EXPECT_EQ(maxValueLength, 0x80000001u);
    // What the hive doesn't give through these functions stays as it was.
    EXPECT_EQ(classLength, kUntouchedWord);
    EXPECT_EQ(reserved, kUntouchedWord);
    EXPECT_EQ(maxClass, kUntouchedWord);
    EXPECT_EQ(security, kUntouchedWord);
    EXPECT_EQ(written.dwLowDateTime, kUntouchedWord);
    EXPECT_EQ(std::u16string(className), u"cls");

    DWORD narrowMax = 0;
    char narrowClass[4] = "cls";
    ASSERT_EQ(RegQueryInfoKeyA(root, narrowClass, nullptr, nullptr, nullptr, &narrowMax, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(narrowMax, 5u);
    EXPECT_EQ(std::string(narrowClass), "cls");
}

TEST_F(ReadValues, InfoKeyWithNullsAndWrongHandles) {
    EXPECT_EQ(RegQueryInfoKeyW(root, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Ok);
    DWORD values = kUntouchedWord;
    EXPECT_EQ(RegQueryInfoKeyW(hive, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Invalid);
    EXPECT_EQ(RegQueryInfoKeyW(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Invalid);
    EXPECT_EQ(RegQueryInfoKeyA(hive, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr, nullptr,
                               nullptr, nullptr),
              Result::Invalid);
    EXPECT_EQ(values, kUntouchedWord);
    ASSERT_EQ(RegQueryInfoKeyW(Key(u"Alpha"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(values, 0u);
}

}  // namespace
