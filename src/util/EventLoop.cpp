#include "util/EventLoop.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "libzero/assertion.h"
#include "libzero/syscall-probe.h"
#include "util/Logger.h"
#include "util/SelfPipe.h"
#include "util/WatchdogThread.h"

extern Logger eventloop_log;

EventLoopFastPollMethod EventLoop_FASTPOLL_METHOD_var = USE_REGULAR_POLL;
std::atomic<bool> too_late_to_enable_fastpoll{false};

EventLoopException::EventLoopException(const char* text) {
    const int errnum = errno;
    try {
        const Str s = Logger::fromFormat(errnum, "%s: about to throw an EventLoopException: %s: %m",
                                         Thread::currentName(), text);
        _set_str(s.data(), s.size());
    } catch (...) {
        _set_str(text, strlen(text));
    }
}

// ---------------------------------------------------------------- event bits

short events_mask_to_poll(events_mask_t m) {
    short p = 0;
    if (m & EPOLLIN) p |= POLLIN | POLLRDNORM;
    if (m & EPOLLPRI) p |= POLLPRI | POLLRDBAND;
    if (m & EPOLLOUT) p |= POLLOUT | POLLWRNORM;
    if (m & EPOLLERR) p |= POLLERR;
    if (m & EPOLLHUP) p |= POLLHUP;
    return p;
}

events_mask_t poll_to_events_mask(short p) {
    events_mask_t m = 0;
    if (p & (POLLIN | POLLRDNORM)) m |= EPOLLIN;
    if (p & (POLLPRI | POLLRDBAND)) m |= EPOLLPRI;
    if (p & (POLLOUT | POLLWRNORM)) m |= EPOLLOUT;
    if (p & POLLERR) m |= EPOLLERR;
    if (p & POLLHUP) m |= EPOLLHUP;
    return m;
}

namespace {

int create_epoll(int size) {
    if (can_safely_probe_linux_syscalls()) {
        const int fd = epoll_create1(EPOLL_CLOEXEC);
        if (fd >= 0 || errno != ENOSYS) return fd;
    }
    const int fd = epoll_create(size);
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

// Drops the handlers' view of a batch when it ends by an exception: the
// rerun list lives on run()'s stack.
struct RerunListGuard {
    PolledFd** head;
    ~RerunListGuard() {
        while (PolledFd* p = *head) {
            *head = p->_rerunNext;
            p->_rerunNext = nullptr;
            p->_prevRerunP = nullptr;
        }
    }
};

}  // namespace

bool epoll_works() {
    const int fd = create_epoll(1);
    if (fd < 0) return false;
    close(fd);
    return true;
}

// ---------------------------------------------------------------- throttling

ThrottleGroup ThrottleGroup::not_throttled(0);
ThrottleGroup ThrottleGroup::frozen_events(~events_mask_t(0));

Throttleable::~Throttleable() {
    if (_tgroup != &ThrottleGroup::not_throttled && _tgroup != &ThrottleGroup::frozen_events) {
        _tgroup->remove(this);
    }
}

void Throttleable::unthrottleEvents(events_mask_t) {}

void Throttleable::unlinkThrottled() {
    if (_throttled_prevp == nullptr) return;
    *_throttled_prevp = _throttled_next;
    if (_throttled_next != nullptr) _throttled_next->_throttled_prevp = _throttled_prevp;
    _throttled_prevp = nullptr;
    _throttled_next = nullptr;
}

events_mask_t Throttleable::checkThrottling(events_mask_t revents, events_mask_t ourEvents) {
    ThrottleGroup* g = _tgroup;
    if ((g->mask() & revents) == 0) return ~events_mask_t(0);
    if (g == &ThrottleGroup::frozen_events) return 0;
    ScopedLock lock(g->_mutex);
    const events_mask_t groupMask = g->mask();
    if ((groupMask & revents) == 0) return ~events_mask_t(0);
    if (_throttled_prevp == nullptr) {
        _throttled_next = g->_want_unthrottle;
        if (_throttled_next != nullptr) _throttled_next->_throttled_prevp = &_throttled_next;
        _throttled_prevp = &g->_want_unthrottle;
        g->_want_unthrottle = this;
    }
    // `mask` is the value handed back: the complement of the group's mask.
    // What gets recorded is what the group holds back, ourEvents & ~mask,
    // the events unthrottle() must give back. Taken with the group's own
    // mask as the operand instead (ourEvents & ~groupMask), the record would
    // hold only events that were never taken away: unthrottle() would find
    // nothing to restore and a throttled descriptor would never read again.
    const events_mask_t mask = ~groupMask;
    _throttled_events |= ourEvents & ~mask;
    return mask;
}

ThrottleGroup::~ThrottleGroup() {
    if (this == &not_throttled || this == &frozen_events) return;
    ScopedLock lock(_mutex);
    _unthrottle_locked(~events_mask_t(0));
    while (Throttleable* t = _members) {
        _unlinkMember(t);
        t->_tgroup = &not_throttled;
    }
}

void ThrottleGroup::_linkMember(Throttleable* t) {
    t->_member_next = _members;
    if (_members != nullptr) _members->_member_prevp = &t->_member_next;
    t->_member_prevp = &_members;
    _members = t;
}

void ThrottleGroup::_unlinkMember(Throttleable* t) {
    if (t->_member_prevp == nullptr) return;
    *t->_member_prevp = t->_member_next;
    if (t->_member_next != nullptr) t->_member_next->_member_prevp = t->_member_prevp;
    t->_member_prevp = nullptr;
    t->_member_next = nullptr;
    t->unlinkThrottled();
}

void ThrottleGroup::add(Throttleable* t) {
    ASSERT(this != &not_throttled && this != &frozen_events);
    ASSERT(t->_tgroup == &not_throttled);
    ScopedLock lock(_mutex);
    t->_tgroup = this;
    _linkMember(t);
}

void ThrottleGroup::remove(Throttleable* t) {
    ScopedLock lock(_mutex);
    ASSERT(t->_tgroup == this);
    _unlinkMember(t);
    t->_throttled_events = 0;
    t->_tgroup = &not_throttled;
}

void ThrottleGroup::maybe_throttle(events_mask_t mask, unsigned* counter) {
    ASSERT(this != &not_throttled && this != &frozen_events);
    ScopedLock lock(_mutex);
    if ((*counter)++ == 0) _mask.fetch_or(mask, std::memory_order_relaxed);
}

void ThrottleGroup::maybe_unthrottle(events_mask_t mask, unsigned* counter) {
    ASSERT(this != &not_throttled && this != &frozen_events);
    ScopedLock lock(_mutex);
    ASSERT(*counter > 0);
    if (--*counter == 0) _unthrottle_locked(mask);
}

void ThrottleGroup::unthrottle(events_mask_t mask) {
    ScopedLock lock(_mutex);
    _unthrottle_locked(mask);
}

void ThrottleGroup::_unthrottle_locked(events_mask_t mask) {
    Throttleable* t = _want_unthrottle;
    while (t != nullptr) {
        Throttleable* next = t->_throttled_next;
        const events_mask_t x = t->_throttled_events & mask;
        if (x != 0) {
            t->unthrottleEvents(x);
            t->_throttled_events &= ~x;
            if (t->_throttled_events == 0) t->unlinkThrottled();
        }
        t = next;
    }
    _mask.fetch_and(~mask, std::memory_order_relaxed);
}

void ThrottleGroup::freeze() {
    ASSERT(this != &not_throttled && this != &frozen_events);
    ScopedLock lock(_mutex);
    while (Throttleable* t = _members) {
        _unlinkMember(t);
        t->_throttled_events = 0;
        t->_tgroup = &frozen_events;
    }
}

// ---------------------------------------------------------------- PolledFd

PolledFd::PolledFd() {
    too_late_to_enable_fastpoll.store(true);
    _tgroup = &ThrottleGroup::not_throttled;
    memset(&_p, 0, sizeof _p);
    if (EventLoop::usingEpoll()) {
        _p.using_epoll.fd = -1;
        _p.using_epoll.epoll_fd = -1;
    }
}

PolledFd::~PolledFd() {
    ASSERT(!isActive());
    ASSERT(_p.using_epoll.curEvent == nullptr);
}

bool PolledFd::isActive() const {
    return EventLoop::usingEpoll() ? _p.using_epoll.epoll_fd >= 0 : _p.using_poll.pfd != nullptr;
}

events_mask_t PolledFd::defaultEvents() const { return DEFAULT_EVENTS; }

void PolledFd::after_add() {
    try {
        descriptor().setNonblock(true);
    } catch (const BaseException& e) {
        eventloop_log.error("In after_add(): %s", e.what());
        throw;
    }
}

// The descriptor stays open: whoever opened it closes it.
void PolledFd::after_eof(PollableDescriptor) {}

void PolledFd::unthrottleEvents(events_mask_t events) {
    if (isActive()) changeEvents(ourEvents() | events);
}

PollableDescriptor PolledFd::descriptor() const {
    if (EventLoop::usingEpoll()) return PollableDescriptor(_p.using_epoll.fd);
    return PollableDescriptor(_p.using_poll.pfd != nullptr ? _p.using_poll.pfd->fd : -1);
}

void PolledFd::changeEvents(events_mask_t mask) {
    ASSERT(isActive());
    if (!EventLoop::usingEpoll()) {
        _p.using_poll.pfd->events = events_mask_to_poll(mask);
        return;
    }
    struct epoll_event ev {};
    ev.events = mask;
    ev.data.ptr = this;
    if (epoll_ctl(_p.using_epoll.epoll_fd, EPOLL_CTL_MOD, _p.using_epoll.fd, &ev) != 0) {
        throw EventLoopException("error from epoll_ctl");
    }
    _p.using_epoll.events = mask;
}

events_mask_t PolledFd::ourEvents() const {
    if (EventLoop::usingEpoll()) return _p.using_epoll.events;
    return _p.using_poll.pfd != nullptr ? poll_to_events_mask(_p.using_poll.pfd->events) : 0;
}

events_mask_t PolledFd::epoll_revents() const {
    if (EventLoop::usingEpoll()) {
        return _p.using_epoll.curEvent != nullptr ? _p.using_epoll.curEvent->events : 0;
    }
    return _p.using_poll.pfd != nullptr ? poll_to_events_mask(_p.using_poll.pfd->revents) : 0;
}

void PolledFd::changeRevents(events_mask_t mask) {
    if (EventLoop::usingEpoll()) {
        if (_p.using_epoll.curEvent != nullptr) _p.using_epoll.curEvent->events = mask;
    } else if (_p.using_poll.pfd != nullptr) {
        _p.using_poll.pfd->revents = events_mask_to_poll(mask);
    }
}

void PolledFd::unlinkRerun() {
    if (_prevRerunP == nullptr) return;
    const PolledFd* p = this;
    ASSERT(*(p->_prevRerunP) == p);
    *_prevRerunP = _rerunNext;
    if (_rerunNext != nullptr) _rerunNext->_prevRerunP = _prevRerunP;
    _prevRerunP = nullptr;
    _rerunNext = nullptr;
}

bool PolledFd::do_event() {
    PolledFdCrashLogNotation notation(this);
    unlinkRerun();
    if (_tgroup->mask() != 0) {
        const events_mask_t revents = epoll_revents();
        const events_mask_t ours = ourEvents();
        const events_mask_t mask = checkThrottling(revents, ours);
        if (mask != ~events_mask_t(0)) {
            changeEvents(ours & mask);
            changeRevents(revents & mask);
            if ((revents & mask) == 0) return false;
        }
    }
    return when_events(descriptor());
}

void PolledFd::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("PolledFd @%p: fd=%d, active=%d, events=0x%x, revents=0x%x, throttled=0x%x\n",
             static_cast<const void*>(this), descriptor().fd(), int(isActive()), ourEvents(),
             epoll_revents(), _throttled_events);
}

void PolledFdCrashLogNotation::renderTo(CrashLogWriteHandler& h) const {
    h.write("Serving ");
    _p->renderCrashLogInfoTo(h);
}

// ---------------------------------------------------------------- EventLoop

EventLoop::EventLoop() {
    too_late_to_enable_fastpoll.store(true);
    memset(&_p, 0, sizeof _p);
    if (usingEpoll()) {
        _p.using_epoll.epoll_fd = -1;
        _p.using_epoll.evs =
            static_cast<epoll_event*>(calloc(EPOLL_INITIAL_EVENTS, sizeof(epoll_event)));
        if (_p.using_epoll.evs == nullptr) throw std::bad_alloc();
        _p.using_epoll.evs_size = EPOLL_INITIAL_EVENTS;
    }
}

EventLoop::~EventLoop() {
    ASSERT(!_in_service_loop);
    ASSERT(!_in_poll);
    ASSERT(_toTrigger == nullptr);
    if (usingEpoll()) {
        if (_p.using_epoll.epoll_fd >= 0) close(_p.using_epoll.epoll_fd);
        free(_p.using_epoll.evs);
    } else {
        if (_p.using_poll.pfdCount != 0) {
            eventloop_log.fatal("_p.using_poll.pfdCount=%u", _p.using_poll.pfdCount);
            ASSERT(_p.using_poll.pfdCount == 0);
        }
        free(_p.using_poll.pfd);
        free(_p.using_poll.pev);
    }
}

bool EventLoop::enableFastPoll() {
    ASSERT(!too_late_to_enable_fastpoll);
    ASSERT(EventLoop_FASTPOLL_METHOD_var == USE_REGULAR_POLL);
    if (!epoll_works()) return false;
    EventLoop_FASTPOLL_METHOD_var = USE_EPOLL;
    SelfPipe::enableFastVersion();
    return true;
}

void EventLoop::_assertInThread() {
    ScopedLock lock(_ita_list._mutex);
    ASSERT(_ita_kick != nullptr && _ita_thread == ThreadToken::self());
}

void EventLoop::_assertInThreadIfRunning() {
    ScopedLock lock(_ita_list._mutex);
    ASSERT(_ita_kick == nullptr || _ita_thread == ThreadToken::self());
}

bool EventLoop::isRunning() {
    ScopedLock lock(_ita_list._mutex);
    return _ita_kick != nullptr;
}

bool EventLoop::inLoopThread() {
    ScopedLock lock(_ita_list._mutex);
    return _ita_kick != nullptr && _ita_thread == ThreadToken::self();
}

bool EventLoop::busyRatio(double* ratio) {
    ScopedLock lock(_ita_list._mutex);
    if (_dutyCycle == nullptr) return false;
    *ratio = _dutyCycle->ratio(MonotonicTime::now());
    return true;
}

void EventLoop::add(PolledFd* p, PollableDescriptor fd) { add(p, fd, p->defaultEvents()); }

void EventLoop::add(PolledFd* p, PollableDescriptor fd, events_mask_t events) {
    ASSERT(!p->isActive());
    ASSERT(!_in_poll);
    ASSERT(fd.valid());
    if (!usingEpoll()) {
        auto& u = _p.using_poll;
        if (u.pfdCount == u.pfdMax) {
            const unsigned newMax = u.pfdMax == 0 ? POLL_INITIAL_SLOTS : u.pfdMax * 2;
            // Both arrays or neither: descriptors point into the old one.
            auto* newPfd = static_cast<struct pollfd*>(malloc(newMax * sizeof(pollfd)));
            auto* newPev = static_cast<PolledFd**>(malloc(newMax * sizeof(PolledFd*)));
            if (newPfd == nullptr || newPev == nullptr) {
                free(newPfd);
                free(newPev);
                throw std::bad_alloc();
            }
            if (u.pfdCount != 0) {
                memcpy(newPfd, u.pfd, u.pfdCount * sizeof(pollfd));
                memcpy(newPev, u.pev, u.pfdCount * sizeof(PolledFd*));
            }
            free(u.pfd);
            free(u.pev);
            u.pfd = newPfd;
            u.pev = newPev;
            u.pfdMax = newMax;
            _generation++;
            for (unsigned i = 0; i < u.pfdCount; i++) u.pev[i]->_p.using_poll.pfd = &u.pfd[i];
        }
        const unsigned slot = u.pfdCount++;
        u.pfd[slot].fd = fd.fd();
        u.pfd[slot].events = events_mask_to_poll(events);
        u.pfd[slot].revents = 0;
        u.pev[slot] = p;
        p->_p.using_poll.pfd = &u.pfd[slot];
    } else {
        auto& u = _p.using_epoll;
        if (u.epoll_fd < 0) {
            u.epoll_fd = create_epoll(EPOLL_CREATE_SIZE);
            if (u.epoll_fd < 0) throw EventLoopException("error from epoll_create");
        }
        struct epoll_event ev {};
        ev.events = events;
        ev.data.ptr = p;
        if (epoll_ctl(u.epoll_fd, EPOLL_CTL_ADD, fd.fd(), &ev) != 0) {
            throw EventLoopException("error from epoll_ctl");
        }
        p->_p.using_epoll.fd = fd.fd();
        p->_p.using_epoll.epoll_fd = u.epoll_fd;
        p->_p.using_epoll.curEvent = nullptr;
        p->_p.using_epoll.events = events;
    }
    p->_eloop = this;
    _descriptorCount++;
    p->after_add();
}

void EventLoop::removeActivePolledFd(PolledFd* p) {
    ASSERT(!_in_poll);
    ASSERT(p->isActive());
    p->unlinkRerun();
    p->_eloop = nullptr;
    _descriptorCount--;
    if (!usingEpoll()) {
        auto& u = _p.using_poll;
        const unsigned i = unsigned(p->_p.using_poll.pfd - u.pfd);
        const unsigned last = --u.pfdCount;
        if (i != last) {
            u.pfd[i] = u.pfd[last];
            u.pev[i] = u.pev[last];
            u.pev[i]->_p.using_poll.pfd = &u.pfd[i];
        }
        p->_p.using_poll.pfd = nullptr;
        _generation++;
        return;
    }
    auto& e = p->_p.using_epoll;
    const int rc = epoll_ctl(e.epoll_fd, EPOLL_CTL_DEL, e.fd, nullptr);
    const int savedErrno = errno;
    e.epoll_fd = -1;
    if (e.curEvent != nullptr) {
        _generation++;
        e.curEvent->data.ptr = nullptr;
        e.curEvent = nullptr;
    }
    if (rc != 0) {
        errno = savedErrno;
        throw EventLoopException("error from epoll_ctl");
    }
}

void EventLoop::epoll_ctl_del(int fd) {
    if (!usingEpoll() || _p.using_epoll.epoll_fd < 0) return;
    if (epoll_ctl(_p.using_epoll.epoll_fd, EPOLL_CTL_DEL, fd, nullptr) != 0) {
        throw EventLoopException("error from epoll_ctl");
    }
}

void EventLoop::triggerNextTime(PolledFd* p) {
    _assertInThread();
    if (!p->isActive() || p->_prevRerunP != nullptr) return;
    p->_rerunNext = _triggerNextTime;
    if (_triggerNextTime != nullptr) _triggerNextTime->_prevRerunP = &p->_rerunNext;
    p->_prevRerunP = &_triggerNextTime;
    _triggerNextTime = p;
}

void EventLoop::setWatchdogTimeout(Interval timeout) {
    ASSERT(_ita_kick == nullptr);
    _watchdogTimeout = timeout;
}

void EventLoop::disableWatchdogMonitoring() {
    ASSERT(_ita_kick == nullptr);
    _watchdogTimeout = Interval::unbounded();
}

void EventLoop::setMaxActorRunsPerCycle(unsigned n) {
    ASSERT(_ita_kick == nullptr);
    max_actor_runs_per_cycle = n;
    ASSERT(max_actor_runs_per_cycle != 0);
}

void EventLoop::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("EventLoop @%p: method=%s, _done=%d, running=%d, descriptors=%u, generation=%u\n",
             static_cast<const void*>(this), usingEpoll() ? "epoll" : "poll", int(_done),
             int(_running), _descriptorCount.load(), _generation);
    renderTimeoutHeapCrashLogInfo(h);
    _ita_list.renderCrashLogInfoTo(h);
}

// ---------------------------------------------------------------- running

// The loop's time inside run(): the claim handed between outside runners
// and the loop thread, and the watchdog's view of the thread.
class EventLoop::scoped_inside_run : public IMonitoredThread {
public:
    scoped_inside_run(EventLoop* eloop, SelfPipe* kick, DutyCycleEstimate* duty) : _e(eloop) {
        ASSERT(eloop->_ita_kick == nullptr);
        {
            ScopedInThreadExclusiveClaim claim;
            eloop->_ita_list._mutex.lock();
            // Waits for a thread that runs actors outside the loop.
            // Only a second run() of this loop could have come up meanwhile.
            claim.claim(&eloop->_ita_list);
            ASSERT(eloop->_ita_kick == nullptr);
            eloop->_ita_kick = kick;
            eloop->_ita_thread = ThreadToken::self();
            eloop->_dutyCycle = duty;
            eloop->_running = true;
            thread_fence(std::memory_order_seq_cst);
            eloop->_ita_list.setRunning(true);
            // The claim goes after the mutex: drop() takes it.
            eloop->_ita_list._mutex.unlock();
        }
        if (!eloop->_watchdogTimeout.isUnbounded()) {
            try {
                attachToManager(eloop->_watchdogTimeout);
            } catch (...) {
                stop(nullptr);  // not constructed: no destructor will
                throw;
            }
        }
    }
    ~scoped_inside_run() override {
        if (!_finished) stop(nullptr);
    }
    // The loop thread keeps the list claimed while it drains it.
    void finish(ScopedInThreadExclusiveClaim* claim) { stop(claim); }
    void check(InThreadActor* kick) override { _e->runInThreadAsyncUnlessQueued(kick); }

private:
    void stop(ScopedInThreadExclusiveClaim* claim) {
        _finished = true;
        // The loop's state goes back even when detaching throws.
        struct Reset {
            scoped_inside_run* self;
            ScopedInThreadExclusiveClaim* claim;
            ~Reset() {
                EventLoop* e = self->_e;
                ScopedLock lock(e->_ita_list._mutex);
                e->_running = false;
                thread_fence(std::memory_order_seq_cst);
                e->_ita_kick = nullptr;
                e->_dutyCycle = nullptr;
                e->_ita_list.setRunning(false);
                if (claim != nullptr) claim->claim(&e->_ita_list);
            }
        } reset{this, claim};
        detachFromManager();
        // Detached, no watchdog posts the kick again; one already queued
        // would outlive this object in the drain.
        _e->_ita_list.removeFromPendingList(&_kick);
    }
    EventLoop* _e;
    bool _finished = false;
};

void EventLoop::runExpiredTimeoutsCatchingTerminate(MonotonicTime& now) {
    try {
        runExpiredTimeouts(now);
    } catch (const Thread::TerminateException&) {
        _terminateReason = std::current_exception();
        _done = true;
    }
}

void EventLoop::finishedDescriptor(PolledFd* p) {
    const PollableDescriptor fd = p->descriptor();
    removeActivePolledFd(p);
    p->after_eof(fd);
}

void EventLoop::servicePoll() {
    auto& u = _p.using_poll;
    uint32_t g = _generation;
    for (unsigned i = 0; i < u.pfdCount; i++) {
        if (u.pfd[i].revents == 0) continue;
        PolledFd* pfd = u.pev[i];
        ASSERT(pfd->_p.using_poll.pfd == &_p.using_poll.pfd[i]);
        if (pfd->do_event()) {
            // Finished; unless its handler already took it out (then it may
            // be gone: it is looked for, not touched).
            if (g == _generation ||
                std::find(u.pev, u.pev + u.pfdCount, pfd) != u.pev + u.pfdCount) {
                finishedDescriptor(pfd);
            }
        } else if (g == _generation) {
            u.pfd[i].revents = 0;
            continue;
        }
        // The array moved under us: start over. Slots already served had
        // their revents cleared.
        g = _generation;
        i = unsigned(-1);
    }
}

void EventLoop::serviceEpoll(int rv) {
    auto& u = _p.using_epoll;
    unsigned n = unsigned(rv);
    for (unsigned i = 0; i < n; i++) {
        PolledFd* p = static_cast<PolledFd*>(u.evs[i].data.ptr);
        if (p->_p.using_epoll.curEvent != nullptr) {
            // One descriptor twice in a batch: the batch ends here.
            ASSERT(i > 0);
            n = i;
            break;
        }
        p->_p.using_epoll.curEvent = &u.evs[i];
    }
    const uint32_t g = _generation;
    unsigned i = 0;
    // A handler that throws leaves this batch: no descriptor may keep a
    // pointer into it.
    struct ClearOnThrow {
        epoll_event* evs;
        const unsigned* from;
        const unsigned* n;
        ~ClearOnThrow() {
            if (std::uncaught_exceptions() == 0) return;
            for (unsigned j = *from; j < *n; j++) {
                if (auto* q = static_cast<PolledFd*>(evs[j].data.ptr)) {
                    q->_p.using_epoll.curEvent = nullptr;
                }
            }
        }
    } clearOnThrow{u.evs, &i, &n};
    for (; i < n; i++) {
        PolledFd* p = static_cast<PolledFd*>(u.evs[i].data.ptr);
        if (p == nullptr) continue;
        const bool done = p->do_event();
        // A handler that removed its own descriptor nulled the entry, and
        // may have freed the object: it is not touched again.
        if (u.evs[i].data.ptr != nullptr) {
            p->_p.using_epoll.curEvent = nullptr;
            if (done) {
                ScopedClearInServiceLoop outside(*this);
                finishedDescriptor(p);
            }
        }
        if (_generation != g) {
            for (unsigned j = i + 1; j < n; j++) {
                if (auto* q = static_cast<PolledFd*>(u.evs[j].data.ptr)) {
                    q->_p.using_epoll.curEvent = nullptr;
                }
            }
            break;
        }
    }
    if (unsigned(rv) == _p.using_epoll.evs_size) {
        // A full batch: a larger one next time, or the old one if memory is short.
        const unsigned size = u.evs_size * 2;
        if (auto* evs = static_cast<epoll_event*>(calloc(size, sizeof(epoll_event)))) {
            free(u.evs);
            u.evs = evs;
            u.evs_size = size;
        }
    }
}

void EventLoop::_doTriggerAfter(PolledFd* list) {
    PolledFd* head = list;
    head->_prevRerunP = &head;
    RerunListGuard guard{&head};
    ScopedSetInServiceLoop inService(*this);
    while (PolledFd* p = head) {
        PolledFdCrashLogNotation notation(p);
        p->unlinkRerun();
        bool done;
        {
            ScopedClearInServiceLoop outside(*this);
            done = p->when_events(p->descriptor());
        }
        if (done) finishedDescriptor(p);
    }
}

void EventLoop::run() {
    eventloop_log.debug("Inside EventLoop::run() for thread=%s", Thread::currentName());
    ScopedDutyCycleClaimThread duty(false);
    InThreadActorNotify notify(this);
    notify.setup();
    {
        // Descriptors change only under the claim while no loop runs: an
        // outside runner may be adding its own right now.
        ScopedInThreadExclusiveClaim claim;
        {
            ScopedLock lock(_ita_list._mutex);
            claim.claim(&_ita_list);
        }
        notify.add_to_eventloop(this);
    }
    // Declared first, dropped last: the self-pipe leaves the descriptor
    // set while this thread still holds the claim.
    ScopedInThreadExclusiveClaim drainClaim;
    struct RemoveNotify {
        EventLoop* e;
        InThreadActorNotify* n;
        ~RemoveNotify() {
            if (n->_pfd.isActive()) n->remove_from_eventloop(e);
        }
    } removeNotify{this, &notify};

    {
        scoped_inside_run inside(this, &notify, &duty.estimate());
        PolledFd* triggerAfterList = nullptr;
        RerunListGuard triggerGuard{&triggerAfterList};
        MonotonicTime now = MonotonicTime::now();
        bool skipToWait = false;
        poll_ms_t wait = 0;
        for (;;) {
            if (!skipToWait) {
                if (_done) break;
                runExpiredTimeoutsCatchingTerminate(now);
                if (_done) break;
                wait = _triggerNextTime != nullptr ? 0 : msecUntilNextTimeout(now);
            }
            skipToWait = false;

            ASSERT(triggerAfterList == nullptr);
            triggerAfterList = _triggerNextTime;
            if (triggerAfterList != nullptr) triggerAfterList->_prevRerunP = &triggerAfterList;
            _triggerNextTime = nullptr;

            int rv;
            int waitErrno = 0;
            MonotonicTime now2;
            {
                ScopedSetInPoll inPoll(*this);
                duty.estimate().setRunning(false, now);
                if (!usingEpoll()) {
                    rv = poll(_p.using_poll.pfd, _p.using_poll.pfdCount, wait);
                } else if (_p.using_epoll.epoll_fd >= 0) {
                    rv = epoll_wait(_p.using_epoll.epoll_fd, _p.using_epoll.evs,
                                    int(_p.using_epoll.evs_size), wait);
                } else {
                    // No descriptor yet: a plain sleep.
                    rv = poll(nullptr, 0, wait);
                    ASSERT(rv <= 0);
                }
                waitErrno = errno;
                now2 = MonotonicTime::now();
                duty.estimate().setRunning(true, now2);
            }

            bool serviceTriggers = true;
            if (rv < 0) {
                if (waitErrno != EAGAIN && waitErrno != EINTR) {
                    errno = waitErrno;
                    throw EventLoopException(usingEpoll() ? "error from EventLoop epoll_wait"
                                                          : "error from EventLoop poll");
                }
            } else if (rv == 0) {
                if (wait == 0) {
                    serviceTriggers = triggerAfterList != nullptr;
                } else {
                    if (wait != POLL_MS_INFINITE) checkClockSkew(now, now2, wait);
                    now = now2;
                    serviceTriggers = false;
                }
                if (!serviceTriggers) continue;
            } else {
                if (wait != POLL_MS_INFINITE) checkClockSkew(now, now2, wait);
                ScopedSetInServiceLoop inService(*this);
                if (usingEpoll()) {
                    serviceEpoll(rv);
                } else {
                    servicePoll();
                }
            }

            if (serviceTriggers && triggerAfterList != nullptr) {
                PolledFd* list = triggerAfterList;
                triggerAfterList = nullptr;
                _doTriggerAfter(list);
            }

            if (!empty() || _triggerNextTime == nullptr) {
                now = MonotonicTime::now();
                continue;
            }
            // No timers, and a descriptor asked to run again: it runs after
            // the next wake-up.
            if (_done) break;
            wait = POLL_MS_INFINITE;
            skipToWait = true;
        }
        inside.finish(&drainClaim);
        // Still inside: a watchdog kick queued late is unlinked by finish,
        // and nothing of the monitored object is gone before the drain.
        while (!notify.when_triggered()) {}
        clearAndRunZeroTimeouts();
        _ita_list.waitForAllActorsToBeNotified();
    }
    if (_terminateReason) {
        std::exception_ptr reason;
        std::swap(reason, _terminateReason);
        std::rethrow_exception(reason);
    }
}

void EventLoop::startThreadAndLoop(Thread* t) {
    WaitForEventLoopStarted started;
    add(&started, Interval(0));
    eventloop_log.debug("Spawning %s", t->name().c_str());
    try {
        t->go();
    } catch (...) {
        remove(&started);
        throw;
    }
    eventloop_log.debug("%s waiting for EventLoop to start", t->name().c_str());
    started.wait();
    eventloop_log.debug("%s's EventLoop started", t->name().c_str());
}

// ---------------------------------------------------------------- from anywhere

void AddTimeoutFromAnywhereActor::callback() { _e->add(_t, _i); }
void RemoveTimeoutFromAnywhereActor::callback() { _e->remove(_t); }

bool EventLoop::addFromAnywhere(Timeout* t, Interval interval) {
    AddTimeoutFromAnywhereActor actor(this, t, interval);
    return runInThreadOrFail(&actor);
}

void EventLoop::removeFromAnywhere(Timeout* t) {
    RemoveTimeoutFromAnywhereActor actor(this, t);
    runInThread(&actor);
}

void EventLoop::addFromAnywhere(SmartEventLoopMember* m) {
    AddSelmActor actor(this, m);
    runInThread(&actor);
}

void EventLoop::removeFromAnywhere(SmartEventLoopMember* m) {
    RemoveSelmActor actor(this, m);
    runInThread(&actor);
}

bool EventLoop::addFromAnywhere(CallbackAfterEventService* caes) {
    ScopedLock lock(_ita_list._mutex);
    if (caes->_add_eloop != nullptr) {
        ASSERT(caes->_add_eloop == this);
        return true;
    }
    if (_ita_kick == nullptr) return false;
    if (_ita_thread == ThreadToken::self()) {
        add(caes, Interval(0));
        return true;
    }
    caes->_add_eloop = this;
    caes->_actor._wantWake = false;
    caes->_actor._wantFailIfLoopDone = false;
    _ita_list.add(&caes->_actor);
    try {
        _ita_kick->trigger();
    } catch (...) {
        _ita_list.removeFromPendingListLocked(&caes->_actor);
        caes->_add_eloop = nullptr;
        throw;
    }
    return true;
}

void AddCallbackFromAnywhereActor::callback() {
    EventLoop* e = _service->_add_eloop;
    e->add(_service, Interval(0));
    ScopedLock lock(e->_ita_list._mutex);
    _service->_add_eloop = nullptr;
}

CallbackAfterEventService::~CallbackAfterEventService() { ASSERT(_add_eloop == nullptr); }

void WaitForEventLoopStarted::callback() {
    ScopedLock lock(_mutex);
    _done = true;
    _cond.wake_all();
}

void WaitForEventLoopStarted::wait() {
    ScopedLock lock(_mutex);
    while (!_done) _cond.wait(_mutex);
}

// ---------------------------------------------------------------- members

void ProxyPolledFd::add_to(EventLoop* eloop, PollableDescriptor fd) { eloop->add(&_pfd, fd); }

void PolledReadPipe::after_eof(PipeReadHandle) {}

void PolledReadPipe::add_to_eventloop(EventLoop* eloop) { add_to(eloop, _pipe.handle()); }

void PolledReadPipe::remove_from_eventloop(EventLoop* eloop) {
    if (_pfd.isActive()) eloop->removeActivePolledFd(&_pfd);
}

namespace {

// A peer that went away must not raise SIGPIPE in the loop thread.
ssize_t sendOrWrite(int fd, const void* data, size_t length) {
    const ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) return ::write(fd, data, length);
    return n;
}

}  // namespace

PolledSocket::PolledSocket(PollableDescriptor pd) : _pd(pd) {}

PolledSocket::~PolledSocket() = default;

void PolledSocket::add_to_eventloop(EventLoop* eloop) {
    _eloop = eloop;
    eloop->add(&_pfd, _pd);
}

void PolledSocket::remove_from_eventloop(EventLoop* eloop) {
    if (_pfd.isActive()) eloop->removeActivePolledFd(&_pfd);
    ScopedLock lock(_mutex);
    _eloop = nullptr;
    _pending.clear();
    _drained.wake_all();
}

void PolledSocket::write(const void* data, size_t length) {
    PolledSocket_WriteActor actor(this, data, length);
    _eloop->runInThread(&actor);
}

void PolledSocket::writeInLoop(const void* data, size_t length) {
    ScopedLock lock(_mutex);
    const char* p = static_cast<const char*>(data);
    if (_pending.empty()) {
        for (;;) {
            const ssize_t n = sendOrWrite(_pd.fd(), p, length);
            if (n > 0) {
                p += n;
                length -= size_t(n);
                if (length == 0) return;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno != EAGAIN) throw EventLoopException("error from PolledSocket write");
            break;
        }
    }
    _pending.append(p, length);
    _pfd.changeEvents(8223);
}

void PolledSocket::flush() {
    ScopedLock lock(_mutex);
    while (!_pending.empty() && _eloop != nullptr) _drained.wait(_mutex);
}

bool PolledSocket::Pfd::when_events(PollableDescriptor pfd) {
    ASSERT(pfd == _psock->_pd);
    const PollableDescriptor fd = pfd;
    const events_mask_t revents = epoll_revents();
    if ((revents & 0x201b) != 0 && _psock->when_readable(fd)) return true;
    if ((revents & 0x2018) != 0) {
        // Hung up or failed: what is pending can't go any more, and writing
        // it would only fail (EPIPE) and take the loop down with it.
        ScopedLock lock(_psock->_mutex);
        _psock->_pending.clear();
        _psock->_drained.wake_all();
        return true;
    }
    if (revents & EPOLLOUT) {
        ScopedLock lock(_psock->_mutex);
        Str& pending = _psock->_pending;
        size_t sent = 0;
        while (sent < pending.size()) {
            const ssize_t n = sendOrWrite(fd.fd(), pending.data() + sent, pending.size() - sent);
            if (n > 0) {
                sent += size_t(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && errno == EAGAIN) {
                break;
            } else {
                throw EventLoopException("error from PolledSocket write");
            }
        }
        pending.erase(0, sent);
        if (pending.empty()) {
            changeEvents(8219);
            _psock->_drained.wake_one();
        }
    }
    return false;
}

bool SocketCommandConsumer::when_readable(PollableDescriptor fd) {
    char buf[256];
    bool closed = false;
    int errnum = 0;
    for (;;) {
        const ssize_t n = ::read(fd.fd(), buf, sizeof buf);
        if (n > 0) {
            _input.append(buf, size_t(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        closed = true;
        errnum = n == 0 ? 0 : errno;
        break;
    }
    while (!_input.empty()) {
        const size_t used = parseCommands(_input);
        if (used == 0) break;
        if (used == ~size_t(0) || used >= _input.size()) {
            _input.clear();
        } else {
            _input.erase(0, used);
        }
    }
    if (closed) socketClosed(errnum);
    return closed;
}
