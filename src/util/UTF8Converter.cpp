// The converters into UTF-8. The tables they read are generated (see
// tools/gen-charset-tables.py); this file has the name lookup and the engines.
//
// How undecodable input is marked, in every engine: a byte that can't start
// a character is written as "\xHH" and decoding goes on at the next byte, so
// a broken sequence costs its first byte and whatever follows is read afresh.
// A sequence that is well formed (every byte in the range its place allows)
// but maps to nothing is marked whole.

#include "util/UTF8Converter.h"

#include <emmintrin.h>

#include <cstring>
#include <memory>

#include "util/ByteScan.h"

const UTF8Converter::ucs4_reader utf8_ucs4_big_endian = {true};
const UTF8Converter::ucs4_reader utf8_ucs4_little_endian = {false};

// ---------------------------------------------------------------- names

bool UTF8Converter::find_engine(spec* result, const char* name, size_t length) {
    char stackBuffer[200];
    std::unique_ptr<char[]> heapBuffer;
    char* key = stackBuffer;
    if (length >= sizeof stackBuffer) {
        heapBuffer.reset(new char[length + 1]);
        key = heapBuffer.get();
    }
    size_t n = 0;
    for (size_t i = 0; i < length && name[i] != '\0'; ++i) {
        const char c = name[i];
        if (c >= 'A' && c <= 'Z') {
            key[n++] = static_cast<char>(c + ('a' - 'A'));
        } else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
            key[n++] = c;
        }
    }
    key[n] = '\0';

    size_t lo = 0, hi = utf8_converter_spec_count;
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        const int c = strcmp(key, utf8_converter_specs[mid].name);
        if (c == 0) {
            *result = utf8_converter_specs[mid];
            return true;
        }
        if (c < 0) {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    return false;
}

bool UTF8Converter::find_engine(spec* result, const char* name) {
    return find_engine(result, name, strlen(name));
}

void UTF8Converter::convertInPlace(Str* text) {
    Str converted;
    if (convert(&converted, text->data(), text->data() + text->size())) text->swap(converted);
}

// ---------------------------------------------------------------- output

namespace {

typedef const unsigned char* bytes_t;

inline bytes_t ubytes(const char* p) { return reinterpret_cast<bytes_t>(p); }

inline char* putUtf8(char* o, uint32_t cp) {
    if (cp < 0x80) {
        *o = static_cast<char>(cp);
        return o + 1;
    }
    if (cp < 0x800) {
        o[0] = static_cast<char>(0xC0 | (cp >> 6));
        o[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return o + 2;
    }
    if (cp < 0x10000) {
        o[0] = static_cast<char>(0xE0 | (cp >> 12));
        o[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        o[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return o + 3;
    }
    o[0] = static_cast<char>(0xF0 | (cp >> 18));
    o[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    o[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    o[3] = static_cast<char>(0x80 | (cp & 0x3F));
    return o + 4;
}

// Engines that can't size their output first write into this stack buffer
// and append it to the Str in large pieces: no per-character growth checks,
// no zero-filling of a worst-case reservation. A step writes at most
// kMaxStep bytes, so a step may start anywhere below `limit()`.
class Utf8Sink {
public:
    static constexpr size_t kMaxStep = 32;

    explicit Utf8Sink(Str* out) : _out(out) {}

    char* start() { return _buf; }
    char* limit() { return _buf + sizeof _buf - kMaxStep; }
    // Call when the write pointer has reached limit(); returns the new one.
    char* drain(char* o) {
        _out->append(_buf, static_cast<size_t>(o - _buf));
        return _buf;
    }
    // Copies n bytes; the write pointer may end past limit(), as after a step.
    char* copy(char* o, const char* from, size_t n) {
        if (n <= static_cast<size_t>(_buf + sizeof _buf - o)) {
            memcpy(o, from, n);
            return o + n;
        }
        o = drain(o);
        _out->append(from, n);
        return o;
    }
    void finish(char* o) { drain(o); }

private:
    Str* _out;
    char _buf[8192];
};

// The end of the run of bytes below 0x80 that starts at p.
inline bytes_t asciiRunEnd(bytes_t p, bytes_t e) {
    while (e - p >= 16) {
        const unsigned m = bytescan::nonAsciiMask16(reinterpret_cast<const char*>(p));
        if (m != 0) return p + __builtin_ctz(m);
        p += 16;
    }
    while (p < e && *p < 0x80) ++p;
    return p;
}

// Engines that may have nothing to do copy lazily: the output begins only at
// the first byte that needs work, and if there is none they return false.
class LazyOutput {
public:
    LazyOutput(Str* out, const char* begin, const char* end)
        : _sink(out), _out(out), _copied(begin), _end(end) {}

    bool started() const { return _o != nullptr; }
    // Everything before p is input to be kept as it stands; the caller is
    // about to write what p starts.
    char* at(const char* p) {
        if (_o == nullptr) {
            _out->reserve(_out->size() + static_cast<size_t>(_end - _copied) + 16);
            _o = _sink.start();
        }
        if (p > _copied) _o = _sink.copy(_o, _copied, static_cast<size_t>(p - _copied));
        if (_o >= _sink.limit()) _o = _sink.drain(_o);
        return _o;
    }
    // Room for one more step.
    char* room(char* o) { return o >= _sink.limit() ? _sink.drain(o) : o; }
    // After writing up to o, input is taken up again at `resume`.
    void wrote(char* o, const char* resume) {
        _o = o;
        _copied = resume;
    }
    bool finish() {
        if (_o == nullptr) return false;
        _o = at(_end);
        _sink.finish(_o);
        return true;
    }

private:
    Utf8Sink _sink;
    Str* _out;
    const char* _copied;
    const char* _end;
    char* _o = nullptr;
};

inline bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

}  // namespace

// ---------------------------------------------------------------- UTF-8

// Valid UTF-8 is its own form. Otherwise each byte that doesn't start a
// complete, shortest, in-range sequence is marked. A surrogate pair in the
// CESU-8 form (two three-byte sequences) is joined into one character, so
// that "CESU-8" and Java's modified UTF-8 read too; a lone surrogate is
// invalid.
bool utf8_converter_utf8(UTF8Converter* converter, Str* out, const char* begin, const char* end) {
    if (mem_is_valid_utf8(begin, static_cast<size_t>(end - begin))) return false;
    LazyOutput lazy(out, begin, end);
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    while (p < e) {
        p = asciiRunEnd(p, e);
        if (p == e) break;
        const unsigned char b = *p;
        size_t need = 0;
        uint32_t cp = 0, min = 0;
        if (b >= 0xC2 && b <= 0xDF) {
            need = 1, cp = b & 0x1F, min = 0x80;
        } else if (b >= 0xE0 && b <= 0xEF) {
            need = 2, cp = b & 0x0F, min = 0x800;
        } else if (b >= 0xF0 && b <= 0xF4) {
            need = 3, cp = b & 0x07, min = 0x10000;
        }
        bool ok = need > 0 && static_cast<size_t>(e - p) > need;
        for (size_t i = 1; ok && i <= need; ++i) {
            ok = isContinuation(p[i]);
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        ok = ok && cp >= min && cp <= 0x10FFFF;
        if (ok && cp >= 0xD800 && cp <= 0xDFFF) {
            // Only a high surrogate followed by a low one, both as three bytes.
            ok = cp <= 0xDBFF && e - p >= 6 && p[3] == 0xED && p[4] >= 0xB0 && p[4] <= 0xBF &&
                 isContinuation(p[5]);
            if (ok) {
                const uint32_t low = 0xDC00 | ((p[4] & 0x0F) << 6) | (p[5] & 0x3F);
                char* o = lazy.at(reinterpret_cast<const char*>(p));
                o = putUtf8(o, 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00));
                p += 6;
                lazy.wrote(o, reinterpret_cast<const char*>(p));
                continue;
            }
        }
        if (ok) {
            p += need + 1;  // kept as it stands
            continue;
        }
        char* o = lazy.at(reinterpret_cast<const char*>(p));
        o = converter->_utf8_append_invalid(o, b);
        ++p;
        lazy.wrote(o, reinterpret_cast<const char*>(p));
    }
    return lazy.finish();
}

// ---------------------------------------------------------------- UTF-16, UCS-4

namespace {

inline uint32_t read16(bytes_t p, bool bigEndian) {
    return bigEndian ? (uint32_t{p[0]} << 8 | p[1]) : (uint32_t{p[1]} << 8 | p[0]);
}

inline uint32_t read32(bytes_t p, bool bigEndian) {
    return bigEndian ? (uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3])
                     : (uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0]);
}

// A byte-order mark at the start is dropped and decides the byte order,
// whichever order the name promised; without one the name's order holds.
bool convertUtf16(UTF8Converter* converter, Str* out, const char* begin, const char* end,
                  bool bigEndian) {
    if (begin == end) return false;
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    if (e - p >= 2) {
        if (p[0] == 0xFE && p[1] == 0xFF) {
            bigEndian = true;
            p += 2;
        } else if (p[0] == 0xFF && p[1] == 0xFE) {
            bigEndian = false;
            p += 2;
        }
    }
    out->reserve(out->size() + static_cast<size_t>(e - p) * 3 / 2);
    Utf8Sink sink(out);
    char* o = sink.start();
    char* const limit = sink.limit();
    while (e - p >= 2) {
        if (o >= limit) o = sink.drain(o);
        const uint32_t u = read16(p, bigEndian);
        p += 2;
        if (u < 0xD800 || u > 0xDFFF) {
            o = putUtf8(o, u);
            continue;
        }
        if (u <= 0xDBFF && e - p >= 2) {
            const uint32_t low = read16(p, bigEndian);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                o = putUtf8(o, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
                p += 2;
                continue;
            }
        }
        o = converter->_utf8_append_two_invalid(o, static_cast<uint16_t>(u), bigEndian);
    }
    if (p < e) o = converter->_utf8_append_invalid(o, *p);
    sink.finish(o);
    return true;
}

}  // namespace

bool utf8_converter_utf16be(UTF8Converter* converter, Str* out, const char* begin,
                            const char* end) {
    return convertUtf16(converter, out, begin, end, true);
}

bool utf8_converter_utf16le(UTF8Converter* converter, Str* out, const char* begin,
                            const char* end) {
    return convertUtf16(converter, out, begin, end, false);
}

// The same byte-order rule as UTF-16. A unit above U+10FFFF or in the
// surrogate range is marked as its four bytes; a short tail byte by byte.
bool utf8_converter_ucs4(UTF8Converter* converter, Str* out, const char* begin, const char* end) {
    if (begin == end) return false;
    bool bigEndian =
        static_cast<const UTF8Converter::ucs4_reader*>(converter->_spec.data)->bigEndian;
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    if (e - p >= 4) {
        if (read32(p, true) == 0xFEFF) {
            bigEndian = true;
            p += 4;
        } else if (read32(p, false) == 0xFEFF) {
            bigEndian = false;
            p += 4;
        }
    }
    out->reserve(out->size() + static_cast<size_t>(e - p));
    Utf8Sink sink(out);
    char* o = sink.start();
    char* const limit = sink.limit();
    for (; e - p >= 4; p += 4) {
        if (o >= limit) o = sink.drain(o);
        const uint32_t u = read32(p, bigEndian);
        if (u <= 0x10FFFF && (u < 0xD800 || u > 0xDFFF)) {
            o = putUtf8(o, u);
        } else {
            for (int i = 0; i < 4; ++i) o = converter->_utf8_append_invalid(o, p[i]);
        }
    }
    for (; p < e; ++p) o = converter->_utf8_append_invalid(o, *p);
    sink.finish(o);
    return true;
}

// ---------------------------------------------------------------- UTF-7

namespace {

struct Base64Values {
    int8_t v[256];
    constexpr Base64Values() : v() {
        for (int b = 0; b < 256; ++b) v[b] = -1;
        for (int k = 0; k < 26; ++k) {
            v['A' + k] = static_cast<int8_t>(k);
            v['a' + k] = static_cast<int8_t>(26 + k);
        }
        for (int k = 0; k < 10; ++k) v['0' + k] = static_cast<int8_t>(52 + k);
        v[static_cast<unsigned char>('+')] = 62;
        v[static_cast<unsigned char>('/')] = 63;
    }
    int operator[](char c) const { return v[static_cast<unsigned char>(c)]; }
};
constexpr Base64Values kBase64;

// UTF-16 units, paired into characters; a surrogate without its other half
// is marked as the two bytes of the unit, in UTF-16's big-endian order.
class SurrogatePairing {
public:
    explicit SurrogatePairing(UTF8Converter* converter) : _converter(converter) {}

    char* put(char* o, uint32_t unit) {
        if (_high != 0) {
            if (unit >= 0xDC00 && unit <= 0xDFFF) {
                o = putUtf8(o, 0x10000 + ((_high - 0xD800) << 10) + (unit - 0xDC00));
                _high = 0;
                return o;
            }
            o = finish(o);
        }
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            _high = unit;
            return o;
        }
        if (unit >= 0xDC00 && unit <= 0xDFFF) {
            return _converter->_utf8_append_two_invalid(o, static_cast<uint16_t>(unit), true);
        }
        return putUtf8(o, unit);
    }
    char* finish(char* o) {
        if (_high != 0)
            o = _converter->_utf8_append_two_invalid(o, static_cast<uint16_t>(_high), true);
        _high = 0;
        return o;
    }

private:
    UTF8Converter* _converter;
    uint32_t _high = 0;
};

}  // namespace

// RFC 2152. Every ASCII byte but "+" stands for itself, the optional direct
// characters and "\" and "~" included. "+-" is "+"; "+" and base64 digits
// are UTF-16 units, big-endian, up to the first non-base64 byte, and a "-"
// right there is dropped. Bits left over at the end of a run are padding and
// are dropped when fewer than 6; base64 digits whose bits never reach a
// whole unit are marked. A "+" followed by neither "-" nor a base64 digit is
// marked, and so is every byte from 0x80 up.
bool utf8_converter_utf7(UTF8Converter* converter, Str* out, const char* begin, const char* end) {
    LazyOutput lazy(out, begin, end);
    const char* p = begin;
    while (p < end) {
        while (p < end && *p != '+' && static_cast<unsigned char>(*p) < 0x80) ++p;
        if (p == end) break;
        char* o = lazy.at(p);
        if (*p != '+') {
            o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(*p));
            lazy.wrote(o, ++p);
            continue;
        }
        const char* q = p + 1;
        if (q < end && *q == '-') {
            *o++ = '+';
            p = q + 1;
            lazy.wrote(o, p);
            continue;
        }
        if (q == end || kBase64[*q] < 0) {
            o = converter->_utf8_append_invalid(o, '+');
            p = q;
            lazy.wrote(o, p);
            continue;
        }
        SurrogatePairing units(converter);
        uint32_t bits = 0;
        unsigned nbits = 0;
        for (; q < end && kBase64[*q] >= 0; ++q) {
            bits = (bits << 6) | static_cast<uint32_t>(kBase64[*q]);
            nbits += 6;
            if (nbits >= 16) {
                nbits -= 16;
                o = units.put(lazy.room(o), (bits >> nbits) & 0xFFFF);
            }
        }
        o = units.finish(lazy.room(o));
        for (const char* c = q - nbits / 6; c < q; ++c) {
            o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(*c));
        }
        if (q < end && *q == '-') ++q;
        p = q;
        lazy.wrote(o, p);
    }
    return lazy.finish();
}

// ---------------------------------------------------------------- UTF-EBCDIC

// UTR #16: each byte goes through a fixed byte map into the intermediate
// form I8, which is UTF-8 with five payload bits in each trailing byte
// (0xA0-0xBF) and single bytes up to 0x9F. Sequences must be the shortest
// form, up to U+10FFFF and not a surrogate; a byte that doesn't start one is
// marked.
bool utf8_converter_utfebcdic(UTF8Converter* converter, Str* out, const char* begin,
                              const char* end) {
    const uint8_t* map = utf8_utfebcdic_to_i8;
    LazyOutput lazy(out, begin, end);
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    while (p < e) {
        const unsigned i8 = map[*p];
        if (i8 == *p && i8 < 0x80) {
            ++p;
            continue;
        }
        char* o = lazy.at(reinterpret_cast<const char*>(p));
        size_t need = 0;
        uint32_t cp = 0, min = 0;
        if (i8 < 0xA0) {
            cp = i8;
        } else if (i8 >= 0xC0 && i8 <= 0xDF) {
            need = 1, cp = i8 & 0x1F, min = 0xA0;
        } else if (i8 >= 0xE0 && i8 <= 0xEF) {
            need = 2, cp = i8 & 0x0F, min = 0x400;
        } else if (i8 >= 0xF0 && i8 <= 0xF7) {
            need = 3, cp = i8 & 0x07, min = 0x4000;
        } else if (i8 >= 0xF8 && i8 <= 0xFB) {
            need = 4, cp = i8 & 0x03, min = 0x40000;
        } else {
            min = 0xFFFFFFFF;  // a trailing byte, or a lead of more than five bytes
        }
        bool ok = static_cast<size_t>(e - p) > need;
        for (size_t i = 1; ok && i <= need; ++i) {
            const unsigned t = map[p[i]];
            ok = t >= 0xA0 && t <= 0xBF;
            cp = (cp << 5) | (t & 0x1F);
        }
        ok = ok && cp >= min && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
        if (ok) {
            o = putUtf8(o, cp);
            p += need + 1;
        } else {
            o = converter->_utf8_append_invalid(o, *p);
            ++p;
        }
        lazy.wrote(o, reinterpret_cast<const char*>(p));
    }
    return lazy.finish();
}

// ---------------------------------------------------------------- Java and C99

namespace {

inline int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool readHex(const char* p, const char* e, int digits, uint32_t* value) {
    if (e - p < digits) return false;
    uint32_t v = 0;
    for (int i = 0; i < digits; ++i) {
        const int d = hexDigit(p[i]);
        if (d < 0) return false;
        v = (v << 4) | static_cast<uint32_t>(d);
    }
    *value = v;
    return true;
}

// The escape at p, a backslash: \uXXXX (Java lets the "u" repeat) or
// \UXXXXXXXX. Its length, or 0 when p starts none.
size_t escapeAt(const char* p, const char* e, uint32_t* value) {
    if (e - p < 2) return 0;
    if (p[1] == 'u') {
        const char* q = p + 1;
        while (q < e && *q == 'u') ++q;
        return readHex(q, e, 4, value) ? static_cast<size_t>(q + 4 - p) : 0;
    }
    if (p[1] == 'U') return readHex(p + 2, e, 8, value) ? 10 : 0;
    return 0;
}

}  // namespace

// The escapes of Java source text and of C99 universal character names:
// \uXXXX, \UXXXXXXXX, and a high and low surrogate as two \u escapes in a
// row. A backslash starts an escape only when an even number of backslashes
// precede it, so "\\u0041" stays as it is. All other text is kept; an escape
// of a lone surrogate or of a value above U+10FFFF has its backslash marked
// and the rest kept as text, and bytes from 0x80 up are marked (both forms
// are ASCII).
bool utf8_converter_java_c99(UTF8Converter* converter, Str* out, const char* begin,
                             const char* end) {
    LazyOutput lazy(out, begin, end);
    const char* p = begin;
    while (p < end) {
        const unsigned char b = static_cast<unsigned char>(*p);
        if (b >= 0x80) {
            char* o = converter->_utf8_append_invalid(lazy.at(p), b);
            lazy.wrote(o, ++p);
            continue;
        }
        if (b != '\\') {
            ++p;
            continue;
        }
        const char* run = p;
        while (p < end && *p == '\\') ++p;
        if ((p - run) % 2 == 0) continue;
        const char* escape = p - 1;
        uint32_t v = 0;
        const size_t n = escapeAt(escape, end, &v);
        if (n == 0) continue;
        char* o = lazy.at(escape);
        const char* next = escape + n;
        if (v >= 0xD800 && v <= 0xDBFF && escape[1] == 'u' && next < end && *next == '\\' &&
            next + 1 < end && next[1] == 'u') {
            uint32_t low = 0;
            const size_t m = escapeAt(next, end, &low);
            if (m != 0 && low >= 0xDC00 && low <= 0xDFFF) {
                v = 0x10000 + ((v - 0xD800) << 10) + (low - 0xDC00);
                next += m;
            }
        }
        if (v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) {
            o = converter->_utf8_append_invalid(o, '\\');
            p = escape + 1;
        } else {
            o = putUtf8(o, v);
            p = next;
        }
        lazy.wrote(o, p);
    }
    return lazy.finish();
}

// ---------------------------------------------------------------- single-byte sets

namespace {

struct AsciiIdentity {
    uint16_t v[128];
    constexpr AsciiIdentity() : v() {
        for (int i = 0; i < 128; ++i) v[i] = static_cast<uint16_t>(i);
    }
};
constexpr AsciiIdentity kAsciiIdentity;

// The UTF-8 form of each byte from 0x80 up, packed first byte lowest, and its
// length (0: unmapped). Built per call for long texts, where it pays off: each
// high byte is then one load and one four-byte store.
struct HighByteForms {
    uint32_t bytes[128];
    uint8_t len[128];
    bool allTwoBytes = true;  // every high byte maps into U+0080..U+07FF

    explicit HighByteForms(const uint16_t* table) {
        for (unsigned i = 0; i < 128; ++i) {
            const uint32_t cp = table[0x80 + i];
            ASSERT(cp != 0);
            char buf[4] = {0, 0, 0, 0};
            len[i] = cp == 0xFFFF ? 0 : static_cast<uint8_t>(putUtf8(buf, cp) - buf);
            memcpy(&bytes[i], buf, 4);
            allTwoBytes = allTwoBytes && len[i] == 2;
        }
    }
};

constexpr size_t kLongText = 1024;

// A long text in a set that keeps ASCII as it is.
bool convertLongOnebyte(UTF8Converter* converter, Str* out, const uint16_t* table, bytes_t p,
                        bytes_t e) {
    const HighByteForms forms(table);
    size_t extra = 0;
    bool high = false;
    for (bytes_t s = p; s < e;) {
        if (e - s >= 16) {
            const unsigned m = bytescan::nonAsciiMask16(reinterpret_cast<const char*>(s));
            if (m == 0) {
                s += 16;
                continue;
            }
            high = true;
            if (forms.allTwoBytes) {
                extra += static_cast<size_t>(__builtin_popcount(m));
                s += 16;
                continue;
            }
            s += __builtin_ctz(m);
        }
        const unsigned b = *s++;
        if (b >= 0x80) {
            high = true;
            extra += forms.len[b - 0x80] ? forms.len[b - 0x80] - 1u : 3u;
        }
    }
    if (!high) return false;

    // Three bytes of slack for the four-byte stores.
    const size_t before = out->size(), size = static_cast<size_t>(e - p) + extra;
    out->resize(before + size + 3);
    char* o = out->data() + before;
    while (p < e) {
        if (e - p >= 16) {
            const unsigned m = bytescan::nonAsciiMask16(reinterpret_cast<const char*>(p));
            memcpy(o, p, 16);
            if (m == 0) {
                o += 16;
                p += 16;
                continue;
            }
            const unsigned k = static_cast<unsigned>(__builtin_ctz(m));
            o += k;
            p += k;
        }
        const unsigned b = *p++;
        if (b < 0x80) {
            *o++ = static_cast<char>(b);
        } else if (forms.len[b - 0x80] != 0) {
            memcpy(o, &forms.bytes[b - 0x80], 4);
            o += forms.len[b - 0x80];
        } else {
            o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(b));
        }
    }
    ASSERT(o == out->data() + before + size);
    out->resize(before + size);
    return true;
}

}  // namespace

// Two passes: the first sizes the output (and finds whether any byte changes
// at all), the second writes it in place. With a table that keeps ASCII as
// it is, ASCII goes 16 bytes at a time in both.
bool utf8_converter_engine_onebyte(UTF8Converter* converter, Str* out, const char* begin,
                                   const char* end) {
    const uint16_t* table = static_cast<const uint16_t*>(converter->_spec.data);
    const bool identity = memcmp(table, kAsciiIdentity.v, sizeof kAsciiIdentity.v) == 0;
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    if (identity && static_cast<size_t>(e - p) >= kLongText) {
        return convertLongOnebyte(converter, out, table, p, e);
    }

    size_t extra = 0;
    uint32_t changed = 0;
    for (bytes_t s = p; s < e;) {
        if (identity && e - s >= 16) {
            const unsigned m = bytescan::nonAsciiMask16(reinterpret_cast<const char*>(s));
            if (m == 0) {
                s += 16;
                continue;
            }
            s += __builtin_ctz(m);
        }
        const uint32_t b = *s++;
        const uint32_t cp = table[b];
        changed |= (cp ^ b) | (b & 0x80);
        extra += (cp > 0x7F) + (cp > 0x7FF) + (cp == 0xFFFF);
    }
    if (changed == 0) return false;

    const size_t before = out->size();
    out->resize(before + static_cast<size_t>(e - p) + extra);
    char* o = out->data() + before;
    while (p < e) {
        // Every byte gives at least one, so 16 input bytes left means 16
        // bytes of room.
        if (identity && e - p >= 16) {
            const unsigned m = bytescan::nonAsciiMask16(reinterpret_cast<const char*>(p));
            memcpy(o, p, 16);
            if (m == 0) {
                o += 16;
                p += 16;
                continue;
            }
            const unsigned k = static_cast<unsigned>(__builtin_ctz(m));
            o += k;
            p += k;
        }
        const uint32_t b = *p++;
        const uint32_t cp = table[b];
        if (cp == b && b < 0x80) {
            *o++ = static_cast<char>(b);
            continue;
        }
        ASSERT(cp != 0);
        o = cp == 0xFFFF ? converter->_utf8_append_invalid(o, static_cast<unsigned char>(b))
                         : putUtf8(o, cp);
    }
    ASSERT(o == out->data() + out->size());
    return true;
}

// ---------------------------------------------------------------- double-byte sets

namespace {

typedef UTF8Converter::dbcs_table DbcsTable;
typedef UTF8Converter::dbcs_row DbcsRow;

inline char* putExtra(char* o, uint32_t x) {
    if (x & 0x80000000u) return putUtf8(putUtf8(o, (x >> 16) & 0x7FFF), x & 0xFFFF);
    return putUtf8(o, x);
}

constexpr uint32_t kGb18030SupplementaryBase = 189000;  // linear index of 90 30 81 30

// A GB18030 four-byte code at p (the first two bytes already look like one).
bytes_t decodeGb18030Four(UTF8Converter* converter, const DbcsTable* t, bytes_t p, bytes_t e,
                          char** out) {
    if (e - p < 4 || p[2] < 0x81 || p[2] > 0xFE || p[3] < 0x30 || p[3] > 0x39) {
        *out = converter->_utf8_append_invalid(*out, p[0]);
        return p + 1;
    }
    const uint32_t linear =
        (((p[0] - 0x81u) * 10 + (p[1] - 0x30u)) * 126 + (p[2] - 0x81u)) * 10 + (p[3] - 0x30u);
    uint32_t cp = 0;
    if (linear >= kGb18030SupplementaryBase) {
        if (linear - kGb18030SupplementaryBase <= 0xFFFFF) {
            cp = 0x10000 + linear - kGb18030SupplementaryBase;
        }
    } else {
        // The last range that starts at or before `linear`.
        size_t lo = 0, hi = t->rangeCount;
        while (lo < hi) {
            const size_t mid = (lo + hi) / 2;
            if (t->ranges[3 * mid] <= linear) {
                lo = mid + 1;
            } else {
                hi = mid;
            }
        }
        if (lo > 0) {
            const uint32_t* r = t->ranges + 3 * (lo - 1);
            if (linear - r[0] < r[2]) cp = r[1] + (linear - r[0]);
        }
    }
    char* o = *out;
    if (cp == 0) {
        for (int i = 0; i < 4; ++i) o = converter->_utf8_append_invalid(o, p[i]);
    } else {
        o = putUtf8(o, cp);
    }
    *out = o;
    return p + 4;
}

// The sequence at p, whose first byte does not stand alone.
bytes_t decodeSequence(UTF8Converter* converter, const DbcsTable* t, bytes_t p, bytes_t e,
                       char** out) {
    if (t->kind == UTF8Converter::DBCS_GB18030 && e - p >= 2 && p[1] >= 0x30 && p[1] <= 0x39 &&
        p[0] >= 0x81 && p[0] <= 0xFE) {
        return decodeGb18030Four(converter, t, p, e, out);
    }
    const UTF8Converter::dbcs_plane* plane = t->planes;
    bytes_t q = p;
    for (;;) {
        const unsigned c = *q;
        if (c < plane->first || c > plane->last) break;
        const DbcsRow& row = plane->rows[c - plane->first];
        if (row.prefix) {
            if (++q == e) break;
            plane = t->planes + row.offset;
            continue;
        }
        if (row.lo > row.hi || e - q < 2) break;
        const unsigned trail = q[1];
        if (trail < row.lo || trail > row.hi) break;
        const uint32_t v = t->values[row.offset + trail - row.lo];
        char* o = *out;
        if (v == 0xFFFF) {
            // An ASCII trail is more likely text that follows a stray byte.
            if (trail < 0x80) break;
            for (bytes_t r = p; r <= q + 1; ++r) o = converter->_utf8_append_invalid(o, *r);
        } else if (v - 0xD800 < 0x800) {
            o = putExtra(o, t->extras[row.extra + v - 0xD800]);
        } else {
            o = putUtf8(o, v);
        }
        *out = o;
        return q + 2;
    }
    *out = converter->_utf8_append_invalid(*out, *p);
    return p + 1;
}

// RFC 1843. In ASCII mode "~~" is "~", "~{" enters GB mode and "~" before a
// line feed is a line continuation; in GB mode pairs of bytes 0x21-0x7E are
// GB 2312 codes and "~}" goes back. Any other "~" is marked. A control byte
// (a line end, most often) in GB mode is kept and ends GB mode, so that a
// missing "~}" spoils one line only.
bool convertHz(UTF8Converter* converter, const DbcsTable* t, Str* out, const char* begin,
               const char* end) {
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    bytes_t first = p;
    while (first < e && *first < 0x80 && *first != '~') ++first;
    if (first == e) return false;
    out->append(begin, static_cast<size_t>(first - p));
    Utf8Sink sink(out);
    char* o = sink.start();
    char* const limit = sink.limit();
    const UTF8Converter::dbcs_plane& plane = t->planes[0];
    bool gb = false;
    for (p = first; p < e;) {
        if (o >= limit) o = sink.drain(o);
        const unsigned b = *p;
        if (b == '~') {
            const int c = e - p >= 2 ? p[1] : -1;
            if (!gb && c == '~') {
                *o++ = '~';
            } else if (!gb && c == '{') {
                gb = true;
            } else if (gb && c == '}') {
                gb = false;
            } else if (!(!gb && c == '\n')) {
                o = converter->_utf8_append_invalid(o, '~');
                ++p;
                continue;
            }
            p += 2;
        } else if (b >= 0x80) {
            o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(b));
            ++p;
        } else if (!gb || b < 0x21) {
            *o++ = static_cast<char>(b);
            gb = gb && b >= 0x21;
            ++p;
        } else if (b == 0x7F || e - p < 2 || p[1] < 0x21 || p[1] > 0x7E) {
            o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(b));
            ++p;
        } else {
            const unsigned lead = b | 0x80, trail = p[1] | 0x80u;
            uint32_t v = 0xFFFF;
            if (lead >= plane.first && lead <= plane.last) {
                const DbcsRow& row = plane.rows[lead - plane.first];
                if (!row.prefix && trail >= row.lo && trail <= row.hi) {
                    v = t->values[row.offset + trail - row.lo];
                }
            }
            if (v == 0xFFFF) {
                o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(p[0]));
                o = converter->_utf8_append_invalid(o, static_cast<unsigned char>(p[1]));
            } else {
                o = putUtf8(o, v);
            }
            p += 2;
        }
    }
    sink.finish(o);
    return true;
}

}  // namespace

bool utf8_converter_rulebased(UTF8Converter* converter, Str* out, const char* begin,
                              const char* end) {
    const DbcsTable* t = static_cast<const DbcsTable*>(converter->_spec.data);
    if (t->kind == UTF8Converter::DBCS_HZ) return convertHz(converter, t, out, begin, end);
    bytes_t p = ubytes(begin);
    const bytes_t e = ubytes(end);
    bytes_t first = p;
    if (t->asciiIdentity) {
        first = asciiRunEnd(p, e);
    } else {
        while (first < e && *first < 0x80 && t->single[*first] == *first) ++first;
    }
    if (first == e) return false;
    out->reserve(out->size() + static_cast<size_t>(e - p) * 3 / 2);
    out->append(begin, static_cast<size_t>(first - p));
    Utf8Sink sink(out);
    char* o = sink.start();
    char* const limit = sink.limit();
    for (p = first; p < e;) {
        if (o >= limit) o = sink.drain(o);
        const unsigned b = *p;
        const uint32_t v = t->single[b];
        if (v == b && b < 0x80) {
            if (t->asciiIdentity) {
                const bytes_t run = asciiRunEnd(p, e);
                o = sink.copy(o, reinterpret_cast<const char*>(p), static_cast<size_t>(run - p));
                p = run;
            } else {
                *o++ = static_cast<char>(b);
                ++p;
            }
        } else if (v != 0xFFFF) {
            o = putUtf8(o, v);
            ++p;
        } else {
            // The common case inline: a mapped two-byte code in the BMP.
            const UTF8Converter::dbcs_plane& plane = t->planes[0];
            if (b >= plane.first && b <= plane.last && e - p >= 2) {
                const DbcsRow& row = plane.rows[b - plane.first];
                const unsigned trail = p[1];
                if (!row.prefix && trail >= row.lo && trail <= row.hi) {
                    const uint32_t code = t->values[row.offset + trail - row.lo];
                    if (code - 0xD800 >= 0x800 && code != 0xFFFF) {
                        o = putUtf8(o, code);
                        p += 2;
                        continue;
                    }
                }
            }
            p = decodeSequence(converter, t, p, e, &o);
        }
    }
    sink.finish(o);
    return true;
}
