#include "util/TimeoutHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
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
    void restore(size_t i) {
        for (; i > 0 && key((i - 1) / 2) > key(i); i = (i - 1) / 2) std::swap(a[i], a[(i - 1) / 2]);
        for (size_t c; (c = 2 * i + 1) < a.size(); i = c) {
            if (c + 1 < a.size() && key(c) > key(c + 1)) c++;
            if (!(key(c) < key(i))) return;
            std::swap(a[i], a[c]);
        }
    }
    void schedule(int id, int64_t when) {
        size_t i = find(id);
        if (i == a.size()) a.push_back({when, id});
        a[i].first = when;
        restore(i);
    }
    void removeAt(size_t i) {
        a[i] = a.back();
        a.pop_back();
        if (i < a.size()) restore(i);
    }
};

// Timers that log their ids to `ran`, and the heap they go on.
class TimeoutHeapTest : public ::testing::Test {
protected:
    Recorder& timer(int id) {
        Recorder& t = _timers.emplace_back();
        t.id = id, t.log = &ran;
        return t;
    }
    std::vector<int> ran;
    std::deque<Recorder> _timers;
    TimeoutHeap heap;
};

TEST_F(TimeoutHeapTest, RandomOperationsMatchTheReferenceAndKeepEveryLink) {
    std::mt19937 rng(20261123);
    constexpr int N = 64;
    for (int i = 0; i < N; i++) timer(i);
    ReferenceHeap ref;
    const MonotonicTime base = MonotonicTime::now() + Interval(3600000);
    int64_t horizon = 0;  // seconds past base already expired
    for (int step = 0; step < 20000; step++) {
        const int id = int(rng() % N);
        Recorder& t = _timers[id];
        const unsigned op = rng() % 10;
        // Few distinct deadlines, so that equal ones are common.
        const int64_t due = horizon + 1 + int64_t(rng() % 8);
        if (op < 5) {
            heap.add(&t, base, Interval(uint64_t(due) * 1000));
            ref.schedule(id, due);
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
    for (auto& t : _timers) heap.remove(&t);
    EXPECT_TRUE(heap.empty());
    EXPECT_TRUE(heap.verifyWholeHeap());
}

TEST_F(TimeoutHeapTest, RemovingDuringTheBatchKeepsOnlyTheZeroLengthPromise) {
    Recorder &first = timer(1), &zero = timer(2), &timed = timer(3);
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

TEST_F(TimeoutHeapTest, ReaddedTimeoutsCountFromTheEndOfTheBatch) {
    Recorder& periodic = timer(0);
    periodic.reschedule = 500;
    MonotonicTime now = MonotonicTime::now();
    heap.add(&periodic, now, Interval(0));
    heap.runExpiredTimeouts(now);
    ASSERT_TRUE(periodic.isScheduled());
    EXPECT_EQ(periodic.when(), now + Interval(500));
    heap.remove(&periodic);
}

TEST(TimeoutHeap, ModifyingKeepsTheTimeAlreadyWaited) {
    // Old interval, time waited, new interval, delay from now.
    const uint64_t cases[][4] = {
        {1000, 300, 2000, 1700},  // longer: the 300 ms waited count
        {1000, 300, 500, 200},    // shorter
        {1000, 800, 500, 0},      // shorter than what was waited: due now
        {1000, 1500, 400, 400},   // already overdue: the new interval from now
    };
    for (auto [old, waited, changed, delay] : cases) {
        Recorder t;
        TimeoutHeap heap;
        const MonotonicTime start = MonotonicTime::now(), now = start + Interval(waited);
        heap.add(&t, start, Interval(old));
        heap.modifyTimeoutInterval(&t, now, Interval(changed));
        EXPECT_EQ(t.when(), now + Interval(delay)) << old << "->" << changed;
        EXPECT_EQ(t.initialInterval(), Interval(changed));
        heap.remove(&t);
    }
}

TEST(TimeoutHeap, WaitRoundsDownAndCaps) {
    Recorder t;
    TimeoutHeap heap;
    const MonotonicTime now = MonotonicTime::now();
    EXPECT_EQ(heap.msecUntilNextTimeout(now), POLL_MS_INFINITE);
    // Nanoseconds ahead and the wait.
    for (auto [ahead, wait] :
         {std::pair{uint64_t(0), 0}, {1999999, 1}, {uint64_t(3000000000) * 1000000, 2147483647}}) {
        heap.add(&t, now + MonotonicTime::Ticks(ahead), Interval(0));
        EXPECT_EQ(heap.msecUntilNextTimeout(now), wait) << ahead;
        heap.remove(&t);
    }
}

TEST_F(TimeoutHeapTest, AClockJumpMovesEveryTimerWithIt) {
    constexpr int N = 7;
    const MonotonicTime before = MonotonicTime::now();
    for (int i = 0; i < N; i++) heap.add(&timer(i), before, Interval(1000 + 1000 * i));
    const MonotonicTime after = before + Interval(3600000);
    testing::internal::CaptureStderr();
    heap.checkClockSkew(before, after, 1000);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Either time adjusted forwards by, or event loop was descheduled for "
                       "3600000ms."),
              std::string::npos)
        << err;
    ASSERT_TRUE(heap.verifyWholeHeap());
    // Shifted by the overrun, and never more than an interval from now.
    for (int i = 0; i < N; i++) EXPECT_EQ(_timers[i].when(), after + Interval(1000 * i)) << i;
    for (Recorder& t : _timers) heap.remove(&t);

    // Within the tolerance nothing moves.
    Recorder& t = timer(0);
    heap.add(&t, before, Interval(1000));
    heap.checkClockSkew(before, before + Interval(5999), 1000);
    EXPECT_EQ(t.when(), before + Interval(1000));
    heap.remove(&t);
}

TEST_F(TimeoutHeapTest, ShutdownRunsZeroLengthTimeoutsUntilNoneIsLeft) {
    Recorder &zero = timer(1), &chained = timer(2), &timed = timer(3);
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

TEST_F(TimeoutHeapTest, AThrowingTimeoutLeavesTheRestOfItsBatchScheduled) {
    Recorder &thrower = timer(0), &a = timer(1), &b = timer(2);
    thrower.during = [] { throw std::runtime_error("boom"); };
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
    explicit Ticker(std::function<void()> b) : body(std::move(b)) {}
    std::function<void()> body;
    void tick() override { body(); }
};

TEST(TimeoutHeap, PeriodicTimeoutSteersItsDelay) {
    // A tick longer than the interval: half the interval, never 0.
    for (auto [interval, half] : {std::pair{20, 10}, {1, 1}}) {
        Ticker slow([] { Interval(30).sleep(); });
        Interval next(interval);
        slow.when_expired(&next);
        EXPECT_EQ(next, Interval(half)) << interval;
    }
    // A quick tick: the rest of the interval.
    Ticker quick([] {});
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
    TimeoutHeap heap;
    Recorder t;
    std::vector<int> ran;
    t.log = &ran, t.reschedule = 10;
    t.during = [&] { heap.add(&t, Interval(10)); };
    MonotonicTime now = MonotonicTime::now();
    heap.add(&t, now, Interval(0));
    EXPECT_DEATH(heap.runExpiredTimeouts(now), "!_current_timeout_was_readded");
    heap.remove(&t);
}

}  // namespace
