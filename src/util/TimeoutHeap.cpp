#include "util/TimeoutHeap.h"

#include "libzero/assertion.h"
#include "util/Logger.h"

Logger eventloop_log("EventLoop");

namespace {

// _linkp values that are no address.
Timeout** const STATE_EXPIRED = reinterpret_cast<Timeout**>(1UL);
Timeout** const STATE_READD = reinterpret_cast<Timeout**>(3UL);

bool isPowerOfTwo(uint32_t v) { return v != 0 && (v & (v - 1)) == 0; }

}  // namespace

// A batch's list of timeouts, linked through to_list. Entries are appended
// only before anything on it runs; afterwards any of them may be unlinked
// through its own prevp, which is why the tail is not kept right then.
struct TimeoutHeap::PrivateList {
    Timeout* head = nullptr;
    Timeout** tailp = &head;

    void append(Timeout* t, Timeout** state) {
        t->_ptr.to_list.next = nullptr;
        t->_ptr.to_list.prevp = tailp;
        *tailp = t;
        tailp = &t->_ptr.to_list.next;
        t->_linkp = state;
    }
    void pushFront(Timeout* t, Timeout** state) {
        t->_ptr.to_list.next = head;
        t->_ptr.to_list.prevp = &head;
        if (head != nullptr) head->_ptr.to_list.prevp = &t->_ptr.to_list.next;
        head = t;
        t->_linkp = state;
    }
    static void unlink(Timeout* t) {
        Timeout* next = t->_ptr.to_list.next;
        *t->_ptr.to_list.prevp = next;
        if (next != nullptr) next->_ptr.to_list.prevp = t->_ptr.to_list.prevp;
        t->_ptr.to_list.next = nullptr;
        t->_ptr.to_list.prevp = nullptr;
    }
};

class TimeoutHeap::ScopedSwitchCurrentlyRunningTimeout {
public:
    ScopedSwitchCurrentlyRunningTimeout(TimeoutHeap& e, const Timeout* newval,
                                        const Timeout* oldval)
        : _e(e), _newval(newval), _oldval(oldval) {
        switchTo(newval, oldval);
    }
    ~ScopedSwitchCurrentlyRunningTimeout() { switchTo(_oldval, _newval); }

private:
    void switchTo(const Timeout* val, const Timeout* oldval) {
        ASSERT(_e._currently_running_timeout == oldval);
        _e._currently_running_timeout = val;
        if (val != nullptr) _e._current_timeout_was_readded = false;
    }
    TimeoutHeap& _e;
    const Timeout* _newval;
    const Timeout* _oldval;
};

// ---------------------------------------------------------------- Timeout

Timeout::~Timeout() { ASSERT(_linkp == nullptr); }

void Timeout::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("Timeout Attribute Info:\n         _when = ");
    crashlog_write(h, _when);
    h.write(", _initialInterval = ");
    crashlog_write(h, _initialInterval);
}

void Timeout::ScopedCrashlogPrint::renderTo(CrashLogWriteHandler& h) const {
    h.dumpMemory("Timeout object", _t, 512);
    h.write("\n");
    _t->renderCrashLogInfoTo(h);
}

void OneShotTimeout::when_expired(Interval* interval) {
    *interval = Interval(0);
    callback();
}

void PeriodicTimeout::when_expired(Interval* interval) {
    const uint64_t one = 1;
    if (_next.isMin()) {
        _interval = *interval;
        ASSERT(!_interval.isZero());
        _next = MonotonicTime::now();
        tick();
        _next += _interval;
        const MonotonicTime n = MonotonicTime::now();
        if (n >= _next) {
            *interval = Interval(std::max(one, _interval.ms() / 2));
            _next -= *interval;
            _averageReschedule = Interval(1);
        } else {
            uint64_t ms = std::max(one, (_next - n).ms());
            if (ms > _interval.ms() + 170) ms = _interval.ms();
            *interval = Interval(ms);
            _averageReschedule = *interval;
        }
        return;
    }

    tick();
    _next += _interval;
    const MonotonicTime n = MonotonicTime::now();
    if (n < _next) {
        const uint64_t ms = (_next - n).ms();
        if (ms > _interval.ms() + 850) {
            // The clock went wrong: keep the pace we had.
            *interval = _averageReschedule;
            _next = n + _averageReschedule;
        } else {
            *interval = Interval(std::max(one, ms));
            _averageReschedule = Interval((7 * _averageReschedule.ms() + interval->ms()) / 8);
            ASSERT(!_averageReschedule.isZero());
        }
    } else if ((n - _next) < _interval) {
        // Behind by less than a tick: catch up by ticking sooner.
        uint64_t ms = _interval.ms() / 2;
        if (ms > 3 * _averageReschedule.ms() / 4) ms = _averageReschedule.ms() / 2;
        *interval = Interval(std::max(one, ms));
    } else {
        // A whole tick or more behind: the lost ticks are given up.
        _next = n + _interval;
        *interval = _averageReschedule;
        _averageReschedule = Interval(std::max(one, _averageReschedule.ms() / 2));
    }
}

// ---------------------------------------------------------------- heap shape

Timeout* TimeoutHeap::endSlotParent(Timeout*** childp) const {
    Timeout** link = const_cast<Timeout**>(&_timeouts);
    Timeout* parent = nullptr;
    for (uint32_t mask = _pathMask; mask != 0; mask >>= 1) {
        parent = *link;
        link = &parent->_ptr.child[(_timeoutCount & mask) != 0];
    }
    *childp = link;
    return parent;
}

bool Timeout::linksAreSane(bool fatal) const {
#define SANE(cond)                   \
    do {                             \
        if (!(cond)) {               \
            if (fatal) ASSERT(cond); \
            return false;            \
        }                            \
    } while (0)
    SANE(_linkp != nullptr);
    SANE(*_linkp == this);
    SANE(_ptr.child[0] != nullptr || _ptr.child[1] == nullptr);
    SANE(_ptr.child[0] == nullptr || _ptr.child[0] != _ptr.child[1]);
    for (unsigned i = 0; i < 2; i++) {
        const Timeout* c = _ptr.child[i];
        SANE(c == nullptr || c->_parent == this);
        SANE(c == nullptr || c->_linkp == &_ptr.child[i]);
    }
    SANE(_parent == nullptr || _parent->_ptr.child[0] == this || _parent->_ptr.child[1] == this);
#undef SANE
    return true;
}

#ifdef NDEBUG
#define CHECK_LINKS(t) ((void)0)
#else
#define CHECK_LINKS(t) ((void)(t)->linksAreSane(true))
#endif

void Timeout::swapWithChild(unsigned childno) {
    Timeout* oc = _ptr.child[childno];
    ASSERT(_when > oc->_when);
    CHECK_LINKS(this);
    CHECK_LINKS(oc);
    Timeout* grand0 = oc->_ptr.child[0];
    Timeout* grand1 = oc->_ptr.child[1];
    Timeout* other = _ptr.child[1 - childno];

    oc->_parent = _parent;
    oc->_linkp = _linkp;
    *oc->_linkp = oc;

    oc->_ptr.child[childno] = this;
    _parent = oc;
    _linkp = &oc->_ptr.child[childno];

    oc->_ptr.child[1 - childno] = other;
    if (other != nullptr) {
        other->_parent = oc;
        other->_linkp = &oc->_ptr.child[1 - childno];
    }

    _ptr.child[0] = grand0;
    _ptr.child[1] = grand1;
    for (unsigned i = 0; i < 2; i++) {
        if (_ptr.child[i] != nullptr) {
            _ptr.child[i]->_parent = this;
            _ptr.child[i]->_linkp = &_ptr.child[i];
        }
    }
    CHECK_LINKS(this);
    CHECK_LINKS(oc);
}

void Timeout::restoreOrder() {
    if (_parent != nullptr && _parent->_when > _when) {
        do {
            Timeout* p = _parent;
            p->swapWithChild(p->_ptr.child[1] == this ? 1 : 0);
        } while (_parent != nullptr && _parent->_when > _when);
        return;
    }
    // Equal times neither rise nor sink: a later arrival stays below.
    while (_ptr.child[0] != nullptr) {
        const unsigned earlier =
            _ptr.child[1] != nullptr && _ptr.child[0]->_when > _ptr.child[1]->_when ? 1 : 0;
        if (!(_ptr.child[earlier]->_when < _when)) break;
        swapWithChild(earlier);
    }
    if (_ptr.child[0] == nullptr) ASSERT(_ptr.child[1] == nullptr);
}

void TimeoutHeap::addNonbusyTimeout(Timeout* t) {
    if (t->_linkp == nullptr) {
        ASSERT(!_in_poll);
        t->_ptr.child[0] = t->_ptr.child[1] = nullptr;
        _timeoutCount++;
        if (_timeoutCount > 1 && isPowerOfTwo(_timeoutCount)) {
            _pathMask = _pathMask == 0 ? 1 : _pathMask << 1;
        }
        t->_parent = endSlotParent(&t->_linkp);
        ASSERT(*(t->_linkp) == nullptr);
        *t->_linkp = t;
    }
    if (_timeoutCount >= 2) t->restoreOrder();
    CHECK_LINKS(t);
}

void TimeoutHeap::removePendingTimeout(Timeout* t) {
    ASSERT(t->_linkp != nullptr && t->_linkp != STATE_EXPIRED && t->_linkp != STATE_READD);
    ASSERT(_timeoutCount > 0);
    ASSERT(!_in_poll);
    Timeout** lastLink;
    endSlotParent(&lastLink);
    Timeout* last = *lastLink;
    *lastLink = nullptr;
    if (last != t) {
        last->_linkp = t->_linkp;
        *last->_linkp = last;
        last->_parent = t->_parent;
        for (unsigned i = 0; i < 2; i++) {
            Timeout* c = t->_ptr.child[i];
            last->_ptr.child[i] = c;
            if (c != nullptr) {
                c->_parent = last;
                c->_linkp = &last->_ptr.child[i];
            }
        }
    }
    const uint32_t oldCount = _timeoutCount--;
    if (isPowerOfTwo(oldCount)) _pathMask >>= 1;
    if (last != t) last->restoreOrder();
    t->_ptr.child[0] = t->_ptr.child[1] = nullptr;
    t->_parent = nullptr;
}

bool TimeoutHeap::verifyWholeHeap() const {
    uint32_t seen = 0;
    bool ok = true;
    auto walk = [&](auto& self, const Timeout* t) -> void {
        if (t == nullptr || !ok) return;
        seen++;
        if (!t->linksAreSane(false) || (t->_parent != nullptr && t->_parent->_when > t->_when)) {
            ok = false;
            return;
        }
        self(self, t->_ptr.child[0]);
        self(self, t->_ptr.child[1]);
    };
    walk(walk, _timeouts);
    if (_timeouts != nullptr && (_timeouts->_parent != nullptr || _timeouts->_linkp != &_timeouts))
        return false;
    const uint32_t expectedMask =
        _timeoutCount < 2 ? 0 : uint32_t(1) << (31 - __builtin_clz(_timeoutCount) - 1);
    return ok && seen == _timeoutCount && _pathMask == expectedMask;
}

// ---------------------------------------------------------------- operations

void TimeoutHeap::add(Timeout* t, const MonotonicTime& now, Interval interval) {
    Timeout::ScopedCrashlogPrint notation(t);
    if (t == _currently_running_timeout) _current_timeout_was_readded = true;
    t->_initialInterval = interval;
    if (t->_linkp == STATE_READD) return;  // the batch's end schedules it
    if (t->_linkp == STATE_EXPIRED) {
        if (interval.isZero()) return;  // still due in this batch
        PrivateList::unlink(t);
        t->_linkp = nullptr;
    }
    t->_when = now + interval;
    addNonbusyTimeout(t);
}

void TimeoutHeap::remove(Timeout* timo) {
    ASSERT(timo != _currently_running_timeout);
    Timeout::ScopedCrashlogPrint notation(timo);
    Timeout* const t = timo;
    if (t->_linkp == nullptr) return;
    if (t->_linkp == STATE_READD) {
        PrivateList::unlink(t);
        t->_linkp = nullptr;
    } else if (t->_linkp == STATE_EXPIRED) {
        PrivateList::unlink(t);
        t->_linkp = nullptr;
        if (t->_initialInterval.isZero()) {
            // A zero-length timeout is a promise: cancelled during its
            // batch, it runs here and now.
            const Timeout* old_crt = _currently_running_timeout;
            ASSERT(old_crt != nullptr);
            ASSERT(old_crt != t);
            ScopedSwitchCurrentlyRunningTimeout running(*this, t, old_crt);
            Interval zero(0);
            t->when_expired(&zero);
        }
    } else {
        removePendingTimeout(t);
        t->_linkp = nullptr;
    }
}

void TimeoutHeap::modifyTimeoutInterval(Timeout* t, const MonotonicTime& now, Interval interval) {
    ASSERT(!_in_poll);
    ASSERT(t != _currently_running_timeout);
    Timeout::ScopedCrashlogPrint notation(t);
    const Interval old = t->_initialInterval;
    if (t->_linkp == STATE_READD) {
        t->_initialInterval = interval;
        return;
    }
    if (t->_linkp == STATE_EXPIRED) {
        t->_initialInterval = interval;
        if (interval <= old) return;  // stays expired
        PrivateList::unlink(t);
        t->_linkp = nullptr;
        t->_when = now + Interval(interval.ms() - old.ms());
        addNonbusyTimeout(t);
        return;
    }
    if (t->_linkp == nullptr) {
        t->_initialInterval = interval;
        t->_when = now + interval;
        addNonbusyTimeout(t);
        return;
    }
    if (interval == old) return;
    removePendingTimeout(t);
    t->_linkp = nullptr;
    // The time already waited counts towards the new interval.
    uint64_t delay = interval.ms();
    if (now < t->_when) {
        const uint64_t r = (t->_when - now).ms();
        delay = interval.ms() + r > old.ms() ? interval.ms() + r - old.ms() : 0;
    }
    t->_when = now + Interval(delay);
    t->_initialInterval = interval;
    addNonbusyTimeout(t);
}

void TimeoutHeap::scaleTimeoutInterval(Timeout* t, const MonotonicTime& now, double factor) {
    const double scaled = double(t->_initialInterval.ms()) * factor;
    uint64_t ms = scaled >= 18446744073709549568.0 ? Interval::UNBOUNDED : uint64_t(scaled);
    if (!(scaled >= 1)) ms = 1;
    modifyTimeoutInterval(t, now, Interval(ms));
}

void TimeoutHeap::runOne(Timeout* t, PrivateList& readd) {
    Timeout::ScopedCrashlogPrint notation(t);
    PrivateList::unlink(t);
    Interval interval = t->_initialInterval;
    t->_linkp = nullptr;
    ASSERT(_currently_running_timeout == nullptr);
    {
        ScopedSwitchCurrentlyRunningTimeout running(*this, t, nullptr);
        t->when_expired(&interval);
    }
    if (!interval.isZero()) {
        // Calling add() on itself and returning an interval are two answers.
        ASSERT(!_current_timeout_was_readded);
        t->_initialInterval = interval;
        readd.pushFront(t, STATE_READD);
    }
}

void TimeoutHeap::rescheduleAfterBatch(PrivateList& readd, const MonotonicTime& now) {
    while (Timeout* t = readd.head) {
        PrivateList::unlink(t);
        t->_when = now + t->_initialInterval;
        t->_linkp = nullptr;
        addNonbusyTimeout(t);
    }
}

// An exception from when_expired leaves the batch's lists behind on a stack
// that is about to go, while their entries still point into it. The rest of
// the batch does not run now; the entries go back on the heap as they were
// (still due, so a zero-length one keeps its promise at the next batch or
// at shut-down), and those that asked to be re-added are scheduled.
void TimeoutHeap::dropBatchAfterException(PrivateList& expired, PrivateList& readd) {
    while (Timeout* t = expired.head) {
        PrivateList::unlink(t);
        t->_linkp = nullptr;
        addNonbusyTimeout(t);
    }
    rescheduleAfterBatch(readd, MonotonicTime::now());
}

void TimeoutHeap::runExpiredTimeouts(MonotonicTime& now) {
    const MonotonicTime limit = now + Interval(BATCH_MS);
    PrivateList expired;
    while (_timeouts != nullptr && _timeouts->_when <= limit) {
        Timeout* t = _timeouts;
        removePendingTimeout(t);
        expired.append(t, STATE_EXPIRED);
    }
    if (expired.head == nullptr) return;

    PrivateList readd;
    try {
        while (expired.head != nullptr) runOne(expired.head, readd);
    } catch (...) {
        dropBatchAfterException(expired, readd);
        throw;
    }
    now = MonotonicTime::now();
    rescheduleAfterBatch(readd, now);
}

poll_ms_t TimeoutHeap::msecUntilNextTimeout(const MonotonicTime& now) const {
    if (_timeouts == nullptr) return POLL_MS_INFINITE;
    if (_timeouts->_when <= now) return 0;
    const uint64_t ms = (_timeouts->_when - now).ms();
    return ms > 2147483647 ? 2147483647 : poll_ms_t(ms);
}

void TimeoutHeap::checkClockSkew(const MonotonicTime& before, const MonotonicTime& after,
                                 poll_ms_t ms_delay) {
    ASSERT(ms_delay != POLL_MS_INFINITE);
    ASSERT(ms_delay >= 0);
    if (_timeouts == nullptr) return;
    if (!(after > before + Interval(uint64_t(ms_delay) + SKEW_TOLERANCE_MS))) return;
    const Interval d = after - before;
    if (d.ms() > SKEW_WARNING_MS) {
        eventloop_log.warn(
            "Either time adjusted forwards by, or event loop was descheduled for %llums.",
            static_cast<unsigned long long>(d.ms()));
    }
    const Interval shift(d.ms() - uint64_t(ms_delay));
    const MonotonicTime limit = MonotonicTime::max() - shift;
    Timeout* root = _timeouts;
    _timeouts = nullptr;
    _timeoutCount = 0;
    // The path mask goes with the count. Kept as it was (nonzero from two
    // timers on), the first add would walk from the empty root towards a
    // slot of the old shape and fault.
    _pathMask = 0;
    recursiveResubmitTimeouts(root, shift, limit, after);
}

// Takes a node out of a tree being dismantled; its children come back.
void TimeoutHeap::detachNode(Timeout* t, Timeout** c0, Timeout** c1) {
    *c0 = t->_ptr.child[0];
    *c1 = t->_ptr.child[1];
    t->_ptr.child[0] = t->_ptr.child[1] = nullptr;
    t->_parent = nullptr;
    t->_linkp = nullptr;
}

void TimeoutHeap::recursiveResubmitTimeouts(Timeout* t, Interval shift, const MonotonicTime& limit,
                                            const MonotonicTime& after) {
    if (t == nullptr) return;
    Timeout* c0;
    Timeout* c1;
    detachNode(t, &c0, &c1);
    if (t->_when < limit) t->_when += shift;
    if (t->_when > after) {
        const MonotonicTime cap = after + t->_initialInterval;
        if (t->_when > cap) t->_when = cap;
    }
    addNonbusyTimeout(t);
    recursiveResubmitTimeouts(c0, shift, limit, after);
    recursiveResubmitTimeouts(c1, shift, limit, after);
}

void TimeoutHeap::recursiveFilterZeroLengthTimeouts(Timeout* t, PrivateList& expired) {
    if (t == nullptr) return;
    Timeout* c0;
    Timeout* c1;
    detachNode(t, &c0, &c1);
    if (t->_initialInterval.isZero()) {
        expired.append(t, STATE_EXPIRED);
    } else {
        addNonbusyTimeout(t);
    }
    recursiveFilterZeroLengthTimeouts(c0, expired);
    recursiveFilterZeroLengthTimeouts(c1, expired);
}

void TimeoutHeap::clearAndRunZeroTimeouts() {
    for (;;) {
        Timeout* root = _timeouts;
        _timeouts = nullptr;
        _timeoutCount = 0;
        _pathMask = 0;
        PrivateList expired;
        recursiveFilterZeroLengthTimeouts(root, expired);
        if (expired.head == nullptr) return;
        PrivateList readd;
        try {
            while (Timeout* t = expired.head) {
                ASSERT(t->_initialInterval.isZero());
                runOne(t, readd);
            }
        } catch (...) {
            dropBatchAfterException(expired, readd);
            throw;
        }
        rescheduleAfterBatch(readd, MonotonicTime::now());
    }
}

void TimeoutHeap::renderTimeoutHeapCrashLogInfo(CrashLogWriteHandler& h) const {
    h.format("TimeoutHeap: _timeoutCount=%u, next=%p", _timeoutCount,
             static_cast<const void*>(_timeouts));
    if (_timeouts != nullptr) {
        h.write(", due ");
        crashlog_write(h, _timeouts->_when);
    }
    h.format(", _in_service_loop=%d, _in_poll=%d, _currently_running_timeout=%p\n",
             int(_in_service_loop), int(_in_poll),
             static_cast<const void*>(_currently_running_timeout));
}

// ---------------------------------------------------------------- scoped flags

TimeoutHeap::ScopedSetInServiceLoop::ScopedSetInServiceLoop(TimeoutHeap& e) : _e(e) {
    _e._in_service_loop = true;
}
TimeoutHeap::ScopedSetInServiceLoop::~ScopedSetInServiceLoop() {
    ASSERT(_e._in_service_loop);
    _e._in_service_loop = false;
}
TimeoutHeap::ScopedClearInServiceLoop::ScopedClearInServiceLoop(TimeoutHeap& e) : _e(e) {
    _e._in_service_loop = false;
}
TimeoutHeap::ScopedClearInServiceLoop::~ScopedClearInServiceLoop() {
    ASSERT(!_e._in_service_loop);
    _e._in_service_loop = true;
}
TimeoutHeap::ScopedSetInPoll::ScopedSetInPoll(TimeoutHeap& e) : _e(e) { _e._in_poll = true; }
TimeoutHeap::ScopedSetInPoll::~ScopedSetInPoll() {
    ASSERT(_e._in_poll);
    _e._in_poll = false;
}
