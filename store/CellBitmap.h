// A set of cell offsets kept as one bit per place a cell can start (every
// kCellAlignment bytes of the bins area): a test or an insertion is one
// shift, where a tree or a sorted list cost a search, and the bits of a
// whole file's cells fit in 1/64 of its size. Two sets compare word by word.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "store/Format.h"

namespace Tamvik {

class CellBitmap {
public:
    CellBitmap() = default;
    // Room for the offsets below span without growing.
    explicit CellBitmap(std::uint64_t span) : words_(span / kCellAlignment / kBits + 1) {}

    // An offset between two cell boundaries stands for the boundary below it.
    bool Contains(std::uint32_t offset) const {
        const std::uint32_t slot = offset / kCellAlignment;
        return slot / kBits < words_.size() && (words_[slot / kBits] >> (slot % kBits) & 1) != 0;
    }
    // Whether offset was new. The set grows for an offset past its span.
    bool Insert(std::uint32_t offset) {
        const std::uint32_t slot = offset / kCellAlignment;
        if (slot / kBits >= words_.size()) words_.resize(slot / kBits + 1);
        std::uint64_t& word = words_[slot / kBits];
        const std::uint64_t bit = std::uint64_t{1} << (slot % kBits);
        if ((word & bit) != 0) return false;
        word |= bit;
        return true;
    }
    // Calls visit(offset) for each offset of this set that other lacks, in increasing order.
    template <class Visit>
    void ForEachNotIn(const CellBitmap& other, Visit visit) const {
        for (std::size_t at = 0; at < words_.size(); ++at) {
            std::uint64_t bits = words_[at] & ~(at < other.words_.size() ? other.words_[at] : 0);
            for (; bits != 0; bits &= bits - 1)
                visit(static_cast<std::uint32_t>((at * kBits + std::countr_zero(bits)) * kCellAlignment));
        }
    }

private:
    static constexpr std::uint32_t kBits = 64;
    std::vector<std::uint64_t> words_;
};

}  // namespace Tamvik
