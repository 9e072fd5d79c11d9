#include "Session.h"

#include "HiveFile.h"

namespace TamvikTool {

using Tamvik::Status;

HiveSession::HiveSession(const std::string& path, bool readOnly, const std::string& shownAs)
    : path_(shownAs.empty() ? path : shownAs) {
    const Status opened =
        Tamvik::HiveAccess::Open(path, readOnly ? Tamvik::OpenMode::ReadOnly : Tamvik::OpenMode::Writable, &hive_);
    if (opened.code == Tamvik::StatusCode::NotAHive) {
        // The library tells a refusal; the file tells why.
        const std::string why = WhyNotAHive(path);
        throw ToolError(path_ + ": can't open as a hive " +
                        (why.empty() ? DescribeResult(Result::HiveRefused) : "(" + why + ")"));
    }
    if (!opened) throw ToolError(path_ + ": " + opened.text);
}

Cell HiveSession::Root() {
    Tamvik::KeyInfo info;
    const Cell root = hive_->Root();
    if (!hive_->Info(root, &info)) throw ToolError(path_ + ": root key unreadable " + DescribeResult(Result::Invalid));
    return root;
}

Status HiveSession::TryOpen(const KeyPath& path, Cell* key) {
    Cell current = hive_->Root();
    Tamvik::KeyInfo info;
    if (Status root = hive_->Info(current, &info); !root) return root;
    for (const std::u16string& name : path)
        if (Status step = hive_->FindSubKey(current, name, &current); !step) return step;
    *key = current;
    return Status::Success();
}

Cell HiveSession::Open(const KeyPath& path) {
    Cell key = 0;
    const Status opened = TryOpen(path, &key);
    if (!opened)
        throw ToolError(path_ + ": key " + ShowPath(path) + ": can't open " + DescribeResult(ResultOf(opened, Asked::Open)));
    return key;
}

}  // namespace TamvikTool
