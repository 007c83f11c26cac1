#include "util/UnicodeCodepoint.h"

#include <algorithm>

#include "libzero/codepoint-width.h"
#include "util/ByteScan.h"

namespace {

inline unsigned char ubyte(char c) { return static_cast<unsigned char>(c); }

inline uint32_t asciiLower(uint32_t c) { return c - 'A' < 26 ? c + 32 : c; }
inline uint32_t asciiUpper(uint32_t c) { return c - 'a' < 26 ? c - 32 : c; }

inline bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Length of the valid character at p (n > 0 bytes there), or 0: no over-long
// forms, surrogates, values above U+10FFFF or truncated sequences.
inline size_t validSequenceLength(const unsigned char* p, size_t n) {
    const unsigned b0 = p[0];
    if (b0 < 0x80) return 1;
    if (b0 < 0xC2 || b0 > 0xF4) return 0;
    if (b0 < 0xE0) return n >= 2 && isContinuation(p[1]) ? 2 : 0;
    if (b0 < 0xF0) {
        if (n < 3 || !isContinuation(p[1]) || !isContinuation(p[2])) return 0;
        if ((b0 == 0xE0 && p[1] < 0xA0) || (b0 == 0xED && p[1] >= 0xA0)) return 0;
        return 3;
    }
    if (n < 4 || !isContinuation(p[1]) || !isContinuation(p[2]) || !isContinuation(p[3])) {
        return 0;
    }
    if ((b0 == 0xF0 && p[1] < 0x90) || (b0 == 0xF4 && p[1] >= 0x90)) return 0;
    return 4;
}

inline uint32_t decodePacked(uint32_t v) {
    if (v < 0x100) return v;
    if (v < 0x10000) return (v >> 8 & 0x1F) << 6 | (v & 0x3F);
    if (v < 0x1000000) return (v >> 16 & 0x0F) << 12 | (v >> 8 & 0x3F) << 6 | (v & 0x3F);
    return (v >> 24 & 0x07) << 18 | (v >> 16 & 0x3F) << 12 | (v >> 8 & 0x3F) << 6 | (v & 0x3F);
}

inline uint32_t packBytes(const unsigned char* p, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

// `cp` is the value decoded. A malformed value may land in the wrong block,
// but it lies in no range at all, so whatever slice is searched finds nothing.
inline const utf8_flag_range* findFlagRange(uint32_t utf8bytes, uint32_t cp) {
    const utf8_flag_range* begin = utf8_flag_ranges;
    const utf8_flag_range* end = utf8_flag_ranges + utf8_flag_ranges_count;
    if (cp < utf8_flag_block_index_limit) {
        const uint32_t block = cp >> 6;
        begin = utf8_flag_ranges + utf8_flag_block_index[block];
        end = std::min(end, utf8_flag_ranges + utf8_flag_block_index[block + 1] + 1);
    }
    // The last range that starts at or below the value, without branches to
    // mispredict on the short slices of cased scripts.
    size_t length = static_cast<size_t>(end - begin);
    if (length == 0) return nullptr;
    const utf8_flag_range* at = begin;
    while (length > 1) {
        const size_t half = length / 2;
        at = at[half].first <= utf8bytes ? at + half : at;
        length -= half;
    }
    return at->first <= utf8bytes && utf8bytes < at->end ? at : nullptr;
}

uint32_t caseFormFromFlags(uint32_t utf8bytes, uint32_t flags, bool toUpper) {
    switch (flags & UNICODE_CASE_FIELD) {
        case UNICODE_UPPER:
            return toUpper ? utf8bytes : utf8bytes ^ (flags & UNICODE_CASE_XOR);
        case UNICODE_LOWER:
            return toUpper ? utf8bytes ^ (flags & UNICODE_CASE_XOR) : utf8bytes;
        case UNICODE_ALTERNATING:
            // The low bit of the code point is the low bit of the last byte.
            return toUpper ? utf8bytes & ~1u : utf8bytes | 1u;
        default:
            return utf8bytes;
    }
}

// The case form of a packed value from 0xC280 up. Blocks without case, the
// common answer for most scripts, are ruled out before any search.
inline uint32_t multibyteCaseForm(uint32_t utf8bytes, bool toUpper) {
    const uint32_t cp = decodePacked(utf8bytes);
    if (cp < utf8_flag_block_index_limit &&
        !(utf8_case_block_bits[cp >> 12] >> (cp >> 6 & 63) & 1)) {
        return utf8bytes;
    }
    const uint32_t letter = u1d5_and_u1d6_workaround(utf8bytes);
    if (letter != utf8bytes) {
        // 0xC795 ^ 3 is 0xC796.
        return (letter == 'U') == toUpper ? utf8bytes : utf8bytes ^ 3;
    }
    const utf8_flag_range* range = findFlagRange(utf8bytes, cp);
    return range ? caseFormFromFlags(utf8bytes, range->flags, toUpper) : utf8bytes;
}

uint32_t flagsOfCodepoint(uint32_t codepoint) {
    if (codepoint > 0x10FFFF) return 0;
    return flags_from_utf8bytes(codepoint_to_utf8bytes(codepoint));
}

uint64_t combinerMarkBit(uint32_t utf8bytes) {
    const utf8_combiner_mark* begin = utf8_combiner_marks;
    const utf8_combiner_mark* end = begin + utf8_combiner_marks_count;
    if (utf8bytes < begin->utf8bytes) return 0;
    const utf8_combiner_mark* hit =
        std::lower_bound(begin, end, utf8bytes,
                         [](const utf8_combiner_mark& m, uint32_t v) { return m.utf8bytes < v; });
    return hit != end && hit->utf8bytes == utf8bytes ? hit->bit : 0;
}

const utf8_combiner* findCombiner(uint32_t base, uint64_t marks) {
    const utf8_combiner* end = utf8_combiners + utf8_combiners_count;
    const utf8_combiner* hit =
        std::lower_bound(utf8_combiners, end, base, [marks](const utf8_combiner& c, uint32_t b) {
            return c.base < b || (c.base == b && c.marks < marks);
        });
    return hit != end && hit->base == base && hit->marks == marks ? hit : nullptr;
}

// ---------------------------------------------------------------- case mapping of texts

// 16 bytes with the ASCII letters of one case turned into the other; other
// bytes (those from 0x80 up are negative here) stay.
inline __m128i asciiCaseBlock(__m128i v, bool toUpper) {
    const __m128i below = _mm_set1_epi8(toUpper ? 'a' - 1 : 'A' - 1);
    const __m128i above = _mm_set1_epi8(toUpper ? 'z' + 1 : 'Z' + 1);
    const __m128i letters = _mm_and_si128(_mm_cmpgt_epi8(v, below), _mm_cmplt_epi8(v, above));
    return _mm_xor_si128(v, _mm_and_si128(letters, _mm_set1_epi8(0x20)));
}

void asciiCaseInPlace(char* s, size_t n, bool toUpper) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s + i),
                         asciiCaseBlock(bytescan::load16(s + i), toUpper));
    }
    for (; i < n; ++i) {
        const uint32_t c = ubyte(s[i]);
        s[i] = static_cast<char>(toUpper ? asciiUpper(c) : asciiLower(c));
    }
}

// Maps [src, src + n) into `out` (which must not overlap it), replacing its
// contents. The output is written through a pointer into a buffer that always
// keeps at least kSlack bytes more than the rest of the input needs at one
// output byte per input byte, so that a 16-byte store is always in bounds;
// only a character whose case form is longer eats into that margin.
void mapCase(const char* src, size_t n, Str* out, bool toUpper) {
    constexpr size_t kSlack = 32;
    out->resize(n + kSlack);
    char* base = out->data();
    char* d = base;
    char* limit = base + out->size();
    size_t i = 0;
    while (i < n) {
        if (ubyte(src[i]) < 0x80) {
            // An ASCII run, 16 bytes at a time up to its first byte from 0x80 up.
            while (n - i >= 16) {
                const __m128i v = bytescan::load16(src + i);
                const unsigned nonAscii = static_cast<unsigned>(_mm_movemask_epi8(v));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d), asciiCaseBlock(v, toUpper));
                const size_t ascii = nonAscii ? static_cast<size_t>(__builtin_ctz(nonAscii)) : 16;
                d += ascii;
                i += ascii;
                if (ascii < 16) break;
            }
            while (i < n && ubyte(src[i]) < 0x80) {
                const uint32_t c = ubyte(src[i++]);
                *d++ = static_cast<char>(toUpper ? asciiUpper(c) : asciiLower(c));
            }
            continue;
        }
        // Three-byte characters whose lead byte names a 4096-code-point stretch
        // without case (all of CJK) are copied as they stand.
        const unsigned char* u = reinterpret_cast<const unsigned char*>(src);
        while (n - i >= 4 && (u[i] & 0xF0) == 0xE0 && utf8_case_block_bits[u[i] & 0x0F] == 0 &&
               isContinuation(u[i + 1]) && isContinuation(u[i + 2]) && !isContinuation(u[i + 3])) {
            memcpy(d, src + i, 4);
            d += 3;
            i += 3;
        }
        if (i == n || u[i] < 0x80) continue;
        // A byte from 0x80 up with the continuation bytes after it, at most a word.
        size_t k = 1;
        while (k < 4 && i + k < n && isContinuation(ubyte(src[i + k]))) ++k;
        const uint32_t packed = packBytes(reinterpret_cast<const unsigned char*>(src + i), k);
        const uint32_t mapped =
            packed >= UTF8BYTES_MIN_MULTIBYTE ? multibyteCaseForm(packed, toUpper) : packed;
        if (mapped == packed) {
            // The output margin takes a whole word; the input may end sooner.
            if (n - i >= 4) {
                memcpy(d, src + i, 4);
            } else {
                memcpy(d, src + i, k);
            }
            d += k;
            i += k;
            continue;
        }
        const size_t written = utf8bytes_store(mapped, d);
        d += written;
        i += k;
        if (written > k && static_cast<size_t>(limit - d) < n - i + kSlack) {
            const size_t used = static_cast<size_t>(d - base);
            out->resize(used + (n - i) + (n - i) / 4 + 2 * kSlack);
            base = out->data();
            d = base + used;
            limit = base + out->size();
        }
    }
    out->resize(static_cast<size_t>(d - base));
}

void strCase(const Str& in, Str* out, bool toUpper) {
    if (&in == out) {
        Str mapped;
        mapCase(in.data(), in.size(), &mapped, toUpper);
        out->swap(mapped);
    } else {
        mapCase(in.data(), in.size(), out, toUpper);
    }
}

Str& caseInPlace(Str* s, bool toUpper) {
    if (!mem_contains_non_ascii(s->data(), s->size())) {
        asciiCaseInPlace(s->data(), s->size(), toUpper);
    } else {
        strCase(*s, s, toUpper);
    }
    return *s;
}

}  // namespace

// ---------------------------------------------------------------- packed bytes

uint32_t codepoint_to_utf8bytes(uint32_t cp) {
    if (cp < 0x80) return cp;
    if (cp < 0x800) return (0xC0 | cp >> 6) << 8 | (0x80 | (cp & 0x3F));
    if (cp < 0x10000) {
        return (0xE0 | cp >> 12) << 16 | (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
    }
    if (cp > 0x10FFFF) return 0;
    return (0xF0 | cp >> 18) << 24 | (0x80 | (cp >> 12 & 0x3F)) << 16 |
           (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
}

uint32_t utf8bytes_to_codepoint(uint32_t utf8bytes) { return decodePacked(utf8bytes); }

size_t utf8bytes_store(uint32_t utf8bytes, char* out) {
    const size_t n = utf8bytes_length(utf8bytes);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(utf8bytes >> (8 * (n - 1 - i)));
    return n;
}

uint32_t flags_from_utf8bytes(uint32_t utf8bytes) {
    ASSERT(utf8bytes >= 0xC280);
    const utf8_flag_range* range = findFlagRange(utf8bytes, decodePacked(utf8bytes));
    return range ? range->flags : 0;
}

uint32_t u1d5_and_u1d6_workaround(uint32_t utf8bytes) {
    if (utf8bytes == 0xC795) return 'U';
    if (utf8bytes == 0xC796) return 'u';
    return utf8bytes;
}

uint32_t replacement_for_utf8bytes(uint32_t utf8bytes, bool toUpper) {
    if (utf8bytes < 0x80) return toUpper ? asciiUpper(utf8bytes) : asciiLower(utf8bytes);
    if (utf8bytes < UTF8BYTES_MIN_MULTIBYTE) return utf8bytes;
    return multibyteCaseForm(utf8bytes, toUpper);
}

// ---------------------------------------------------------------- UnicodeCodepoint

// As the C locale classes ASCII.
constexpr std::array<uint8_t, 128> UnicodeCodepoint::asciiClasses() {
    std::array<uint8_t, 128> bits{};
    for (unsigned c = 0; c < 128; ++c) {
        const bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        const bool alnum = alpha || (c >= '0' && c <= '9');
        const bool graph = c > 0x20 && c < 0x7F;
        uint8_t b = 0;
        if (alnum) b |= kAsciiAlnum;
        if (alpha) b |= kAsciiAlpha;
        if (c < 0x20 || c == 0x7F) b |= kAsciiCntrl;
        if (graph) b |= kAsciiGraph;
        if (c >= 0x20 && c < 0x7F) b |= kAsciiPrint;
        if (graph && !alnum) b |= kAsciiPunct;
        if (c == ' ' || (c >= '\t' && c <= '\r')) b |= kAsciiSpace;
        bits[c] = b;
    }
    return bits;
}

constinit const std::array<uint8_t, 128> UnicodeCodepoint::kAsciiClasses = asciiClasses();

uint32_t UnicodeCodepoint::multibyteFlags() const { return flagsOfCodepoint(_value); }

bool UnicodeCodepoint::isLower() const {
    if (_value < 0x80) return _value - 'a' < 26;
    const uint32_t field = flagsOfCodepoint(_value) & UNICODE_CASE_FIELD;
    return field == UNICODE_LOWER || (field == UNICODE_ALTERNATING && (_value & 1));
}

bool UnicodeCodepoint::isUpper() const {
    if (_value < 0x80) return _value - 'A' < 26;
    const uint32_t field = flagsOfCodepoint(_value) & UNICODE_CASE_FIELD;
    return field == UNICODE_UPPER || (field == UNICODE_ALTERNATING && !(_value & 1));
}

UnicodeCodepoint UnicodeCodepoint::toLowercase() const {
    if (_value < 0x80) return UnicodeCodepoint(asciiLower(_value));
    if (_value > 0x10FFFF) return *this;
    return UnicodeCodepoint(
        utf8bytes_to_codepoint(replacement_for_utf8bytes(codepoint_to_utf8bytes(_value), false)));
}

UnicodeCodepoint UnicodeCodepoint::toUppercase() const {
    if (_value < 0x80) return UnicodeCodepoint(asciiUpper(_value));
    if (_value > 0x10FFFF) return *this;
    return UnicodeCodepoint(
        utf8bytes_to_codepoint(replacement_for_utf8bytes(codepoint_to_utf8bytes(_value), true)));
}

bool UnicodeCodepoint::_accumulateUtf8Byte(uint8_t byte) {
    // An open sequence has its lead byte (0xC2 or more) on top; a finished code
    // point never reaches that byte.
    const bool open = _value >= 0xC2000000u;
    if (!isContinuation(byte)) {
        if (byte < 0x80) {
            _value = byte;
            return true;
        }
        _value = byte >= 0xC2 && byte <= 0xF4 ? uint32_t{byte} << 24 : 0;
        return false;
    }
    if (!open) {
        _value = 0;
        return false;
    }
    const uint32_t lead = _value >> 24;
    const unsigned need = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    // Continuation bytes are never 0, so the filled places can be counted.
    const unsigned have = 1 + ((_value >> 16 & 0xFF) != 0) + ((_value >> 8 & 0xFF) != 0);
    _value |= uint32_t{byte} << (8 * (3 - have));
    if (have + 1 < need) return false;
    const uint32_t cp = utf8bytes_to_codepoint(_value >> (8 * (4 - need)));
    const bool valid = need == 2 || (need == 3 ? cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)
                                               : cp >= 0x10000 && cp <= 0x10FFFF);
    _value = valid ? cp : 0;
    return valid;
}

// ---------------------------------------------------------------- StrSegment

bool StrSegment::removeFirstCodepoint(UnicodeCodepoint* codepoint) {
    if (_len == 0) return false;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(_data);
    const uint32_t b0 = p[0];
    if (b0 < 0x80) {
        *codepoint = UnicodeCodepoint(b0);
        ++_data;
        --_len;
        return true;
    }
    size_t n;
    uint32_t cp, least;
    if (b0 < 0xC0) {
        return false;
    } else if (b0 < 0xE0) {
        n = 2, cp = b0 & 0x1F, least = 0x80;
    } else if (b0 < 0xF0) {
        n = 3, cp = b0 & 0x0F, least = 0x800;
    } else if (b0 < 0xF8) {
        n = 4, cp = b0 & 0x07, least = 0x10000;
    } else {
        return false;
    }
    if (_len < n) return false;
    for (size_t i = 1; i < n; ++i) {
        if (!isContinuation(p[i])) return false;
        cp = cp << 6 | (p[i] & 0x3F);
    }
    if (cp < least || cp > 0x10FFFF) return false;
    *codepoint = UnicodeCodepoint(cp);
    _data += n;
    _len -= n;
    return true;
}

// ---------------------------------------------------------------- Str

void Str::str_tolower(const Str& in, Str* out) { strCase(in, out, false); }
void Str::str_toupper(const Str& in, Str* out) { strCase(in, out, true); }

Str& Str::toLowercase() { return caseInPlace(this, false); }
Str& Str::toUppercase() { return caseInPlace(this, true); }

Str Str::asLowercase() const {
    Str out;
    mapCase(data(), size(), &out, false);
    return out;
}

Str Str::asUppercase() const {
    Str out;
    mapCase(data(), size(), &out, true);
    return out;
}

// In place: a composed character is never longer than its base and marks
// (the generator checks), so the write position never passes the read one.
Str& Str::resolveUnicodeCombiningMarks() {
    if (!mem_contains_non_ascii(data(), size())) return *this;
    unsigned char* s = reinterpret_cast<unsigned char*>(data());
    const size_t n = size();
    size_t r = 0, w = 0;
    size_t baseAt = npos;  // where the current base was written
    uint32_t base = 0;
    uint64_t marks = 0;
    bool repeated = false;  // a set can't hold a mark twice; such a run stays
    auto resolve = [&]() {
        const utf8_combiner* c = repeated ? nullptr : findCombiner(base, marks);
        if (c != nullptr) {
            uint32_t composed = c->composed;
            if (u1d5_and_u1d6_workaround(composed) != composed) {
                composed =
                    UnicodeCodepoint(utf8bytes_to_codepoint(base)).isUpper() ? 0xC795 : 0xC796;
            }
            w = baseAt + utf8bytes_store(composed, reinterpret_cast<char*>(s + baseAt));
        }
        marks = 0;
        repeated = false;
    };
    while (r < n) {
        if (s[r] < 0x80) {
            if (marks) resolve();
            baseAt = w;
            base = s[r];
            s[w++] = s[r++];
            continue;
        }
        const size_t len = validSequenceLength(s + r, n - r);
        if (len == 0) {
            if (marks) resolve();
            baseAt = npos;
            s[w++] = s[r++];
            continue;
        }
        const uint32_t packed = packBytes(s + r, len);
        const uint64_t bit = combinerMarkBit(packed);
        if (bit == 0) {
            if (marks) resolve();
            baseAt = w;
            base = packed;
        } else if (baseAt != npos) {
            repeated |= (marks & bit) != 0;
            marks |= bit;
        }
        memmove(s + w, s + r, len);
        w += len;
        r += len;
    }
    if (marks) resolve();
    resize(w);
    return *this;
}

bool mem_parse_into(const char* data, size_t length, LStrContainer* dest) {
    if (data == nullptr) return false;
    Str lowered;
    mapCase(data, length, &lowered, false);
    static_cast<Str&>(*dest) = std::move(lowered);
    return true;
}

// ---------------------------------------------------------------- mem_ functions

namespace {

// The folded value of the character at a[*i], which it steps past: ASCII and
// valid sequences lower-cased as packed values, any other byte as itself.
inline uint32_t foldNext(const unsigned char* a, size_t n, size_t* i) {
    const unsigned char* p = a + *i;
    const size_t len = validSequenceLength(p, n - *i);
    if (len <= 1) {
        ++*i;
        return len == 1 ? asciiLower(p[0]) : p[0];
    }
    *i += len;
    return replacement_for_utf8bytes(packBytes(p, len), false);
}

}  // namespace

int mem_compare_caseless(const char* a, size_t alen, const char* b, size_t blen) {
    const unsigned char* pa = reinterpret_cast<const unsigned char*>(a);
    const unsigned char* pb = reinterpret_cast<const unsigned char*>(b);
    size_t i = 0, j = 0;
    while (i < alen && j < blen) {
        uint32_t ca = pa[i], cb = pb[j];
        if ((ca | cb) < 0x80) {
            ++i;
            ++j;
            if (ca == cb) continue;
            ca = asciiLower(ca);
            cb = asciiLower(cb);
        } else {
            ca = foldNext(pa, alen, &i);
            cb = foldNext(pb, blen, &j);
        }
        if (ca != cb) return ca < cb ? -1 : 1;
    }
    if (i < alen) return 1;
    if (j < blen) return -1;
    return 0;
}

int mem_compare_caseless(const char* a, size_t alen, const char* z) {
    return mem_compare_caseless(a, alen, z, strlen(z));
}

// Decoded by lead byte alone, as the other walkers do: a malformed sequence
// counts as whatever its bits decode to, and one cut off by the end stops
// the walk rather than counting its stray bytes.
size_t mem_display_width(const char* data, size_t length) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
    size_t width = 0;
    size_t i = 0;
    while (i < length) {
        if (p[i] < 0x80) {
            width += p[i] > 31;
            ++i;
            continue;
        }
        const size_t len = bytescan::utf8Step(p[i]);
        if (len > length - i) break;
        width +=
            static_cast<size_t>(codepoint_width(utf8bytes_to_codepoint(packBytes(p + i, len))));
        i += len;
    }
    return width;
}
