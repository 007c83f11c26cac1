#pragma once
// How classes describe themselves inside a crash report. crashlog_write
// overloads (and renderCrashLogInfoTo members) may only use the members of
// CrashLogWriteHandler, which neither allocate nor lock.

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <exception>
#include <typeinfo>

#include "libzero/create-crash-dump.h"
#include "util/Str.h"

class AppendStr;
class Pathname;

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
    // "All %u bytes of <label>:" or "First %u (/%u) bytes of <label>:" and a
    // hex dump of the buffer's first chunk.
    void dumpMemory(const char* label, const AppendStr& buffer, size_t length);
    // A file embedded between marker lines, at most `limit` bytes of it.
    void writeFileContents(const char* path, size_t limit);
    // The lines within the last `n` bytes of a file, between marker lines.
    void writeLastnBytesOfFileContent(const char* path, size_t n);

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

// ---------------------------------------------------------------- notations

// What this thread is doing, for the crash report, for as long as the object
// lives. The entry is a member, so entering and leaving allocate nothing;
// objects nest like the scopes that hold them and print innermost last.
//
// Only a crash handler reads the object, which the compiler does not know:
// when the code inside the scope visibly reads no memory, it may drop the
// subclass's stores (its members, even its vtable pointer). A subclass
// constructor therefore ends with publish().
class ScopedPerThreadCrashLogNotation {
public:
    ScopedPerThreadCrashLogNotation() {
        _entry.owner = this;
        _entry.e = {_renderStub, noop_crashlog_notation_destruct_func, nullptr, nullptr};
        _list =
            crashdumper_get_notation_state != nullptr ? crashdumper_get_notation_state() : nullptr;
        if (_list != nullptr) crashlog_notation_list_append(_list, &_entry.e);
        publish();
    }
    ScopedPerThreadCrashLogNotation(const ScopedPerThreadCrashLogNotation&) = delete;
    ScopedPerThreadCrashLogNotation& operator=(const ScopedPerThreadCrashLogNotation&) = delete;
    // Unlinks its own entry, which is the last one whenever scopes nest.
    ~ScopedPerThreadCrashLogNotation() {
        if (_list != nullptr) crashlog_notation_list_unlink(_list, &_entry.e);
    }

    bool wasPushed() const { return _list != nullptr; }
    virtual void renderTo(CrashLogWriteHandler& h) const = 0;

protected:
    static void publish() { std::atomic_signal_fence(std::memory_order_seq_cst); }
    static void _renderStub(crashlog_notation_entry* e, backtrace_writing_handler* h);

private:
    struct Entry {
        crashlog_notation_entry e;
        ScopedPerThreadCrashLogNotation* owner;
    };
    Entry _entry;
    crashlog_notation_list* _list;
};

class ScopedPerThreadCrashLogConstantStringNotation : public ScopedPerThreadCrashLogNotation {
public:
    explicit ScopedPerThreadCrashLogConstantStringNotation(const char* text) : _text(text) {
        publish();
    }
    void renderTo(CrashLogWriteHandler& h) const override { h.write(_text); }

private:
    const char* _text;
};

class ScopedPerThreadCrashLogConstantStrlikeNotation : public ScopedPerThreadCrashLogNotation {
public:
    explicit ScopedPerThreadCrashLogConstantStrlikeNotation(StrSegment text) : _text(text) {
        publish();
    }
    void renderTo(CrashLogWriteHandler& h) const override { h.write(_text); }

private:
    StrSegment _text;
};

// Process-wide notations, kept until the end. Each copies its text, except
// the constant form. They return false when the copy can't be allocated.
bool addGlobalCrashLogNotation(const Str& text);
bool addGlobalCrashLogNotation(const char* format, ...) __attribute__((format(printf, 1, 2)));
bool addGlobalCrashLogNotationConstant(const char* text);

// ---------------------------------------------------------------- set-up

// Installs the crash report: files "crash-<time>.log" under the directory,
// or standard error; the exception dumper, the library's printf engine for
// the report, the terminate handler and the thread layer's hooks. Returns
// false when the handlers could not be installed (the reason went to
// standard error).
bool InitBacktracer(const Pathname& directory);
bool InitBacktracerToStderr();

// What the terminate handler learnt of the exception that ends the process.
struct tarvex_fatal_exception_t {
    int state;  // 0 none; 2 no active exception; 3 std::bad_alloc; 4 std::exception; 5 other
    const void* exception_addr;
    const std::type_info* typeinfo;
    char type_name[256];
    char what[1024];
};
extern tarvex_fatal_exception_t tarvex_fatal_exception;
