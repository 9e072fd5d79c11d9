#include "store/PageBuffer.h"

#include <sys/mman.h>

#include <cstring>

namespace Tamvik {

namespace {
constexpr std::uint64_t kHugePage = 2u << 20;
#ifndef MADV_POPULATE_WRITE
constexpr int MADV_POPULATE_WRITE = 23;  // older headers lack it; older kernels refuse it, which is harmless
#endif

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }
}  // namespace

PageBuffer::~PageBuffer() {
    if (data_ != nullptr) ::munmap(data_, capacity_);
}

bool PageBuffer::Reserve(std::uint64_t needed, std::uint64_t capacity) {
    capacity = RoundUp(capacity, kHugePage);
    // One huge page more than asked, so that the start can move to a huge page boundary.
    const std::uint64_t mapped = capacity + kHugePage;
    void* block = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) return false;
    auto* start = static_cast<std::uint8_t*>(block);
    auto* aligned = reinterpret_cast<std::uint8_t*>(RoundUp(reinterpret_cast<std::uintptr_t>(start), kHugePage));
    if (aligned != start) ::munmap(start, static_cast<std::size_t>(aligned - start));
    const std::uint64_t tail = mapped - static_cast<std::uint64_t>(aligned - start) - capacity;
    if (tail != 0) ::munmap(aligned + capacity, tail);
    ::madvise(aligned, capacity, MADV_HUGEPAGE);
    // The pages in use now, had in one go rather than one fault at a time.
    ::madvise(aligned, RoundUp(needed, kHugePage), MADV_POPULATE_WRITE);
    if (data_ != nullptr) {
        std::memcpy(aligned, data_, size_);
        ::munmap(data_, capacity_);
    }
    data_ = aligned;
    capacity_ = capacity;
    return true;
}

bool PageBuffer::Resize(std::uint64_t size) {
    if (size > capacity_ && !Reserve(size, size > 2 * capacity_ ? size : 2 * capacity_)) return false;
    // Bytes given up are cleared, so that growing again brings zeros.
    if (size < size_) std::memset(data_ + size, 0, size_ - size);
    size_ = size;
    return true;
}

}  // namespace Tamvik
