// libntfs-3g's device operations over one partition of our block layer, so
// that a volume inside an image is reached without a loop device or mount.
#pragma once

#include <memory>
#include <string>

#include "Block.h"
#include "NtfsHeaders.h"

namespace TamvikImage {

// The window of the disk that the device stands for, and the last failure
// underneath (libntfs-3g only sees errno).
struct PartitionWindow {
    std::shared_ptr<Block> disk;
    std::uint64_t start = 0, size = 0;
    std::int64_t position = 0;
    Error last;
};

// A device for ntfs_device_mount; the window must outlive it. ntfs_umount
// frees the device; after a failed mount, ntfs_device_free does.
ntfs_device* MakeNtfsDevice(const std::string& name, PartitionWindow& window);

}  // namespace TamvikImage
