#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Session.h"

namespace TamvikTool {

namespace {

// A temporary file that is removed unless it was moved into place.
class PendingFile {
public:
    explicit PendingFile(const std::string& beside) {
        std::string pattern = beside + ".tmp-XXXXXX";
        fd_ = ::mkstemp(pattern.data());
        if (fd_ >= 0) path_ = pattern;
    }
    ~PendingFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    int Fd() const { return fd_; }
    const std::string& Path() const { return path_; }
    bool Close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }
    void Placed() { path_.clear(); }

private:
    int fd_ = -1;
    std::string path_;
};

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    throw ToolError(path + ": " + what + ": " + std::strerror(errno) + "; nothing written");
}

void SyncFolder(const std::string& path) {
    const std::string dir = std::filesystem::path(path).parent_path().string();
    const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, mode_t mode, bool replace) {
    PendingFile temp(path);
    if (temp.Fd() < 0) Fail(path, "can't create a temporary file beside it");
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(temp.Fd(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) Fail(temp.Path(), "write failed");
        done += static_cast<std::size_t>(n);
    }
    if (::fchmod(temp.Fd(), mode) != 0 || ::fsync(temp.Fd()) != 0 || !temp.Close()) Fail(temp.Path(), "can't flush");
    if (replace) {
        if (::rename(temp.Path().c_str(), path.c_str()) != 0) Fail(path, "can't move the new file into place");
        temp.Placed();
    } else if (::link(temp.Path().c_str(), path.c_str()) != 0) {
        // A link replaces nothing: a file that appeared meanwhile stays.
        Fail(path, "can't move the new file into place");
    }
    SyncFolder(path);
}

}  // namespace TamvikTool
