// The few platform services the library needs, in one place.
#pragma once

#include <cstdint>
#include <string>

namespace Tamvik {

// Wide strings are UTF-16 code units, whatever wchar_t is on the platform.
using WString = std::u16string;

// Seconds since 1970 as a 64-bit number.
std::int64_t Time64();

// Case mapping of one UTF-16 unit under the process's current locale.
char16_t UpperUnit(char16_t unit);

// towupper on each unit of a wide string.
WString UpperCaseName(const WString& name);
WString UpperCaseName(const char16_t* name);

// Case-insensitive comparison of narrow strings under the process's locale.
int CompareNoCase(const char* a, const char* b);

// Length of a NUL-terminated wide string.
std::size_t WideLength(const char16_t* text);

}  // namespace Tamvik
