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

bool mem_is_valid_utf8(const char* data, size_t length) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
    size_t i = 0;
    while (i < length) {
        if (i + 16 <= length) {
            unsigned mask = bytescan::nonAsciiMask16(data + i);
            if (mask == 0) {
                i += 16;
                continue;
            }
            i += static_cast<size_t>(__builtin_ctz(mask));
        }
        const unsigned char b = p[i];
        if (b < 0x80) {
            ++i;
            continue;
        }
        const size_t rest = length - i;
        if (b < 0xC2) return false;  // a stray continuation, or an overlong lead
        if (b < 0xE0) {
            if (rest < 2 || (p[i + 1] & 0xC0) != 0x80) return false;
            i += 2;
        } else if (b < 0xF0) {
            if (rest < 3) return false;
            const unsigned char b1 = p[i + 1];
            // E0 needs A0.. (no overlong forms), ED at most 9F (no surrogates).
            const unsigned char lo = b == 0xE0 ? 0xA0 : 0x80;
            const unsigned char hi = b == 0xED ? 0x9F : 0xBF;
            if (b1 < lo || b1 > hi || (p[i + 2] & 0xC0) != 0x80) return false;
            i += 3;
        } else if (b < 0xF5) {
            if (rest < 4) return false;
            const unsigned char b1 = p[i + 1];
            // F0 needs 90.. (no overlong forms), F4 at most 8F (U+10FFFF).
            const unsigned char lo = b == 0xF0 ? 0x90 : 0x80;
            const unsigned char hi = b == 0xF4 ? 0x8F : 0xBF;
            if (b1 < lo || b1 > hi || (p[i + 2] & 0xC0) != 0x80 || (p[i + 3] & 0xC0) != 0x80) {
                return false;
            }
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

size_t mem_count_utf8_codepoints(const char* data, size_t length) {
    size_t count = 0;
    size_t i = 0;
    while (i < length) {
        // ASCII runs: a code point a byte.
        while (i + 16 <= length) {
            unsigned mask = bytescan::nonAsciiMask16(data + i);
            size_t run = mask == 0 ? 16 : static_cast<size_t>(__builtin_ctz(mask));
            i += run;
            count += run;
            if (mask != 0) break;
        }
        if (i >= length) break;
        i += utf8Step(ubyte(data[i]));
        ++count;
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
