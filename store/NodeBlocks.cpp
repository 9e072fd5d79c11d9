#include "store/NodeBlocks.h"

#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "store/AddressBounds.h"

namespace Tamvik {

namespace {

// Blocks of 1 to kKeptSizes steps are kept, up to kKeptPerSize of each: a
// key handle, a list and a value list over the image all fit in a few steps.
constexpr std::size_t kKeptSizes = 8;
constexpr std::size_t kKeptPerSize = 32;

struct KeptBlocks {
    std::array<std::array<void*, kKeptPerSize>, kKeptSizes> blocks{};
    std::array<std::uint32_t, kKeptSizes> counts{};
};

// The thread's blocks, made when it first gives one back. Only a pointer is
// thread-local: the library is also loaded into running processes (the
// Python module), where static TLS room is scarce. initial-exec, as for the
// case rules: no call to find it.
thread_local KeptBlocks* kept __attribute__((tls_model("initial-exec"))) = nullptr;
// Set once the thread's blocks were given back at its end: a node that dies
// later (at process exit, say) gives its block straight back to the heap.
thread_local bool ended __attribute__((tls_model("initial-exec"))) = false;

struct ThreadEnd {
    ~ThreadEnd() {
        ended = true;
        const std::unique_ptr<KeptBlocks> cache(std::exchange(kept, nullptr));
        for (std::size_t size = 0; size < kKeptSizes; ++size)
            for (std::uint32_t i = 0; i < cache->counts[size]; ++i) ::operator delete(cache->blocks[size][i]);
    }
};

// The thread's cache, made at the first call; null when there's no memory
// for it or the thread is ending.
KeptBlocks* ThreadBlocks() {
    if (kept != nullptr || ended) return kept;
    kept = new (std::nothrow) KeptBlocks;  // owned by the thread's ThreadEnd
    if (kept != nullptr) {
        static thread_local ThreadEnd end;
        (void)end;
    }
    return kept;
}

bool Kept(std::size_t steps) { return steps >= 1 && steps <= kKeptSizes; }

}  // namespace

void* TakeNodeBlock(std::size_t steps) noexcept {
    if (KeptBlocks* cache = kept; cache != nullptr && Kept(steps)) {
        std::uint32_t& count = cache->counts[steps - 1];
        if (count > 0) return cache->blocks[steps - 1][--count];
    }
    return ::operator new(steps * kNodeBlockStep, std::nothrow);
}

void GiveNodeBlock(void* block, std::size_t steps) noexcept {
    if (block == nullptr) return;
#ifdef TAMVIK_ASAN
    // Under the address sanitizer every block goes back to the heap, so that
    // a node used after its end is reported rather than read from a new one.
    ::operator delete(block);
    return;
#endif
    if (Kept(steps)) {
        if (KeptBlocks* cache = ThreadBlocks(); cache != nullptr) {
            std::uint32_t& count = cache->counts[steps - 1];
            if (count < kKeptPerSize) {
                cache->blocks[steps - 1][count++] = block;
                return;
            }
        }
    }
    ::operator delete(block);
}

}  // namespace Tamvik
