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

// A number for the case rules in force: it changes when the process's
// LC_CTYPE locale does, so that what was upper-cased under other rules is
// known to be stale. Each thread watches the locale for itself.
std::uint64_t CaseRules();

// Holds the case rules for one operation: while a hold lasts, CaseRules gives
// what it gave when the hold began, without asking the locale again at every
// name (the locale doesn't change within an operation). Holds nest.
class CaseRulesHold {
public:
    CaseRulesHold();
    ~CaseRulesHold();
    CaseRulesHold(const CaseRulesHold&) = delete;
    CaseRulesHold& operator=(const CaseRulesHold&) = delete;
};

// UpperUnit for the rules in force when it was had (see CurrentCaseMap), with
// the answers for ASCII looked up once rather than asked of the locale at
// every unit. For one operation: the locale doesn't change within it.
class CaseMap {
public:
    char16_t Upper(char16_t unit) const { return unit < kAscii ? ascii_[unit] : UpperUnit(unit); }
    // The number CaseRules gave the rules it holds.
    std::uint64_t Rules() const { return rules_; }
    // Whether the ASCII units map as in the C locale: a to z to A to Z, every
    // other one to itself. Then a run of ASCII units can be mapped in bulk.
    bool PlainAscii() const { return plainAscii_; }
    static constexpr char16_t kAscii = 0x80;

private:
    friend const CaseMap& CurrentCaseMap();
    std::uint64_t rules_ = 0;
    bool plainAscii_ = false;
    char16_t ascii_[kAscii] = {};
};
const CaseMap& CurrentCaseMap();

// towupper on each unit of a wide string.
WString UpperCaseName(const WString& name);
WString UpperCaseName(const char16_t* name);

// Case-insensitive comparison of narrow strings under the process's locale.
int CompareNoCase(const char* a, const char* b);

// Length of a NUL-terminated wide string.
std::size_t WideLength(const char16_t* text);

}  // namespace Tamvik
