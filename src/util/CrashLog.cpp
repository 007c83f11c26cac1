#include "util/CrashLog.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "libzero/int-to-ascii.h"
#include "util/BasicConversions.h"
#include "util/PrintFloatingPoint.h"
#include "util/PrintfFormat.h"

void CrashLogWriteHandler::write(const char* text) { write(text, strlen(text)); }

void CrashLogWriteHandler::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vformat(fmt, args);
    va_end(args);
}

void CrashLogWriteHandler::vformat(const char* fmt, va_list args) {
    printf_render(*this, errno, fmt, args);
}

void CrashLogWriteHandler::writeQuotedString(const char* data, size_t length) {
    static constexpr char hex[] = "0123456789ABCDEF";
    const size_t shown = length < 241 ? length : 75;
    char buf[256];
    size_t n = 0;
    auto flush = [&] {
        write(buf, n);
        n = 0;
    };
    buf[n++] = '"';
    for (size_t i = 0; i < shown; ++i) {
        if (n > sizeof buf - 8) flush();
        const unsigned char c = static_cast<unsigned char>(data[i]);
        switch (c) {
            case '\\':
            case '"':
                buf[n++] = '\\';
                buf[n++] = static_cast<char>(c);
                break;
            case '\n':
                buf[n++] = '\\';
                buf[n++] = 'n';
                break;
            case '\r':
                buf[n++] = '\\';
                buf[n++] = 'r';
                break;
            case '\t':
                buf[n++] = '\\';
                buf[n++] = 't';
                break;
            default:
                if (c >= 0x20 && c <= 0x7E) {
                    buf[n++] = static_cast<char>(c);
                } else {
                    buf[n++] = '\\';
                    buf[n++] = 'x';
                    buf[n++] = hex[c >> 4];
                    buf[n++] = hex[c & 15];
                }
        }
    }
    buf[n++] = '"';
    flush();
    if (shown < length) format("...[%zu more bytes]", length - shown);
}

void CrashLogWriteHandler::writeFlag(const char* name, bool value) {
    write(name);
    write(value ? "=Y" : "=N", 2);
}

void CrashLogWriteHandler::dumpMemory(const char* label, const void* address, size_t length) {
    // Page 0 holds nothing; above it, stay inside the address's own page, so
    // that a bad pointer's neighbour page is never touched.
    constexpr uintptr_t kPage = 4096;
    const uintptr_t a = reinterpret_cast<uintptr_t>(address);
    if (a < kPage) return;
    const size_t inPage = kPage - (a & (kPage - 1));
    const size_t n = length < inPage ? length : inPage;
    format("First %u bytes of %s @%p:\n", static_cast<unsigned>(n), label, address);
    HexDumper::dumpTo(*this, address, n);
}

CrashLogWriteHandlerAppendToStr::CrashLogWriteHandlerAppendToStr(Str* dest)
    : CrashLogWriteHandler(&_target) {
    _target.do_write = &append;
    _target.dest = dest;
    _target.oom = false;
}

void CrashLogWriteHandlerAppendToStr::append(backtrace_writing_handler* h, const char* data,
                                             size_t length) {
    Target* t = static_cast<Target*>(h);
    if (t->oom) return;
    try {
        t->dest->append(data, length);
    } catch (...) {
        t->oom = true;
    }
}

// ---------------------------------------------------------------- base overloads

namespace {

void writeSigned(CrashLogWriteHandler& h, int64_t v) {
    char digits[21];
    h.write(digits, convertI64ToAscii(v, digits));
}

void writeUnsigned(CrashLogWriteHandler& h, uint64_t v) {
    char digits[20];
    h.write(digits, convertU64ToAscii(v, digits));
}

}  // namespace

void crashlog_write(CrashLogWriteHandler& h, bool v) { h.write(v ? "1" : "0", 1); }
void crashlog_write(CrashLogWriteHandler& h, char v) { h.write(&v, 1); }
void crashlog_write(CrashLogWriteHandler& h, signed char v) { writeSigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, unsigned char v) { writeUnsigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, short v) { writeSigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, unsigned short v) { writeUnsigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, int v) { writeSigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, unsigned v) { writeUnsigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, long v) { writeSigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, unsigned long v) { writeUnsigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, long long v) { writeSigned(h, v); }
void crashlog_write(CrashLogWriteHandler& h, unsigned long long v) { writeUnsigned(h, v); }

void crashlog_write(CrashLogWriteHandler& h, double v) {
    if (!std::isfinite(v)) {
        StrSegment text;
        get_nonfinite_double_repl(&text, v);
        h.write(text);
        return;
    }
    const ConvertDoubleToStringShortest c(v);
    char buf[400];  // 309 integer digits for 1e308, or "0." and 324 places for 5e-324
    const size_t n = c.sizeFixedPoint();
    ASSERT(n <= sizeof buf);
    c.renderFixedPointPrereserved(buf);
    h.write(buf, n);
}

void crashlog_write(CrashLogWriteHandler& h, const char* v) { h.write(v ? v : "(null)"); }
void crashlog_write(CrashLogWriteHandler& h, StrSegment v) { h.write(v); }
void crashlog_write(CrashLogWriteHandler& h, const std::exception& e) { h.write(e.what()); }
