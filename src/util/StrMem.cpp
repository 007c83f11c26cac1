// The mem_ family: searching, counting and UTF-8 walking on (pointer, length).

#include <algorithm>
#include <cstdlib>
#include <new>

#include "util/ByteScan.h"
#include "util/Str.h"

using bytescan::utf8Step;

namespace {

inline unsigned char ubyte(char c) { return static_cast<unsigned char>(c); }

inline CharacterClass classOf(const char* set, size_t setlen) {
    CharacterClass cls;
    cls.set_multi(set, setlen, true);
    return cls;
}

}  // namespace

size_t mem_bytes_for_substring(size_t length, size_t offset, size_t count) {
    if (offset >= length) return 0;
    const size_t rest = length - offset;
    return count >= rest ? rest : count;
}

int mem_compare_normal(const char* a, size_t alen, const char* b, size_t blen) {
    const size_t common = std::min(alen, blen);
    if (common > 0) {
        int r = memcmp(a, b, common);
        if (r != 0) return r;
    }
    return alen < blen ? -1 : (alen > blen ? 1 : 0);
}

int mem_compare_normal(const char* a, size_t alen, const char* z) {
    return mem_compare_normal(a, alen, z, strlen(z));
}

bool mem_equals(const char* a, size_t alen, const char* b, size_t blen) {
    return alen == blen && (alen == 0 || memcmp(a, b, alen) == 0);
}

bool mem_equals_cstring(const char* a, size_t alen, const char* z) {
    return mem_equals(a, alen, z, strlen(z));
}

bool mem_equalsIgnoreQuotes(const char* data, size_t length, const char* z) {
    if (length >= 2 && data[0] == '"' && data[length - 1] == '"') {
        ++data;
        length -= 2;
    }
    if (length >= 2 && data[0] == '\'' && data[length - 1] == '\'') {
        ++data;
        length -= 2;
    }
    return mem_equals_cstring(data, length, z);
}

// Copies the smaller of `count` and the bytes that remain, not the larger: the
// larger would read past the source or write past a destination of `count`.
size_t mem_copy_piece(const char* data, size_t length, char* dest, size_t count, size_t offset) {
    if (offset >= length) return 0;
    const size_t n = std::min(count, length - offset);
    memcpy(dest, data + offset, n);
    return n;
}

// ---------------------------------------------------------------- forward search

size_t mem_find(const char* data, size_t length, char c, size_t offset) {
    if (offset >= length) return MEM_NPOS;
    const void* hit = memchr(data + offset, c, length - offset);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - data) : MEM_NPOS;
}

size_t mem_find(const char* data, size_t length, const char* s, size_t slen, size_t offset) {
    if (slen == 0) return offset < length ? offset : MEM_NPOS;
    if (offset >= length || slen > length - offset) return MEM_NPOS;
    if (slen == 1) return mem_find(data, length, s[0], offset);

    // memchr for the first byte, a look at the last, then memcmp.
    const char first = s[0];
    const char last = s[slen - 1];
    const char* p = data + offset;
    const char* const lastStart = data + length - slen;
    while (p <= lastStart) {
        p = static_cast<const char*>(memchr(p, first, static_cast<size_t>(lastStart - p) + 1));
        if (p == nullptr) return MEM_NPOS;
        if (p[slen - 1] == last && memcmp(p + 1, s + 1, slen - 2) == 0) {
            return static_cast<size_t>(p - data);
        }
        ++p;
    }
    return MEM_NPOS;
}

size_t mem_find(const char* data, size_t length, const CharacterClass& cls, size_t offset,
                bool member) {
    for (size_t i = offset; i < length; ++i) {
        if (cls.contains(data[i]) == member) return i;
    }
    return MEM_NPOS;
}

size_t mem_find_first_of(const char* data, size_t length, char c, size_t offset) {
    return mem_find(data, length, c, offset);
}

size_t mem_find_first_of(const char* data, size_t length, const char* set, size_t setlen,
                         size_t offset) {
    if (setlen == 1) return mem_find(data, length, set[0], offset);
    return mem_find(data, length, classOf(set, setlen), offset, true);
}

size_t mem_find_first_not_of(const char* data, size_t length, char c, size_t offset) {
    for (size_t i = offset; i < length; ++i) {
        if (data[i] != c) return i;
    }
    return MEM_NPOS;
}

size_t mem_find_first_not_of(const char* data, size_t length, const char* set, size_t setlen,
                             size_t offset) {
    return mem_find(data, length, classOf(set, setlen), offset, false);
}

// ---------------------------------------------------------------- backward search

size_t mem_rfind(const char* data, size_t length, char c, size_t offset) {
    if (length == 0) return MEM_NPOS;
    const size_t start = std::min(offset, length - 1);
    const void* hit = memrchr(data, c, start + 1);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - data) : MEM_NPOS;
}

size_t mem_rfind(const char* data, size_t length, const char* s, size_t slen, size_t offset) {
    if (slen > length) return MEM_NPOS;
    if (slen == 0) return std::min(length, offset);
    size_t span = std::min(offset, length - slen) + 1;  // candidate starts: [0, span)
    while (span > 0) {
        const void* hit = memrchr(data, s[0], span);
        if (hit == nullptr) return MEM_NPOS;
        const size_t i = static_cast<size_t>(static_cast<const char*>(hit) - data);
        if (memcmp(data + i + 1, s + 1, slen - 1) == 0) return i;
        span = i;
    }
    return MEM_NPOS;
}

size_t mem_rfind(const char* data, size_t length, const CharacterClass& cls, size_t offset,
                 bool member) {
    if (length == 0) return MEM_NPOS;
    for (size_t i = std::min(offset, length - 1) + 1; i-- > 0;) {
        if (cls.contains(data[i]) == member) return i;
    }
    return MEM_NPOS;
}

size_t mem_find_last_of(const char* data, size_t length, char c, size_t offset) {
    return mem_rfind(data, length, c, offset);
}

size_t mem_find_last_of(const char* data, size_t length, const char* set, size_t setlen,
                        size_t offset) {
    return mem_rfind(data, length, classOf(set, setlen), offset, true);
}

size_t mem_find_last_not_of(const char* data, size_t length, char c, size_t offset) {
    if (length == 0) return MEM_NPOS;
    for (size_t i = std::min(offset, length - 1) + 1; i-- > 0;) {
        if (data[i] != c) return i;
    }
    return MEM_NPOS;
}

size_t mem_find_last_not_of(const char* data, size_t length, const char* set, size_t setlen,
                            size_t offset) {
    return mem_rfind(data, length, classOf(set, setlen), offset, false);
}

// ---------------------------------------------------------------- ends

bool mem_startswith(const char* data, size_t length, const char* s, size_t slen) {
    return length >= slen && (slen == 0 || memcmp(data, s, slen) == 0);
}

bool mem_startswith(const char* data, size_t length, const char* z) {
    return mem_startswith(data, length, z, strlen(z));
}

bool mem_startswith(const char* data, size_t length, const CharacterClass& cls) {
    return length > 0 && cls.contains(data[0]);
}

bool mem_endswith(const char* data, size_t length, const char* s, size_t slen) {
    return length >= slen && (slen == 0 || memcmp(data + length - slen, s, slen) == 0);
}

bool mem_endswith(const char* data, size_t length, const char* z) {
    return mem_endswith(data, length, z, strlen(z));
}

bool mem_endswith(const char* data, size_t length, const CharacterClass& cls) {
    return length > 0 && cls.contains(data[length - 1]);
}

// ---------------------------------------------------------------- counting

size_t mem_count_char(const char* data, size_t length, char c, size_t offset, size_t count) {
    const size_t n = mem_bytes_for_substring(length, offset, count);
    const char* p = data + offset;
    size_t hits = 0;
    size_t i = 0;
    for (; i + 16 <= n; i += 16) hits += __builtin_popcount(bytescan::equalMask16(p + i, c));
    for (; i < n; ++i) hits += p[i] == c;
    return hits;
}

size_t mem_count_char(const char* data, size_t length, const CharacterClass& cls, size_t offset,
                      size_t count) {
    const size_t n = mem_bytes_for_substring(length, offset, count);
    size_t hits = 0;
    for (size_t i = 0; i < n; ++i) hits += cls.contains(data[offset + i]);
    return hits;
}

bool mem_contains_whitespace(const char* data, size_t length) {
    return mem_find(data, length, CharacterClass::ALL_WHITESPACES, 0, true) != MEM_NPOS;
}

bool mem_contains_non_ascii(const char* data, size_t length) {
    size_t i = 0;
    for (; i + 16 <= length; i += 16) {
        if (bytescan::nonAsciiMask16(data + i) != 0) return true;
    }
    for (; i < length; ++i) {
        if (ubyte(data[i]) >= 0x80) return true;
    }
    return false;
}

size_t mem_linecount(const char* data, size_t length) {
    return mem_count_char(data, length, '\n') + 1;
}

size_t mem_find_first_cr_or_lf(const char* data, size_t length, size_t offset) {
    if (offset >= length) return MEM_NPOS;
    size_t i = offset;
    for (; i + 16 <= length; i += 16) {
        unsigned mask = bytescan::crOrLfMask16(data + i);
        if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(mask));
    }
    for (; i < length; ++i) {
        if (data[i] == '\r' || data[i] == '\n') return i;
    }
    return MEM_NPOS;
}

// ---------------------------------------------------------------- UTF-8

// Valid UTF-8 has a consistent structure: every continuation byte stands
// exactly where a lead byte before it says, and nowhere else. So a block is
// checked by comparing two masks, then the ranges of the second bytes that
// rule out overlong forms, surrogates and values over U+10FFFF.
namespace {

struct Utf8Validator {
    unsigned owed = 0;     // continuation bytes the previous block's leads require here
    unsigned afterE0 = 0;  // bit 0: the previous block ended in E0 (next must be >= A0)
    unsigned afterED = 0;  // ... ED (next <= 9F)
    unsigned afterF0 = 0;  // ... F0 (next >= 90)
    unsigned afterF4 = 0;  // ... F4 (next <= 8F)

    bool block(const char* p) {
        const __m128i v = bytescan::load16(p);
        const unsigned nonAscii = static_cast<unsigned>(_mm_movemask_epi8(v));
        if (nonAscii == 0 && owed == 0) return true;
        const bytescan::Utf8Block b(v, nonAscii);

        const unsigned required = b.requiredContinuations(owed);
        if ((required & 0xFFFF) != b.continuation) return false;
        if (b.above_F4 != 0) return false;
        // Two-byte leads from C2: C0 and C1 only make overlong forms.
        if ((b.lead2 & ~bytescan::aboveMask16(v, 0xC1)) != 0) return false;

        const unsigned eq_E0 = equal(v, 0xE0), eq_ED = equal(v, 0xED);
        const unsigned eq_F0 = equal(v, 0xF0), eq_F4 = equal(v, 0xF4);
        // Only continuation bytes are looked at here: A0-BF and 90-BF.
        const unsigned from_A0 = bytescan::aboveMask16(v, 0x9F);
        const unsigned from_90 = bytescan::aboveMask16(v, 0x8F);
        if ((((eq_E0 << 1) | afterE0) & ~from_A0 & 0xFFFF) != 0) return false;
        if ((((eq_ED << 1) | afterED) & from_A0 & 0xFFFF) != 0) return false;
        if ((((eq_F0 << 1) | afterF0) & ~from_90 & 0xFFFF) != 0) return false;
        if ((((eq_F4 << 1) | afterF4) & from_90 & 0xFFFF) != 0) return false;

        owed = required >> 16;
        afterE0 = eq_E0 >> 15;
        afterED = eq_ED >> 15;
        afterF0 = eq_F0 >> 15;
        afterF4 = eq_F4 >> 15;
        return true;
    }

    static unsigned equal(__m128i v, unsigned char c) {
        return static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(static_cast<char>(c)))));
    }
};

}  // namespace

bool mem_is_valid_utf8(const char* data, size_t length) {
    Utf8Validator validator;
    size_t i = 0;
    while (i + 16 <= length) {
        // ASCII runs, 64 bytes at a time, while nothing is owed.
        if (validator.owed == 0 && i + 64 <= length) {
            const __m128i any = _mm_or_si128(
                _mm_or_si128(bytescan::load16(data + i), bytescan::load16(data + i + 16)),
                _mm_or_si128(bytescan::load16(data + i + 32), bytescan::load16(data + i + 48)));
            if (_mm_movemask_epi8(any) == 0) {
                i += 64;
                continue;
            }
        }
        if (!validator.block(data + i)) return false;
        i += 16;
    }
    if (i < length) {
        // The tail, padded with zero bytes: a sequence cut off by the end
        // meets a zero where a continuation byte is owed.
        char last[16] = {};
        memcpy(last, data + i, length - i);
        if (!validator.block(last)) return false;
    }
    return validator.owed == 0;
}

// Where the structure is consistent, the lead-byte walk visits exactly the
// bytes that are not continuation bytes, so a block is counted by popcount.
// Elsewhere the walk is done byte by byte, from where the walker stands.
size_t mem_count_utf8_codepoints(const char* data, size_t length) {
    size_t count = 0;
    size_t i = 0;
    unsigned owed = 0;  // positions at the start of this block the walker steps over
    while (i + 16 <= length) {
        const __m128i v = bytescan::load16(data + i);
        const unsigned nonAscii = static_cast<unsigned>(_mm_movemask_epi8(v));
        if (nonAscii == 0 && owed == 0) {
            count += 16;
            i += 16;
            continue;
        }
        const bytescan::Utf8Block b(v, nonAscii);
        const unsigned required = b.requiredContinuations(owed);
        if ((required & 0xFFFF) == b.continuation) {
            count += 16 - static_cast<size_t>(__builtin_popcount(b.continuation));
            owed = required >> 16;
            i += 16;
            continue;
        }
        // The carried bits are contiguous from bit 0: the walker stands past them.
        size_t pos = i + static_cast<size_t>(__builtin_popcount(owed));
        owed = 0;
        for (const size_t end = i + 16; pos < end; ++count) pos += utf8Step(ubyte(data[pos]));
        i = pos;
    }
    for (size_t pos = i + static_cast<size_t>(__builtin_popcount(owed)); pos < length; ++count) {
        pos += utf8Step(ubyte(data[pos]));
    }
    return count;
}

bool mem_substr_utf8_codepoints(const char* data, size_t length, size_t start, size_t count,
                                size_t* startByte, size_t* endByte) {
    size_t pos = 0;
    for (size_t n = 0; n < start; ++n) {
        if (pos >= length) return false;
        pos += utf8Step(ubyte(data[pos]));
    }
    if (pos > length) pos = length;  // the last sequence overran the data
    *startByte = pos;

    if (count >= length) {
        *endByte = length;
        return true;
    }
    for (size_t n = 0; n < count && pos < length; ++n) pos += utf8Step(ubyte(data[pos]));
    *endByte = pos > length ? length : pos;
    return true;
}

// ---------------------------------------------------------------- copies

char* mem_strdup(const char* data, size_t length) {
    char* copy = static_cast<char*>(malloc(length + 1));
    if (copy == nullptr) return nullptr;
    if (length > 0) memcpy(copy, data, length);
    copy[length] = '\0';
    return copy;
}

char* mem_copystr(const char* data, size_t length) {
    char* copy = new char[length + 1];
    if (length > 0) memcpy(copy, data, length);
    copy[length] = '\0';
    return copy;
}
