// The one gate every editing command passes before it writes to a hive: its
// lock, the refusal of a dirty or damaged hive, and the copy the edit is made
// on, which replaces the hive only once it is complete and on disk, so that an
// interruption at any moment leaves either the old hive or the new one.
// Refusals are ToolErrors with statuses of their own (see Session.h).
#pragma once

#include <memory>
#include <string>

#include "Args.h"
#include "AtomicFile.h"
#include "HiveLock.h"

namespace TamvikTool {

struct EditOptions {
    bool force = false;    // edit a dirty hive as it is (kExitDirty without it)
    bool inPlace = false;  // edit the hive itself: no copy, nothing guards it from an interruption
    // As --force and --in-place give them.
    static EditOptions From(const Args& args) { return {args.Has("--force"), args.Has("--in-place")}; }
};

class EditSession {
public:
    // Locks the hive, refuses it when dirty, and copies it to a temporary
    // file beside it (HIVE.tmp-XXXXXX) unless options.inPlace.
    EditSession(const std::string& hivePath, const EditOptions& options);
    // Removes the copy unless it was committed.
    ~EditSession();
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;

    // The file the edit opens: the copy, or with --in-place the hive.
    const std::string& WorkPath() const;
    const std::string& HivePath() const { return hivePath_; }
    // Once the library has closed the file: flushes the copy to disk,
    // renames it over the hive and flushes the folder.
    void Commit();

private:
    std::string hivePath_;
    std::string filePath_;  // the file behind a symbolic link, which the copy replaces
    HiveLock lock_;
    std::unique_ptr<PendingFile> copy_;
};

}  // namespace TamvikTool
