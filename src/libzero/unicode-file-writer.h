#pragma once
// Writing Unicode text files in any of the UTF encodings from code points or
// from UTF-8. What can't be encoded (a surrogate, a value over U+10FFFF,
// broken UTF-8) is written as U+FFFD, piece by piece as the reader counts
// pieces, and counted; it never fails the write.
//
// Results: 0, or -1 when the sink failed (errno as the sink left it). A
// character cut short by a failing sink is not written again.
//
// A writer belongs to one thread at a time.

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "libzero/unicode-file-reader.h"

// A byte sink: 0, or -1 on failure with errno set.
typedef int (*utrans_write_function)(void* context, uint8_t byte);

struct utrans_writer {
    utrans_write_function _write;
    void* _context;
    int _encoding;        // UTRANS_UTF8 to UTRANS_UTF32BE, without the mark bit
    uint8_t _partial[4];  // the start of a UTF-8 sequence that the next call continues
    uint8_t _partial_len;
    uint64_t _invalid;  // U+FFFD written in place of what couldn't be encoded
};

// The low byte of `encoding` chooses; the mark bit is ignored (see
// utrans_write_bom), and UTRANS_UNKNOWN or any other value writes UTF-8.
void utrans_write_start(utrans_writer* w, int encoding, utrans_write_function write, void* context);
// Writes with putc; the file stays open and belongs to the caller.
void utrans_write_start_stdio_file(utrans_writer* w, int encoding, FILE* file);

// The byte-order mark of the encoding: EF BB BF, FF FE, FE FF, FF FE 00 00 or
// 00 00 FE FF.
int utrans_write_bom(utrans_writer* w);
int utrans_write_rawbyte(utrans_writer* w, uint8_t byte);
// UTF-16 writes a surrogate pair above U+FFFF.
int utrans_write_codepoint(utrans_writer* w, uint32_t codepoint);
// UTF-8 in, re-encoded. A sequence cut off at the end of the data is held
// and continued by the next call, so text may arrive in pieces of any size.
int utrans_write_utf8(utrans_writer* w, const char* data, size_t length);
// A sequence still held from utrans_write_utf8 is written as U+FFFD.
int utrans_write_end(utrans_writer* w);
