#pragma once
// 16-byte block scans shared by the string scanners. SSE2 is part of the
// x86-64 baseline, so these need no run-time dispatch.

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

namespace bytescan {

inline __m128i load16(const char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Bit i set when byte i is 0x80 or above.
inline unsigned nonAsciiMask16(const char* p) {
    return static_cast<unsigned>(_mm_movemask_epi8(load16(p)));
}

// Bit i set when byte i equals c.
inline unsigned equalMask16(const char* p, char c) {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(p), _mm_set1_epi8(c))));
}

// Bit i set when byte i is CR or LF.
inline unsigned crOrLfMask16(const char* p) {
    const __m128i v = load16(p);
    const __m128i hits =
        _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\r')), _mm_cmpeq_epi8(v, _mm_set1_epi8('\n')));
    return static_cast<unsigned>(_mm_movemask_epi8(hits));
}

// Lead-byte rule of the UTF-8 walkers: how far one code point reaches.
// Continuation bytes and 0xC0/0xC1 count as two-byte leads here, and bytes
// above 0xF4 as single bytes; nothing is validated.
inline size_t utf8Step(unsigned char b) {
    if (b < 0x80) return 1;
    if (b < 0xE0) return 2;
    if (b < 0xF0) return 3;
    if (b < 0xF5) return 4;
    return 1;
}

inline bool isUtf8Continuation(unsigned char b) { return (b & 0xC0) == 0x80; }

}  // namespace bytescan
