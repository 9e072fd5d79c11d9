// Copying, upper-casing and comparing runs of name units, which every
// enumeration and lookup by name does: eight units a step where the machine
// has SSE2, the case rules map ASCII as the C locale does (CaseMap::PlainAscii)
// and the units are ASCII; unit by unit through the CaseMap otherwise. The
// results are the CaseMap's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "store/Platform.h"

namespace Tamvik {

namespace CaseRunDetail {
#ifdef __SSE2__
// Eight units upper-cased as the C locale does; false when one isn't ASCII.
inline bool UpperAscii(__m128i units, __m128i* upper) {
    const __m128i high = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFFFF - (CaseMap::kAscii - 1))));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(high, _mm_setzero_si128())) != 0xFFFF) return false;
    const __m128i lower = _mm_and_si128(_mm_cmpgt_epi16(units, _mm_set1_epi16(u'a' - 1)),
                                        _mm_cmplt_epi16(units, _mm_set1_epi16(u'z' + 1)));
    *upper = _mm_sub_epi16(units, _mm_and_si128(lower, _mm_set1_epi16(u'a' - u'A')));
    return true;
}
inline __m128i LoadEightBytes(const std::uint8_t* bytes) {
    return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)), _mm_setzero_si128());
}
inline __m128i LoadFourBytes(const std::uint8_t* bytes) {
    std::int32_t four;
    std::memcpy(&four, bytes, sizeof four);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(four), _mm_setzero_si128());
}
#endif
}  // namespace CaseRunDetail

// out[i] = bytes[i] for i < count: a narrow name widened, as every
// enumeration of a name does.
inline void WidenRun(const std::uint8_t* bytes, std::size_t count, char16_t* out) {
#ifdef __SSE2__
    using namespace CaseRunDetail;
    if (count >= 4) {
        const std::size_t width = count >= 8 ? 8 : 4;
        const auto widen = [&](std::size_t at) {
            if (width == 8) _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), LoadEightBytes(bytes + at));
            else _mm_storel_epi64(reinterpret_cast<__m128i*>(out + at), LoadFourBytes(bytes + at));
        };
        for (std::size_t i = 0; i + width <= count; i += width) widen(i);
        widen(count - width);  // the last units, some written twice
        return;
    }
#endif
    for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<char16_t>(bytes[i]);
}

// out[i] = map.Upper(in[i]) for i < count; gives whether watched is among the results.
inline bool UpperRun(const CaseMap& map, const char16_t* in, std::size_t count, char16_t* out, char16_t watched) {
    bool seen = false;
    const auto oneByOne = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            out[i] = map.Upper(in[i]);
            seen |= out[i] == watched;
        }
    };
#ifdef __SSE2__
    using namespace CaseRunDetail;
    if (map.PlainAscii() && count >= 8) {
        const __m128i watch = _mm_set1_epi16(static_cast<short>(watched));
        const auto eight = [&](std::size_t at) {
            __m128i upper;
            if (!UpperAscii(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + at)), &upper)) {
                oneByOne(at, at + 8);
                return;
            }
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), upper);
            seen |= _mm_movemask_epi8(_mm_cmpeq_epi16(upper, watch)) != 0;
        };
        for (std::size_t i = 0; i + 8 <= count; i += 8) eight(i);
        eight(count - 8);  // the last units, some mapped twice to the same
        return seen;
    }
#endif
    oneByOne(0, count);
    return seen;
}

// Whether map.Upper(bytes[i]) == upper[i] for every i < count.
inline bool NarrowRunMatches(const CaseMap& map, const std::uint8_t* bytes, std::size_t count, const char16_t* upper) {
    const auto oneByOne = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i)
            if (map.Upper(static_cast<char16_t>(bytes[i])) != upper[i]) return false;
        return true;
    };
#ifdef __SSE2__
    using namespace CaseRunDetail;
    if (map.PlainAscii() && count >= 4) {
        // Units at..at+width of bytes against upper, width 8 or 4.
        const auto matches = [&](std::size_t at, std::size_t width) {
            const __m128i units = width == 8 ? LoadEightBytes(bytes + at) : LoadFourBytes(bytes + at);
            __m128i mapped;
            if (!UpperAscii(units, &mapped)) return oneByOne(at, at + width);
            const __m128i wanted = width == 8 ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(upper + at))
                                              : _mm_loadl_epi64(reinterpret_cast<const __m128i*>(upper + at));
            const int all = width == 8 ? 0xFFFF : 0xFF;
            return (_mm_movemask_epi8(_mm_cmpeq_epi16(mapped, wanted)) & all) == all;
        };
        const std::size_t width = count >= 8 ? 8 : 4;
        for (std::size_t i = 0; i + width <= count; i += width)
            if (!matches(i, width)) return false;
        return matches(count - width, width);  // the last units, some compared twice
    }
#endif
    return oneByOne(0, count);
}

}  // namespace Tamvik
