// How a command ends: the tool's exit statuses, its error type, and the
// result numbers its messages give for the library's statuses.
#pragma once

#include <stdexcept>
#include <string>

#include "store/Status.h"

namespace TamvikTool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the hive or an operation failed, or check found problems
constexpr int kExitUsage = 2;   // bad arguments: nothing was opened for writing
constexpr int kExitDirty = 3;   // an editing command refused a dirty hive (see tamvik replay)
constexpr int kExitLocked = 4;  // an editing command found the hive locked by another process
constexpr int kExitDamaged = 5; // an editing command refused a hive whose structure check found problems
constexpr int kExitUnsafe = 6;  // an editing command refused a volume Windows left hibernated or unclean

// The result numbers messages show, those of the library's exported functions.
namespace Result {
constexpr int Ok = 0;
constexpr int HiveRefused = 5;
constexpr int CannotCreate = 57;
constexpr int AlreadyExists = 72;
constexpr int Invalid = 87;
constexpr int MoreData = 234;
constexpr int Corrupt = 1015;
}  // namespace Result

// What the tool asked of the library when a status came back: the same
// status reads as another number for each, as the exported functions gave it.
enum class Asked {
    Open,    // a key by name or path
    List,    // the subkeys or values of a key, or one of them; sorting a list
    Read,    // one value by name
    Create,  // a new key
    Change,  // setting or deleting a value, deleting a key
};
int ResultOf(const Tamvik::Status& status, Asked asked);

// Meaning of a result number, for messages.
std::string ResultMeaning(int result);
// The why of a message: "(invalid argument or not found, result 87)". Every
// message reads "PATH: what happened (why)".
std::string DescribeResult(int result);

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

}  // namespace TamvikTool
