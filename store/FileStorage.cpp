#include "store/FileStorage.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace Tamvik {

namespace {
constexpr std::uint64_t kMaxPosition = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());

bool SeekStream(std::FILE* file, std::uint64_t position) {
    return position <= kMaxPosition && fseeko(file, static_cast<off_t>(position), SEEK_SET) == 0;
}
}  // namespace

FileStore::FileStore(std::FILE* file) : file_(file) {
    if (fseeko(file_, 0, SEEK_END) == 0) {
        off_t end = ftello(file_);
        if (end > 0) fileSize_ = static_cast<std::uint64_t>(end);
    }
}

FileStore::~FileStore() = default;

bool FileStore::Seek(std::uint64_t position, std::uint32_t origin) {
    std::uint64_t base = origin == 0 ? 0 : origin == 2 ? fileSize_ : position_;
    std::uint64_t target = base + position;
    if (target < base || target > kMaxPosition) return false;
    position_ = target;
    return true;
}

const std::uint8_t* FileStore::Page(std::uint64_t index) {
    if (index < pages_.size() && pages_[index] != nullptr) return pages_[index].get();
    std::uint64_t start = index * kPageSize;
    if (start >= fileSize_) return nullptr;
    std::uint64_t length = std::min(kPageSize, fileSize_ - start);
    // nothrow: a page that can't be had is a failed read. Bytes past the end of
    // the file are never served, so the page isn't cleared first.
    std::unique_ptr<std::uint8_t[]> page(new (std::nothrow) std::uint8_t[kPageSize]);
    if (page == nullptr || !SeekStream(file_, start)) return nullptr;
    if (std::fread(page.get(), 1, length, file_) != length) return nullptr;
    if (index >= pages_.size()) pages_.resize(index + 1);
    pages_[index] = std::move(page);
    return pages_[index].get();
}

std::uint32_t FileStore::Read(void* buffer, std::uint64_t length, std::uint32_t elementSize) {
    auto* target = static_cast<std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < length && position_ < fileSize_) {
        std::uint64_t index = position_ / kPageSize;
        std::uint64_t within = position_ % kPageSize;
        const std::uint8_t* page = Page(index);
        if (page == nullptr) break;
        std::uint64_t inPage = std::min(kPageSize - within, fileSize_ - position_);
        std::uint64_t step = std::min(inPage, length - done);
        std::memcpy(target + done, page + within, step);
        done += step;
        position_ += step;
    }
    return elementSize == 0 ? 0 : static_cast<std::uint32_t>(done / elementSize);
}

void FileStore::DropPages(std::uint64_t from, std::uint64_t length) {
    if (length == 0) return;
    for (std::uint64_t index = from / kPageSize; index <= (from + length - 1) / kPageSize && index < pages_.size();
         ++index)
        pages_[index].reset();
}

void FileStore::UpdatePages(std::uint64_t from, const std::uint8_t* data, std::uint64_t length) {
    std::uint64_t done = 0;
    while (done < length) {
        std::uint64_t at = from + done;
        std::uint64_t index = at / kPageSize;
        std::uint64_t within = at % kPageSize;
        std::uint64_t step = std::min(kPageSize - within, length - done);
        if (index < pages_.size() && pages_[index] != nullptr) std::memcpy(pages_[index].get() + within, data + done, step);
        done += step;
    }
}

std::uint32_t FileStore::Write(const void* buffer, std::uint64_t length, std::uint32_t elementSize) {
    if (elementSize == 0 || !SeekStream(file_, position_)) return 0;
    std::uint64_t count = length / elementSize;
    std::size_t written = std::fwrite(buffer, elementSize, count, file_);
    std::uint64_t bytes = static_cast<std::uint64_t>(written) * elementSize;
    if (written == count) {
        // A page that was cached before the file grew into it is reloaded next time.
        if (position_ + bytes > fileSize_) {
            DropPages(fileSize_ - fileSize_ % kPageSize, position_ + bytes - (fileSize_ - fileSize_ % kPageSize));
            fileSize_ = position_ + bytes;
        }
        UpdatePages(position_, static_cast<const std::uint8_t*>(buffer), bytes);
    } else {
        // Which bytes of a short write arrived is unknown: read them afresh.
        DropPages(position_, length);
        if (fseeko(file_, 0, SEEK_END) == 0) {
            off_t end = ftello(file_);
            if (end > 0) fileSize_ = static_cast<std::uint64_t>(end);
        }
    }
    position_ += bytes;
    return static_cast<std::uint32_t>(written);
}

FileStore* OpenFileStore(const char* path, const char* mode) {
    std::FILE* file = std::fopen(path, mode);
    if (file == nullptr) return nullptr;
    FileStore* store = new (std::nothrow) FileStore(file);  // owned by the Hive's closeHandle until CloseFileStore
    if (store == nullptr) std::fclose(file);
    return store;
}

void CloseFileStore(void* handle) {
    auto* store = static_cast<FileStore*>(handle);
    if (store == nullptr) return;
    std::fclose(store->File());
    delete store;  // created by OpenFileStore
}

bool FileSeek(void* context, std::uint64_t* position, std::uint32_t origin) {
    return static_cast<FileStore*>(context)->Seek(*position, origin);
}

bool FileRead(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    std::uint32_t asked = *count;
    *count = static_cast<FileStore*>(context)->Read(buffer, static_cast<std::uint64_t>(elementSize) * asked,
                                                    elementSize);
    return *count == asked;
}

bool FileWrite(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    std::uint32_t asked = *count;
    *count = static_cast<FileStore*>(context)->Write(buffer, static_cast<std::uint64_t>(elementSize) * asked,
                                                     elementSize);
    return *count == asked;
}

bool IsFileStorage(const StorageOps& storage) { return storage.seek == &FileSeek; }

}  // namespace Tamvik
