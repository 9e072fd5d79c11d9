// Room for new cells and the release of cells. The allocator keeps no state:
// every search walks the bins from the first, and the state of a cell is the
// sign of its CellSize in the file.
#pragma once

#include <cstdint>
#include <functional>

#include "store/Hive.h"

namespace Tamvik {

// First free cell in file order that holds the asked size. On entry size is
// the asked size, on return the cell size it needs. 0 when there is none.
std::uint32_t FindFreeCell(Hive* hive, std::uint32_t& size, std::uint32_t& found);
// Writes a new bin at the end of the bins, sized for need; gives its one free cell.
std::uint32_t AppendBin(Hive* hive, std::uint32_t need, std::uint32_t& found);
// Neighbours of a cell inside one bin, or an invalid CellRef.
CellRef NextCell(const BinRef& bin, Hive* hive, const CellRef& cell);
CellRef PrevCell(const BinRef& bin, Hive* hive, const CellRef& cell);
// Releases an allocated cell, merging it with free neighbours of its bin, and invalidates the ref.
void FreeCell(CellRef& cell, Hive* hive);
// FreeCell if the offset names an allocated cell; nothing otherwise.
void FreeCellAt(Hive* hive, std::uint32_t cellOffset);
// A new data cell holding the bytes, or 0.
std::uint32_t WriteDataCell(Hive* hive, const std::uint8_t* data, std::uint32_t length);

// Where a creator's new cell goes: steps 1 to 3 of creating a cell.
struct CellPlan {
    std::uint32_t offset = 0;       // cell offset, 0 when no room was had
    std::uint32_t cellSize = 0;     // final size of the new cell
    std::uint32_t imageLength = 0;  // bytes written: the cell, and the remainder's size field if any
    std::uint32_t remainder = 0;    // size of the free rest behind the cell, 0 if none
};

// Finds or appends room for a cell of the asked size and applies the remainder rule.
bool PlanCell(Hive* hive, std::uint32_t askedSize, CellPlan& plan);
// Fills in the size fields of an image of plan.imageLength bytes and writes it with WriteCell.
void WritePlannedCell(Hive* hive, const CellPlan& plan, std::uint8_t* image);
// The whole sequence of a creator: plan, a zero-filled image with the record
// filled in at +4 by fill(record, capacity), write. Gives the offset or 0.
using RecordFiller = std::function<void(std::uint8_t* record, std::uint32_t capacity)>;
std::uint32_t CreateCell(Hive* hive, std::uint32_t askedSize, const RecordFiller& fill);

// Where a list goes when it is rewritten with one entry more: in place, in a
// cell of capacity bytes at listCell, when stays is true; else in a new cell of
// the asked size, the old one released first so that the search can take the
// space it gives back. If no new cell can be had, the old one is taken back
// and false given: the owner's list stays as it was.
bool PlanListRewrite(Hive* hive, std::uint32_t listCell, std::uint32_t capacity, bool stays, std::uint32_t askedSize,
                     CellPlan& plan);

// Takes back a cell that FreeCell released (when what was to replace it could
// not be made), provided it still lies whole inside one free cell of its bin.
bool ReclaimCell(Hive* hive, std::uint32_t cellOffset, std::uint32_t cellSize);

// Cell size for an asked size: raised by 4 and brought to a multiple of 8; 0 if too large.
std::uint32_t NeedFor(std::uint32_t askedSize);

}  // namespace Tamvik
