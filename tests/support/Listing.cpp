// Normalised listings of a hive through the public functions (see Listing.h).
#include "support/Listing.h"

#include <cwctype>

namespace TamvikTest {

using namespace RegAPI;

namespace {

// Room for the longest name a record can hold, plus the terminator; not taken
// from the max-name fields, which foreign hives may leave stale.
constexpr DWORD kNameRoom = 65536 + 1;
// A damaged hive can make a key its own descendant; the walk stops there.
constexpr int kMaxDepth = 512;

void AppendUtf8(std::string& out, char32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
        return;
    }
    const int tail = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    static const unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(kLead[tail] | (code >> (6 * tail)));
    for (int i = tail - 1; i >= 0; --i) out += static_cast<char>(0x80 | ((code >> (6 * i)) & 0x3F));
}

std::u16string Upper(std::u16string name) {
    for (char16_t& unit : name) unit = static_cast<char16_t>(std::towupper(unit));
    return name;
}

struct ValueRead {
    DWORD type = 0;
    Bytes data;
    bool operator==(const ValueRead& other) const { return type == other.type && data == other.data; }
};

// One handle per level: children are opened by name from their parent, so
// opening a sibling ends only a walk that is done.
class Walker {
public:
    explicit Walker(Listing& out) : out_(out), name_(kNameRoom) {}

    void Walk(HKEY key, const std::string& path, int depth) {
        out_.lines.push_back("K\t" + path);
        if (depth > kMaxDepth) return Problem(path, "deeper than the walk goes");
        KeyCounts c;
        LONG rc = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &c.subKeys, &c.maxSubKeyLength, nullptr, &c.values,
                                   &c.maxValueNameLength, &c.maxValueLength, nullptr, nullptr);
        if (rc != Result::Ok) return Problem(path, "RegQueryInfoKeyW gave " + std::to_string(rc));
        out_.counts[path] = c;
        std::map<std::u16string, ValueRead> firstOfName;
        for (DWORD i = 0; i < c.values; ++i) ListValue(key, path, i, firstOfName);
        for (DWORD i = 0; i < c.subKeys; ++i) {
            DWORD length = kNameRoom;
            rc = RegEnumKeyExW(key, i, name_.data(), &length, nullptr, nullptr, nullptr, nullptr);
            if (rc != Result::Ok) {
                Problem(path, "RegEnumKeyExW #" + std::to_string(i) + " gave " + std::to_string(rc));
                continue;
            }
            const std::u16string name(name_.data(), length);
            const std::string childPath = (path == "\\" ? path : path + "\\") + EscapeName(name);
            if (name.find_first_of(std::u16string(u"\\\0", 2)) != std::u16string::npos) {
                out_.lines.push_back("K\t" + childPath + "\tSKIP");
                continue;
            }
            HKEY child = nullptr;
            rc = RegOpenKeyExW(key, name.c_str(), 0, 0, &child);
            if (rc != Result::Ok) {
                out_.lines.push_back("K\t" + childPath);
                Problem(childPath, "RegOpenKeyExW by its enumerated name gave " + std::to_string(rc));
                continue;
            }
            Walk(child, childPath, depth + 1);
        }
    }

private:
    void Problem(const std::string& path, const std::string& what) { out_.problems.push_back(path + ": " + what); }

    // By position (the size first, then the bytes), then by name: a lookup by
    // name reaches the first value of that name in any case.
    void ListValue(HKEY key, const std::string& path, DWORD index, std::map<std::u16string, ValueRead>& firstOfName) {
        ValueRead byPosition;
        DWORD length = kNameRoom, size = 0;
        LONG rc = RegEnumValueW(key, index, name_.data(), &length, nullptr, &byPosition.type, nullptr, &size);
        if (rc != Result::Ok)
            return Problem(path, "RegEnumValueW #" + std::to_string(index) + " gave " + std::to_string(rc));
        const std::u16string name(name_.data(), length);
        byPosition.data.assign(size, 0);
        if (size != 0) {
            length = kNameRoom;
            rc = RegEnumValueW(key, index, name_.data(), &length, nullptr, nullptr, byPosition.data.data(), &size);
            if (rc != Result::Ok || size != byPosition.data.size())
                return Problem(path, "RegEnumValueW read #" + std::to_string(index) + " gave " + std::to_string(rc));
        }
        out_.lines.push_back("V\t" + path + "\t" + EscapeName(name) + "\t" + std::to_string(byPosition.type) + "\t" +
                             HexBytes(byPosition.data));
        if (name.find(u'\0') != std::u16string::npos) return;  // a by-name call would cut it short
        const ValueRead& expected = firstOfName.emplace(Upper(name), byPosition).first->second;
        ValueRead byName;
        size = 0;
        rc = RegQueryValueExW(key, name.c_str(), nullptr, &byName.type, nullptr, &size);
        byName.data.assign(size, 0);
        if (rc == Result::Ok && size != 0)
            rc = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, byName.data.data(), &size);
        if (rc != Result::Ok) return Problem(path, "RegQueryValueExW " + EscapeName(name) + " gave " + std::to_string(rc));
        if (!(byName == expected)) Problem(path, "value " + EscapeName(name) + ": by name differs from by position");
    }

    Listing& out_;
    std::vector<WCHAR> name_;
};

}  // namespace

Listing ListKey(HKEY hive, const std::u16string& hivePath, const std::string& listingPath) {
    Listing listing;
    HKEY top = nullptr;
    // From a hive handle the first component is the root whatever it says.
    const std::u16string path = hivePath.empty() ? u"" : u"ROOT\\" + hivePath;
    const LONG rc = RegOpenKeyExW(hive, path.c_str(), 0, 0, &top);
    if (rc != Result::Ok) {
        listing.problems.push_back(listingPath + ": RegOpenKeyExW gave " + std::to_string(rc));
        return listing;
    }
    listing.opened = true;
    Walker(listing).Walk(top, listingPath, 0);
    return listing;
}

Listing ListFile(const std::string& path) {
    HKEY hive = nullptr;
    const LONG rc = OpenHiveW(Utf16(path).c_str(), &hive, true);
    if (rc != Result::Ok) {
        Listing refused;
        refused.problems.push_back(path + ": OpenHiveW gave " + std::to_string(rc));
        return refused;
    }
    Listing listing = ListKey(hive);
    if (CloseHive(&hive) != Result::Ok) listing.problems.push_back(path + ": CloseHive failed");
    return listing;
}

std::string EscapeName(const std::u16string& name) {
    static const char kHex[] = "0123456789ABCDEF";
    auto hex2 = [](unsigned v) { return std::string{kHex[(v >> 4) & 0xF], kHex[v & 0xF]}; };
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t unit = name[i];
        const bool pair = unit >= 0xD800 && unit <= 0xDBFF && i + 1 < name.size() && name[i + 1] >= 0xDC00 &&
                          name[i + 1] <= 0xDFFF;
        if (pair) {
            AppendUtf8(out, 0x10000 + ((char32_t(unit) - 0xD800) << 10) + (char32_t(name[++i]) - 0xDC00));
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            out += "%u" + hex2(unit >> 8) + hex2(unit);
        } else if (unit < 0x20 || (unit >= 0x7F && unit <= 0x9F) || unit == u'%' || unit == u'\\') {
            out += "%" + hex2(unit);
        } else {
            AppendUtf8(out, unit);
        }
    }
    return out;
}

std::string HexBytes(const Bytes& bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (std::uint8_t byte : bytes) out += {kHex[byte >> 4], kHex[byte & 0xF]};
    return out;
}

std::u16string Utf16(const std::string& utf8) {
    std::u16string out;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        const std::size_t tail = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
        char32_t code = lead;
        if (tail > 0 && i + tail < utf8.size()) {
            code = lead & (0x3F >> tail);
            for (std::size_t k = 1; k <= tail; ++k) code = (code << 6) | (utf8[i + k] & 0x3F);
            i += tail;
        }
        if (code >= 0x10000) {
            out += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            out += static_cast<char16_t>(code);
        }
    }
    return out;
}

std::string Utf8(const std::u16string& utf16) {
    std::string out;
    for (std::size_t i = 0; i < utf16.size(); ++i) {
        char32_t code = utf16[i];
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF)
            code = 0x10000 + ((code - 0xD800) << 10) + (utf16[++i] - 0xDC00);
        AppendUtf8(out, code);
    }
    return out;
}

}  // namespace TamvikTest
