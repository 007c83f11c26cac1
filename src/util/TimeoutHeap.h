#pragma once
// The timer queue of an event loop: a binary min-heap made of pointers, in
// which every Timeout is its own node. Adding or cancelling a timer allocates
// nothing and cannot fail, and a node knows the link that holds it, so any
// timer is cancelled in O(log n). One thread only: the loop's.
#include <cstdint>
#include <functional>

#include "util/CrashLog.h"
#include "util/Timeval.h"

// A poll() wait in milliseconds.
typedef int32_t poll_ms_t;
constexpr poll_ms_t POLL_MS_INFINITE = -1;

class TimeoutHeap;

class Timeout {
public:
    Timeout() = default;
    // A timeout must be unscheduled when it goes.
    virtual ~Timeout();
    Timeout(const Timeout&) = delete;
    Timeout& operator=(const Timeout&) = delete;

    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
    // On entry *interval is the interval of the last scheduling. A nonzero
    // value left in it schedules the timeout again, counted from the end of
    // the batch; zero leaves it off the heap.
    virtual void when_expired(Interval* interval) = 0;

    bool isScheduled() const { return _linkp != nullptr; }
    const MonotonicTime& when() const { return _when; }
    Interval initialInterval() const { return _initialInterval; }

    // Around every operation on a timeout, so that a crash says which.
    class ScopedCrashlogPrint : public ScopedPerThreadCrashLogNotation {
    public:
        explicit ScopedCrashlogPrint(const Timeout* t) : _t(t) { publish(); }
        void renderTo(CrashLogWriteHandler& h) const override;

    private:
        const Timeout* _t;
    };

private:
    friend class TimeoutHeap;

    // The heap's steps seen from a node.
    void swapWithChild(unsigned childno);
    void restoreOrder();
    // This node's links agree with its parent's and children's; asserts
    // each condition when `fatal`.
    bool linksAreSane(bool fatal) const;

    union {
        Timeout* child[2];
        struct {
            Timeout* next;
            Timeout** prevp;
        } to_list;
    } _ptr{};
    Timeout* _parent = nullptr;
    // The link that points here; two values that are no address mark the
    // private lists of a batch.
    Timeout** _linkp = nullptr;
    MonotonicTime _when;
    Interval _initialInterval;
};

// Runs callback() once per scheduling.
class OneShotTimeout : public Timeout {
public:
    virtual void callback() = 0;
    void when_expired(Interval* interval) override;
};

// Ticks at a fixed rate: the next delay is steered so that ticks keep to the
// schedule on average, however long tick() takes or the loop is late.
class PeriodicTimeout : public Timeout {
public:
    virtual void tick() = 0;
    void when_expired(Interval* interval) override;

private:
    MonotonicTime _next = MonotonicTime::min();
    Interval _averageReschedule;
    Interval _interval;
};

class TimeoutFunction : public Timeout {
public:
    explicit TimeoutFunction(std::function<void(Interval*)> f) : _f(std::move(f)) {}
    void when_expired(Interval* interval) override { _f(interval); }

private:
    std::function<void(Interval*)> _f;
};

class OneShotTimeoutFunction : public OneShotTimeout {
public:
    explicit OneShotTimeoutFunction(std::function<void()> f) : _f(std::move(f)) {}
    void callback() override { _f(); }

private:
    std::function<void()> _f;
};

class PeriodicTimeoutFunction : public PeriodicTimeout {
public:
    explicit PeriodicTimeoutFunction(std::function<void()> f) : _f(std::move(f)) {}
    void tick() override { _f(); }

private:
    std::function<void()> _f;
};

class TimeoutHeap {
public:
    // Timers due this close to the first one run in its batch: one wake-up.
    static constexpr uint64_t BATCH_MS = 170;
    // A poll that overran its wait by more than this moved the clock.
    static constexpr uint64_t SKEW_TOLERANCE_MS = 5000;
    static constexpr uint64_t SKEW_WARNING_MS = 120000;

    TimeoutHeap() = default;
    TimeoutHeap(const TimeoutHeap&) = delete;
    TimeoutHeap& operator=(const TimeoutHeap&) = delete;

    void add(Timeout* t, const MonotonicTime& now, Interval interval);
    void add(Timeout* t, Interval interval) { add(t, MonotonicTime::now(), interval); }
    void remove(Timeout* t);
    void modifyTimeoutInterval(Timeout* t, const MonotonicTime& now, Interval interval);
    void modifyTimeoutInterval(Timeout* t, Interval interval) {
        modifyTimeoutInterval(t, MonotonicTime::now(), interval);
    }
    void scaleTimeoutInterval(Timeout* t, const MonotonicTime& now, double factor);
    void scaleTimeoutInterval(Timeout* t, double factor) {
        scaleTimeoutInterval(t, MonotonicTime::now(), factor);
    }

    // Runs what is due by now + BATCH_MS; `now` is refreshed if anything ran.
    void runExpiredTimeouts(MonotonicTime& now);
    poll_ms_t msecUntilNextTimeout(const MonotonicTime& now) const;
    // Around a poll that asked for `ms_delay`: when it came back much later,
    // the clock jumped or the process stood still, and every timer moves.
    void checkClockSkew(const MonotonicTime& before, const MonotonicTime& after,
                        poll_ms_t ms_delay);
    // At shut-down: runs every zero-length timeout, including those that
    // the runs add, until none is left.
    void clearAndRunZeroTimeouts();

    unsigned timeoutCount() const { return _timeoutCount; }
    bool empty() const { return _timeouts == nullptr; }
    const Timeout* peekNext() const { return _timeouts; }
    bool inPoll() const { return _in_poll; }
    bool inServiceLoop() const { return _in_service_loop; }

    // Every node's links, its place in the heap order and the count; O(n),
    // for tests and debugging.
    bool verifyWholeHeap() const;

    class ScopedSetInServiceLoop {
    public:
        explicit ScopedSetInServiceLoop(TimeoutHeap& e);
        ~ScopedSetInServiceLoop();

    private:
        TimeoutHeap& _e;
    };
    class ScopedClearInServiceLoop {
    public:
        explicit ScopedClearInServiceLoop(TimeoutHeap& e);
        ~ScopedClearInServiceLoop();

    private:
        TimeoutHeap& _e;
    };
    class ScopedSetInPoll {
    public:
        explicit ScopedSetInPoll(TimeoutHeap& e);
        ~ScopedSetInPoll();

    private:
        TimeoutHeap& _e;
    };

protected:
    void renderTimeoutHeapCrashLogInfo(CrashLogWriteHandler& h) const;

    uint32_t _timeoutCount = 0;
    // The bit below the top set bit of the count: the path to the last slot.
    uint32_t _pathMask = 0;
    Timeout* _timeouts = nullptr;
    bool _in_service_loop = false;
    bool _in_poll = false;
    const Timeout* _currently_running_timeout = nullptr;
    bool _current_timeout_was_readded = false;

private:
    class ScopedSwitchCurrentlyRunningTimeout;
    struct PrivateList;

    Timeout* endSlotParent(Timeout*** childp) const;
    void addNonbusyTimeout(Timeout* t);
    void removePendingTimeout(Timeout* t);
    void runOne(Timeout* t, PrivateList& readd);
    void recursiveResubmitTimeouts(Timeout* t, Interval shift, const MonotonicTime& limit,
                                   const MonotonicTime& after);
    void recursiveFilterZeroLengthTimeouts(Timeout* t, PrivateList& expired);
    static void detachNode(Timeout* t, Timeout** c0, Timeout** c1);
    void rescheduleAfterBatch(PrivateList& readd, const MonotonicTime& now);
    void dropBatchAfterException(PrivateList& expired, PrivateList& readd);
};
