#include "store/Platform.h"

#include <strings.h>

#include <atomic>
#include <clocale>
#include <ctime>
#include <cwctype>
#include <string>

namespace Tamvik {

std::int64_t Time64() { return static_cast<std::int64_t>(std::time(nullptr)); }

char16_t UpperUnit(char16_t unit) {
    return static_cast<char16_t>(std::towupper(static_cast<std::wint_t>(unit)));
}

namespace {
// What each thread knows of the case rules. initial-exec: the library's thread
// storage is then reached by one load instead of a call into the dynamic
// loader, and that is asked at every name lookup.
struct CaseState {
    std::string seen;  // the LC_CTYPE locale the rules were numbered under
    std::uint64_t rules = 0;
    unsigned holds = 0;
    CaseMap map;
};

CaseState& ThisThreadsCase() {
    static thread_local CaseState state __attribute__((tls_model("initial-exec")));
    return state;
}

std::uint64_t LocaleRules(CaseState& state) {
    static std::atomic<std::uint64_t> next{1};
    const char* name = std::setlocale(LC_CTYPE, nullptr);
    if (name == nullptr) name = "";
    if (state.rules == 0 || state.seen != name) {
        state.seen = name;
        state.rules = next++;
    }
    return state.rules;
}
}  // namespace

std::uint64_t CaseRules() {
    CaseState& state = ThisThreadsCase();
    return state.holds != 0 ? state.rules : LocaleRules(state);
}

CaseRulesHold::CaseRulesHold() {
    CaseState& state = ThisThreadsCase();
    if (state.holds++ == 0) LocaleRules(state);
}

CaseRulesHold::~CaseRulesHold() { --ThisThreadsCase().holds; }

const CaseMap& CurrentCaseMap() {
    const std::uint64_t rules = CaseRules();
    CaseMap& map = ThisThreadsCase().map;
    if (map.rules_ != rules) {
        map.plainAscii_ = true;
        for (char16_t unit = 0; unit < CaseMap::kAscii; ++unit) {
            map.ascii_[unit] = UpperUnit(unit);
            const bool lower = unit >= u'a' && unit <= u'z';
            map.plainAscii_ &= map.ascii_[unit] == (lower ? unit - u'a' + u'A' : unit);
        }
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
