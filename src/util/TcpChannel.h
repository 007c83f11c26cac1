#pragma once
// Accepted TCP connections on event loops, and the server around them.
//
// A TcpChannel is one connection owned by one loop. It serves two styles
// over one ring buffer and one descriptor: asynchronous callbacks on the
// loop thread, or a TcpChannelThreadedHandler run on a worker thread with
// blocking calls. Either way the loop thread alone touches the socket; a
// worker exchanges bytes through the channel's buffers and asks the loop
// for I/O with GiveCommandToTcpChannel. The two sides meet at the worker's
// mutex.
//
// A TcpChannelLoop is an EventLoop with its channels, a pool of worker
// threads and any number of listening TcpChannelAcceptors; it may spread
// new connections over SubordinateTcpChannelLoops.
#include <atomic>
#include <memory>
#include <vector>

#include "util/ByteRingBuffer.h"
#include "util/EventLoop.h"
#include "util/SerializedResult.h"
#include "util/SocketAddress.h"
#include "util/Thread.h"

class Base_TcpChannelLoop;
class SslContext;
class TcpChannel;
class TcpChannelAcceptor;
class TcpChannelLoop;
class TcpChannelThread;
class TcpSyncDataBuffer;

extern const SocketError socketErrorReadTimeout;
extern const SocketError socketErrorWriteTimeout;

// ---------------------------------------------------------------- handlers

class TcpChannelThreadedHandler {
public:
    enum after_thread_result {
        TCPSYNCDONE_CONTINUE = 0,  // back to asynchronous mode
        TCPSYNCDONE_CLOSE = 1,     // close the connection
        TCPSYNCDONE_ERROR = 2,     // set by the thread when communicate() throws
    };
    typedef after_thread_result atr;

    virtual ~TcpChannelThreadedHandler() = default;
    // On a worker thread; the channel's I/O goes through `buf`.
    virtual atr communicate(TcpSyncDataBuffer& buf) = 0;
};

// What an asynchronous callback gets: the input read so far, and one output
// at a time.
class TcpAsyncDataBuffer {
public:
    static constexpr size_t READ_BUFFER_SIZE = 65536;

    size_t bytesAvailable() const { return _rbuf.bytesAvailable(); }
    // Copies out what is there: the count.
    size_t read(void* dest, size_t length) { return _rbuf.read(dest, length); }
    void consume(size_t length) { _rbuf.consume(length); }
    // Drops all buffered input.
    void discard() { _rbuf.reset(); }

    // The output is built in _writeBuffer, then handed to the loop.
    SerializedResult& writeBuffer() { return _writeBuffer; }
    void startAsyncWrite();
    bool hasWriteData() const { return _writeCursor._iov != nullptr; }
    void doneWithWriteData();

    // Hands the connection to a worker thread once the callback returns;
    // the handler is owned from here on.
    void setHandler(TcpChannelThreadedHandler* handler);
    // Shut down once the callback returns (gracefully when the channel
    // wants that).
    void kill() { _shouldKill = true; }

    ByteRingBuffer<READ_BUFFER_SIZE> _rbuf;
    TcpChannelThreadedHandler* _handler = nullptr;
    SerializedResult _writeBuffer;
    PortableIovecCursor _writeCursor;
    bool _shouldKill = false;
};

// ---------------------------------------------------------------- the worker's side

// Asks the loop thread for I/O on behalf of a worker, and waits for it.
class GiveCommandToTcpChannel : public InThreadActor {
public:
    enum command_t {
        ELCOMM_NONE = 0,
        ELCOMM_WANT_READ = 1,         // until _rbuf is not empty
        ELCOMM_WANT_WRITE_SPACE = 2,  // until _wbuf is not full
        ELCOMM_WANT_FLUSH = 3,        // until _wbuf is empty
    };
    enum result_t { RESULT_OK = 0, RESULT_TIMED_OUT = 1, RESULT_CHANNEL_FAILED = 2 };

    // The worker, holding `mutex`; a null timeout waits forever.
    result_t call(TcpChannel* chan, command_t cmd, ConditionMutex& mutex,
                  const ConditionWaitTimeout* timeout);
    void callback() override;
    void extraCrashLogFields(CrashLogWriteHandler& h) const override;

    command_t _cmd = ELCOMM_NONE;
    bool ok = false;
    TcpChannel* chan = nullptr;
    PthreadConditionImpl _wakeup;
};

// Tells the loop that a worker put bytes in _wbuf.
class WriteDataAvailableFromTcpChannelThread : public InThreadActor {
public:
    void callback() override;
    void extraCrashLogFields(CrashLogWriteHandler& h) const override;

    TcpChannel* _chan = nullptr;
};

class TcpChannelTerminateCallback;

// The worker's view of its channel. Every operation comes in four forms:
// the plain name throws TcpChannel::Error or TcpChannel::Timeout, the
// _nothrow one returns failure with lastError() set; both wait by the
// channel's own time-outs. The _do_ forms take the time-out (null: no
// limit). Reads give 0 at end of file.
class TcpSyncDataBuffer {
public:
    static constexpr size_t WRITE_BUFFER_SIZE = 32768;

    TcpSyncDataBuffer();
    ~TcpSyncDataBuffer();
    TcpSyncDataBuffer(const TcpSyncDataBuffer&) = delete;
    TcpSyncDataBuffer& operator=(const TcpSyncDataBuffer&) = delete;

    // Waits for some input and copies out up to `length` bytes.
    ssize_t read(void* dest, size_t length);
    ssize_t read_nothrow(void* dest, size_t length);
    ssize_t _do_read(void* dest, size_t length, const ConditionWaitTimeout* t);
    ssize_t _do_read_nothrow(void* dest, size_t length, const ConditionWaitTimeout* t);

    // Waits for some input and shows its first contiguous stretch, which
    // stays valid until consumed: the stretch's length.
    ssize_t peek(StrSegment* seg);
    ssize_t peek_nothrow(StrSegment* seg);
    ssize_t _do_peek(StrSegment* seg, const ConditionWaitTimeout* t);
    ssize_t _do_peek_nothrow(StrSegment* seg, const ConditionWaitTimeout* t);

    // consume(bytes), then peek.
    ssize_t consumeAndPeek(size_t bytes, StrSegment* seg);
    ssize_t consumeAndPeek_nothrow(size_t bytes, StrSegment* seg);
    ssize_t _do_consumeAndPeek(size_t bytes, StrSegment* seg, const ConditionWaitTimeout* t);
    ssize_t _do_consumeAndPeek_nothrow(size_t bytes, StrSegment* seg,
                                       const ConditionWaitTimeout* t);

    // One line without its end (LF or CR LF). At end of file or an error a
    // partial line counts as a line; false when there is none (or, for the
    // throwing form at end of file, nothing at all was read).
    bool readline(Str& line);
    bool readline_nothrow(Str& line);
    bool _do_readline(Str& line, const ConditionWaitTimeout* t);
    bool _do_readline_nothrow(Str& line, const ConditionWaitTimeout* t);

    // All the bytes, or what went before a failure (-1 when nothing did).
    ssize_t write(const void* data, size_t length);
    ssize_t write_nothrow(const void* data, size_t length);
    ssize_t _do_write(const void* data, size_t length, const ConditionWaitTimeout* t);
    ssize_t _do_write_nothrow(const void* data, size_t length, const ConditionWaitTimeout* t);
    ssize_t write(const AppendStr& s);
    ssize_t write_nothrow(const AppendStr& s);
    ssize_t _do_write(const AppendStr& s, const ConditionWaitTimeout* t);
    ssize_t _do_write_nothrow(const AppendStr& s, const ConditionWaitTimeout* t);
    // The result must be finalised.
    ssize_t write(const SerializedResult& r);
    ssize_t write_nothrow(const SerializedResult& r);
    ssize_t _do_write(const SerializedResult& r, const ConditionWaitTimeout* t);
    ssize_t _do_write_nothrow(const SerializedResult& r, const ConditionWaitTimeout* t);
    // Moves the cursor on by what was taken.
    ssize_t write(PortableIovecCursor* cursor);
    ssize_t write_nothrow(PortableIovecCursor* cursor);
    ssize_t _do_write(PortableIovecCursor* cursor, const ConditionWaitTimeout* t);
    ssize_t _do_write_nothrow(PortableIovecCursor* cursor, const ConditionWaitTimeout* t);
    ssize_t writev(const struct iovec* iov, unsigned count);
    ssize_t writev_nothrow(const struct iovec* iov, unsigned count);
    ssize_t _do_writev(const struct iovec* iov, unsigned count, const ConditionWaitTimeout* t);
    ssize_t _do_writev_nothrow(const struct iovec* iov, unsigned count,
                               const ConditionWaitTimeout* t);

    // Until everything written has gone to the socket.
    bool flushWrite();
    bool flushWrite_nothrow();
    bool _do_flushWrite(const ConditionWaitTimeout* t);
    bool _do_flushWrite_nothrow(const ConditionWaitTimeout* t);

    // Drops input that is there.
    void consume(size_t bytes);

    const SocketError& lastError() const { return *_lastError; }
    TcpChannel* channel() const { return _tpfd; }

    // The mutex held.
    ssize_t _waitForSomeReadData(const ConditionWaitTimeout* t);
    ssize_t Locked_do_writev_nothrow(const struct iovec* iov, unsigned count,
                                     const ConditionWaitTimeout* t);
    bool Locked_do_flushWrite_nothrow(const ConditionWaitTimeout* t);
    bool Locked_get_write_space(const ConditionWaitTimeout* t);
    bool waitForWriteProgress(GiveCommandToTcpChannel::command_t cmd,
                              const ConditionWaitTimeout* t);
    void announceWriteData();
    void markIoDone();
    void _terminateNotify(const SocketError& why);

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    ConditionMutex _mutex;
    TcpChannel* _tpfd = nullptr;
    GiveCommandToTcpChannel _giveCmd;
    WriteDataAvailableFromTcpChannelThread _writeAvail[2];
    WriteDataAvailableFromTcpChannelThread* _curWriteAvail = &_writeAvail[0];
    SocketError _ioError;
    const SocketError* _lastError;
    SocketError _terminateError;
    unsigned _writeCorkCount = 0;
    TcpChannelTerminateCallback* _terminateCallback = nullptr;
    ByteRingBuffer<WRITE_BUFFER_SIZE> _wbuf;

private:
    ConditionWaitTimeout* readTimeout(ConditionWaitTimeout* storage) const;
    ConditionWaitTimeout* writeTimeout(ConditionWaitTimeout* storage) const;
    ssize_t orThrow(ssize_t r);
    template <class Buffer>
    ssize_t writeAll(const Buffer& b, bool nothrow, const ConditionWaitTimeout* t);
};

// Told, under the worker's mutex, when the channel fails under a worker:
// for a worker that waits on something else than the channel.
class TcpChannelTerminateCallback {
public:
    explicit TcpChannelTerminateCallback(TcpSyncDataBuffer& sbuf) : _sbuf(sbuf) {}
    virtual ~TcpChannelTerminateCallback() = default;
    virtual void terminate() = 0;
    // One at a time on a buffer.
    void setup();
    void destruct();

    TcpSyncDataBuffer& _sbuf;
};

// Wakes one waiter of a condition when the channel fails.
class ScopedTerminateConditionWakeOneOnError : public TcpChannelTerminateCallback {
public:
    ScopedTerminateConditionWakeOneOnError(TcpSyncDataBuffer& sbuf, PthreadConditionImpl& cond)
        : TcpChannelTerminateCallback(sbuf), _cond(cond) {
        setup();
    }
    ~ScopedTerminateConditionWakeOneOnError() override { destruct(); }
    void terminate() override { _cond.wake_one(); }

private:
    PthreadConditionImpl& _cond;
};

// Ends an event loop (one the worker runs, say) when the channel fails.
class ScopedTerminateEventLoopOnError : public TcpChannelTerminateCallback {
public:
    ScopedTerminateEventLoopOnError(TcpSyncDataBuffer& sbuf, EventLoop& loop)
        : TcpChannelTerminateCallback(sbuf), _loop(loop) {
        setup();
    }
    ~ScopedTerminateEventLoopOnError() override { destruct(); }
    void terminate() override { _loop.terminateNowait(); }

private:
    EventLoop& _loop;
};

// Writes under a cork only fill _wbuf; leaving the outermost cork announces
// what is pending, so many small writes cost one hop to the loop.
class ScopedTcpSyncDataCork {
public:
    explicit ScopedTcpSyncDataCork(TcpSyncDataBuffer& sbuf);
    ~ScopedTcpSyncDataCork();
    ScopedTcpSyncDataCork(const ScopedTcpSyncDataCork&) = delete;
    ScopedTcpSyncDataCork& operator=(const ScopedTcpSyncDataCork&) = delete;

private:
    TcpSyncDataBuffer& _sbuf;
};

// ---------------------------------------------------------------- actors of the server

class InTcpChannelActor : public InThreadActor {
public:
    explicit InTcpChannelActor(Base_TcpChannelLoop* loop) : _tcloop(loop) {}
    Base_TcpChannelLoop* _tcloop;
};

// Posted by a dying channel to its acceptor's listening loop.
class NotifyListeningTcpChannelLoopOfDestruction : public InTcpChannelActor {
public:
    NotifyListeningTcpChannelLoopOfDestruction(Base_TcpChannelLoop* loop, TcpChannelAcceptor* acc)
        : InTcpChannelActor(loop), _acceptor(acc) {}
    // connection_gone(), then frees itself.
    void callback() override;
    TcpChannelAcceptor* _acceptor;
};

// ---------------------------------------------------------------- TcpChannel

class TcpChannel : public PolledFd {
public:
    // A failure as an exception: its text is the SocketError's.
    class Error : public BaseException {
    public:
        explicit Error(const SocketError& err);
        const SocketError& socketError() const { return _err; }

    private:
        SocketError _err;
    };
    class Timeout : public Error {
    public:
        explicit Timeout(const SocketError& err);
    };

    // The I/O functions of one transport. A result is the new event mask,
    // or all ones when the connection is finished.
    typedef events_mask_t (TcpChannel::*io_function_t)(PollableDescriptor fd);
    struct engine {
        io_function_t direct_read;
        io_function_t direct_write;
        io_function_t io_wthread;
    };
    static const engine nossl_engine;
    static constexpr events_mask_t IO_FAILED = ~events_mask_t(0);
    static constexpr events_mask_t MASK_READ = 0x201b;            // in, pri, err, hup, rdhup
    static constexpr events_mask_t MASK_READ_WRITE = 0x201f;      // and out
    static constexpr events_mask_t MASK_WRITE_AND_READ = 0x201c;  // out, err, hup, rdhup
    static constexpr events_mask_t MASK_NO_READ = 0x2018;         // err, hup, rdhup

    TcpChannel();
    // Unlinks from the loop's list and tells the acceptor.
    ~TcpChannel() override;

    // ---- asynchronous mode, on the loop thread
    virtual void connectionEstablished(TcpAsyncDataBuffer& data);
    // Must consume when the buffer is full.
    virtual void dataAvailable(TcpAsyncDataBuffer& data) = 0;
    // After an output has gone: true when dataAvailable is due.
    virtual bool asyncWriteComplete();
    virtual void errorHappened(const SocketError& err);
    // Both looks at an idle connection found nothing: a new interval to
    // wait, or 0 to end the connection.
    virtual Interval asyncTimeoutExpired();
    virtual Interval initialReadTimeout();
    virtual Interval initialWriteTimeout();
    virtual Interval sslHandshakeTimeout() const;
    virtual Interval gracefulShutdownTimeout();
    // Whether a worker may be started with `threadCount` in the pool.
    virtual bool spawnMoreThreads(TcpAsyncDataBuffer& data, unsigned threadCount);
    virtual void errorSpawningThread(TcpAsyncDataBuffer& data, const char* what);
    virtual bool wantGracefulShutdown();
    // On the loop thread, once a worker handed the connection back to
    // asynchronous mode: a channel with output of its own to finish (a reply
    // the worker prepared) queues it here.
    virtual void workerReturned(TcpAsyncDataBuffer& data);

    bool when_events(PollableDescriptor fd) override;
    void after_eof(PollableDescriptor fd) override;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const override;

    // Loop thread: ends the connection now, telling a worker that holds it.
    void force_kill(const SocketError& err);
    // Half-closes, then reads and discards until the peer closes.
    bool start_graceful_shutdown();
    void reset_timeout(bool read, bool write);
    void initialize_timeouts();
    // The after-thread result as the loop acts on it (close_after_thread_t).
    int thread_detach();
    void maybe_wakeup_thread();

    Interval readTimeout() const { return _readTimeout; }
    Interval writeTimeout() const { return _writeTimeout; }
    void setTimeouts(Interval read, Interval write) {
        _readTimeout = read;
        _writeTimeout = write;
    }
    bool isSsl() const { return _pSSLCtx != nullptr; }
    bool inGracefulShutdown() const { return _read == &TcpChannel::nossl_post_graceful_shutdown; }
    TcpChannelAcceptor* acceptor() const { return _acceptor; }
    Base_TcpChannelLoop* channelLoop() const { return _tcloop; }

    // ---- the plain transport
    events_mask_t nossl_direct_read(PollableDescriptor fd);
    events_mask_t nossl_direct_write(PollableDescriptor fd);
    events_mask_t nossl_io_wthread(PollableDescriptor fd);
    events_mask_t nossl_post_graceful_shutdown(PollableDescriptor fd);

    class AsyncIoTimeout : public ::Timeout {
    public:
        explicit AsyncIoTimeout(TcpChannel* c) : _chan(c) {}
        void when_expired(Interval* interval) override;
        TcpChannel* _chan;
        unsigned timeout_count = 0;
        bool _writePending = false;
    };

    // The read slot changes with the connection's phase; the others are the
    // engine's.
    io_function_t _read;
    const engine* _engine;
    TcpAsyncDataBuffer _data;
    Interval _readTimeout;
    Interval _writeTimeout;
    TcpChannelThread* _thread = nullptr;
    TcpChannelAcceptor* _acceptor = nullptr;
    Base_TcpChannelLoop* _tcloop = nullptr;
    // The TLS context of a TLS channel; its engine plugs in beside the plain one.
    SslContext* _pSSLCtx = nullptr;
    TcpChannel* _next;
    TcpChannel** _prevp;
    AsyncIoTimeout _asyncTimeout{this};
    NotifyListeningTcpChannelLoopOfDestruction* _destructionNotice = nullptr;

private:
    friend class Base_TcpChannelLoop;
    void unlinkFromActiveList();
    void idleUntilWorkerEnds();
};

// Throws TcpChannel::Timeout for a time-out, TcpChannel::Error for the rest.
[[noreturn]] void throw_tcpchannel_exception(const SocketError* errp);

// ---------------------------------------------------------------- worker threads

class TcpChannelThread : public Thread {
public:
    enum command_t {
        IDLE_THREAD_NO_COMMAND = 0,
        IDLE_THREAD_PLEASE_START = 1,
        IDLE_THREAD_PLEASE_EXIT = 2,
    };

    // Starts at once, idle.
    TcpChannelThread();
    ~TcpChannelThread() override;

    // Loop thread: gives the channel to this idle thread and wakes it.
    void attach(TcpChannel* chan);
    // Asks an idle thread to leave; join() next.
    void shutdown();
    bool hasTcpChannel() const { return _sync._tpfd != nullptr; }
    void main() override;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const override;
    void describeInCrashLog(CrashLogWriteHandler& h) const;

    TcpSyncDataBuffer _sync;
    command_t _commandForThread = IDLE_THREAD_NO_COMMAND;
    TcpChannelThread* nextIdle = nullptr;
    TcpChannelThreadedHandler::atr requestAfterThread =
        TcpChannelThreadedHandler::TCPSYNCDONE_CONTINUE;
    PthreadConditionImpl _wake;
};

// ---------------------------------------------------------------- loops

class Base_TcpChannelLoop : public EventLoop {
public:
    static constexpr uint64_t IDLE_THREAD_TRIM_MS = 60000;

    explicit Base_TcpChannelLoop(std::atomic<unsigned>* threadCount);
    // Connections and workers must be gone (terminateConnections).
    virtual ~Base_TcpChannelLoop();

    // Loop thread: a worker for the channel's handler. False when none can
    // be had; the handler is dropped then.
    bool getWorkerThread(TcpChannel* chan);
    void returnWorkerThread(TcpChannelThread* thread);
    void _trimIdleThreads();
    void _do_run();
    void _do_terminateConnections();
    void _startTerminatingConnectionsFor(const TcpChannelAcceptor* acc);
    void pushActive(TcpChannel* chan);

    unsigned idleThreadCount() const { return _idleThreadCount; }
    unsigned activeThreadCount() const { return _activeThreadCount; }
    unsigned allWorkerThreads() const { return _threadCount->load(); }
    TcpChannel* activeList() const { return _activeList; }

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    class IdleThreadTrimmer : public ::Timeout {
    public:
        explicit IdleThreadTrimmer(Base_TcpChannelLoop* l) : _loop(l) {}
        void when_expired(Interval* interval) override;
        Base_TcpChannelLoop* _loop;
    };

    TcpChannel* _activeList = nullptr;
    TcpChannelThread* _idleThreads = nullptr;
    unsigned _idleThreadCount = 0;
    unsigned _activeThreadCount = 0;
    unsigned _maxActiveThreadsInTimePeriod = 0;
    std::atomic<unsigned>* _threadCount;
    IdleThreadTrimmer _idleThreadTrimmer{this};
    bool _idleThreadTrimmerActive = false;
    Interval _idleThreadTrimInterval{IDLE_THREAD_TRIM_MS};

private:
    // Shuts down, joins and deletes idle threads until `keep` are left.
    void endIdleThreads(unsigned keep);
};

// A loop that takes connections from a TcpChannelLoop's acceptors; it runs
// on a thread of its own and shares the master's worker count.
class SubordinateTcpChannelLoop : public Base_TcpChannelLoop {
public:
    explicit SubordinateTcpChannelLoop(TcpChannelLoop* master);
    void run() { _do_run(); }
    TcpChannelLoop* _master;
};

class TcpChannelLoop : public Base_TcpChannelLoop {
public:
    TcpChannelLoop();
    ~TcpChannelLoop() override;

    // Before run(): starts listening on `pd` (from make_listener).
    void add(TcpChannelAcceptor* acc, PollableDescriptor pd);
    using EventLoop::add;
    // Before run(): new connections are spread over the subordinates.
    void addSubordinate(SubordinateTcpChannelLoop* sub);
    void run() { _do_run(); }
    // Ends the subordinates' loops, then this one.
    void terminate();
    // Ends every connection of this loop and its subordinates and waits
    // for every worker to come back; the loops go on running.
    void terminateConnections();

    std::vector<SubordinateTcpChannelLoop*> _subordinates;
    std::atomic<unsigned> _allThreads{0};
};

// ---------------------------------------------------------------- the acceptor

class TcpChannelAcceptor : public PolledFd {
public:
    enum disabled_reason_t : unsigned {
        DISABLE_FOR_OUT_OF_FDS = 1,
        DISABLE_FOR_ACTIVE_LIMIT = 2,
        DISABLE_FOR_INFLIGHT_LIMIT = 4,
    };
    static constexpr uint64_t OUT_OF_FDS_PAUSE_MS = 4000;
    static constexpr events_mask_t ACCEPT_EVENTS = 8219;

    TcpChannelAcceptor();
    // Closed, with no connections left.
    ~TcpChannelAcceptor() override;

    events_mask_t defaultEvents() const override;
    bool when_events(PollableDescriptor fd) override;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const override;

    // A channel for a new connection, or null to refuse it (the socket is
    // closed). Runs on the loop that will own the channel.
    virtual std::unique_ptr<TcpChannel> factory(PollableDescriptor fd,
                                                const IPv46SocketAddress& peer) = 0;
    virtual std::unique_ptr<TcpChannel> factory(Base_TcpChannelLoop* loop, PollableDescriptor fd,
                                                const IPv46SocketAddress& peer);
    // A channel whose descriptor the loop dropped: deleted by default.
    virtual void afterFdRemoved(TcpChannel* chan);
    // Whether to stop accepting with `count` connections active; `gone`
    // says a connection just ended.
    virtual bool limitActiveConnections(unsigned count, bool gone);
    // Whether to stop accepting with `inflight` connections on their way to
    // subordinates: above 3 per subordinate plus 2 by default.
    virtual bool limitInflightAccepts(unsigned inflight);
    virtual Base_TcpChannelLoop* pickDestinationLoop();

    // Loop thread: stops listening and closes the socket.
    void close();
    // After close(): the acceptor deletes itself once its last connection
    // has gone (at once when there is none).
    void deleteWhenConnectionsFinish();
    // Ends every connection of this acceptor, on every loop.
    void startTerminatingConnections();
    bool new_connection(PollableDescriptor fd, const IPv46SocketAddress& peer);
    bool _do_new_connection(Base_TcpChannelLoop* loop, PollableDescriptor fd,
                            const IPv46SocketAddress& peer);
    void restart_listener_if_enabled();
    void connection_gone();

    unsigned activeCount() const { return _activeCount; }
    unsigned disabledReasons() const { return _disabledReasons; }
    bool opened() const { return _opened.load(); }

    class TcpChannelAcceptorReenableAfterOutOfFds : public ::Timeout {
    public:
        explicit TcpChannelAcceptorReenableAfterOutOfFds(TcpChannelAcceptor* a) : _acceptor(a) {}
        void when_expired(Interval* interval) override;
        TcpChannelAcceptor* _acceptor;
    };

    TcpChannelLoop* _tcloop = nullptr;
    unsigned _disabledReasons = 0;
    PollableDescriptor _savedPd;
    std::atomic<bool> _opened{false};
    bool _deleteWhenConnectionsFinish = false;
    unsigned _activeCount = 0;
    unsigned _inflightSubordinateAccepts = 0;
    unsigned _roundRobin = 0;
    TcpChannelAcceptorReenableAfterOutOfFds _reenable{this};
    time_t _created;
    // Posted when the acceptor deletes itself: the owner's last word.
    InThreadActor* _finalDestructionActor = nullptr;

private:
    void _postAcceptResourceThrottling();
    void _acceptHadResourceError(int errnum);
    void deleteSelf();
};
