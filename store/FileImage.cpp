#include "store/FileImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

namespace Tamvik {

namespace {
// Marked ranges closer than this are written as one: rewriting a few clean
// bytes is cheaper than another call.
constexpr std::uint64_t kCoalesceGap = 512;
constexpr std::uint64_t kMaxPosition = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
// After this many bytes handed to the file, the system is asked to start
// writing them to the disk, so that the close's wait for durability covers
// only the last of them.
constexpr std::uint64_t kWritebackKick = 8u << 20;
}  // namespace

std::unique_ptr<FileImage> FileImage::Open(const std::string& path, bool readOnly) {
    const int fd = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info {};
    std::unique_ptr<FileImage> image(new (std::nothrow) FileImage(fd, readOnly));
    if (image == nullptr) {
        ::close(fd);
        return nullptr;
    }
    // A directory opens for reading and reads nothing, as a stream does.
    if (fstat(fd, &info) != 0) return nullptr;
    const std::uint64_t size = S_ISDIR(info.st_mode) ? 0 : static_cast<std::uint64_t>(std::max<off_t>(info.st_size, 0));
    if (!image->bytes_.Resize(size)) return nullptr;
    std::uint64_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, image->bytes_.Data() + done, size - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::uint64_t>(n);
    }
    image->bytes_.Resize(done);  // a file that shrank meanwhile holds what was read
    return image;
}

FileImage::~FileImage() {
    Flush();
    ::close(fd_);
}

bool FileImage::Write(std::uint64_t position, const void* source, std::uint64_t length) {
    if (readOnly_ || position > kMaxPosition || length > kMaxPosition - position) return false;
    if (length == 0) return true;
    const std::uint64_t end = position + length;
    if (end <= bytes_.Size() && std::memcmp(bytes_.Data() + position, source, length) == 0) return true;
    try {
        dirty_.emplace_back(position, end);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (end > bytes_.Size() && !bytes_.Resize(end)) {
        dirty_.pop_back();
        return false;
    }
    std::memcpy(bytes_.Data() + position, source, length);
    return true;
}

bool FileImage::WriteThrough(std::uint64_t position, const void* source, std::uint64_t length) {
    if (readOnly_ || position > kMaxPosition || length > kMaxPosition - position) return false;
    const std::uint64_t oldSize = bytes_.Size(), end = position + length;
    std::vector<std::uint8_t> old;
    try {
        if (position < oldSize) old.assign(bytes_.Data() + position, bytes_.Data() + std::min(end, oldSize));
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (end > oldSize && !bytes_.Resize(end)) return false;
    std::memcpy(bytes_.Data() + position, source, length);
    if (WriteOut(position, length)) return true;
    // The file took none or part of it: it gets back what it held, and the
    // image then holds whatever the file does, should that fail too.
    std::copy(old.begin(), old.end(), bytes_.Data() + position);
    WriteOut(position, old.size());
    if (end > oldSize) {
        if (::ftruncate(fd_, static_cast<off_t>(oldSize)) != 0) {
            // The file keeps what it took; the image can only forget it too.
        }
        bytes_.Resize(oldSize);
    }
    ReadBack(position, old.size());
    return false;
}

bool FileImage::WriteOut(std::uint64_t position, std::uint64_t length) {
    std::uint64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pwrite(fd_, bytes_.Data() + position + done, length - done,
                                   static_cast<off_t>(position + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::uint64_t>(n);
    }
    return true;
}

void FileImage::ReadBack(std::uint64_t position, std::uint64_t length) {
    std::uint64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(fd_, bytes_.Data() + position + done, length - done,
                                  static_cast<off_t>(position + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::uint64_t>(n);
    }
    // Bytes the file doesn't hold aren't there to read.
    if (done < length && position + done < bytes_.Size() && position + length >= bytes_.Size())
        bytes_.Resize(position + done);
}

bool FileImage::Flush() {
    if (dirty_.empty()) return true;
    std::sort(dirty_.begin(), dirty_.end());
    std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;
    for (const auto& range : dirty_) {
        if (!runs.empty() && range.first <= runs.back().second + kCoalesceGap)
            runs.back().second = std::max(runs.back().second, range.second);
        else
            runs.push_back(range);
    }
    dirty_.clear();
    bool written = true;
    for (const auto& [begin, end] : runs) {
        const std::uint64_t last = std::min<std::uint64_t>(end, bytes_.Size());
        if (begin < last && !WriteOut(begin, last - begin)) {
            ReadBack(begin, last - begin);
            written = false;
        }
        if (begin < last) unsynced_ += last - begin;
    }
    if (unsynced_ >= kWritebackKick) {
        ::sync_file_range(fd_, 0, 0, SYNC_FILE_RANGE_WRITE);  // starts the writing, waits for nothing
        unsynced_ = 0;
    }
    return written;
}

bool FileImage::Sync() {
    const bool flushed = Flush();
    return (readOnly_ || ::fdatasync(fd_) == 0) && flushed;
}

}  // namespace Tamvik
