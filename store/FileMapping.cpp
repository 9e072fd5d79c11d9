#include "store/FileMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "store/AddressBounds.h"

namespace Tamvik {

namespace {
constexpr std::uint64_t kPage = 4096;
// The reserve a growing file takes at once: an eighth of the file, within
// these bounds. Bigger steps mean fewer calls; a process that dies leaves at
// most one step of zeros behind its hive.
constexpr std::uint64_t kMinReserve = 1u << 20;
constexpr std::uint64_t kMaxReserve = 16u << 20;
std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }
std::uint64_t RoundDown(std::uint64_t value, std::uint64_t unit) { return value / unit * unit; }

// Zeros written over [from, end): the file system allocates (or refuses)
// their room now. Measured cheaper than fallocate on ext4: written pages enter
// the page cache in large pieces, where allocated ones would each be faulted
// in through the mapping. A zero page repeated, many pages a call.
bool WriteZeros(int fd, std::uint64_t from, std::uint64_t end) {
    static const std::array<std::uint8_t, kPage> zeros{};
    std::array<iovec, 256> pieces;
    pieces.fill(iovec{const_cast<std::uint8_t*>(zeros.data()), kPage});
    while (from < end) {
        const std::uint64_t length = std::min<std::uint64_t>(end - from, pieces.size() * kPage);
        const int count = static_cast<int>((length + kPage - 1) / kPage);
        pieces[count - 1].iov_len = length - (count - 1) * kPage;
        const ssize_t n = ::pwritev(fd, pieces.data(), count, static_cast<off_t>(from));
        pieces[count - 1].iov_len = kPage;
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        from += static_cast<std::uint64_t>(n);
    }
    return true;
}
}  // namespace

std::unique_ptr<FileMapping> FileMapping::Map(int fd, std::uint64_t size, bool readOnly) {
    // A writable hive gets room to grow without moving its mapping at each new bin.
    const std::uint64_t capacity = RoundUp(readOnly ? size : size + size / 2 + kMinReserve, kPage);
    // Pages of a file the system holds already come mapped in one call, instead of a fault for each.
    void* block = ::mmap(nullptr, capacity, readOnly ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                         fd, 0);
    if (block == MAP_FAILED) return nullptr;
    auto* data = static_cast<std::uint8_t*>(block);
    std::unique_ptr<FileMapping> mapping(new (std::nothrow) FileMapping(fd, data, size, capacity, readOnly));
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
    CutReserve();
    MarkInBounds(data_, capacity_, capacity_);
    ::munmap(data_, capacity_);
    ::close(fd_);
}

bool FileMapping::Reserve(std::uint64_t from, std::uint64_t end) {
    const std::uint64_t step = std::clamp(fileSize_ / 8, kMinReserve, kMaxReserve);
    const std::uint64_t generous = RoundUp(std::max(end, fileSize_ + step), kPage);
    if (generous > capacity_) {
        const std::uint64_t capacity = RoundUp(std::max(generous, capacity_ * 2), kPage);
        std::uint8_t* moved = Remap(data_, size_, capacity_, capacity);
        if (moved == nullptr) return false;
        data_ = moved;
        capacity_ = capacity;
        ::madvise(data_, capacity_, MADV_RANDOM);
    }
    // Only what the hive will use is allocated: a gap up to the first page
    // written stays a hole, however far a damaged header puts the new bin.
    from = std::max(fileSize_, RoundDown(from, kPage));
    for (const std::uint64_t want : {generous, end}) {
        if (WriteZeros(fd_, from, want)) {
            fileSize_ = want;
            // The new pages come writable in one call rather than a fault or two each.
            ::madvise(data_ + from, want - from, MADV_POPULATE_WRITE);
            return true;
        }
        // A refusal may have lengthened the file, or allocated part of it.
        if (::ftruncate(fd_, static_cast<off_t>(fileSize_)) != 0) {
            // Nothing more to undo with: the bytes past fileSize_ are never read.
        }
    }
    return false;
}

bool FileMapping::Append(std::uint64_t at, const std::uint8_t* source, std::uint64_t length, std::uint64_t zeros) {
    // Past size_ the file holds zeros (the reserve's, or a hole's): the zeros asked for are there.
    const std::uint64_t end = at + length + zeros;
    if (end > fileSize_ && !Reserve(at, end)) {
        MarkInBounds(data_, size_, capacity_);
        return false;
    }
    MarkInBounds(data_, end, capacity_);
    std::copy(source, source + length, data_ + at);
    size_ = end;
    return true;
}

void FileMapping::CutReserve() {
    if (readOnly_ || fileSize_ <= size_) return;
    if (::ftruncate(fd_, static_cast<off_t>(size_)) == 0) fileSize_ = size_;
}

void FileMapping::StartWriteback(std::uint64_t from) {
    if (from < size_)
        ::sync_file_range(fd_, static_cast<off_t>(from), static_cast<off_t>(size_ - from), SYNC_FILE_RANGE_WRITE);
}

bool FileMapping::Sync() {
    CutReserve();
    return ::fdatasync(fd_) == 0;
}

}  // namespace Tamvik
