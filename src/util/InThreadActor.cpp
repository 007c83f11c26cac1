#include "util/InThreadActor.h"

#include "libzero/assertion.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/SelfPipe.h"

extern Logger eventloop_log;

namespace {

// The list's mutex is held only for a few stores, but a poster holds it
// across its self-pipe write: the loop thread, just woken by that write,
// would otherwise sleep on the mutex and need a second wake-up. A short
// spin waits the write out.
class SpinThenLock {
public:
    explicit SpinThenLock(ConditionMutex& m) : _m(m) {
        for (int i = 0; i < 256; i++) {
            if (_m.tryLock()) return;
            cpu_relax();
        }
        _m.lock();
    }
    ~SpinThenLock() { _m.unlock(); }
    SpinThenLock(const SpinThenLock&) = delete;
    SpinThenLock& operator=(const SpinThenLock&) = delete;

private:
    ConditionMutex& _m;
};

}  // namespace

InThreadActor::~InThreadActor() = default;

void InThreadActor::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.dumpMemory("InThreadActor object", this, 128);
    h.write("\n");
}

void InThreadActor::extraCrashLogFields(CrashLogWriteHandler&) const {}

void InThreadActorCrashLogNotation::renderTo(CrashLogWriteHandler& h) const {
    h.format("InThreadActor @%p: _queuedOn=%p", static_cast<const void*>(_a),
             static_cast<const void*>(_a->_queuedOn));
    if (_a->_ran) h.write(", ran");
    if (_a->_wantWake) h.write(", wantWake");
    if (_a->_wantFailIfLoopDone) h.write(", wantFailIfLoopDone");
    _a->extraCrashLogFields(h);
    h.write("\n");
    _a->renderCrashLogInfoTo(h);
}

void InThreadFunctionNowait::callback() {
    // Freed also when the callable throws: nobody else holds it.
    struct Deleter {
        InThreadFunctionNowait* self;
        ~Deleter() { delete self; }
    } deleter{this};
    _f();
}

// ---------------------------------------------------------------- InThreadActorList

InThreadActorList::~InThreadActorList() {
    ASSERT(_head == nullptr);
    ASSERT(_inThreadActorsActive == 0);
}

void InThreadActorList::add(InThreadActor* actor) {
    ASSERT(actor->_queuedOn == nullptr);
    ASSERT(*_endp == nullptr);
    actor->_ran = false;
    actor->_next = nullptr;
    actor->_queuedOn = this;
    *_endp = actor;
    _endp = &actor->_next;
}

InThreadActor* InThreadActorList::getNext(bool* isLast) {
    SpinThenLock lock(_mutex);
    InThreadActor* item = _head;
    if (item == nullptr) return nullptr;
    item->_queuedOn = nullptr;
    _head = item->_next;
    if (_head == nullptr) {
        ASSERT(_endp == &item->_next);
        _endp = &_head;
        *isLast = true;
    }
    item->_next = nullptr;
    return item;
}

bool InThreadActorList::empty() {
    ScopedLock lock(_mutex);
    return _head == nullptr;
}

// `list` is the actor; the name is the one its assertions print.
void InThreadActorList::run(InThreadActor* list) {
    InThreadActorCrashLogNotation notation(list);
    bool wantWake;
    {
        ScopedLock lock(_mutex);
        if (!_loopRunning && list->_wantFailIfLoopDone) {
            ASSERT(list->_wantWake);
            list->_wantFailIfLoopDone = false;
            list->_ran = true;
            list->_cond.wake_one();
            return;
        }
        wantWake = list->_wantWake;
    }
    list->callback();
    if (wantWake) {
        // The poster's stack object is gone once it wakes: this is the
        // last touch.
        ScopedLock lock(_mutex);
        ASSERT(!list->_ran);
        list->_ran = true;
        list->_cond.wake_one();
    }
}

bool InThreadActorList::removeFromPendingList(InThreadActor* item) {
    ScopedLock lock(_mutex);
    return removeFromPendingListLocked(item);
}

bool InThreadActorList::removeFromPendingListLocked(InThreadActor* item) {
    if (item->_queuedOn == nullptr) return false;
    ASSERT(item->_queuedOn == this);
    InThreadActor** linkp = &_head;
    InThreadActor* a = _head;
    while (a != item) {
        ASSERT(a != nullptr);
        ASSERT(a->_queuedOn == this);
        linkp = &a->_next;
        a = a->_next;
    }
    *linkp = a->_next;
    if (_endp == &a->_next) {
        ASSERT(a->_next == nullptr);
        _endp = linkp;
    }
    a->_next = nullptr;
    a->_queuedOn = nullptr;
    return true;
}

void InThreadActorList::waitForActorRun() { _actorRunCond.wait(_mutex); }

bool InThreadActorList::runInThreadWorkIfLoopDown(RunInThreadWorkUntilPredicate* pred) {
    ScopedLock lock(_mutex);
    for (;;) {
        if (_loopRunning) return false;
        if (pred->check()) return true;
        waitForActorRun();
    }
}

void InThreadActorList::waitForActorToComplete(InThreadActor* actor) {
    ASSERT(_loopRunning);
    eventloop_log.debug("this=%p waitForActorToComplete start actor=%p", static_cast<void*>(this),
                        static_cast<void*>(actor));
    if (!actor->_ran) {
        _inThreadActorsActive++;
        while (!actor->_ran) actor->_cond.wait(_mutex);
        ASSERT(_inThreadActorsActive > 0);
        if (--_inThreadActorsActive == 0 && !_loopRunning) _actorsActiveZeroCond.wake_all();
    }
    eventloop_log.debug("this=%p waitForActorToComplete end actor=%p", static_cast<void*>(this),
                        static_cast<void*>(actor));
}

void InThreadActorList::waitForAllActorsToBeNotified() {
    ScopedLock lock(_mutex);
    while (_inThreadActorsActive != 0) _actorsActiveZeroCond.wait(_mutex);
}

void InThreadActorList::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("Running InThreadActors:");
    if (_loopRunning) h.write(" _loopRunning");
    if (_running_outside_set) h.write(" _running_outside_set");
    h.format(" head=%p\n", static_cast<const void*>(_head));
}

// ---------------------------------------------------------------- claims

bool ScopedInThreadExclusiveClaim::claim(InThreadActorList* list) {
    ASSERT(_claimed == nullptr);
    ASSERT(!list->_loopRunning);
    if (list->_running_outside_set) {
        // Nested in this thread's own claim: only the outermost drops it.
        if (list->_running_outside == ThreadToken::self()) return true;
        while (list->_running_outside_set) list->_claimCond.wait(list->_mutex);
        if (list->_loopRunning) return false;
    }
    claimUncontested(list);
    return true;
}

void ScopedInThreadExclusiveClaim::claimUncontested(InThreadActorList* list) {
    ASSERT(_claimed == nullptr);
    ASSERT(!list->_running_outside_set);
    list->_running_outside = ThreadToken::self();
    list->_running_outside_set = true;
    _claimed = list;
}

void ScopedInThreadExclusiveClaim::drop() {
    ASSERT(_claimed != nullptr);
    ScopedLock lock(_claimed->_mutex);
    ASSERT(_claimed->_running_outside_set);
    ASSERT(_claimed->_running_outside == ThreadToken::self());
    _claimed->_running_outside_set = false;
    _claimed->_claimCond.wake_all();
    // Every waiter for a predicate rechecks: waking one could wake the
    // wrong one and lose the wake-up.
    _claimed->_actorRunCond.wake_all();
    _claimed = nullptr;
}

// ---------------------------------------------------------------- posting to a loop

namespace {

// The list's mutex, released early where a callback must run outside it.
class ListLock {
public:
    explicit ListLock(ConditionMutex& m) : _m(m) {
        for (int i = 0; i < 256; i++) {
            if (_m.tryLock()) return;
            cpu_relax();
        }
        _m.lock();
    }
    ~ListLock() {
        if (_held) _m.unlock();
    }
    void unlock() {
        _m.unlock();
        _held = false;
    }

private:
    ConditionMutex& _m;
    bool _held = true;
};

}  // namespace

// With the list's mutex held and the loop running on another thread.
void EventLoop::postQueued(InThreadActor* actor, bool wait) {
    _ita_list.add(actor);
    try {
        _ita_kick->trigger();
    } catch (...) {
        // Not posted after all: a waiting poster's actor must not stay
        // queued when its stack goes.
        _ita_list.removeFromPendingListLocked(actor);
        throw;
    }
    if (wait) _ita_list.waitForActorToComplete(actor);
}

void EventLoop::internal_runInThread(InThreadActor* actor, bool wait) {
    InThreadActorCrashLogNotation notation(actor);
    // Under the lock: a reused actor's previous run may read them.
    ListLock lock(_ita_list._mutex);
    actor->_wantWake = wait;
    actor->_wantFailIfLoopDone = false;
    if (_ita_kick != nullptr) {
        if (_ita_thread == ThreadToken::self()) {
            lock.unlock();
            actor->callback();
            return;
        }
        postQueued(actor, wait);
        return;
    }
    ScopedInThreadExclusiveClaim claim;
    if (claim.claim(&_ita_list)) {
        lock.unlock();
        actor->callback();
        return;  // the claim is dropped on the way out
    }
    // The loop came up while we waited for the claim.
    postQueued(actor, wait);
}

void EventLoop::runInThread(std::function<void()> f) {
    InThreadFunction<void> actor(std::move(f));
    internal_runInThread(&actor, true);
}

void EventLoop::runInThreadAsync(std::function<void()> f) {
    internal_runInThread(new InThreadFunctionNowait(std::move(f)), false);
}

bool EventLoop::runInThreadOrFail(InThreadActor* actor) {
    InThreadActorCrashLogNotation notation(actor);
    actor->_wantWake = true;
    actor->_wantFailIfLoopDone = true;
    ListLock lock(_ita_list._mutex);
    if (_ita_kick == nullptr) return false;
    if (_ita_thread == ThreadToken::self()) {
        lock.unlock();
        actor->callback();
        return true;
    }
    postQueued(actor, true);
    return actor->_wantFailIfLoopDone;
}

bool EventLoop::postIfRunning(InThreadActor* actor) {
    ListLock lock(_ita_list._mutex);
    ASSERT(_ita_thread != ThreadToken::self() || _ita_kick == nullptr);
    if (_ita_kick == nullptr) return false;
    actor->_wantWake = false;
    actor->_wantFailIfLoopDone = false;
    postQueued(actor, false);
    return true;
}

void EventLoop::runInThreadAsyncUnlessQueued(InThreadActor* actor) {
    ListLock lock(_ita_list._mutex);
    ASSERT(_ita_thread != ThreadToken::self());
    if (_ita_kick == nullptr) return;
    if (actor->_queuedOn != nullptr) {
        ASSERT(actor->_queuedOn == &_ita_list);
        return;
    }
    actor->_wantWake = false;
    postQueued(actor, false);
}

void EventLoop::runInThreadWorkUntil(RunInThreadWorkUntilPredicate* pred) {
    if (_ita_list.runInThreadWorkIfLoopDown(pred)) return;
    _assertInThread();
    // Only actors run in this wait: no timers, no descriptors.
    while (!pred->check()) _ita_kick->pollForTrigger();
}

void EventLoop::runInThreadWorkUntilZero(const unsigned* counter) {
    RunInThreadWorkUntilPredicate_unsignedIsZero pred(counter);
    runInThreadWorkUntil(&pred);
}

void EventLoop::terminate() {
    SetBooleanFlagActor actor(&_done);
    internal_runInThread(&actor, true);
}

void EventLoop::terminateNowait() {
    unsigned one = 1;
    if (!_terminateOnce.compare_exchange_strong(one, 0)) return;
    internal_runInThread(&_terminateActor, false);
}

bool InThreadActor::triggerAfterwards(EventLoop* eloop, PolledFd* pfd) {
    ASSERT(eloop->_toTrigger == nullptr);
    if (!pfd->isActive()) return false;
    eloop->_toTrigger = pfd;
    return true;
}

bool InThreadActorNotify::when_triggered() {
    EventLoop* const e = _ita_owner;
    for (uint32_t n = e->max_actor_runs_per_cycle; n > 0; n--) {
        bool isLast = false;
        InThreadActor* actor = e->_ita_list.getNext(&isLast);
        if (actor == nullptr) return true;
        ASSERT(_ita_owner->_toTrigger == nullptr);
        e->_ita_list.run(actor);
        if (PolledFd* toTrigger = e->_toTrigger) {
            e->_toTrigger = nullptr;
            ASSERT(toTrigger->isActive());
            PolledFdCrashLogNotation notation(toTrigger);
            if (toTrigger->when_events(toTrigger->descriptor())) {
                const PollableDescriptor fd = toTrigger->descriptor();
                e->removeActivePolledFd(toTrigger);
                toTrigger->after_eof(fd);
            }
        }
        if (isLast) return true;
    }
    return false;
}
