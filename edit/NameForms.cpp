#include "edit/NameForms.h"

#include <locale.h>

#include <cctype>
#include <cstring>
#include <cwctype>
#include <numeric>
#include <vector>

#include "edit/Edit.h"
#include "store/CodePage.h"
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

int CompareWindowsOrder(std::u16string_view a, std::u16string_view b) {
    const UpperTable& upper = Upper();
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const char16_t x = upper(a[i]), y = upper(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

WString WindowsUpperName(const WString& name) {
    const UpperTable& table = Upper();
    WString upper(name);
    for (char16_t& unit : upper) unit = table(unit);
    return upper;
}


namespace {
std::uint32_t WindowsHint(const WString& name) {
    std::uint32_t hint = 0;
    bool fits = true;
    for (std::size_t i = 0; i < name.size() && i < 4; ++i) {
        fits = fits && name[i] <= 0xFF;
        hint |= static_cast<std::uint32_t>(name[i] & 0xFF) << (8 * i);
    }
    return fits ? hint : hint & ~0xFFu;
}

std::uint32_t WindowsHash(const WString& name) {
    std::uint32_t hash = 0;
    for (char16_t unit : name) hash = hash * 37 + WindowsUpper(unit);
    return hash;
}

std::uint32_t CodePageHash(const std::string& bytes) {
    std::uint32_t hash = 0;
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        const std::int32_t term = byte < 0x80 ? std::toupper(byte) : static_cast<std::int32_t>(static_cast<std::int8_t>(byte));
        hash = hash * 37 + static_cast<std::uint32_t>(term);
    }
    return hash;
}
}  // namespace

NewName CodePageName(const std::string& narrow, const WString& wide) {
    NewName name;
    name.form = NameForm::CodePage936;
    name.bytes = narrow;
    name.compressed = true;
    name.units.assign(narrow.begin(), narrow.end());
    for (char16_t& unit : name.units) unit &= 0xFF;
    name.wide = wide;
    return name;
}

std::optional<NewName> StoredName(const WString& wide) {
    NewName name;
    name.form = NameForm::Stored;
    for (char16_t unit : wide) name.compressed = name.compressed && unit <= 0xFF;
    name.bytes.reserve(wide.size() * (name.compressed ? 1 : 2));
    for (char16_t unit : wide) {
        name.bytes += static_cast<char>(unit & 0xFF);
        if (!name.compressed) name.bytes += static_cast<char>(unit >> 8);
    }
    if (name.bytes.size() > kMaxNameBytes) return std::nullopt;
    name.units = wide;
    name.wide = wide;
    return name;
}

std::uint32_t HintFor(std::uint16_t signature, const WString& name) {
    if (signature == kLhSignature) return WindowsHash(name);
    if (signature == kLfSignature) return WindowsHint(name);
    return 0;
}

std::uint32_t EntryHint(std::uint16_t signature, const NewName& name) {
    if (signature == kLhSignature && name.form == NameForm::CodePage936) return CodePageHash(name.bytes);
    return HintFor(signature, name.units);
}

int CompareLibraryOrder(const std::string& nameNarrow, std::u16string_view existing) {
    // A name of ASCII up to its first NUL narrows to those same bytes: copied
    // to the stack it needs no code page lookup and no allocation. Anything
    // else goes through the code page.
    constexpr std::size_t kRoom = 256;
    char narrow[kRoom];
    std::size_t n = 0;
    for (; n < existing.size() && n < kRoom && existing[n] != 0 && existing[n] < 0x80; ++n)
        narrow[n] = static_cast<char>(existing[n]);
    if (n < kRoom && (n == existing.size() || existing[n] == 0)) {
        narrow[n] = 0;
        return CompareNoCase(nameNarrow.c_str(), narrow);
    }
    return CompareNoCase(nameNarrow.c_str(), NarrowLossy(existing.data(), existing.size()).c_str());
}

std::string LibraryOrderKey(std::u16string_view existing) {
    std::size_t n = 0;
    while (n < existing.size() && existing[n] != 0 && existing[n] < 0x80) ++n;
    std::string key;
    if (n == existing.size() || existing[n] == 0) {
        key.resize(n);
        for (std::size_t i = 0; i < n; ++i) key[i] = static_cast<char>(existing[i]);
        return key;
    }
    key = NarrowLossy(existing.data(), existing.size());
    key.resize(std::strlen(key.c_str()));  // the comparison stops at the first NUL
    return key;
}

bool GoesBefore(const NewName& name, const std::string& nameNarrow, std::u16string_view existing, ListOrder order) {
    if (order == ListOrder::Windows) return CompareWindowsOrder(name.wide, existing) < 0;
    return CompareLibraryOrder(nameNarrow, existing) < 0;
}

}  // namespace Tamvik
