// The .reg text format: writing keys and values as the registry editor does,
// and reading such a file back into a list of operations.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Text.h"

namespace TamvikTool {

constexpr char16_t kRegHeader[] = u"Windows Registry Editor Version 5.00";

// One value line without its line breaks: "name"=data or @=data, with hex data
// wrapped by ",\" continuations as the registry editor wraps it.
std::u16string FormatValue(const std::u16string& name, std::uint32_t type, const Bytes& data);
// A string value's data as "..." text, when the bytes are exactly UTF-16
// text with one final NUL that reads back unchanged; empty otherwise.
bool StringForm(const Bytes& data, std::u16string* text);

// Writes .reg text to a stream: UTF-16LE with a byte order mark and CR LF
// line ends, or UTF-8 with LF.
class RegWriter {
public:
    RegWriter(std::FILE* out, bool utf8) : out_(out), utf8_(utf8) {}
    void Header();
    void Key(const std::u16string& path);
    void Value(const std::u16string& name, std::uint32_t type, const Bytes& data);
    // The blank line that ends the last key.
    void End() { Line(u""); }
    // False once a write has failed.
    bool Good() const { return good_; }

private:
    void Line(const std::u16string& text);
    void Put(const std::u16string& text);
    std::FILE* out_;
    bool utf8_;
    bool good_ = true;
};

// What a .reg file asks for, in file order.
struct RegOp {
    enum Kind { CreateKey, DeleteKey, SetValue, DeleteValue } kind = CreateKey;
    std::u16string keyPath;  // as written between the brackets
    std::u16string name;     // value name, empty for @
    std::uint32_t type = 0;
    Bytes data;
    int line = 0;  // first line of the entry, for messages
};

struct RegParse {
    std::vector<RegOp> ops;
    std::vector<std::string> errors;  // "line N: ..."
};

// Parses .reg text: UTF-16LE with a byte order mark, or UTF-8 with or without
// one (lines that are not UTF-8 are read as code page 1252). The hex data
// of string types in a REGEDIT4 file is ANSI text, and becomes UTF-16. Lines
// ending in a backslash continue on the next line.
RegParse ParseRegText(const Bytes& file);

}  // namespace TamvikTool
