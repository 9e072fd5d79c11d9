// Value types by name, and value data shown as text for ls and get, or read
// from the arguments of set.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Text.h"

namespace TamvikTool {

// "REG_SZ", or "REG_0x1234" for a type without a name.
std::string TypeName(std::uint32_t type);
// Accepts REG_SZ, sz, SZ, a decimal or 0x number...
std::optional<std::uint32_t> ParseTypeName(const std::string& text);

// One-line form for listings: "text" for strings, numbers as 0x.. (decimal),
// multi-strings as ["a", "b"], other data as hex (shortened past 64 bytes).
std::string ShowData(std::uint32_t type, const Bytes& data);
// The full form for get: strings as text, multi-strings one per line, numbers
// in decimal, other data as hex; ends with a newline.
std::string PrintData(std::uint32_t type, const Bytes& data);

// The data for set from its arguments (UTF-8); throws a usage ToolError.
Bytes DataFromArguments(std::uint32_t type, const std::vector<std::string>& values);
// The data for set from a file or standard input: the bytes as they are for
// binary types; for the others the text an argument would hold (UTF-8, one
// final line break dropped), a multi-string one string a line.
Bytes DataFromInput(std::uint32_t type, const Bytes& input);

}  // namespace TamvikTool
