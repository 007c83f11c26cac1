#include "util/Logger.h"

#include <cerrno>

#include "util/PrintfFormat.h"

LogFormatCallback::~LogFormatCallback() = default;
void LogFormatCallback::beforeFormat(Str&) {}
void LogFormatCallback::afterFormat(Str&) {}

void Logger::appendVformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                           va_list args) {
    if (callback) callback->beforeFormat(dest);
    printf_render(&dest, errnum, format, args);
    if (callback) callback->afterFormat(dest);
}

Str Logger::vformat(int errnum, const char* format, va_list args) {
    Str s;
    appendVformat(s, errnum, nullptr, format, args);
    return s;
}

Str Logger::vformat(const char* format, va_list args) { return vformat(errno, format, args); }

void Logger::vformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                     va_list args) {
    Str s;
    appendVformat(s, errnum, callback, format, args);
    dest.swap(s);
}

// Each variadic form hands its list to one of the above; va_end runs on every
// way out.
#define TX_WITH_ARGS(last, call) \
    va_list args;                \
    va_start(args, last);        \
    try {                        \
        call;                    \
    } catch (...) {              \
        va_end(args);            \
        throw;                   \
    }                            \
    va_end(args)

void Logger::format(Str& dest, const char* fmt, ...) {
    const int errnum = errno;
    dest.clear();
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::format(Str& dest, int errnum, const char* fmt, ...) {
    dest.clear();
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::appendFormat(Str& dest, const char* fmt, ...) {
    const int errnum = errno;
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::appendFormat(Str& dest, int errnum, const char* fmt, ...) {
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

Str Logger::fromFormat(const char* fmt, ...) {
    const int errnum = errno;
    Str s;
    TX_WITH_ARGS(fmt, appendVformat(s, errnum, nullptr, fmt, args));
    return s;
}

Str Logger::fromFormat(int errnum, const char* fmt, ...) {
    Str s;
    TX_WITH_ARGS(fmt, appendVformat(s, errnum, nullptr, fmt, args));
    return s;
}
#undef TX_WITH_ARGS

// ---------------------------------------------------------------- BaseException

void BaseException::vformat(const char* prefix, const char* format, va_list args) noexcept {
    vformat(errno, prefix, format, args);
}

void BaseException::vformat(int errnum, const char* prefix, const char* format,
                            va_list args) noexcept {
    try {
        Str message;
        if (prefix != nullptr) message.append(prefix);
        Logger::appendVformat(message, errnum, nullptr, format, args);
        _message.swap(message);
    } catch (...) {
        // An exception may never make a new exception.
        _message.clear();
    }
}
