#include "Json.h"

#include <cstdio>

#include "Session.h"
#include "ValueText.h"

namespace TamvikTool {

namespace {
void Escape(char16_t c, std::string* out) {
    if (c == u'\n' || c == u'\r' || c == u'\t') {
        *out += c == u'\n' ? "\\n" : c == u'\r' ? "\\r" : "\\t";
        return;
    }
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
    *out += buffer;
}
}  // namespace

std::string JsonString(std::u16string_view text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        const bool high = c >= 0xD800 && c <= 0xDBFF, low = c >= 0xDC00 && c <= 0xDFFF;
        if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            out += ToUtf8(text.substr(i, 2));
            ++i;
        } else if (high || low || c < 0x20) {
            Escape(c, &out);
        } else if (c == u'"' || c == u'\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else {
            out += ToUtf8(text.substr(i, 1));
        }
    }
    return out + "\"";
}

std::string JsonString(std::string_view utf8) {
    std::string out = "\"";
    for (char c : utf8) {
        if (static_cast<unsigned char>(c) < 0x20) {
            Escape(static_cast<char16_t>(c), &out);
            continue;
        }
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string ValueJson(const ValueEntry& value) {
    std::string out = "{\"name\": " + JsonString(value.name);
    if (value.result != 0) return out + ", \"error\": " + JsonString(DescribeResult(value.result)) + "}";
    std::string data = PrintData(value.type, value.data);
    if (!data.empty() && data.back() == '\n') data.pop_back();
    return out + ", \"type\": " + JsonString(TypeName(value.type)) + ", \"type_number\": " +
           std::to_string(value.type) + ", \"data\": " + JsonString(data) + "}";
}

std::string KeyFieldsJson(const KeyTime& time, std::uint32_t subKeys, std::uint32_t values) {
    return "\"last_write\": " + (time.iso.empty() ? std::string("null") : JsonString(time.iso)) + ", \"clock\": \"" +
           time.clock + "\", \"subkey_count\": " + std::to_string(subKeys) +
           ", \"value_count\": " + std::to_string(values);
}

}  // namespace TamvikTool
