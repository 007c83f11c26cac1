// The process-wide order of threads: nothing before the MainThread, one
// MainThread, and silence once it is gone. This binary has no MainThread of
// its own; every case runs in a fresh process (a death test re-executes the
// binary) and exits 0 when all it checked held.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "util/StrHashSet.h"
#include "util/Thread.h"

namespace {

#define CHECK_OR_EXIT(cond, code) \
    ((cond) ? (void)0 : (fprintf(stderr, "check failed: %s\n", #cond), _exit(code)))

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

TEST(ThreadLifetimeDeathTest, NothingStartsBeforeTheMainThreadWhichComesOnce) {
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
            try {
                EmptyMainThread second;
                _exit(9);
            } catch (const ThreadException& e) {
                CHECK_OR_EXIT(strcmp(e.what(), "Main Thread created twice!") == 0, 10);
            }
            CHECK_OR_EXIT(Thread::current() == &mainThread, 11);
            // The recursion check works until threads start.
            {
                ScopedSingleThreadedRecursionCheck outer;
                CHECK_OR_EXIT(!outer.recursing(), 12);
                {
                    ScopedSingleThreadedRecursionCheck inner;
                    CHECK_OR_EXIT(inner.recursing(), 13);
                }
                ScopedSingleThreadedRecursionCheck sibling;
                CHECK_OR_EXIT(sibling.recursing(), 14);
            }
            ScopedSingleThreadedRecursionCheck again;
            CHECK_OR_EXIT(!again.recursing(), 15);
            Noop t;  // from now on the guard stands aside
            ScopedSingleThreadedRecursionCheck nested;
            CHECK_OR_EXIT(!nested.recursing(), 16);
            CHECK_OR_EXIT(Thread::approximateThreadCount() == 2, 17);
            t.go();
            t.join();
            _exit(0);
        },
        // Before the logger is configured, in the logger's fallback form.
        testing::ExitedWithCode(0), "(^|\n)WARN - Main Thread created twice!\n");
}

// Filled by static initialisers, as such sets are.
StaticStrHashSet staticWords;
const Str wordA("alpha"), wordB("beta");
const bool filled = (staticWords.insert(&wordA), staticWords.insert(&wordB), true);

TEST(ThreadLifetimeDeathTest, TheMainThreadFinalizesStaticSetsAndThenNoneAreFilled) {
    ASSERT_TRUE(filled);
    EXPECT_EXIT(
        {
            CHECK_OR_EXIT(staticWords.state() == StaticStrHashSet::STATE_POPULATING, 2);
            EmptyMainThread mainThread;
            CHECK_OR_EXIT(staticWords.state() == StaticStrHashSet::STATE_FINISHED, 3);
            CHECK_OR_EXIT(staticWords.contains("beta"), 4);
            StaticStrHashSet late;
            late.insert(&wordA);  // still one thread: allowed
            Noop t;
            late.insert(&wordB);
            _exit(5);
        },
        testing::KilledBySignal(SIGABRT), "Assertion `!have_already_started_threads' failed");
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
            // A broken lock state would be fatal (the crash report tests show
            // it); now it passes.
            MutexByte b;
            MutexByte::waiting_list chain;
            chain.construct();
            CHECK_OR_EXIT(b.tryLock(), 6);
            b.unlockWithSleepers(&chain);
            chain.destruct();
            delete worker;
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
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
