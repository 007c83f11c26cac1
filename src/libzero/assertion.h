#pragma once
// The project's assertion: active whatever NDEBUG says, and the failure text is
// the expression after macro expansion (so `errno` shows as glibc spells it),
// because crash reports quote it and operators search for it.

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdint.h>
#endif

// What the last failed assertion said; read by the crash report.
struct assertion_failure_record {
    const char* expression;
    const char* file;
    unsigned int line;
    const char* function;
};
extern struct assertion_failure_record last_assertion_failure;

// Our definition replaces glibc's for the whole process, so that assertions
// in C libraries we call are recorded for the crash report as well.
void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function)
#ifdef __cplusplus
    noexcept
#endif
    __attribute__((__noreturn__));

#ifdef __cplusplus
}
#endif

#define ASSERT(expr) ASSERT_EXPANDED_(expr)
#define ASSERT_EXPANDED_(expr)     \
    (__builtin_expect(!!(expr), 1) \
         ? (void)0                 \
         : __assert_fail(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))
