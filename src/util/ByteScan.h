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
    const __m128i hits = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\r')),
                                      _mm_cmpeq_epi8(v, _mm_set1_epi8('\n')));
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

// Bit i set when byte i, as a signed char, is above `threshold` (a byte value
// from 0x80 up, so that ASCII bytes are above it too; callers mask them).
inline unsigned aboveMask16(__m128i v, unsigned char threshold) {
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(threshold)))));
}

// The UTF-8 structure of 16 bytes as bit masks (bit i for byte i).
struct Utf8Block {
    unsigned nonAscii;      // 0x80 and above
    unsigned continuation;  // 0x80-0xBF
    unsigned lead2;         // 0xC0-0xDF
    unsigned lead3;         // 0xE0-0xEF
    unsigned lead4;         // 0xF0-0xF4
    unsigned above_F4;      // 0xF5-0xFF

    // `nonAsciiBits` is _mm_movemask_epi8(v), which callers test first.
    Utf8Block(__m128i v, unsigned nonAsciiBits) : nonAscii(nonAsciiBits) {
        // As signed bytes, 0x80-0xBF are the values below 0xC0 (-64).
        continuation = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmplt_epi8(v, _mm_set1_epi8(static_cast<char>(0xC0)))));
        const unsigned from_E0 = aboveMask16(v, 0xDF) & nonAscii;
        const unsigned from_F0 = aboveMask16(v, 0xEF) & nonAscii;
        above_F4 = aboveMask16(v, 0xF4) & nonAscii;
        lead2 = nonAscii & ~continuation & ~from_E0;
        lead3 = from_E0 & ~from_F0;
        lead4 = from_F0 & ~above_F4;
    }

    // Where continuation bytes must stand for the leads of this block, plus
    // what the previous block left owing (bits 0-2). Bits 16-18 spill over.
    unsigned requiredContinuations(unsigned carried) const {
        const unsigned multi = lead2 | lead3 | lead4;
        return (multi << 1) | ((lead3 | lead4) << 2) | (lead4 << 3) | carried;
    }
};

}  // namespace bytescan
