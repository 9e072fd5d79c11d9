// The disk under everything: bytes at offsets of a raw file or of a virtual
// disk served by qemu-nbd. Failures come back as an Error, and after Close
// every call fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "TamvikImage.h"

namespace TamvikImage {

inline Error Fail(ErrorKind kind, std::string text) { return Error{kind, std::move(text)}; }
// "what: strerror(errno)".
Error FailErrno(ErrorKind kind, const std::string& what, int errnoValue);

class Block {
public:
    virtual ~Block() = default;
    virtual Error Read(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    virtual Error Write(std::uint64_t offset, const void* buffer, std::size_t length) = 0;
    // Makes every completed write durable.
    virtual Error Flush() = 0;
    // Flushes when writable and lets the image go; the first call reports, later ones do nothing.
    virtual Error Close() = 0;
    std::uint64_t Size() const { return size_; }
    bool Writable() const { return writable_; }

protected:
    Block(std::uint64_t size, bool writable) : size_(size), writable_(writable) {}
    // The common refusals: a closed image, a range past the end, a write to a read-only image.
    Error Check(std::uint64_t offset, std::size_t length, bool write, bool closed) const;

private:
    std::uint64_t size_;
    bool writable_;
};

// A raw image file: pread/pwrite, flock (exclusive when writable, shared
// otherwise), fsync on flush.
std::unique_ptr<Block> OpenRawBlock(const std::string& path, bool writable, Error& error);
// Any format qemu reads, through qemu-nbd started by libnbd on a private socket.
std::unique_ptr<Block> OpenNbdBlock(const std::string& path, const std::string& format, bool writable,
                                    Error& error);

}  // namespace TamvikImage
