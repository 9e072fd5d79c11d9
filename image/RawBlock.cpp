// Raw images: the file's bytes are the disk's.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Block.h"

namespace TamvikImage {

namespace {

class RawBlock : public Block {
public:
    RawBlock(int fd, std::uint64_t size, bool writable) : Block(size, writable), fd_(fd) {}
    ~RawBlock() override { Close(); }

    Error Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        return Transfer(offset, static_cast<char*>(buffer), length, false);
    }
    Error Write(std::uint64_t offset, const void* buffer, std::size_t length) override {
        return Transfer(offset, static_cast<char*>(const_cast<void*>(buffer)), length, true);
    }
    Error Flush() override {
        if (fd_ < 0) return Fail(ErrorKind::Io, "the image is closed");
        if (Writable() && fsync(fd_) != 0) return FailErrno(ErrorKind::Io, "fsync of the image", errno);
        return {};
    }
    Error Close() override {
        if (fd_ < 0) return {};
        Error error = Flush();
        close(fd_);  // drops the flock too
        fd_ = -1;
        return error;
    }

private:
    Error Transfer(std::uint64_t offset, char* buffer, std::size_t length, bool write) {
        if (Error error = Check(offset, length, write, fd_ < 0)) return error;
        while (length > 0) {
            const ssize_t done = write ? pwrite(fd_, buffer, length, static_cast<off_t>(offset))
                                       : pread(fd_, buffer, length, static_cast<off_t>(offset));
            if (done < 0 && errno == EINTR) continue;
            if (done <= 0)
                return FailErrno(ErrorKind::Io, write ? "write to the image" : "read from the image",
                                 done < 0 ? errno : EIO);
            buffer += done;
            offset += static_cast<std::uint64_t>(done);
            length -= static_cast<std::size_t>(done);
        }
        return {};
    }

    int fd_;
};

// qemu marks its users of a file with fcntl locks, not flock: a writer also
// steps back when any such lock is held, so a disk a virtual machine runs on
// isn't written under it.
bool HeldByFcntlLocks(int fd) {
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
}

}  // namespace

std::unique_ptr<Block> OpenRawBlock(const std::string& path, bool writable, Error& error) {
    const int fd = open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        error = FailErrno(errno == ENOENT ? ErrorKind::NotFound : ErrorKind::Io, path, errno);
        return nullptr;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISBLK(info.st_mode))) {
        error = Fail(ErrorKind::Unsupported, path + ": not a file or block device");
    } else if (flock(fd, (writable ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? Fail(ErrorKind::Locked, path + ": another process is using the image")
                                     : FailErrno(ErrorKind::Io, path + ": flock", errno);
    } else if (writable && HeldByFcntlLocks(fd)) {
        error = Fail(ErrorKind::Locked, path + ": another process (qemu?) holds a lock on the image");
    } else {
        const off_t size = S_ISBLK(info.st_mode) ? lseek(fd, 0, SEEK_END) : info.st_size;
        if (size >= 0) return std::make_unique<RawBlock>(fd, static_cast<std::uint64_t>(size), writable);
        error = FailErrno(ErrorKind::Io, path + ": size", errno);
    }
    close(fd);
    return nullptr;
}

}  // namespace TamvikImage
