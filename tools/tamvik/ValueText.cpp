#include "ValueText.h"

#include <cstdio>

#include "RegText.h"
#include "Session.h"
#include "store/ByteOrder.h"

namespace TamvikTool {

using Tamvik::AppendU32;
using Tamvik::LoadU32;
using Tamvik::LoadU64;

namespace {

struct TypeNameEntry {
    std::uint32_t type;
    const char* name;
};

constexpr TypeNameEntry kTypes[] = {
    {0, "REG_NONE"},
    {1, "REG_SZ"},
    {2, "REG_EXPAND_SZ"},
    {3, "REG_BINARY"},
    {4, "REG_DWORD"},
    {5, "REG_DWORD_BIG_ENDIAN"},
    {6, "REG_LINK"},
    {7, "REG_MULTI_SZ"},
    {8, "REG_RESOURCE_LIST"},
    {9, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {10, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {11, "REG_QWORD"},
};

std::string Upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

// Text of UTF-16 data up to the first NUL.
std::string TextUpToNul(const Bytes& data) {
    std::u16string units = Utf16Units(data);
    std::size_t end = units.find(u'\0');
    if (end != std::u16string::npos) units.resize(end);
    return ToUtf8(units);
}

// The strings of a multi-string, ended by an empty string or the end of the data.
std::vector<std::string> MultiStrings(const Bytes& data) {
    std::vector<std::string> out;
    std::u16string units = Utf16Units(data);
    std::size_t start = 0;
    while (start < units.size()) {
        std::size_t end = units.find(u'\0', start);
        if (end == std::u16string::npos) end = units.size();
        if (end == start) break;
        out.push_back(ToUtf8(std::u16string_view(units).substr(start, end - start)));
        start = end + 1;
    }
    return out;
}

bool IsNumber(std::uint32_t type, const Bytes& data) {
    return ((type == 4 || type == 5) && data.size() == 4) || (type == 11 && data.size() == 8);
}

std::uint64_t NumberOf(std::uint32_t type, const Bytes& data) {
    if (type == 5) return (static_cast<std::uint32_t>(data[0]) << 24) | (data[1] << 16) | (data[2] << 8) | data[3];
    if (type == 11) return LoadU64(data.data());
    return LoadU32(data.data());
}

}  // namespace

std::string TypeName(std::uint32_t type) {
    for (const auto& t : kTypes)
        if (t.type == type) return t.name;
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "REG_0x%x", type);
    return buffer;
}

std::optional<std::uint32_t> ParseTypeName(const std::string& text) {
    std::string upper = Upper(text);
    for (const auto& t : kTypes) {
        std::string name = t.name;
        if (upper == name || "REG_" + upper == name) return t.type;
    }
    if (upper == "DWORD_BE") return 5;
    std::optional<std::uint64_t> n = ParseNumber(text);
    if (n && *n <= 0xFFFFFFFFu) return static_cast<std::uint32_t>(*n);
    return std::nullopt;
}

std::string ShowData(std::uint32_t type, const Bytes& data) {
    if (type == 1 || type == 2 || type == 6) {
        std::u16string text;
        if (StringForm(data, &text)) {
            std::string shown(1, '"');
            shown += ToUtf8(text);
            shown += '"';
            return shown;
        }
    }
    if (type == 7) {
        std::string out = "[";
        bool first = true;
        for (const auto& s : MultiStrings(data)) {
            out += (first ? "\"" : ", \"") + s + "\"";
            first = false;
        }
        return out + "]";
    }
    if (IsNumber(type, data)) {
        char buffer[64];
        unsigned long long v = NumberOf(type, data);
        std::snprintf(buffer, sizeof buffer, type == 11 ? "0x%016llx (%llu)" : "0x%08llx (%llu)", v, v);
        return buffer;
    }
    constexpr std::size_t kShown = 64;
    std::string out = "hex:" + HexBytes(data.data(), std::min(data.size(), kShown), ",");
    if (data.size() > kShown) out += ",... (" + std::to_string(data.size()) + " bytes)";
    return out;
}

std::string PrintData(std::uint32_t type, const Bytes& data) {
    if (type == 1 || type == 2 || type == 6) return TextUpToNul(data) + "\n";
    if (type == 7) {
        std::string out;
        for (const auto& s : MultiStrings(data)) out += s + "\n";
        return out;
    }
    if (IsNumber(type, data)) return std::to_string(NumberOf(type, data)) + "\n";
    return HexBytes(data.data(), data.size(), "") + "\n";
}

Bytes DataFromArguments(std::uint32_t type, const std::vector<std::string>& values) {
    auto wide = [](const std::string& text) {
        std::optional<std::u16string> w = FromUtf8(text);
        if (!w) UsageError("value is not valid UTF-8 text");
        return *w;
    };
    if (type == 7) {
        std::vector<std::u16string> strings;
        for (const auto& v : values) {
            if (v.empty()) UsageError("a multi-string can't hold an empty string: it would end the list");
            strings.push_back(wide(v));
        }
        return MultiStringData(strings);
    }
    if (values.size() != 1) UsageError("this type takes exactly one VALUE argument");
    const std::string& v = values[0];
    if (type == 1 || type == 2 || type == 6) return StringData(wide(v));
    if (type == 4 || type == 5 || type == 11) {
        std::optional<std::uint64_t> n = ParseNumber(v);
        if (!n || (type != 11 && *n > 0xFFFFFFFFu)) UsageError("not a number for " + TypeName(type) + ": " + v);
        Bytes out;
        if (type == 5) {
            for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(*n >> shift));
        } else {
            AppendU32(out, static_cast<std::uint32_t>(*n));
            if (type == 11) AppendU32(out, static_cast<std::uint32_t>(*n >> 32));
        }
        return out;
    }
    std::optional<Bytes> bytes = ParseHexBytes(v);
    if (!bytes) UsageError("not hex bytes: " + v);
    return *bytes;
}

}  // namespace TamvikTool

namespace TamvikTool {

Bytes DataFromInput(std::uint32_t type, const Bytes& input) {
    const bool text = type == 1 || type == 2 || type == 6 || type == 7 || type == 4 || type == 5 || type == 11;
    if (!text) return input;
    std::string all(input.begin(), input.end());
    if (!all.empty() && all.back() == '\n') all.pop_back();
    if (!all.empty() && all.back() == '\r') all.pop_back();
    if (type != 7) return DataFromArguments(type, {all});
    std::vector<std::string> lines;  // none for an empty list
    for (std::size_t start = 0; !all.empty() && start <= all.size();) {
        std::size_t end = all.find('\n', start);
        if (end == std::string::npos) end = all.size();
        std::string line = all.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return DataFromArguments(type, lines);
}

}  // namespace TamvikTool
