// What an internal operation reports instead of a bare bool: what kind of
// outcome it was, where in the file it was found, and a sentence for people.
// The exported functions turn these into their own result numbers; the tool,
// the integrity check and the bindings pass them on whole.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Tamvik {

enum class StatusCode : std::uint8_t {
    Ok,
    NotFound,   // no key or value of that name or position
    Exists,     // a key or value of that name is there already
    Invalid,    // an argument the operation can't take
    NotEmpty,   // a key that still has subkeys
    NotAHive,   // the file or device holds nothing we can open as a hive
    Damaged,    // the structure doesn't hold where the operation looked
    BadData,    // a value's data isn't where or what its record says
    NoRoom,     // the storage refused to grow (a full disk, a size limit)
    IoError,    // a read or write of the storage failed
    ReadOnly,   // the hive was opened for reading only
    NoMemory,   // memory for the operation couldn't be had
};

// File offset "not known" or "not about one place".
constexpr std::uint64_t kNoFileOffset = ~std::uint64_t{0};

struct Status {
    StatusCode code = StatusCode::Ok;
    std::uint64_t fileOffset = kNoFileOffset;  // where in the file, when it is about one place
    std::string text;

    static Status Success() { return {}; }
    static Status Of(StatusCode code, std::string text, std::uint64_t fileOffset = kNoFileOffset) {
        return Status{code, fileOffset, std::move(text)};
    }
    bool Ok() const { return code == StatusCode::Ok; }
    explicit operator bool() const { return Ok(); }
};

}  // namespace Tamvik
