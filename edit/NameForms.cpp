#include "edit/NameForms.h"

#include "edit/Edit.h"
#include "edit/ToolEdit.h"
#include "store/Format.h"

namespace Tamvik {

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
    for (char16_t unit : name) hash = hash * 37 + ToolEdit::WindowsUpper(unit);
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
