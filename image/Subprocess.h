// qemu's programs as subprocesses, with what they say on stderr kept as the
// reason of a failure.
#pragma once

#include <string>
#include <vector>

#include "TamvikImage.h"

namespace TamvikImage {

// An anonymous file that a child writes its stderr to. Its descriptor is
// inherited (no close-on-exec) and lies above the low numbers that libnbd
// gives the server its socket on.
class CapturedStderr {
public:
    CapturedStderr();
    ~CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    int Fd() const { return fd_; }
    // What was written, trimmed, with the program's "name: " prefixes dropped.
    std::string Text(const std::string& program) const;

private:
    int fd_;
};

// Runs argv[0] (found on PATH) and waits: an Unsupported error when it can't
// be started, an Io one with its stderr when it fails.
Error RunProgram(const std::vector<std::string>& argv);

// What kind of failure qemu's words name: a lock it couldn't get, a missing
// file, or otherwise the given kind.
ErrorKind QemuErrorKind(const std::string& said, ErrorKind otherwise);

}  // namespace TamvikImage
