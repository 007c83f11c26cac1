#include "util/ThreadLocks.h"

#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/Thread.h"

namespace {

using testsupport::crashText;

// Polls the state of the threads, for at most 30 seconds.
bool spinUntil(const std::function<bool()>& pred) { return testsupport::waitUntil(pred, 30); }

// A started library thread, joined when it goes out of scope.
class Worker {
public:
    Worker(const char* name, std::function<void()> f) : _t(std::move(f), "%s", name) { _t.go(); }
    ~Worker() { _t.join(); }

private:
    ThreadFunction _t;
};

// Who got a lock in which order, and what the byte said at that moment.
struct Record {
    std::vector<std::string> order;  // appended under the lock being tested
    std::vector<uint8_t> stateSeen;
    std::atomic<size_t> count{0};
    void add(const std::string& who, uint8_t state) {
        order.push_back(who);
        stateSeen.push_back(state);
        count.fetch_add(1);
    }
};

// ---------------------------------------------------------------- QueueingMutex

TEST(QueueingMutex, NoUpdateIsLostUnderContention) {
    QueueingMutex m;
    uint64_t counter = 0;  // plain: only the lock protects it
    constexpr int THREADS = 4, ROUNDS = 100000;
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < THREADS; ++i) {
            workers.push_back(std::make_unique<Worker>("adder", [&] {
                for (int r = 0; r < ROUNDS; ++r) {
                    m.lock();
                    ++counter;
                    // Now and then yield inside, so that sleepers pile up.
                    if (r % 1024 == 0) Thread::yieldCpu();
                    m.unlock();
                }
            }));
        }
    }
    EXPECT_EQ(counter, uint64_t(THREADS) * ROUNDS);
    EXPECT_EQ(m.byte().get(std::memory_order_relaxed), 0);
    EXPECT_EQ(crashText(m), "qmutex{unlocked, MutexByte-chain={empty}}");
}

// Waiters queue one by one, each asleep on the chain before the next
// arrives. Every hand-off but the last leaves somebody waiting (3), the last
// sees the lock only held (1). A bounce hands the lock to the waiters, the
// owner sleeping for it, and brings it back last.
TEST(QueueingMutex, SleepersAreServedFirstInFirstOutAndABounceComesBackLast) {
    for (auto [waiters, bounce] : {std::pair{4, false}, {1, true}, {2, true}}) {
        SCOPED_TRACE(testing::Message() << waiters << " waiters, bounce " << bounce);
        QueueingMutex m;
        Record rec;
        std::vector<std::string> expected;
        m.lock();
        {
            std::vector<std::unique_ptr<Worker>> workers;
            for (int i = 0; i < waiters; ++i) {
                expected.push_back("waiter" + std::to_string(i));
                workers.push_back(std::make_unique<Worker>(expected.back().c_str(), [&m, &rec, i] {
                    m.lock();
                    rec.add("waiter" + std::to_string(i), m.byte().get(std::memory_order_relaxed));
                    m.unlock();
                }));
                ASSERT_TRUE(spinUntil([&] { return m.waiterCount() == size_t(i) + 1; }));
            }
            EXPECT_EQ(m.byte().get(std::memory_order_relaxed), 3);
            const std::string text = crashText(m);
            EXPECT_TRUE(text.starts_with("qmutex{LOCKED+CONTENDED, MutexByte-chain={head=0x"))
                << text;
            if (bounce) {
                m._bounceContended();
                rec.add("owner", m.byte().get(std::memory_order_relaxed));
                expected.push_back("owner");
            }
            m.unlock();
        }
        EXPECT_EQ(rec.order, expected);
        std::vector<uint8_t> states(expected.size(), 3);
        states.back() = 1;
        EXPECT_EQ(rec.stateSeen, states);
        EXPECT_EQ(m.byte().get(std::memory_order_relaxed), 0);
    }
}

// ---------------------------------------------------------------- MutexByte

// Two bytes on one chain, waiters queued x, y, x: releasing x must pass over
// the y entry, find the second x waiter and so keep x marked contended.
TEST(MutexByte, AHandOffKeepsContendedWhenAnotherWaiterStandsBehindOtherBytes) {
    MutexByte x, y;
    MutexByte::waiting_list chain;
    chain.construct();
    ASSERT_TRUE(x.tryLock());
    ASSERT_TRUE(y.tryLock());
    Record rec;
    std::atomic<bool> releaseFirst{false};
    {
        Worker a("x1", [&] {
            x.lock(&chain);
            rec.add("x1", x.get(std::memory_order_relaxed));
            spinUntil([&] { return releaseFirst.load(); });
            x.unlock(&chain);
        });
        ASSERT_TRUE(spinUntil([&] { return x.waiterCount(&chain) == 1; }));
        Worker b("y1", [&] {
            y.lock(&chain);
            y.unlock(&chain);
        });
        ASSERT_TRUE(spinUntil([&] { return y.waiterCount(&chain) == 1; }));
        Worker c("x2", [&] {
            x.lock(&chain);
            rec.add("x2", x.get(std::memory_order_relaxed));
            x.unlock(&chain);
        });
        ASSERT_TRUE(spinUntil([&] { return x.waiterCount(&chain) == 2; }));

        x.unlock(&chain);
        ASSERT_TRUE(spinUntil([&] { return rec.count.load() == 1; }));
        EXPECT_EQ(x.get(std::memory_order_relaxed), 3) << "x2 still sleeps for x";
        EXPECT_EQ(x.waiterCount(&chain), 1u);
        releaseFirst = true;
        ASSERT_TRUE(spinUntil([&] { return rec.count.load() == 2; }));
        EXPECT_EQ(y.get(std::memory_order_relaxed), 3);
        y.unlock(&chain);
    }
    EXPECT_EQ(rec.order, (std::vector<std::string>{"x1", "x2"}));
    // x2 was the last waiter for x, though y1 had been behind it.
    EXPECT_EQ(rec.stateSeen, (std::vector<uint8_t>{3, 1}));
    EXPECT_EQ(x.get(std::memory_order_relaxed), 0);
    EXPECT_EQ(y.get(std::memory_order_relaxed), 0);
    chain.destruct();
}

TEST(MutexByteCrashLog, StatesChainsAndWaiters) {
    MutexByte b;
    EXPECT_EQ(crashText(b), "unlocked");
    ASSERT_TRUE(b.tryLock());
    EXPECT_EQ(crashText(b), "LOCKED");
    unsigned char raw = 0x05;
    EXPECT_EQ(crashText(*reinterpret_cast<const MutexByte*>(&raw)), "BAD(0x05)!");

    MutexByte::waiting_list chain;
    chain.construct();
    EXPECT_EQ(crashText(chain), "MutexByte-chain={empty}");
    MutexByte::per_thread_state pts;
    EXPECT_EQ(crashText(pts), "MutexByte-waiting={none}");

    // A head with the tail still at the head: one of the two halves of
    // emptiness without the other.
    chain.head = &pts;
    EXPECT_NE(crashText(chain).find(", CORRUPT}"), std::string::npos) << crashText(chain);
    chain.tailp = &pts._u.s.nextOnChain;
    EXPECT_EQ(crashText(chain).find("CORRUPT"), std::string::npos) << crashText(chain);
    chain.head = nullptr;
    EXPECT_NE(crashText(chain).find(", CORRUPT}"), std::string::npos) << crashText(chain);
    chain.tailp = &chain.head;

    pts._u.s.waitingOn = &b;
    EXPECT_EQ(crashText(pts),
              Str::fromFormat("MutexByte-waiting={%p, LOCKED}", static_cast<void*>(&b)));
    pts._u.s.nextOnChain = &pts;
    EXPECT_EQ(crashText(pts), Str::fromFormat("MutexByte-waiting={%p, next=%p, LOCKED}",
                                              static_cast<void*>(&b), static_cast<void*>(&pts)));
    pts._u.s = {nullptr, nullptr};
    chain.destruct();
}

// ---------------------------------------------------------------- pthread wrappers

TEST(PthreadMutexImpl, TryLockFailsWhileHeldAndTheCrashLogShowsTheFortyBytes) {
    Mutex m;
    const std::string unlocked = crashText(static_cast<const PthreadMutexImpl&>(m));
    EXPECT_EQ(unlocked, "PthreadMutexImpl:{" + std::string(80, '0') + "}");
    ASSERT_TRUE(m.tryLock());
    EXPECT_FALSE(m.tryLock());
    EXPECT_NE(crashText(static_cast<const PthreadMutexImpl&>(m)), unlocked);
    m.unlock();
    EXPECT_TRUE(m.tryLock());
    m.unlock();
}

TEST(ConditionWaitTimeout, PrintsAsShortAsIsExact) {
    const std::pair<ConditionWaitTimeout, const char*> cases[] = {
        {{1, 0}, "1"},           {{1, 5000000}, "1.005"},
        {{1, 5000}, "1.000005"}, {{1, 5}, "1.000000005"},
        {{7, -3}, "7"},          {{-2, 250000000}, "-2.250"},  // the sign is the seconds'
    };
    for (const auto& [timeout, expected] : cases) {
        EXPECT_EQ(Str::from(timeout), expected);
        EXPECT_EQ(crashText(timeout), expected);
    }
}

TEST(PthreadConditionImpl, TimedWaitsRunOnTheMonotonicClock) {
    ASSERT_EQ(monotonic_clock_decision(), MONOTONIC_CLOCK_IN_USE)
        << "glibc has pthread_condattr_setclock; the probe must find it";
    ConditionMutex m;
    PthreadConditionImpl c;
    const auto start = std::chrono::steady_clock::now();
    m.lock();
    EXPECT_FALSE(c.wait(m, ConditionWaitTimeout{0, 150000000}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));

    // A wake-up before the time runs out says true.
    bool flag = false;
    Worker w("waker", [&] {
        m.lock();
        flag = true;
        c.wake_one();
        m.unlock();
    });
    bool result = true;
    while (!flag && result) result = c.wait(m, ConditionWaitTimeout{60, 0});
    m.unlock();
    EXPECT_TRUE(result);
}

// Run again in a child with the variable set: the decision and the clock of
// MonotonicTime must follow it.
TEST(PthreadConditionImpl, TheEnvironmentCanTurnTheMonotonicClockOff) {
    const char* self = getenv("TARVEX_CLOCK_CHILD");
    if (self != nullptr) {
        EXPECT_EQ(monotonic_clock_decision(), MONOTONIC_CLOCK_DISABLED);
        struct timespec wall;
        timespec_get(&wall, TIME_UTC);
        const MonotonicTime now = MonotonicTime::now();
        EXPECT_LT(std::llabs(now.sec() - wall.tv_sec), 5) << "MonotonicTime is on the wall clock";
        ConditionMutex m;
        PthreadConditionImpl c;
        m.lock();
        EXPECT_FALSE(c.wait(m, ConditionWaitTimeout{0, 20000000}));
        m.unlock();
        return;
    }
    const testsupport::ProcessResult r = testsupport::runProcess(
        {"/proc/self/exe",
         "--gtest_filter=PthreadConditionImpl.TheEnvironmentCanTurnTheMonotonicClockOff"},
        {"TARVEX_CLOCK_CHILD=1", "TARVEX_USE_MONOTONIC_CLOCK=no"});
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("[  PASSED  ] 1 test"), std::string::npos) << r.out;
}

TEST(ReadWriteLock, ReadersShareAndAWriterExcludes) {
    ReadWriteLock l;
    auto reader = std::make_unique<ScopedReader>(&l);
    // A second reader, armed late, gets in while the first holds it.
    Worker("reader", [&] {
        ScopedReader inner;
        inner.setup(&l);
    });
    std::atomic<bool> writerIn{false};
    {
        Worker w("writer", [&] {
            ScopedWriter writer(&l);
            writerIn = true;
        });
        for (int i = 0; i < 1000; ++i) Thread::yieldCpu();
        EXPECT_FALSE(writerIn.load()) << "a writer got in beside a reader";
        reader.reset();
    }
    EXPECT_TRUE(writerIn.load());
}

TEST(SequenceLock, ReadersSeeAChangeAndWaitOutAWriter) {
    SequenceLock seq;
    const uint32_t v0 = seq.waitForWriter();
    EXPECT_FALSE(seq.changedSince(v0));
    seq.writeBegin();
    std::atomic<bool> readerDone{false};
    uint32_t seen = 1;
    Worker reader("reader", [&] {
        seen = seq.waitForWriter();
        readerDone = true;
    });
    for (int i = 0; i < 1000; ++i) Thread::yieldCpu();
    EXPECT_FALSE(readerDone.load()) << "a reader got past an open write";
    seq.writeEnd();
    ASSERT_TRUE(spinUntil([&] { return readerDone.load(); }));
    EXPECT_EQ(seen, v0 + 2);
    EXPECT_TRUE(seq.changedSince(v0));
}

}  // namespace
