// What every block layer shares.
#include "Block.h"

#include <cstring>

namespace TamvikImage {

Error FailErrno(ErrorKind kind, const std::string& what, int errnoValue) {
    return Fail(kind, what + ": " + std::strerror(errnoValue));
}

Error Block::Check(std::uint64_t offset, std::size_t length, bool write, bool closed) const {
    if (closed) return Fail(ErrorKind::Io, "the image is closed");
    if (write && !writable_) return Fail(ErrorKind::Unsupported, "the image is open for reading only");
    if (offset > size_ || length > size_ - offset)
        return Fail(ErrorKind::Io, "bytes " + std::to_string(offset) + "+" + std::to_string(length) +
                                       " lie past the disk's end (" + std::to_string(size_) + ")");
    return {};
}

}  // namespace TamvikImage
