#include "store/Platform.h"

#include <strings.h>

#include <ctime>
#include <cwctype>

namespace Tamvik {

std::int64_t Time64() { return static_cast<std::int64_t>(std::time(nullptr)); }

char16_t UpperUnit(char16_t unit) {
    return static_cast<char16_t>(std::towupper(static_cast<std::wint_t>(unit)));
}

WString UpperCaseName(const WString& name) {
    WString upper(name);
    for (char16_t& unit : upper) unit = UpperUnit(unit);
    return upper;
}

WString UpperCaseName(const char16_t* name) { return UpperCaseName(WString(name ? name : u"")); }

int CompareNoCase(const char* a, const char* b) { return ::strcasecmp(a, b); }

std::size_t WideLength(const char16_t* text) {
    std::size_t n = 0;
    while (text[n] != 0) ++n;
    return n;
}

}  // namespace Tamvik
