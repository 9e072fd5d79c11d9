#include "store/FileImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace Tamvik {

namespace {
// Marked ranges closer than this are written as one: rewriting a few clean
// bytes is cheaper than another call.
constexpr std::uint64_t kCoalesceGap = 512;
constexpr std::uint64_t kMaxPosition = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
// After this many bytes handed to the file, the system is asked to start
// writing them to the disk, so that the close's wait for durability covers
// only the last of them.
constexpr std::uint64_t kWritebackKick = 32u << 20;
}  // namespace

namespace {

// A hive in a file of its own, reached by a descriptor.
class FileStore : public ImageStore {
public:
    explicit FileStore(int fd) : fd_(fd) {}
    ~FileStore() override { ::close(fd_); }
    std::optional<std::uint64_t> Length() override {
        struct stat info {};
        fstat(fd_, &info);  // it answered once already, in Open
        // A directory opens for reading and reads nothing, as a stream does.
        return S_ISDIR(info.st_mode) ? 0 : static_cast<std::uint64_t>(std::max<off_t>(info.st_size, 0));
    }
    std::uint64_t ReadAt(std::uint64_t position, std::uint8_t* target, std::uint64_t length) override {
        std::uint64_t done = 0;
        while (done < length) {
            const ssize_t n = ::pread(fd_, target + done, length - done, static_cast<off_t>(position + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::uint64_t>(n);
        }
        return done;
    }
    bool WriteAt(std::uint64_t position, const std::uint8_t* source, std::uint64_t length) override {
        std::uint64_t done = 0;
        while (done < length) {
            const ssize_t n = ::pwrite(fd_, source + done, length - done, static_cast<off_t>(position + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<std::uint64_t>(n);
        }
        return true;
    }
    void Cut(std::uint64_t size) override {
        if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) {
            // The file keeps what it took; the image can only forget it too.
        }
    }
    void StartWriteback() override { ::sync_file_range(fd_, 0, 0, SYNC_FILE_RANGE_WRITE); }
    bool Sync() override { return ::fdatasync(fd_) == 0; }

private:
    int fd_;
};

}  // namespace

std::unique_ptr<FileImage> FileImage::Open(const std::string& path, bool readOnly) {
    const int fd = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        ::close(fd);
        return nullptr;
    }
    // An empty file can't be mapped; it, and whatever isn't a regular file, is read in.
    if (S_ISREG(info.st_mode) && info.st_size > 0) {
        const auto size = static_cast<std::uint64_t>(info.st_size);
        if (std::unique_ptr<FileMapping> mapping = FileMapping::Map(fd, size, readOnly)) {
            std::unique_ptr<FileImage> image(new (std::nothrow) FileImage(std::move(mapping), readOnly));
            return image;  // null when memory for it can't be had; the mapping has closed the file then
        }
    }
    std::unique_ptr<ImageStore> store(new (std::nothrow) FileStore(fd));
    if (store == nullptr) {
        ::close(fd);
        return nullptr;
    }
    return Open(std::move(store), readOnly);
}

std::unique_ptr<FileImage> FileImage::Open(std::unique_ptr<ImageStore> store, bool readOnly) {
    std::unique_ptr<FileImage> image(new (std::nothrow) FileImage(std::move(store), readOnly));
    if (image == nullptr) return nullptr;
    if (const std::optional<std::uint64_t> length = image->store_->Length()) {
        if (!image->ReadIn(*length)) return nullptr;
        return image;
    }
    // Only the base block tells how far the hive goes: its header, then its bins.
    if (!image->ReadIn(kBaseBlockSize)) return nullptr;
    if (image->Size() < kBaseBlockSize) return image;
    const std::uint64_t bins = LoadU32(image->data_ + BaseBlockField::BinsSize);
    if (!image->ReadIn(kBaseBlockSize + bins)) return nullptr;
    return image;
}

bool FileImage::Resize(std::uint64_t size) {
    const bool resized = bytes_.Resize(size);
    Track();
    return resized;
}

bool FileImage::ReadIn(std::uint64_t length) {
    const std::uint64_t start = size_;
    if (length <= start) return true;
    if (!Resize(length)) return false;
    const std::uint64_t done = store_->ReadAt(start, data_ + start, length - start);
    Resize(start + done);  // a file that shrank meanwhile holds what was read
    return true;
}

FileImage::~FileImage() { Flush(); }

// The file's pages take the bytes as they are: growth is the only step that can be refused.
bool FileImage::WriteMapped(std::uint64_t position, const void* source, std::uint64_t length, std::uint64_t zeros) {
    const auto* bytes = static_cast<const std::uint8_t*>(source);
    const std::uint64_t end = position + length, zerosEnd = end + zeros;
    if (zerosEnd <= size_) {
        // Unchanged bytes leave their page clean: nothing to write back.
        if (std::memcmp(data_ + position, bytes, length) != 0) std::memcpy(data_ + position, bytes, length);
        if (zeros != 0) std::memset(data_ + end, 0, zeros);
        return true;
    }
    // Of what lies behind the hive's bytes, the source's part is copied; the zeros are there already.
    const std::uint64_t from = std::max(position, size_);
    const std::uint64_t copied = end > from ? end - from : 0;
    const bool grown = mapping_->Append(from, copied != 0 ? bytes + (from - position) : bytes, copied, zerosEnd - from - copied);
    Track();  // the mapping may have moved, even when the file refused
    if (!grown) return false;
    // The file's own bytes up to where it ended are overwritten.
    if (position < from) std::memcpy(data_ + position, bytes, std::min(end, from) - position);
    if (end < from) std::memset(data_ + end, 0, from - end);
    return true;
}

bool FileImage::Write(std::uint64_t position, const void* source, std::uint64_t length) {
    if (readOnly_ || position > kMaxPosition || length > kMaxPosition - position) return false;
    if (length == 0) return true;
    if (mapping_ != nullptr) return WriteMapped(position, source, length);
    const std::uint64_t end = position + length;
    if (end <= size_ && std::memcmp(data_ + position, source, length) == 0) return true;
    try {
        dirty_.emplace_back(position, end);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (end > size_ && !Resize(end)) {
        dirty_.pop_back();
        return false;
    }
    std::memcpy(data_ + position, source, length);
    return true;
}

bool FileImage::WriteThrough(std::uint64_t position, const void* source, std::uint64_t length, std::uint64_t zeros) {
    if (readOnly_ || position > kMaxPosition || length > kMaxPosition - position ||
        zeros > kMaxPosition - position - length)
        return false;
    if (mapping_ != nullptr) return length + zeros == 0 || WriteMapped(position, source, length, zeros);
    const std::uint64_t oldSize = size_, end = position + length + zeros;
    std::vector<std::uint8_t> old;
    try {
        if (position < oldSize) old.assign(data_ + position, data_ + std::min(end, oldSize));
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (end > oldSize && !Resize(end)) return false;
    std::memcpy(data_ + position, source, length);
    std::memset(data_ + position + length, 0, zeros);
    if (WriteOut(position, length + zeros)) return true;
    // The file took none or part of it: it gets back what it held, and the
    // image then holds whatever the file does, should that fail too.
    std::copy(old.begin(), old.end(), data_ + position);
    WriteOut(position, old.size());
    if (end > oldSize) {
        store_->Cut(oldSize);
        Resize(oldSize);
    }
    ReadBack(position, old.size());
    return false;
}

bool FileImage::WriteOut(std::uint64_t position, std::uint64_t length) {
    return store_->WriteAt(position, data_ + position, length);
}

void FileImage::ReadBack(std::uint64_t position, std::uint64_t length) {
    const std::uint64_t done = store_->ReadAt(position, data_ + position, length);
    // Bytes the file doesn't hold aren't there to read.
    if (done < length && position + done < size_ && position + length >= size_) Resize(position + done);
}

bool FileImage::Flush() {
    if (mapping_ != nullptr) {
        if (size_ - kicked_ >= kWritebackKick) {
            mapping_->StartWriteback(kicked_);
            kicked_ = size_;
        }
        return true;
    }
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
        const std::uint64_t last = std::min<std::uint64_t>(end, size_);
        if (begin < last && !WriteOut(begin, last - begin)) {
            ReadBack(begin, last - begin);
            written = false;
        }
        if (begin < last) unsynced_ += last - begin;
    }
    if (unsynced_ >= kWritebackKick) {
        store_->StartWriteback();
        unsynced_ = 0;
    }
    return written;
}

bool FileImage::Sync() {
    const bool flushed = Flush();
    if (readOnly_) return flushed;
    return (mapping_ != nullptr ? mapping_->Sync() : store_->Sync()) && flushed;
}

}  // namespace Tamvik
