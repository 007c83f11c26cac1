#pragma once
// Reading Unicode text files of any of the UTF encodings, with the text handed
// out as UTF-8. The encoding is detected from the first bytes; broken input
// never stops the reader: each broken piece reads as U+FFFD, so that every
// line it hands out is valid UTF-8.
//
// Broken input, piece by piece (the same pieces as Python's "replace"):
//   - UTF-8: one U+FFFD for each maximal start of a valid sequence (an
//     overlong form, a surrogate, a value over U+10FFFF or a truncated
//     sequence breaks off at the first byte that can't continue it, and that
//     byte is read again as the start of the next character);
//   - UTF-16: a lone surrogate is one U+FFFD, and the unit after a lone high
//     surrogate is read again; an odd byte at the end is one U+FFFD;
//   - UTF-32: a unit that is a surrogate or over U+10FFFF, and 1 to 3 bytes
//     at the end, are one U+FFFD each.
// A byte-order mark is not consumed by the detection: it reads as U+FEFF,
// which utrans_getc_utf8 and utrans_readline_utf8 drop wherever it stands.
//
// A reader belongs to one thread at a time.

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Encoding values: the low byte is the encoding, UTRANS_BOM on top of it says
// that a byte-order mark was seen.
constexpr int UTRANS_UNKNOWN = 1;
constexpr int UTRANS_UTF8 = 2;
constexpr int UTRANS_UTF16LE = 3;
constexpr int UTRANS_UTF16BE = 4;
constexpr int UTRANS_UTF32LE = 5;
constexpr int UTRANS_UTF32BE = 6;
constexpr int UTRANS_BOM = 0x8000;
constexpr int UTRANS_ENCODING_MASK = 0xFF;

constexpr int UTRANS_EOF = -1;
constexpr uint32_t UTRANS_REPLACEMENT_CHARACTER = 0xFFFD;
constexpr uint32_t UTRANS_BYTE_ORDER_MARK = 0xFEFF;

constexpr size_t UTRANS_LOOKAHEAD_SIZE = 64;
constexpr size_t UTRANS_RAWBYTE_STACK_SIZE = 3;
constexpr size_t UTRANS_LINE_INITIAL_CAPACITY = 128;

// The encoding of a text from its first `n` bytes; see the constants above.
// Without a mark the answer is UTF-8 (or unknown for no bytes at all): the
// zero-byte count test for UTF-16 can't be met, and that is kept so.
int utrans_detect_encoding(const void* bytes, size_t n);

// A byte source: the next byte (0 to 255), or -1 at the end or on an error
// (with errno set by the source).
typedef int (*utrans_read_function)(void* context);

struct utrans_reader {
    utrans_read_function _read;
    void* _context;
    int _encoding;  // 0 until the first read has detected it
    uint8_t _lookahead[UTRANS_LOOKAHEAD_SIZE];
    uint8_t _lookahead_len;
    uint8_t _lookahead_pos;
    uint8_t _rawstack[UTRANS_RAWBYTE_STACK_SIZE];  // the last pushed is read first
    uint8_t _rawstack_len;
    char _utf8stack[4];  // the rest of a code point for utrans_getc_utf8, last byte first
    uint8_t _utf8stack_len;
    char* _line;  // utrans_readline_utf8's buffer (malloc), kept from line to line
    size_t _line_capacity;
    uint64_t _lf_lines;
    uint64_t _crlf_lines;
    uint64_t _invalid;    // U+FFFD put in place of broken input
    bool _crlf;           // the line ends seen so far are mixed or mostly CRLF
    bool _out_of_memory;  // the last null line came from an allocation failure
};

void utrans_read_start(utrans_reader* r, utrans_read_function read, void* context);
// Reads with getc; the file stays open and belongs to the caller. The first
// read takes up to UTRANS_LOOKAHEAD_SIZE bytes from it at once.
void utrans_read_start_stdio_file(utrans_reader* r, FILE* file);

// The next byte as it stands in the file, or UTRANS_EOF. The first read of
// the reader (at any level) fills the look-ahead and detects the encoding:
// it waits for 64 bytes or the end of the source.
int utrans_read_rawbyte(utrans_reader* r);
// Makes `byte` the next raw byte; at most UTRANS_RAWBYTE_STACK_SIZE wait.
void put_rawbyte_back_on_stack(utrans_reader* r, uint8_t byte);
// The next code point (U+FFFD for broken input), or UTRANS_EOF.
int32_t utrans_read_codepoint(utrans_reader* r);
// The next byte of the text in UTF-8 without any U+FEFF, or UTRANS_EOF.
int utrans_getc_utf8(utrans_reader* r);
// The next line in UTF-8, without U+FEFF and without its line end, zero-
// terminated, valid until the next call or utrans_read_end. A line ends at
// LF or CR LF; a CR that no LF follows is part of the line. The last line
// needs no line end. Null at the end of the text with nothing read, or when
// memory runs out (then _out_of_memory is set, errno is ENOMEM and what was
// read of the line is lost). `length` (optional) receives the byte count.
char* utrans_readline_utf8(utrans_reader* r, size_t* length);
// Frees the line buffer; the source is not closed.
void utrans_read_end(utrans_reader* r);
