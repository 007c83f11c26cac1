#pragma once
// A replacement of the global operator new that fails on request, for tests
// of what code does when memory runs out. Link it into a binary of its own:
// it replaces allocation for the whole process.

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>

namespace failingnew {

// The nth call of operator new from now on (1 is the next) throws
// std::bad_alloc; 0 disarms.
void failAt(long n);
// Calls of operator new since the last failAt.
long calls();

// Runs `op` on a fresh object made by `make`, failing its nth allocation
// for n = 1, 2, ... until a run needs no more. After each failed run
// `check(object, describe(object before op), n)` judges what is left.
template <class C>
void failEachAllocation(const std::function<void(C&)>& make, const std::function<void(C&)>& op,
                        const std::function<std::string(const C&)>& describe,
                        const std::function<void(C&, const std::string&, long)>& check) {
    for (long n = 1;; ++n) {
        C c;
        make(c);
        const std::string before = describe(c);
        failAt(n);
        bool failed = false;
        try {
            op(c);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        failAt(0);
        if (!failed) {
            EXPECT_GT(n, 1) << "the operation never allocated";
            return;
        }
        check(c, before, n);
        if (testing::Test::HasFatalFailure()) return;
    }
}

}  // namespace failingnew
