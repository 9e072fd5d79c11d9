#include "store/CodePage.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

namespace Tamvik {

namespace {

constexpr char16_t kNoChar = 0xFFFF;  // marks a byte or pair without a character

// Tables of code page 936 in both directions, read once from iconv.
struct CodePage936 {
    std::uint16_t encoded[65536];  // UTF-16 unit -> bytes, first byte high; 0 if none
    std::uint8_t encodedLength[65536];
    char16_t single[256];            // one byte -> character, kNoChar if none
    bool lead[256];                  // byte that starts a pair
    char16_t pair[256][256];         // lead, trail -> character, kNoChar if none

    CodePage936() {
        std::memset(encodedLength, 0, sizeof encodedLength);
        std::memset(encoded, 0, sizeof encoded);
        for (auto& c : single) c = kNoChar;
        std::memset(lead, 0, sizeof lead);
        for (auto& row : pair)
            for (auto& c : row) c = kNoChar;
        iconv_t toNarrow = iconv_open("CP936", "UTF-16LE");
        iconv_t toWide = iconv_open("UTF-16LE", "CP936");
        if (toNarrow == reinterpret_cast<iconv_t>(-1) || toWide == reinterpret_cast<iconv_t>(-1)) {
            // Without iconv's tables only ASCII converts.
            for (unsigned c = 0; c < 0x80; ++c) {
                encoded[c] = static_cast<std::uint16_t>(c);
                encodedLength[c] = 1;
                single[c] = static_cast<char16_t>(c);
            }
            return;
        }
        for (unsigned c = 0; c < 0x10000; ++c) {
            if (c >= 0xD800 && c <= 0xDFFF) continue;
            char in[2] = {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
            char out[8];
            char* inPtr = in;
            char* outPtr = out;
            std::size_t inLeft = 2, outLeft = sizeof out;
            iconv(toNarrow, nullptr, nullptr, nullptr, nullptr);
            if (iconv(toNarrow, &inPtr, &inLeft, &outPtr, &outLeft) == static_cast<std::size_t>(-1)) continue;
            std::size_t n = sizeof out - outLeft;
            if (n == 1) {
                encoded[c] = static_cast<std::uint8_t>(out[0]);
                encodedLength[c] = 1;
            } else if (n == 2) {
                encoded[c] = static_cast<std::uint16_t>((static_cast<std::uint8_t>(out[0]) << 8) |
                                                        static_cast<std::uint8_t>(out[1]));
                encodedLength[c] = 2;
            }
        }
        for (unsigned b = 0; b < 256; ++b) {
            char16_t c = Decode(toWide, {static_cast<char>(b)}, &lead[b]);
            single[b] = c;
        }
        for (unsigned l = 0; l < 256; ++l) {
            if (!lead[l]) continue;
            for (unsigned t = 0; t < 256; ++t) {
                bool incomplete = false;
                pair[l][t] = Decode(toWide, {static_cast<char>(l), static_cast<char>(t)}, &incomplete);
            }
        }
        iconv_close(toNarrow);
        iconv_close(toWide);
    }

    static char16_t Decode(iconv_t cd, std::vector<char> bytes, bool* incomplete) {
        char out[8];
        char* inPtr = bytes.data();
        char* outPtr = out;
        std::size_t inLeft = bytes.size(), outLeft = sizeof out;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        std::size_t r = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
        if (r == static_cast<std::size_t>(-1)) {
            *incomplete = errno == EINVAL;
            return kNoChar;
        }
        if (sizeof out - outLeft != 2 || inLeft != 0) return kNoChar;
        return static_cast<char16_t>(static_cast<std::uint8_t>(out[0]) | (static_cast<std::uint8_t>(out[1]) << 8));
    }
};

const CodePage936& Table() {
    // Built on first use (thread-safe static), kept for the life of the process.
    static const CodePage936 table;
    return table;
}

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// ASCII stands for itself in code page 936, so text of ASCII alone never
// needs the tables, which take a while to read from iconv.
constexpr unsigned kAsciiEnd = 0x80;

// Decodes one character at text[i] (of length bytes); gives the bytes used, 0 if invalid.
std::size_t DecodeNarrow(const char* text, std::size_t length, std::size_t i, char16_t* out) {
    std::uint8_t b = static_cast<std::uint8_t>(text[i]);
    if (b < kAsciiEnd) {
        *out = b;
        return 1;
    }
    const CodePage936& cp = Table();
    if (cp.single[b] != kNoChar) {
        *out = cp.single[b];
        return 1;
    }
    if (cp.lead[b] && i + 1 < length) {
        char16_t c = cp.pair[b][static_cast<std::uint8_t>(text[i + 1])];
        if (c != kNoChar) {
            *out = c;
            return 2;
        }
    }
    return 0;
}

// One wide character at text[i]: its units used and its code page bytes (0 bytes if none).
std::size_t EncodeWide(const char16_t* text, std::size_t length, std::size_t i, char bytes[2],
                       std::size_t* byteCount) {
    char16_t u = text[i];
    if (u < kAsciiEnd) {
        bytes[0] = static_cast<char>(u);
        *byteCount = 1;
        return 1;
    }
    if (IsHighSurrogate(u) && i + 1 < length && IsLowSurrogate(text[i + 1])) {
        *byteCount = 0;  // beyond the basic plane: no code page 936 form
        return 2;
    }
    const CodePage936& cp = Table();
    const std::size_t n = cp.encodedLength[u];
    *byteCount = n;
    if (n == 1) bytes[0] = static_cast<char>(cp.encoded[u]);
    if (n == 2) {
        bytes[0] = static_cast<char>(cp.encoded[u] >> 8);
        bytes[1] = static_cast<char>(cp.encoded[u] & 0xFF);
    }
    return 1;
}

std::size_t BoundedLength(const char16_t* text, std::size_t limit) {
    std::size_t n = 0;
    while (n < limit && text[n] != 0) ++n;
    return n;
}

std::size_t BoundedLength(const char* text, std::size_t limit) {
    std::size_t n = 0;
    while (n < limit && text[n] != 0) ++n;
    return n;
}

}  // namespace

long NarrowToWide(char16_t* dst, const char* src, std::size_t limit) {
    const std::size_t length = std::strlen(src);
    std::size_t written = 0;
    for (std::size_t i = 0; i < length;) {
        if (dst != nullptr && written >= limit) return static_cast<long>(written);
        char16_t c;
        std::size_t used = DecodeNarrow(src, length, i, &c);
        if (used == 0) return -1;
        if (dst != nullptr) dst[written] = c;
        ++written;
        i += used;
    }
    if (dst != nullptr && written < limit) dst[written] = 0;
    return static_cast<long>(written);
}

long WideToNarrow(char* dst, const char16_t* src, std::size_t limit) {
    const std::size_t length = WideLength(src);
    std::size_t written = 0;
    for (std::size_t i = 0; i < length;) {
        char bytes[2];
        std::size_t count = 0;
        std::size_t used = EncodeWide(src, length, i, bytes, &count);
        if (count == 0) return -1;
        if (dst != nullptr) {
            if (written + count > limit) return static_cast<long>(written);
            std::memcpy(dst + written, bytes, count);
        }
        written += count;
        i += used;
    }
    if (dst != nullptr && written < limit) dst[written] = 0;
    return static_cast<long>(written);
}

std::optional<WString> WidenArgument(const char* text) {
    if (text == nullptr) return std::nullopt;
    // Most names are ASCII, which stands for itself: no conversion to count first.
    std::size_t ascii = 0;
    while (text[ascii] != 0 && static_cast<std::uint8_t>(text[ascii]) < kAsciiEnd) ++ascii;
    if (text[ascii] == 0) return WString(text, text + ascii);
    long n = NarrowToWide(nullptr, text, 0);
    if (n < 0) return std::nullopt;
    WString wide(static_cast<std::size_t>(n), u'\0');
    NarrowToWide(wide.data(), text, static_cast<std::size_t>(n));  // the string keeps its own terminator
    return wide;
}

std::optional<std::string> NarrowArgument(const char16_t* text) {
    if (text == nullptr) return std::nullopt;
    std::size_t ascii = 0;
    while (text[ascii] != 0 && text[ascii] < kAsciiEnd) ++ascii;
    if (text[ascii] == 0) return std::string(text, text + ascii);
    long n = WideToNarrow(nullptr, text, 0);
    if (n < 0) return std::nullopt;
    std::string narrow(static_cast<std::size_t>(n), '\0');
    WideToNarrow(narrow.data(), text, static_cast<std::size_t>(n));  // the string keeps its own terminator
    return narrow;
}

std::string NarrowLossy(const char16_t* text, std::size_t length) {
    length = BoundedLength(text, length);
    std::string out;
    out.reserve(length);
    for (std::size_t i = 0; i < length;) {
        char bytes[2];
        std::size_t count = 0;
        i += EncodeWide(text, length, i, bytes, &count);
        if (count == 0) out += '?';
        else out.append(bytes, count);
    }
    return out;
}

std::string NarrowLossyFit(const WString& text, std::uint64_t maxBytes) {
    const std::size_t length = BoundedLength(text.data(), text.size());
    std::string out;
    for (std::size_t i = 0; i < length;) {
        char bytes[2];
        std::size_t count = 0;
        std::size_t used = EncodeWide(text.data(), length, i, bytes, &count);
        if (count == 0) {
            bytes[0] = '?';
            count = 1;
        }
        if (out.size() + count > maxBytes) break;
        out.append(bytes, count);
        i += used;
    }
    return out;
}

std::optional<WString> WidenBounded(const char* text, std::size_t length) {
    length = BoundedLength(text, length);
    WString out;
    out.reserve(length);
    for (std::size_t i = 0; i < length;) {
        char16_t c;
        std::size_t used = DecodeNarrow(text, length, i, &c);
        if (used == 0) return std::nullopt;
        out += c;
        i += used;
    }
    return out;
}

std::size_t MultiWideToNarrow(char* dst, const char16_t* src, std::uint32_t size) {
    if (size <= 2) return 0;
    const std::size_t units = size / 2;
    std::size_t p = 0, t = 0;
    while (p < units) {
        std::size_t j = BoundedLength(src + p, units - p);
        if (j == 0) break;  // the empty string ends the list
        std::string text = NarrowLossy(src + p, j);
        if (dst != nullptr) {
            std::memcpy(dst + t, text.data(), text.size());
            dst[t + text.size()] = 0;
        }
        p += j + 1;
        t += text.size() + 1;
        if (p * 2 + 2 >= size) break;
    }
    return t;
}

long MultiNarrowToWide(char16_t* dst, const char* src, std::uint32_t size) {
    if (size < 2) return 0;
    std::size_t p = 0, t = 0;
    while (p < size) {
        std::size_t j = BoundedLength(src + p, size - p);
        if (j == 0) break;
        std::optional<WString> text = WidenBounded(src + p, j);
        if (!text) return -1;
        if (dst != nullptr) {
            std::memcpy(dst + t, text->data(), text->size() * sizeof(char16_t));
            dst[t + text->size()] = 0;
        }
        p += j + 1;
        t += text->size() + 1;
        if (p + 1 >= size) break;
    }
    return static_cast<long>(t);
}

}  // namespace Tamvik
