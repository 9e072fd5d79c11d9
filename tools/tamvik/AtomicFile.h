// Writing a whole file so that it appears complete or not at all: a
// temporary file beside it, flushed to disk, renamed into place, and the
// folder flushed so that the rename itself survives a crash.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTool {

// A temporary file beside another (NAME.tmp-XXXXXX), removed when the object
// goes unless it was placed.
class PendingFile {
public:
    // Throws ToolError when it can't be made.
    explicit PendingFile(const std::string& beside);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    int Fd() const { return fd_; }
    const std::string& Path() const { return path_; }
    // Flushes the file to disk and closes it; throws ToolError on failure.
    void Sync();
    // Renames it over target (replace), or links it there when nothing is
    // there yet (a file that appeared meanwhile stays); then flushes the folder.
    void Place(const std::string& target, bool replace);

private:
    int fd_ = -1;
    std::string path_;
};

// The mode a new file gets from open(2) under the current umask.
mode_t NewFileMode();

// Writes into a PendingFile beside path and places it. Without replace an
// existing file is never touched. mode is applied to the new file. Throws
// ToolError; the temporary file never stays.
void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, mode_t mode, bool replace);

}  // namespace TamvikTool
