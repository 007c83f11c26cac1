// Test binaries run as library programs do: the MainThread first, so that
// tests may start Threads. Death tests re-execute the binary rather than
// fork it, since a forked child would lack the other threads.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include "util/EventLoop.h"
#include "util/Thread.h"

int main(int argc, char** argv) {
#ifndef TARVEX_TEST_WITHOUT_MAIN_THREAD
    EmptyMainThread mainThread;
#endif
    testing::InitGoogleTest(&argc, argv);
    // The event-loop suites run once with each poll method.
    if (getenv("TARVEX_TEST_FAST_POLL") != nullptr && *getenv("TARVEX_TEST_FAST_POLL") != '\0' &&
        !EventLoop::enableFastPoll()) {
        fprintf(stderr, "TARVEX_TEST_FAST_POLL: epoll does not work here\n");
        return 1;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
