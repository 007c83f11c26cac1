#pragma once
// Unicode text streams over any byte source or sink: a reader that detects
// the encoding and hands out UTF-8, and a writer that takes UTF-8 (or code
// points, or printf-style formats) and writes the encoding of its choice.
// A subclass supplies one virtual: read_byte or write_byte. Broken input is
// read and written as U+FFFD, never raised (see libzero/unicode-file-reader.h).
// A stream belongs to one thread at a time.

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"
#include "util/Str.h"

class ReadableUnicodeStream {
public:
    ReadableUnicodeStream();
    virtual ~ReadableUnicodeStream();
    ReadableUnicodeStream(const ReadableUnicodeStream&) = delete;
    ReadableUnicodeStream& operator=(const ReadableUnicodeStream&) = delete;

    // UTRANS_EOF at the end; see the utrans_ functions of the same names.
    int readRawByte() { return utrans_read_rawbyte(&_reader); }
    int32_t readCodepoint() { return utrans_read_codepoint(&_reader); }
    int getcUtf8() { return utrans_getc_utf8(&_reader); }
    // The next line, without its line end, replaces `line`; false at the end
    // of the text (with `line` emptied). Raises std::bad_alloc when memory
    // runs out.
    bool readLine(Str* line);

    // The detected encoding with UTRANS_BOM; 0 before the first read.
    int encoding() const { return _reader._encoding; }
    // Whether the line ends read so far are mixed or mostly CRLF, for a
    // writer that keeps the file's style.
    bool crlfLineEnds() const { return _reader._crlf; }
    uint64_t lfLines() const { return _reader._lf_lines; }
    uint64_t crlfLines() const { return _reader._crlf_lines; }
    uint64_t invalidSequences() const { return _reader._invalid; }

protected:
    // The next byte (0 to 255), or -1 at the end or on an error.
    virtual int read_byte() = 0;

private:
    static int readTrampoline(void* self);
    utrans_reader _reader;
};

// Reads a FILE* that stays open and belongs to the caller. The first read
// takes up to 64 bytes ahead from it.
class ReadableUnicodeFileStar : public ReadableUnicodeStream {
public:
    explicit ReadableUnicodeFileStar(FILE* file) : _file(file) {}

protected:
    int read_byte() override;

private:
    FILE* _file;
};

// Results: true, or false when the sink failed (errno as it left it). A
// subclass's destructor calls flush(): this one can no longer reach the sink.
class WritableUnicodeStream {
public:
    // The low byte of `encoding` chooses; see utrans_write_start.
    explicit WritableUnicodeStream(int encoding = UTRANS_UTF8);
    virtual ~WritableUnicodeStream();
    WritableUnicodeStream(const WritableUnicodeStream&) = delete;
    WritableUnicodeStream& operator=(const WritableUnicodeStream&) = delete;

    int encoding() const { return _writer._encoding; }
    uint64_t invalidSequences() const { return _writer._invalid; }

    bool writeBom() { return utrans_write_bom(&_writer) == 0; }
    // UTF-8 text; a sequence cut off at the end waits for the next call.
    bool put(StrSegment utf8) { return utrans_write_utf8(&_writer, utf8._data, utf8._len) == 0; }
    bool putCodepoint(uint32_t codepoint) {
        return utrans_write_codepoint(&_writer, codepoint) == 0;
    }
    // Through the library's printf engine; %m is the text of errno at the call.
    bool format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    bool vformat(const char* fmt, va_list args);
    bool format_unsigned(uint64_t value);
    bool format_signed(int64_t value);
    // Shortest digits that read back to the same double, never an exponent.
    bool format_double(double value);
    // Writes a sequence still held from put() as U+FFFD, then flushes the
    // sink. The stream may go on being used.
    bool flush();

protected:
    virtual bool write_byte(int byte) = 0;
    // Passes the sink's buffered bytes on; nothing to do by default.
    virtual bool flush_sink() { return true; }

private:
    static int writeTrampoline(void* self, uint8_t byte);
    utrans_writer _writer;
};

// Writes to a FILE* that stays open and belongs to the caller; destruction
// flushes.
class WritableUnicodeFileStar : public WritableUnicodeStream {
public:
    explicit WritableUnicodeFileStar(FILE* file, int encoding = UTRANS_UTF8)
        : WritableUnicodeStream(encoding), _file(file) {}
    ~WritableUnicodeFileStar() override;

protected:
    bool write_byte(int byte) override;
    bool flush_sink() override;

private:
    FILE* _file;
};
