// The nodes a caller holds as handles. A handle ends when its node dies (a
// key on another branch opened, the key deleted, the hive closed), and the
// caller can't tell; the entry points test membership here before they touch
// a handle, so an ended or made-up one is refused instead of followed.
#pragma once

#include <cstddef>

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
// Whether handle is the address of a node handed out and still alive.
bool IsLiveHandle(const void* handle);

}  // namespace Tamvik
