// The partition table of a disk: GPT, MBR with logical partitions, or none.
#pragma once

#include <vector>

#include "Block.h"

namespace TamvikImage {

struct PartitionTable {
    std::string scheme;  // "gpt", "mbr", "none"
    std::vector<Partition> partitions;
    std::vector<std::string> warnings;
};

// GPT: both headers and their CRCs are checked; a damaged copy is named in
// the warnings and the other one is used; both damaged is an error. MBR:
// primaries, then the chain of logical ones, walked at most a bounded number
// of steps and never twice through one link. A disk whose first sector is a
// file system's boot sector has no table: the whole disk is partition 0.
// Only the layout is filled in: file systems and labels come later.
PartitionTable ReadPartitionTable(Block& disk, Error& error);

}  // namespace TamvikImage
