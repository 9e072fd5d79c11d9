// What a list's scans by name have learnt so far: for each position read, a
// hash of its upper-case name, so that a repeated lookup needs no build per
// position. It is kept with the list node, and when that goes, with the hive
// for the next node of the same list. It holds while the hive takes no write
// and the case rules (the locale) stay. A hash only points at a position; the
// name found there is always compared whole.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "store/Platform.h"

namespace Tamvik {

// FNV-1a over the UTF-16 units of an upper-case name taken four at a time
// (a multiply per 64-bit word, not per unit: the multiplies form one chain,
// and a lookup hashes the name it is asked for at every call), the count of
// units mixed in at the end so that the low bits a table uses depend on
// every unit.
class LookupHash {
public:
    void Add(char16_t unit) {
        word_ = word_ << 16 | unit;
        if (++units_ % 4 == 0) {
            value_ = (value_ ^ word_) * kPrime;
            word_ = 0;
        }
    }
    std::uint64_t Value() const {
        const std::uint64_t last = ((value_ ^ word_) * kPrime) ^ units_;
        return last ^ (last >> 32);
    }
    static std::uint64_t Of(const char16_t* upper, std::size_t length) {
        LookupHash hash;
        for (std::size_t i = 0; i < length; ++i) hash.Add(upper[i]);
        return hash.Value();
    }

private:
    static constexpr std::uint64_t kPrime = 0x100000001B3ull;
    std::uint64_t value_ = 0xCBF29CE484222325ull;
    std::uint64_t word_ = 0;  // the units since the last multiply
    std::uint64_t units_ = 0;
};

// An upper-case name and its LookupHash.
struct HashedName {
    std::u16string_view name;
    std::uint64_t hash = 0;
};

class NameIndex {
public:
    // Forgets everything when the case rules that upper-cased the names, or
    // the hive's generation (see Hive::Generation), have changed since.
    void Refresh(std::uint64_t generation);
    void Clear();
    // After a write whose effect on the names the caller has recorded: what is known holds at generation.
    void Confirm(std::uint64_t generation) { generation_ = generation; }
    bool Empty() const { return scanned == 0; }
    // First position read whose name has this hash, if any.
    std::optional<std::uint32_t> Find(std::uint64_t hash) const;
    // Records the hash of the next position read (positions come in order).
    void Add(std::uint64_t hash, std::uint32_t position);

    std::uint64_t scanned = 0;             // positions 0 .. scanned-1 have been read
    std::optional<std::uint64_t> limit;    // positions a scan can reach, once known

    // A walk opens a list's names in position order, and a sound list holds
    // them sorted. Positions 0 .. ordered-1 are the ones opened so, each name
    // greater, unit by unit upper-cased, than the one before: no two share a
    // name, and the next position named as asked by a name greater than the
    // last is the first so named, found without hashing.
    std::uint32_t ordered = 0;
    // Whether upper comes after every position opened in order (and can be held).
    bool FollowsOrdered(std::u16string_view upper) const {
        return upper.size() <= kOrderedUnits &&
               (ordered == 0 || upper > std::u16string_view(lastOrdered_.data(), lastOrderedUnits_));
    }
    // Position ordered was opened by that name, which FollowsOrdered.
    void AddOrdered(std::u16string_view upper) {
        std::copy(upper.begin(), upper.end(), lastOrdered_.begin());
        lastOrderedUnits_ = static_cast<std::uint8_t>(upper.size());
        ++ordered;
    }

private:
    // 32 bits of the hash are plenty to point at a position (the name is
    // compared anyway), and a slot half as large is half the memory a walk
    // over a big hive has to be given.
    struct Slot {
        std::uint32_t hash;
        std::uint32_t position;  // 0: empty; else the position + 1
    };
    std::size_t Home(std::uint32_t hash) const { return hash & (slots_.size() - 1); }
    void Insert(std::uint32_t hash, std::uint32_t position);

    // Most lists have a handful of names, and a walk builds an index for each
    // list it opens a key of: the first few hashes are kept here, looked
    // through in order, and the table is made only when they overflow.
    static constexpr std::size_t kFew = 8;
    struct FewSlots {
        std::array<std::uint32_t, kFew> hashes;
        std::array<std::uint32_t, kFew> positions;
    };

    // The last name opened in order; longer names end the ordered run.
    static constexpr std::size_t kOrderedUnits = 48;
    std::array<char16_t, kOrderedUnits> lastOrdered_{};
    std::uint8_t lastOrderedUnits_ = 0;

    std::uint64_t rules_ = 0;
    std::uint64_t generation_ = 0;
    std::vector<Slot> slots_;  // open addressing, a power of two in size, at most three quarters full; empty while few_ serves
    std::uint32_t used_ = 0;   // slots_ taken, or while slots_ is empty, entries of few_
    FewSlots few_{};
};

}  // namespace Tamvik
