// Under the address sanitizer, mapped bytes past a buffer's size count as out
// of bounds, as a vector's spare capacity would: a read past the end of an
// image is then reported instead of landing in mapped zeros (or, for a file's
// pages, in a fault).
#pragma once

#include <sys/mman.h>

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define TAMVIK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAMVIK_ASAN 1
#endif
#endif
#ifdef TAMVIK_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace Tamvik {

inline void MarkInBounds(std::uint8_t* data, std::uint64_t size, std::uint64_t capacity) {
#ifdef TAMVIK_ASAN
    ASAN_UNPOISON_MEMORY_REGION(data, size);
    ASAN_POISON_MEMORY_REGION(data + size, capacity - size);
#else
    (void)data, (void)size, (void)capacity;
#endif
}

// mremap to a new capacity (the mapping may move), the marks kept: the whole
// old capacity is usable while it moves, and a refusal leaves the mapping and
// its marks as they were. Null when the system refused.
inline std::uint8_t* Remap(std::uint8_t* data, std::uint64_t size, std::uint64_t capacity, std::uint64_t newCapacity) {
    MarkInBounds(data, capacity, capacity);
    void* moved = ::mremap(data, capacity, newCapacity, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED) {
        MarkInBounds(data, size, capacity);
        return nullptr;
    }
    return static_cast<std::uint8_t*>(moved);
}

}  // namespace Tamvik
