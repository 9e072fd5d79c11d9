// Reading values through the narrow functions: string data comes back in code
// page 936, sizes are counted in wide characters, a buffer that is too small
// is answered with 0 and the size needed, and text that has no narrow form
// comes back as '?'. The same hive is read through the wide functions to show
// where the two families part.
#include <gtest/gtest.h>

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
using TamvikTest::HiveBuilder;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

// UTF-16LE bytes of text, with the terminator when asked for.
Bytes Utf16(const std::u16string& text, bool terminated) {
    Bytes out;
    for (char16_t c : text) {
        out.push_back(static_cast<std::uint8_t>(c & 0xFF));
        out.push_back(static_cast<std::uint8_t>(c >> 8));
    }
    if (terminated) out.insert(out.end(), {0, 0});
    return out;
}

Bytes ToBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Replaces every occurrence of needle in the bins area (a placeholder name and
// the lf hint that copies it) by replacement of the same length.
void PatchAll(HiveBuilder& builder, const Bytes& needle, const Bytes& replacement) {
    ASSERT_EQ(needle.size(), replacement.size());
    const Bytes area = builder.Area();
    int found = 0;
    for (std::size_t i = 0; i + needle.size() <= area.size(); ++i) {
        if (std::equal(needle.begin(), needle.end(), area.begin() + static_cast<std::ptrdiff_t>(i))) {
            builder.PatchArea(static_cast<std::uint32_t>(i), replacement);
            ++found;
        }
    }
    ASSERT_GT(found, 0);
}

// CP936 bytes of U+4E2D U+6587.
const std::string kChineseNarrow = "\xD6\xD0\xCE\xC4";
const std::u16string kChinese = u"\u4E2D\u6587";
// Characters that code page 936 can't express: Thai KO KAI, and a character
// beyond the basic plane written as a surrogate pair.
const std::u16string kNoNarrowForm = u"a\u0E01\U0001F600b";

// The values below "Data", in list order (the index used by RegEnumValueA).
enum DataIndex {
    kStr, kNoTerm, kCn, kLossy, kMulti, kMultiOpen, kMultiCn, kBin, kExpand, kInline, kEmpty, kOdd, kMultiNoTerm, kBigStr
};

// A string long enough to be stored in db segments.
constexpr std::size_t kBigChars = 12000;

// A hive with one key of string values in every shape the narrow read must
// handle, and one key whose value and subkey names are stored as UTF-16.
// Names that are real UTF-16 can't be given to the tree builder, so they are
// laid out as placeholders and patched afterwards.
class NarrowReadTest : public ::testing::Test {
protected:
    void SetUp() override {
        TreeKey data;
        data.name = "Data";
        data.values = {
            {"Str", 1, Utf16(u"abc", true)},
            {"NoTerm", 1, Utf16(u"abc", false)},
            {"Cn", 1, Utf16(kChinese, true)},
            {"Lossy", 1, Utf16(kNoNarrowForm, true)},
            {"Multi", 7, Utf16(std::u16string(u"a\0b\0", 4), true)},
            {"MultiOpen", 7, Utf16(std::u16string(u"a\0b", 3), true)},
            {"MultiCn", 7, Utf16(std::u16string(u"\u4E2D\0\u6587\0", 4), true)},
            {"Bin", 3, Bytes{1, 2, 3, 4, 5, 6, 7, 8}},
            {"Expand", 2, Utf16(u"%x%", true)},
            {"Inline", 1, Utf16(u"a", true)},
            {"Empty", 1, Bytes{}},
            {"Odd", 1, Bytes{'a', 0, 'b', 0, 'c', 0, 'd'}},
            {"MultiNoTerm", 7, Utf16(std::u16string(u"a\0bc", 4), false)},
            {"BigStr", 1, Utf16(std::u16string(kBigChars - 1, u'x'), true)},
        };
        TreeKey names;
        names.name = "Names";
        TreeValue chineseName{"#1", 1, Utf16(u"v", true)};
        chineseName.wideName = true;
        TreeValue lossyName{"#2", 4, Bytes{1, 0, 0, 0}};
        lossyName.wideName = true;
        TreeValue unnamed{"", 4, Bytes{2, 0, 0, 0}};
        names.values = {chineseName, lossyName, unnamed};
        TreeKey chineseKey;
        chineseKey.name = "#3";
        chineseKey.wideName = true;
        TreeKey lossyKey;
        lossyKey.name = "#4";
        lossyKey.wideName = true;
        names.subkeys = {chineseKey, lossyKey};
        TreeKey root;
        root.name = "Root";
        root.subkeys = {data, names};

        HiveBuilder builder;
        builder.AddTree(root);
        PatchAll(builder, Utf16(u"#1", false), Utf16(kChinese, false));
        PatchAll(builder, Utf16(u"#2", false), Utf16(u"\u0E01A", false));
        PatchAll(builder, Utf16(u"#3", false), Utf16(kChinese, false));
        PatchAll(builder, Utf16(u"#4", false), Utf16(u"\u0E01k", false));
        file_ = std::make_unique<TamvikTest::TempFile>(builder.Build());
        ASSERT_EQ(TamvikTest::OpenTestHive(file_->Path(), &hive_), Result::Ok);
    }

    void TearDown() override {
        if (hive_ != nullptr) {
            EXPECT_EQ(TamvikTest::CloseTestHive(&hive_), Result::Ok);
        }
    }

    HKEY Open(const char16_t* path) {
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExW(hive_, path, 0, 0, &key), Result::Ok);
        return key;
    }

    // Narrow read of a value of Data into a buffer of capacity bytes, filled
    // with 0xEE beforehand and guarded by 8 more 0xEE bytes behind it.
    struct NarrowRead {
        LONG result;
        DWORD type;
        DWORD size;
        Bytes buffer;  // capacity + 8 bytes
    };
    NarrowRead QueryA(HKEY key, const char* name, DWORD capacity) {
        NarrowRead r{-1, 0xDEAD, capacity, Bytes(capacity + 8, 0xEE)};
        r.result = RegQueryValueExA(key, name, nullptr, &r.type, r.buffer.data(), &r.size);
        return r;
    }

    std::unique_ptr<TamvikTest::TempFile> file_;
    HKEY hive_ = nullptr;
};

bool Untouched(const Bytes& buffer) {
    for (std::uint8_t b : buffer)
        if (b != 0xEE) return false;
    return true;
}

Bytes Prefix(const Bytes& buffer, std::size_t n) { return Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n)); }

TEST_F(NarrowReadTest, ThreeLetterStringFollowsTheSizeRules) {
    HKEY data = Open(u"R\\Data");
    DWORD type = 0;
    DWORD size = 100;
    // Without a buffer only the size is given: wide characters, not stored bytes.
    ASSERT_EQ(RegQueryValueExA(data, "Str", nullptr, &type, nullptr, &size), Result::Ok);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(size, 4u);

    NarrowRead fits = QueryA(data, "Str", 4);
    ASSERT_EQ(fits.result, Result::Ok);
    EXPECT_EQ(fits.size, 4u);
    EXPECT_EQ(Prefix(fits.buffer, 4), ToBytes(std::string("abc\0", 4)));
    EXPECT_TRUE(Untouched(Bytes(fits.buffer.begin() + 4, fits.buffer.end())));

    NarrowRead small = QueryA(data, "Str", 3);
    EXPECT_EQ(small.result, Result::Ok);  // not 234: the narrow family reports the size needed instead
    EXPECT_EQ(small.size, 4u);
    EXPECT_EQ(small.type, 1u);
    EXPECT_TRUE(Untouched(small.buffer));
}

TEST_F(NarrowReadTest, WideFamilyAnswersTooSmallWith234AndKeepsTheCapacity) {
    HKEY data = Open(u"R\\Data");
    DWORD size = 0;
    ASSERT_EQ(RegQueryValueExW(data, u"Str", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 8u);

    Bytes buffer(16, 0xEE);
    size = 7;
    EXPECT_EQ(RegQueryValueExW(data, u"Str", nullptr, nullptr, buffer.data(), &size), Result::MoreData);
    EXPECT_EQ(size, 7u);
    EXPECT_TRUE(Untouched(buffer));

    size = 8;
    ASSERT_EQ(RegQueryValueExW(data, u"Str", nullptr, nullptr, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(Prefix(buffer, 8), Utf16(u"abc", true));
}

TEST_F(NarrowReadTest, DoubleByteTextComesBackAsCodePage936) {
    HKEY data = Open(u"R\\Data");
    DWORD size = 0;
    ASSERT_EQ(RegQueryValueExA(data, "Cn", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 3u);  // three wide characters, though the text needs five bytes

    NarrowRead r = QueryA(data, "Cn", 5);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(Prefix(r.buffer, 5), ToBytes(kChineseNarrow + std::string(1, '\0')));
    EXPECT_EQ(r.size, 3u);  // the stored length halved, not the bytes delivered
    EXPECT_TRUE(Untouched(Bytes(r.buffer.begin() + 5, r.buffer.end())));
}

TEST_F(NarrowReadTest, DoubleByteTextThatDoesNotFitIsNotWrittenAtAll) {
    HKEY data = Open(u"R\\Data");
    // 3 passes the test against the halved length, and 4 holds the text but
    // not its terminator: neither may be written past, nor cut short.
    for (DWORD capacity : {3u, 4u}) {
        NarrowRead r = QueryA(data, "Cn", capacity);
        EXPECT_EQ(r.result, Result::Ok) << capacity;
        EXPECT_EQ(r.size, 5u) << capacity;
        EXPECT_TRUE(Untouched(r.buffer)) << capacity;
    }
}

TEST_F(NarrowReadTest, CharactersWithoutNarrowFormBecomeQuestionMarks) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "Lossy", 6);
    ASSERT_EQ(r.result, Result::Ok);
    // One '?' per character: the surrogate pair is one character.
    EXPECT_EQ(Prefix(r.buffer, 5), ToBytes(std::string("a??b\0", 5)));
    EXPECT_EQ(r.buffer[5], 0xEE);
    EXPECT_EQ(r.size, 6u);  // 12 stored bytes
}

TEST_F(NarrowReadTest, StoredStringWithoutTerminatorEndsAtItsLength) {
    HKEY data = Open(u"R\\Data");
    DWORD size = 0;
    ASSERT_EQ(RegQueryValueExA(data, "NoTerm", nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 3u);

    // The caller always gets terminated text, so three bytes are too few.
    NarrowRead tight = QueryA(data, "NoTerm", 3);
    EXPECT_EQ(tight.result, Result::Ok);
    EXPECT_EQ(tight.size, 4u);
    EXPECT_TRUE(Untouched(tight.buffer));

    NarrowRead r = QueryA(data, "NoTerm", 4);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(Prefix(r.buffer, 4), ToBytes(std::string("abc\0", 4)));
    EXPECT_EQ(r.size, 3u);
}

TEST_F(NarrowReadTest, MultiStringLeavesTheListEndAsTheBufferHadIt) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "Multi", 5);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.type, 7u);
    EXPECT_EQ(r.size, 5u);  // counts the final empty string...
    EXPECT_EQ(Prefix(r.buffer, 4), ToBytes(std::string("a\0b\0", 4)));
    EXPECT_EQ(r.buffer[4], 0xEE);  // ...which isn't written
}

TEST_F(NarrowReadTest, MultiStringWithoutFinalEmptyString) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "MultiOpen", 4);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 4u);
    EXPECT_EQ(Prefix(r.buffer, 4), ToBytes(std::string("a\0b\0", 4)));
    EXPECT_EQ(r.buffer[4], 0xEE);
}

TEST_F(NarrowReadTest, DoubleByteMultiStringNeedsMoreThanHalfTheStoredLength) {
    HKEY data = Open(u"R\\Data");
    const std::string expected = std::string("\xD6\xD0\0\xCE\xC4\0", 6);

    NarrowRead small = QueryA(data, "MultiCn", 5);
    EXPECT_EQ(small.result, Result::Ok);
    EXPECT_EQ(small.size, 6u);
    EXPECT_TRUE(Untouched(small.buffer));

    NarrowRead r = QueryA(data, "MultiCn", 6);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 5u);
    EXPECT_EQ(Prefix(r.buffer, 6), ToBytes(expected));
    EXPECT_TRUE(Untouched(Bytes(r.buffer.begin() + 6, r.buffer.end())));
}

TEST_F(NarrowReadTest, OddStoredLengthDropsTheHalfCharacter) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "Odd", 4);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 3u);
    EXPECT_EQ(Prefix(r.buffer, 4), ToBytes(std::string("abc\0", 4)));
    EXPECT_TRUE(Untouched(Bytes(r.buffer.begin() + 4, r.buffer.end())));
}

TEST_F(NarrowReadTest, MultiStringWhoseLastStringHasNoTerminatorGetsOne) {
    HKEY data = Open(u"R\\Data");
    NarrowRead small = QueryA(data, "MultiNoTerm", 4);
    EXPECT_EQ(small.result, Result::Ok);
    EXPECT_EQ(small.size, 5u);
    EXPECT_TRUE(Untouched(small.buffer));

    NarrowRead r = QueryA(data, "MultiNoTerm", 5);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 4u);
    EXPECT_EQ(Prefix(r.buffer, 5), ToBytes(std::string("a\0bc\0", 5)));
    EXPECT_TRUE(Untouched(Bytes(r.buffer.begin() + 5, r.buffer.end())));
}

TEST_F(NarrowReadTest, StringInSegmentsIsConvertedWhole) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "BigStr", kBigChars);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, kBigChars);
    EXPECT_EQ(Prefix(r.buffer, kBigChars), ToBytes(std::string(kBigChars - 1, 'x') + std::string(1, '\0')));
    EXPECT_TRUE(Untouched(Bytes(r.buffer.begin() + kBigChars, r.buffer.end())));
}

TEST_F(NarrowReadTest, ExpandStringIsConvertedLikeAString) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "Expand", 4);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.type, 2u);
    EXPECT_EQ(r.size, 4u);
    EXPECT_EQ(Prefix(r.buffer, 4), ToBytes(std::string("%x%\0", 4)));
}

TEST_F(NarrowReadTest, InlineStringIsConvertedToo) {
    HKEY data = Open(u"R\\Data");
    NarrowRead r = QueryA(data, "Inline", 2);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 2u);
    EXPECT_EQ(Prefix(r.buffer, 2), ToBytes(std::string("a\0", 2)));
}

TEST_F(NarrowReadTest, EmptyStringNeedsRoomForItsTerminator) {
    HKEY data = Open(u"R\\Data");
    NarrowRead none = QueryA(data, "Empty", 0);
    EXPECT_EQ(none.result, Result::Ok);
    EXPECT_EQ(none.size, 1u);
    EXPECT_TRUE(Untouched(none.buffer));

    NarrowRead r = QueryA(data, "Empty", 1);
    ASSERT_EQ(r.result, Result::Ok);
    EXPECT_EQ(r.size, 0u);
    EXPECT_EQ(r.buffer[0], 0);
}

TEST_F(NarrowReadTest, BinaryValueBehavesExactlyAsInTheWideFamily) {
    HKEY data = Open(u"R\\Data");
    const Bytes expected{1, 2, 3, 4, 5, 6, 7, 8};
    NarrowRead a = QueryA(data, "Bin", 7);
    Bytes wideBuffer(15, 0xEE);
    DWORD wideSize = 7;
    const LONG wide = RegQueryValueExW(data, u"Bin", nullptr, nullptr, wideBuffer.data(), &wideSize);
    EXPECT_EQ(a.result, Result::MoreData);
    EXPECT_EQ(wide, Result::MoreData);
    EXPECT_EQ(a.size, wideSize);
    EXPECT_EQ(a.type, 3u);

    NarrowRead fits = QueryA(data, "Bin", 8);
    ASSERT_EQ(fits.result, Result::Ok);
    EXPECT_EQ(fits.size, 8u);  // not halved
    EXPECT_EQ(Prefix(fits.buffer, 8), expected);
}

TEST_F(NarrowReadTest, NullSizeGivesTheTypeAlone) {
    HKEY data = Open(u"R\\Data");
    DWORD type = 0;
    Bytes buffer(8, 0xEE);
    EXPECT_EQ(RegQueryValueExA(data, "Cn", nullptr, &type, buffer.data(), nullptr), Result::Ok);
    EXPECT_EQ(type, 1u);
    EXPECT_TRUE(Untouched(buffer));
}

TEST_F(NarrowReadTest, NameThatIsNotCodePage936IsNotFound) {
    HKEY data = Open(u"R\\Data");
    DWORD size = 8;
    EXPECT_EQ(RegQueryValueExA(data, "\xFF", nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(size, 8u);
}

TEST_F(NarrowReadTest, EnumValueGivesTheNameInBytesAndTheDataConverted) {
    HKEY data = Open(u"R\\Data");
    char name[16];
    std::memset(name, 0x7E, sizeof name);
    DWORD nameLength = sizeof name;
    DWORD type = 0;
    Bytes buffer(13, 0xEE);
    DWORD size = 5;
    ASSERT_EQ(RegEnumValueA(data, kCn, name, &nameLength, nullptr, &type, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(std::string(name, 3), std::string("Cn\0", 3));
    EXPECT_EQ(nameLength, 2u);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(Prefix(buffer, 5), ToBytes(kChineseNarrow + std::string(1, '\0')));
}

TEST_F(NarrowReadTest, EnumValueRefusesANameBufferWithoutRoomForTheTerminator) {
    HKEY data = Open(u"R\\Data");
    char name[16];
    std::memset(name, 0x7E, sizeof name);
    DWORD nameLength = 9;  // "MultiOpen" without its terminator
    DWORD type = 0xDEAD;
    DWORD size = 64;
    Bytes buffer(64, 0xEE);
    EXPECT_EQ(RegEnumValueA(data, kMultiOpen, name, &nameLength, nullptr, &type, buffer.data(), &size),
              Result::Invalid);
    EXPECT_EQ(nameLength, 9u);
    EXPECT_EQ(type, 0xDEADu);
    EXPECT_EQ(size, 64u);
    for (char c : name) EXPECT_EQ(c, 0x7E);
    EXPECT_TRUE(Untouched(buffer));

    nameLength = 10;
    ASSERT_EQ(RegEnumValueA(data, kMultiOpen, name, &nameLength, nullptr, &type, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(std::string(name), "MultiOpen");
    EXPECT_EQ(nameLength, 9u);
}

TEST_F(NarrowReadTest, EnumValueAnswersATooSmallDataBufferAsTheQueryDoes) {
    HKEY data = Open(u"R\\Data");
    char name[8] = {};
    DWORD nameLength = sizeof name;
    Bytes buffer(12, 0xEE);
    DWORD size = 4;  // holds the text but not its terminator
    ASSERT_EQ(RegEnumValueA(data, kCn, name, &nameLength, nullptr, nullptr, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(size, 5u);
    EXPECT_TRUE(Untouched(buffer));
    EXPECT_EQ(std::string(name), "Cn");
}

TEST_F(NarrowReadTest, EnumValuePastTheEndIs87) {
    HKEY data = Open(u"R\\Data");
    char name[16];
    DWORD nameLength = sizeof name;
    EXPECT_EQ(RegEnumValueA(data, kBigStr + 1, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
              Result::Invalid);
}

TEST_F(NarrowReadTest, WideStoredChineseValueNameComesBackInBytes) {
    HKEY names = Open(u"R\\Names");
    char name[8];
    std::memset(name, 0x7E, sizeof name);
    DWORD nameLength = 4;  // the four bytes, but no room for the terminator
    EXPECT_EQ(RegEnumValueA(names, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(nameLength, 4u);
    for (char c : name) EXPECT_EQ(c, 0x7E);

    nameLength = sizeof name;
    ASSERT_EQ(RegEnumValueA(names, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(nameLength, 4u);  // bytes, where the wide family counts 2 characters
    EXPECT_EQ(std::string(name), kChineseNarrow);

    char16_t wide[8];
    DWORD wideLength = 8;
    ASSERT_EQ(RegEnumValueW(names, 0, wide, &wideLength, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(wideLength, 2u);

    // The narrow name finds the value again, as it widens to the stored text.
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExA(names, kChineseNarrow.c_str(), nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 2u);
}

TEST_F(NarrowReadTest, ValueNameWithoutNarrowFormGetsQuestionMarks) {
    HKEY names = Open(u"R\\Names");
    char name[8];
    std::memset(name, 0x7E, sizeof name);
    DWORD nameLength = sizeof name;
    DWORD type = 0;
    Bytes buffer(8, 0xEE);
    DWORD size = 4;
    ASSERT_EQ(RegEnumValueA(names, 1, name, &nameLength, nullptr, &type, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(std::string(name, 3), std::string("?A\0", 3));
    EXPECT_EQ(nameLength, 2u);
    EXPECT_EQ(type, 4u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(Prefix(buffer, 4), (Bytes{1, 0, 0, 0}));
}

TEST_F(NarrowReadTest, EmptyValueNameNeedsOneByteForItsTerminator) {
    HKEY names = Open(u"R\\Names");
    char name[4] = {0x7E, 0x7E, 0x7E, 0x7E};
    DWORD nameLength = 0;
    EXPECT_EQ(RegEnumValueA(names, 2, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(name[0], 0x7E);
    nameLength = 1;
    ASSERT_EQ(RegEnumValueA(names, 2, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(nameLength, 0u);
    EXPECT_EQ(name[0], 0);
    EXPECT_EQ(name[1], 0x7E);
}

TEST_F(NarrowReadTest, NarrowDeleteFindsAWideStoredChineseName) {
    HKEY names = Open(u"R\\Names");
    ASSERT_EQ(RegDeleteValueA(names, kChineseNarrow.c_str()), Result::Ok);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExA(names, kChineseNarrow.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExA(names, "", nullptr, nullptr, nullptr, &size), Result::Ok);
}

TEST_F(NarrowReadTest, EnumKeyGivesCodePage936AndQuestionMarks) {
    HKEY names = Open(u"R\\Names");
    char name[8];
    std::memset(name, 0x7E, sizeof name);
    DWORD nameLength = 7;
    ASSERT_EQ(RegEnumKeyExA(names, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::string(name), kChineseNarrow);

    std::memset(name, 0x7E, sizeof name);
    nameLength = 7;
    ASSERT_EQ(RegEnumKeyExA(names, 1, name, &nameLength, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::string(name), "?k");
}

}  // namespace
