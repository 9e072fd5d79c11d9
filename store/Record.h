// A bounded view of a record inside a node's image. Fields that lie past the
// image read as 0 and are not written, so damaged records never lead a read or
// write out of the buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "store/ByteOrder.h"
#include "store/Platform.h"

namespace Tamvik {

class RecordRef {
public:
    RecordRef() = default;
    RecordRef(std::uint8_t* data, std::uint32_t size) : data_(data), size_(size) {}

    std::uint8_t* Data() const { return data_; }
    std::uint32_t Size() const { return size_; }
    // True when [offset, offset + length) lies inside the record.
    bool Holds(std::uint64_t offset, std::uint64_t length) const {
        return data_ != nullptr && offset + length <= size_;
    }
    std::uint16_t U16(std::uint32_t offset) const { return Holds(offset, 2) ? LoadU16(data_ + offset) : 0; }
    std::uint32_t U32(std::uint32_t offset) const { return Holds(offset, 4) ? LoadU32(data_ + offset) : 0; }
    void SetU16(std::uint32_t offset, std::uint16_t v) {
        if (Holds(offset, 2)) StoreU16(data_ + offset, v);
    }
    void SetU32(std::uint32_t offset, std::uint32_t v) {
        if (Holds(offset, 4)) StoreU32(data_ + offset, v);
    }
    // Bytes available from offset to the end of the record (0 past it).
    std::uint32_t Available(std::uint32_t offset) const { return offset < size_ ? size_ - offset : 0; }

private:
    std::uint8_t* data_ = nullptr;
    std::uint32_t size_ = 0;
};

// The record of a cell image: from the payload offset to the image's end
// (empty when the image is too small to hold a payload at all).
inline RecordRef PayloadOf(std::uint8_t* image, std::uint32_t imageSize, std::uint32_t payloadOffset) {
    if (image == nullptr || imageSize < payloadOffset) return RecordRef(image, 0);
    return RecordRef(image + payloadOffset, imageSize - payloadOffset);
}

// Where a name is copied to: a caller's buffer of room units, which takes the
// name and a terminating NUL only when both fit; or, when whole is set, that
// string, sized to the name.
struct NameTarget {
    char16_t* out = nullptr;
    std::size_t room = 0;
    WString* whole = nullptr;
};

}  // namespace Tamvik
