#pragma once
// The reactor: one loop per thread, over poll or epoll (chosen once per
// process), serving descriptors, timers and work posted from other threads
// in one wait. An EventLoop is its own TimeoutHeap. Only the loop's thread
// touches its descriptors and timers; everything else arrives as an
// InThreadActor through the loop's self-pipe.
#include <poll.h>
#include <sys/epoll.h>

#include <atomic>
#include <exception>
#include <functional>

#include "util/InThreadActor.h"
#include "util/PollableDescriptor.h"
#include "util/Str.h"
#include "util/ThreadLocks.h"
#include "util/TimeoutHeap.h"

class EventLoop;
class PolledFd;
class SelfPipe;
class ThrottleGroup;

// Always epoll's bits, whichever method runs.
typedef uint32_t events_mask_t;

class EventLoopException : public BaseException {
public:
    // "<thread>: about to throw an EventLoopException: <text>: %m"
    explicit EventLoopException(const char* text);
};

enum EventLoopFastPollMethod { USE_REGULAR_POLL = 0, USE_EPOLL = 1 };
extern EventLoopFastPollMethod EventLoop_FASTPOLL_METHOD_var;
extern std::atomic<bool> too_late_to_enable_fastpoll;

// The epoll bits as poll bits and back.
short events_mask_to_poll(events_mask_t m);
events_mask_t poll_to_events_mask(short p);

// Whether an epoll descriptor can be made here (created and closed at once).
bool epoll_works();

// ---------------------------------------------------------------- throttling

// A descriptor whose events a ThrottleGroup can hold back.
class Throttleable {
public:
    Throttleable() = default;
    virtual ~Throttleable();
    Throttleable(const Throttleable&) = delete;
    Throttleable& operator=(const Throttleable&) = delete;

    // Events held back and now released.
    virtual void unthrottleEvents(events_mask_t events);

    // All ones: nothing to hold back; otherwise the mask to apply to the
    // descriptor's events (0 for a frozen one).
    events_mask_t checkThrottling(events_mask_t revents, events_mask_t ourEvents);
    ThrottleGroup* group() const { return _tgroup; }

    events_mask_t _throttled_events = 0;
    ThrottleGroup* _tgroup;
    Throttleable** _member_prevp = nullptr;
    Throttleable* _member_next = nullptr;
    Throttleable** _throttled_prevp = nullptr;
    Throttleable* _throttled_next = nullptr;

private:
    friend class ThrottleGroup;
    void unlinkThrottled();
};

// Descriptors whose events can be held back together, from any thread: a
// counter per cause, and the events of the group's mask are masked out
// while any counter is nonzero.
class ThrottleGroup {
public:
    ThrottleGroup() = default;
    ~ThrottleGroup();
    ThrottleGroup(const ThrottleGroup&) = delete;
    ThrottleGroup& operator=(const ThrottleGroup&) = delete;

    void add(Throttleable* t);
    void remove(Throttleable* t);
    void maybe_throttle(events_mask_t mask, unsigned* counter);
    void maybe_unthrottle(events_mask_t mask, unsigned* counter);
    void unthrottle(events_mask_t mask);
    // Every member's events are masked for good, in any loop.
    void freeze();
    events_mask_t mask() const { return _mask.load(std::memory_order_relaxed); }

    static ThrottleGroup not_throttled;
    static ThrottleGroup frozen_events;

    Throttleable* _members = nullptr;
    Throttleable* _want_unthrottle = nullptr;
    std::atomic<events_mask_t> _mask{0};
    Mutex _mutex;

private:
    friend class Throttleable;
    explicit ThrottleGroup(events_mask_t mask) : _mask(mask) {}
    void _unthrottle_locked(events_mask_t mask);
    void _unlinkMember(Throttleable* t);
    void _linkMember(Throttleable* t);
};

// ---------------------------------------------------------------- PolledFd

class PolledFd : public Throttleable {
public:
    static constexpr events_mask_t DEFAULT_EVENTS = 0x201b;

    PolledFd();
    // Must be inactive and outside any batch.
    ~PolledFd() override;

    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
    // in, pri, err, hup, rdhup
    virtual events_mask_t defaultEvents() const;
    // Makes the descriptor non-blocking.
    virtual void after_add();
    // After the loop dropped the descriptor (when_events said it was done).
    virtual void after_eof(PollableDescriptor fd);
    // True when the descriptor is finished.
    virtual bool when_events(PollableDescriptor fd) = 0;

    void unthrottleEvents(events_mask_t events) override;

    bool isActive() const;
    void changeEvents(events_mask_t mask);
    events_mask_t ourEvents() const;
    events_mask_t epoll_revents() const;
    void changeRevents(events_mask_t mask);
    // One event: throttling, then when_events.
    bool do_event();
    PollableDescriptor descriptor() const;
    EventLoop* eventLoop() const { return _eloop; }
    void setThrottleGroup(ThrottleGroup* g) { g->add(this); }

    union {
        struct {
            struct pollfd* pfd;
        } using_poll;
        struct {
            int fd;
            int epoll_fd;
            struct epoll_event* curEvent;
            events_mask_t events;
        } using_epoll;
    } _p;
    // The list of descriptors to run at the next cycle.
    PolledFd** _prevRerunP = nullptr;
    PolledFd* _rerunNext = nullptr;
    EventLoop* _eloop = nullptr;

private:
    friend class EventLoop;
    void unlinkRerun();
};

class PolledFdCrashLogNotation : public ScopedPerThreadCrashLogNotation {
public:
    explicit PolledFdCrashLogNotation(const PolledFd* p) : _p(p) { publish(); }
    void renderTo(CrashLogWriteHandler& h) const override;

private:
    const PolledFd* _p;
};

// Something that knows how to join and leave a loop.
class SmartEventLoopMember {
public:
    virtual ~SmartEventLoopMember() = default;
    virtual void add_to_eventloop(EventLoop* eloop) = 0;
    virtual void remove_from_eventloop(EventLoop* eloop) = 0;
};

// A socket served on a loop, written from any thread: what cannot be
// written at once waits in a buffer for the socket to drain.
class PolledSocket : public SmartEventLoopMember {
public:
    explicit PolledSocket(PollableDescriptor pd);
    ~PolledSocket() override;

    // True when the socket is finished.
    virtual bool when_readable(PollableDescriptor fd) = 0;

    void add_to_eventloop(EventLoop* eloop) override;
    void remove_from_eventloop(EventLoop* eloop) override;
    void write(const void* data, size_t length);
    // Blocks until everything written has gone.
    void flush();

    class Pfd : public PolledFd {
    public:
        explicit Pfd(PolledSocket* s) : _psock(s) {}
        bool when_events(PollableDescriptor fd) override;
        PolledSocket* _psock;
    };

    PollableDescriptor _pd;
    Pfd _pfd{this};
    Str _pending;
    EventLoop* _eloop = nullptr;
    ConditionMutex _mutex;
    PthreadConditionImpl _drained;

private:
    friend class PolledSocket_WriteActor;
    void writeInLoop(const void* data, size_t length);
};

// Reads commands off a socket: bytes gather until the parser takes them.
class SocketCommandConsumer : public PolledSocket {
public:
    using PolledSocket::PolledSocket;

    // Bytes consumed from the front of `input`: 0 waits for more, all ones
    // clears the input.
    virtual size_t parseCommands(const Str& input) = 0;
    // The peer closed (0) or reading failed (the errno).
    virtual void socketClosed(int errnum) = 0;

    bool when_readable(PollableDescriptor fd) override;

    Str _input;
};

// A member whose events go to the outer object.
class ProxyPolledFd : public SmartEventLoopMember {
public:
    ProxyPolledFd() : _pfd(this) {}

    virtual bool proxy_when_events(PollableDescriptor fd) = 0;
    virtual void proxy_after_eof(PollableDescriptor fd) = 0;

    void add_to(EventLoop* eloop, PollableDescriptor fd);

    class proxy_polledfd : public PolledFd {
    public:
        explicit proxy_polledfd(ProxyPolledFd* o) : _outer(o) {}
        bool when_events(PollableDescriptor fd) override { return _outer->proxy_when_events(fd); }
        void after_eof(PollableDescriptor fd) override { _outer->proxy_after_eof(fd); }
        ProxyPolledFd* _outer;
    };
    proxy_polledfd _pfd;
};

// The read side of a pipe on a loop.
class PolledReadPipe : public ProxyPolledFd {
public:
    virtual bool when_events(PipeReadHandle fd) = 0;
    virtual void after_eof(PipeReadHandle fd);

    bool proxy_when_events(PollableDescriptor fd) override {
        return when_events(PipeReadHandle(fd));
    }
    void proxy_after_eof(PollableDescriptor fd) override { after_eof(PipeReadHandle(fd)); }
    void add_to_eventloop(EventLoop* eloop) override;
    void remove_from_eventloop(EventLoop* eloop) override;

    PollableReadablePipe _pipe;
};

// ---------------------------------------------------------------- actors of the library

class SetBooleanFlagActor : public InThreadActor {
public:
    explicit SetBooleanFlagActor(bool* flag) : _flag(flag) {}
    void callback() override { *_flag = true; }
    bool* _flag;
};

class AddTimeoutFromAnywhereActor : public InThreadActor {
public:
    AddTimeoutFromAnywhereActor(EventLoop* e, Timeout* t, Interval i) : _e(e), _t(t), _i(i) {}
    void callback() override;
    EventLoop* _e;
    Timeout* _t;
    Interval _i;
};

class RemoveTimeoutFromAnywhereActor : public InThreadActor {
public:
    RemoveTimeoutFromAnywhereActor(EventLoop* e, Timeout* t) : _e(e), _t(t) {}
    void callback() override;
    EventLoop* _e;
    Timeout* _t;
};

class AddSelmActor : public InThreadActor {
public:
    AddSelmActor(EventLoop* e, SmartEventLoopMember* m) : _e(e), _m(m) {}
    void callback() override { _m->add_to_eventloop(_e); }
    EventLoop* _e;
    SmartEventLoopMember* _m;
};

class RemoveSelmActor : public InThreadActor {
public:
    RemoveSelmActor(EventLoop* e, SmartEventLoopMember* m) : _e(e), _m(m) {}
    void callback() override { _m->remove_from_eventloop(_e); }
    EventLoop* _e;
    SmartEventLoopMember* _m;
};

class CallbackAfterEventService;

class AddCallbackFromAnywhereActor : public InThreadActor {
public:
    explicit AddCallbackFromAnywhereActor(CallbackAfterEventService* s) : _service(s) {}
    void callback() override;
    CallbackAfterEventService* _service;
};

class PolledSocket_WriteActor : public InThreadActor {
public:
    PolledSocket_WriteActor(PolledSocket* s, const void* data, size_t length)
        : _s(s), _data(data), _length(length) {}
    void callback() override { _s->writeInLoop(_data, _length); }
    PolledSocket* _s;
    const void* _data;
    size_t _length;
};

// A callback run on a loop right after the current event, postable from
// any thread: a zero-length timeout with an actor to add it.
class CallbackAfterEventService : public OneShotTimeout {
public:
    CallbackAfterEventService() : _actor(this) {}
    ~CallbackAfterEventService() override;

    AddCallbackFromAnywhereActor _actor;
    EventLoop* _add_eloop = nullptr;
};

class CallbackAfterEventFunction : public CallbackAfterEventService {
public:
    explicit CallbackAfterEventFunction(std::function<void()> f) : _f(std::move(f)) {}
    void callback() override { _f(); }

private:
    std::function<void()> _f;
};

// Signalled by the loop's first batch of timeouts: the loop runs.
class WaitForEventLoopStarted : public CallbackAfterEventService {
public:
    void callback() override;
    void wait();

    ConditionMutex _mutex;
    PthreadConditionImpl _cond;
    bool _done = false;
};

// ---------------------------------------------------------------- EventLoop

class EventLoop : public TimeoutHeap {
public:
    static constexpr unsigned EPOLL_INITIAL_EVENTS = 16;
    static constexpr unsigned POLL_INITIAL_SLOTS = 32;
    static constexpr int EPOLL_CREATE_SIZE = 50;

    EventLoop();
    // The loop must be empty: no descriptors, not running.
    ~EventLoop();

    // Before any loop or descriptor exists: epoll for every loop of the
    // process, and the eventfd self-pipe. False when epoll doesn't work here.
    static bool enableFastPoll();
    static bool usingEpoll() { return EventLoop_FASTPOLL_METHOD_var == USE_EPOLL; }

    using TimeoutHeap::add;
    void add(PolledFd* p, PollableDescriptor fd);
    void add(PolledFd* p, PollableDescriptor fd, events_mask_t events);
    void removeActivePolledFd(PolledFd* p);
    // Takes a descriptor out of the epoll set that is no PolledFd's business
    // any more (it was closed elsewhere, say); nothing under poll.
    void epoll_ctl_del(int fd);

    void run();
    // From any thread: ends the loop, waiting for the request to be seen.
    void terminate();
    // From any thread, once; later calls do nothing.
    void terminateNowait();
    // Starts `t`, whose main() calls run(), and returns once the loop runs.
    void startThreadAndLoop(Thread* t);

    // The basic post: runs `actor` on the loop thread, or in the caller
    // under the claim while no loop runs.
    void internal_runInThread(InThreadActor* actor, bool wait);
    void runInThread(InThreadActor* actor) { internal_runInThread(actor, true); }
    void runInThreadAsync(InThreadActor* actor) { internal_runInThread(actor, false); }
    void runInThread(std::function<void()> f);
    // Copies the callable to the heap; nothing waits.
    void runInThreadAsync(std::function<void()> f);
    // Runs and waits, or false when no loop will run it.
    bool runInThreadOrFail(InThreadActor* actor);
    // Queues `actor` without waiting, or false when no loop runs (it is
    // then not run at all: for work only the loop thread can do).
    bool postIfRunning(InThreadActor* actor);
    // For a reused actor: posts it unless it is queued already.
    void runInThreadAsyncUnlessQueued(InThreadActor* actor);
    // Blocks until `pred` holds, while actors still run.
    void runInThreadWorkUntil(RunInThreadWorkUntilPredicate* pred);
    void runInThreadWorkUntilZero(const unsigned* counter);

    // Loop thread only: `p`'s handler runs at the next cycle.
    void triggerNextTime(PolledFd* p);

    // Only while the loop is not running.
    void setWatchdogTimeout(Interval timeout);
    void disableWatchdogMonitoring();
    void setMaxActorRunsPerCycle(unsigned n);

    bool addFromAnywhere(Timeout* t, Interval interval);
    void removeFromAnywhere(Timeout* t);
    void addFromAnywhere(SmartEventLoopMember* m);
    void removeFromAnywhere(SmartEventLoopMember* m);
    bool addFromAnywhere(CallbackAfterEventService* caes);

    bool isRunning();
    bool inLoopThread();
    // How busy the loop thread has been lately, 0 to 1; false while the
    // loop is not running.
    bool busyRatio(double* ratio);
    unsigned descriptorCount() const { return _descriptorCount.load(std::memory_order_relaxed); }

    void _assertInThread();
    void _assertInThreadIfRunning();

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    std::exception_ptr _terminateReason;
    bool _done = false;
    union {
        struct {
            unsigned pfdCount;
            unsigned pfdMax;
            struct pollfd* pfd;
            PolledFd** pev;
        } using_poll;
        struct {
            int epoll_fd;
            struct epoll_event* evs;
            unsigned evs_size;
        } using_epoll;
    } _p;
    PolledFd* _toTrigger = nullptr;
    uint32_t _generation = 0;
    uint32_t max_actor_runs_per_cycle = 4294967295u;
    bool _running = false;
    SelfPipe* _ita_kick = nullptr;
    ThreadToken _ita_thread;
    InThreadActorList _ita_list;
    SetBooleanFlagActor _terminateActor{&_done};
    std::atomic<unsigned> _terminateOnce{1};
    PolledFd* _triggerNextTime = nullptr;
    Interval _watchdogTimeout;

private:
    friend class InThreadActor;
    friend class InThreadActorNotify;
    friend class WaitForEventLoopStarted;
    friend class AddCallbackFromAnywhereActor;
    class scoped_inside_run;

    void runExpiredTimeoutsCatchingTerminate(MonotonicTime& now);
    bool serviceEvents(int rv);
    void servicePoll();
    void serviceEpoll(int rv);
    void finishedDescriptor(PolledFd* p);
    void _doTriggerAfter(PolledFd* list);
    void postQueued(InThreadActor* actor, bool wait);

    std::atomic<unsigned> _descriptorCount{0};
    DutyCycleEstimate* _dutyCycle = nullptr;
};
