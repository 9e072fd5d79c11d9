#include "store/PageBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "store/AddressBounds.h"

namespace Tamvik {

namespace {
constexpr std::uint64_t kHugePage = 2u << 20;
constexpr std::uint64_t kPage = 4096;
#ifndef MADV_POPULATE_WRITE
constexpr int MADV_POPULATE_WRITE = 23;  // older headers lack it; older kernels refuse it, which is harmless
#endif

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Zeros [from, to). Whole pages go back to the system and come again as zeros
// when next written: a shrink after a refused growth gigabytes out must not
// touch all the pages the growth never used.
void Clear(std::uint8_t* data, std::uint64_t from, std::uint64_t to) {
    static const std::uint64_t page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    const std::uint64_t first = RoundUp(from, page), last = to / page * page;
    if (first < last && ::madvise(data + first, last - first, MADV_DONTNEED) == 0) {
        std::memset(data + from, 0, first - from);
        std::memset(data + last, 0, to - last);
        return;
    }
    std::memset(data + from, 0, to - from);
}
}  // namespace

PageBuffer::~PageBuffer() {
    if (data_ == nullptr) return;
    MarkInBounds(data_, capacity_, capacity_);
    ::munmap(data_, capacity_);
}

bool PageBuffer::Reserve(std::uint64_t needed, std::uint64_t capacity) {
    // Huge pages pay off for large hives only: a small one would have a whole
    // 2 MiB page cleared at every open.
    const std::uint64_t unit = capacity >= kHugePage ? kHugePage : kPage;
    capacity = RoundUp(capacity, unit);
    if (data_ != nullptr) {
        // Growing: the pages move as they are, without a copy; new ones come when first written.
        std::uint8_t* moved = Remap(data_, size_, capacity_, capacity);
        if (moved == nullptr) return false;
        data_ = moved;
        capacity_ = capacity;
        ::madvise(data_, capacity_, MADV_HUGEPAGE);
        return true;
    }
    // Room to move the start to a unit boundary: up to a huge page less one
    // page, none for small pages, as mmap gives page-aligned blocks.
    const std::uint64_t mapped = capacity + unit - kPage;
    void* block = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) return false;
    auto* start = static_cast<std::uint8_t*>(block);
    auto* aligned = reinterpret_cast<std::uint8_t*>(RoundUp(reinterpret_cast<std::uintptr_t>(start), unit));
    if (aligned != start) ::munmap(start, static_cast<std::size_t>(aligned - start));
    const std::uint64_t tail = mapped - static_cast<std::uint64_t>(aligned - start) - capacity;
    if (tail != 0) ::munmap(aligned + capacity, tail);
    if (unit == kHugePage) ::madvise(aligned, capacity, MADV_HUGEPAGE);
    // The pages in use now, had in one go rather than one fault at a time.
    ::madvise(aligned, std::min(capacity, RoundUp(needed, unit)), MADV_POPULATE_WRITE);
    data_ = aligned;
    capacity_ = capacity;
    return true;
}

bool PageBuffer::Resize(std::uint64_t size) {
    if (size > capacity_ && !Reserve(size, size > 2 * capacity_ ? size : 2 * capacity_)) return false;
    // Bytes given up are cleared, so that growing again brings zeros.
    if (size < size_) Clear(data_, size, size_);
    size_ = size;
    MarkInBounds(data_, size_, capacity_);
    return true;
}

}  // namespace Tamvik
