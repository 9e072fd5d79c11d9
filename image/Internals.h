// What stands behind Image and Volume.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Block.h"
#include "NtfsDevice.h"
#include "Partitions.h"

namespace TamvikImage {

struct __attribute__((visibility("hidden"))) Image::Impl {
    std::string path;
    std::string format;
    std::shared_ptr<Block> disk;
    PartitionTable table;
};

struct __attribute__((visibility("hidden"))) Volume::Impl {
    ~Impl();
    // The inode at a path, or null with error set (NotFound when it isn't there).
    ntfs_inode* Resolve(const std::string& path, Error& error);
    // Forgets the last failure underneath and libntfs-3g's last complaint, before a call whose failure
    // Failure will describe.
    void Begin();
    // An error from errno after a libntfs-3g call, with what it logged and the failure underneath.
    Error Failure(const std::string& what, int errnoValue) const;
    // The unnamed data stream of a file, refusing folders, encrypted files and,
    // for writing, compressed ones; null both and error set on failure.
    bool OpenData(const std::string& path, bool forWriting, ntfs_inode*& inode, ntfs_attr*& data, Error& error);
    // The first limit bytes of the stream (all of them at most).
    bool ReadData(ntfs_attr* data, std::uint64_t limit, std::vector<std::uint8_t>& bytes, Error& error);

    std::string name;  // "IMAGE partition N", for messages
    std::unique_ptr<PartitionWindow> window;
    ntfs_volume* volume = nullptr;
    bool writable = false;
    std::string label;
};

// Mounts the partition's NTFS. Writing: libntfs-3g's own checks stay on, so a
// hibernated volume, one left by fast startup and one whose journal isn't
// clean are refused (Unsafe), and so is a volume marked dirty.
std::unique_ptr<Volume::Impl> MountNtfs(const std::string& imagePath, std::shared_ptr<Block> disk,
                                        const Partition& partition, bool writable, Error& error);

// libntfs-3g's last logged complaint on this thread (it logs instead of saying why in errno).
std::string LastNtfsMessage();

}  // namespace TamvikImage
