#include "util/CrashLog.h"

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

#include "libzero/int-to-ascii.h"
#include "util/AppendStr.h"
#include "util/BasicConversions.h"
#include "util/Pathname.h"
#include "util/PrintFloatingPoint.h"
#include "util/PrintfFormat.h"
#include "util/Thread.h"

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

void CrashLogWriteHandler::dumpMemory(const char* label, const AppendStr& buffer, size_t length) {
    const PortableIovec& v = buffer.iovec();
    const uint64_t total = buffer.size();
    const size_t first = v.size() > 0 ? v[0].iov_len : 0;
    size_t shown = length < first ? length : first;
    if (shown == total) {
        format("All %u bytes of %s:\n", static_cast<unsigned>(shown), label);
    } else {
        format("First %u (/%u) bytes of %s:\n", static_cast<unsigned>(shown),
               static_cast<unsigned>(total), label);
    }
    if (shown > 0) HexDumper::dumpTo(*this, v[0].iov_base, shown);
}

void CrashLogWriteHandler::writeFileContents(const char* path, size_t limit) {
    write("-------------------- FILE CONTENTS OF \"");
    write(path);
    write("\"\n");
    if (crash_log_insert_file(_handler, path, limit) != 0) format("*** ERROR OPENING FILE: %m\n");
    write("--------------------\n\n");
}

void CrashLogWriteHandler::writeLastnBytesOfFileContent(const char* path, size_t n) {
    write("-------------------- LAST FEW LINE OF FILE \"");
    write(path);
    write("\"\n");
    if (crash_log_insert_file_last_n_bytes(_handler, path, n) != 0) {
        format("*** ERROR OPENING FILE: %m\n");
    }
    write("--------------------\n\n");
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

// ---------------------------------------------------------------- notations

void ScopedPerThreadCrashLogNotation::_renderStub(crashlog_notation_entry* e,
                                                  backtrace_writing_handler* h) {
    CrashLogWriteHandler out(h);
    reinterpret_cast<Entry*>(e)->owner->renderTo(out);
}

bool addGlobalCrashLogNotation(const Str& text) {
    return crashlog_notation_global_add(text.data(), text.size()) == 0;
}

bool addGlobalCrashLogNotation(const char* format, ...) {
    Str text;
    va_list args;
    va_start(args, format);
    try {
        text.vformat(format, args);
    } catch (const std::bad_alloc&) {
        va_end(args);
        return false;
    }
    va_end(args);
    return addGlobalCrashLogNotation(text);
}

bool addGlobalCrashLogNotationConstant(const char* text) {
    auto* e = static_cast<crashlog_notation_string_entry*>(
        malloc(sizeof(crashlog_notation_string_entry)));
    if (e == nullptr) return false;
    e->entry = {crashlog_notation_write_string, nullptr, nullptr, nullptr};
    e->text = text;
    e->length = strlen(text);
    return crashlog_notation_global_add_func(&e->entry) == 0;
}

// ---------------------------------------------------------------- the end of the process

tarvex_fatal_exception_t tarvex_fatal_exception;

namespace {

void writeStderr(const char* text) { crash_log_write_all(STDERR_FILENO, text, strlen(text)); }

void copyBounded(char* dest, size_t capacity, const char* text) {
    const size_t n = strnlen(text, capacity - 1);
    memcpy(dest, text, n);
    dest[n] = '\0';
}

std::atomic<bool> terminate_entered{false};

// The record is filled before anything else can fail, then the process
// aborts into the crash report, which prints it.
[[noreturn]] void terminateHandler() {
    if (terminate_entered.exchange(true)) {
        writeStderr("terminate called recursively\n");
        abort();
    }
    tarvex_fatal_exception_t& r = tarvex_fatal_exception;
    std::exception_ptr current = std::current_exception();
    if (!current) {
        r.state = 2;
        writeStderr("terminate called without an active exception\n");
        abort();
    }
    // libstdc++'s exception_ptr is the address of the thrown object.
    static_assert(sizeof current == sizeof(void*));
    memcpy(&r.exception_addr, &current, sizeof(void*));
    r.typeinfo = abi::__cxa_current_exception_type();
    const char* mangled = r.typeinfo != nullptr ? r.typeinfo->name() : "?";
    int status = -1;
    char* readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    copyBounded(r.type_name, sizeof r.type_name, status == 0 && readable ? readable : mangled);
    free(readable);
    writeStderr("terminate called after throwing an instance of '");
    writeStderr(r.type_name);
    writeStderr("'\n");
    try {
        throw;
    } catch (const std::bad_alloc&) {
        r.state = 3;
        writeStderr("  Memory allocation failed\n");
    } catch (const std::exception& e) {
        copyBounded(r.what, sizeof r.what, e.what());
        r.state = 4;
        writeStderr("  what():  ");
        writeStderr(r.what);
        writeStderr("\n");
    } catch (...) {
        r.state = 5;
        writeStderr("  Exception type doesn't inherit from std::exception!\n");
    }
    abort();
}

int dumpFatalException(backtrace_writing_handler* handler) {
    const tarvex_fatal_exception_t& r = tarvex_fatal_exception;
    CrashLogWriteHandler h(handler);
    if (r.state == 2) {
        h.write(" C++ exception handling was triggered while no exception active!\n");
        return 1;
    }
    if (r.state < 3 || r.state > 5) return 0;
    h.format(" C++ exception:\n  exception_addr=%p\n  typeinfo=%p, name=%s", r.exception_addr,
             static_cast<const void*>(r.typeinfo), r.type_name);
    if (r.state == 3) {
        h.write("\n  Exception indicates memory allocation failure\n");
    } else if (r.state == 5) {
        h.write("\n  Exception did not appear to be a std::exception subclass!\n");
    } else {
        h.write("\n  what(): ");
        h.write(r.what);
        h.write("\n");
    }
    return 1;
}

void crashLogVformat(backtrace_writing_handler* handler, const char* format, va_list args) {
    CrashLogWriteHandler h(handler);
    h.vformat(format, args);
}

bool finishInit(int initResult) {
    register_dump_cxx_exception_helper_func(dumpFatalException);
    register_crash_log_vformat_func(crashLogVformat);
    std::set_terminate(terminateHandler);
    Thread::registerCrashlogHooks();
    return initResult == 0;
}

}  // namespace

bool InitBacktracer(const Pathname& directory) {
    return finishInit(crash_log_creator_init(directory.c_str()));
}

bool InitBacktracerToStderr() { return finishInit(crash_log_creator_init(nullptr)); }
