#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ToolError.h"

namespace TamvikTool {

namespace {

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    throw ToolError(path + ": " + what + " (" + std::strerror(errno) + "); nothing written");
}

void SyncFolder(const std::string& path) {
    const std::string dir = std::filesystem::path(path).parent_path().string();
    const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

PendingFile::PendingFile(const std::string& beside) {
    std::string pattern = beside + ".tmp-XXXXXX";
    fd_ = ::mkstemp(pattern.data());
    if (fd_ < 0) Fail(beside, "can't create a temporary file beside it");
    path_ = pattern;
}

PendingFile::~PendingFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!path_.empty()) ::unlink(path_.c_str());
}

void PendingFile::Sync() {
    const int fd = fd_;
    fd_ = -1;
    if (::fsync(fd) != 0) {
        ::close(fd);
        Fail(path_, "can't flush");
    }
    if (::close(fd) != 0) Fail(path_, "can't flush");
}

void PendingFile::Place(const std::string& target, bool replace) {
    if (replace) {
        if (::rename(path_.c_str(), target.c_str()) != 0) Fail(target, "can't move the new file into place");
        path_.clear();
    } else if (::link(path_.c_str(), target.c_str()) != 0) {
        Fail(target, "can't move the new file into place");
    }
    SyncFolder(target);
}

mode_t NewFileMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, mode_t mode, bool replace) {
    PendingFile temp(path);
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(temp.Fd(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) Fail(temp.Path(), "write failed");
        done += static_cast<std::size_t>(n);
    }
    if (::fchmod(temp.Fd(), mode) != 0) Fail(temp.Path(), "can't set its mode");
    temp.Sync();
    temp.Place(path, replace);
}

}  // namespace TamvikTool
