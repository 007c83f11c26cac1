#include "util/WatchdogThread.h"

#include <new>

#include "libzero/assertion.h"
#include "util/Logger.h"

static Logger watchdog_log("Watchdog");

// ---------------------------------------------------------------- IMonitoredThread

IMonitoredThread::IMonitoredThread()
    : _thread_name(Thread::currentName()),
      _thread_id(Thread::currentId()),
      _thread(Thread::current()) {}

IMonitoredThread::IMonitoredThread(const Thread& thread)
    : _thread_name(thread.name()), _thread_id(thread.kernelId()), _thread(&thread) {}

IMonitoredThread::~IMonitoredThread() {
    if (_attached) {
        watchdog_log.warn(
            "IMonitoredThread ptr=%p - destructor called while still attached (maybe thread is "
            "dying on an exception?)",
            static_cast<void*>(this));
        detachFromManager();
    }
    ASSERT(_prevp == nullptr);
    ASSERT(!_attached);
}

void IMonitoredThread::attachToManager(Interval responseTimeout) {
    ASSERT(_prevp == nullptr || _attached);
    WatchdogManager& wdmgr = WatchdogManager::instance();
    wdmgr._eloop.runInThread([&] { wdmgr._register_inthread(this, responseTimeout); });
}

void IMonitoredThread::detachFromManager() {
    if (!_attached) return;
    WatchdogManager& wdmgr = WatchdogManager::instance();
    wdmgr._eloop.runInThread([&] { wdmgr._unregister_inthread(this); });
}

void IMonitoredThread::timeout::when_expired(Interval* interval) {
    WatchdogManager::instance()._periodic_tick(_owner, interval);
}

void IMonitoredThread::kick_request::callback() {
    _owner->_replyNum.store(_owner->_requestNum.load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
    thread_fence(std::memory_order_seq_cst);
}

void IMonitoredThread::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("ptr=%p, _thread_name=", static_cast<const void*>(this));
    h.write(_thread_name);
    h.format(", _thread_id=%d, _requestTime=", int(_thread_id));
    crashlog_write(h, _requestTime);
    h.write(", _lastOkRequestTime=");
    crashlog_write(h, _lastOkRequestTime);
    h.write(", _responseTimeout=");
    crashlog_write(h, _responseTimeout);
    h.format(
        ", _blocked=%d, _actions_count=%llu, _requestNum=%llu, _replyNum=%llu, _next=%p, "
        "_prevp=%p",
        int(_blocked), static_cast<unsigned long long>(_actions_count),
        static_cast<unsigned long long>(_requestNum.load()),
        static_cast<unsigned long long>(_replyNum.load()), static_cast<const void*>(_next),
        static_cast<const void*>(_prevp));
}

void append_stringified(Str* out, const IMonitoredThread& t) {
    out->appendFormat("thread object pointer=%p, tid=%d, name=%s", static_cast<const void*>(&t),
                      int(t._thread_id), t._thread_name.c_str());
}

// ---------------------------------------------------------------- WatchdogManager

WatchdogManager::WatchdogManager() = default;

WatchdogManager::~WatchdogManager() {
    ASSERT(0 &&
           "Singleton "
           "WatchdogManager"
           " destructed");
}

WatchdogManager& WatchdogManager::instance() {
    // Built on first use and never destroyed: monitored threads may detach
    // during exit.
    alignas(WatchdogManager) static unsigned char storage[sizeof(WatchdogManager)];
    static WatchdogManager* manager = new (storage) WatchdogManager();
    return *manager;
}

void WatchdogManager::_register_inthread(IMonitoredThread* ithr, Interval timeout) {
    if (_conf.disabled) return;
    if (_thread == nullptr) {
        watchdog_log.debug(
            "IMonitoredThread_name=\"%s\" thread_id=%d ptr=\"%p\" trying to register when "
            "Watchdog is not running.",
            ithr->_thread_name.c_str(), int(ithr->_thread_id), static_cast<void*>(ithr));
        return;
    }
    ithr->_responseTimeout = timeout.isZero() ? _conf.responseTimeout : timeout;
    ithr->_requestTime = ithr->_lastOkRequestTime = MonotonicTime::now();
    _eloop.add(&ithr->_timeout, Interval(1));
    ithr->_attached = true;
    ithr->_next = _monitoredList;
    ithr->_prevp = &_monitoredList;
    _monitoredList = ithr;
    if (ithr->_next != nullptr) {
        ithr->_next->_prevp = &ithr->_next;
    }
}

void WatchdogManager::_unregister_inthread(IMonitoredThread* ithr) {
    if (_ongoingBlockedThread == ithr) {
        ASSERT(!_conf.disabled);
        ASSERT(_thread != nullptr);
        _ongoingBlockedThread = nullptr;
    }
    if (ithr->_prevp != nullptr) {
        ASSERT(*(ithr->_prevp) == ithr);
        IMonitoredThread* n = ithr->_next;
        *ithr->_prevp = n;
        if (n != nullptr) {
            n->_prevp = ithr->_prevp;
            ASSERT(*n->_prevp == n);
        }
    }
    ithr->_next = nullptr;
    ithr->_prevp = nullptr;
    ithr->_attached = false;
    _eloop.remove(&ithr->_timeout);
}

void WatchdogManager::_periodic_tick(IMonitoredThread* thread, Interval* interval) {
    ASSERT(_thread != nullptr);
    Interval next = thread->_responseTimeout;
    const MonotonicTime now = MonotonicTime::now();
    const void* ptr = thread;
    if (thread->_requestNum.load() != thread->_replyNum.load()) {
        if (_ongoingBlockedThread == nullptr) _ongoingBlockedThread = thread;
        if (_ongoingBlockedThread == thread && !_actions.empty()) next = _conf.actionsInterval;
        if (thread->_blocked) {
            watchdog_log.debug(
                "Still no response received from IMonitoredThread=%p. Tracing with timeout=%llu "
                "ms interval.",
                ptr, static_cast<unsigned long long>(next.ms()));
        } else {
            watchdog_log.info(
                "No response received from IMonitoredThread=%p within elapsed=%llu ms. Looks like "
                "thread_name=\"%s\" thread_id=%d is busy !? Starting to trace with timeout=%llu "
                "ms interval.",
                ptr, static_cast<unsigned long long>(thread->_responseTimeout.ms()),
                thread->_thread_name.c_str(), int(thread->_thread_id),
                static_cast<unsigned long long>(next.ms()));
            thread->_blocked = true;
        }
        _start_actions(thread, thread->_actions_count, 0);
        thread->_actions_count++;
    } else {
        if (thread->_blocked) {
            watchdog_log.info(
                "Stopping trace. Response for IMonitoredThread ptr=%p - thread_name=\"%s\" "
                "thread_id=%d - finally received after %llu ms (estimation only).",
                ptr, thread->_thread_name.c_str(), int(thread->_thread_id),
                static_cast<unsigned long long>((now - thread->_lastOkRequestTime).ms()));
            thread->_blocked = false;
            if (_ongoingBlockedThread == thread) _ongoingBlockedThread = nullptr;
            _stop_actions(thread, thread->_actions_count);
            thread->_actions_count = 0;
        }
        thread->_lastOkRequestTime = now;
    }
    thread->_requestTime = now;
    thread->_requestNum.fetch_add(1);
    thread->check(&thread->_kick);
    *interval = next;
}

void WatchdogManager::_start_actions(IMonitoredThread* thread, unsigned long count,
                                     callstack_source_t source) {
    if (_paused) return;
    for (IWatchdogAction* a : _actions) {
        if (a->wantsSource(source)) a->start(thread, count, source);
    }
}

void WatchdogManager::_stop_actions(IMonitoredThread* thread, unsigned long count) {
    if (_paused) return;
    for (IWatchdogAction* a : _actions) a->stop(thread, count);
}

void WatchdogManager::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("ptr=%p, _thread=%p, _shutdown=%d, _conf={disabled=%d, responseTimeout=",
             static_cast<const void*>(this), static_cast<const void*>(_thread), int(_shutdown),
             int(_conf.disabled));
    crashlog_write(h, _conf.responseTimeout);
    h.write(", actionsInterval=");
    crashlog_write(h, _conf.actionsInterval);
    h.format(", actions=%u, root_folder=", unsigned(_conf.actions.size()));
    h.write(_conf.root_folder);
    h.write("}");
}
