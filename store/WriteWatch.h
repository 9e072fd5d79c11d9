// Cells whose bytes someone keeps a reading of: a write over one of them
// marks it, so that the reader reads again just the cells marked instead of
// every cell it keeps. Cells may overlap, as in a damaged hive.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Tamvik {

class WriteWatch {
public:
    void Clear() {
        for (const Cell& cell : cells_) ForEachUnit(cell.start, cell.end, [&](std::uint64_t word, std::uint64_t bits) {
            if (word < units_.size()) units_[word] &= ~bits;
            return false;
        });
        cells_.clear();
        marked_.clear();
        all_ = false;
        longest_ = 0;
    }
    // Watched from now on, unmarked: length bytes of the bins area from cell.
    void Add(std::uint32_t cell, std::uint32_t length) {
        const Cell added{cell, std::uint64_t{cell} + length};
        cells_.insert(std::upper_bound(cells_.begin(), cells_.end(), added, Before), added);
        longest_ = std::max(longest_, length);
        ForEachUnit(added.start, added.end, [&](std::uint64_t word, std::uint64_t bits) {
            if (word >= units_.size()) units_.resize(word + 1, 0);
            units_[word] |= bits;
            return false;
        });
    }
    // After length bytes of the bins area from offset were written.
    void Written(std::uint64_t offset, std::uint64_t length) {
        const std::uint64_t end = offset + length;
        if (all_ || length == 0) return;
        // Most writes land on no unit a watched cell reaches into: they miss every cell.
        const auto watched = [&](std::uint64_t word, std::uint64_t bits) {
            return word < units_.size() && (units_[word] & bits) != 0;
        };
        if (!ForEachUnit(offset, std::min(end, units_.size() * 64 * kUnit), watched)) return;
        // A cell that starts further in front than the longest one is long ends before offset.
        const std::uint64_t reach = offset > longest_ ? std::min<std::uint64_t>(offset - longest_, 0xFFFFFFFF) : 0;
        const Cell from{static_cast<std::uint32_t>(reach), 0};
        for (auto it = std::lower_bound(cells_.begin(), cells_.end(), from, Before);
             it != cells_.end() && it->start < end; ++it) {
            if (it->end <= offset) continue;
            // More marks than cells: every cell is as good as marked.
            if (marked_.size() >= cells_.size()) {
                all_ = true;
                marked_.clear();
                return;
            }
            marked_.push_back(it->start);
        }
    }
    // Whether a write has met a cell since the marks were last taken.
    bool Marked() const { return all_ || !marked_.empty(); }
    // Whether every cell is to be read again; else the cells marked, once
    // each or more. Either way the marks are handed over and cleared.
    bool TakeMarks(std::vector<std::uint32_t>& marked) {
        const bool all = all_;
        marked.swap(marked_);
        marked_.clear();
        all_ = false;
        return all;
    }

private:
    struct Cell {
        std::uint32_t start;
        std::uint64_t end;
    };
    static bool Before(const Cell& a, const Cell& b) { return a.start < b.start; }
    std::vector<Cell> cells_;  // by start
    std::vector<std::uint32_t> marked_;
    bool all_ = false;
    std::uint32_t longest_ = 0;
    // A bit per 8 bytes of the bins area (cells start on 8), set where a
    // watched cell reaches: a write that finds a bit set has met a cell.
    static constexpr std::uint64_t kUnit = 8;
    std::vector<std::uint64_t> units_;
    // Calls visit(word, bits) for the bits of the units from offset to end,
    // a word at a time, until it answers true; whether one did.
    template <class Visit>
    static bool ForEachUnit(std::uint64_t offset, std::uint64_t end, Visit visit) {
        if (end <= offset) return false;
        const std::uint64_t first = offset / kUnit, last = (end - 1) / kUnit;
        for (std::uint64_t word = first / 64; word <= last / 64; ++word) {
            const std::uint64_t from = word == first / 64 ? first % 64 : 0;
            const std::uint64_t to = word == last / 64 ? last % 64 : 63;
            const std::uint64_t upTo = to == 63 ? ~std::uint64_t{0} : (std::uint64_t{1} << (to + 1)) - 1;
            const std::uint64_t bits = upTo & ~((std::uint64_t{1} << from) - 1);
            if (visit(word, bits)) return true;
        }
        return false;
    }
};

}  // namespace Tamvik
