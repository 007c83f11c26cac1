#include "util/ThreadLocks.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>

#include "libzero/assertion.h"
#include "util/BasicConversions.h"
#include "util/Logger.h"
#include "util/PrintfFormat.h"
#include "util/Thread.h"

// ---------------------------------------------------------------- logging

namespace {

// A fixed buffer as a crash-log target: formatting without allocating.
struct BufferTarget : backtrace_writing_handler {
    char* buf;
    size_t cap;
    size_t used;
};

void buffer_write(backtrace_writing_handler* h, const char* data, size_t length) {
    BufferTarget* t = static_cast<BufferTarget*>(h);
    const size_t n = std::min(length, t->cap - t->used);
    memcpy(t->buf + t->used, data, n);
    t->used += n;
}

// The engine into `buf`, cut at `cap` bytes: the length.
size_t vformat_into(char* buf, size_t cap, int errnum, const char* format, va_list args) {
    BufferTarget target;
    target.do_write = buffer_write;
    target.buf = buf;
    target.cap = cap;
    target.used = 0;
    CrashLogWriteHandler h(&target);
    printf_render(h, errnum, format, args);
    return target.used;
}

size_t format_into(char* buf, size_t cap, int errnum, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const size_t n = vformat_into(buf, cap, errnum, format, args);
    va_end(args);
    return n;
}

}  // namespace

void thread_log(ThreadLogLevel level, const char* format, ...) {
    const int saved = errno;
    char buf[1024];
    va_list args;
    va_start(args, format);
    const size_t n = vformat_into(buf, sizeof buf, saved, format, args);
    va_end(args);
    thread_log_to_logger(level, buf, n);
    errno = saved;
}

// ---------------------------------------------------------------- failures

thread_death_reason_t thread_death_reason;

ThreadException::ThreadException(const Str& text) : BaseException(text.c_str()) {
    thread_log(THREAD_LOG_WARN, "%s", what());
}

ThreadException::ThreadException(const char* function, int errnum) {
    char text[512];
    const size_t n = format_into(text, sizeof text, errnum,
                                 "%s: about to throw a ThreadException: %s: %m; %u threads active",
                                 Thread::currentName(), function, Thread::approximateThreadCount());
    _set_str(text, n);
    thread_log(THREAD_LOG_WARN, "%s", what());
}

void fatal_thread_error(const char* function, int errnum) noexcept {
    if (MainThread::isDying()) return;
    const char* name = Thread::currentName();
    const unsigned count = Thread::approximateThreadCount();
    thread_death_reason.errnum = errnum;
    thread_death_reason.thread_count = count;
    const size_t nameLength = std::min(strlen(name), sizeof thread_death_reason.thread_name - 1);
    memcpy(thread_death_reason.thread_name, name, nameLength);
    thread_death_reason.thread_name[nameLength] = '\0';
    thread_death_reason.function = function;  // last: the crash report keys on it

    char line[512];
    size_t n =
        format_into(line, sizeof line - 1, errnum,
                    "Fatal thread error: %s: %m; %u threads active, in %s", function, count, name);
    struct iovec v[2] = {{line, n}, {const_cast<char*>("\n"), 1}};
    ssize_t ignored = writev(2, v, 2);
    (void)ignored;
    // Standard error has the line already; a configured logger gets it too.
    if (Logger::isInitialized()) thread_log_to_logger(THREAD_LOG_FATAL, line, n);
    abort();
}

// ---------------------------------------------------------------- clock

typedef int (*setclock_func)(pthread_condattr_t*, clockid_t);
static setclock_func wrap_pthread_condattr_setclock_ptr = nullptr;

static int find_setclock(struct dl_phdr_info* info, size_t, void* out) {
    // The call used to live in libpthread; since glibc 2.34 that library is
    // merged into libc and is no longer loaded, so libc is accepted too.
    // Without that every timed wait would silently run on the wall clock.
    const char* name = info->dlpi_name;
    if (name == nullptr ||
        (strstr(name, "/libpthread.so") == nullptr && strstr(name, "/libc.so") == nullptr)) {
        return 0;
    }
    void* handle = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) return 0;
    void* sym = dlsym(handle, "pthread_condattr_setclock");
    dlclose(handle);
    if (sym == nullptr) return 0;
    *static_cast<setclock_func*>(out) = reinterpret_cast<setclock_func>(sym);
    return 1;
}

static MonotonicClockUse decide_clock() {
    if (EnvironmentVariable("TARVEX_USE_MONOTONIC_CLOCK").parseBool() ==
        EnvironmentVariable::BOOL_FALSE) {
        return MONOTONIC_CLOCK_DISABLED;
    }
    struct timespec ts = {0x7fffffffffffffff, 999999999};
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0 || ts.tv_sec == 0x7fffffffffffffff) {
        return MONOTONIC_CLOCK_UNAVAILABLE;
    }
    if (ts.tv_sec == 0 && ts.tv_nsec == 0) {
        usleep(16000);
        if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0 || (ts.tv_sec == 0 && ts.tv_nsec == 0)) {
            return MONOTONIC_CLOCK_UNAVAILABLE;
        }
    }
    setclock_func setclock = nullptr;
    dl_iterate_phdr(find_setclock, &setclock);
    if (setclock == nullptr) return MONOTONIC_CLOCK_UNAVAILABLE;

    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) return MONOTONIC_CLOCK_UNAVAILABLE;
    bool ok = setclock(&attr, CLOCK_MONOTONIC) == 0;
    pthread_cond_t probe;
    if (ok && pthread_cond_init(&probe, &attr) == 0) {
        pthread_cond_destroy(&probe);
    } else {
        ok = false;
    }
    pthread_condattr_destroy(&attr);
    if (!ok) return MONOTONIC_CLOCK_UNAVAILABLE;
    wrap_pthread_condattr_setclock_ptr = setclock;
    return MONOTONIC_CLOCK_IN_USE;
}

MonotonicClockUse monotonic_clock_decision() {
    static const MonotonicClockUse decision = decide_clock();
    return decision;
}

void monotonic_clock_now(struct timespec* ts) {
    if (monotonic_clock_decision() == MONOTONIC_CLOCK_IN_USE) {
        if (clock_gettime(CLOCK_MONOTONIC, ts) != 0) {
            fatal_thread_error("clock_gettime(CLOCK_MONOTONIC)", errno);
        }
    } else if (timespec_get(ts, TIME_UTC) != TIME_UTC) {
        fatal_thread_error("timespec_get", errno);
    }
}

// ---------------------------------------------------------------- mutexes

PthreadMutexImpl::PthreadMutexImpl() {
    const int e = pthread_mutex_init(&_m, nullptr);
    if (e != 0) throw ThreadException("pthread_mutex_init", e);
}

PthreadMutexImpl::~PthreadMutexImpl() {
    const int e = pthread_mutex_destroy(&_m);
    if (e != 0) fatal_thread_error("pthread_mutex_destroy", e);
}

bool PthreadMutexImpl::tryLock() {
    const int e = pthread_mutex_trylock(&_m);
    if (e == 0) return true;
    if (e != EBUSY && e != EDEADLK) fatal_thread_error("pthread_mutex_trylock", e);
    return false;
}

void crashlog_write(CrashLogWriteHandler& h, const PthreadMutexImpl& m) {
    h.write("PthreadMutexImpl:{");
    // Hexadecimal rather than the raw bytes: the report stays text.
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&m);
    for (size_t i = 0; i < sizeof(pthread_mutex_t); ++i) h.format("%02x", bytes[i]);
    h.write("}");
}

// ---------------------------------------------------------------- conditions

void ConditionWaitTimeout::sleep() const {
    if (nanoseconds == 0) {
        ::sleep(static_cast<unsigned>(seconds));
    } else {
        // 32-bit arithmetic on purpose; see the declaration.
        const uint32_t us = uint32_t(seconds) * 1000000u + uint32_t(nanoseconds / 1000);
        usleep(us);
    }
}

// The fraction's format and value: as short as is exact, none when zero.
static const char* fraction_format(const ConditionWaitTimeout& t, unsigned* value) {
    *value = unsigned(t.nanoseconds);
    if (t.nanoseconds <= 0) return nullptr;
    if (t.nanoseconds % 1000000 == 0) {
        *value /= 1000000;
        return ".%03u";
    }
    if (t.nanoseconds % 1000 == 0) {
        *value /= 1000;
        return ".%06u";
    }
    return ".%09u";
}

void append_stringified(Str* out, const ConditionWaitTimeout& t) {
    out->appendFormat("%lld", static_cast<long long>(t.seconds));
    unsigned v;
    if (const char* f = fraction_format(t, &v)) out->appendFormat(f, v);
}

void crashlog_write(CrashLogWriteHandler& h, const ConditionWaitTimeout& t) {
    h.format("%lld", static_cast<long long>(t.seconds));
    unsigned v;
    if (const char* f = fraction_format(t, &v)) h.format(f, v);
}

PthreadConditionImpl::PthreadConditionImpl() {
    if (monotonic_clock_decision() != MONOTONIC_CLOCK_IN_USE) {
        const int e = pthread_cond_init(&_c, nullptr);
        if (e != 0) throw ThreadException("pthread_cond_init", e);
        return;
    }
    pthread_condattr_t attr;
    int e = pthread_condattr_init(&attr);
    if (e != 0) throw ThreadException("pthread_condattr_init", e);
    e = wrap_pthread_condattr_setclock_ptr(&attr, CLOCK_MONOTONIC);
    if (e != 0) fatal_thread_error("wrap_pthread_condattr_setclock", e);
    e = pthread_cond_init(&_c, &attr);
    pthread_condattr_destroy(&attr);
    if (e != 0) throw ThreadException("pthread_cond_init", e);
}

PthreadConditionImpl::~PthreadConditionImpl() {
    const int e = pthread_cond_destroy(&_c);
    if (e != 0) fatal_thread_error("pthread_cond_destroy", e);
}

void PthreadConditionImpl::wait(ConditionMutex& m) {
    const int e = pthread_cond_wait(&_c, m.native());
    if (e != 0) fatal_thread_error("pthread_cond_wait", e);
}

bool PthreadConditionImpl::wait(ConditionMutex& m, const ConditionWaitTimeout& timeout) {
    struct timespec until;
    monotonic_clock_now(&until);
    until.tv_sec += timeout.seconds;
    until.tv_nsec += timeout.nanoseconds;
    if (until.tv_nsec > 999999999) {
        until.tv_sec += 1;
        until.tv_nsec -= 1000000000;
    }
    const int e = pthread_cond_timedwait(&_c, m.native(), &until);
    if (e == 0) return true;
    if (e != ETIMEDOUT) fatal_thread_error("pthread_cond_timedwait", e);
    return false;
}

// ---------------------------------------------------------------- read-write

ReadWriteLock::ReadWriteLock() {
    const int e = pthread_rwlock_init(&_l, nullptr);
    if (e != 0) throw ThreadException("pthread_rwlock_init", e);
}

ReadWriteLock::~ReadWriteLock() {
    const int e = pthread_rwlock_destroy(&_l);
    if (e != 0) fatal_thread_error("pthread_rwlock_destroy", e);
}

void ReadWriteLock::readLock() {
    const int e = pthread_rwlock_rdlock(&_l);
    if (e != 0) fatal_thread_error("pthread_rwlock_rdlock", e);
}

void ReadWriteLock::writeLock() {
    const int e = pthread_rwlock_wrlock(&_l);
    if (e != 0) fatal_thread_error("pthread_rwlock_wrlock", e);
}

void ReadWriteLock::unlock() {
    const int e = pthread_rwlock_unlock(&_l);
    if (e != 0) fatal_thread_error("pthread_rwlock_unlock", e);
}

void ScopedReader::setup(ReadWriteLock* l) {
    // clang-format off
    ASSERT(_rwlock == nullptr);
    // clang-format on
    l->readLock();
    _rwlock = l;
}

ScopedWriter::ScopedWriter(ReadWriteLock* l) : _rwlock(l) {
    // clang-format off
    ASSERT(_rwlock != nullptr);
    // clang-format on
    _rwlock->writeLock();
}

uint32_t SequenceLock::waitForWriter() const {
    for (;;) {
        const uint32_t v = _seq.load(std::memory_order_acquire);
        if ((v & 1) == 0) return v;
        Thread::yieldCpu();
    }
}

static int single_threaded_recursion_flag = 0;

ScopedSingleThreadedRecursionCheck::ScopedSingleThreadedRecursionCheck() {
    _active = !have_already_started_threads.load(std::memory_order_acquire);
    _saved = _active ? single_threaded_recursion_flag : 0;
    if (_active) single_threaded_recursion_flag = 1;
}

ScopedSingleThreadedRecursionCheck::~ScopedSingleThreadedRecursionCheck() {
    if (_active) single_threaded_recursion_flag = _saved;
}

// ---------------------------------------------------------------- MutexByte

void MutexByte::waiting_list::construct() {
    new (_mutex) ConditionMutex();
    head = nullptr;
    tailp = &head;
}

void MutexByte::waiting_list::destruct() {
    // clang-format off
    ASSERT(head == nullptr && tailp == &head);
    // clang-format on
    mutex().~ConditionMutex();
}

MutexByte::per_thread_state::~per_thread_state() {
    // clang-format off
    ASSERT(_u.s.waitingOn == nullptr);
    // clang-format on
}

uint8_t MutexByte::shortSpin() {
    unsigned counter = 0;
    for (;;) {
        uint8_t cur_state = _state.load(std::memory_order_relaxed);
        if (cur_state == STATE_LOCKED) {
            if (++counter > 39) return STATE_LOCKED;
            cpu_relax();
            continue;
        }
        if (cur_state == 0) {
            if (_state.compare_exchange_strong(cur_state, STATE_LOCKED, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
                return 0;
            }
            continue;
        }
        // clang-format off
        ASSERT(cur_state == (STATE_LOCKED | STATE_HAS_SLEEPERS));
        // clang-format on
        return cur_state;
    }
}

bool MutexByte::attemptSleep(waiting_list* chain, uint8_t expected) {
    // clang-format off
    ASSERT(main_thread_created);
    Thread* thr = Thread::current();
    ASSERT(thr != nullptr);
    per_thread_state& pts = thr->_scratchp.load(std::memory_order_relaxed)->mutexByteState;
    ASSERT(pts._u.s.waitingOn == nullptr);
    // clang-format on
    pts._u.s.waitingOn = this;
    pts._u.s.nextOnChain = nullptr;

    ConditionMutex& m = chain->mutex();
    m.lock();
    per_thread_state** old_tail = chain->tailp;
    // clang-format off
    ASSERT(*old_tail == nullptr);
    // clang-format on
    *old_tail = &pts;
    chain->tailp = &pts._u.s.nextOnChain;

    if (!_state.compare_exchange_strong(expected, STATE_LOCKED | STATE_HAS_SLEEPERS,
                                        std::memory_order_acq_rel, std::memory_order_relaxed)) {
        // The byte moved since the spin looked: withdraw and try again.
        *old_tail = nullptr;
        chain->tailp = old_tail;
        m.unlock();
        pts._u.s.waitingOn = nullptr;
        return false;
    }
    // Only the thread handing over the lock clears waitingOn: any other
    // wake-up is spurious, or the call to come forward below.
    bool spin = firstWaiterFor(chain, this) == &pts && fewWaiters(chain, this);
    for (;;) {
        if (spin) {
            // First in line: the hand-off is near. Waiting awake turns it into
            // a store seen within nanoseconds instead of a wake-up that needs
            // the scheduler, while the lock sits owned by a thread not running.
            m.unlock();
            if (awaitHandOff(pts)) return true;
            m.lock();
        }
        if (pts._u.s.waitingOn == nullptr) break;
        pts.cond.wait(m);
        if (pts._u.s.waitingOn == nullptr) break;
        spin = true;  // woken ahead of our turn
    }
    m.unlock();
    return true;
}

// How long the first waiter stays awake for its hand-off: about as long as
// a wake-up through the scheduler takes, so that waiting awake never costs
// much more than sleeping would have.
constexpr unsigned HAND_OFF_SPIN = 2000;

bool MutexByte::awaitHandOff(per_thread_state& pts) {
    for (unsigned i = 0; i < HAND_OFF_SPIN; ++i) {
        if (__atomic_load_n(&pts._u.s.waitingOn, __ATOMIC_ACQUIRE) == nullptr) return true;
        cpu_relax();
    }
    return false;
}

// Waiting awake pays only while every waiter can have a core beside the
// holder's; with more, the spinners would take the cores the holder and the
// next in line need, and sleeping is cheaper.
bool MutexByte::fewWaiters(waiting_list* chain, const MutexByte* b) {
    static const long cores = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
    long n = 0;
    for (per_thread_state* e = chain->head; e != nullptr; e = e->_u.s.nextOnChain) {
        if (e->_u.s.waitingOn == b && ++n >= cores) return false;
    }
    return true;
}

MutexByte::per_thread_state* MutexByte::firstWaiterFor(waiting_list* chain, const MutexByte* b) {
    per_thread_state* e = chain->head;
    while (e != nullptr && e->_u.s.waitingOn != b) e = e->_u.s.nextOnChain;
    return e;
}

// A thread that finds the lock held gives its core away a bounded number of
// times before it queues. Once anyone sleeps, every release is a hand-off to
// a thread that is not running, and with more threads than cores each of
// those waits for the scheduler: a convoy that short critical sections never
// drain. Yielding keeps the contenders runnable and off the chain, so sleepers
// stay rare and the queue, when one forms, drains; those who do sleep are
// still served strictly in order.
constexpr unsigned QUEUE_AFTER_YIELDS = 64;

void MutexByte::_lock_slowpath(waiting_list* chain) {
    // clang-format off
    ASSERT(have_already_started_threads);
    // clang-format on
    if (shortSpin() == 0) return;
    for (unsigned i = 0; i < QUEUE_AFTER_YIELDS; ++i) {
        Thread::yieldCpu();
        uint8_t cur = _state.load(std::memory_order_relaxed);
        if (cur == 0 && _state.compare_exchange_strong(cur, STATE_LOCKED, std::memory_order_acquire,
                                                       std::memory_order_relaxed)) {
            return;
        }
    }
    for (;;) {
        const uint8_t state = shortSpin();
        if (state == 0) return;
        if (attemptSleep(chain, state)) return;
    }
}

void MutexByte::_assertIsLockedAndHasSleepersFailed() {
    fatal_thread_error("MutexByte::assertIsLockedAndHasSleepersFailed()", 0);
}

// The first waiter for this byte, unlinked; *linkOut is the link that held it.
MutexByte::per_thread_state* MutexByte::takeFirstWaiter(waiting_list* chain,
                                                        per_thread_state*** linkOut) const {
    per_thread_state** link = &chain->head;
    per_thread_state* e = chain->head;
    while (e != nullptr && e->_u.s.waitingOn != this) {
        link = &e->_u.s.nextOnChain;
        e = e->_u.s.nextOnChain;
    }
    // clang-format off
    ASSERT(e != nullptr);
    // clang-format on
    *linkOut = link;
    return e;
}

size_t MutexByte::waiterCount(waiting_list* chain) const {
    ScopedLock lock(chain->mutex());
    size_t n = 0;
    for (per_thread_state* e = chain->head; e != nullptr; e = e->_u.s.nextOnChain) {
        n += e->_u.s.waitingOn == this;
    }
    return n;
}

void MutexByte::unlockWithSleepers(waiting_list* chain) {
    if (_state.load(std::memory_order_relaxed) != (STATE_LOCKED | STATE_HAS_SLEEPERS)) {
        _assertIsLockedAndHasSleepersFailed();
        return;  // dying: nobody to hand to
    }
    ConditionMutex& m = chain->mutex();
    m.lock();
    per_thread_state** link;
    per_thread_state* e = takeFirstWaiter(chain, &link);
    *link = e->_u.s.nextOnChain;
    bool another = false;
    if (e->_u.s.nextOnChain == nullptr) {
        // clang-format off
        ASSERT(chain->tailp == &e->_u.s.nextOnChain);
        // clang-format on
        chain->tailp = link;
    } else {
        // clang-format off
        ASSERT(chain->tailp != &e->_u.s.nextOnChain);
        // clang-format on
        for (per_thread_state* o = e->_u.s.nextOnChain; o != nullptr; o = o->_u.s.nextOnChain) {
            if (o->_u.s.waitingOn == this) {
                another = true;
                break;
            }
        }
    }
    // The lock passes straight to `e`; it stays held throughout.
    if (!another) _state.store(STATE_LOCKED, std::memory_order_relaxed);
    per_thread_state* const next =
        another && fewWaiters(chain, this) ? firstWaiterFor(chain, this) : nullptr;
    e->_u.s.nextOnChain = nullptr;
    // The next in line comes forward now and waits awake, so that its own
    // turn does not wait for the scheduler.
    if (next != nullptr) next->cond.wake_one();
    e->cond.wake_one();
    // Last: a waiter spinning outside the chain's mutex may return, finish
    // and end its thread (and its condition with it) as soon as it sees this.
    __atomic_store_n(&e->_u.s.waitingOn, nullptr, __ATOMIC_RELEASE);
    m.unlock();
}

void MutexByte::bounceContended(waiting_list* chain) const {
    if (_state.load(std::memory_order_relaxed) != (STATE_LOCKED | STATE_HAS_SLEEPERS)) {
        _assertIsLockedAndHasSleepersFailed();
        return;
    }
    // clang-format off
    ASSERT(main_thread_created);
    Thread* thr = Thread::current();
    ASSERT(thr != nullptr);
    per_thread_state& pts = thr->_scratchp.load(std::memory_order_relaxed)->mutexByteState;
    ASSERT(pts._u.s.waitingOn == nullptr);
    // clang-format on
    pts._u.s.waitingOn = const_cast<MutexByte*>(this);
    pts._u.s.nextOnChain = nullptr;

    ConditionMutex& m = chain->mutex();
    m.lock();
    per_thread_state** link;
    per_thread_state* e = takeFirstWaiter(chain, &link);
    if (e->_u.s.nextOnChain == nullptr) {
        *link = &pts;  // in e's place, which was last
    } else {
        *link = e->_u.s.nextOnChain;
        *chain->tailp = &pts;
    }
    chain->tailp = &pts._u.s.nextOnChain;
    e->_u.s.nextOnChain = nullptr;
    e->_u.s.waitingOn = nullptr;
    e->cond.wake_one();
    while (pts._u.s.waitingOn != nullptr) pts.cond.wait(m);
    m.unlock();
}

void QueueingMutex::_lock_slowpath() {
    _byte._lock_slowpath(&_list);
    // clang-format off
    ASSERT((_byte.get(std::memory_order_relaxed) & ~MutexByte::STATE_HAS_SLEEPERS) == MutexByte::STATE_LOCKED);
    // clang-format on
}

void crashlog_write(CrashLogWriteHandler& h, const MutexByte& b) {
    const uint8_t v = b.get(std::memory_order_relaxed);
    switch (v) {
        case 0:
            h.write("unlocked");
            break;
        case MutexByte::STATE_LOCKED:
            h.write("LOCKED");
            break;
        case MutexByte::STATE_LOCKED | MutexByte::STATE_HAS_SLEEPERS:
            h.write("LOCKED+CONTENDED");
            break;
        default:
            h.format("BAD(0x%02X)!", unsigned(v));
    }
}

void crashlog_write(CrashLogWriteHandler& h, const MutexByte::waiting_list& chain) {
    h.write("MutexByte-chain={");
    const bool headEmpty = chain.head == nullptr;
    const bool tailAtHead = chain.tailp == &chain.head;
    if (headEmpty && tailAtHead) {
        h.write("empty");
    } else {
        h.format("head=%p, tailp=%p", static_cast<void*>(chain.head),
                 static_cast<void*>(chain.tailp));
        if (headEmpty || tailAtHead) h.write(", CORRUPT");
    }
    h.write("}");
}

void crashlog_write(CrashLogWriteHandler& h, const MutexByte::per_thread_state& pts) {
    h.write("MutexByte-waiting={");
    if (pts._u.s.waitingOn == nullptr) {
        h.write("none");
    } else {
        h.format("%p", static_cast<void*>(pts._u.s.waitingOn));
        if (pts._u.s.nextOnChain != nullptr) {
            h.format(", next=%p", static_cast<void*>(pts._u.s.nextOnChain));
        }
        h.write(", ");
        crashlog_write(h, *pts._u.s.waitingOn);
    }
    h.write("}");
}

void crashlog_write(CrashLogWriteHandler& h, const QueueingMutex& m) {
    h.write("qmutex{");
    crashlog_write(h, m.byte());
    h.write(", ");
    crashlog_write(h, m.chain());
    h.write("}");
}
