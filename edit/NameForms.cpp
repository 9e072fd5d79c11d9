#include "edit/NameForms.h"

#include <locale.h>

#include <cwctype>
#include <numeric>
#include <vector>

#include "edit/Edit.h"
#include "store/Format.h"

namespace Tamvik {

namespace {

// Windows upper-cases with a table of its own, not the caller's locale: the
// Unicode simple mappings, taken once from a UTF-8 locale, come closest.
class UpperTable {
public:
    UpperTable() : units_(0x10000) {
        std::iota(units_.begin(), units_.end(), char16_t{0});
        for (char16_t c = u'a'; c <= u'z'; ++c) units_[c] = static_cast<char16_t>(c - 32);
        const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (utf8 == static_cast<locale_t>(nullptr)) return;
        for (std::uint32_t c = 0x80; c < 0x10000; ++c) {
            if (c >= 0xD800 && c <= 0xDFFF) continue;
            const std::wint_t upper = towupper_l(static_cast<std::wint_t>(c), utf8);
            if (upper <= 0xFFFF) units_[c] = static_cast<char16_t>(upper);
        }
        freelocale(utf8);
    }
    char16_t operator()(char16_t unit) const { return units_[unit]; }

private:
    std::vector<char16_t> units_;
};

const UpperTable& Upper() {
    static const UpperTable table;
    return table;
}

}  // namespace

char16_t WindowsUpper(char16_t unit) { return Upper()(unit); }

int CompareWindowsOrder(const WString& a, const WString& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const char16_t x = Upper()(a[i]), y = Upper()(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

WString WindowsUpperName(const WString& name) {
    WString upper(name);
    for (char16_t& unit : upper) unit = Upper()(unit);
    return upper;
}


std::optional<StoredName> StoreName(const WString& name) {
    StoredName stored;
    stored.compressed = true;
    for (char16_t unit : name) stored.compressed = stored.compressed && unit <= 0xFF;
    stored.bytes.reserve(name.size() * (stored.compressed ? 1 : 2));
    for (char16_t unit : name) {
        stored.bytes += static_cast<char>(unit & 0xFF);
        if (!stored.compressed) stored.bytes += static_cast<char>(unit >> 8);
    }
    if (stored.bytes.size() > kMaxNameBytes) return std::nullopt;
    return stored;
}

bool SameName(const WString& a, const WString& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && UpperUnit(a[i]) != UpperUnit(b[i])) return false;
    return true;
}

std::uint32_t WindowsNameHash(const WString& name) {
    std::uint32_t hash = 0;
    for (char16_t unit : name) hash = hash * 37 + WindowsUpper(unit);
    return hash;
}

std::uint32_t WindowsNameHint(const WString& name) {
    std::uint32_t hint = 0;
    bool fits = true;
    for (std::size_t i = 0; i < name.size() && i < 4; ++i) {
        fits = fits && name[i] <= 0xFF;
        hint |= static_cast<std::uint32_t>(name[i] & 0xFF) << (8 * i);
    }
    return fits ? hint : hint & ~0xFFu;
}

std::uint32_t HintFor(std::uint16_t signature, const WString& name) {
    if (signature == kLhSignature) return WindowsNameHash(name);
    if (signature == kLfSignature) return WindowsNameHint(name);
    return 0;
}

}  // namespace Tamvik
