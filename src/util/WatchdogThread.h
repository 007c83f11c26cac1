#pragma once
// The watchdog's view of a thread it watches. A monitored thread proves it
// is alive by running a small actor that the watchdog posts to it; the
// watchdog's own timer for the thread notices when the answer is late.
//
// Starting and stopping the watchdog thread, pausing it and triggering it by
// hand come with the watchdog itself; until a watchdog runs, registration is
// logged and ignored, as it is before any watchdog start.
#include <atomic>
#include <cstdint>
#include <vector>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Str.h"
#include "util/StrVector.h"
#include "util/Thread.h"
#include "util/TimeoutHeap.h"

class IMonitoredThread;
class WatchdogThread;

// 0: a blocked thread; 2: a manual trigger.
typedef int callstack_source_t;

class IWatchdogAction {
public:
    virtual void stop(IMonitoredThread* thread, unsigned long count) = 0;
    virtual bool wantsSource(callstack_source_t source) = 0;
    virtual void start(IMonitoredThread* thread, unsigned long count,
                       callstack_source_t source) = 0;
    virtual ~IWatchdogAction() = default;
};

struct watchdog_conf {
    bool disabled = false;
    Interval responseTimeout{5000};
    StrVector actions;
    Interval actionsInterval{300};
    Str root_folder;
};

class IMonitoredThread {
public:
    // The calling thread.
    IMonitoredThread();
    explicit IMonitoredThread(const Thread& thread);
    virtual void check(InThreadActor* kick) = 0;
    virtual ~IMonitoredThread();
    IMonitoredThread(const IMonitoredThread&) = delete;
    IMonitoredThread& operator=(const IMonitoredThread&) = delete;

    // Zero means the watchdog's configured response timeout.
    void attachToManager(Interval responseTimeout);
    void detachFromManager();
    bool attached() const { return _attached; }

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    // The watchdog's timer for this thread.
    class timeout : public Timeout {
    public:
        explicit timeout(IMonitoredThread* owner) : _owner(owner) {}
        void when_expired(Interval* interval) override;
        IMonitoredThread* _owner;
    };
    // Run on the monitored thread: the answer to the latest request.
    class kick_request : public InThreadActor {
    public:
        explicit kick_request(IMonitoredThread* owner) : _owner(owner) {}
        void callback() override;
        IMonitoredThread* _owner;
    };

    IMonitoredThread* _next = nullptr;
    IMonitoredThread** _prevp = nullptr;
    bool _attached = false;
    timeout _timeout{this};
    kick_request _kick{this};
    Interval _responseTimeout;
    MonotonicTime _requestTime;
    std::atomic<uint64_t> _requestNum{1};
    std::atomic<uint64_t> _replyNum{1};
    bool _blocked = false;
    MonotonicTime _lastOkRequestTime;
    uint64_t _actions_count = 0;
    Str _thread_name;
    pid_t _thread_id = 0;
    const Thread* _thread = nullptr;
};

// "thread object pointer=%p, tid=%d, name=%s"
void append_stringified(Str* out, const IMonitoredThread& t);

// The process-wide watchdog. All of its state changes on its own loop's
// thread, by actors; while that loop is down they run in the caller under
// the loop's claim.
class WatchdogManager {
public:
    static WatchdogManager& instance();

    void _register_inthread(IMonitoredThread* thread, Interval timeout);
    void _unregister_inthread(IMonitoredThread* thread);
    void _periodic_tick(IMonitoredThread* thread, Interval* interval);
    void _start_actions(IMonitoredThread* thread, unsigned long count, callstack_source_t source);
    void _stop_actions(IMonitoredThread* thread, unsigned long count);

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    WatchdogThread* _thread = nullptr;
    bool _shutdown = false;
    watchdog_conf _conf;
    std::vector<IWatchdogAction*> _actions;
    EventLoop _eloop;
    IMonitoredThread* _monitoredList = nullptr;
    bool _paused = false;
    IMonitoredThread* _ongoingBlockedThread = nullptr;

private:
    WatchdogManager();
    ~WatchdogManager();
};
