#include "util/Thread.h"

#include "libzero/assertion.h"

std::atomic<bool> have_already_started_threads{false};

void Thread::assertNotMultithreadedYet() { ASSERT(!have_already_started_threads); }
