// Text conversion between the library's wide strings (UTF-16) and narrow
// strings in code page 936. The code page comes from glibc's iconv, which
// needs no installed locale and leaves the process's locale alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "store/Platform.h"

namespace Tamvik {

// The contract of mbstowcs: wide characters written without the terminator,
// or -1 for text that isn't valid code page 936. A null dst gives the length
// the whole conversion needs, whatever the limit.
long NarrowToWide(char16_t* dst, const char* src, std::size_t limit);
// The contract of wcstombs: bytes written without the terminator, or -1 for a
// character without a code page 936 form. A null dst gives the needed length.
long WideToNarrow(char* dst, const char16_t* src, std::size_t limit);

// The two-step conversion of a string argument; nothing when it can't be converted.
std::optional<WString> WidenArgument(const char* text);
std::optional<std::string> NarrowArgument(const char16_t* text);

// Toward a narrow caller: each character without a code page 936 form becomes
// '?'. The input ends at its first NUL or after length units.
std::string NarrowLossy(const char16_t* text, std::size_t length);
inline std::string NarrowLossy(const WString& text) { return NarrowLossy(text.data(), text.size()); }
// The same, stopping before the first character whose bytes would pass maxBytes.
std::string NarrowLossyFit(const WString& text, std::uint64_t maxBytes);

// From a narrow caller: text that ends at its first NUL or after length bytes;
// nothing when it isn't valid code page 936.
std::optional<WString> WidenBounded(const char* text, std::size_t length);

// Multi-strings: each string with its terminator, the list's end not counted.
// The wide source is size bytes long; the result is bytes written to dst,
// which must hold the whole conversion (at most size bytes).
std::size_t MultiWideToNarrow(char* dst, const char16_t* src, std::uint32_t size);
// The narrow source is size bytes long; the result is wide characters written,
// -1 when a string isn't valid code page 936. dst holds at least size characters.
long MultiNarrowToWide(char16_t* dst, const char* src, std::uint32_t size);

}  // namespace Tamvik
