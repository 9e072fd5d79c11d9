// Memory for nodes: one block per node and its cell's image, a whole number
// of steps long. A walk builds and drops several nodes per key, of a few
// sizes: blocks of those sizes, once given back, are kept by the thread and
// handed out again, last in first out, while they are still in the cache,
// instead of going through the heap each time.
#pragma once

#include <cstddef>

namespace Tamvik {

constexpr std::size_t kNodeBlockStep = 128;

// A block of steps * kNodeBlockStep bytes (steps > 0), or null when memory
// can't be had. Never throws.
void* TakeNodeBlock(std::size_t steps) noexcept;
// Gives back a block that TakeNodeBlock gave for the same steps; null is ignored.
void GiveNodeBlock(void* block, std::size_t steps) noexcept;

}  // namespace Tamvik
