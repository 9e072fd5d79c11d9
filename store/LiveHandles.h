// The nodes a caller holds as handles. A handle ends when its node dies (a
// key on another branch opened, the key deleted, the hive closed), and the
// caller can't tell; the entry points test membership here before they touch
// a handle, so an ended or made-up one is refused instead of followed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Tamvik {

class Node;

// Marks a node as handed out.
void PublishHandle(Node* node);
// Takes back the handle of a node that was destroyed (its block is still
// allocated) and gives the block back after the blocks of the last
// kHeldBlocks such nodes: an ended handle then rarely names a new node.
// steps: the block's length as TakeNodeBlock had it (see NodeBlocks.h), or 0
// for a block from plain new.
void ReleaseHandleBlock(void* block, std::size_t steps);
constexpr unsigned kHeldBlocks = 64;
// The handle this thread last found live, and the handle set's sequence
// number then (it moves with every change to the set): a caller asks about
// the same handle call after call, and while the set hasn't changed the answer
// stands. initial-exec, as for the case rules: no call to find it.
struct LastLiveHandle {
    const void* handle = nullptr;
    std::uint64_t sequence = 0;
};
extern constinit thread_local LastLiveHandle lastLiveHandle __attribute__((tls_model("initial-exec")));
// The sequence number of the handle set; only the set changes it.
extern std::atomic<std::uint64_t> liveHandleSequence;

// Whether handle, not the last one found live, is the address of a node handed out and still alive.
bool IsLiveHandleAsked(const void* handle);
// Whether handle is the address of a node handed out and still alive. Every
// entry point asks; the answer from the last call, mostly the same, is given inline.
inline bool IsLiveHandle(const void* handle) {
    if (handle != nullptr && handle == lastLiveHandle.handle &&
        liveHandleSequence.load(std::memory_order_acquire) == lastLiveHandle.sequence)
        return true;
    return IsLiveHandleAsked(handle);
}

}  // namespace Tamvik
