// Device operations: reads and writes land in the partition's window of the
// disk; the size query libntfs-3g makes (ioctl BLKGETSIZE64) gets the
// partition's size.
#include "NtfsDevice.h"

#include <fcntl.h>
#include <linux/fs.h>

#include <cerrno>
#include <algorithm>
#include <cstring>

namespace TamvikImage {
namespace {

PartitionWindow& Window(ntfs_device* device) { return *static_cast<PartitionWindow*>(device->d_private); }

int Open(ntfs_device* device, int flags) {
    if (NDevOpen(device)) {
        errno = EBUSY;
        return -1;
    }
    if ((flags & O_ACCMODE) != O_RDONLY && !Window(device).disk->Writable()) {
        errno = EROFS;
        return -1;
    }
    if ((flags & O_ACCMODE) == O_RDONLY) NDevSetReadOnly(device);
    NDevSetOpen(device);
    return 0;
}

int Close(ntfs_device* device) {
    NDevClearOpen(device);
    return 0;
}

s64 Seek(ntfs_device* device, s64 offset, int whence) {
    PartitionWindow& window = Window(device);
    const s64 base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? window.position : static_cast<s64>(window.size);
    if ((whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) || base + offset < 0) {
        errno = EINVAL;
        return -1;
    }
    return window.position = base + offset;
}

// Transfers clipped at the partition's end; 0 there, as at a file's end.
s64 Transfer(ntfs_device* device, void* buffer, s64 count, s64 offset, bool write) {
    PartitionWindow& window = Window(device);
    if (count < 0 || offset < 0) {
        errno = EINVAL;
        return -1;
    }
    if (write && NDevReadOnly(device)) {
        errno = EROFS;
        return -1;
    }
    const std::uint64_t at = static_cast<std::uint64_t>(offset);
    if (at >= window.size) return 0;
    const std::uint64_t length = std::min<std::uint64_t>(static_cast<std::uint64_t>(count), window.size - at);
    window.last = write ? window.disk->Write(window.start + at, buffer, length)
                        : window.disk->Read(window.start + at, buffer, length);
    if (window.last) {
        errno = EIO;
        return -1;
    }
    if (write) NDevSetDirty(device);
    return static_cast<s64>(length);
}

s64 PRead(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    return Transfer(device, buffer, count, offset, false);
}
s64 PWrite(ntfs_device* device, const void* buffer, s64 count, s64 offset) {
    return Transfer(device, const_cast<void*>(buffer), count, offset, true);
}
s64 Read(ntfs_device* device, void* buffer, s64 count) {
    const s64 done = PRead(device, buffer, count, Window(device).position);
    if (done > 0) Window(device).position += done;
    return done;
}
s64 Write(ntfs_device* device, const void* buffer, s64 count) {
    const s64 done = PWrite(device, buffer, count, Window(device).position);
    if (done > 0) Window(device).position += done;
    return done;
}

int Sync(ntfs_device* device) {
    if (NDevReadOnly(device)) return 0;
    if ((Window(device).last = Window(device).disk->Flush())) {
        errno = EIO;
        return -1;
    }
    NDevClearDirty(device);
    return 0;
}

int Stat(ntfs_device* device, struct stat* info) {
    std::memset(info, 0, sizeof *info);
    info->st_mode = S_IFBLK;
    info->st_size = static_cast<off_t>(Window(device).size);
    return 0;
}

int Ioctl(ntfs_device* device, unsigned long request, void* argument) {
    if (request == BLKGETSIZE64) {
        *static_cast<std::uint64_t*>(argument) = Window(device).size;
        return 0;
    }
    if (request == BLKSSZGET) {
        *static_cast<int*>(argument) = 512;
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

ntfs_device_operations operations = {Open, Close, Seek, Read, Write, PRead, PWrite, Sync, Stat, Ioctl};

}  // namespace

ntfs_device* MakeNtfsDevice(const std::string& name, PartitionWindow& window) {
    return ntfs_device_alloc(name.c_str(), 0, &operations, &window);
}

}  // namespace TamvikImage
