// A hive file's pages mapped shared: a write into them is the system's copy of
// the file at once, with no call per change. Growth is reserved on the disk in
// chunks ahead of use (the file lengthened with written zeros), so a full
// disk refuses a new bin then and there rather than failing later, when the
// pages are written back, and a bin within the reserve costs no call at all.
// What lies reserved past the hive is cut off again when the file is synced or
// closed. A read-only mapping never writes.
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
    // Lengthens the file with length bytes at position at, at or past its end,
    // and zeros zero bytes behind them (bytes between read as zeros too).
    // False, with the file as it was, when the disk or a limit refuses.
    bool Append(std::uint64_t at, const std::uint8_t* source, std::uint64_t length, std::uint64_t zeros = 0);
    // Starts writing the changed pages from position from on to the disk, without waiting.
    void StartWriteback(std::uint64_t from);
    // Cuts the reserve off and makes the file's changed pages durable.
    bool Sync();

private:
    FileMapping(int fd, std::uint8_t* data, std::uint64_t size, std::uint64_t capacity, bool readOnly)
        : fd_(fd), data_(data), size_(size), fileSize_(size), capacity_(capacity), readOnly_(readOnly) {}
    // Makes the file at least end bytes long, with room allocated on the disk
    // from position from on; false, with the file as it was, when refused.
    bool Reserve(std::uint64_t from, std::uint64_t end);
    // Gives the file back its reserve, so that it ends where the hive does.
    void CutReserve();

    int fd_;
    std::uint8_t* data_;
    std::uint64_t size_;      // bytes the hive holds
    std::uint64_t fileSize_;  // the file's length: size_ and the reserve behind it, all zeros, zeros until appended to
    std::uint64_t capacity_;  // bytes mapped at data_
    bool readOnly_;
};

}  // namespace Tamvik
