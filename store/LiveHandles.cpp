#include "store/LiveHandles.h"

#include <array>
#include <cstdint>
#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "store/Node.h"

namespace Tamvik {

namespace {

// A set of addresses by open addressing: a walk opens and drops a handle per
// key, and a set that allocates per entry would cost more than the walk.
class AddressSet {
public:
    bool Contains(const void* address) const {
        if (slots_.empty()) return false;
        for (std::size_t i = Home(address);; i = (i + 1) & mask_) {
            if (slots_[i] == address) return true;
            if (slots_[i] == kEmpty) return false;
        }
    }
    void Insert(const void* address) {
        if ((used_ + 1) * 4 > slots_.size() * 3) Rehash(slots_.empty() ? 64 : (live_ + 1) * 4 > slots_.size() * 2 ? slots_.size() * 2 : slots_.size());
        std::size_t i = Home(address);
        while (slots_[i] != kEmpty && slots_[i] != kGone) {
            if (slots_[i] == address) return;
            i = (i + 1) & mask_;
        }
        if (slots_[i] == kEmpty) ++used_;
        slots_[i] = address;
        ++live_;
    }
    void Erase(const void* address) {
        if (slots_.empty()) return;
        for (std::size_t i = Home(address);; i = (i + 1) & mask_) {
            if (slots_[i] == kEmpty) return;
            if (slots_[i] == address) {
                slots_[i] = kGone;
                --live_;
                return;
            }
        }
    }

private:
    static inline const void* const kEmpty = nullptr;
    static inline const void* const kGone = reinterpret_cast<const void*>(std::uintptr_t{1});

    std::size_t Home(const void* address) const {
        return static_cast<std::size_t>((reinterpret_cast<std::uintptr_t>(address) >> 4) * 0x9E3779B97F4A7C15ull >> 20) &
               mask_;
    }
    // Takes the live entries into a table of the given size, tombstones dropped.
    void Rehash(std::size_t size) {
        std::vector<const void*> old = std::exchange(slots_, std::vector<const void*>(size, kEmpty));
        mask_ = size - 1;
        used_ = live_ = 0;
        for (const void* address : old)
            if (address != kEmpty && address != kGone) Insert(address);
    }

    std::vector<const void*> slots_;
    std::size_t mask_ = 0, used_ = 0, live_ = 0;  // used_: slots not empty, tombstones included
};

// Held for a few dozen instructions at a time, by every entry point: a spin
// costs less than a mutex when, as almost always, nobody else holds it.
class SpinLock {
public:
    void lock() {
        while (held_.exchange(true, std::memory_order_acquire))
            while (held_.load(std::memory_order_relaxed)) std::this_thread::yield();
    }
    void unlock() { held_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> held_{false};
};

// One set for the process: handles of every hive are addresses in one space.
// Its lock makes hives used from different threads safe from each other.
struct Registry {
    SpinLock lock;
    AddressSet live;
    std::array<void*, kHeldBlocks> held{};  // a ring: the oldest is freed when a block comes
    std::size_t next = 0;
};

// Never destroyed (nodes may die after static destructors ran), and made at
// load time so that no call pays for a guard.
Registry* const theRegistry = new Registry;
Registry& TheRegistry() { return *theRegistry; }

}  // namespace

void PublishHandle(Node* node) {
    if (node == nullptr || node->Published()) return;
    Registry& registry = TheRegistry();
    const std::lock_guard<SpinLock> hold(registry.lock);
    registry.live.Insert(node);
    node->MarkPublished();
}

void ReleaseHandleBlock(void* block) {
    Registry& registry = TheRegistry();
    void* oldest = nullptr;
    {
        const std::lock_guard<SpinLock> hold(registry.lock);
        registry.live.Erase(block);
        oldest = std::exchange(registry.held[registry.next], block);
        registry.next = (registry.next + 1) % kHeldBlocks;
    }
    ::operator delete(oldest);
}

bool IsLiveHandle(const void* handle) {
    if (handle == nullptr) return false;
    Registry& registry = TheRegistry();
    const std::lock_guard<SpinLock> hold(registry.lock);
    return registry.live.Contains(handle);
}

}  // namespace Tamvik
