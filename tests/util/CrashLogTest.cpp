// Crash-time output: the write handler, its helpers, and the promise that the
// printf engine on this path never allocates (that it writes what the other
// sinks write is the printf_format fuzz target's work).

#include "util/CrashLog.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>

#include "support/AllocCounter.h"
#include "util/BasicConversions.h"
#include "util/PrintfFormat.h"

// This file feeds the engine bad and unusual format text on purpose; the
// compiler's printf checks would refuse it.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"

namespace {

// A handler as the crash report has one: a fixed buffer, nothing allocated.
struct FixedBufferHandler : backtrace_writing_handler {
    char data[8192];
    size_t used = 0;

    FixedBufferHandler() { do_write = &write; }
    static void write(backtrace_writing_handler* h, const char* p, size_t n) {
        auto* self = static_cast<FixedBufferHandler*>(h);
        n = std::min(n, sizeof self->data - self->used);
        memcpy(self->data + self->used, p, n);
        self->used += n;
    }
    std::string text() const { return std::string(data, used); }
};

// Formats that touch every kind of directive.
#define MIXED_FORMATS(X)                                                               \
    X("%s:%d %s %lu %.3f", "file.cpp", 42, "connection closed", 123456789UL, 2.71828)  \
    X("[%-8s|%8s|%.2s]", "left", "right", "cut")                                       \
    X("%+05d %x %#o %#X %c", 42, 0xbeefu, 8u, 0xabcu, 'Z')                             \
    X("%e %g %G %a %.0f %10.4f|", 1234.5678, 0.0001234, 1e20, 0.5, 2.5, -3.14159)      \
    X("%p %p %lld %'llu", static_cast<void*>(nullptr), reinterpret_cast<void*>(0xabc), \
      -9223372036854775807LL - 1, 1234567890123ULL)                                    \
    X("%m [%20.6m] %% %5%%q", 0)                                                       \
    X("%*d|%-*d|%.*s", 6, 1, 6, 2, 3, "abcdef")                                        \
    X("%f %f %F %e", NAN, -INFINITY, INFINITY, -0.0)

void crashFormat(CrashLogWriteHandler& h, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    h.vformat(fmt, args);
    va_end(args);
}

TEST(CrashLogPrintf, NoHeapAllocationOnTheCrashPath) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations cannot be counted here";
    FixedBufferHandler fixed;
    CrashLogWriteHandler crash(&fixed);
    errno = ENOENT;
    {
        alloccounter::Scope scope;
#define RENDER(...) crashFormat(crash, __VA_ARGS__);
        MIXED_FORMATS(RENDER)
#undef RENDER
        crash.writeQuotedString("quoted \"text\"\n", 14);
        crash.writeFlag("busy", true);
        crashlog_write(crash, 1.25);
        crashlog_write(crash, -7);
        crashlog_write(crash, print_strerror{9999});
        // At the start of a page: the dump never runs past the page its
        // address lies in, so a buffer on the stack could show fewer bytes.
        alignas(4096) static const char page[4096] = "the start of a page";
        crash.dumpMemory("page", page, 40);
        EXPECT_EQ(scope.allocations(), 0);
    }
    EXPECT_GT(fixed.used, 500u);

    // The counter does see allocations: the Str path makes some.
    alloccounter::Scope scope;
    const Str s = Str::fromFormat("%s and some more text to leave the small buffer", "x");
    EXPECT_GT(scope.allocations(), 0);
}

TEST(CrashLogWriteHandler, QuotedStrings) {
    // Below 241 bytes whole, from there 75 and the count of the rest.
    const std::pair<std::string, std::string> cases[] = {
        {"a\"b\\c\n\r\t\x01\x7f\xc3\xa9", "\"a\\\"b\\\\c\\n\\r\\t\\x01\\x7F\\xC3\\xA9\""},
        {std::string(240, 'x'), "\"" + std::string(240, 'x') + "\""},
        {std::string(241, 'y'), "\"" + std::string(75, 'y') + "\"...[166 more bytes]"},
    };
    for (const auto& [in, out] : cases) {
        FixedBufferHandler fixed;
        CrashLogWriteHandler h(&fixed);
        h.writeQuotedString(in.data(), in.size());
        EXPECT_EQ(fixed.text(), out);
    }
}

TEST(CrashLogWriteHandler, FlagsAndBasicOverloads) {
    Str s;
    CrashLogWriteHandlerAppendToStr h(&s);
    h.writeFlag("closed", false);
    h.write(" ");
    crashlog_write(h, 0.1);
    crashlog_write(h, -INFINITY);
    crashlog_write(h, static_cast<const char*>(nullptr));
    crashlog_write(h, EnvironmentVariable::describe{"HOME"});
    EXPECT_EQ(s, "closed=N 0.1-Infinity(null)$HOME");
    EXPECT_FALSE(h.oomError());
}

TEST(CrashLogWriteHandler, MemoryDumpsStayInTheirPage) {
    // Two pages, the second unreadable: a dump from near the end of the
    // first must stop at the boundary instead of faulting. Any page size is
    // a multiple of the 4096 bytes the dump keeps within.
    const long page = sysconf(_SC_PAGESIZE);
    char* mem = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(mem, MAP_FAILED);
    ASSERT_EQ(mprotect(mem + page, page, PROT_NONE), 0);
    memcpy(mem + page - 20, "twenty bytes of text", 20);

    Str s;
    CrashLogWriteHandlerAppendToStr h(&s);
    h.dumpMemory("tail", mem + page - 20, 128);
    EXPECT_TRUE(s.starts_with("First 20 bytes of tail @0x")) << s;
    EXPECT_NE(s.find("|twenty bytes of |"), Str::npos) << s;
    EXPECT_TRUE(s.ends_with("00000014\n")) << s;

    s.clear();
    h.dumpMemory("null", nullptr, 16);
    h.dumpMemory("low", reinterpret_cast<void*>(16), 16);
    EXPECT_EQ(s, "") << "nothing for page zero";
    munmap(mem, 2 * page);
}

}  // namespace
