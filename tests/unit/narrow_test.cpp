// Guards the narrow functions: string data converted to and from code page
// 936, sizes in wide characters, a too small buffer answered with the size it
// needs, '?' for what has no narrow form, names stored as the narrow bytes
// they convert to, and text that isn't code page 936 refused with nothing
// written.
#include <gtest/gtest.h>

#include <cstring>

#include "store/Format.h"
#include "support/Fixture.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;

Bytes Wide(const std::u16string& text) {
    Bytes out;
    for (char16_t c : text) out.insert(out.end(), {static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8)});
    return out;
}

const std::string kCn = "\xD6\xD0\xCE\xC4";  // U+4E2D U+6587 in code page 936
const std::u16string kCnWide = u"\u4E2D\u6587";
const std::u16string kCnWidened = u"\u00D6\u00D0\u00CE\u00C4";  // the narrow bytes read back one by one
constexpr DWORD kNullData = 0xFFFFFFFF;

// Data: string values of every shape. Names: value and subkey names stored as
// UTF-16, with and without a narrow form.
HiveBuilder NarrowHive() {
    HiveBuilder b;
    TreeKey data{"Data",
                 {{"Str", 1, Wide(std::u16string(u"abc\0", 4))},
                  {"NoTerm", 1, Wide(u"abc")},
                  {"Cn", 1, Wide(kCnWide + u'\0')},
                  {"Lossy", 1, Wide(std::u16string(u"a\u0E01\U0001F600b\0", 6))},
                  {"Multi", 7, Wide(std::u16string(u"a\0b\0\0", 5))},
                  {"MultiOpen", 7, Wide(std::u16string(u"a\0b\0", 4))},
                  {"MultiCn", 7, Wide(std::u16string(u"\u4E2D\0\u6587\0\0", 5))},
                  {"Bin", 3, {1, 2, 3, 4, 5, 6, 7, 8}},
                  {"Expand", 2, Wide(std::u16string(u"%x%\0", 4))},
                  {"Inline", 1, Wide(std::u16string(u"a\0", 2))},
                  {"Empty", 1, {}},
                  {"Odd", 1, {'a', 0, 'b', 0, 'c', 0, 'd'}},
                  {"MultiNoTerm", 7, Wide(std::u16string(u"a\0bc", 4))},
                  {"BigStr", 1, Wide(std::u16string(11999, u'x') + u'\0')},
                  {"MultiOne", 7, Wide(u"a")},
                  {"MultiLast", 7, Wide(std::u16string(u"ab\0c", 4))}}};
    TreeKey root{"Root", {}, {data, TreeKey{"Names"}}};
    b.AddTree(root);
    // The Names key is laid out by hand: its names are UTF-16 that the tree can't carry.
    const std::uint32_t names = b.KeyOffset("Names");
    const std::uint32_t values = b.AddOffsets({b.AddVk({"\x2D\x4E\x87\x65", Tamvik::kInlineData | 4, 1, 1, 0}),
                                               b.AddVk({std::string("\x01\x0E\x41\x00", 4), Tamvik::kInlineData | 4, 1, 4, 0}),
                                               b.AddVk({"", Tamvik::kInlineData | 4, 2, 4, 0})});
    const std::uint32_t keys = b.AddList("lf", {b.AddNk({"\x2D\x4E\x87\x65", 0}), b.AddNk({std::string("\x01\x0E\x6B\x00", 4), 0})});
    b.Patch32(names, Tamvik::NkField::ValueCount, 3);
    b.Patch32(names, Tamvik::NkField::ValueListCell, values);
    b.Patch32(names, Tamvik::NkField::SubKeyCount, 2);
    b.Patch32(names, Tamvik::NkField::SubKeyListCell, keys);
    return b;
}

// A narrow read into a buffer of the capacity, filled with 0xEE and guarded behind.
struct NarrowRead {
    LONG result;
    DWORD type, size;
    Bytes raw;
};

NarrowRead QueryA(HKEY key, const char* name, DWORD capacity) {
    const bool withData = capacity != kNullData;
    NarrowRead r{-1, 0xDEAD, withData ? capacity : 100, Bytes((withData ? capacity : 0) + 8, 0xEE)};
    r.result = RegQueryValueExA(key, name, nullptr, &r.type, withData ? r.raw.data() : nullptr, &r.size);
    return r;
}

// The bytes written to the front of a buffer: everything up to where the 0xEE fill resumes for good.
std::string Written(const Bytes& raw) {
    std::size_t end = raw.size();
    while (end > 0 && raw[end - 1] == 0xEE) --end;
    return std::string(raw.begin(), raw.begin() + static_cast<std::ptrdiff_t>(end));
}

TEST(Narrow, ReadsConvertStringTypesAndReportWideCharacters) {
    TestHive test(NarrowHive());
    HKEY data = test.Key(u"Data");
    ASSERT_NE(data, nullptr);
    const std::string big = std::string(11999, 'x') + '\0';
    struct Case {
        const char* name;
        DWORD capacity;
        LONG result;
        DWORD size;
        std::string written;
    } cases[] = {
        {"Str", kNullData, 0, 4, ""},
        {"Str", 4, 0, 4, std::string("abc\0", 4)},
        {"Str", 3, 0, 4, ""},  // too small: the size it needs, and 0
        {"Cn", kNullData, 0, 3, ""},
        {"Cn", 5, 0, 3, kCn + '\0'},
        {"Cn", 3, 0, 5, ""},  // double-byte text that doesn't fit isn't cut
        {"Cn", 4, 0, 5, ""},
        {"Lossy", 6, 0, 6, std::string("a??b\0", 5)},
        {"NoTerm", kNullData, 0, 3, ""},
        {"NoTerm", 3, 0, 4, ""},  // the caller always gets a terminator
        {"NoTerm", 4, 0, 3, std::string("abc\0", 4)},
        {"Multi", 5, 0, 5, std::string("a\0b\0", 4)},  // the list's end isn't written
        {"MultiOpen", 4, 0, 4, std::string("a\0b\0", 4)},
        {"MultiCn", 5, 0, 6, ""},
        {"MultiCn", 6, 0, 5, std::string("\xD6\xD0\0\xCE\xC4\0", 6)},
        {"MultiNoTerm", 4, 0, 5, ""},
        {"MultiNoTerm", 5, 0, 4, std::string("a\0bc\0", 5)},
        {"Odd", 4, 0, 3, std::string("abc\0", 4)},
        {"Expand", 4, 0, 4, std::string("%x%\0", 4)},
        {"Inline", 2, 0, 2, std::string("a\0", 2)},
        {"Empty", 0, 0, 1, ""},
        {"Empty", 1, 0, 0, std::string(1, '\0')},
        {"BigStr", 12000, 0, 12000, big},
        {"MultiOne", 2, 0, 1, ""},  // a list of 2 bytes or less converts to nothing
        {"MultiLast", 4, 0, 4, std::string("ab\0", 3)},  // a last string of one unit, unended, is dropped
        {"Bin", 7, 234, 7, ""},  // other types behave as in the wide family
        {"Bin", 8, 0, 8, std::string("\1\2\3\4\5\6\7\x08", 8)},
        {"\xFF", 8, 87, 8, ""},  // a name that isn't code page 936
    };
    for (const Case& c : cases) {
        const NarrowRead r = QueryA(data, c.name, c.capacity);
        const std::string what = std::string(c.name) + " in " + std::to_string(static_cast<int>(c.capacity));
        EXPECT_EQ(r.result, c.result) << what;
        EXPECT_EQ(r.size, c.size) << what;
        EXPECT_EQ(Written(r.raw), c.written) << what;
    }
    DWORD type = 0;
    BYTE buffer[8];
    std::memset(buffer, 0xEE, sizeof buffer);
    EXPECT_EQ(RegQueryValueExA(data, "Cn", nullptr, &type, buffer, nullptr), Result::Ok);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(buffer[0], 0xEE) << "without a size nothing is delivered";
}

// Enumeration gives value names in bytes (keys in characters), converted,
// with '?' for what has no narrow form, and needs room for the terminator.
TEST(Narrow, NamesComeBackAsCodePage936) {
    TestHive test(NarrowHive());
    struct Case {
        const char16_t* key;
        DWORD index, room;
        LONG result;
        DWORD length;
        std::string name;
    } cases[] = {
        {u"Names", 0, 4, 87, 4, ""}, {u"Names", 0, 8, 0, 4, kCn}, {u"Names", 1, 8, 0, 2, "?A"},
        {u"Names", 2, 0, 87, 0, ""}, {u"Names", 2, 1, 0, 0, ""},  {u"Data", 2, 8, 0, 2, "Cn"},
        {u"Data", 5, 9, 87, 9, ""},  {u"Data", 16, 16, 87, 16, ""},
    };
    for (const Case& c : cases) {
        char name[16];
        std::memset(name, 0x7E, sizeof name);
        DWORD length = c.room, size = 8;
        const LONG rc = RegEnumValueA(test.Key(c.key), c.index, name, &length, nullptr, nullptr, nullptr, &size);
        const std::string what = "value #" + std::to_string(c.index) + " room " + std::to_string(c.room);
        EXPECT_EQ(rc, c.result) << what;
        EXPECT_EQ(length, c.length) << what;
        EXPECT_EQ(rc == 0 ? std::string(name) : std::string(name, 1), rc == 0 ? c.name : std::string(1, 0x7E)) << what;
    }
    // The data of an enumerated value is converted as a query converts it.
    HKEY data = test.Key(u"Data");
    char name[8];
    DWORD length = 8, size = 5, type = 0;
    Bytes buffer(13, 0xEE);
    ASSERT_EQ(RegEnumValueA(data, 2, name, &length, nullptr, &type, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(Written(buffer), kCn + '\0');
    EXPECT_EQ(size, 3u);
    size = 4, length = 8;
    ASSERT_EQ(RegEnumValueA(data, 2, name, &length, nullptr, &type, buffer.data(), &size), Result::Ok);
    EXPECT_EQ(size, 5u) << "too small: the size it needs";
    HKEY names = test.Key(u"Names");  // ends the handle of Data, a sibling
    for (const auto& [index, expected] : {std::pair{0u, kCn}, {1u, std::string("?k")}}) {
        length = 7;
        std::memset(name, 0x7E, sizeof name);
        ASSERT_EQ(RegEnumKeyExA(names, index, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
        EXPECT_EQ(std::string(name), expected);
        EXPECT_EQ(length, 2u) << "keys count characters";
    }
    // Room for 3 wide characters is 4 bytes here: the second double-byte character doesn't fit.
    length = 3;
    std::memset(name, 0x7E, sizeof name);
    ASSERT_EQ(RegEnumKeyExA(names, 0, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Ok);
    EXPECT_EQ(std::string(name, 4), std::string("\xD6\xD0\0\x7E", 4)) << "cut, terminated, nothing past the room";
    EXPECT_EQ(name[4], 0x7E);
    length = 7;
    EXPECT_EQ(RegEnumKeyExA(names, 2, name, &length, nullptr, nullptr, nullptr, nullptr), Result::Invalid);
    EXPECT_EQ(name[0], 0) << "a failed narrow enumeration leaves an empty name";
    EXPECT_EQ(RegDeleteValueA(names, kCn.c_str()), Result::Ok) << "a narrow name finds its UTF-16 twin";
    EXPECT_EQ(RegQueryValueExA(names, kCn.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
}

// What the narrow writes store: widened text without terminators, lists
// without their end, and refusals that write nothing.
TEST(Narrow, WritesWidenStringTypes) {
    TestHive test(NarrowHive());
    HKEY data = test.Key(u"Data");
    struct Case {
        bool create;
        const char* name;
        DWORD type;
        std::string text;
        DWORD size;
        LONG result;
        Bytes stored;
    } cases[] = {
        {false, "Str", 1, std::string("abc\0", 4), 4, 0, Wide(u"abc")},
        {true, "Cut", 1, std::string("ab\0cd", 5), 5, 0, Wide(u"ab")},
        {true, "Bounded", 1, "abcdef", 3, 0, Wide(u"abc")},
        {true, "Exact", 2, "def", 3, 0, Wide(u"def")},
        {false, "Multi", 7, std::string("a\0bc", 4), 4, 0, Wide(std::u16string(u"a\0bc\0", 5))},
        {true, "List", 7, std::string("a\0b\0\0", 5), 5, 0, Wide(std::u16string(u"a\0b\0", 4))},
        {true, "Tail", 7, std::string("a\0\0b\0", 5), 5, 0, Wide(std::u16string(u"a\0", 2))},
        {false, "MultiCn", 7, std::string("\xD6\xD0\0\xCE\xC4\0\0", 7), 7, 0,
         Wide(std::u16string(u"\u4E2D\0\u6587\0", 4))},
        {true, "CnData", 1, kCn, 4, 0, Wide(kCnWide)},
        {true, "Blank", 1, std::string(1, '\0'), 1, 0, {}},
        {true, "OneByteList", 7, "a", 1, 0, {}},
        {true, "Raw", 3, std::string("a\0\xFF", 3), 3, 0, {'a', 0, 0xFF}},
        {false, "Bin", 3, "\xD6\xD0", 2, 0, {0xD6, 0xD0}},
        {true, "Half", 1, "\xD6", 1, 87, {}},
        {true, "\xFF", 1, "a", 1, 87, {}},
        {true, "a\x81", 3, "a", 1, 87, {}},
        {true, "Bad", 1, "\x81", 1, 87, {}},
        {true, "Bad", 2, "\x81", 1, 87, {}},
        {true, "BadList", 7, std::string("a\0\x81\0\0", 5), 5, 87, {}},
        {false, "Expand", 2, "\x81", 1, 87, Wide(std::u16string(u"%x%\0", 4))},
        {true, "str", 1, "x", 1, 72, Wide(u"abc")},
        {false, "Bin", 3, "xy", 0, 87, {0xD6, 0xD0}},
    };
    for (const Case& c : cases) {
        const std::string what = std::string(c.create ? "new " : "set ") + c.name;
        const Bytes before = test.Disk();
        const auto* bytes = reinterpret_cast<const BYTE*>(c.text.data());
        EXPECT_EQ(c.create ? RegSetValueNewA(data, c.name, 0, c.type, bytes, c.size)
                           : RegSetValueExA(data, c.name, 0, c.type, bytes, c.size),
                  c.result)
            << what;
        if (c.result != 0) {
            EXPECT_EQ(test.Disk(), before) << what << ": a refusal writes nothing";
        }
        if (c.result == 87 && c.create) continue;
        DWORD size = 65536;
        Bytes stored(size);
        const std::u16string name(c.name, c.name + std::strlen(c.name));
        EXPECT_EQ(RegQueryValueExW(data, name.c_str(), nullptr, nullptr, stored.data(), &size), 0) << what;
        EXPECT_EQ(Bytes(stored.begin(), stored.begin() + size), c.stored) << what;
    }
    EXPECT_EQ(RegSetValueExA(data, "Bin", 0, 3, nullptr, 2), 87) << "data the size promises but no bytes";
    // Names of new values and keys are the narrow bytes a wide name converts to;
    // they read back widened byte by byte, so the text that made them doesn't find them.
    const BYTE two[2] = {1, 2};
    HKEY created = nullptr, opened = nullptr;
    ASSERT_EQ(RegSetValueNewW(data, kCnWide.c_str(), 0, 3, two, 2), Result::Ok);
    ASSERT_EQ(RegSetValueNewA(data, kCn.c_str(), 0, 3, two, 2), Result::Ok) << "not found again, so made twice";
    ASSERT_EQ(RegCreateKeyExW(data, kCnWide.c_str(), &created), Result::Ok);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(data, kCnWide.c_str(), nullptr, nullptr, nullptr, &size), Result::Invalid);
    EXPECT_EQ(RegQueryValueExW(data, kCnWidened.c_str(), nullptr, nullptr, nullptr, &size), Result::Ok);
    EXPECT_EQ(RegOpenKeyExW(data, kCnWide.c_str(), 0, 0, &opened), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExA(data, kCn.c_str(), 0, 0, &opened), Result::Invalid);
    EXPECT_EQ(RegOpenKeyExW(data, kCnWidened.c_str(), 0, 0, &opened), Result::Ok);
    EXPECT_EQ(RegDeleteKeyA(data, "\xFF") + RegDeleteValueA(data, "\xFF"), 87 + 87);
    // A wide name without a narrow form makes nothing.
    EXPECT_EQ(RegSetValueNewW(data, u"\u0E01", 0, 3, two, 2) + RegCreateKeyExW(data, u"\u0E01", &created), 87 + 87);
    EXPECT_EQ(RegDeleteValueA(data, "Str"), Result::Ok);
}

}  // namespace
