// The bytes of a hive file, held in memory once. Every read is served from
// here. A write changes the bytes and marks them; Flush hands the marked
// ranges to the file in positioned writes, so what a call changed is in the
// file (written to the OS) when it returns. A hive opened read-only takes no
// write at all: as its stream would, it refuses each one and stays as it is.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "store/PageBuffer.h"

namespace Tamvik {

class FileImage {
public:
    // Opens path and reads it whole; null when it can't be opened or read.
    static std::unique_ptr<FileImage> Open(const std::string& path, bool readOnly);
    ~FileImage();
    FileImage(const FileImage&) = delete;
    FileImage& operator=(const FileImage&) = delete;

    bool ReadOnly() const { return readOnly_; }
    std::uint64_t Size() const { return bytes_.Size(); }
    // The length bytes at position, or null when the file doesn't hold them all.
    const std::uint8_t* At(std::uint64_t position, std::uint64_t length) const {
        return position <= bytes_.Size() && length <= bytes_.Size() - position ? bytes_.Data() + position : nullptr;
    }
    // Changes the bytes, growing the file with zeros up to position when it
    // lies behind the end, and marks them for Flush. Bytes that already hold
    // what is written aren't marked. False on a read-only hive.
    bool Write(std::uint64_t position, const void* source, std::uint64_t length);
    // The same, written to the file at once; when the file refuses, nothing
    // has changed and the result is false.
    bool WriteThrough(std::uint64_t position, const void* source, std::uint64_t length);
    // Hands the marked ranges to the file. A range the file refuses is read
    // back from it, so that the bytes stay what the file holds; false then.
    bool Flush();
    // Flush, then make the file durable; false when either failed.
    bool Sync();

private:
    FileImage(int fd, bool readOnly) : fd_(fd), readOnly_(readOnly) {}
    bool WriteOut(std::uint64_t position, std::uint64_t length);
    void ReadBack(std::uint64_t position, std::uint64_t length);

    int fd_;
    bool readOnly_;
    PageBuffer bytes_;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> dirty_;  // [begin, end), in the order written
    std::uint64_t unsynced_ = 0;  // bytes handed to the file since its writing to the disk was last started
};

}  // namespace Tamvik
