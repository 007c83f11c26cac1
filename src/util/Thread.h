#pragma once
// Threads of the process. Every thread is a Thread, and a MainThread is built
// before any other.

#include <atomic>

class Thread {
public:
    // Fails an assertion once a second thread has ever been created.
    static void assertNotMultithreadedYet();
};

// Set, with a full fence, when the first Thread other than the main one is
// created; never cleared.
extern std::atomic<bool> have_already_started_threads;
