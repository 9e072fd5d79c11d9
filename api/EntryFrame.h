// What every entry point shares: turning handles into nodes and back, finding
// the hive of a key, and walking a path of backslash-separated components.
#pragma once

#include "RegAPI.h"
#include "nodes/Key.h"
#include "store/Hive.h"
#include "store/LiveHandles.h"
#include "store/Platform.h"

namespace Tamvik {

// A handle's node, or null when it isn't a live handle: never handed out, or
// ended with its node or with its node's hive.
// Every key handed out dies with its hive (the hive owns its chain and the
// keys created in it), so a live key means a live hive.
inline Node* NodeOf(RegAPI::HKEY handle) { return IsLiveHandle(handle) ? reinterpret_cast<Node*>(handle) : nullptr; }
inline RegAPI::HKEY HandleOf(Node* node) {
    PublishHandle(node);
    return reinterpret_cast<RegAPI::HKEY>(node);
}
// The run-time class tests of the entry points; null for null and for another class.
inline Key* KeyOf(RegAPI::HKEY handle) { return NodeAs<Key>(NodeOf(handle)); }
inline Hive* HiveOf(RegAPI::HKEY handle) { return NodeAs<Hive>(NodeOf(handle)); }
// The hive a node belongs to: the top of its parent chain.
inline Hive* HiveAbove(Node* node) { return NodeAs<Hive>(node->GetRoot()); }

// Made at the top of every entry point that writes: whatever the call changed
// is handed to the file before it returns, whichever way it returns; the case
// rules are asked of the locale once for the call.
class WriteBack {
public:
    explicit WriteBack(RegAPI::HKEY key) : hive_(KeyOf(key) != nullptr ? HiveAbove(NodeOf(key)) : nullptr) {}
    ~WriteBack() {
        if (hive_ != nullptr) hive_->Flush();
    }
    WriteBack(const WriteBack&) = delete;
    WriteBack& operator=(const WriteBack&) = delete;

private:
    CaseRulesHold rules_;
    Hive* hive_;
};

// Walks path from start, one FindChild per component, as the key entry points
// do; gives the node the last component names, or null.
Node* WalkPath(Node* start, Hive* hive, const char16_t* path);

}  // namespace Tamvik
