#include "HiveLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ToolError.h"

namespace TamvikTool {

HiveLock::HiveLock(const std::string& path) {
    while (true) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) throw ToolError(path + ": can't open (" + std::strerror(errno) + ")");
        if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
            const int error = errno;
            ::close(fd_);
            fd_ = -1;
            if (error == EWOULDBLOCK)
                throw ToolError(path + ": can't edit (another process holds its lock: an edit is under way)",
                                kExitLocked);
            throw ToolError(path + ": can't lock (" + std::strerror(error) + ")");
        }
        struct stat locked {}, named {};
        if (::fstat(fd_, &locked) == 0 && ::stat(path.c_str(), &named) == 0 && locked.st_dev == named.st_dev &&
            locked.st_ino == named.st_ino)
            return;
        ::close(fd_);  // replaced meanwhile: lock the file that stands there now
        fd_ = -1;
    }
}

HiveLock::~HiveLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace TamvikTool
