#include "libzero/assertion.h"

#include <errno.h>
#include <gtest/gtest.h>

namespace {

int failWithErrnoExpression(int rv) {
    errno = EBADF;
    ASSERT(rv || (0 + errno) != EBADF);
    return rv;
}

TEST(AssertionDeathTest, KeepsTheExpandedExpressionWithPlace) {
    // The text is taken after macro expansion: errno and EBADF appear as
    // glibc defines them, which is what crash reports quote.
    EXPECT_DEATH(failWithErrnoExpression(0),
                 "AssertionTest.cpp:[0-9]+: int .*failWithErrnoExpression\\(int\\): Assertion "
                 "`rv \\|\\| \\(0 \\+ \\(\\*__errno_location \\(\\)\\)\\) != 9' failed.");
    EXPECT_EQ(failWithErrnoExpression(1), 1);
}

TEST(AssertionDeathTest, ActiveWhateverNdebugSays) {
    // This file is compiled like any other; the macro has no NDEBUG branch.
    const char* p = nullptr;
    // clang-format off
    EXPECT_DEATH(ASSERT(p != ((void *)0)), "Assertion `p != \\(\\(void \\*\\)0\\)' failed");
    // clang-format on
}

TEST(AssertionDeathTest, ReplacesTheCLibraryAssertForEveryCaller) {
    // A C library's own assert() reaches __assert_fail too, and is recorded.
    EXPECT_DEATH(__assert_fail("from a library", "lib.c", 7, "f"),
                 "lib.c:7: f: Assertion `from a library' failed.");
    // Some C compilers pass no function name.
    EXPECT_DEATH(__assert_fail("x", "old.c", 3, nullptr), "old.c:3: Assertion `x' failed.");
}

}  // namespace
