// The logger's format helpers, and exceptions that format their messages.

#include "util/Logger.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(LoggerFormat, PercentMIsTheGivenErrorNumber) {
    errno = EINTR;
    EXPECT_EQ(Logger::fromFormat(ENOENT, "open: %m"), "open: No such file or directory");
    EXPECT_EQ(Logger::fromFormat("now: %m"), "now: Interrupted system call");
    EXPECT_EQ(errno, EINTR);

    Str s("stale");
    Logger::format(s, EACCES, "%s: %m", "x");
    EXPECT_EQ(s, "x: Permission denied") << "format replaces";
    Logger::appendFormat(s, 0, " (%m)");
    EXPECT_EQ(s, "x: Permission denied (Success)");
    errno = ENOSPC;
    Logger::appendFormat(s, " %m");
    EXPECT_EQ(s, "x: Permission denied (Success) No space left on device");
}

TEST(LoggerFormat, CallbacksRunAroundTheMessage) {
    struct Decorate : LogFormatCallback {
        void beforeFormat(Str& m) override { m.append("[before] "); }
        void afterFormat(Str& m) override { m.append(" [after]"); }
    } decorate;
    Str s;
    auto append = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        Logger::appendVformat(s, EBADF, &decorate, fmt, args);
        va_end(args);
    };
    append("%d %m", 7);
    EXPECT_EQ(s, "[before] 7 Bad file descriptor [after]");

    auto replace = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        Logger::vformat(s, ENOENT, &decorate, fmt, args);
        va_end(args);
    };
    replace("%s", "new");
    EXPECT_EQ(s, "[before] new [after]") << "this form replaces";
}

class FileError : public BaseException {
public:
    FileError(int errnum, const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        vformat(errnum, "FileError: ", fmt, args);
        va_end(args);
    }
    explicit FileError(const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        vformat(nullptr, fmt, args);
        va_end(args);
    }
};

TEST(BaseExceptionFormat, PrefixAndErrorNumber) {
    EXPECT_STREQ(FileError(ENOENT, "cannot open %s: %m", "/etc/x").what(),
                 "FileError: cannot open /etc/x: No such file or directory");
    errno = EEXIST;
    EXPECT_STREQ(FileError("exists? %m").what(), "exists? File exists")
        << "without a number: errno at the call, and no prefix";
}

}  // namespace
