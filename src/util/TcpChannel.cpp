// One connection: the loop side (asynchronous mode and the I/O it does for
// a worker) and the worker's blocking calls.
#include "util/TcpChannel.h"

#include <sys/socket.h>

#include <cerrno>

#include "util/Logger.h"

Logger tcpchannel_log("TcpChannel");

const SocketError socketErrorReadTimeout(SocketError::SOCKERROR_TYPE_TIMEOUT,
                                         SocketError::TIMEOUT_TYPE_READ);
const SocketError socketErrorWriteTimeout(SocketError::SOCKERROR_TYPE_TIMEOUT,
                                          SocketError::TIMEOUT_TYPE_WRITE);

namespace {

const SocketError noSocketError;

bool wouldBlock(int e) { return e == EAGAIN || e == EWOULDBLOCK || e == EINTR; }

// Gathers what the cursor has left (up to a batch) into one sendmsg: a
// vanished peer is EPIPE, not SIGPIPE. False for an error only.
bool sendFromCursor(int fd, PortableIovecCursor& c) {
    constexpr size_t BATCH = 64;
    struct iovec v[BATCH];
    size_t n = 0;
    for (size_t i = c._elem; i < c._iov->size() && n < BATCH; i++) {
        const struct iovec& e = (*c._iov)[i];
        const size_t skip = i == c._elem ? c._bytesIntoElem : 0;
        if (e.iov_len == skip) continue;
        v[n].iov_base = static_cast<char*>(e.iov_base) + skip;
        v[n].iov_len = e.iov_len - skip;
        n++;
    }
    if (n == 0) return true;
    const ssize_t put = PollableDescriptor(fd).sendtov(v, unsigned(n));
    if (put < 0) return false;
    c.skipBytes(size_t(put));
    return true;
}

template <size_t N>
ssize_t sendFromRing(int fd, ByteRingBuffer<N>& ring) {
    struct iovec v[2] = {};
    const unsigned n = ring.dataSegments(v);
    const ssize_t put = PollableDescriptor(fd).sendtov(v, n);
    if (put > 0) ring.consume(size_t(put));
    return put;
}

ConditionWaitTimeout toWaitTimeout(Interval i) {
    return ConditionWaitTimeout{int64_t(i.ms() / 1000), int64_t(i.ms() % 1000) * 1000000};
}

bool isZero(const ConditionWaitTimeout& t) { return t.seconds <= 0 && t.nanoseconds <= 0; }

int64_t nowNanoseconds() {
    struct timespec ts;
    monotonic_clock_now(&ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// A lock that can be let go of before its scope ends.
class WorkerLock {
public:
    explicit WorkerLock(ConditionMutex& m) : _m(m) { _m.lock(); }
    ~WorkerLock() {
        if (_held) _m.unlock();
    }
    void unlock() {
        _held = false;
        _m.unlock();
    }

private:
    ConditionMutex& _m;
    bool _held = true;
};

}  // namespace

// ---------------------------------------------------------------- TcpAsyncDataBuffer

void TcpAsyncDataBuffer::startAsyncWrite() {
    ASSERT(!hasWriteData());
    ASSERT(!_writeBuffer.empty());
    _writeBuffer.finalize();
    _writeCursor.start(_writeBuffer);
}

void TcpAsyncDataBuffer::doneWithWriteData() {
    ASSERT(hasWriteData());
    ASSERT(_writeCursor.finished());
    _writeCursor = PortableIovecCursor();
    _writeBuffer.resize(0);
}

void TcpAsyncDataBuffer::setHandler(TcpChannelThreadedHandler* handler) {
    ASSERT(_handler == nullptr);
    _handler = handler;
}

// ---------------------------------------------------------------- exceptions

TcpChannel::Error::Error(const SocketError& err) : _err(err) {
    Str text;
    append_stringified(&text, err);
    _set_str(text.data(), text.size());
}

TcpChannel::Timeout::Timeout(const SocketError& err) : Error(err) { ASSERT(err.isTimeout()); }

void throw_tcpchannel_exception(const SocketError* errp) {
    ASSERT(errp->valid());
    if (errp->isTimeout()) throw TcpChannel::Timeout(*errp);
    throw TcpChannel::Error(*errp);
}

// ---------------------------------------------------------------- TcpChannel

const TcpChannel::engine TcpChannel::nossl_engine = {
    &TcpChannel::nossl_direct_read,
    &TcpChannel::nossl_direct_write,
    &TcpChannel::nossl_io_wthread,
};

TcpChannel::TcpChannel()
    : _read(&TcpChannel::nossl_direct_read), _engine(&nossl_engine), _next(this), _prevp(&_next) {}

TcpChannel::~TcpChannel() {
    ASSERT(_thread == nullptr);
    if (_asyncTimeout.isScheduled()) _tcloop->remove(&_asyncTimeout);
    unlinkFromActiveList();
    if (_destructionNotice != nullptr) {
        _acceptor->_tcloop->internal_runInThread(_destructionNotice, false);
    }
    delete _data._handler;
}

void TcpChannel::unlinkFromActiveList() {
    if (_next == this) return;
    *_prevp = _next;
    if (_next != nullptr) _next->_prevp = _prevp;
    _next = this;
    _prevp = &_next;
}

void TcpChannel::connectionEstablished(TcpAsyncDataBuffer&) {}
bool TcpChannel::asyncWriteComplete() { return false; }
void TcpChannel::workerReturned(TcpAsyncDataBuffer&) {}

void TcpChannel::errorHappened(const SocketError& err) {
    Str text("TcpChannel error: ");
    append_stringified(&text, err);
    tcpchannel_log.infoSeg(text.data(), text.size());
}

Interval TcpChannel::asyncTimeoutExpired() { return Interval(0); }
Interval TcpChannel::initialReadTimeout() { return Interval(0); }
Interval TcpChannel::initialWriteTimeout() { return Interval(240000); }
Interval TcpChannel::sslHandshakeTimeout() const { return Interval(60000); }
Interval TcpChannel::gracefulShutdownTimeout() { return Interval(20000); }
bool TcpChannel::spawnMoreThreads(TcpAsyncDataBuffer&, unsigned) { return true; }

void TcpChannel::errorSpawningThread(TcpAsyncDataBuffer&, const char* what) {
    tcpchannel_log.error("Couldn't start a thread for a connection: %s", what);
}

bool TcpChannel::wantGracefulShutdown() { return isSsl(); }

void TcpChannel::initialize_timeouts() {
    if (isSsl()) {
        _readTimeout = _writeTimeout = sslHandshakeTimeout();
    } else {
        _readTimeout = initialReadTimeout();
        _writeTimeout = initialWriteTimeout();
    }
}

void TcpChannel::reset_timeout(bool read, bool write) {
    _asyncTimeout.timeout_count = 0;
    _asyncTimeout._writePending = write;
    const Interval t = write ? _writeTimeout : read ? _readTimeout : Interval(0);
    if (t.isZero()) {
        if (_asyncTimeout.isScheduled()) _tcloop->remove(&_asyncTimeout);
    } else {
        _tcloop->add(&_asyncTimeout, t);
    }
}

// After a worker's release, or from a read event: whatever the connection
// needs next, on the loop thread. True when the connection is finished.
bool TcpChannel::when_events(PollableDescriptor fd) {
    ASSERT(isActive());
    const bool readPermission = isSsl() || (epoll_revents() & (EPOLLIN | EPOLLPRI)) != 0;
    bool dataDue = false;
    if (_thread != nullptr) {
        TcpSyncDataBuffer& sync = _thread->_sync;
        WorkerLock lock(sync._mutex);
        if (sync._tpfd != nullptr) {
            ASSERT(_thread->_sync._tpfd == this);
            // Once I/O has failed, the first error stands: a reset socket
            // reads as end of file afterwards.
            if (!sync._ioError.valid()) {
                const events_mask_t mask = (this->*_engine->io_wthread)(fd);
                if (mask != IO_FAILED) {
                    maybe_wakeup_thread();
                    lock.unlock();
                    if (mask != ourEvents()) changeEvents(mask);
                    return false;
                }
            }
            // The worker learns of it; the channel idles until the worker ends.
            sync.markIoDone();
            lock.unlock();
            idleUntilWorkerEnds();
            return false;
        }
        const int after = thread_detach();
        if (after == TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE) {
            if (!start_graceful_shutdown()) return true;
        } else if (after == TcpChannelThreadedHandler::TCPSYNCDONE_ERROR) {
            return true;
        }
        lock.unlock();
        workerReturned(_data);
        // Input the worker left (a pipelined request, say) is news to
        // the asynchronous side.
        dataDue = !_data._rbuf.empty();
    }
    ASSERT(_data._handler == nullptr);

    events_mask_t mask = MASK_READ;
    bool noWriteProgress = false;
    bool callData = dataDue;
    bool mayRead = readPermission || dataDue || !_data._rbuf.empty();
    for (;;) {
        if (_data.hasWriteData()) {
            const uint64_t before = _data._writeCursor.bytesLeftToWrite();
            mask = (this->*_engine->direct_write)(fd);
            if (mask == IO_FAILED) {
                asyncWriteComplete();
                return true;
            }
            if (_data.hasWriteData()) {
                noWriteProgress = _data._writeCursor.bytesLeftToWrite() == before;
                goto wait;
            }
            const bool wantsData = asyncWriteComplete();
            // The callback may have queued the next output itself (a reply
            // written piece by piece): it goes out before anything else.
            if (_data.hasWriteData()) continue;
            if (wantsData) {
                callData = mayRead = true;
            } else if (!_data._shouldKill && _data._handler == nullptr) {
                goto idle;
            }
        }
        if (_data._shouldKill) {
            ASSERT(_data._handler == nullptr);
            ASSERT(!_data.hasWriteData());
            _data._shouldKill = false;
            if (!wantGracefulShutdown()) return true;
            if (!start_graceful_shutdown()) return true;
            callData = false;
            mayRead = true;
        }
        if (_data._handler != nullptr) {
            ASSERT(!_data.hasWriteData());
            if (_tcloop->getWorkerThread(this)) {
                // From here the worker is master; its waits are timed by itself.
                if (_asyncTimeout.isScheduled()) _tcloop->remove(&_asyncTimeout);
                return false;
            }
            continue;  // the handler was dropped
        }
        if (!mayRead) goto idle;
        if (!callData) {
            // A subclass must consume when the buffer is full.
            ASSERT(!_data._rbuf.full());
            const size_t oldBytesAvailable = _data.bytesAvailable();
            mask = (this->*_read)(fd);
            if (mask == IO_FAILED) return true;
            // Nothing new: the subclass waits for more.
            if (_data.bytesAvailable() == oldBytesAvailable) goto wait;
        }
        callData = false;
        if (_data._rbuf.empty()) goto idle;
        dataAvailable(_data);
    }

idle:
    mask = MASK_READ;
wait:
    if (!noWriteProgress) {
        reset_timeout((mask & (EPOLLIN | EPOLLPRI)) == (EPOLLIN | EPOLLPRI),
                      (mask & EPOLLOUT) != 0);
    }
    if (mask != ourEvents()) changeEvents(mask);
    return false;
}

// Events 0, as the worker's release will wake us: but hang-up and error are
// reported whatever the mask, and a failed socket would keep the loop
// spinning for as long as the worker takes. epoll reports them once more
// with EPOLLONESHOT and then holds the descriptor until the next change;
// poll has no such mode.
void TcpChannel::idleUntilWorkerEnds() {
    const events_mask_t quiet = EventLoop::usingEpoll() ? events_mask_t(EPOLLONESHOT) : 0;
    if (ourEvents() != quiet) changeEvents(quiet);
}

void TcpChannel::after_eof(PollableDescriptor fd) {
    if (_asyncTimeout.isScheduled()) _tcloop->remove(&_asyncTimeout);
    fd.close();
    if (_thread == nullptr) _acceptor->afterFdRemoved(this);
}

void TcpChannel::AsyncIoTimeout::when_expired(Interval* interval) {
    ASSERT(_chan->_thread == nullptr);
    timeout_count++;
    if (timeout_count == 1) {
        // A second look: an event ready in this very batch wins.
        *interval = Interval(1);
        return;
    }
    const SocketError err = SocketError::timeout(_writePending ? SocketError::TIMEOUT_TYPE_WRITE
                                                               : SocketError::TIMEOUT_TYPE_READ);
    if (_chan->inGracefulShutdown()) {
        *interval = Interval(0);
        _chan->force_kill(err);
        return;
    }
    const Interval next = _chan->asyncTimeoutExpired();
    if (!next.isZero() && !next.isUnbounded()) {
        timeout_count = 0;
        *interval = next;
        return;
    }
    if (_chan->wantGracefulShutdown() && _chan->start_graceful_shutdown()) {
        timeout_count = 0;
        *interval = _chan->_readTimeout;
        return;
    }
    *interval = Interval(0);
    _chan->force_kill(err);  // may delete the channel, and this with it
}

bool TcpChannel::start_graceful_shutdown() {
    ASSERT(_thread == nullptr || !_thread->hasTcpChannel());
    if (::shutdown(descriptor().fd(), SHUT_WR) != 0) return false;
    _read = &TcpChannel::nossl_post_graceful_shutdown;
    _readTimeout = _writeTimeout = gracefulShutdownTimeout();
    _data._rbuf.reset();
    return true;
}

void TcpChannel::force_kill(const SocketError& err) {
    if (_thread != nullptr) {
        TcpSyncDataBuffer& sync = _thread->_sync;
        WorkerLock lock(sync._mutex);
        if (sync._tpfd != nullptr) {
            if (!sync._ioError.valid()) sync._ioError = err;
            sync._terminateNotify(err);
            sync.markIoDone();
        } else {
            lock.unlock();
            _tcloop->returnWorkerThread(_thread);
            _thread = nullptr;
            delete _data._handler;
            _data._handler = nullptr;
        }
    }
    const bool workerHolds = _thread != nullptr;
    if (!workerHolds && !inGracefulShutdown()) errorHappened(err);
    // Not while it runs: its expiry is what called us.
    if (_asyncTimeout.isScheduled()) _tcloop->remove(&_asyncTimeout);
    if (isActive()) {
        PollableDescriptor fd = descriptor();
        eventLoop()->removeActivePolledFd(this);
        fd.close();
    }
    // With a worker the channel outlives its descriptor until the release.
    if (!workerHolds) _acceptor->afterFdRemoved(this);
}

int TcpChannel::thread_detach() {
    TcpChannelThread* const thread = _thread;
    const TcpChannelThreadedHandler::atr result = thread->requestAfterThread;
    if (result == TcpChannelThreadedHandler::TCPSYNCDONE_ERROR) {
        const SocketError err = *thread->_sync._lastError;
        _tcloop->returnWorkerThread(thread);
        _thread = nullptr;
        errorHappened(err);
        return TcpChannelThreadedHandler::TCPSYNCDONE_ERROR;
    }
    _tcloop->returnWorkerThread(thread);
    _thread = nullptr;
    if (result == TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE && !wantGracefulShutdown()) {
        return TcpChannelThreadedHandler::TCPSYNCDONE_ERROR;
    }
    delete _data._handler;
    _data._handler = nullptr;
    reset_timeout(true, false);
    return result;
}

void TcpChannel::maybe_wakeup_thread() {
    TcpSyncDataBuffer& sync = _thread->_sync;
    switch (sync._giveCmd._cmd) {
        case GiveCommandToTcpChannel::ELCOMM_NONE:
            break;
        case GiveCommandToTcpChannel::ELCOMM_WANT_READ:
            if (!_data._rbuf.empty()) sync.markIoDone();
            break;
        case GiveCommandToTcpChannel::ELCOMM_WANT_WRITE_SPACE:
            if (!sync._wbuf.full()) sync.markIoDone();
            break;
        case GiveCommandToTcpChannel::ELCOMM_WANT_FLUSH:
            if (sync._wbuf.empty()) sync.markIoDone();
            break;
    }
}

events_mask_t TcpChannel::nossl_direct_read(PollableDescriptor fd) {
    const ssize_t n = _data._rbuf.readFrom(fd.fd());
    if (n > 0) return MASK_READ;
    if (n == 0) {
        errorHappened(SocketError::eof());
        return IO_FAILED;
    }
    if (wouldBlock(errno)) return MASK_READ;
    errorHappened(SocketError::fromErrno());
    return IO_FAILED;
}

events_mask_t TcpChannel::nossl_direct_write(PollableDescriptor fd) {
    if (!sendFromCursor(fd.fd(), _data._writeCursor)) {
        if (wouldBlock(errno)) return MASK_WRITE_AND_READ;
        errorHappened(SocketError::fromErrno());
        return IO_FAILED;
    }
    if (!_data._writeCursor.finished()) return MASK_WRITE_AND_READ;
    _data.doneWithWriteData();
    return MASK_NO_READ;
}

events_mask_t TcpChannel::nossl_io_wthread(PollableDescriptor fd) {
    ASSERT(_pSSLCtx == nullptr);
    ASSERT(_thread != nullptr);
    ASSERT(!_data.hasWriteData());
    ASSERT(!_data._shouldKill);
    TcpSyncDataBuffer& sync = _thread->_sync;
    if (!sync._wbuf.empty() && sendFromRing(fd.fd(), sync._wbuf) < 0 && !wouldBlock(errno)) {
        sync._ioError = SocketError::fromErrno();
        sync._terminateNotify(sync._ioError);
        return IO_FAILED;
    }
    events_mask_t mask = sync._wbuf.empty() ? MASK_NO_READ : MASK_WRITE_AND_READ;
    // A full read buffer drops read interest: the peer feels it.
    if (_data._rbuf.full()) return mask;
    const ssize_t n = _data._rbuf.readFrom(fd.fd());
    if (n == 0 || (n < 0 && !wouldBlock(errno))) {
        sync._ioError = n == 0 ? SocketError::eof() : SocketError::fromErrno();
        sync._terminateNotify(sync._ioError);
        return IO_FAILED;
    }
    if (!_data._rbuf.full()) mask |= EPOLLIN | EPOLLPRI;
    return mask;
}

events_mask_t TcpChannel::nossl_post_graceful_shutdown(PollableDescriptor fd) {
    const ssize_t n = _data._rbuf.readFrom(fd.fd());
    _data._rbuf.reset();
    if (n > 0 || (n < 0 && wouldBlock(errno))) return MASK_READ;
    return IO_FAILED;
}

void TcpChannel::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("In TcpChannel %p, _tcloop=%p", static_cast<const void*>(this),
             static_cast<const void*>(_tcloop));
    if (_data.hasWriteData()) {
        h.format("async write cursor @%p has %u bytes left",
                 static_cast<const void*>(&_data._writeCursor),
                 unsigned(_data._writeCursor.bytesLeftToWrite()));
    } else {
        h.write(", no async write data");
    }
    if (_data._shouldKill) h.write(", _data._shouldKill");
    h.write(", r/w_timeouts=");
    crashlog_write(h, _readTimeout);
    h.write("/");
    crashlog_write(h, _writeTimeout);
    h.format(", timeout_count=%u\n", _asyncTimeout.timeout_count);
    h.format("rbuf: read=%llu write=%llu\n", (unsigned long long)_data._rbuf.readPosition(),
             (unsigned long long)_data._rbuf.writePosition());
    if (_acceptor != nullptr) _acceptor->renderCrashLogInfoTo(h);
    h.format("_thread=%p: ", static_cast<const void*>(_thread));
    if (_thread != nullptr) _thread->describeInCrashLog(h);
    h.write("\n");
    PolledFd::renderCrashLogInfoTo(h);
}

// ---------------------------------------------------------------- the worker's I/O requests

GiveCommandToTcpChannel::result_t GiveCommandToTcpChannel::call(
    TcpChannel* chan, command_t cmd, ConditionMutex& mutex, const ConditionWaitTimeout* timeout) {
    ASSERT(cmd != ELCOMM_NONE);
    ASSERT(_cmd == ELCOMM_NONE);
    ASSERT(!chan->_thread->_sync._ioError.valid());
    TcpSyncDataBuffer& sync = chan->_thread->_sync;
    // Written only when it changes: a late callback of the previous request
    // may be reading it (for this very channel) right now.
    if (this->chan != chan) this->chan = chan;
    _cmd = cmd;
    // The loop may serve the command before this post runs (a write
    // announcement does the I/O too): failure is what the callback reports.
    ok = true;
    // A loop that no longer runs can do no I/O: the worker must not hang on it.
    if (!chan->_tcloop->postIfRunning(this)) {
        ok = false;
        _cmd = ELCOMM_NONE;
    }
    const int64_t deadline =
        timeout != nullptr ? nowNanoseconds() + timeout->seconds * 1000000000 + timeout->nanoseconds
                           : 0;
    while (_cmd != ELCOMM_NONE) {
        if (timeout == nullptr) {
            _wakeup.wait(mutex);
            continue;
        }
        ASSERT(!isZero(*timeout));
        const int64_t left = deadline - nowNanoseconds();
        if (left > 0 &&
            _wakeup.wait(mutex, ConditionWaitTimeout{left / 1000000000, left % 1000000000})) {
            continue;
        }
        if (_cmd == ELCOMM_NONE) break;
        chan->_tcloop->_ita_list.removeFromPendingList(this);
        _cmd = ELCOMM_NONE;
        sync._lastError =
            cmd == ELCOMM_WANT_READ ? &socketErrorReadTimeout : &socketErrorWriteTimeout;
        return RESULT_TIMED_OUT;
    }
    chan->_tcloop->_ita_list.removeFromPendingList(this);
    sync._lastError = &sync._ioError;
    if (ok) return RESULT_OK;
    if (!sync._ioError.valid()) sync._ioError = SocketError::localShutdown();
    return RESULT_CHANNEL_FAILED;
}

void GiveCommandToTcpChannel::callback() {
    TcpSyncDataBuffer& sync = chan->_thread->_sync;
    ScopedLock lock(sync._mutex);
    // The worker stopped waiting (its time ran out): a stale request.
    if (_cmd == ELCOMM_NONE) return;
    ok = InThreadActor::triggerAfterwards(chan->_tcloop, chan);
    thread_fence(std::memory_order_seq_cst);
    if (!ok) sync.markIoDone();
}

void GiveCommandToTcpChannel::extraCrashLogFields(CrashLogWriteHandler& h) const {
    h.format("Crashing in GiveCommandToTcpChannel, cmd=%d", int(_cmd));
    if (ok) h.write(", ok");
    h.format(", chan=%p\n", static_cast<const void*>(chan));
}

void WriteDataAvailableFromTcpChannelThread::callback() {
    InThreadActor::triggerAfterwards(_chan->_tcloop, _chan);
}

void WriteDataAvailableFromTcpChannelThread::extraCrashLogFields(CrashLogWriteHandler& h) const {
    h.write("Crashing in WriteDataAvailableFromTcpChannelThread\n");
}

// ---------------------------------------------------------------- TcpSyncDataBuffer

TcpSyncDataBuffer::TcpSyncDataBuffer() : _lastError(&noSocketError) {}

TcpSyncDataBuffer::~TcpSyncDataBuffer() = default;

void TcpSyncDataBuffer::markIoDone() {
    _giveCmd._cmd = GiveCommandToTcpChannel::ELCOMM_NONE;
    _giveCmd._wakeup.wake_one();
}

void TcpSyncDataBuffer::_terminateNotify(const SocketError& why) {
    _terminateError = why;
    if (_terminateCallback != nullptr) _terminateCallback->terminate();
}

ConditionWaitTimeout* TcpSyncDataBuffer::readTimeout(ConditionWaitTimeout* storage) const {
    ASSERT(_tpfd != nullptr);
    const Interval i = _tpfd->readTimeout();
    if (i.isZero()) return nullptr;
    *storage = toWaitTimeout(i);
    return storage;
}

ConditionWaitTimeout* TcpSyncDataBuffer::writeTimeout(ConditionWaitTimeout* storage) const {
    ASSERT(_tpfd != nullptr);
    const Interval i = _tpfd->writeTimeout();
    if (i.isZero()) return nullptr;
    *storage = toWaitTimeout(i);
    return storage;
}

ssize_t TcpSyncDataBuffer::orThrow(ssize_t r) {
    if (r < 0) throw_tcpchannel_exception(_lastError);
    return r;
}

ssize_t TcpSyncDataBuffer::_waitForSomeReadData(const ConditionWaitTimeout* t) {
    auto& rbuf = _tpfd->_data._rbuf;
    bool timedOut = false;
    while (rbuf.empty()) {
        if (_ioError.valid()) {
            _lastError = &_ioError;
            return _ioError.isEof() ? 0 : -1;
        }
        if (t != nullptr && isZero(*t)) {
            _lastError = &socketErrorReadTimeout;
            return -1;
        }
        if (timedOut) {
            ASSERT(_lastError == &socketErrorReadTimeout);
            return -1;
        }
        if (_giveCmd.call(_tpfd, GiveCommandToTcpChannel::ELCOMM_WANT_READ, _mutex, t) ==
            GiveCommandToTcpChannel::RESULT_TIMED_OUT) {
            timedOut = true;
        }
    }
    _lastError = &noSocketError;
    return ssize_t(rbuf.bytesAvailable());
}

ssize_t TcpSyncDataBuffer::_do_read_nothrow(void* dest, size_t length,
                                            const ConditionWaitTimeout* t) {
    ScopedLock lock(_mutex);
    const ssize_t n = _waitForSomeReadData(t);
    if (n <= 0) return n;
    return ssize_t(_tpfd->_data._rbuf.read(dest, length));
}

ssize_t TcpSyncDataBuffer::_do_peek_nothrow(StrSegment* seg, const ConditionWaitTimeout* t) {
    ScopedLock lock(_mutex);
    const ssize_t n = _waitForSomeReadData(t);
    if (n <= 0) return n;
    // Only this thread consumes: the loop appends behind what we show.
    struct iovec v[2] = {};
    _tpfd->_data._rbuf.dataSegments(v);
    *seg = StrSegment(static_cast<const char*>(v[0].iov_base), v[0].iov_len);
    return ssize_t(v[0].iov_len);
}

ssize_t TcpSyncDataBuffer::_do_consumeAndPeek_nothrow(size_t bytes, StrSegment* seg,
                                                      const ConditionWaitTimeout* t) {
    consume(bytes);
    return _do_peek_nothrow(seg, t);
}

void TcpSyncDataBuffer::consume(size_t bytes) {
    ScopedLock lock(_mutex);
    ASSERT(_tpfd->_data._rbuf.bytesAvailable() >= bytes);
    _tpfd->_data._rbuf.consume(bytes);
}

bool TcpSyncDataBuffer::_do_readline_nothrow(Str& line, const ConditionWaitTimeout* t) {
    line.clear();
    ScopedLock lock(_mutex);
    auto& rbuf = _tpfd->_data._rbuf;
    for (;;) {
        if (_waitForSomeReadData(t) <= 0) {
            if (_lastError == &socketErrorReadTimeout) return false;
            return !line.empty();
        }
        struct iovec v[2] = {};
        rbuf.dataSegments(v);
        StrSegment seg(static_cast<const char*>(v[0].iov_base), v[0].iov_len);
        const bool ended = seg.accumulateLine(&line);
        rbuf.consume(v[0].iov_len - seg._len);
        if (ended) return true;
    }
}

// One wait for the loop to make room in _wbuf or drain it: false, with
// _lastError set, when the channel failed or the time ran out.
bool TcpSyncDataBuffer::waitForWriteProgress(GiveCommandToTcpChannel::command_t cmd,
                                             const ConditionWaitTimeout* t) {
    if (_ioError.valid()) {
        _lastError = &_ioError;
        return false;
    }
    if (t != nullptr && isZero(*t)) {
        _lastError = &socketErrorWriteTimeout;
        return false;
    }
    return _giveCmd.call(_tpfd, cmd, _mutex, t) == GiveCommandToTcpChannel::RESULT_OK;
}

bool TcpSyncDataBuffer::Locked_get_write_space(const ConditionWaitTimeout* t) {
    while (_wbuf.full()) {
        if (!waitForWriteProgress(GiveCommandToTcpChannel::ELCOMM_WANT_WRITE_SPACE, t))
            return false;
    }
    return true;
}

void TcpSyncDataBuffer::announceWriteData() {
    WriteDataAvailableFromTcpChannelThread* a = _curWriteAvail;
    if (a->_chan != _tpfd) {
        // The other one may still be on its way to the previous channel.
        a = _curWriteAvail = a == &_writeAvail[0] ? &_writeAvail[1] : &_writeAvail[0];
        a->_chan = _tpfd;
    }
    _tpfd->_tcloop->runInThreadAsyncUnlessQueued(a);
}

ssize_t TcpSyncDataBuffer::Locked_do_writev_nothrow(const struct iovec* iov, unsigned count,
                                                    const ConditionWaitTimeout* t) {
    if (_ioError.valid()) {
        _lastError = &_ioError;
        return -1;
    }
    size_t total = 0;
    for (unsigned i = 0; i < count; i++) {
        const char* p = static_cast<const char*>(iov[i].iov_base);
        size_t left = iov[i].iov_len;
        while (left > 0) {
            const size_t n = _wbuf.write(p, left);
            p += n;
            left -= n;
            total += n;
            if (left > 0 && !Locked_get_write_space(t)) return total > 0 ? ssize_t(total) : -1;
        }
    }
    _lastError = &noSocketError;
    if (_writeCorkCount != 0 && !_wbuf.full()) return ssize_t(total);
    if (!_wbuf.empty()) announceWriteData();
    return ssize_t(total);
}

bool TcpSyncDataBuffer::Locked_do_flushWrite_nothrow(const ConditionWaitTimeout* t) {
    while (!_wbuf.empty()) {
        if (!waitForWriteProgress(GiveCommandToTcpChannel::ELCOMM_WANT_FLUSH, t)) return false;
    }
    _lastError = &noSocketError;
    return true;
}

ssize_t TcpSyncDataBuffer::_do_writev_nothrow(const struct iovec* iov, unsigned count,
                                              const ConditionWaitTimeout* t) {
    ScopedLock lock(_mutex);
    return Locked_do_writev_nothrow(iov, count, t);
}

ssize_t TcpSyncDataBuffer::_do_write_nothrow(const void* data, size_t length,
                                             const ConditionWaitTimeout* t) {
    const struct iovec one = {const_cast<void*>(data), length};
    return _do_writev_nothrow(&one, 1, t);
}

ssize_t TcpSyncDataBuffer::_do_write_nothrow(PortableIovecCursor* cursor,
                                             const ConditionWaitTimeout* t) {
    const PortableIovec& v = *cursor->_iov;
    const size_t first = cursor->_elem;
    if (first >= v.size()) return 0;
    // The cursor's rest as a vector: its first element starts part-way.
    struct iovec head = v[first];
    head.iov_base = static_cast<char*>(head.iov_base) + cursor->_bytesIntoElem;
    head.iov_len -= cursor->_bytesIntoElem;
    ScopedLock lock(_mutex);
    ssize_t total = Locked_do_writev_nothrow(&head, 1, t);
    if (total == ssize_t(head.iov_len) && first + 1 < v.size()) {
        const ssize_t more =
            Locked_do_writev_nothrow(v.data() + first + 1, unsigned(v.size() - first - 1), t);
        if (more > 0) total += more;
    }
    if (total > 0) cursor->skipBytes(size_t(total));
    return total;
}

bool TcpSyncDataBuffer::_do_flushWrite_nothrow(const ConditionWaitTimeout* t) {
    ScopedLock lock(_mutex);
    return Locked_do_flushWrite_nothrow(t);
}

// The other three forms of each call.

ssize_t TcpSyncDataBuffer::read_nothrow(void* dest, size_t length) {
    ConditionWaitTimeout s;
    return _do_read_nothrow(dest, length, readTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_read(void* dest, size_t length, const ConditionWaitTimeout* t) {
    return orThrow(_do_read_nothrow(dest, length, t));
}
ssize_t TcpSyncDataBuffer::read(void* dest, size_t length) {
    ConditionWaitTimeout s;
    return _do_read(dest, length, readTimeout(&s));
}

ssize_t TcpSyncDataBuffer::peek_nothrow(StrSegment* seg) {
    ConditionWaitTimeout s;
    return _do_peek_nothrow(seg, readTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_peek(StrSegment* seg, const ConditionWaitTimeout* t) {
    return orThrow(_do_peek_nothrow(seg, t));
}
ssize_t TcpSyncDataBuffer::peek(StrSegment* seg) {
    ConditionWaitTimeout s;
    return _do_peek(seg, readTimeout(&s));
}

ssize_t TcpSyncDataBuffer::consumeAndPeek_nothrow(size_t bytes, StrSegment* seg) {
    ConditionWaitTimeout s;
    return _do_consumeAndPeek_nothrow(bytes, seg, readTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_consumeAndPeek(size_t bytes, StrSegment* seg,
                                              const ConditionWaitTimeout* t) {
    return orThrow(_do_consumeAndPeek_nothrow(bytes, seg, t));
}
ssize_t TcpSyncDataBuffer::consumeAndPeek(size_t bytes, StrSegment* seg) {
    ConditionWaitTimeout s;
    return _do_consumeAndPeek(bytes, seg, readTimeout(&s));
}

bool TcpSyncDataBuffer::readline_nothrow(Str& line) {
    ConditionWaitTimeout s;
    return _do_readline_nothrow(line, readTimeout(&s));
}
bool TcpSyncDataBuffer::_do_readline(Str& line, const ConditionWaitTimeout* t) {
    if (_do_readline_nothrow(line, t)) return true;
    if (!_lastError->isEof()) throw_tcpchannel_exception(_lastError);
    return false;
}
bool TcpSyncDataBuffer::readline(Str& line) {
    ConditionWaitTimeout s;
    return _do_readline(line, readTimeout(&s));
}

ssize_t TcpSyncDataBuffer::write_nothrow(const void* data, size_t length) {
    ConditionWaitTimeout s;
    return _do_write_nothrow(data, length, writeTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_write(const void* data, size_t length,
                                     const ConditionWaitTimeout* t) {
    const ssize_t n = _do_write_nothrow(data, length, t);
    if (n != ssize_t(length)) throw_tcpchannel_exception(_lastError);
    return n;
}
ssize_t TcpSyncDataBuffer::write(const void* data, size_t length) {
    ConditionWaitTimeout s;
    return _do_write(data, length, writeTimeout(&s));
}

// A whole buffer goes out through a cursor over it.
template <class Buffer>
ssize_t TcpSyncDataBuffer::writeAll(const Buffer& b, bool nothrow, const ConditionWaitTimeout* t) {
    PortableIovecCursor cursor;
    cursor.start(b);
    return nothrow ? _do_write_nothrow(&cursor, t) : _do_write(&cursor, t);
}

ssize_t TcpSyncDataBuffer::write_nothrow(const AppendStr& str) {
    ConditionWaitTimeout s;
    return writeAll(str, true, writeTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_write_nothrow(const AppendStr& str, const ConditionWaitTimeout* t) {
    return writeAll(str, true, t);
}
ssize_t TcpSyncDataBuffer::_do_write(const AppendStr& str, const ConditionWaitTimeout* t) {
    return writeAll(str, false, t);
}
ssize_t TcpSyncDataBuffer::write(const AppendStr& str) {
    ConditionWaitTimeout s;
    return writeAll(str, false, writeTimeout(&s));
}

ssize_t TcpSyncDataBuffer::write_nothrow(const SerializedResult& r) {
    ConditionWaitTimeout s;
    return writeAll(r, true, writeTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_write_nothrow(const SerializedResult& r,
                                             const ConditionWaitTimeout* t) {
    return writeAll(r, true, t);
}
ssize_t TcpSyncDataBuffer::_do_write(const SerializedResult& r, const ConditionWaitTimeout* t) {
    return writeAll(r, false, t);
}
ssize_t TcpSyncDataBuffer::write(const SerializedResult& r) {
    ConditionWaitTimeout s;
    return writeAll(r, false, writeTimeout(&s));
}

ssize_t TcpSyncDataBuffer::write_nothrow(PortableIovecCursor* cursor) {
    ConditionWaitTimeout s;
    return _do_write_nothrow(cursor, writeTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_write(PortableIovecCursor* cursor, const ConditionWaitTimeout* t) {
    const ssize_t n = _do_write_nothrow(cursor, t);
    if (!cursor->finished()) throw_tcpchannel_exception(_lastError);
    return n;
}
ssize_t TcpSyncDataBuffer::write(PortableIovecCursor* cursor) {
    ConditionWaitTimeout s;
    return _do_write(cursor, writeTimeout(&s));
}

ssize_t TcpSyncDataBuffer::writev_nothrow(const struct iovec* iov, unsigned count) {
    ConditionWaitTimeout s;
    return _do_writev_nothrow(iov, count, writeTimeout(&s));
}
ssize_t TcpSyncDataBuffer::_do_writev(const struct iovec* iov, unsigned count,
                                      const ConditionWaitTimeout* t) {
    size_t want = 0;
    for (unsigned i = 0; i < count; i++) want += iov[i].iov_len;
    const ssize_t n = _do_writev_nothrow(iov, count, t);
    if (n != ssize_t(want)) throw_tcpchannel_exception(_lastError);
    return n;
}
ssize_t TcpSyncDataBuffer::writev(const struct iovec* iov, unsigned count) {
    ConditionWaitTimeout s;
    return _do_writev(iov, count, writeTimeout(&s));
}

bool TcpSyncDataBuffer::flushWrite_nothrow() {
    ConditionWaitTimeout s;
    return _do_flushWrite_nothrow(writeTimeout(&s));
}
bool TcpSyncDataBuffer::_do_flushWrite(const ConditionWaitTimeout* t) {
    if (!_do_flushWrite_nothrow(t)) throw_tcpchannel_exception(_lastError);
    return true;
}
bool TcpSyncDataBuffer::flushWrite() {
    ConditionWaitTimeout s;
    return _do_flushWrite(writeTimeout(&s));
}

void TcpSyncDataBuffer::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format(", _tpfd=%p, writeCorkCount=%u, terminateCallback=%p, ioError=",
             static_cast<const void*>(_tpfd), _writeCorkCount,
             static_cast<const void*>(_terminateCallback));
    _ioError.renderCrashLogInfoTo(h);
    h.write(", lastError=");
    _lastError->renderCrashLogInfoTo(h);
    h.write(", terminateError=");
    _terminateError.renderCrashLogInfoTo(h);
    h.write("\ngiveCmd: ");
    _giveCmd.renderCrashLogInfoTo(h);
    h.write("\nwriteDataAvail1: ");
    _writeAvail[0].renderCrashLogInfoTo(h);
    h.write("\nwriteDataAvail2: ");
    _writeAvail[1].renderCrashLogInfoTo(h);
    h.format("\nwbuf: read=%llu write=%llu\n", (unsigned long long)_wbuf.readPosition(),
             (unsigned long long)_wbuf.writePosition());
}

// ---------------------------------------------------------------- helpers of the worker

void TcpChannelTerminateCallback::setup() {
    ScopedLock lock(_sbuf._mutex);
    ASSERT(_sbuf._terminateCallback == nullptr);
    _sbuf._terminateCallback = this;
}

void TcpChannelTerminateCallback::destruct() {
    ScopedLock lock(_sbuf._mutex);
    if (_sbuf._terminateCallback == this) _sbuf._terminateCallback = nullptr;
}

ScopedTcpSyncDataCork::ScopedTcpSyncDataCork(TcpSyncDataBuffer& sbuf) : _sbuf(sbuf) {
    ScopedLock lock(_sbuf._mutex);
    _sbuf._writeCorkCount++;
}

ScopedTcpSyncDataCork::~ScopedTcpSyncDataCork() {
    ScopedLock lock(_sbuf._mutex);
    ASSERT(_sbuf._writeCorkCount > 0);
    if (--_sbuf._writeCorkCount == 0 && !_sbuf._wbuf.empty() && !_sbuf._ioError.valid()) {
        _sbuf.announceWriteData();
    }
}
