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
}  // namespace

std::unique_ptr<FileImage> FileImage::Open(const std::string& path, bool readOnly) {
    const int fd = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info {};
    std::vector<std::uint8_t> bytes;
    try {
        // A directory opens for reading and reads nothing, as a stream does.
        if (fstat(fd, &info) != 0) throw std::bad_alloc();
        if (!S_ISDIR(info.st_mode)) bytes.resize(static_cast<std::size_t>(std::max<off_t>(info.st_size, 0)));
    } catch (const std::bad_alloc&) {
        ::close(fd);
        return nullptr;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    bytes.resize(done);  // a file that shrank meanwhile holds what was read
    std::unique_ptr<FileImage> image(new (std::nothrow) FileImage(fd, readOnly, std::move(bytes)));
    if (image == nullptr) ::close(fd);
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
    if (end <= bytes_.size() && std::memcmp(bytes_.data() + position, source, length) == 0) return true;
    try {
        if (end > bytes_.size()) bytes_.resize(end);
        dirty_.emplace_back(position, end);
    } catch (const std::bad_alloc&) {
        return false;
    }
    std::memcpy(bytes_.data() + position, source, length);
    return true;
}

bool FileImage::WriteThrough(std::uint64_t position, const void* source, std::uint64_t length) {
    if (readOnly_ || position > kMaxPosition || length > kMaxPosition - position) return false;
    const std::uint64_t oldSize = bytes_.size(), end = position + length;
    std::vector<std::uint8_t> old;
    try {
        if (position < oldSize) old.assign(bytes_.begin() + position, bytes_.begin() + std::min(end, oldSize));
        if (end > oldSize) bytes_.resize(end);
    } catch (const std::bad_alloc&) {
        return false;
    }
    std::memcpy(bytes_.data() + position, source, length);
    if (WriteOut(position, length)) return true;
    // The file took none or part of it: everything goes back to what it held.
    std::copy(old.begin(), old.end(), bytes_.begin() + position);
    if (end > oldSize) {
        if (::ftruncate(fd_, static_cast<off_t>(oldSize)) != 0) {
            // The file keeps what it took; the image can only forget it too.
        }
        bytes_.resize(oldSize);
    }
    return false;
}

bool FileImage::WriteOut(std::uint64_t position, std::uint64_t length) {
    std::uint64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pwrite(fd_, bytes_.data() + position + done, length - done,
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
        const ssize_t n = ::pread(fd_, bytes_.data() + position + done, length - done,
                                  static_cast<off_t>(position + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::uint64_t>(n);
    }
    // Bytes the file doesn't hold aren't there to read.
    if (done < length && position + done < bytes_.size() && position + length >= bytes_.size())
        bytes_.resize(position + done);
}

void FileImage::Flush() {
    if (dirty_.empty()) return;
    std::sort(dirty_.begin(), dirty_.end());
    std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;
    for (const auto& range : dirty_) {
        if (!runs.empty() && range.first <= runs.back().second + kCoalesceGap)
            runs.back().second = std::max(runs.back().second, range.second);
        else
            runs.push_back(range);
    }
    dirty_.clear();
    for (const auto& [begin, end] : runs) {
        const std::uint64_t last = std::min<std::uint64_t>(end, bytes_.size());
        if (begin < last && !WriteOut(begin, last - begin)) ReadBack(begin, last - begin);
    }
}

void FileImage::Sync() {
    Flush();
    if (!readOnly_) ::fdatasync(fd_);
}

}  // namespace Tamvik
