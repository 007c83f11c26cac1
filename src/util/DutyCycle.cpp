#include "util/DutyCycle.h"

#include "libzero/assertion.h"
#include "util/Thread.h"

DutyCycleEstimate::DutyCycleEstimate(MonotonicTime::Ticks span)
    : _span(span), _lastUpdate(MonotonicTime::now() - span), _reciprocal(1.0 / double(span._ns)) {}

double DutyCycleEstimate::locked_ratio(const MonotonicTime& now) const {
    // Nanoseconds since the last transition, 0 if the clock reads earlier.
    uint64_t e = 0;
    if (now > _lastUpdate) {
        const int64_t sec = now.sec() - _lastUpdate.sec();
        const int64_t nsec = now.nsec() - _lastUpdate.nsec();
        const __int128 total = __int128(sec) * 1000000000 + nsec;
        e = total > __int128(UINT64_MAX) ? UINT64_MAX : uint64_t(total);
    }
    if (e > _span._ns) return _running ? 1.0 : 0.0;
    return (double(_span._ns - e) * _ratio + (_running ? double(e) : 0.0)) * _reciprocal;
}

double DutyCycleEstimate::ratio(const MonotonicTime& now) {
    ScopedLock lock(_mutex);
    return locked_ratio(now);
}

void DutyCycleEstimate::setRunning(bool running, const MonotonicTime& now) {
    ScopedLock lock(_mutex);
    _ratio = locked_ratio(now);
    _running = running;
    _lastUpdate = now;
}

void DutyCycleEstimate::resetAfterFork() {
    _ratio = 0;
    _running = false;
    _lastUpdate = MonotonicTime::now() - _span;
}

DutyCycleEstimate& DutyCycleEstimate::perThread() {
    Thread* thr = Thread::current();
    if (thr == nullptr) {
        // Before a second thread exists the process is this one thread; a
        // foreign thread later has no scratch of its own.
        Thread::assertNotMultithreadedYet();
        static DutyCycleEstimate processWide;
        return processWide;
    }
    // clang-format off
    ASSERT(thr->_scratchp != nullptr);
    // clang-format on
    return thr->_scratchp.load()->dutyCycle;
}

static DutyCycleEstimate& claim(DutyCycleEstimate& own) {
    DutyCycleEstimate& shared = DutyCycleEstimate::perThread();
    ScopedLock lock(shared._mutex);
    if (shared._claimed) return own;
    shared._claimed = true;
    return shared;
}

ScopedDutyCycleClaimThread::ScopedDutyCycleClaimThread(bool running)
    : _own(MonotonicTime::Ticks(DutyCycleEstimate::DEFAULT_SPAN_NS)), _dc(claim(_own)) {
    if (running) _dc.setRunning(true);
}

ScopedDutyCycleClaimThread::~ScopedDutyCycleClaimThread() {
    if (&_dc == &_own) return;
    ScopedLock lock(_dc._mutex);
    // clang-format off
    ASSERT(_dc._claimed);
    // clang-format on
    _dc._claimed = false;
}
