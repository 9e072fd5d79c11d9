// Opening a hive for one command, key paths, and the tool's error type.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "RegAPI.h"

namespace TamvikTool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the hive or an operation failed, or check found problems
constexpr int kExitUsage = 2;   // bad arguments: nothing was opened for writing
constexpr int kExitDirty = 3;   // an editing command refused a dirty hive (see tamvik replay)
constexpr int kExitLocked = 4;  // an editing command found the hive locked by another process
constexpr int kExitDamaged = 5; // an editing command refused a hive whose structure check found problems

// Meaning of a library result number, for messages.
std::string ResultMeaning(RegAPI::LONG result);
// The why of a message: "(invalid argument or not found, result 87)". Every
// message reads "PATH: what happened (why)".
std::string DescribeResult(RegAPI::LONG result);

// A failure that ends the command: the message is printed as one line on stderr.
class ToolError : public std::runtime_error {
public:
    ToolError(const std::string& message, int status = kExitFailed) : std::runtime_error(message), status_(status) {}
    int Status() const { return status_; }

private:
    int status_;
};

// A usage error (exit status 2).
[[noreturn]] void UsageError(const std::string& message);

// A key below the root, as its components; empty means the root.
using KeyPath = std::vector<std::u16string>;

// Parses "A\B", "\A\B", "\" or "" (UTF-8) into components.
KeyPath ParseKeyPath(const std::string& text);
// Splits a wide path the same way.
KeyPath SplitKeyPath(const std::u16string& text);
// "\A\B", or "\" for the root; UTF-8 for messages and listings.
std::string ShowPath(const KeyPath& path);
std::u16string JoinPath(const KeyPath& path);

// One open hive, closed when the object goes. Keys are opened from the hive
// handle component by component, because the library keeps only one open key
// per level: every lookup may end handles below the level it touches.
class HiveSession {
public:
    // shownAs: the name messages give the hive (an edit works on a copy).
    HiveSession(const std::string& path, bool readOnly, const std::string& shownAs = {});
    ~HiveSession();
    HiveSession(const HiveSession&) = delete;
    HiveSession& operator=(const HiveSession&) = delete;

    const std::string& Path() const { return path_; }
    RegAPI::HKEY Root();
    // Opens a key by path from the root; throws ToolError naming the
    // component that can't be opened.
    RegAPI::HKEY Open(const KeyPath& path);
    // Same, but gives the result instead of throwing (*handle set on 0).
    RegAPI::LONG TryOpen(const KeyPath& path, RegAPI::HKEY* handle);

private:
    std::string path_;
    RegAPI::HKEY hive_ = nullptr;
    int fd_ = -1;  // kept open when the file is reached through /proc/self/fd
};

}  // namespace TamvikTool
