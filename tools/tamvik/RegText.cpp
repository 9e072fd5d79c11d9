#include "RegText.h"

#include <cstring>

#include "store/ByteOrder.h"

namespace TamvikTool {

using Tamvik::AppendU16;
using Tamvik::AppendU32;
using Tamvik::LoadU16;
using Tamvik::LoadU32;

namespace {

// The registry editor keeps hex lines within 80 columns.
constexpr std::size_t kWrapColumn = 76;

std::u16string Ascii(const std::string& text) { return FromLatin1(text); }

std::u16string QuoteName(const std::u16string& name) {
    std::u16string out = u"\"";
    for (char16_t c : name) {
        if (c == u'\\' || c == u'"') out += u'\\';
        out += c;
    }
    return out + u"\"";
}

}  // namespace

bool StringForm(const Bytes& data, std::u16string* text) {
    if (data.size() < 2 || data.size() % 2 != 0) return false;
    std::u16string units = Utf16Units(data);
    if (units.back() != 0) return false;
    units.pop_back();
    for (std::size_t i = 0; i < units.size(); ++i) {
        char16_t c = units[i];
        // A NUL would end the text early, and control characters break lines.
        if (c < 0x20) return false;
        if (c >= 0xD800 && c <= 0xDBFF) {
            if (i + 1 >= units.size() || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) return false;
            ++i;
        } else if (c >= 0xDC00 && c <= 0xDFFF) {
            return false;
        }
    }
    *text = units;
    return true;
}

std::u16string FormatValue(const std::u16string& name, std::uint32_t type, const Bytes& data) {
    std::u16string line = name.empty() ? u"@=" : QuoteName(name) + u"=";
    std::u16string text;
    if (type == 1 && StringForm(data, &text)) {
        line += u'"';
        for (char16_t c : text) {
            if (c == u'\\' || c == u'"') line += u'\\';
            line += c;
        }
        return line + u"\"";
    }
    if (type == 4 && data.size() == 4) {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "dword:%08x", LoadU32(data.data()));
        return line + Ascii(buffer);
    }
    if (type == 3) {
        line += u"hex:";
    } else {
        char buffer[24];
        std::snprintf(buffer, sizeof buffer, "hex(%x):", type);
        line += Ascii(buffer);
    }
    std::size_t column = line.size();
    static const char16_t kDigits[] = u"0123456789abcdef";
    for (std::size_t i = 0; i < data.size(); ++i) {
        line += kDigits[data[i] >> 4];
        line += kDigits[data[i] & 0xF];
        column += 2;
        if (i + 1 < data.size()) {
            line += u',';
            ++column;
            if (column >= kWrapColumn) {
                line += u"\\\n  ";
                column = 2;
            }
        }
    }
    return line;
}

void RegWriter::Put(const std::u16string& text) {
    if (!good_) return;
    std::string bytes;
    if (utf8_) {
        bytes = ToUtf8(text);
    } else {
        bytes.reserve(text.size() * 2);
        for (char16_t c : text) {
            bytes += static_cast<char>(c & 0xFF);
            bytes += static_cast<char>(c >> 8);
        }
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), out_) != bytes.size()) good_ = false;
}

void RegWriter::Line(const std::u16string& text) {
    const std::u16string end = utf8_ ? u"\n" : u"\r\n";
    std::u16string out;
    out.reserve(text.size() + 2);
    for (char16_t c : text) {
        if (c == u'\n') out += end;  // the continuation breaks of FormatValue
        else out += c;
    }
    Put(out + end);
}

void RegWriter::Header() {
    if (!utf8_ && good_ && std::fwrite("\xFF\xFE", 1, 2, out_) != 2) good_ = false;
    Line(kRegHeader);
}

void RegWriter::Key(const std::u16string& path) {
    Line(u"");
    Line(u"[" + path + u"]");
}

void RegWriter::Value(const std::u16string& name, std::uint32_t type, const Bytes& data) {
    Line(FormatValue(name, type, data));
}

namespace {

// Decodes the whole file into UTF-16 lines (line ends removed, continuations
// not yet joined).
std::vector<std::u16string> DecodeLines(const Bytes& file) {
    std::vector<std::u16string> lines;
    std::u16string current;
    auto flush = [&] {
        if (!current.empty() && current.back() == u'\r') current.pop_back();
        lines.push_back(std::move(current));
        current.clear();
    };
    if (file.size() >= 2 && file[0] == 0xFF && file[1] == 0xFE) {
        for (std::size_t i = 2; i + 1 < file.size(); i += 2) {
            char16_t c = static_cast<char16_t>(LoadU16(&file[i]));
            if (c == u'\n') flush();
            else current += c;
        }
    } else {
        std::size_t start = file.size() >= 3 && file[0] == 0xEF && file[1] == 0xBB && file[2] == 0xBF ? 3 : 0;
        std::string raw;
        auto flushRaw = [&] {
            std::string_view view(raw);
            std::optional<std::u16string> wide = FromUtf8(view);
            current = wide ? *wide : FromWindows1252(view);
            flush();
            raw.clear();
        };
        for (std::size_t i = start; i < file.size(); ++i) {
            if (file[i] == '\n') flushRaw();
            else raw += static_cast<char>(file[i]);
        }
        if (!raw.empty()) flushRaw();
        return lines;
    }
    if (!current.empty()) flush();
    return lines;
}

std::u16string TrimLeft(std::u16string_view s) {
    std::size_t i = 0;
    while (i < s.size() && (s[i] == u' ' || s[i] == u'\t')) ++i;
    return std::u16string(s.substr(i));
}

std::u16string TrimRight(std::u16string s) {
    while (!s.empty() && (s.back() == u' ' || s.back() == u'\t' || s.back() == u'\r')) s.pop_back();
    return s;
}

// Reads a quoted string at text[*pos] (which is the opening quote), undoing
// \\ and \" escapes. Returns false when the closing quote is missing.
bool ReadQuoted(const std::u16string& text, std::size_t* pos, std::u16string* out) {
    std::size_t i = *pos + 1;
    out->clear();
    for (; i < text.size(); ++i) {
        char16_t c = text[i];
        if (c == u'\\' && i + 1 < text.size() && (text[i + 1] == u'\\' || text[i + 1] == u'"')) {
            *out += text[++i];
        } else if (c == u'"') {
            *pos = i + 1;
            return true;
        } else {
            *out += c;
        }
    }
    return false;
}

std::string Narrow(std::u16string_view s) { return ToUtf8(s); }

// The ANSI bytes of a REGEDIT4 string as the UTF-16 data Windows stores.
Bytes AnsiToUtf16(const Bytes& ansi) {
    Bytes out;
    out.reserve(ansi.size() * 2);
    for (char16_t c : FromWindows1252(std::string_view(reinterpret_cast<const char*>(ansi.data()), ansi.size())))
        AppendU16(out, c);
    return out;
}

// Parses the part behind '=' of a value line into op (type and data, or a
// deletion). ansi: a REGEDIT4 file, whose hex string data is ANSI text.
bool ParseData(const std::u16string& text, RegOp* op, std::string* error, bool ansi) {
    if (text == u"-") {
        op->kind = RegOp::DeleteValue;
        return true;
    }
    op->kind = RegOp::SetValue;
    if (!text.empty() && text[0] == u'"') {
        std::size_t pos = 0;
        std::u16string value;
        if (!ReadQuoted(text, &pos, &value) || !TrimLeft(std::u16string_view(text).substr(pos)).empty()) {
            *error = "malformed string data";
            return false;
        }
        op->type = 1;
        op->data = StringData(value);
        return true;
    }
    std::string ascii = Narrow(text);
    auto startsWith = [&](const char* prefix) { return ascii.rfind(prefix, 0) == 0; };
    if (startsWith("dword:")) {
        std::string digits = ascii.substr(6);
        std::optional<std::uint64_t> v = digits.empty() || digits.size() > 8 ? std::nullopt
                                                                              : ParseNumber("0x" + digits);
        if (!v) {
            *error = "malformed dword: " + ascii;
            return false;
        }
        op->type = 4;
        op->data.clear();
        AppendU32(op->data, static_cast<std::uint32_t>(*v));
        return true;
    }
    std::string hexPart;
    if (startsWith("hex:")) {
        op->type = 3;
        hexPart = ascii.substr(4);
    } else if (startsWith("hex(")) {
        std::size_t close = ascii.find("):");
        std::optional<std::uint64_t> t =
            close == std::string::npos || close == 4 || close > 12 ? std::nullopt : ParseNumber("0x" + ascii.substr(4, close - 4));
        if (!t || *t > 0xFFFFFFFFu) {
            *error = "malformed hex(type): " + ascii.substr(0, 16);
            return false;
        }
        op->type = static_cast<std::uint32_t>(*t);
        hexPart = ascii.substr(close + 2);
    } else {
        *error = "unknown data form: " + ascii.substr(0, 24);
        return false;
    }
    std::optional<Bytes> bytes = ParseHexBytes(hexPart);
    if (!bytes) {
        *error = "malformed hex bytes";
        return false;
    }
    const bool stringType = op->type == 1 || op->type == 2 || op->type == 7;
    op->data = ansi && stringType ? AnsiToUtf16(*bytes) : std::move(*bytes);
    return true;
}

}  // namespace

RegParse ParseRegText(const Bytes& file) {
    RegParse parse;
    std::vector<std::u16string> lines = DecodeLines(file);
    bool header = false;
    bool ansi = false;  // REGEDIT4
    bool haveKey = false;
    std::u16string currentKey;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const int lineNumber = static_cast<int>(i) + 1;
        std::u16string line = TrimRight(lines[i]);
        auto error = [&](const std::string& what) {
            parse.errors.push_back("line " + std::to_string(lineNumber) + ": " + what);
        };
        if (!header) {
            std::u16string trimmed = TrimLeft(line);
            if (trimmed.empty()) continue;
            if (trimmed != kRegHeader && trimmed != u"REGEDIT4") {
                error("not a .reg file: the first line must be \"Windows Registry Editor Version 5.00\"");
                return parse;
            }
            header = true;
            ansi = trimmed == u"REGEDIT4";
            continue;
        }
        std::u16string trimmed = TrimLeft(line);
        if (trimmed.empty() || trimmed[0] == u';') continue;
        if (trimmed[0] == u'[') {
            if (trimmed.back() != u']') {
                error("key line without closing bracket");
                continue;
            }
            RegOp op;
            op.line = lineNumber;
            std::u16string inner = trimmed.substr(1, trimmed.size() - 2);
            if (!inner.empty() && inner[0] == u'-') {
                op.kind = RegOp::DeleteKey;
                inner.erase(0, 1);
                haveKey = false;  // values behind a deleted key have nowhere to go
            } else {
                op.kind = RegOp::CreateKey;
                haveKey = true;
                currentKey = inner;
            }
            op.keyPath = inner;
            parse.ops.push_back(std::move(op));
            continue;
        }
        // A value line, possibly continued over several lines.
        std::u16string joined = trimmed;
        while (!joined.empty() && joined.back() == u'\\' && i + 1 < lines.size()) {
            // A backslash inside a closing string like "C:\\" is no continuation.
            if (joined.size() >= 2 && joined[joined.size() - 2] == u'\\') break;
            joined.pop_back();
            joined += TrimLeft(TrimRight(lines[++i]));
        }
        if (!haveKey) {
            error("value outside a key");
            continue;
        }
        RegOp op;
        op.line = lineNumber;
        op.keyPath = currentKey;
        std::size_t pos = 0;
        if (joined[0] == u'@') {
            pos = 1;
        } else if (joined[0] == u'"') {
            if (!ReadQuoted(joined, &pos, &op.name)) {
                error("value name without closing quote");
                continue;
            }
        } else {
            error("expected a key, a \"name\"= or @= line");
            continue;
        }
        while (pos < joined.size() && (joined[pos] == u' ' || joined[pos] == u'\t')) ++pos;
        if (pos >= joined.size() || joined[pos] != u'=') {
            error("expected '=' after the value name");
            continue;
        }
        std::u16string data = TrimLeft(std::u16string_view(joined).substr(pos + 1));
        std::string why;
        if (!ParseData(data, &op, &why, ansi)) {
            error(why);
            continue;
        }
        parse.ops.push_back(std::move(op));
    }
    if (!header) parse.errors.push_back("line 1: empty file, no .reg header");
    return parse;
}

}  // namespace TamvikTool
