#include "util/TimeoutHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

// Records the order in which timeouts run; returns a fixed interval.
struct Recorder : Timeout {
    std::vector<int>* log = nullptr;
    int id = 0;
    uint64_t reschedule = 0;
    std::function<void()> during;
    void when_expired(Interval* interval) override {
        log->push_back(id);
        if (during) during();
        *interval = Interval(reschedule);
    }
};

// An array heap with the same rules as the pointer heap: strict
// comparisons, the right child only when the left is later, and a removed
// node replaced by the last one. Its pops give the order the loop must run.
struct ReferenceHeap {
    std::vector<std::pair<int64_t, int>> a;  // (deadline, id), a[0] is the root
    int64_t key(size_t i) const { return a[i].first; }
    size_t find(int id) const {
        for (size_t i = 0; i < a.size(); i++)
            if (a[i].second == id) return i;
        return a.size();
    }
    void up(size_t i) {
        while (i > 0 && key((i - 1) / 2) > key(i)) {
            std::swap(a[i], a[(i - 1) / 2]);
            i = (i - 1) / 2;
        }
    }
    void restore(size_t i) {
        if (i > 0 && key((i - 1) / 2) > key(i)) return up(i);
        for (;;) {
            size_t c = 2 * i + 1;
            if (c >= a.size()) return;
            if (c + 1 < a.size() && key(c) > key(c + 1)) c++;
            if (!(key(c) < key(i))) return;
            std::swap(a[i], a[c]);
            i = c;
        }
    }
    void add(int id, int64_t when) {
        a.push_back({when, id});
        if (a.size() > 1) restore(a.size() - 1);
    }
    void set(int id, int64_t when) {
        size_t i = find(id);
        a[i].first = when;
        if (a.size() > 1) restore(i);
    }
    void removeAt(size_t i) {
        a[i] = a.back();
        a.pop_back();
        if (i < a.size()) restore(i);
    }
};

TEST(TimeoutHeap, RandomOperationsMatchTheReferenceAndKeepEveryLink) {
    std::mt19937 rng(20261123);
    constexpr int N = 64;
    std::vector<Recorder> timers(N);
    std::vector<int> ran;
    for (int i = 0; i < N; i++) {
        timers[i].id = i;
        timers[i].log = &ran;
    }
    TimeoutHeap heap;
    ReferenceHeap ref;
    const MonotonicTime base = MonotonicTime::now() + Interval(3600000);
    int64_t horizon = 0;  // seconds past base already expired
    for (int step = 0; step < 20000; step++) {
        const int id = int(rng() % N);
        Recorder& t = timers[id];
        const unsigned op = rng() % 10;
        // Few distinct deadlines, so that equal ones are common.
        const int64_t due = horizon + 1 + int64_t(rng() % 8);
        if (op < 5) {
            heap.add(&t, base, Interval(uint64_t(due) * 1000));
            if (ref.find(id) == ref.a.size()) {
                ref.add(id, due);
            } else {
                ref.set(id, due);
            }
        } else if (op < 8) {
            heap.remove(&t);
            if (size_t i = ref.find(id); i < ref.a.size()) ref.removeAt(i);
        } else {
            // Run what is due by the next second.
            horizon++;
            MonotonicTime now = base + Interval(uint64_t(horizon) * 1000 - TimeoutHeap::BATCH_MS);
            ran.clear();
            heap.runExpiredTimeouts(now);
            std::vector<int> expected;
            while (!ref.a.empty() && ref.key(0) <= horizon) {
                expected.push_back(ref.a[0].second);
                ref.removeAt(0);
            }
            ASSERT_EQ(ran, expected) << "step " << step;
        }
        ASSERT_TRUE(heap.verifyWholeHeap()) << "step " << step;
        ASSERT_EQ(heap.timeoutCount(), ref.a.size());
    }
    for (auto& t : timers) heap.remove(&t);
    EXPECT_TRUE(heap.empty());
    EXPECT_TRUE(heap.verifyWholeHeap());
}

TEST(TimeoutHeap, EqualDeadlinesRunAsTheHeapHoldsThem) {
    std::vector<int> ran;
    Recorder a, b, c;
    a.id = 1, b.id = 2, c.id = 3;
    a.log = b.log = c.log = &ran;
    TimeoutHeap heap;
    MonotonicTime now = MonotonicTime::now();
    for (Recorder* t : {&a, &b, &c}) heap.add(t, now, Interval(0));
    heap.runExpiredTimeouts(now);
    EXPECT_EQ(ran, (std::vector<int>{1, 3, 2}));
}

TEST(TimeoutHeap, OneBatchTakesWhatIsDueWithinItsWindow) {
    std::vector<int> ran;
    Recorder now0, soon, later;
    now0.id = 0, soon.id = 150, later.id = 200;
    now0.log = soon.log = later.log = &ran;
    TimeoutHeap heap;
    const MonotonicTime start = MonotonicTime::now();
    heap.add(&now0, start, Interval(0));
    heap.add(&soon, start, Interval(150));
    heap.add(&later, start, Interval(200));
    MonotonicTime now = start;
    heap.runExpiredTimeouts(now);
    EXPECT_EQ(ran, (std::vector<int>{0, 150}));
    EXPECT_GE(now, start);
    EXPECT_EQ(heap.timeoutCount(), 1u);
    heap.remove(&later);
}

TEST(TimeoutHeap, RemovingDuringTheBatchKeepsOnlyTheZeroLengthPromise) {
    std::vector<int> ran;
    Recorder first, zero, timed;
    first.id = 1, zero.id = 2, timed.id = 3;
    first.log = zero.log = timed.log = &ran;
    TimeoutHeap heap;
    MonotonicTime now = MonotonicTime::now();
    // `first` runs first and cancels the two others, which are on the
    // batch's list already.
    heap.add(&first, now - Interval(10), Interval(0));
    heap.add(&zero, now, Interval(0));
    heap.add(&timed, now - Interval(100), Interval(100));
    first.during = [&] {
        heap.remove(&zero);
        heap.remove(&timed);
        EXPECT_EQ(ran, (std::vector<int>{1, 2}));  // the promise ran inside remove
    };
    heap.runExpiredTimeouts(now);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_TRUE(heap.empty());
}

TEST(TimeoutHeap, ReaddedTimeoutsCountFromTheEndOfTheBatch) {
    std::vector<int> ran;
    Recorder periodic;
    periodic.log = &ran;
    periodic.reschedule = 500;
    TimeoutHeap heap;
    MonotonicTime now = MonotonicTime::now();
    heap.add(&periodic, now, Interval(0));
    heap.runExpiredTimeouts(now);
    ASSERT_TRUE(periodic.isScheduled());
    EXPECT_EQ(periodic.when(), now + Interval(500));
    EXPECT_EQ(periodic.initialInterval(), Interval(500));
    heap.remove(&periodic);
}

TEST(TimeoutHeap, ModifyingKeepsTheTimeAlreadyWaited) {
    struct Case {
        uint64_t old, waited, changed, expectedDelay;
    } cases[] = {
        {1000, 300, 2000, 1700},  // longer: the 300 ms waited count
        {1000, 300, 500, 200},    // shorter
        {1000, 800, 500, 0},      // shorter than what was waited: due now
        {1000, 1500, 400, 400},   // already overdue: the new interval from now
    };
    for (const Case& c : cases) {
        Recorder t;
        TimeoutHeap heap;
        const MonotonicTime start = MonotonicTime::now();
        heap.add(&t, start, Interval(c.old));
        const MonotonicTime now = start + Interval(c.waited);
        heap.modifyTimeoutInterval(&t, now, Interval(c.changed));
        EXPECT_EQ(t.when(), now + Interval(c.expectedDelay)) << c.old << "->" << c.changed;
        EXPECT_EQ(t.initialInterval(), Interval(c.changed));
        heap.remove(&t);
    }
}

TEST(TimeoutHeap, WaitRoundsDownAndCaps) {
    Recorder t;
    TimeoutHeap heap;
    const MonotonicTime now = MonotonicTime::now();
    EXPECT_EQ(heap.msecUntilNextTimeout(now), POLL_MS_INFINITE);
    struct Case {
        MonotonicTime::Ticks ahead;
        poll_ms_t wait;
    } cases[] = {
        {MonotonicTime::Ticks(0), 0},
        {MonotonicTime::Ticks(1999999), 1},
        {MonotonicTime::Ticks(uint64_t(3000000000) * 1000000), 2147483647},
    };
    for (const Case& c : cases) {
        heap.add(&t, now + c.ahead, Interval(0));
        EXPECT_EQ(heap.msecUntilNextTimeout(now), c.wait);
        heap.remove(&t);
    }
    heap.add(&t, now - Interval(5), Interval(0));
    EXPECT_EQ(heap.msecUntilNextTimeout(now), 0);
    heap.remove(&t);
}

TEST(TimeoutHeap, AClockJumpMovesEveryTimerWithIt) {
    constexpr int N = 7;
    std::vector<Recorder> timers(N);
    TimeoutHeap heap;
    const MonotonicTime before = MonotonicTime::now();
    for (int i = 0; i < N; i++) heap.add(&timers[i], before, Interval(1000 + 1000 * i));
    const MonotonicTime after = before + Interval(3600000);
    testing::internal::CaptureStderr();
    heap.checkClockSkew(before, after, 1000);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Either time adjusted forwards by, or event loop was descheduled for "
                       "3600000ms."),
              std::string::npos)
        << err;
    ASSERT_TRUE(heap.verifyWholeHeap());
    for (int i = 0; i < N; i++) {
        // Shifted by the overrun, and never more than an interval from now.
        EXPECT_EQ(timers[i].when(), after + Interval(1000 * i)) << i;
    }
    // The heap takes new timers in its new shape.
    Recorder more[3];
    for (Recorder& t : more) heap.add(&t, after, Interval(10));
    EXPECT_TRUE(heap.verifyWholeHeap());
    for (Recorder& t : more) heap.remove(&t);
    for (Recorder& t : timers) heap.remove(&t);

    // Within the tolerance nothing moves.
    Recorder t;
    heap.add(&t, before, Interval(1000));
    heap.checkClockSkew(before, before + Interval(5999), 1000);
    EXPECT_EQ(t.when(), before + Interval(1000));
    heap.remove(&t);
}

TEST(TimeoutHeap, ShutdownRunsZeroLengthTimeoutsUntilNoneIsLeft) {
    std::vector<int> ran;
    Recorder zero, chained, timed;
    zero.id = 1, chained.id = 2, timed.id = 3;
    zero.log = chained.log = timed.log = &ran;
    TimeoutHeap heap;
    const MonotonicTime now = MonotonicTime::now();
    heap.add(&zero, now + Interval(100000), Interval(0));
    heap.add(&timed, now, Interval(100000));
    zero.during = [&] { heap.add(&chained, Interval(0)); };
    heap.clearAndRunZeroTimeouts();
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_TRUE(timed.isScheduled());
    EXPECT_EQ(heap.timeoutCount(), 1u);
    heap.remove(&timed);
}

TEST(TimeoutHeap, AThrowingTimeoutLeavesTheRestOfItsBatchScheduled) {
    std::vector<int> ran;
    Recorder thrower, a, b;
    thrower.id = 0, a.id = 1, b.id = 2;
    thrower.log = a.log = b.log = &ran;
    thrower.during = [] { throw std::runtime_error("boom"); };
    TimeoutHeap heap;
    MonotonicTime now = MonotonicTime::now();
    heap.add(&thrower, now - Interval(5), Interval(0));
    heap.add(&a, now, Interval(0));
    heap.add(&b, now, Interval(20));
    EXPECT_THROW(heap.runExpiredTimeouts(now), std::runtime_error);
    EXPECT_EQ(ran, (std::vector<int>{0}));
    EXPECT_TRUE(heap.verifyWholeHeap());
    EXPECT_TRUE(a.isScheduled() && b.isScheduled());
    heap.runExpiredTimeouts(now);
    EXPECT_EQ(ran.size(), 3u);
    EXPECT_FALSE(thrower.isScheduled());
}

struct Ticker : PeriodicTimeout {
    std::function<void()> body;
    void tick() override { body(); }
};

TEST(TimeoutHeap, PeriodicTimeoutSteersItsDelay) {
    // A tick longer than the interval: half the interval, never 0.
    Ticker slow;
    slow.body = [] { Interval(30).sleep(); };
    Interval next(20);
    slow.when_expired(&next);
    EXPECT_EQ(next, Interval(10));
    Interval tiny(1);
    Ticker slowTiny;
    slowTiny.body = [] { Interval(5).sleep(); };
    slowTiny.when_expired(&tiny);
    EXPECT_EQ(tiny, Interval(1));

    // A quick tick: the rest of the interval.
    Ticker quick;
    quick.body = [] {};
    Interval first(100);
    quick.when_expired(&first);
    EXPECT_GE(first.ms(), 90u);
    EXPECT_LE(first.ms(), 100u);
    // A whole interval behind: the lost ticks are dropped and the next
    // delay is the average so far.
    quick.body = [] { Interval(320).sleep(); };
    Interval second(100);
    quick.when_expired(&second);
    EXPECT_EQ(second, first);
}

TEST(TimeoutHeapDeathTest, ReaddingItselfAndReturningAnIntervalIsAFault) {
    EXPECT_DEATH(
        {
            TimeoutHeap heap;
            Recorder t;
            std::vector<int> ran;
            t.log = &ran;
            t.reschedule = 10;
            t.during = [&] { heap.add(&t, Interval(10)); };
            MonotonicTime now = MonotonicTime::now();
            heap.add(&t, now, Interval(0));
            heap.runExpiredTimeouts(now);
        },
        "!_current_timeout_was_readded");
}

}  // namespace
