// Under the address sanitizer, mapped bytes past a buffer's size count as out
// of bounds, as a vector's spare capacity would: a read past the end of an
// image is then reported instead of landing in mapped zeros (or, for a file's
// pages, in a fault).
#pragma once

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

}  // namespace Tamvik
