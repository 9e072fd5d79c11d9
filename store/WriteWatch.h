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
        cells_.clear();
        marked_.clear();
        all_ = false;
        longest_ = 0;
        std::fill(pages_.begin(), pages_.end(), 0);
    }
    // Watched from now on, unmarked: length bytes of the bins area from cell.
    void Add(std::uint32_t cell, std::uint32_t length) {
        const Cell added{cell, std::uint64_t{cell} + length};
        cells_.insert(std::upper_bound(cells_.begin(), cells_.end(), added, Before), added);
        longest_ = std::max(longest_, length);
        for (std::uint64_t page = cell / kPage; page <= (added.end - 1) / kPage && length != 0; ++page) {
            if (page / 64 >= pages_.size()) pages_.resize(page / 64 + 1, 0);
            pages_[page / 64] |= std::uint64_t{1} << (page % 64);
        }
    }
    // After length bytes of the bins area from offset were written.
    void Written(std::uint64_t offset, std::uint64_t length) {
        const std::uint64_t end = offset + length;
        if (all_ || length == 0 || !OnWatchedPage(offset, end)) return;
        // A cell that starts further in front than the longest one is long ends before offset.
        const Cell from{static_cast<std::uint32_t>(offset > longest_ ? std::min<std::uint64_t>(offset - longest_, 0xFFFFFFFF) : 0), 0};
        for (auto it = std::lower_bound(cells_.begin(), cells_.end(), from, Before); it != cells_.end() && it->start < end; ++it) {
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
    // A bit per page of the bins area that a cell watched reaches into: most
    // writes land on none, and are known to miss every cell without a search.
    static constexpr std::uint64_t kPage = 4096;
    std::vector<std::uint64_t> pages_;
    bool OnWatchedPage(std::uint64_t offset, std::uint64_t end) const {
        for (std::uint64_t page = offset / kPage; page <= (end - 1) / kPage && page / 64 < pages_.size(); ++page)
            if ((pages_[page / 64] >> (page % 64) & 1) != 0) return true;
        return false;
    }
};

}  // namespace Tamvik
