// What the walks over the bins of a hive held in memory find, done once and
// kept current: the bins FindBin passes, and for each bin FindFreeCell may
// search the largest free cell it holds, in a tree that gives the first bin
// with room for a need in O(log n). Answers are exactly those of the walks
// from the first bin; writes mark the bins they touch to be looked at again.
#pragma once

#include <cstdint>
#include <vector>

#include "store/BinWalk.h"

namespace Tamvik {

class FileImage;

class BinIndex {
public:
    explicit BinIndex(const FileImage& image) : image_(image) {}

    // First fit in file order for need bytes: the cell offset and the free
    // cell's size, or 0 when the walk from the first bin would find none.
    std::uint32_t FindFree(std::uint32_t binsSize, std::uint32_t need, std::uint32_t& found);
    // The bin whose header says it holds cellOffset, as FindBin's walk from
    // the first bin meets it: the offset the walk read that header at, or false.
    bool Locate(std::uint32_t binsSize, std::uint32_t cellOffset, std::uint32_t* walkOffset);
    // After bytes of the bins area changed, or the file grew.
    void Touched(std::uint64_t areaOffset, std::uint64_t length);
    // Where the walk over the cells of the bin at binOffset that holds
    // cellOffset, from the bin's first cell, is known to stand last before
    // cellOffset: a cell of the bin's allocated run, which a walk may start
    // from and meet the same cells. 0 when nothing is known.
    std::uint32_t RunCellBefore(std::uint32_t binsSize, std::uint32_t binOffset, std::uint32_t cellOffset);

private:
    struct Bin {
        std::uint32_t at, binOffset, binSize;  // where the walk read the header, and its two fields
    };
    void Extend(std::uint32_t binsSize);
    bool Readable(std::uint64_t areaOffset, std::uint64_t length) const;
    // The first free cell of the bin's walk that serves need, as FindFreeCell
    // takes it. When there is none, the walk was whole and summary is the bin's
    // largest free cell of a whole multiple of 8, or kVisit when the bin holds
    // free cells of other sizes.
    std::uint32_t Scan(std::size_t bin, std::uint32_t need, std::uint32_t& found, std::uint32_t& summary);
    void Set(std::size_t bin, std::uint32_t value);
    std::size_t FirstAtLeast(std::size_t from, std::uint32_t need) const;

    static constexpr std::uint32_t kVisit = 0xFFFFFFFF;
    const FileImage& image_;
    bool built_ = false;
    std::uint64_t imageSize_ = 0;
    std::uint32_t binsSize_ = 0;
    std::vector<Bin> walk_;       // every header the walk from the first bin reads
    BinWalk binWalk_;             // where it reads the next header, or that a size of 0 ended it
    bool inOrder_ = true;         // every header names the place it was read at
    std::size_t searchable_ = 0;  // the bins FindFreeCell searches: a prefix of the walk
    bool searchStopped_ = false;  // it ended at a bin it can't take
    bool endedAtFileEnd_ = false; // one of the walks ended where the file does
    std::vector<bool> stale_;
    // Per searchable bin: where the run of allocated cells its walk starts with
    // ends (an offset in the bin), kept until a write lands in front of it.
    std::vector<std::uint32_t> allocatedRun_;
    // The cells of those runs: a bit per 8 bytes of the bins area set where
    // a walk met one, so that a write inside a cell of a run, clear of every
    // size field, is known to change no walk. A bin whose run has a cell at
    // another place than a multiple of 8 keeps no bits (runMapped_ false).
    std::vector<std::uint64_t> runCells_;
    std::vector<bool> runMapped_;
    void ForgetRun(std::size_t bin);
    void ClearRunBits(std::size_t bin, std::uint64_t fromUnit);
    // Bytes from areaOffset on changed inside the run: it keeps the cells
    // whose size fields lie in front of them.
    void CutRun(std::size_t bin, std::uint64_t areaOffset);
    // The bin in order whose bytes hold areaOffset, or the last one starting in front of it.
    std::size_t BinAt(std::uint64_t areaOffset);
    void MarkRunCell(std::size_t bin, std::uint64_t areaOffset);
    bool InsideRun(std::size_t bin, std::uint64_t areaOffset, std::uint64_t end) const;
    // The first unit from unit on, below limit, where a run has a cell; limit when none.
    std::uint64_t NextRunCell(std::uint64_t unit, std::uint64_t limit) const;
    // The last unit below limit, from first on, where a run has a cell; limit when none.
    std::uint64_t LastRunCell(std::uint64_t first, std::uint64_t limit) const;
    std::vector<std::uint32_t> tree_;  // max of the summaries, leaf i at tree_[leaves_ + i]
    std::size_t leaves_ = 0;
    std::size_t placed_ = 0;           // searchable bins with a leaf in the tree
    // Per 4 KiB of the bins area the walk passed (and the file holds): the
    // last bin starting at or in front of the page's start, so that BinAt
    // searches only the bins that start inside one page.
    static constexpr std::uint64_t kPage = 4096;
    std::vector<std::uint32_t> pageBin_;
    std::size_t pageCursor_ = 0;  // the bin the last page filled in was given
};

}  // namespace Tamvik
