#include "util/UnicodeStream.h"

#include <cerrno>
#include <new>

#include "libzero/int-to-ascii.h"
#include "util/BasicConversions.h"
#include "util/PrintfFormat.h"

// ---------------------------------------------------------------- reading

ReadableUnicodeStream::ReadableUnicodeStream() {
    utrans_read_start(&_reader, readTrampoline, this);
}

ReadableUnicodeStream::~ReadableUnicodeStream() { utrans_read_end(&_reader); }

int ReadableUnicodeStream::readTrampoline(void* self) {
    return static_cast<ReadableUnicodeStream*>(self)->read_byte();
}

bool ReadableUnicodeStream::readLine(Str* line) {
    size_t length = 0;
    const char* text = utrans_readline_utf8(&_reader, &length);
    if (text == nullptr) {
        if (_reader._out_of_memory) throw std::bad_alloc();
        line->clear();
        return false;
    }
    line->assign(text, length);
    return true;
}

int ReadableUnicodeFileStar::read_byte() {
    const int c = getc(_file);
    return c == EOF ? -1 : c;
}

// ---------------------------------------------------------------- writing

WritableUnicodeStream::WritableUnicodeStream(int encoding) {
    utrans_write_start(&_writer, encoding, writeTrampoline, this);
}

WritableUnicodeStream::~WritableUnicodeStream() = default;

int WritableUnicodeStream::writeTrampoline(void* self, uint8_t byte) {
    return static_cast<WritableUnicodeStream*>(self)->write_byte(byte) ? 0 : -1;
}

namespace {

// The engine's output, re-encoded as it comes; its pieces may cut through a
// character, which the writer holds over.
class UnicodeWriterOutput final : public PrintfOutput {
public:
    explicit UnicodeWriterOutput(utrans_writer* w) : _w(w) {}
    bool ok = true;

private:
    void emit(const char* data, size_t length) override {
        if (ok && utrans_write_utf8(_w, data, length) != 0) ok = false;
    }
    utrans_writer* _w;
};

}  // namespace

bool WritableUnicodeStream::vformat(const char* fmt, va_list args) {
    const int errnum = errno;
    va_list copy;
    va_copy(copy, args);
    UnicodeWriterOutput out(&_writer);
    try {
        printf_render(out, errnum, fmt, &copy);
    } catch (...) {
        va_end(copy);
        throw;
    }
    va_end(copy);
    return out.ok;
}

bool WritableUnicodeStream::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const bool ok = vformat(fmt, args);
    va_end(args);
    return ok;
}

bool WritableUnicodeStream::format_unsigned(uint64_t value) {
    char digits[20];
    return utrans_write_utf8(&_writer, digits, convertU64ToAscii(value, digits)) == 0;
}

bool WritableUnicodeStream::format_signed(int64_t value) {
    char digits[21];
    return utrans_write_utf8(&_writer, digits, convertI64ToAscii(value, digits)) == 0;
}

bool WritableUnicodeStream::format_double(double value) {
    Str text;
    append_stringified(&text, value);
    return put(text);
}

bool WritableUnicodeStream::flush() {
    const bool ended = utrans_write_end(&_writer) == 0;
    return flush_sink() && ended;
}

WritableUnicodeFileStar::~WritableUnicodeFileStar() { flush(); }

bool WritableUnicodeFileStar::write_byte(int byte) { return putc(byte, _file) != EOF; }

bool WritableUnicodeFileStar::flush_sink() { return fflush(_file) == 0; }
