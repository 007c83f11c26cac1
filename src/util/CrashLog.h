#pragma once
// How classes describe themselves inside a crash report. crashlog_write
// overloads (and renderCrashLogInfoTo members) may only use the members of
// CrashLogWriteHandler, which neither allocate nor lock.

#include <cstdarg>
#include <cstddef>
#include <exception>

#include "libzero/create-crash-dump.h"
#include "util/Str.h"

class CrashLogWriteHandler {
public:
    explicit CrashLogWriteHandler(backtrace_writing_handler* handler) : _handler(handler) {}
    CrashLogWriteHandler(const CrashLogWriteHandler&) = delete;
    CrashLogWriteHandler& operator=(const CrashLogWriteHandler&) = delete;

    void write(const char* data, size_t length) { _handler->do_write(_handler, data, length); }
    void write(const char* text);
    void write(StrSegment s) { write(s._data, s._len); }

    // The library's printf engine.
    void format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void vformat(const char* fmt, va_list args);

    // Between double quotes, escaped; past 240 bytes only the first 75 and a
    // count of the rest.
    void writeQuotedString(const char* data, size_t length);
    // name=Y or name=N
    void writeFlag(const char* name, bool value);
    // "First %u bytes of <label> @%p:" and a hex dump, never past the page
    // the address lies in; nothing for addresses below 4096.
    void dumpMemory(const char* label, const void* address, size_t length);

    backtrace_writing_handler* handler() const { return _handler; }

protected:
    backtrace_writing_handler* _handler;
};

// The same output into a Str, for debug text. Out of memory, it stops adding
// and remembers that it did (oomError()), rather than raising from code that
// was written for a crash handler.
class CrashLogWriteHandlerAppendToStr : public CrashLogWriteHandler {
public:
    explicit CrashLogWriteHandlerAppendToStr(Str* dest);
    bool oomError() const { return _target.oom; }

    void _oom_error() { _target.oom = true; }

private:
    struct Target : backtrace_writing_handler {
        Str* dest;
        bool oom;
    };
    static void append(backtrace_writing_handler* h, const char* data, size_t length);
    Target _target;
};

// The base overloads; a class joins with an overload of its own or a
// renderCrashLogInfoTo(CrashLogWriteHandler&) const member.
void crashlog_write(CrashLogWriteHandler& h, bool v);  // "1" or "0"
void crashlog_write(CrashLogWriteHandler& h, char v);  // the byte itself
void crashlog_write(CrashLogWriteHandler& h, signed char v);
void crashlog_write(CrashLogWriteHandler& h, unsigned char v);
void crashlog_write(CrashLogWriteHandler& h, short v);
void crashlog_write(CrashLogWriteHandler& h, unsigned short v);
void crashlog_write(CrashLogWriteHandler& h, int v);
void crashlog_write(CrashLogWriteHandler& h, unsigned v);
void crashlog_write(CrashLogWriteHandler& h, long v);
void crashlog_write(CrashLogWriteHandler& h, unsigned long v);
void crashlog_write(CrashLogWriteHandler& h, long long v);
void crashlog_write(CrashLogWriteHandler& h, unsigned long long v);
void crashlog_write(CrashLogWriteHandler& h, double v);
void crashlog_write(CrashLogWriteHandler& h, const char* v);  // "(null)" for null
void crashlog_write(CrashLogWriteHandler& h, StrSegment v);
void crashlog_write(CrashLogWriteHandler& h, const std::exception& e);

template <class T>
requires requires(const T& t, CrashLogWriteHandler& h) { t.renderCrashLogInfoTo(h); }
void crashlog_write(CrashLogWriteHandler& h, const T& v) { v.renderCrashLogInfoTo(h); }
