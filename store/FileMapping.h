// A hive file's pages mapped shared: a write into them is the system's copy of
// the file at once, with no call per change. Growth is written to the file
// (which reserves its room on the disk) before its pages are used, so a full
// disk refuses it then and there rather than failing later, when the pages
// are written back. A read-only mapping never writes.
#pragma once

#include <cstdint>
#include <memory>

namespace Tamvik {

class FileMapping {
public:
    // Maps the size bytes of fd (a regular file, size > 0), taking the
    // descriptor; null, with fd left open, when the system refuses.
    static std::unique_ptr<FileMapping> Map(int fd, std::uint64_t size, bool readOnly);
    ~FileMapping();
    FileMapping(const FileMapping&) = delete;
    FileMapping& operator=(const FileMapping&) = delete;

    std::uint8_t* Data() const { return data_; }
    std::uint64_t Size() const { return size_; }
    // Lengthens the file with length bytes at position at, at or past its end
    // (bytes between read as zeros). False, with the file as it was, when the
    // disk or a limit refuses.
    bool Append(std::uint64_t at, const std::uint8_t* source, std::uint64_t length);
    // Starts writing the changed pages from position from on to the disk, without waiting.
    void StartWriteback(std::uint64_t from);
    // Makes the file's changed pages durable.
    bool Sync();

private:
    FileMapping(int fd, std::uint8_t* data, std::uint64_t size, std::uint64_t capacity)
        : fd_(fd), data_(data), size_(size), capacity_(capacity) {}

    int fd_;
    std::uint8_t* data_;
    std::uint64_t size_;
    std::uint64_t capacity_;  // bytes mapped at data_; the file holds size_ of them
};

}  // namespace Tamvik
