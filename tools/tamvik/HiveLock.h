// The lock an edit holds on a hive file.
#pragma once

#include <string>

namespace TamvikTool {

// An exclusive flock on the hive file itself, taken without waiting: a second
// editor is refused with kExitLocked rather than queued behind the first.
// Read commands take no lock. When the file was replaced (by an edit that
// ended while this one waited for the lock) the new file is locked instead.
class HiveLock {
public:
    explicit HiveLock(const std::string& path);
    ~HiveLock();
    HiveLock(const HiveLock&) = delete;
    HiveLock& operator=(const HiveLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace TamvikTool
