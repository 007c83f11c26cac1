// The server around channels: listening acceptors, the loops that own the
// channels, and the pool of worker threads of each loop.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "util/Logger.h"
#include "util/TcpChannel.h"

extern Logger tcpchannel_log;

namespace {

// Carries an accepted descriptor to a subordinate loop and the result back.
class SendNewTcpChannelToLoopActor : public InTcpChannelActor {
public:
    enum mode_t { CONNECTION_PENDING = 0, CONNECTION_ADD_OK = 1, CONNECTION_ADD_FAILED = 2 };

    SendNewTcpChannelToLoopActor(TcpChannelAcceptor* acc, Base_TcpChannelLoop* dest,
                                 PollableDescriptor fd, const IPv46SocketAddress& peer)
        : InTcpChannelActor(dest), _acceptor(acc), _fd(fd), _peer(peer) {}

    // Runs twice: on the destination, then back on the listening loop.
    void callback() override {
        if (_mode == CONNECTION_PENDING) {
            bool added = false;
            try {
                added = _acceptor->_do_new_connection(_tcloop, _fd, _peer);
            } catch (const std::exception& e) {
                tcpchannel_log.error("Couldn't add a connection: %s", e.what());
            }
            _mode = added ? CONNECTION_ADD_OK : CONNECTION_ADD_FAILED;
            _acceptor->_tcloop->internal_runInThread(this, false);
            return;
        }
        ASSERT(_acceptor->_inflightSubordinateAccepts > 0);
        _acceptor->_inflightSubordinateAccepts--;
        if (_mode == CONNECTION_ADD_FAILED) {
            _acceptor->connection_gone();
        } else {
            ASSERT(_mode == CONNECTION_ADD_OK);
            if ((_acceptor->_disabledReasons & TcpChannelAcceptor::DISABLE_FOR_INFLIGHT_LIMIT) !=
                    0 &&
                !_acceptor->limitInflightAccepts(_acceptor->_inflightSubordinateAccepts)) {
                _acceptor->_disabledReasons &=
                    ~unsigned(TcpChannelAcceptor::DISABLE_FOR_INFLIGHT_LIMIT);
                _acceptor->restart_listener_if_enabled();
            }
        }
        delete this;
    }

    TcpChannelAcceptor* _acceptor;
    PollableDescriptor _fd;
    IPv46SocketAddress _peer;
    mode_t _mode = CONNECTION_PENDING;
};

// A worker letting go of its channel, run on the channel's loop.
class NotifyTcpChannelLoopOfThreadReleaseActor : public InThreadActor {
public:
    NotifyTcpChannelLoopOfThreadReleaseActor(TcpChannel** tpfdp, ConditionMutex& mutex)
        : _tpfdp(tpfdp), _mutex(mutex) {}

    void callback() override {
        TcpChannel* const chan = *_tpfdp;
        {
            ScopedLock lock(_mutex);
            *_tpfdp = nullptr;
        }
        Base_TcpChannelLoop* const loop = chan->_tcloop;
        // Then when_events runs next and detaches the worker.
        if (loop->inLoopThread() && InThreadActor::triggerAfterwards(loop, chan)) return;
        // The descriptor is gone (force_kill), or no loop runs to serve it.
        loop->returnWorkerThread(chan->_thread);
        chan->_thread = nullptr;
        if (chan->isActive()) {
            PollableDescriptor fd = chan->descriptor();
            loop->removeActivePolledFd(chan);
            fd.close();
        }
        chan->_acceptor->afterFdRemoved(chan);
    }

    TcpChannel** _tpfdp;
    ConditionMutex& _mutex;
};

// Sets the unsigned it points to to 0, for a loop waiting on it.
class ZeroOutUnsignedTcpChannelActor : public InThreadActor {
public:
    explicit ZeroOutUnsignedTcpChannelActor(unsigned* destp) : _destp(destp) {}
    void callback() override {
        ASSERT(*_destp != 0);
        __atomic_store_n(_destp, 0u, __ATOMIC_RELEASE);
    }
    unsigned* _destp;
};

// Runs _do_terminateConnections on a subordinate and tells the master.
class TcpChannelTerminateConnectionsActor : public InTcpChannelActor {
public:
    TcpChannelTerminateConnectionsActor(Base_TcpChannelLoop* sub, TcpChannelLoop* master)
        : InTcpChannelActor(sub), _master(master) {}

    // On the master's loop thread: keeps serving actors until done.
    void apply() {
        _counter = 1;
        _tcloop->internal_runInThread(this, false);
        _master->runInThreadWorkUntilZero(&_counter);
    }
    void callback() override {
        _tcloop->_do_terminateConnections();
        ZeroOutUnsignedTcpChannelActor zero(&_counter);
        _master->internal_runInThread(&zero, true);
    }

    TcpChannelLoop* _master;
    unsigned _counter = 0;
};

void killChannelsOf(Base_TcpChannelLoop* loop, const TcpChannelAcceptor* acc) {
    // Killing may delete the channel: the next one is taken first.
    for (TcpChannel* chan = loop->_activeList; chan != nullptr;) {
        TcpChannel* const next = chan->_next;
        ASSERT(chan->_tcloop == loop);
        if (acc == nullptr || chan->_acceptor == acc) {
            if (chan->_asyncTimeout.isScheduled()) loop->remove(&chan->_asyncTimeout);
            chan->force_kill(SocketError::localShutdown());
        }
        chan = next;
    }
}

void appendError(Str* out, const char* prefix, const SocketError& err) {
    out->append(prefix);
    append_stringified(out, err);
}

}  // namespace

void NotifyListeningTcpChannelLoopOfDestruction::callback() {
    _acceptor->connection_gone();
    delete this;
}

// ---------------------------------------------------------------- TcpChannelThread

TcpChannelThread::TcpChannelThread() : Thread("TcpChannelThread") { go(); }

TcpChannelThread::~TcpChannelThread() = default;

void TcpChannelThread::attach(TcpChannel* tpfd) {
    ScopedLock lock(_sync._mutex);
    ASSERT(!hasTcpChannel());
    ASSERT(_sync._writeCorkCount == 0);
    ASSERT(tpfd->_thread == nullptr);
    ASSERT(_commandForThread == IDLE_THREAD_NO_COMMAND);
    _sync._ioError = SocketError::none();
    _sync._lastError = &_sync._ioError;
    _sync._terminateError = SocketError::none();
    _sync._terminateCallback = nullptr;
    _sync._tpfd = tpfd;
    tpfd->_thread = this;
    _commandForThread = IDLE_THREAD_PLEASE_START;
    _wake.wake_one();
}

void TcpChannelThread::shutdown() {
    ScopedLock lock(_sync._mutex);
    ASSERT(!hasTcpChannel());
    ASSERT(_sync._writeCorkCount == 0);
    ASSERT(_commandForThread == IDLE_THREAD_NO_COMMAND);
    _commandForThread = IDLE_THREAD_PLEASE_EXIT;
    _wake.wake_one();
}

void TcpChannelThread::main() {
    ScopedDutyCycleClaimThread duty(true);
    ScopedLock lock(_sync._mutex);
    for (;;) {
        while (_commandForThread == IDLE_THREAD_NO_COMMAND) {
            duty.setRunning(false);
            _wake.wait(_sync._mutex);
            duty.setRunning(true);
        }
        if (_commandForThread == IDLE_THREAD_PLEASE_EXIT) return;
        ASSERT(_commandForThread == IDLE_THREAD_PLEASE_START);
        ASSERT(hasTcpChannel());
        ASSERT(_sync._tpfd->_data._handler != nullptr);
        _sync._wbuf.reset();
        _commandForThread = IDLE_THREAD_NO_COMMAND;
        TcpChannel* const chan = _sync._tpfd;

        TcpChannelThreadedHandler::atr result = TcpChannelThreadedHandler::TCPSYNCDONE_ERROR;
        SocketError saved_serr;
        bool threw = false;
        {
            ScopedUnlocker unlock(_sync._mutex);
            try {
                result = chan->_data._handler->communicate(_sync);
            } catch (const TcpChannel::Error& e) {
                saved_serr = e.socketError();
                ASSERT(saved_serr.valid());
                threw = true;
            } catch (const std::exception& e) {
                tcpchannel_log.error("%s: %s", "Closing channel due to uncaught exception",
                                     e.what());
                threw = true;
            } catch (...) {
                tcpchannel_log.error("%s", "Closing channel due to uncaught exception");
                threw = true;
            }
        }
        if (threw) {
            result = TcpChannelThreadedHandler::TCPSYNCDONE_ERROR;
            _sync._wbuf.reset();
            if (!_sync._ioError.valid()) {
                _sync._ioError = saved_serr.valid() ? saved_serr : SocketError::exception();
            }
            _sync._lastError = &_sync._ioError;
        } else if (result == TcpChannelThreadedHandler::TCPSYNCDONE_ERROR) {
            ASSERT(saved_serr.valid());  // not for handlers to return
        }

        chan->_tcloop->_ita_list.removeFromPendingList(&_sync._writeAvail[0]);
        chan->_tcloop->_ita_list.removeFromPendingList(&_sync._writeAvail[1]);

        if (!_sync._wbuf.empty()) {
            ConditionWaitTimeout storage;
            const Interval w = chan->writeTimeout();
            storage =
                ConditionWaitTimeout{int64_t(w.ms() / 1000), int64_t(w.ms() % 1000) * 1000000};
            if (!_sync.Locked_do_flushWrite_nothrow(w.isZero() ? nullptr : &storage)) {
                tcpchannel_log.info(
                    "Channel terminated while flushing out %swrite data",
                    result == TcpChannelThreadedHandler::TCPSYNCDONE_CONTINUE ? "" : "final ");
                ASSERT(_sync._lastError->valid());
                if (_sync._lastError != &_sync._ioError) _sync._ioError = *_sync._lastError;
                _sync._lastError = &_sync._ioError;
                result = TcpChannelThreadedHandler::TCPSYNCDONE_ERROR;
            } else {
                ASSERT(_sync._wbuf.empty());
            }
        }
        requestAfterThread = result;

        NotifyTcpChannelLoopOfThreadReleaseActor release(&_sync._tpfd, _sync._mutex);
        {
            ScopedUnlocker unlock(_sync._mutex);
            chan->_tcloop->internal_runInThread(&release, true);
        }
        // A new channel may be attached already: the loop goes straight on.
        ASSERT(!hasTcpChannel() || _commandForThread != IDLE_THREAD_NO_COMMAND);
    }
}

void TcpChannelThread::describeInCrashLog(CrashLogWriteHandler& h) const {
    h.format("commandForThread=%d, nextIdle=%p, requestAfterThread=%d", int(_commandForThread),
             static_cast<const void*>(nextIdle), int(requestAfterThread));
    _sync.renderCrashLogInfoTo(h);
}

void TcpChannelThread::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    Thread::renderCrashLogInfoTo(h);
    describeInCrashLog(h);
}

// ---------------------------------------------------------------- loops

Base_TcpChannelLoop::Base_TcpChannelLoop(std::atomic<unsigned>* threadCount)
    : _threadCount(threadCount) {}

Base_TcpChannelLoop::~Base_TcpChannelLoop() {
    ASSERT(_activeList == nullptr);
    ASSERT(_activeThreadCount == 0);
    // Idle workers may be left when terminateConnections() never ran.
    endIdleThreads(0);
    if (_idleThreadTrimmer.isScheduled()) remove(&_idleThreadTrimmer);
}

void Base_TcpChannelLoop::pushActive(TcpChannel* chan) {
    chan->_next = _activeList;
    if (_activeList != nullptr) _activeList->_prevp = &chan->_next;
    _activeList = chan;
    chan->_prevp = &_activeList;
}

bool Base_TcpChannelLoop::getWorkerThread(TcpChannel* chan) {
    ASSERT(chan->_thread == nullptr);
    ASSERT(chan->_data._handler != nullptr);
    try {
        if (_idleThreads == nullptr) {
            if (!chan->spawnMoreThreads(chan->_data, _threadCount->load())) {
                delete chan->_data._handler;
                chan->_data._handler = nullptr;
                return false;
            }
            TcpChannelThread* t = new TcpChannelThread();
            _threadCount->fetch_add(1);
            _idleThreadCount++;
            t->nextIdle = _idleThreads;
            _idleThreads = t;
        }
        TcpChannelThread* const t = _idleThreads;
        t->attach(chan);
        _activeThreadCount++;
        if (_activeThreadCount > _maxActiveThreadsInTimePeriod) {
            _maxActiveThreadsInTimePeriod = _activeThreadCount;
        }
        _idleThreads = t->nextIdle;
        t->nextIdle = nullptr;
        _idleThreadCount--;
        return true;
    } catch (const std::exception& e) {
        delete chan->_data._handler;
        chan->_data._handler = nullptr;
        chan->errorSpawningThread(chan->_data, e.what());
        return false;
    }
}

void Base_TcpChannelLoop::returnWorkerThread(TcpChannelThread* ithr) {
    ASSERT(_activeThreadCount > 0);
    ASSERT(!ithr->hasTcpChannel());
    _activeThreadCount--;
    ithr->nextIdle = _idleThreads;
    _idleThreads = ithr;
    _idleThreadCount++;
    if (!_idleThreadTrimmerActive) {
        add(&_idleThreadTrimmer, _idleThreadTrimInterval);
        _idleThreadTrimmerActive = true;
    }
}

void Base_TcpChannelLoop::endIdleThreads(unsigned keep) {
    while (_idleThreadCount > keep) {
        TcpChannelThread* const t = _idleThreads;
        _idleThreads = t->nextIdle;
        t->shutdown();
        t->join();
        delete t;
        _idleThreadCount--;
        _threadCount->fetch_sub(1);
    }
}

void Base_TcpChannelLoop::_trimIdleThreads() {
    if (_idleThreadCount > _maxActiveThreadsInTimePeriod) endIdleThreads(_idleThreadCount / 2);
    _maxActiveThreadsInTimePeriod = _activeThreadCount;
}

void Base_TcpChannelLoop::IdleThreadTrimmer::when_expired(Interval* interval) {
    _loop->_trimIdleThreads();
    if (_loop->_idleThreadCount == 0) {
        *interval = Interval(0);
        _loop->_idleThreadTrimmerActive = false;
    }
}

void Base_TcpChannelLoop::_do_run() {
    _idleThreadTrimmerActive = false;
    EventLoop::run();
    if (_idleThreadTrimmer.isScheduled()) remove(&_idleThreadTrimmer);
    _idleThreadTrimmerActive = false;
}

void Base_TcpChannelLoop::_do_terminateConnections() {
    killChannelsOf(this, nullptr);
    // Workers come back through actors: serve them until all have.
    if (_activeThreadCount != 0) runInThreadWorkUntilZero(&_activeThreadCount);
    endIdleThreads(0);
    ASSERT(_activeThreadCount == 0);
    ASSERT(_idleThreadCount == 0);
    ASSERT(_activeList == nullptr);
}

void Base_TcpChannelLoop::_startTerminatingConnectionsFor(const TcpChannelAcceptor* acc) {
    killChannelsOf(this, acc);
}

void Base_TcpChannelLoop::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("_activeList=%p", static_cast<const void*>(_activeList));
    h.format(", _idleThreads=%p", static_cast<const void*>(_idleThreads));
    h.format(", _idleThreadCount=%u, _activeThreadCount=%u, _maxActiveThreadsInTimePeriod=%u",
             _idleThreadCount, _activeThreadCount, _maxActiveThreadsInTimePeriod);
    if (_idleThreadTrimmerActive) h.write(", _idleThreadTrimmerActive");
    h.write("\n");
    EventLoop::renderCrashLogInfoTo(h);
}

SubordinateTcpChannelLoop::SubordinateTcpChannelLoop(TcpChannelLoop* master)
    : Base_TcpChannelLoop(&master->_allThreads), _master(master) {}

TcpChannelLoop::TcpChannelLoop() : Base_TcpChannelLoop(&_allThreads) {}

TcpChannelLoop::~TcpChannelLoop() = default;

void TcpChannelLoop::add(TcpChannelAcceptor* acc, PollableDescriptor pd) {
    ASSERT(!acc->_opened.load());
    acc->_tcloop = this;
    EventLoop::add(acc, pd);
    acc->_opened.store(true);
}

void TcpChannelLoop::addSubordinate(SubordinateTcpChannelLoop* sub) {
    ASSERT(sub->_master == this);
    _subordinates.push_back(sub);
}

void TcpChannelLoop::terminate() {
    for (SubordinateTcpChannelLoop* sub : _subordinates) sub->EventLoop::terminate();
    EventLoop::terminate();
}

void TcpChannelLoop::terminateConnections() {
    runInThread([this] {
        _do_terminateConnections();
        for (SubordinateTcpChannelLoop* sub : _subordinates) {
            TcpChannelTerminateConnectionsActor actor(sub, this);
            actor.apply();
        }
    });
}

// ---------------------------------------------------------------- TcpChannelAcceptor

TcpChannelAcceptor::TcpChannelAcceptor() : _created(time(nullptr)) {}

TcpChannelAcceptor::~TcpChannelAcceptor() {
    ASSERT(_activeCount == 0);
    ASSERT(_inflightSubordinateAccepts == 0);
}

events_mask_t TcpChannelAcceptor::defaultEvents() const { return ACCEPT_EVENTS; }

std::unique_ptr<TcpChannel> TcpChannelAcceptor::factory(Base_TcpChannelLoop*, PollableDescriptor fd,
                                                        const IPv46SocketAddress& peer) {
    return factory(fd, peer);
}

void TcpChannelAcceptor::afterFdRemoved(TcpChannel* chan) { delete chan; }

bool TcpChannelAcceptor::limitActiveConnections(unsigned, bool) { return false; }

bool TcpChannelAcceptor::limitInflightAccepts(unsigned inflight) {
    return inflight > 3 * _tcloop->_subordinates.size() + 2;
}

Base_TcpChannelLoop* TcpChannelAcceptor::pickDestinationLoop() {
    const auto& subs = _tcloop->_subordinates;
    if (subs.size() == 1) return subs[0];
    return subs[_roundRobin++ % subs.size()];
}

bool TcpChannelAcceptor::when_events(PollableDescriptor fd) {
    tcpchannel_log.debug("Before accept");
    for (;;) {
        ASSERT(_disabledReasons == 0);
        IPv46SocketAddress peer;
        const PollableDescriptor pd = fd.accept(peer);
        if (pd.valid()) {
            bool added;
            try {
                added = new_connection(pd, peer);
            } catch (const std::exception& e) {
                // A factory that throws costs that one connection, not the listener.
                tcpchannel_log.error("Couldn't add a connection: %s", e.what());
                added = false;
            }
            if (!added) return false;
            _postAcceptResourceThrottling();
            if (_disabledReasons != 0) {
                _savedPd = fd;
                return true;  // off the loop, still open
            }
            return false;  // one connection per event
        }
        const int e = errno;
        switch (e) {
            case EAGAIN:
            case EINTR:
                return false;
            case ENFILE:
            case EMFILE:
            case ENOMEM:
            case ENOBUFS:
                _acceptHadResourceError(e);
                _tcloop->add(&_reenable, Interval(OUT_OF_FDS_PAUSE_MS));
                _savedPd = fd;
                return true;
            case ECONNABORTED:
            case ECONNRESET:
                continue;
            default: {
                Str text;
                appendError(&text, "Fatal error on accept socket: ", SocketError::fromErrno(e));
                tcpchannel_log.errorSeg(text.data(), text.size());
                return true;
            }
        }
    }
}

void TcpChannelAcceptor::_acceptHadResourceError(int errnum) {
    Str text;
    appendError(&text,
                "Temporary error on accept socket, pausing: ", SocketError::fromErrno(errnum));
    tcpchannel_log.errorSeg(text.data(), text.size());
    _disabledReasons |= DISABLE_FOR_OUT_OF_FDS;
}

void TcpChannelAcceptor::_postAcceptResourceThrottling() {
    ASSERT(_disabledReasons == 0);
    _activeCount++;
    if (limitActiveConnections(_activeCount, false)) _disabledReasons = DISABLE_FOR_ACTIVE_LIMIT;
    if (limitInflightAccepts(_inflightSubordinateAccepts)) {
        _disabledReasons |= DISABLE_FOR_INFLIGHT_LIMIT;
    }
}

void TcpChannelAcceptor::TcpChannelAcceptorReenableAfterOutOfFds::when_expired(Interval* interval) {
    *interval = Interval(0);
    ASSERT((_acceptor->_disabledReasons & TcpChannelAcceptor::DISABLE_FOR_OUT_OF_FDS) != 0);
    _acceptor->_disabledReasons &= ~unsigned(TcpChannelAcceptor::DISABLE_FOR_OUT_OF_FDS);
    if (_acceptor->_disabledReasons != 0) return;
    ASSERT(_acceptor->_opened.load());
    ASSERT(_acceptor->_savedPd.valid());
    _acceptor->_tcloop->EventLoop::add(_acceptor, _acceptor->_savedPd);
    _acceptor->_savedPd = PollableDescriptor();
}

void TcpChannelAcceptor::restart_listener_if_enabled() {
    if (_disabledReasons != 0) return;
    ASSERT(_opened.load());
    ASSERT(_savedPd.valid());
    _tcloop->EventLoop::add(this, _savedPd);
    _savedPd = PollableDescriptor();
}

bool TcpChannelAcceptor::new_connection(PollableDescriptor fd, const IPv46SocketAddress& peer) {
    if (_tcloop->_subordinates.empty()) return _do_new_connection(_tcloop, fd, peer);
    Base_TcpChannelLoop* const dest = pickDestinationLoop();
    const auto& subs = _tcloop->_subordinates;
    ASSERT(std::find(subs.begin(), subs.end(), dest) != subs.end());
    auto* actor = new (std::nothrow) SendNewTcpChannelToLoopActor(this, dest, fd, peer);
    if (actor == nullptr) {
        tcpchannel_log.error("Couldn't allocate memory to send connection to subordinate loop: %s",
                             peer.uid().c_str());
        fd.close();
        return false;
    }
    _inflightSubordinateAccepts++;
    dest->internal_runInThread(actor, false);
    return true;
}

bool TcpChannelAcceptor::_do_new_connection(Base_TcpChannelLoop* loop, PollableDescriptor pd,
                                            const IPv46SocketAddress& peer) {
    ASSERT(pd.valid());
    // Allocated first: a channel's end must not fail for want of memory.
    auto* notice = new (std::nothrow) NotifyListeningTcpChannelLoopOfDestruction(_tcloop, this);
    if (notice == nullptr) {
        pd.close();
        return false;
    }
    tcpchannel_log.debug("Creating polled fd from factory");
    std::unique_ptr<TcpChannel> chan;
    try {
        chan = factory(loop, pd, peer);
    } catch (...) {
        delete notice;
        pd.close();
        throw;
    }
    if (chan == nullptr) {
        delete notice;
        pd.close();
        return false;
    }
    ASSERT(chan->_thread == nullptr);
    ASSERT(chan->_acceptor == nullptr);
    ASSERT(chan->_tcloop == nullptr);
    ASSERT(chan->_next == chan.get());
    ASSERT(chan->_prevp == &chan->_next);
    chan->_acceptor = this;
    chan->_tcloop = loop;
    try {
        chan->initialize_timeouts();
        tcpchannel_log.debug("adding connection to factory created fd = %p",
                             static_cast<const void*>(chan.get()));
        events_mask_t mask = chan->defaultEvents();
        chan->connectionEstablished(chan->_data);
        if (chan->_data.hasWriteData()) mask = TcpChannel::MASK_WRITE_AND_READ;
        tcpchannel_log.info("Accepted connection");
        loop->EventLoop::add(chan.get(), pd, mask);
        chan->reset_timeout((mask & (EPOLLIN | EPOLLPRI)) == (EPOLLIN | EPOLLPRI),
                            (mask & EPOLLOUT) != 0);
    } catch (...) {
        // Not counted yet: the channel's end must not report it gone.
        if (chan->isActive()) loop->removeActivePolledFd(chan.get());
        delete notice;
        chan.reset();
        pd.close();
        return false;
    }
    chan->_destructionNotice = notice;
    loop->pushActive(chan.release());
    return true;
}

void TcpChannelAcceptor::connection_gone() {
    ASSERT(_activeCount > 0);
    _activeCount--;
    if (_deleteWhenConnectionsFinish) {
        ASSERT(!_opened.load());
        if (_activeCount == 0 && _inflightSubordinateAccepts == 0) deleteSelf();
        return;
    }
    if ((_disabledReasons & DISABLE_FOR_ACTIVE_LIMIT) == 0) return;
    if (limitActiveConnections(_activeCount, true)) return;
    _disabledReasons &= ~unsigned(DISABLE_FOR_ACTIVE_LIMIT);
    restart_listener_if_enabled();
}

void TcpChannelAcceptor::close() {
    if (!_opened.load()) return;
    if (_reenable.isScheduled()) _tcloop->remove(&_reenable);
    bool closed = true;
    if (_savedPd.valid()) {
        closed = _savedPd.close();
        _savedPd = PollableDescriptor();
    } else if (isActive()) {
        PollableDescriptor fd = descriptor();
        _tcloop->removeActivePolledFd(this);
        closed = fd.close();
    }
    if (!closed) tcpchannel_log.error("Error closing accepting socket: %m");
    _disabledReasons = 0;
    _opened.store(false);
}

void TcpChannelAcceptor::deleteWhenConnectionsFinish() {
    ASSERT(!_opened.load());
    if (_activeCount != 0 || _inflightSubordinateAccepts != 0) {
        _deleteWhenConnectionsFinish = true;
        return;
    }
    deleteSelf();
}

void TcpChannelAcceptor::deleteSelf() {
    if (_finalDestructionActor != nullptr)
        _tcloop->internal_runInThread(_finalDestructionActor, false);
    delete this;
}

void TcpChannelAcceptor::startTerminatingConnections() {
    _tcloop->runInThread([this] {
        _tcloop->_startTerminatingConnectionsFor(this);
        for (SubordinateTcpChannelLoop* sub : _tcloop->_subordinates) {
            InThreadFunction<void> actor(
                [sub, this] { sub->_startTerminatingConnectionsFor(this); });
            sub->runInThreadOrFail(&actor);
        }
    });
}

void TcpChannelAcceptor::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("TcpChannelAcceptor: %p", static_cast<const void*>(this));
    h.format(", tcloop=%p", static_cast<const void*>(_tcloop));
    h.format(", _disabledReasons=%u, _activeCount=%u, _inflightSubordinateAccepts=%u\n",
             _disabledReasons, _activeCount, _inflightSubordinateAccepts);
    PolledFd::renderCrashLogInfoTo(h);
}
