#include "EditGuard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "DirtyState.h"
#include "HiveFile.h"
#include "Session.h"
#include "logs/Files.h"
#include "nodes/ReferenceCheck.h"

namespace TamvikTool {

namespace {

// A dirty hive's latest changes may be only in its logs, which Windows would
// replay over an edit. A file that can't be read is let through: opening it
// will say why.
void RefuseDirty(HiveSource& source) {
    TamvikLogs::Bytes head;
    std::string error;
    if (!source.ReadHive(&head, &error, TamvikLogs::kBaseBlockBytes)) return;
    const TamvikLogs::BaseBlock base = TamvikLogs::ReadBaseBlock(head);
    // Without the signature it is no hive at all; the library refuses it.
    if (!base.signatureOk || !base.Dirty()) return;
    throw ToolError(source.Name() + ": the hive is dirty (" + DirtReason(base) +
                        "): its latest changes may be only in its transaction logs, and Windows would replay them "
                        "over an edit. Run 'tamvik replay' on it first, or give --force to edit it as it is",
                    kExitDirty);
}

// The library edits a hive by the rules of its format and trusts what it
// reads: in a file shorter than its bins, with cells that overlap or lists
// that two keys share, an edit could write past the file's end, overwrite a
// neighbour or free a list another key still uses. Such a hive is edited only
// with --force. A file that can't be read is let through: opening it will say
// why.
void RefuseDamaged(HiveSource& source) {
    std::vector<Finding> problems;
    try {
        const HiveFile file(source);
        if (!file.Scan().Base().signatureOk) return;
        problems = file.Findings();
        const Tamvik::ReferenceReport report = Tamvik::CheckReferences(file.Scan());
        problems.insert(problems.end(), report.findings.begin(), report.findings.end());
    } catch (const ToolError&) {
        return;
    }
    std::size_t count = 0;
    const Finding* first = nullptr;
    for (const Finding& finding : problems) {
        if (finding.warning) continue;
        if (++count == 1) first = &finding;
    }
    if (first == nullptr) return;
    throw ToolError(source.Name() + ": the hive is damaged (" + std::to_string(count) + " problem(s), the first at file offset " +
                        Hex(first->fileOffset) + ": " + first->text +
                        "): an edit could lose keys or overwrite other cells. 'tamvik check' lists the problems; "
                        "--force edits it as it is",
                    kExitDamaged);
}

// The copy an interrupted edit leaves behind is removed by the signal's
// handler; a buffer it can read without allocating holds its name.
char pendingCopy[4096];

void RemoveCopyAndDie(int signal) {
    if (pendingCopy[0] != 0) ::unlink(pendingCopy);
    ::raise(signal);  // the handler was reset: the signal now ends the process as it would have
}

void WatchSignals(const std::string& copy) {
    if (copy.size() >= sizeof pendingCopy) return;
    std::memcpy(pendingCopy, copy.c_str(), copy.size() + 1);
    struct sigaction action {};
    action.sa_handler = RemoveCopyAndDie;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) ::sigaction(signal, &action, nullptr);
}

void StopWatching() { pendingCopy[0] = 0; }

void CopyContents(int from, int to, const std::string& path) {
    struct stat info {};
    if (::fstat(from, &info) != 0) throw ToolError(path + ": can't read (" + std::strerror(errno) + ")");
    for (off_t done = 0; done < info.st_size;) {
        const ssize_t n = ::sendfile(to, from, &done, static_cast<std::size_t>(info.st_size - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            throw ToolError(path + ": can't copy it for the edit (" + std::string(n < 0 ? std::strerror(errno) : "short read") +
                            "; --in-place edits it without a copy)");
    }
    // The copy looks like the hive: same mode, and same owner where allowed.
    if (::fchmod(to, info.st_mode & 07777) != 0 || (::fchown(to, info.st_uid, info.st_gid) != 0 && errno != EPERM))
        throw ToolError(path + ": can't give the copy the hive's mode (" + std::strerror(errno) + ")");
}

}  // namespace

namespace {

// The file a path names after its symbolic links: renaming over the link
// itself would put a file in its place.
std::string FileBehind(const std::string& path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(path, error);
    return error ? path : real.string();
}

}  // namespace

EditSession::EditSession(const HivePlace& place, const EditOptions& options) : hivePath_(place.hive) {
    if (place.InImage()) {
        image_ = std::make_unique<ImageSource>(place, true);
        hivePath_ = image_->Name();
        if (!options.force) {
            RefuseDirty(*image_);
            RefuseDamaged(*image_);
        }
        return;
    }
    filePath_ = FileBehind(hivePath_);
    lock_ = std::make_unique<HiveLock>(filePath_);
    if (!options.force) {
        FileSource source(hivePath_);
        RefuseDirty(source);
        RefuseDamaged(source);
    }
    if (options.inPlace) return;
    const int from = ::open(filePath_.c_str(), O_RDONLY | O_CLOEXEC);
    if (from < 0) throw ToolError(hivePath_ + ": can't open (" + std::strerror(errno) + ")");
    try {
        try {
            copy_ = std::make_unique<PendingFile>(filePath_);
        } catch (const ToolError& e) {
            throw ToolError(std::string(e.what()) + " (--in-place edits the hive without a copy)", e.Status());
        }
        WatchSignals(copy_->Path());
        CopyContents(from, copy_->Fd(), hivePath_);
    } catch (...) {
        ::close(from);
        throw;
    }
    ::close(from);
}

EditSession::~EditSession() {
    session_.reset();
    copy_.reset();  // an uncommitted copy goes first, then the handler that would remove it
    StopWatching();
}

HiveSession& EditSession::Session() {
    if (session_ == nullptr)
        session_ = image_ != nullptr ? std::make_unique<HiveSession>(*image_, false)
                                     : std::make_unique<HiveSession>(copy_ != nullptr ? copy_->Path() : hivePath_,
                                                                     false, hivePath_);
    return *session_;
}

void EditSession::Commit() {
    if (session_ != nullptr) session_->Close();
    if (image_ != nullptr) image_->Close();  // with no session, the image is closed all the same
    if (copy_ == nullptr) return;
    copy_->Sync();
    copy_->Place(filePath_, true);
    StopWatching();
}

}  // namespace TamvikTool
