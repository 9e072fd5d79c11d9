// The bytes of a hive file, in memory. Every read is served from here. A
// regular file's pages are mapped (FileMapping): a write lands in the
// system's copy of the file at once. Anything else (a caller's device) is
// read in whole; a write changes the bytes and marks them, and Flush hands the
// marked ranges to where the file is kept (its ImageStore) in positioned
// writes, so what a call changed is there when it returns. A hive opened
// read-only takes no write at all: as its stream would, it refuses each one
// and stays as it is.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/FileMapping.h"
#include "store/PageBuffer.h"

namespace Tamvik {

// Where a file image's bytes are kept.
class ImageStore {
public:
    virtual ~ImageStore() = default;
    // The bytes to read in: a file's size; nothing when only the file's own
    // base block can tell (then its header and bins are read).
    virtual std::optional<std::uint64_t> Length() = 0;
    // Reads up to length bytes at position; gives how many came, fewer only at the end.
    virtual std::uint64_t ReadAt(std::uint64_t position, std::uint8_t* target, std::uint64_t length) = 0;
    // Writes them all, or gives false.
    virtual bool WriteAt(std::uint64_t position, const std::uint8_t* source, std::uint64_t length) = 0;
    // Drops what lies behind size, where the store can.
    virtual void Cut(std::uint64_t) {}
    // Starts writing what it was handed to the disk, without waiting.
    virtual void StartWriteback() {}
    // Makes what it was handed durable.
    virtual bool Sync() = 0;
};

class FileImage {
public:
    // Opens path and reads it whole; null when it can't be opened or read.
    static std::unique_ptr<FileImage> Open(const std::string& path, bool readOnly);
    // Reads the store's file whole; null when memory for it can't be had.
    static std::unique_ptr<FileImage> Open(std::unique_ptr<ImageStore> store, bool readOnly);
    ~FileImage();
    FileImage(const FileImage&) = delete;
    FileImage& operator=(const FileImage&) = delete;

    bool ReadOnly() const { return readOnly_; }
    std::uint64_t Size() const { return size_; }
    // The length bytes at position, or null when the file doesn't hold them all.
    const std::uint8_t* At(std::uint64_t position, std::uint64_t length) const {
        return position <= size_ && length <= size_ - position ? data_ + position : nullptr;
    }
    // Changes the bytes, growing the file with zeros up to position when it
    // lies behind the end, and marks them for Flush. Bytes that already hold
    // what is written aren't marked. False on a read-only hive.
    bool Write(std::uint64_t position, const void* source, std::uint64_t length);
    // The same, written to the file at once, and zeros more zero bytes behind
    // them; when the file refuses, nothing has changed and the result is false.
    bool WriteThrough(std::uint64_t position, const void* source, std::uint64_t length, std::uint64_t zeros = 0);
    // Hands the marked ranges to the file. A range the file refuses is read
    // back from it, so that the bytes stay what the file holds; false then.
    bool Flush();
    // Flush, then make the file durable; false when either failed.
    bool Sync();

private:
    FileImage(std::unique_ptr<ImageStore> store, bool readOnly) : store_(std::move(store)), readOnly_(readOnly) {}
    FileImage(std::unique_ptr<FileMapping> mapping, bool readOnly) : mapping_(std::move(mapping)), readOnly_(readOnly) {
        Track();
        kicked_ = size_;
    }
    bool Resize(std::uint64_t size);
    bool WriteMapped(std::uint64_t position, const void* source, std::uint64_t length, std::uint64_t zeros = 0);
    // Takes the bytes' place and length after they changed.
    void Track() {
        data_ = mapping_ != nullptr ? mapping_->Data() : bytes_.Data();
        size_ = mapping_ != nullptr ? mapping_->Size() : bytes_.Size();
    }
    bool ReadIn(std::uint64_t length);
    bool WriteOut(std::uint64_t position, std::uint64_t length);
    void ReadBack(std::uint64_t position, std::uint64_t length);

    std::unique_ptr<ImageStore> store_;  // null when mapped
    std::unique_ptr<FileMapping> mapping_;
    bool readOnly_;
    PageBuffer bytes_;  // unused when mapped
    std::uint8_t* data_ = nullptr;
    std::uint64_t size_ = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> dirty_;  // [begin, end), in the order written
    std::uint64_t unsynced_ = 0;  // bytes handed to the file since its writing to the disk was last started
    std::uint64_t kicked_ = 0;    // where a mapped file's growth was last started to the disk
};

}  // namespace Tamvik
