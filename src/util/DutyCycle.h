#pragma once
// How busy a thread has been over a recent span, with no history kept: the
// last ratio fades linearly while the present stretch (busy or idle) grows.

#include "util/ThreadLocks.h"
#include "util/Timeval.h"

class DutyCycleEstimate {
public:
    static constexpr uint64_t DEFAULT_SPAN_NS = 15000000000ull;

    explicit DutyCycleEstimate(MonotonicTime::Ticks span = MonotonicTime::Ticks(DEFAULT_SPAN_NS));

    // The calling thread's estimate (in its scratch); a foreign thread gets
    // a process-wide one while the process has no second thread.
    static DutyCycleEstimate& perThread();

    // The ratio as of `now`; the caller holds the mutex.
    double locked_ratio(const MonotonicTime& now) const;
    // The same, taking the mutex.
    double ratio(const MonotonicTime& now);
    // A transition: from `now` on the thread is busy (true) or idle.
    void setRunning(bool running, const MonotonicTime& now);
    void setRunning(bool running) { setRunning(running, MonotonicTime::now()); }
    void resetAfterFork();

    double _ratio = 0;
    bool _running = false;
    bool _claimed = false;
    MonotonicTime::Ticks _span;
    MonotonicTime _lastUpdate;
    double _reciprocal;
    PthreadMutexImpl _mutex;
};

// Claims the thread's estimate for a scope and marks it busy or idle at once.
// When an outer scope holds the claim, an estimate of its own serves.
class ScopedDutyCycleClaimThread {
public:
    explicit ScopedDutyCycleClaimThread(bool running);
    ~ScopedDutyCycleClaimThread();
    ScopedDutyCycleClaimThread(const ScopedDutyCycleClaimThread&) = delete;
    ScopedDutyCycleClaimThread& operator=(const ScopedDutyCycleClaimThread&) = delete;

    DutyCycleEstimate& estimate() { return _dc; }
    void setRunning(bool running) { _dc.setRunning(running); }

private:
    DutyCycleEstimate _own;
    DutyCycleEstimate& _dc;
};
