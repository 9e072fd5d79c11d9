// The one gate every editing command passes before it writes to a hive: its
// lock, the refusal of a dirty or damaged hive, and the copy the edit is made
// on, which replaces the hive only once it is complete and on disk, so that an
// interruption at any moment leaves either the old hive or the new one. A
// hive inside a disk image has no rename to lean on: the image is locked and
// the hive edited in place (or the edits go into an overlay of the image).
// Refusals are ToolErrors with statuses of their own (see ToolError.h).
#pragma once

#include <memory>
#include <string>

#include "Args.h"
#include "AtomicFile.h"
#include "HiveLock.h"
#include "HiveSource.h"
#include "Session.h"

namespace TamvikTool {

struct EditOptions {
    bool force = false;    // edit a dirty hive as it is (kExitDirty without it)
    bool inPlace = false;  // edit the hive itself: no copy, nothing guards it from an interruption
    // As --force and --in-place give them.
    static EditOptions From(const Args& args) { return {args.Has("--force"), args.Has("--in-place")}; }
};

class EditSession {
public:
    // Locks the hive, refuses it when dirty or damaged, and copies it to a
    // temporary file beside it (HIVE.tmp-XXXXXX) unless options.inPlace or
    // the hive is inside an image.
    EditSession(const HivePlace& place, const EditOptions& options);
    // Removes the copy unless it was committed.
    ~EditSession();
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;

    // The hive opened for writing: the copy, the file itself, or the file in the image.
    HiveSession& Session();
    // The hive as messages name it.
    const std::string& HivePath() const { return hivePath_; }
    // Closes the hive; then flushes the copy to disk, renames it over the
    // hive and flushes the folder, or closes the image with its flushes.
    void Commit();

private:
    std::string hivePath_;
    std::string filePath_;  // the file behind a symbolic link, which the copy replaces
    std::unique_ptr<HiveLock> lock_;
    std::unique_ptr<ImageSource> image_;
    std::unique_ptr<PendingFile> copy_;
    std::unique_ptr<HiveSession> session_;
};

}  // namespace TamvikTool
