// The process-wide order of threads: nothing before the MainThread, one
// MainThread, and silence once it is gone. This binary has no MainThread of
// its own; every case runs in a fresh process (a death test re-executes the
// binary) and exits 0 when all it checked held.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "util/Thread.h"

namespace {

#define CHECK_OR_EXIT(cond, code)                         \
    do {                                                  \
        if (!(cond)) {                                    \
            fprintf(stderr, "check failed: %s\n", #cond); \
            _exit(code);                                  \
        }                                                 \
    } while (0)

class Noop : public Thread {
public:
    Noop() : Thread("noop") {}
    void main() override {}
};

class Actor : public Thread::InSignalContextActor {
public:
    bool prepared = false;
    bool prepare() override { return prepared = true; }
    void whileTargetInSignal() override {}
    void inSignal() override {}
};

TEST(ThreadLifetimeDeathTest, NothingStartsBeforeTheMainThread) {
    EXPECT_EXIT(
        {
            CHECK_OR_EXIT(Thread::current() == nullptr, 2);
            CHECK_OR_EXIT(strcmp(Thread::currentName(), "MainThread") == 0, 3);
            CHECK_OR_EXIT(Thread::currentIsMainThread(), 4);
            CHECK_OR_EXIT(Thread::approximateThreadCount() == 1, 5);
            try {
                Noop early;
                _exit(6);
            } catch (const ThreadException& e) {
                CHECK_OR_EXIT(strcmp(e.what(), "Thread created before main thread!") == 0, 7);
            }
            // Failed construction left no trace: a MainThread can still come.
            EmptyMainThread mainThread;
            CHECK_OR_EXIT(Thread::current() == &mainThread, 8);
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetimeDeathTest, TheMainThreadComesOnce) {
    EXPECT_EXIT(
        {
            EmptyMainThread first;
            try {
                EmptyMainThread second;
                _exit(2);
            } catch (const ThreadException& e) {
                CHECK_OR_EXIT(strcmp(e.what(), "Main Thread created twice!") == 0, 3);
            }
            CHECK_OR_EXIT(Thread::current() == &first, 4);
            Noop t;
            CHECK_OR_EXIT(Thread::approximateThreadCount() == 2, 5);
            t.go();
            t.join();
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetimeDeathTest, OnceTheMainThreadIsGoneFailuresAreSilent) {
    EXPECT_EXIT(
        {
            Noop* worker;
            {
                EmptyMainThread mainThread;
                CHECK_OR_EXIT(!MainThread::isDying(), 2);
                worker = new Noop;
                worker->go();
                worker->join();
            }
            CHECK_OR_EXIT(MainThread::isDying(), 3);
            // The signal channel is closed at once, without waiting.
            Actor actor;
            CHECK_OR_EXIT(!worker->runInUnixSignalContext(&actor), 4);
            CHECK_OR_EXIT(!actor.prepared, 5);
            // Destroying a held mutex would be fatal; now it passes.
            Mutex* m = new Mutex;
            m->lock();
            delete m;
            delete worker;
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetimeDeathTest, AHeldMutexDestroyedWhileAliveIsFatal) {
    EXPECT_EXIT(
        {
            EmptyMainThread mainThread;
            Mutex* m = new Mutex;
            m->lock();
            delete m;
            _exit(0);
        },
        testing::KilledBySignal(SIGABRT),
        "^Fatal thread error: pthread_mutex_destroy: Device or resource busy; 1 threads "
        "active, in MainThread\n");
}

TEST(ThreadLifetimeDeathTest, ForceKillEndsWithTheStatusAndMarksTheProcessDying) {
    EXPECT_EXIT(
        {
            EmptyMainThread mainThread;
            atexit([] { _exit(9); });  // must not run
            Thread::forceKillAllThreads(42);
        },
        testing::ExitedWithCode(42), "");
}

}  // namespace
