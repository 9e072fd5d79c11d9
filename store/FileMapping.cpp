#include "store/FileMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "store/AddressBounds.h"

namespace Tamvik {

namespace {
constexpr std::uint64_t kPage = 4096;
std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }
}  // namespace

std::unique_ptr<FileMapping> FileMapping::Map(int fd, std::uint64_t size, bool readOnly) {
    // A writable hive gets room to grow without moving its mapping at each new bin.
    const std::uint64_t capacity = RoundUp(readOnly ? size : size + size / 2, kPage);
    // Pages of a file the system holds already come mapped in one call, instead of a fault for each.
    void* block = ::mmap(nullptr, capacity, readOnly ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                         fd, 0);
    if (block == MAP_FAILED) return nullptr;
    auto* data = static_cast<std::uint8_t*>(block);
    std::unique_ptr<FileMapping> mapping(new (std::nothrow) FileMapping(fd, data, size, capacity));
    if (mapping == nullptr) {
        ::munmap(block, capacity);
        return nullptr;
    }
    // A fault on a page the hive grew into would otherwise read ahead through
    // the page cache for pages that aren't there: all a fault needs is its page.
    if (!readOnly) ::madvise(data, capacity, MADV_RANDOM);
    MarkInBounds(data, size, capacity);
    return mapping;
}

FileMapping::~FileMapping() {
    MarkInBounds(data_, capacity_, capacity_);
    ::munmap(data_, capacity_);
    ::close(fd_);
}

bool FileMapping::Append(std::uint64_t at, const std::uint8_t* source, std::uint64_t length) {
    const std::uint64_t end = at + length;
    if (end > capacity_) {
        const std::uint64_t capacity = RoundUp(std::max(end, capacity_ * 2), kPage);
        std::uint8_t* moved = Remap(data_, size_, capacity_, capacity);
        if (moved == nullptr) return false;
        data_ = moved;
        capacity_ = capacity;
        ::madvise(data_, capacity_, MADV_RANDOM);
    }
    for (std::uint64_t done = 0; done < length;) {
        const ssize_t n = ::pwrite(fd_, source + done, length - done, static_cast<off_t>(at + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // Part of it may have been taken, lengthening the file.
            if (::ftruncate(fd_, static_cast<off_t>(size_)) != 0) {
                // Nothing more to undo with: the bytes past size_ are never read.
            }
            MarkInBounds(data_, size_, capacity_);
            return false;
        }
        done += static_cast<std::uint64_t>(n);
    }
    size_ = end;
    MarkInBounds(data_, size_, capacity_);
    return true;
}

void FileMapping::StartWriteback(std::uint64_t from) {
    if (from < size_)
        ::sync_file_range(fd_, static_cast<off_t>(from), static_cast<off_t>(size_ - from), SYNC_FILE_RANGE_WRITE);
}

bool FileMapping::Sync() { return ::fdatasync(fd_) == 0; }

}  // namespace Tamvik
