// Walks a hive through the public functions and writes the normalised listing.
#include "support/ApiListing.h"

#include <cwctype>
#include <map>

namespace TamvikTest {

using namespace RegAPI;

namespace {

// Room for the longest name a record can hold (NameLength is 16 bits, and a
// narrow name gives one character per byte), plus the terminator. Taken as it
// is rather than from the max-name fields, which foreign hives may leave stale.
constexpr DWORD kNameRoom = 65536 + 1;

// A damaged hive can make a key its own descendant; the walk stops there.
constexpr int kMaxDepth = 512;

std::string Hex2(unsigned value) {
    static const char digits[] = "0123456789ABCDEF";
    return {digits[(value >> 4) & 0xF], digits[value & 0xF]};
}

void AppendUtf8(std::string& out, char32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The library compares names after towupper on each unit; the walk predicts
// which value a lookup by name reaches with the same rule.
std::u16string Upper(const std::u16string& name) {
    std::u16string upper(name);
    for (char16_t& unit : upper) unit = static_cast<char16_t>(std::towupper(unit));
    return upper;
}

// Decodes a UTF-8 file path; the paths of tests are plain, so a bad sequence
// is simply taken byte by byte.
std::u16string WidenPath(const std::string& path) {
    std::u16string wide;
    for (std::size_t i = 0; i < path.size();) {
        const auto byte = static_cast<unsigned char>(path[i]);
        char32_t code = byte;
        std::size_t length = 1;
        if (byte >= 0xF0 && i + 3 < path.size()) {
            code = ((byte & 0x07u) << 18) | ((path[i + 1] & 0x3Fu) << 12) | ((path[i + 2] & 0x3Fu) << 6) |
                   (path[i + 3] & 0x3Fu);
            length = 4;
        } else if (byte >= 0xE0 && i + 2 < path.size()) {
            code = ((byte & 0x0Fu) << 12) | ((path[i + 1] & 0x3Fu) << 6) | (path[i + 2] & 0x3Fu);
            length = 3;
        } else if (byte >= 0xC0 && i + 1 < path.size()) {
            code = ((byte & 0x1Fu) << 6) | (path[i + 1] & 0x3Fu);
            length = 2;
        }
        if (code >= 0x10000) {
            wide += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            wide += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            wide += static_cast<char16_t>(code);
        }
        i += length;
    }
    return wide;
}

// Type and data of one value, as one read delivered them.
struct ValueRead {
    DWORD type = 0;
    std::vector<std::uint8_t> data;
};

// The walk of one hive: one handle per level, children opened by name.
class Walker {
public:
    explicit Walker(ApiListing& listing) : listing_(listing), nameBuffer_(kNameRoom) {}

    void Walk(HKEY key, const std::string& path, int depth) {
        listing_.lines.push_back("K\t" + path);
        if (depth > kMaxDepth) {
            Problem(path, "deeper than " + std::to_string(kMaxDepth) + " levels; walk stopped");
            return;
        }
        DWORD subKeys = 0;
        DWORD values = 0;
        LONG rc = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr,
                                   nullptr, nullptr, nullptr);
        if (rc != Result::Ok) {
            Problem(path, "RegQueryInfoKeyW gave " + std::to_string(rc));
            return;
        }
        ListValues(key, path, values);
        ListSubKeys(key, path, subKeys, depth);
    }

private:
    void Problem(const std::string& path, const std::string& what) {
        listing_.problems.push_back(path + ": " + what);
    }

    // RegEnumValueW at index: first the size (null data), then the bytes.
    bool ReadByPosition(HKEY key, DWORD index, std::u16string& name, ValueRead& read, std::string& error) {
        DWORD nameLength = kNameRoom;
        DWORD size = 0;
        LONG rc = RegEnumValueW(key, index, nameBuffer_.data(), &nameLength, nullptr, &read.type, nullptr, &size);
        if (rc != Result::Ok) {
            error = "RegEnumValueW size query gave " + std::to_string(rc);
            return false;
        }
        name.assign(nameBuffer_.data(), nameLength);
        // A stored length of 0 is not read: there may be no data cell to read.
        read.data.assign(size, 0);
        if (size == 0) return true;
        nameLength = kNameRoom;
        DWORD capacity = size;
        DWORD type = 0;
        rc = RegEnumValueW(key, index, nameBuffer_.data(), &nameLength, nullptr, &type, read.data.data(), &capacity);
        if (rc != Result::Ok) {
            error = "RegEnumValueW read of " + std::to_string(size) + " bytes gave " + std::to_string(rc);
            return false;
        }
        if (capacity != size || type != read.type || std::u16string(nameBuffer_.data(), nameLength) != name) {
            error = "RegEnumValueW gave a different size, type or name on the second call";
            return false;
        }
        return true;
    }

    // RegQueryValueExW by name, in the same two steps.
    bool ReadByName(HKEY key, const std::u16string& name, ValueRead& read, std::string& error) {
        DWORD size = 0;
        LONG rc = RegQueryValueExW(key, name.c_str(), nullptr, &read.type, nullptr, &size);
        if (rc != Result::Ok) {
            error = "RegQueryValueExW size query gave " + std::to_string(rc);
            return false;
        }
        read.data.assign(size, 0);
        if (size == 0) return true;
        DWORD capacity = size;
        rc = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, read.data.data(), &capacity);
        if (rc != Result::Ok || capacity != size) {
            error = "RegQueryValueExW read of " + std::to_string(size) + " bytes gave " + std::to_string(rc);
            return false;
        }
        return true;
    }

    void ListValues(HKEY key, const std::string& path, DWORD values) {
        // A lookup by name reaches the first value whose upper-cased name
        // matches, so a later namesake is compared with that one.
        std::map<std::u16string, ValueRead> firstByUpperName;
        for (DWORD index = 0; index < values; ++index) {
            std::u16string name;
            ValueRead byPosition;
            std::string error;
            if (!ReadByPosition(key, index, name, byPosition, error)) {
                Problem(path, "value #" + std::to_string(index) + ": " + error);
                continue;
            }
            const std::string escaped = EscapeName(name);
            listing_.lines.push_back("V\t" + path + "\t" + escaped + "\t" + std::to_string(byPosition.type) + "\t" +
                                     HexBytes(byPosition.data));
            // A name with a NUL would be cut short by the by-name call.
            if (name.find(u'\0') != std::u16string::npos) continue;
            const ValueRead& expected = firstByUpperName.emplace(Upper(name), byPosition).first->second;
            ValueRead byName;
            if (!ReadByName(key, name, byName, error)) {
                Problem(path, "value " + escaped + ": " + error);
            } else if (byName.type != expected.type || byName.data != expected.data) {
                Problem(path, "value " + escaped + ": read by name gives type " + std::to_string(byName.type) +
                                  ", " + std::to_string(byName.data.size()) + " bytes; by position type " +
                                  std::to_string(expected.type) + ", " + std::to_string(expected.data.size()) +
                                  " bytes");
            }
        }
    }

    void ListSubKeys(HKEY key, const std::string& path, DWORD subKeys, int depth) {
        std::map<std::u16string, std::string> seenUpper;
        for (DWORD index = 0; index < subKeys; ++index) {
            DWORD nameLength = kNameRoom;
            LONG rc = RegEnumKeyExW(key, index, nameBuffer_.data(), &nameLength, nullptr, nullptr, nullptr, nullptr);
            if (rc != Result::Ok) {
                Problem(path, "RegEnumKeyExW #" + std::to_string(index) + " gave " + std::to_string(rc));
                continue;
            }
            const std::u16string name(nameBuffer_.data(), nameLength);
            const std::string childPath = (path == "\\" ? path : path + "\\") + EscapeName(name);
            if (name.find(u'\\') != std::u16string::npos || name.find(u'\0') != std::u16string::npos) {
                listing_.lines.push_back("K\t" + childPath + "\tSKIP");
                continue;
            }
            if (!seenUpper.emplace(Upper(name), childPath).second) {
                Problem(childPath, "a sibling of the same name ignoring case comes first; opening by name reaches it");
            }
            HKEY child = nullptr;
            // Opening this sibling ends the handle of the one before, whose walk is done.
            rc = RegOpenKeyExW(key, name.c_str(), 0, 0, &child);
            if (rc != Result::Ok) {
                listing_.lines.push_back("K\t" + childPath);
                Problem(childPath, "RegOpenKeyExW by its enumerated name gave " + std::to_string(rc));
                continue;
            }
            Walk(child, childPath, depth + 1);
        }
    }

    ApiListing& listing_;
    std::vector<WCHAR> nameBuffer_;
};

}  // namespace

std::string EscapeName(const std::u16string& name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t unit = name[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < name.size() && name[i + 1] >= 0xDC00 &&
            name[i + 1] <= 0xDFFF) {
            AppendUtf8(out, 0x10000 + ((char32_t(unit) - 0xD800) << 10) + (char32_t(name[i + 1]) - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            out += "%u" + Hex2(unit >> 8) + Hex2(unit & 0xFF);
        } else if (unit < 0x20 || (unit >= 0x7F && unit <= 0x9F) || unit == u'%' || unit == u'\\') {
            out += "%" + Hex2(unit);
        } else {
            AppendUtf8(out, unit);
        }
    }
    return out;
}

std::string HexBytes(const std::vector<std::uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (std::uint8_t byte : bytes) {
        out += digits[byte >> 4];
        out += digits[byte & 0xF];
    }
    return out;
}

ApiListing ListOpenHive(HKEY hive) {
    ApiListing listing;
    HKEY root = nullptr;
    // From a hive handle the empty path is the root key.
    const LONG rc = RegOpenKeyExW(hive, u"", 0, 0, &root);
    if (rc != Result::Ok) {
        listing.problems.push_back("root key: RegOpenKeyExW gave " + std::to_string(rc));
        return listing;
    }
    listing.opened = true;
    Walker(listing).Walk(root, "\\", 0);
    return listing;
}

ApiListing ListHiveFile(const std::string& path) {
    const std::u16string widePath = WidenPath(path);
    HKEY hive = nullptr;
    const LONG rc = OpenHiveW(widePath.c_str(), &hive, true);
    if (rc != Result::Ok) {
        ApiListing refused;
        refused.problems.push_back(path + ": OpenHiveW gave " + std::to_string(rc));
        return refused;
    }
    ApiListing listing = ListOpenHive(hive);
    if (CloseHive(&hive) != Result::Ok) listing.problems.push_back(path + ": CloseHive failed");
    return listing;
}

}  // namespace TamvikTest
