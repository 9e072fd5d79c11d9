// Storage operations for a hive in an ordinary file. Reads are served from a
// cache of file pages; writes go to the stream at once and update the cache,
// so what a read sees is always what the file holds after the writes so far.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "store/StorageOps.h"

namespace Tamvik {

class FileStore {
public:
    explicit FileStore(std::FILE* file);
    ~FileStore();
    FileStore(const FileStore&) = delete;
    FileStore& operator=(const FileStore&) = delete;

    bool Seek(std::uint64_t position, std::uint32_t origin);
    // Copies what the file holds from the current position; the result counts whole elements.
    std::uint32_t Read(void* buffer, std::uint64_t length, std::uint32_t elementSize);
    std::uint32_t Write(const void* buffer, std::uint64_t length, std::uint32_t elementSize);
    std::FILE* File() const { return file_; }

private:
    static constexpr std::uint64_t kPageSize = 64 * 1024;
    const std::uint8_t* Page(std::uint64_t index);
    void DropPages(std::uint64_t from, std::uint64_t length);
    void UpdatePages(std::uint64_t from, const std::uint8_t* data, std::uint64_t length);

    std::FILE* file_;
    std::uint64_t position_ = 0;
    std::uint64_t fileSize_ = 0;
    std::vector<std::unique_ptr<std::uint8_t[]>> pages_;
};

// Opens path with the given fopen mode; null when the file can't be opened.
FileStore* OpenFileStore(const char* path, const char* mode);
// Closes the stream and releases the store.
void CloseFileStore(void* handle);

bool FileSeek(void* context, std::uint64_t* position, std::uint32_t origin);
bool FileRead(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
bool FileWrite(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count);

// True when the storage is that of a file (and not of a volume device).
bool IsFileStorage(const StorageOps& storage);

}  // namespace Tamvik
