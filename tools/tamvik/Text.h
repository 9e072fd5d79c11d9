// Conversions between the tool's UTF-8 command line and output and the
// library's UTF-16 names, plus small number and hex helpers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TamvikTool {

using Bytes = std::vector<std::uint8_t>;

// UTF-16 to UTF-8; unpaired surrogates become U+FFFD.
std::string ToUtf8(std::u16string_view text);
// UTF-8 for listings and messages: control characters (a NUL or a line break
// inside a stored name) are shown as \xNN so that a name stays on one line.
std::string ToDisplay(std::u16string_view text);
// UTF-8 to UTF-16; nullopt for malformed input.
std::optional<std::u16string> FromUtf8(std::string_view text);
// Every byte one character.
std::u16string FromLatin1(std::string_view text);
// Every byte one character of the Windows ANSI code page 1252 (for text that
// isn't UTF-8, and the ANSI data of REGEDIT4 files).
std::u16string FromWindows1252(std::string_view text);

// "01,ab,ff" style, lowercase, with the given separator.
std::string HexBytes(const std::uint8_t* data, std::size_t size, std::string_view separator);
// Hex bytes from text; commas, spaces and a trailing backslash-newline are
// ignored. nullopt on an odd digit count or another character.
std::optional<Bytes> ParseHexBytes(std::string_view text);
// Decimal or 0x-prefixed number that fits in 64 bits.
std::optional<std::uint64_t> ParseNumber(std::string_view text);

// Text as the data of a string value: UTF-16LE with a terminating NUL.
Bytes StringData(std::u16string_view text);
// A multi-string: each string with its NUL, then the empty string.
Bytes MultiStringData(const std::vector<std::u16string>& strings);
// The UTF-16 units of little-endian data (an odd last byte is dropped).
std::u16string Utf16Units(const Bytes& data);

}  // namespace TamvikTool
