#include "store/LiveHandles.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "store/Node.h"
#include "store/NodeBlocks.h"

namespace Tamvik {

constinit std::atomic<std::uint64_t> liveHandleSequence{0};
constinit thread_local LastLiveHandle lastLiveHandle __attribute__((tls_model("initial-exec")));

namespace {

// A set of addresses by open addressing: a walk opens and drops a handle per
// key, and a set that allocates per entry would cost more than the walk.
// Every entry point asks it, so a question takes no lock: changes, made under
// the registry's lock, are bracketed by a sequence number that is odd while
// they last, and a reader that saw it move asks again under the lock. Slots
// are atomics and an outgrown table is kept, so a reader that raced a change
// reads nothing freed.
class AddressSet {
public:
    // Without the lock: nothing when a change ran meanwhile.
    // *seen: the sequence number the answer holds for.
    std::optional<bool> TryContains(const void* address, std::uint64_t* seen) const {
        const std::uint64_t before = sequence_.load(std::memory_order_acquire);
        if (before % 2 != 0) return std::nullopt;
        const bool found = Contains(address);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (sequence_.load(std::memory_order_relaxed) != before) return std::nullopt;
        *seen = before;
        return found;
    }
    // Moves with every change: an answer given at one number holds while it stays.
    std::uint64_t Sequence() const { return sequence_.load(std::memory_order_acquire); }
    // Ends even when the table changes under it.
    bool Contains(const void* address) const {
        const Table* table = current_.load(std::memory_order_acquire);
        if (table == nullptr) return false;
        for (std::size_t i = table->Home(address), n = 0; n <= table->mask; ++n, i = (i + 1) & table->mask) {
            const void* held = table->slots[i].load(std::memory_order_relaxed);
            if (held == address) return true;
            if (held == kEmpty) return false;
        }
        return false;
    }
    void Insert(const void* address) {
        const Change change(sequence_);
        const std::size_t size = Size();
        if ((used_ + 1) * 4 > size * 3) Rehash(size == 0 ? 64 : (live_ + 1) * 4 > size * 2 ? size * 2 : size);
        Table& table = *tables_.back();
        std::size_t i = table.Home(address);
        while (table.Get(i) != kEmpty && table.Get(i) != kGone) {
            if (table.Get(i) == address) return;
            i = (i + 1) & table.mask;
        }
        if (table.Get(i) == kEmpty) ++used_;
        table.Set(i, address);
        ++live_;
    }
    void Erase(const void* address) {
        if (tables_.empty()) return;
        const Change change(sequence_);
        Table& table = *tables_.back();
        for (std::size_t i = table.Home(address);; i = (i + 1) & table.mask) {
            if (table.Get(i) == kEmpty) return;
            if (table.Get(i) == address) {
                table.Set(i, kGone);
                --live_;
                return;
            }
        }
    }

private:
    static inline const void* const kEmpty = nullptr;
    static inline const void* const kGone = reinterpret_cast<const void*>(std::uintptr_t{1});

    struct Table {
        explicit Table(std::size_t size) : mask(size - 1), slots(std::make_unique<std::atomic<const void*>[]>(size)) {}
        std::size_t Home(const void* address) const {
            return static_cast<std::size_t>((reinterpret_cast<std::uintptr_t>(address) >> 4) * 0x9E3779B97F4A7C15ull >> 20) &
                   mask;
        }
        const void* Get(std::size_t i) const { return slots[i].load(std::memory_order_relaxed); }
        void Set(std::size_t i, const void* address) { slots[i].store(address, std::memory_order_relaxed); }
        const std::size_t mask;
        const std::unique_ptr<std::atomic<const void*>[]> slots;
    };

    // Marks a change for the readers: the sequence is odd while it lasts.
    class Change {
    public:
        explicit Change(std::atomic<std::uint64_t>& sequence) : sequence_(sequence) {
            sequence_.store(sequence_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            std::atomic_thread_fence(std::memory_order_release);
        }
        ~Change() { sequence_.store(sequence_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

    private:
        std::atomic<std::uint64_t>& sequence_;
    };

    std::size_t Size() const { return tables_.empty() ? 0 : tables_.back()->mask + 1; }
    // Takes the live entries into a table of the given size, tombstones dropped;
    // a larger size makes a new table, and the old one stays for readers.
    void Rehash(std::size_t size) {
        std::vector<const void*> live;
        if (!tables_.empty()) {
            for (std::size_t i = 0; i < Size(); ++i)
                if (const void* held = tables_.back()->Get(i); held != kEmpty && held != kGone) live.push_back(held);
        }
        if (size != Size()) {
            tables_.push_back(std::make_unique<Table>(size));
            current_.store(tables_.back().get(), std::memory_order_release);
        }
        Table& table = *tables_.back();
        for (std::size_t i = 0; i < size; ++i) table.Set(i, kEmpty);
        used_ = live_ = live.size();
        for (const void* address : live) {
            std::size_t i = table.Home(address);
            while (table.Get(i) != kEmpty) i = (i + 1) & table.mask;
            table.Set(i, address);
        }
    }

    std::atomic<std::uint64_t>& sequence_ = liveHandleSequence;  // the one set's: see LiveHandles.h
    std::vector<std::unique_ptr<Table>> tables_;  // every table made, each twice the last; the last is in use
    std::atomic<const Table*> current_{nullptr};
    std::size_t used_ = 0, live_ = 0;  // used_: slots not empty, tombstones included
};

// Held for a few dozen instructions at a time, by the calls that change the
// set: a spin costs less than a mutex when, as almost always, nobody else holds it.
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

// A block held back, with its length in NodeBlocks steps (0: from plain new).
struct HeldBlock {
    void* block = nullptr;
    std::size_t steps = 0;
};

// One set for the process: handles of every hive are addresses in one space.
// Its lock makes hives used from different threads safe from each other.
struct Registry {
    SpinLock lock;
    AddressSet live;
    std::array<HeldBlock, kHeldBlocks> held{};  // a ring: the oldest is given back when a block comes
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
    // A handle just handed out is the one its caller asks about next.
    lastLiveHandle = LastLiveHandle{node, registry.live.Sequence()};
}

void ReleaseHandleBlock(void* block, std::size_t steps) {
    Registry& registry = TheRegistry();
    HeldBlock oldest;
    {
        const std::lock_guard<SpinLock> hold(registry.lock);
        registry.live.Erase(block);
        oldest = std::exchange(registry.held[registry.next], HeldBlock{block, steps});
        registry.next = (registry.next + 1) % kHeldBlocks;
    }
    if (oldest.steps != 0)
        GiveNodeBlock(oldest.block, oldest.steps);
    else
        ::operator delete(oldest.block);
}

bool IsLiveHandleAsked(const void* handle) {
    if (handle == nullptr) return false;
    Registry& registry = TheRegistry();
    std::uint64_t seen = 0;
    if (const std::optional<bool> live = registry.live.TryContains(handle, &seen)) {
        if (*live) lastLiveHandle = LastLiveHandle{handle, seen};
        return *live;
    }
    const std::lock_guard<SpinLock> hold(registry.lock);
    return registry.live.Contains(handle);
}

}  // namespace Tamvik
