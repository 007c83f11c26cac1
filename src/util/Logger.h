#pragma once
// Logging through named channels. For now: the format helpers, which are the
// printf engine with %m bound to a given error number, and which exceptions
// format their messages with.

#include <cstdarg>

#include "util/Str.h"

// Runs around the formatting of a message, so that an owner can add a prefix
// or a suffix. The defaults do nothing.
class LogFormatCallback {
public:
    virtual ~LogFormatCallback();
    virtual void beforeFormat(Str& message);
    virtual void afterFormat(Str& message);
};

class Logger {
public:
    // The engine with %m as the text of `errnum`; the forms without it take
    // errno as it stands at the call.
    static Str vformat(const char* format, va_list args);
    static Str vformat(int errnum, const char* format, va_list args);
    // Replaces `dest`; the callback, when given, runs before and after.
    static void vformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                        va_list args);
    // Appends; the callback, when given, runs before and after.
    static void appendVformat(Str& dest, int errnum, LogFormatCallback* callback,
                              const char* format, va_list args);

    static void format(Str& dest, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    static void format(Str& dest, int errnum, const char* fmt, ...)
        __attribute__((format(printf, 3, 4)));
    static void appendFormat(Str& dest, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    static void appendFormat(Str& dest, int errnum, const char* fmt, ...)
        __attribute__((format(printf, 3, 4)));
    static Str fromFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static Str fromFormat(int errnum, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
};
