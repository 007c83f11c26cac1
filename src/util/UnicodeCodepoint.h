#pragma once
// Character knowledge for UTF-8 text: classes, simple case mappings and the
// composition of combining marks, from tables generated out of the Unicode
// Character Database (tools/gen-unicode-tables.py documents what each flag
// means).
//
// A multi-byte character is looked up as its packed UTF-8 bytes, the bytes of
// one character in a 32-bit word with the first byte highest (U+00E9 is
// 0xC3A9), so that string functions work on the bytes as they stand; a case
// pair is stored as the XOR of the two packed values. Packed values keep the
// order of code points, and the table's ranges never reach from one encoded
// length into another, so that a lookup of a lead byte with the continuation
// bytes after it finds nothing when they are no well-formed character.

#include <array>
#include <cstddef>
#include <cstdint>

#include "util/Str.h"

// ---------------------------------------------------------------- flags

constexpr uint32_t UNICODE_ALPHA = 0x80000000u;
constexpr uint32_t UNICODE_CASE_FIELD = 0x60000000u;
constexpr uint32_t UNICODE_UPPER = 0x20000000u;        // low 24 bits: XOR to the lower case
constexpr uint32_t UNICODE_LOWER = 0x40000000u;        // low 24 bits: XOR to the upper case
constexpr uint32_t UNICODE_ALTERNATING = 0x60000000u;  // even code point upper, odd lower
constexpr uint32_t UNICODE_DIGIT = 0x10000000u;
constexpr uint32_t UNICODE_SPACE = 0x08000000u;
constexpr uint32_t UNICODE_CONTROL = 0x04000000u;
constexpr uint32_t UNICODE_PRINTABLE = 0x02000000u;
constexpr uint32_t UNICODE_PUNCT = 0x01000000u;
constexpr uint32_t UNICODE_GRAPHIC = UNICODE_ALPHA | UNICODE_DIGIT | UNICODE_PUNCT;
constexpr uint32_t UNICODE_CASE_XOR = 0x00FFFFFFu;

// The smallest packed value of a multi-byte character (U+0080).
constexpr uint32_t UTF8BYTES_MIN_MULTIBYTE = 0xC280u;

// ---------------------------------------------------------------- tables

// Packed values first <= v < end share `flags`.
struct utf8_flag_range {
    uint32_t first;
    uint32_t flags;
    uint32_t end;
};

// One combining mark and its bit in a mark set.
struct utf8_combiner_mark {
    uint32_t utf8bytes;
    uint64_t bit;
};

// A base character and a set of marks that together make `composed`.
struct utf8_combiner {
    uint32_t base;
    uint32_t composed;
    uint64_t marks;
};

extern const char unicode_tables_version[];
extern const utf8_flag_range utf8_flag_ranges[];
extern const size_t utf8_flag_ranges_count;
// For code points below the limit: block cp >> 6 has its ranges among
// [index[block], index[block + 1]], so that a lookup searches a few entries.
extern const uint16_t utf8_flag_block_index[];
extern const uint32_t utf8_flag_block_index_limit;
// Below that limit, bit (cp >> 6) set when the block of cp holds a character
// that has another case.
extern const uint64_t utf8_case_block_bits[];
extern const utf8_combiner_mark utf8_combiner_marks[];  // by packed value, bit i at i
extern const size_t utf8_combiner_marks_count;
extern const utf8_combiner utf8_combiners[];  // by base, then mark set
extern const size_t utf8_combiners_count;

// ---------------------------------------------------------------- packed bytes

// 0 for values above U+10FFFF; surrogates are packed like any other value.
uint32_t codepoint_to_utf8bytes(uint32_t codepoint);
// The inverse, for a packed value of well-formed bytes; below 0x100 the value
// itself.
uint32_t utf8bytes_to_codepoint(uint32_t utf8bytes);
// Bytes in a packed value: 1 to 4.
inline size_t utf8bytes_length(uint32_t utf8bytes) {
    return utf8bytes < 0x100 ? 1 : utf8bytes < 0x10000 ? 2 : utf8bytes < 0x1000000 ? 3 : 4;
}
// Writes the bytes of a packed value; returns how many.
size_t utf8bytes_store(uint32_t utf8bytes, char* out);

// The flags of a multi-byte character; 0 for a value of continuation bytes
// after a byte from 0x80 up that is no character.
uint32_t flags_from_utf8bytes(uint32_t utf8bytes);
// The upper- or lower-case form of a packed character (possibly ASCII, as
// for U+212A KELVIN SIGN), or the value itself when it has none.
uint32_t replacement_for_utf8bytes(uint32_t utf8bytes, bool toUpper);
// U+01D5 and U+01D6 (U with diaeresis and macron) share their set of marks
// with U+1E7A and U+1E7B, so their case is decided by their base letter:
// gives "U" and "u" for them, and any other value unchanged.
uint32_t u1d5_and_u1d6_workaround(uint32_t utf8bytes);

// ---------------------------------------------------------------- UnicodeCodepoint

// One code point. While `_accumulateUtf8Byte` collects a sequence, the word
// holds the bytes so far from its top byte down instead.
class UnicodeCodepoint {
public:
    uint32_t _value = 0;

    constexpr UnicodeCodepoint() = default;
    constexpr explicit UnicodeCodepoint(uint32_t codepoint) : _value(codepoint) {}

    constexpr uint32_t value() const { return _value; }
    friend constexpr bool operator==(UnicodeCodepoint, UnicodeCodepoint) = default;

    // ASCII as the C locale classes it; above, by the flags.
    bool isAlnum() const { return test(kAsciiAlnum, UNICODE_ALPHA | UNICODE_DIGIT); }
    bool isAlpha() const { return test(kAsciiAlpha, UNICODE_ALPHA); }
    bool isCntrl() const { return test(kAsciiCntrl, UNICODE_CONTROL); }
    bool isGraph() const { return test(kAsciiGraph, UNICODE_GRAPHIC); }
    bool isPrint() const { return test(kAsciiPrint, UNICODE_PRINTABLE); }
    bool isPunct() const { return test(kAsciiPunct, UNICODE_PUNCT); }
    bool isSpace() const { return test(kAsciiSpace, UNICODE_SPACE); }
    bool isLower() const;
    bool isUpper() const;
    UnicodeCodepoint toLowercase() const;
    UnicodeCodepoint toUppercase() const;

    // Feeds one byte of UTF-8; true when a whole valid code point now stands in
    // the word. A byte that can't continue the open sequence starts a new one
    // (or is dropped, if it can't start one either). Over-long forms,
    // surrogates and values above U+10FFFF give false.
    bool _accumulateUtf8Byte(uint8_t byte);

private:
    static constexpr uint8_t kAsciiAlnum = 1, kAsciiAlpha = 2, kAsciiCntrl = 4, kAsciiGraph = 8,
                             kAsciiPrint = 16, kAsciiPunct = 32, kAsciiSpace = 64;
    static constexpr std::array<uint8_t, 128> asciiClasses();
    static const std::array<uint8_t, 128> kAsciiClasses;

    bool test(uint8_t asciiClass, uint32_t flags) const {
        if (_value < 0x80) return (kAsciiClasses[_value] & asciiClass) != 0;
        return (multibyteFlags() & flags) != 0;
    }
    uint32_t multibyteFlags() const;
};
