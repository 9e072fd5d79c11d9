#include "store/NameIndex.h"

namespace Tamvik {

void NameIndex::Refresh(std::uint64_t generation) {
    const std::uint64_t rules = CaseRules();
    if (rules != rules_ || generation != generation_) {
        Clear();
        rules_ = rules;
        generation_ = generation;
    }
}

void NameIndex::Clear() {
    scanned = 0;
    ordered = 0;
    limit.reset();
    slots_.clear();
    used_ = 0;
}

std::optional<std::uint32_t> NameIndex::Find(std::uint64_t fullHash) const {
    const auto hash = static_cast<std::uint32_t>(fullHash);
    if (slots_.empty()) {
        for (std::uint32_t i = 0; i < used_; ++i)
            if (few_.hashes[i] == hash) return few_.positions[i];
        return std::nullopt;
    }
    for (std::size_t i = Home(hash);; i = (i + 1) & (slots_.size() - 1)) {
        const Slot& slot = slots_[i];
        if (slot.position == 0) return std::nullopt;
        if (slot.hash == hash) return slot.position - 1;
    }
}

void NameIndex::Add(std::uint64_t fullHash, std::uint32_t position) {
    const auto hash = static_cast<std::uint32_t>(fullHash);
    if (slots_.empty()) {
        // Entries come in position order: the first with the hash stays.
        for (std::uint32_t i = 0; i < used_; ++i)
            if (few_.hashes[i] == hash) return;
        if (used_ < kFew) {
            few_.hashes[used_] = hash;
            few_.positions[used_] = position;
            ++used_;
            return;
        }
        const std::uint32_t few = used_;
        slots_.assign(4 * kFew, Slot{0, 0});
        used_ = 0;
        for (std::uint32_t i = 0; i < few; ++i) Insert(few_.hashes[i], few_.positions[i]);
    }
    Insert(hash, position);
}

void NameIndex::Insert(std::uint32_t hash, std::uint32_t position) {
    if (4 * (used_ + 1) > 3 * slots_.size()) {
        std::vector<Slot> old = std::move(slots_);
        slots_.assign(2 * old.size(), Slot{0, 0});
        used_ = 0;
        for (const Slot& slot : old)
            if (slot.position != 0) Insert(slot.hash, slot.position - 1);
    }
    for (std::size_t i = Home(hash);; i = (i + 1) & (slots_.size() - 1)) {
        Slot& slot = slots_[i];
        if (slot.position == 0) {
            slot = Slot{hash, position + 1};
            ++used_;
            return;
        }
        if (slot.hash == hash) return;  // the first position with the hash stays
    }
}

}  // namespace Tamvik
