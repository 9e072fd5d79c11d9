#include "store/Platform.h"

#include <strings.h>

#include <atomic>
#include <clocale>
#include <ctime>
#include <cwctype>

namespace Tamvik {

std::int64_t Time64() { return static_cast<std::int64_t>(std::time(nullptr)); }

char16_t UpperUnit(char16_t unit) {
    return static_cast<char16_t>(std::towupper(static_cast<std::wint_t>(unit)));
}

std::uint64_t CaseRules() {
    static std::atomic<std::uint64_t> next{1};
    thread_local std::string seen;
    thread_local std::uint64_t current = 0;
    const char* name = std::setlocale(LC_CTYPE, nullptr);
    if (name == nullptr) name = "";
    if (current == 0 || seen != name) {
        seen = name;
        current = next++;
    }
    return current;
}

const CaseMap& CurrentCaseMap() {
    thread_local CaseMap map;
    const std::uint64_t rules = CaseRules();
    if (map.rules_ != rules) {
        for (char16_t unit = 0; unit < CaseMap::kAscii; ++unit) map.ascii_[unit] = UpperUnit(unit);
        map.rules_ = rules;
    }
    return map;
}

WString UpperCaseName(const WString& name) {
    const CaseMap& map = CurrentCaseMap();
    WString upper(name);
    for (char16_t& unit : upper) unit = map.Upper(unit);
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
