#include "Session.h"

#include "HiveFile.h"

namespace TamvikTool {

using Tamvik::Status;

ToolError NotAHive(HiveSource& source, const std::string& shownAs) {
    // The library tells a refusal; the file tells why.
    const std::string why = WhyNotAHive(source);
    return ToolError(shownAs + ": can't open as a hive " +
                     (why.empty() ? DescribeResult(Result::HiveRefused) : "(" + why + ")"));
}

HiveSession::HiveSession(const HivePlace& place) : ownSource_(place.Source()) { Attach(*ownSource_, true); }

HiveSession::HiveSession(HiveSource& source, bool readOnly) { Attach(source, readOnly); }

void HiveSession::Attach(HiveSource& source, bool readOnly) {
    path_ = source.Name();
    image_ = dynamic_cast<ImageSource*>(&source);
    if (image_ != nullptr)
        hive_ = &image_->OpenHive(!readOnly);
    else
        OpenFile(source.Name(), readOnly);
}

HiveSession::HiveSession(const std::string& path, bool readOnly, const std::string& shownAs)
    : path_(shownAs.empty() ? path : shownAs) {
    OpenFile(path, readOnly);
}

void HiveSession::OpenFile(const std::string& path, bool readOnly) {
    const Status opened =
        Tamvik::HiveAccess::Open(path, readOnly ? Tamvik::OpenMode::ReadOnly : Tamvik::OpenMode::Writable, &file_);
    if (opened.code == Tamvik::StatusCode::NotAHive) {
        FileSource source(path);
        throw NotAHive(source, path_);
    }
    if (!opened) throw ToolError(path_ + ": " + opened.text);
    hive_ = file_.get();
}

HiveSession::~HiveSession() = default;

void HiveSession::Close() {
    if (image_ != nullptr) {
        image_->Close();
    } else if (file_ != nullptr) {
        const Status closed = file_->Close();
        if (!closed) throw ToolError(path_ + ": " + closed.text);
    }
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
