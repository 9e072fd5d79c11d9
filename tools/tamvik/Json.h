// The JSON that ls --json and get --json write, without a JSON library.
//
// A value:  {"name": "v", "type": "REG_SZ", "type_number": 1, "data": "text"}
//   data is the text tamvik get prints, without its final line break: string
//   text, a multi-string's strings joined by "\n", a number in decimal, other
//   data in hex. A value that can't be read has "error" instead of "data".
// A key:    {"path": "\\A", "last_write": "2023-01-18T11:39:48Z",
//            "clock": "filetime", "subkey_count": 2, "value_count": 1, ...}
//   last_write is null and clock "none" for a zero stamp; clock "unix" marks
//   seconds since 1970, which the library writes into the keys it makes.
//   ls --json adds "subkeys" (name, last_write, clock and counts of each) and
//   "values"; ls -r --json writes an array of keys with their "values".
#pragma once

#include <cstdint>
#include <string>

#include "KeyTime.h"
#include "Walk.h"

namespace TamvikTool {

// A JSON string: quotes, backslashes and control characters escaped, an
// unpaired surrogate as \uXXXX, everything else UTF-8.
std::string JsonString(std::u16string_view text);
std::string JsonString(std::string_view utf8);

std::string ValueJson(const ValueEntry& value);
// "last_write", "clock" and the counts, without the braces.
std::string KeyFieldsJson(const KeyTime& time, std::uint32_t subKeys, std::uint32_t values);

}  // namespace TamvikTool
