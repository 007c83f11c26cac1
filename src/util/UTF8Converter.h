#pragma once
// Conversion of other character sets into UTF-8. A converter is chosen by
// the name of a character set (as found in MIME headers, XML declarations,
// locale names) and then turns text of that set into UTF-8. Bytes that can't
// be decoded never stop a conversion: each is written as the four characters
// "\xHH" (uppercase hexadecimal) and counted.
//
// Every engine has the same shape and contract: it appends the UTF-8 form of
// [begin, end) to *out and returns true, or, when the text is already its own
// UTF-8 form (plain ASCII in an ASCII-compatible set, valid UTF-8 in UTF-8),
// returns false and leaves *out untouched, so that the caller keeps the
// original text without a copy.

#include <cstddef>
#include <cstdint>

#include "util/Str.h"

class UTF8Converter {
public:
    typedef bool (*engine_function)(UTF8Converter* converter, Str* out, const char* begin,
                                    const char* end);

    // One entry of the table of character set names.
    struct spec {
        const char* name;  // normalised: lower-case letters and digits only
        engine_function engine;
        const void* data;  // the engine's table, if it has one
    };

    // Data of the UCS-4 engine: the byte order of the input.
    struct ucs4_reader {
        bool bigEndian;
    };

    // The tables of the rule-based engine for double-byte sets. A code is
    // found by walking planes: the first byte picks a row of plane 0; a
    // prefix row (an EUC single shift) hands the next byte to another plane;
    // a leaf row takes one trail byte in [lo, hi] and reads its code value.
    struct dbcs_row {
        uint32_t offset;  // leaf: index in `values` of trail `lo`; prefix: the next plane
        uint32_t extra;   // leaf: index in `extras` that code value 0xD800 stands for
        uint8_t lo, hi;   // leaf: trail byte range; lo > hi when the byte leads nothing
        uint8_t prefix;   // 1 for a prefix row
    };
    struct dbcs_plane {
        const dbcs_row* rows;  // rows[byte - first]
        uint8_t first, last;
    };
    enum dbcs_kind : uint8_t {
        DBCS_PLAIN = 0,
        DBCS_GB18030 = 1,  // plus four-byte codes
        DBCS_HZ = 2,       // "~{" ... "~}" shifts into GB 2312 pairs of seven-bit bytes
    };
    struct dbcs_table {
        // The code value of each byte that stands alone; 0xFFFF for a byte
        // that leads a sequence or is not used.
        const uint16_t* single;
        const dbcs_plane* planes;  // planes[0] is indexed by the first byte
        // Code values: 0xFFFF is unmapped; 0xD800 to 0xDFFF refer to
        // extras[row.extra + value - 0xD800], which holds a code point above
        // U+FFFF or, with bit 31 set, two code points (bits 16-30 and 0-15).
        const uint16_t* values;
        const uint32_t* extras;
        // GB18030 four-byte codes of the BMP: triples of (first linear index,
        // first code point, count), sorted.
        const uint32_t* ranges;
        uint32_t rangeCount;
        dbcs_kind kind;
        bool asciiIdentity;  // single[b] == b for every b below 0x80
    };

    spec _spec = {nullptr, nullptr, nullptr};
    size_t _invalidBytes = 0;  // input bytes written as "\xHH", over all calls

    UTF8Converter() = default;
    explicit UTF8Converter(const spec& chosen) : _spec(chosen) {}

    // Looks a character set name up, ignoring case and every character but
    // ASCII letters and digits ("ISO-8859-1", "iso_8859_1" and "ISO8859 1"
    // are one name); a zero byte ends the name. False when it is unknown.
    static bool find_engine(spec* result, const char* name, size_t length);
    static bool find_engine(spec* result, const char* name);

    // find_engine into this converter; on false the converter is unchanged.
    bool choose(StrSegment name) { return find_engine(&_spec, name._data, name._len); }
    bool hasEngine() const { return _spec.engine != nullptr; }
    const char* name() const { return _spec.name; }

    // The engine's contract (see the top of this file): true when *out has
    // had the UTF-8 text appended.
    bool convert(Str* out, const char* begin, const char* end) {
        ASSERT(_spec.engine != nullptr);
        return _spec.engine(this, out, begin, end);
    }
    bool convert(Str* out, StrSegment text) {
        return convert(out, text._data, text._data + text._len);
    }
    // Replaces the text by its UTF-8 form, when that differs.
    void convertInPlace(Str* text);

    size_t invalidBytes() const { return _invalidBytes; }
    void resetInvalidBytes() { _invalidBytes = 0; }

    // Write "\xHH" for one bad byte at `to` and count it; return the end.
    char* _utf8_append_invalid(char* to, unsigned char byte) {
        static const char hex[] = "0123456789ABCDEF";
        to[0] = '\\';
        to[1] = 'x';
        to[2] = hex[byte >> 4];
        to[3] = hex[byte & 15];
        ++_invalidBytes;
        return to + 4;
    }
    // A bad 16-bit unit: its two bytes, in the byte order of the input.
    char* _utf8_append_two_invalid(char* to, uint16_t unit, bool bigEndian) {
        const unsigned char hi = static_cast<unsigned char>(unit >> 8);
        const unsigned char lo = static_cast<unsigned char>(unit);
        to = _utf8_append_invalid(to, bigEndian ? hi : lo);
        return _utf8_append_invalid(to, bigEndian ? lo : hi);
    }
};

// The engines. Each reads its table, if it has one, from _spec.data.
bool utf8_converter_utf8(UTF8Converter* converter, Str* out, const char* begin, const char* end);
bool utf8_converter_utf16be(UTF8Converter* converter, Str* out, const char* begin, const char* end);
bool utf8_converter_utf16le(UTF8Converter* converter, Str* out, const char* begin, const char* end);
bool utf8_converter_ucs4(UTF8Converter* converter, Str* out, const char* begin, const char* end);
bool utf8_converter_utf7(UTF8Converter* converter, Str* out, const char* begin, const char* end);
bool utf8_converter_utfebcdic(UTF8Converter* converter, Str* out, const char* begin,
                              const char* end);
bool utf8_converter_java_c99(UTF8Converter* converter, Str* out, const char* begin,
                             const char* end);
bool utf8_converter_rulebased(UTF8Converter* converter, Str* out, const char* begin,
                              const char* end);
bool utf8_converter_engine_onebyte(UTF8Converter* converter, Str* out, const char* begin,
                                   const char* end);

// The generated tables: every name, sorted by strcmp, and the UTF-EBCDIC
// byte map (an EBCDIC byte to its byte of the intermediate UTF-8-like form).
extern const UTF8Converter::spec utf8_converter_specs[];
extern const size_t utf8_converter_spec_count;
extern const uint8_t utf8_utfebcdic_to_i8[256];
extern const UTF8Converter::ucs4_reader utf8_ucs4_big_endian;
extern const UTF8Converter::ucs4_reader utf8_ucs4_little_endian;
