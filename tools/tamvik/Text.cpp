#include "Text.h"

#include <cstdio>
#include <limits>

#include "store/ByteOrder.h"

namespace TamvikTool {

using Tamvik::AppendU16;
using Tamvik::LoadU16;

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string ToDisplay(std::u16string_view text) {
    std::string out;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] >= 0x20) continue;
        out += ToUtf8(text.substr(start, i - start));
        if (i < text.size()) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned>(text[i]));
            out += buffer;
        }
        start = i + 1;
    }
    return out;
}

std::optional<std::u16string> FromUtf8(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        auto b = static_cast<std::uint8_t>(text[i]);
        std::uint32_t c;
        std::size_t n;
        if (b < 0x80) {
            c = b;
            n = 1;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            n = 2;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            n = 3;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            n = 4;
        } else {
            return std::nullopt;
        }
        if (i + n > text.size()) return std::nullopt;
        for (std::size_t k = 1; k < n; ++k) {
            auto t = static_cast<std::uint8_t>(text[i + k]);
            if ((t & 0xC0) != 0x80) return std::nullopt;
            c = (c << 6) | (t & 0x3F);
        }
        // Overlong forms and values outside Unicode are malformed.
        static const std::uint32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < kMin[n] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return std::nullopt;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
        i += n;
    }
    return out;
}

std::u16string FromWindows1252(std::string_view text) {
    // 0x80 to 0x9F: the characters Windows puts where Latin-1 has controls.
    static const char16_t kHigh[32] = {0x20AC, 0x81,   0x201A, 0x192,  0x201E, 0x2026, 0x2020, 0x2021,
                                       0x2C6,  0x2030, 0x160,  0x2039, 0x152,  0x8D,   0x17D,  0x8F,
                                       0x90,   0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                       0x2DC,  0x2122, 0x161,  0x203A, 0x153,  0x9D,   0x17E,  0x178};
    std::u16string out = FromLatin1(text);
    for (char16_t& c : out)
        if (c >= 0x80 && c < 0xA0) c = kHigh[c - 0x80];
    return out;
}

std::u16string FromLatin1(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (char c : text) out += static_cast<char16_t>(static_cast<std::uint8_t>(c));
    return out;
}

std::string HexBytes(const std::uint8_t* data, std::size_t size, std::string_view separator) {
    std::string out;
    out.reserve(size * (2 + separator.size()));
    static const char kDigits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0) out += separator;
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 0xF];
    }
    return out;
}

namespace {
int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

std::optional<Bytes> ParseHexBytes(std::string_view text) {
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ',' || c == ' ' || c == '\t' || c == '\\' || c == '\r' || c == '\n') {
            // A separator may not split a byte.
            if (high >= 0 && c != '\\' && c != '\r' && c != '\n') return std::nullopt;
            continue;
        }
        int d = HexDigit(c);
        if (d < 0) return std::nullopt;
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<std::uint8_t>(high * 16 + d));
            high = -1;
        }
    }
    if (high >= 0) return std::nullopt;
    return out;
}

std::optional<std::uint64_t> ParseNumber(std::string_view text) {
    if (text.empty()) return std::nullopt;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t value = 0;
    for (char c : text) {
        const int d = HexDigit(c);
        if (d < 0 || d >= base) return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(d), radix = static_cast<std::uint64_t>(base);
        // Both the product and the sum must stay within 64 bits.
        if (value > (kMax - digit) / radix) return std::nullopt;
        value = value * radix + digit;
    }
    return value;
}

Bytes StringData(std::u16string_view text) {
    Bytes out;
    out.reserve(text.size() * 2 + 2);
    for (char16_t c : text) AppendU16(out, c);
    AppendU16(out, 0);
    return out;
}

Bytes MultiStringData(const std::vector<std::u16string>& strings) {
    Bytes out;
    for (const auto& s : strings) {
        Bytes one = StringData(s);
        out.insert(out.end(), one.begin(), one.end());
    }
    AppendU16(out, 0);
    return out;
}

std::u16string Utf16Units(const Bytes& data) {
    std::u16string out;
    out.reserve(data.size() / 2);
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) out += static_cast<char16_t>(LoadU16(&data[i]));
    return out;
}

}  // namespace TamvikTool
