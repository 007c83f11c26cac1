#include "libzero/assertion.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "libzero/create-crash-dump.h"
#include "libzero/int-to-ascii.h"

struct assertion_failure_record last_assertion_failure;

namespace {

// Signal-safe output: the process may be in any state when an assertion fails.
struct StderrLine {
    char buf[2048];
    size_t len = 0;

    void add(const char* s) {
        if (s != nullptr) add(s, strlen(s));
    }
    void add(const char* s, size_t n) {
        if (n > sizeof(buf) - len) n = sizeof(buf) - len;
        memcpy(buf + len, s, n);
        len += n;
    }
    void flush() { crash_log_write_all(STDERR_FILENO, buf, len); }
};

}  // namespace

extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept {
    last_assertion_failure = {assertion, file, line, function};

    // The glibc wording, which people and tools already recognise.
    char digits[16];
    StderrLine out;
    out.add(program_invocation_short_name);
    out.add(": ");
    out.add(file);
    out.add(":");
    out.add(digits, convertU32ToAscii(line, digits));
    out.add(": ");
    if (function != nullptr) {
        out.add(function);
        out.add(": ");
    }
    out.add("Assertion `");
    out.add(assertion);
    out.add("' failed.\n");
    out.flush();
    abort();
}
