#pragma once
// Work handed to the thread of an EventLoop from any thread, waiting for it
// or not. The actor is its own queue node, so a post allocates nothing and a
// waiting poster may keep the actor on its stack. While no loop runs, a
// poster runs the work itself under an exclusive claim, which gives the same
// exclusion as the loop thread would.
#include <functional>

#include "util/CrashLog.h"
#include "util/Thread.h"
#include "util/ThreadLocks.h"

class EventLoop;
class InThreadActorList;
class PolledFd;

class InThreadActor {
public:
    InThreadActor() = default;
    virtual ~InThreadActor();
    InThreadActor(const InThreadActor&) = delete;
    InThreadActor& operator=(const InThreadActor&) = delete;

    // A dump of the object's first 128 bytes.
    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
    virtual void extraCrashLogFields(CrashLogWriteHandler& h) const;
    virtual void callback() = 0;

    // From inside an actor on the loop thread: once the actor has returned,
    // the loop runs `pfd`'s event handler as a real event would. False when
    // `pfd` is not active.
    static bool triggerAfterwards(EventLoop* eloop, PolledFd* pfd);

    bool isQueued() const { return _queuedOn != nullptr; }

    // The poster waits for completion.
    bool _wantWake = false;
    // Refuse to run once the loop has stopped; stays set if the actor ran.
    bool _wantFailIfLoopDone = false;
    bool _ran = false;
    PthreadConditionImpl _cond;
    InThreadActor* _next = nullptr;
    InThreadActorList* _queuedOn = nullptr;
};

// Names the actor being run, with its flags, in a crash report.
class InThreadActorCrashLogNotation : public ScopedPerThreadCrashLogNotation {
public:
    explicit InThreadActorCrashLogNotation(const InThreadActor* a) : _a(a) { publish(); }
    void renderTo(CrashLogWriteHandler& h) const override;

private:
    const InThreadActor* _a;
};

// A callable as an actor. An empty one throws std::bad_function_call.
template <class R>
class InThreadFunction;

template <>
class InThreadFunction<void> : public InThreadActor {
public:
    InThreadFunction() = default;
    explicit InThreadFunction(std::function<void()> f) : _f(std::move(f)) {}
    void set(std::function<void()> f) { _f = std::move(f); }
    void callback() override { _f(); }

protected:
    std::function<void()> _f;
};

// Posted without waiting; frees itself once the callable has run or thrown.
class InThreadFunctionNowait : public InThreadFunction<void> {
public:
    explicit InThreadFunctionNowait(std::function<void()> f) : InThreadFunction(std::move(f)) {}
    void callback() override;
};

class RunInThreadWorkUntilPredicate {
public:
    virtual ~RunInThreadWorkUntilPredicate() = default;
    virtual bool check() = 0;
};

class RunInThreadWorkUntilPredicate_unsignedIsZero : public RunInThreadWorkUntilPredicate {
public:
    explicit RunInThreadWorkUntilPredicate_unsignedIsZero(const unsigned* p) : _p(p) {}
    bool check() override { return __atomic_load_n(_p, __ATOMIC_ACQUIRE) == 0; }

private:
    const unsigned* _p;
};

// The queue of one loop, and the claim that stands in for the loop thread
// while no loop runs.
class InThreadActorList {
public:
    InThreadActorList() = default;
    ~InThreadActorList();
    InThreadActorList(const InThreadActorList&) = delete;
    InThreadActorList& operator=(const InThreadActorList&) = delete;

    // The caller holds _mutex.
    void add(InThreadActor* actor);
    InThreadActor* getNext(bool* isLast);
    bool empty();
    void run(InThreadActor* list);
    bool removeFromPendingList(InThreadActor* actor);
    // The same with _mutex already held.
    bool removeFromPendingListLocked(InThreadActor* actor);
    // The caller holds _mutex.
    void setRunning(bool running) { _loopRunning = running; }
    // The caller holds _mutex: sleeps until a claim is dropped.
    void waitForActorRun();
    // With the loop down, waits until `pred` holds while others run their
    // actors under the claim. False at once when the loop runs.
    bool runInThreadWorkIfLoopDown(RunInThreadWorkUntilPredicate* pred);
    // The caller holds _mutex.
    void waitForActorToComplete(InThreadActor* actor);
    // No poster may still sleep on an actor when a stopped loop goes away.
    void waitForAllActorsToBeNotified();

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    ConditionMutex _mutex;
    InThreadActor* _head = nullptr;
    InThreadActor** _endp = &_head;
    bool _loopRunning = false;
    ThreadToken _running_outside;
    bool _running_outside_set = false;
    PthreadConditionImpl _claimCond;
    PthreadConditionImpl _actorRunCond;
    unsigned _inThreadActorsActive = 0;
    PthreadConditionImpl _actorsActiveZeroCond;
};

// The right to run a list's actors in this thread while its loop is down.
// Claims nest within a thread: only the outermost takes and drops it.
class ScopedInThreadExclusiveClaim {
public:
    ScopedInThreadExclusiveClaim() = default;
    ~ScopedInThreadExclusiveClaim() {
        if (_claimed != nullptr) drop();
    }
    ScopedInThreadExclusiveClaim(const ScopedInThreadExclusiveClaim&) = delete;
    ScopedInThreadExclusiveClaim& operator=(const ScopedInThreadExclusiveClaim&) = delete;

    // With the list's mutex held. False when the loop came up meanwhile.
    bool claim(InThreadActorList* list);
    void claimUncontested(InThreadActorList* list);
    // Takes the list's mutex.
    void drop();

    InThreadActorList* _claimed = nullptr;
};
