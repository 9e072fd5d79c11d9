#include "nodes/NameIndex.h"

#include <clocale>

namespace Tamvik {

void NameIndex::Refresh() {
    const char* current = std::setlocale(LC_CTYPE, nullptr);
    std::string name = current != nullptr ? current : "";
    if (name != locale_) {
        Clear();
        locale_ = name;
    }
}

void NameIndex::Clear() {
    scanned = 0;
    limit.reset();
    first_.clear();
}

std::optional<std::uint32_t> NameIndex::Find(const WString& upper) const {
    auto it = first_.find(upper);
    if (it == first_.end()) return std::nullopt;
    return it->second;
}

void NameIndex::Add(const WString& upper, std::uint32_t position) { first_.emplace(upper, position); }

}  // namespace Tamvik
