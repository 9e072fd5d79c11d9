// What file system a partition holds, by its magic numbers, and the label
// that FAT and ext keep in their first sectors (an NTFS label needs the
// volume itself: see NtfsVolume).
#pragma once

#include "Block.h"

namespace TamvikImage {

// Fills fileSystem and, for FAT and ext, label. A partition too short or
// unreadable stays Unknown.
void ProbeFileSystem(Block& disk, Partition& partition);

}  // namespace TamvikImage
