// Memory for the bytes of a hive file, taken from the system in whole pages,
// huge pages where it grants them: an image of many megabytes is then read in
// without a page fault for every four kilobytes of it.
#pragma once

#include <cstdint>

namespace Tamvik {

class PageBuffer {
public:
    PageBuffer() = default;
    ~PageBuffer();
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;

    std::uint8_t* Data() { return data_; }
    const std::uint8_t* Data() const { return data_; }
    std::uint64_t Size() const { return size_; }
    // Grows with zeros or shrinks; false, with nothing changed, when the
    // memory can't be had.
    bool Resize(std::uint64_t size);

private:
    // Moves the bytes to a mapping of capacity bytes, the first needed of them present at once.
    bool Reserve(std::uint64_t needed, std::uint64_t capacity);

    std::uint8_t* data_ = nullptr;
    std::uint64_t size_ = 0;
    std::uint64_t capacity_ = 0;  // bytes mapped at data_
};

}  // namespace Tamvik
