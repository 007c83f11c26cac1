#pragma once
// The lock family. Thin wrappers over the pthread mutex, condition and
// read-write lock whose one decision is that a failing call kills the
// process; the one-byte MutexByte and the QueueingMutex built on it; and the
// process-wide choice of the clock that timed waits use. Locks are never
// recursive and never report failure: a lock operation works or the process
// dies ("Fatal thread error: ..."). Once the MainThread is gone every such
// failure passes silently, so that exit can't be turned into a crash.

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "util/CrashLog.h"
#include "util/Str.h"

// ---------------------------------------------------------------- failures

// Raised only by the construction of locks and threads. Logs itself at warn
// level when made.
class ThreadException : public BaseException {
public:
    // "<thread name>: about to throw a ThreadException: <text>"
    explicit ThreadException(const Str& text);
    // The text is "<function>: %m; %u threads active" with errno as given.
    ThreadException(const char* function, int errnum);
};

// What killed the process, for the crash report; set by the first fatal
// thread error.
struct thread_death_reason_t {
    const char* function;
    int errnum;
    unsigned thread_count;
    char thread_name[64];
};
extern thread_death_reason_t thread_death_reason;

// "Fatal thread error: <function>: %m; <n> threads active, in <thread>" to
// standard error and the log, then abort(). Returns (doing nothing) once the
// process is dying. Never allocates.
void fatal_thread_error(const char* function, int errnum) noexcept;

// The thread layer's own log lines go to the "Thread" channel; before the
// logger is configured, to standard error in the logger's "LEVEL - text" form.
enum ThreadLogLevel { THREAD_LOG_DEBUG, THREAD_LOG_INFO, THREAD_LOG_WARN, THREAD_LOG_FATAL };
// Defined with the logger.
void thread_log_to_logger(ThreadLogLevel level, const char* text, size_t length);
// %m is errno as it stands at the call; errno is left unchanged.
void thread_log(ThreadLogLevel level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// ---------------------------------------------------------------- clock

// Which clock the timed waits and MonotonicTime use, decided once.
enum MonotonicClockUse {
    MONOTONIC_CLOCK_IN_USE = 1,
    MONOTONIC_CLOCK_DISABLED = 2,  // TARVEX_USE_MONOTONIC_CLOCK said no
    MONOTONIC_CLOCK_UNAVAILABLE = 3,
};
MonotonicClockUse monotonic_clock_decision();
// Now on the chosen clock: CLOCK_MONOTONIC, or the wall clock by
// timespec_get. A failing read is fatal.
void monotonic_clock_now(struct timespec* ts);

// ---------------------------------------------------------------- mutexes

// Memory fences. ThreadSanitizer does not model fences (and g++ warns about
// each one it sees), so its builds leave them out; what they order is still
// visible to it through the atomics and locks around them.
#if defined(__SANITIZE_THREAD__)
inline void thread_fence(std::memory_order) {}
#else
inline void thread_fence(std::memory_order order) { std::atomic_thread_fence(order); }
#endif

// The processor's spin-wait hint, where it has one.
inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield" ::: "memory");
#else
    asm volatile("" ::: "memory");
#endif
}

class PthreadMutexImpl {
public:
    PthreadMutexImpl();
    ~PthreadMutexImpl();
    PthreadMutexImpl(const PthreadMutexImpl&) = delete;
    PthreadMutexImpl& operator=(const PthreadMutexImpl&) = delete;

    // For process-wide locks that must work before any constructor runs.
    struct StaticInit {};
    constexpr explicit PthreadMutexImpl(StaticInit) : _m(PTHREAD_MUTEX_INITIALIZER) {}

    void lock() {
        const int e = pthread_mutex_lock(&_m);
        if (__builtin_expect(e != 0, 0)) fatal_thread_error("pthread_mutex_lock", e);
    }
    void unlock() {
        const int e = pthread_mutex_unlock(&_m);
        if (__builtin_expect(e != 0, 0)) fatal_thread_error("pthread_mutex_unlock", e);
    }
    // True when taken; busy (or held by the caller) is false; other failures are fatal.
    bool tryLock();
    // For the fatal path itself: never dies and logs nothing.
    bool NOLOG_lock() { return pthread_mutex_lock(&_m) == 0; }
    void NOLOG_unlock() { pthread_mutex_unlock(&_m); }

    pthread_mutex_t* native() { return &_m; }

private:
    pthread_mutex_t _m;
};
static_assert(sizeof(pthread_mutex_t) == 40, "the crash log prints the mutex as 40 bytes");

// One implementation under three names, so that a signature says how a lock
// is used: plain, handed to a condition's wait, or hot.
class Mutex : public PthreadMutexImpl {
public:
    using PthreadMutexImpl::PthreadMutexImpl;
};
class ConditionMutex : public PthreadMutexImpl {
public:
    using PthreadMutexImpl::PthreadMutexImpl;
};
class HighContentionMutex : public PthreadMutexImpl {
public:
    using PthreadMutexImpl::PthreadMutexImpl;
};

// "PthreadMutexImpl:{" and the object's 40 bytes in hexadecimal, "}".
void crashlog_write(CrashLogWriteHandler& h, const PthreadMutexImpl& m);

// A lock taken by NOLOG_lock(), for the logging system, which must not log
// about its own locks. A lock that can't be taken is not held and not released.
class ScopedNologLock {
public:
    explicit ScopedNologLock(PthreadMutexImpl& m) : _m(m), _held(m.NOLOG_lock()) {}
    ~ScopedNologLock() {
        if (_held) _m.NOLOG_unlock();
    }
    ScopedNologLock(const ScopedNologLock&) = delete;
    ScopedNologLock& operator=(const ScopedNologLock&) = delete;

private:
    PthreadMutexImpl& _m;
    bool _held;
};

template <class M>
class ScopedLock {
public:
    explicit ScopedLock(M& m) : _m(m) { _m.lock(); }
    ~ScopedLock() { _m.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    M& _m;
};

// The reverse of a lock guard: unlocked for the scope, locked again after.
template <class M>
class ScopedUnlocker {
public:
    explicit ScopedUnlocker(M& m) : _m(m) { _m.unlock(); }
    ~ScopedUnlocker() { _m.lock(); }
    ScopedUnlocker(const ScopedUnlocker&) = delete;
    ScopedUnlocker& operator=(const ScopedUnlocker&) = delete;

private:
    M& _m;
};
using ScopedMutexUnlocker = ScopedUnlocker<Mutex>;
using ScopedConditionMutexUnlocker = ScopedUnlocker<ConditionMutex>;
using ScopedHighContentionMutexUnlocker = ScopedUnlocker<HighContentionMutex>;

// ---------------------------------------------------------------- conditions

// A relative time-out.
struct ConditionWaitTimeout {
    int64_t seconds;
    int64_t nanoseconds;

    // Blocks the caller, holding no lock. The microsecond count is computed
    // in 32 bits, as it always was: over about 4294 s with a nonzero
    // nanosecond part it wraps.
    void sleep() const;
};
// Seconds, then ".mmm", ".uuuuuu" or ".nnnnnnnnn", as short as is exact.
void append_stringified(Str* out, const ConditionWaitTimeout& t);
void crashlog_write(CrashLogWriteHandler& h, const ConditionWaitTimeout& t);

class PthreadConditionImpl {
public:
    // On the monotonic clock when the process uses it.
    PthreadConditionImpl();
    ~PthreadConditionImpl();
    PthreadConditionImpl(const PthreadConditionImpl&) = delete;
    PthreadConditionImpl& operator=(const PthreadConditionImpl&) = delete;

    void wake_one() {
        const int e = pthread_cond_signal(&_c);
        if (__builtin_expect(e != 0, 0)) fatal_thread_error("pthread_cond_signal", e);
    }
    void wake_all() {
        const int e = pthread_cond_broadcast(&_c);
        if (__builtin_expect(e != 0, 0)) fatal_thread_error("pthread_cond_broadcast", e);
    }
    void wait(ConditionMutex& m);
    // True when woken, false when the time ran out.
    bool wait(ConditionMutex& m, const ConditionWaitTimeout& timeout);

private:
    pthread_cond_t _c;
};
// Named for a condition that a single thread waits on.
class ConditionWakeOne : public PthreadConditionImpl {};

// ---------------------------------------------------------------- read-write

class ReadWriteLock {
public:
    ReadWriteLock();
    ~ReadWriteLock();
    ReadWriteLock(const ReadWriteLock&) = delete;
    ReadWriteLock& operator=(const ReadWriteLock&) = delete;

    void readLock();
    void writeLock();
    void unlock();

private:
    pthread_rwlock_t _l;
};

// Declared first and armed by setup() later, or never.
class ScopedReader {
public:
    ScopedReader() = default;
    explicit ScopedReader(ReadWriteLock* l) { setup(l); }
    ~ScopedReader() {
        if (_rwlock != nullptr) _rwlock->unlock();
    }
    void setup(ReadWriteLock* l);
    ScopedReader(const ScopedReader&) = delete;
    ScopedReader& operator=(const ScopedReader&) = delete;

private:
    ReadWriteLock* _rwlock = nullptr;
};

class ScopedWriter {
public:
    explicit ScopedWriter(ReadWriteLock* l);
    ~ScopedWriter() { _rwlock->unlock(); }
    ScopedWriter(const ScopedWriter&) = delete;
    ScopedWriter& operator=(const ScopedWriter&) = delete;

private:
    ReadWriteLock* _rwlock;
};

// ---------------------------------------------------------------- sequence lock

// A 32-bit sequence word, odd while a writer is inside. Readers take
// waitForWriter(), read, and retry while changedSince() says so.
class SequenceLock {
public:
    uint32_t waitForWriter() const;
    bool changedSince(uint32_t seen) const {
        thread_fence(std::memory_order_acquire);
        return _seq.load(std::memory_order_relaxed) != seen;
    }
    // The writer's side; writers exclude each other by other means.
    void writeBegin() {
        _seq.store(_seq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        thread_fence(std::memory_order_release);
    }
    void writeEnd() { _seq.fetch_add(1, std::memory_order_release); }

private:
    std::atomic<uint32_t> _seq{0};
};

// A re-entry check for code that is single-threaded while the process is.
// recursing() says whether an enclosing scope is inside already; once
// threads run it is always false and the guard does nothing.
class ScopedSingleThreadedRecursionCheck {
public:
    ScopedSingleThreadedRecursionCheck();
    ~ScopedSingleThreadedRecursionCheck();
    bool recursing() const { return _saved == 1; }
    ScopedSingleThreadedRecursionCheck(const ScopedSingleThreadedRecursionCheck&) = delete;
    ScopedSingleThreadedRecursionCheck& operator=(const ScopedSingleThreadedRecursionCheck&) =
        delete;

private:
    int _saved;  // 0 or 1: the flag as it was; 0 too once threads run
    bool _active;
};

// ---------------------------------------------------------------- MutexByte

// A mutex in one byte. Everything a sleeper needs lives outside the byte: in
// a waiting_list (the "chain") that any number of bytes may share, and in the
// per_thread_state each Thread owns. Waiters for one byte are served first
// in, first out, and an unlock with sleepers hands the lock straight over:
// the byte never passes through 0. Only Threads may contend a MutexByte.
class MutexByte {
public:
    static constexpr uint8_t STATE_LOCKED = 1;
    static constexpr uint8_t STATE_HAS_SLEEPERS = 2;

    struct per_thread_state;

    struct waiting_list {
        per_thread_state* head;
        per_thread_state** tailp;

        // Explicit, so that chains can live in static tables.
        void construct();
        void destruct();
        ConditionMutex& mutex() { return *reinterpret_cast<ConditionMutex*>(_mutex); }

    private:
        alignas(ConditionMutex) unsigned char _mutex[sizeof(ConditionMutex)];
    };

    struct per_thread_state {
        PthreadConditionImpl cond;  // only this thread sleeps on it
        union {
            struct {
                MutexByte* waitingOn;
                per_thread_state* nextOnChain;
            } s;
        } _u{{nullptr, nullptr}};

        per_thread_state() = default;
        ~per_thread_state();
    };

    constexpr MutexByte() = default;

    bool tryLock() {
        uint8_t expected = 0;
        return _state.compare_exchange_strong(expected, STATE_LOCKED, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    void lock(waiting_list* chain) {
        if (!tryLock()) _lock_slowpath(chain);
    }
    void unlock(waiting_list* chain) {
        uint8_t expected = STATE_LOCKED;
        if (!_state.compare_exchange_strong(expected, 0, std::memory_order_release,
                                            std::memory_order_relaxed)) {
            unlockWithSleepers(chain);
        }
    }
    uint8_t get(std::memory_order order) const { return _state.load(order); }
    void init() { _state.store(0, std::memory_order_relaxed); }

    // 0 when it took the lock, else the state seen (1 after 40 readings of
    // LOCKED, or 3 at once).
    uint8_t shortSpin();
    // True when the thread slept and was handed the lock; false when the
    // byte moved away from `expected` first.
    bool attemptSleep(waiting_list* chain, uint8_t expected);
    void _lock_slowpath(waiting_list* chain);
    void unlockWithSleepers(waiting_list* chain);
    // The owner of a contended byte hands it to the longest waiter and
    // queues behind everybody, the byte staying 3 throughout.
    void bounceContended(waiting_list* chain) const;

    // How many threads sleep for this byte on `chain`, for diagnostics.
    size_t waiterCount(waiting_list* chain) const;

    // A fatal thread error; returns only once the process is dying.
    static void _assertIsLockedAndHasSleepersFailed();

private:
    per_thread_state* takeFirstWaiter(waiting_list* chain, per_thread_state*** linkOut) const;
    static per_thread_state* firstWaiterFor(waiting_list* chain, const MutexByte* b);
    static bool fewWaiters(waiting_list* chain, const MutexByte* b);
    static bool awaitHandOff(per_thread_state& pts);

    mutable std::atomic<uint8_t> _state{0};
};
static_assert(sizeof(MutexByte) == 1);

// "unlocked", "LOCKED", "LOCKED+CONTENDED" or "BAD(0x%02X)!"
void crashlog_write(CrashLogWriteHandler& h, const MutexByte& b);
void crashlog_write(CrashLogWriteHandler& h, const MutexByte::waiting_list& chain);
void crashlog_write(CrashLogWriteHandler& h, const MutexByte::per_thread_state& pts);

// A MutexByte with a chain of its own: FIFO once there are sleepers, and an
// uncontended lock or unlock is one atomic instruction.
class QueueingMutex {
public:
    QueueingMutex() {
        _byte.init();
        _list.construct();
    }
    ~QueueingMutex() { _list.destruct(); }
    QueueingMutex(const QueueingMutex&) = delete;
    QueueingMutex& operator=(const QueueingMutex&) = delete;

    void lock() {
        if (!_byte.tryLock()) _lock_slowpath();
    }
    bool tryLock() { return _byte.tryLock(); }
    void unlock() { _byte.unlock(&_list); }
    // Whether somebody sleeps for the lock: then _bounceContended() may run.
    bool hasSleepers() const {
        return (_byte.get(std::memory_order_relaxed) & MutexByte::STATE_HAS_SLEEPERS) != 0;
    }
    void _lock_slowpath();
    void _bounceContended() { _byte.bounceContended(&_list); }
    size_t waiterCount() { return _byte.waiterCount(&_list); }

    const MutexByte& byte() const { return _byte; }
    const MutexByte::waiting_list& chain() const { return _list; }

private:
    MutexByte::waiting_list _list;
    MutexByte _byte;
};

// "qmutex{", the byte, ", ", the chain, "}"
void crashlog_write(CrashLogWriteHandler& h, const QueueingMutex& m);
