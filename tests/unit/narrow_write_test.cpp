// Writing through the narrow functions: string data is widened before it is
// stored, terminators are not stored, text that isn't valid code page 936 is
// refused with nothing written, and names of new values and keys are stored
// as the narrow bytes they convert to, which the wide side then sees widened
// byte by byte.
#include <gtest/gtest.h>

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

Bytes Utf16(const std::u16string& text) {
    Bytes out;
    for (char16_t c : text) {
        out.push_back(static_cast<std::uint8_t>(c & 0xFF));
        out.push_back(static_cast<std::uint8_t>(c >> 8));
    }
    return out;
}

const BYTE* AsData(const std::string& s) { return reinterpret_cast<const BYTE*>(s.data()); }
DWORD SizeOf(const std::string& s) { return static_cast<DWORD>(s.size()); }

const std::string kChineseNarrow = "\xD6\xD0\xCE\xC4";  // U+4E2D U+6587 in code page 936
const std::u16string kChinese = u"\u4E2D\u6587";
// The same bytes widened one by one, as a narrow stored name is reported.
const std::u16string kChineseWidenedBytes = u"\u00D6\u00D0\u00CE\u00C4";

// A writable hive with a key "Data" that holds one string, one multi-string
// and one binary value to rewrite, opened the way the suite's mode says.
class NarrowWriteTest : public ::testing::Test {
protected:
    void SetUp() override {
        TreeKey data;
        data.name = "Data";
        data.values = {
            {"Str", 1, Utf16(std::u16string(u"old\0", 4))},
            {"Multi", 7, Utf16(std::u16string(u"x\0\0", 3))},
            {"Bin", 3, Bytes{9, 9, 9, 9, 9, 9}},
        };
        TreeKey root;
        root.name = "Root";
        root.subkeys = {data};
        HiveBuilder builder;
        builder.AddTree(root);
        file_ = std::make_unique<TamvikTest::TempFile>(builder.Build());
        ASSERT_EQ(TamvikTest::OpenTestHive(file_->Path(), &hive_), Result::Ok);
        ASSERT_EQ(RegOpenKeyExW(hive_, u"R\\Data", 0, 0, &data_), Result::Ok);
    }

    void TearDown() override {
        if (hive_ != nullptr) {
            EXPECT_EQ(TamvikTest::CloseTestHive(&hive_), Result::Ok);
        }
    }

    // The stored bytes of a value, read through the wide family.
    Bytes Stored(const char16_t* name) {
        DWORD size = 0;
        EXPECT_EQ(RegQueryValueExW(data_, name, nullptr, nullptr, nullptr, &size), Result::Ok) << "size";
        Bytes out(size + 1, 0xEE);
        EXPECT_EQ(RegQueryValueExW(data_, name, nullptr, nullptr, out.data(), &size), Result::Ok);
        out.resize(size);
        return out;
    }

    // Closes the hive and gives the file's bytes.
    Bytes CloseAndRead() {
        EXPECT_EQ(TamvikTest::CloseTestHive(&hive_), Result::Ok);
        return file_->Read();
    }

    std::unique_ptr<TamvikTest::TempFile> file_;
    HKEY hive_ = nullptr;
    HKEY data_ = nullptr;
};

TEST_F(NarrowWriteTest, StringTerminatorIsNotStored) {
    const std::string abc("abc\0", 4);
    ASSERT_EQ(RegSetValueExA(data_, "Str", 0, 1, AsData(abc), SizeOf(abc)), Result::Ok);
    EXPECT_EQ(Stored(u"Str"), Utf16(u"abc"));  // 6 bytes, no terminator

    // The narrow side still gets terminated text back.
    char text[8] = {};
    DWORD size = sizeof text;
    ASSERT_EQ(RegQueryValueExA(data_, "Str", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size), Result::Ok);
    EXPECT_EQ(std::string(text), "abc");
    EXPECT_EQ(size, 3u);
}

TEST_F(NarrowWriteTest, NarrowDataEndsAtItsFirstNul) {
    const std::string text("ab\0cd", 5);
    ASSERT_EQ(RegSetValueNewA(data_, "Cut", 0, 1, AsData(text), SizeOf(text)), Result::Ok);
    EXPECT_EQ(Stored(u"Cut"), Utf16(u"ab"));
}

TEST_F(NarrowWriteTest, NarrowDataWithoutTerminatorEndsAtItsSize) {
    // The bytes behind size belong to the caller and must not be taken.
    const std::string text = "abcXYZ";
    ASSERT_EQ(RegSetValueNewA(data_, "Bounded", 0, 1, AsData(text), 3), Result::Ok);
    EXPECT_EQ(Stored(u"Bounded"), Utf16(u"abc"));
    // Buffers of exactly size bytes, so that a memory checker sees any read behind them.
    const std::vector<BYTE> exact{'d', 'e', 'f'};
    ASSERT_EQ(RegSetValueNewA(data_, "Exact", 0, 2, exact.data(), 3), Result::Ok);
    EXPECT_EQ(Stored(u"Exact"), Utf16(u"def"));
    const std::vector<BYTE> list{'a', 0, 'b', 'c'};
    ASSERT_EQ(RegSetValueExA(data_, "Multi", 0, 7, list.data(), 4), Result::Ok);
    EXPECT_EQ(Stored(u"Multi"), Utf16(std::u16string(u"a\0bc\0", 5)));
}

TEST_F(NarrowWriteTest, DoubleByteCutBySizeIsInvalid) {
    // Only the lead byte lies within size; its trail byte behind it must not complete it.
    const Bytes before = file_->Read();
    const std::string text = kChineseNarrow;
    EXPECT_EQ(RegSetValueNewA(data_, "Half", 0, 1, AsData(text), 1), Result::Invalid);
    EXPECT_EQ(CloseAndRead(), before);
}

TEST_F(NarrowWriteTest, EmptyNarrowStringStoresNothing) {
    const std::string empty(1, '\0');
    ASSERT_EQ(RegSetValueNewA(data_, "Empty", 0, 1, AsData(empty), 1), Result::Ok);
    EXPECT_TRUE(Stored(u"Empty").empty());
    const std::string one(1, 'z');
    ASSERT_EQ(RegSetValueNewA(data_, "OneByteList", 0, 7, AsData(one), 1), Result::Ok);
    EXPECT_TRUE(Stored(u"OneByteList").empty());  // a list below 2 bytes converts to nothing
}

TEST_F(NarrowWriteTest, MultiStringIsStoredWithoutItsListEnd) {
    const std::string list("a\0b\0\0", 5);
    ASSERT_EQ(RegSetValueNewA(data_, "List", 0, 7, AsData(list), SizeOf(list)), Result::Ok);
    EXPECT_EQ(Stored(u"List"), Utf16(std::u16string(u"a\0b\0", 4)));  // 8 bytes
}

TEST_F(NarrowWriteTest, MultiStringWithoutListEndKeepsItsLastString) {
    const std::string list("a\0bc", 4);
    ASSERT_EQ(RegSetValueNewA(data_, "Open", 0, 7, AsData(list), SizeOf(list)), Result::Ok);
    EXPECT_EQ(Stored(u"Open"), Utf16(std::u16string(u"a\0bc\0", 5)));
}

TEST_F(NarrowWriteTest, BytesBehindTheListEndAreNotConverted) {
    const std::string list("a\0\0\xFF", 4);
    ASSERT_EQ(RegSetValueNewA(data_, "Tail", 0, 7, AsData(list), SizeOf(list)), Result::Ok);
    EXPECT_EQ(Stored(u"Tail"), Utf16(std::u16string(u"a\0", 2)));
}

TEST_F(NarrowWriteTest, MultiStringRewriteIsWidened) {
    const std::string list(kChineseNarrow.substr(0, 2) + std::string(1, '\0') + kChineseNarrow.substr(2) +
                           std::string(2, '\0'));
    ASSERT_EQ(RegSetValueExA(data_, "Multi", 0, 7, AsData(list), SizeOf(list)), Result::Ok);
    EXPECT_EQ(Stored(u"Multi"), Utf16(std::u16string(u"\u4E2D\0\u6587\0", 4)));
}

TEST_F(NarrowWriteTest, DoubleByteDataIsStoredAsUtf16AndReadBackAsTheSameBytes) {
    ASSERT_EQ(RegSetValueNewA(data_, "Cn", 0, 1, AsData(kChineseNarrow), SizeOf(kChineseNarrow)), Result::Ok);
    EXPECT_EQ(Stored(u"Cn"), Utf16(kChinese));

    Bytes buffer(8, 0xEE);
    DWORD size = 5;
    ASSERT_EQ(RegQueryValueExA(data_, "Cn", nullptr, nullptr, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 5), kChineseNarrow + std::string(1, '\0'));
    EXPECT_EQ(size, 2u);
}

TEST_F(NarrowWriteTest, WideDoubleByteDataReadsBackNarrow) {
    const Bytes wide = Utf16(kChinese + std::u16string(1, u'\0'));
    ASSERT_EQ(RegSetValueNewW(data_, u"Wide", 0, 1, wide.data(), static_cast<DWORD>(wide.size())), Result::Ok);
    char text[8] = {};
    DWORD size = sizeof text;
    ASSERT_EQ(RegQueryValueExA(data_, "Wide", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size), Result::Ok);
    EXPECT_EQ(std::string(text), kChineseNarrow);
    EXPECT_EQ(size, 3u);
}

TEST_F(NarrowWriteTest, NonStringDataPassesAsBytes) {
    // Not code page 936, but a binary value isn't text.
    const std::string raw("\xFF\xFE\x00\x81", 4);
    ASSERT_EQ(RegSetValueNewA(data_, "Raw", 0, 3, AsData(raw), SizeOf(raw)), Result::Ok);
    EXPECT_EQ(Stored(u"Raw"), Bytes(raw.begin(), raw.end()));
    const std::string six("\xFF\x01\x02\x03\x04\x05", 6);
    ASSERT_EQ(RegSetValueExA(data_, "Bin", 0, 3, AsData(six), SizeOf(six)), Result::Ok);
    EXPECT_EQ(Stored(u"Bin"), Bytes(six.begin(), six.end()));
}

TEST_F(NarrowWriteTest, InvalidNameInNewValueWritesNothing) {
    const Bytes before = file_->Read();
    const std::string data = "v";
    EXPECT_EQ(RegSetValueNewA(data_, "\xFF", 0, 1, AsData(data), 1), Result::Invalid);
    EXPECT_EQ(RegSetValueNewA(data_, "a\x81", 0, 3, AsData(data), 1), Result::Invalid);  // lead byte at the end
    EXPECT_EQ(CloseAndRead(), before);
}

TEST_F(NarrowWriteTest, InvalidStringDataInNewValueWritesNothing) {
    const Bytes before = file_->Read();
    const std::string bad = "ok\xFF";
    EXPECT_EQ(RegSetValueNewA(data_, "Bad", 0, 1, AsData(bad), SizeOf(bad)), Result::Invalid);
    EXPECT_EQ(RegSetValueNewA(data_, "Bad", 0, 2, AsData(bad), SizeOf(bad)), Result::Invalid);
    const std::string badPair = "\x81\x20";  // a lead byte with a trail byte out of range
    EXPECT_EQ(RegSetValueNewA(data_, "Bad", 0, 1, AsData(badPair), SizeOf(badPair)), Result::Invalid);
    EXPECT_EQ(CloseAndRead(), before);
}

TEST_F(NarrowWriteTest, InvalidSecondStringOfListWritesNothing) {
    const Bytes before = file_->Read();
    const std::string list("a\0\xFF\0\0", 5);
    EXPECT_EQ(RegSetValueNewA(data_, "BadList", 0, 7, AsData(list), SizeOf(list)), Result::Invalid);
    EXPECT_EQ(RegSetValueExA(data_, "Multi", 0, 7, AsData(list), SizeOf(list)), Result::Invalid);
    EXPECT_EQ(CloseAndRead(), before);
}

TEST_F(NarrowWriteTest, InvalidDataInRewriteLeavesTheOldData) {
    const Bytes before = file_->Read();
    const std::string bad = "\xFF";
    EXPECT_EQ(RegSetValueExA(data_, "Str", 0, 1, AsData(bad), 1), Result::Invalid);
    EXPECT_EQ(Stored(u"Str"), Utf16(std::u16string(u"old\0", 4)));
    EXPECT_EQ(CloseAndRead(), before);
}

TEST_F(NarrowWriteTest, ExistingNameGives72) {
    const std::string data = "v";
    EXPECT_EQ(RegSetValueNewA(data_, "str", 0, 1, AsData(data), 1), Result::AlreadyExists);
}

TEST_F(NarrowWriteTest, NullPathsAndNamesAre87) {
    EXPECT_EQ(RegDeleteKeyA(data_, nullptr), Result::Invalid);
    EXPECT_EQ(RegDeleteValueA(data_, nullptr), Result::Invalid);
    EXPECT_EQ(RegDeleteKeyA(nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(RegDeleteValueA(nullptr, nullptr), Result::Invalid);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(hive_, nullptr, 0, 0, &key), Result::Invalid);
    EXPECT_EQ(key, nullptr);
    HKEY other = nullptr;
    EXPECT_EQ(OpenHiveA(nullptr, &other, true), Result::Invalid);
    EXPECT_EQ(other, nullptr);
    // The key is still usable: nothing was ended.
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExA(data_, "Str", nullptr, nullptr, nullptr, &size), Result::Ok);
}

TEST_F(NarrowWriteTest, InvalidNamesInDeletesAre87) {
    EXPECT_EQ(RegDeleteKeyA(data_, "\xFF"), Result::Invalid);
    EXPECT_EQ(RegDeleteValueA(data_, "\xFF"), Result::Invalid);
    EXPECT_EQ(RegDeleteValueA(data_, "Str"), Result::Ok);
}

// A name given to the wide family is stored as its narrow bytes, and a stored
// narrow name is reported widened byte by byte. So a Chinese name comes back
// as four Latin-1 characters and can't be found again by its own text, and
// asking to create it once more makes a second value of the same stored name.
TEST_F(NarrowWriteTest, ChineseValueNameFromWideIsNotFoundAgainByItsText) {
    const Bytes wide = Utf16(u"v");
    const std::u16string name = kChinese;
    ASSERT_EQ(RegSetValueNewW(data_, name.c_str(), 0, 3, wide.data(), 2), Result::Ok);

    char16_t enumerated[16] = {};
    DWORD length = 16;
    ASSERT_EQ(RegEnumValueW(data_, 3, enumerated, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(enumerated, length), kChineseWidenedBytes);

    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(data_, name.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExA(data_, kChineseNarrow.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegDeleteValueA(data_, kChineseNarrow.c_str()), Result::Invalid);
    // The widened form is what finds it.
    EXPECT_EQ(RegQueryValueExW(data_, kChineseWidenedBytes.c_str(), nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(size, 2u);

    EXPECT_EQ(RegSetValueNewW(data_, name.c_str(), 0, 3, wide.data(), 2), Result::Ok);
    DWORD values = 0;
    ASSERT_EQ(RegQueryInfoKeyW(data_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                               nullptr, nullptr, nullptr),
              Result::Ok);
    EXPECT_EQ(values, 5u);
}

TEST_F(NarrowWriteTest, ChineseValueNameFromNarrowIsStoredAsTheCallerGaveIt) {
    const std::string data = "v";
    ASSERT_EQ(RegSetValueNewA(data_, kChineseNarrow.c_str(), 0, 1, AsData(data), 1), Result::Ok);
    char16_t enumerated[16] = {};
    DWORD length = 16;
    ASSERT_EQ(RegEnumValueW(data_, 3, enumerated, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(enumerated, length), kChineseWidenedBytes);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExA(data_, kChineseNarrow.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
}

TEST_F(NarrowWriteTest, ChineseKeyNameFromWideIsNotFoundAgainByItsText) {
    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExW(data_, kChinese.c_str(), &created), Result::Ok);
    char16_t enumerated[16] = {};
    DWORD length = 15;
    ASSERT_EQ(RegEnumKeyExW(data_, 0, enumerated, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::u16string(enumerated, length), kChineseWidenedBytes);
    HKEY opened = nullptr;
    EXPECT_EQ(RegOpenKeyExW(data_, kChinese.c_str(), 0, 0, &opened), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExA(data_, kChineseNarrow.c_str(), 0, 0, &opened), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(data_, kChineseWidenedBytes.c_str(), 0, 0, &opened), Result::Ok);
}

}  // namespace
