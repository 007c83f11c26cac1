#include "util/Thread.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <new>

#include "libzero/assertion.h"
#include "util/StrHashSet.h"

// ---------------------------------------------------------------- process state

bool main_thread_created = false;
std::atomic<bool> have_already_started_threads{false};
ThreadHooks thread_hooks;

constinit ConditionMutex Thread::thr_state_lock{PthreadMutexImpl::StaticInit{}};

namespace {

Thread* GLOBAL_THREAD_LIST_ROOT = nullptr;
std::atomic<unsigned> non_main_thread_count{0};
pthread_t main_pthread;
pid_t main_tid;
pthread_t early_thread;
bool have_early_thread = false;
std::atomic<bool> process_dying{false};
thread_local Thread* activeThreads = nullptr;

pthread_attr_t shared_attr;
bool shared_attr_ready = false;

// The main thread's notations are the process's: they exist before any
// MainThread and outlive it.
crashlog_notation_list main_thread_notations = {nullptr, nullptr};

pid_t gettid_now() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The in-signal slot: idle, finished, disabled, or the actor being run.
Thread::InSignalContextActor* const SLOT_IDLE = nullptr;
Thread::InSignalContextActor* const SLOT_FINISHED =
    reinterpret_cast<Thread::InSignalContextActor*>(1);
Thread::InSignalContextActor* const SLOT_DISABLED =
    reinterpret_cast<Thread::InSignalContextActor*>(2);

std::atomic<Thread::InSignalContextActor*> IN_SIGNAL_RUNNING{SLOT_DISABLED};
constinit ConditionMutex in_signal_mutex{PthreadMutexImpl::StaticInit{}};
// Built by the MainThread, once the clock is decided; never destroyed, as a
// late signal may still look at them.
alignas(PthreadConditionImpl) unsigned char in_signal_conditions[3][sizeof(PthreadConditionImpl)];
PthreadConditionImpl& slot_free() {
    return *reinterpret_cast<PthreadConditionImpl*>(in_signal_conditions[0]);
}
PthreadConditionImpl& handler_started() {
    return *reinterpret_cast<PthreadConditionImpl*>(in_signal_conditions[1]);
}
PthreadConditionImpl& handler_finished() {
    return *reinterpret_cast<PthreadConditionImpl*>(in_signal_conditions[2]);
}
bool handler_running = false;
pid_t in_signal_pid = 0;

PerThreadStackScratch* perThreadScratch(PerThreadStackScratch* s) { return s; }

int compare_bytes(const void* a, const void* b) {
    return *static_cast<const char*>(a) - *static_cast<const char*>(b);
}

void sigusr1_handler(int, siginfo_t* info, void*) {
    // Only our own pthread_kill counts; another process's SIGUSR1 is ignored.
    if (info == nullptr || info->si_pid != in_signal_pid) return;
    const int saved = errno;
    // clang-format off
    ASSERT(IN_SIGNAL_RUNNING != nullptr);
    // clang-format on
    in_signal_mutex.lock();
    Thread::InSignalContextActor* actor = IN_SIGNAL_RUNNING.load();
    handler_running = true;
    handler_started().wake_all();
    in_signal_mutex.unlock();

    actor->inSignal();

    in_signal_mutex.lock();
    IN_SIGNAL_RUNNING.store(SLOT_FINISHED);
    handler_running = false;
    handler_finished().wake_all();
    in_signal_mutex.unlock();
    errno = saved;
}

void remove_blanks(Str& s) {
    s.erase(std::remove_if(s.begin(), s.end(), [](char c) { return c == ' ' || c == '\t'; }),
            s.end());
}

}  // namespace

// ---------------------------------------------------------------- tokens

void append_stringified(Str* out, ThreadToken t) {
    out->appendFormat("%#lx", static_cast<unsigned long>(t._t));
}

void crashlog_write(CrashLogWriteHandler& h, ThreadToken t) {
    h.format("%#lx", static_cast<unsigned long>(t._t));
}

void ThreadTokenSet::insert(ThreadToken t) {
    ScopedLock lock(_mutex);
    _tokens.push_back(t);
    if (_tokens.size() >= 2) _needs_resort = true;
}

void ThreadTokenSet::insert(const Thread* t) { insert(t->token()); }

void ThreadTokenSet::erase(ThreadToken t) {
    ScopedLock lock(_mutex);
    auto it = std::find(_tokens.begin(), _tokens.end(), t);
    if (it != _tokens.end()) _tokens.erase(it);
}

void ThreadTokenSet::erase(const Thread* t) { erase(t->token()); }

bool ThreadTokenSet::contains(ThreadToken t) {
    ScopedLock lock(_mutex);
    if (_needs_resort) _do_resort();
    return std::binary_search(_tokens.begin(), _tokens.end(), t);
}

bool ThreadTokenSet::contains(const Thread* t) { return contains(t->token()); }

void ThreadTokenSet::clear() {
    ScopedLock lock(_mutex);
    _tokens.clear();
    _needs_resort = false;
}

size_t ThreadTokenSet::size() {
    ScopedLock lock(_mutex);
    return _tokens.size();
}

void ThreadTokenSet::_do_resort() {
    std::sort(_tokens.begin(), _tokens.end());
    _needs_resort = false;
}

void ThreadTokenSet::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("{");
    for (size_t i = 0; i < _tokens.size(); ++i) {
        if (i > 0) h.write(",");
        crashlog_write(h, _tokens[i]);
    }
    h.write("}");
}

// ---------------------------------------------------------------- policies

void append_stringified(Str* out, Thread::SchedPolicy p) {
    switch (p) {
        case Thread::SCHED_POLICY_OTHER:
            out->append("other");
            return;
        case Thread::SCHED_POLICY_FIFO:
            out->append("fifo");
            return;
        case Thread::SCHED_POLICY_ROUND_ROBIN:
            out->append("round_robin");
            return;
    }
    out->append("none");
}

bool mem_parse_into(const char* data, size_t length, Thread::SchedPolicy* p) {
    const StrSegment s(data, length);
    if (s == StrSegment("other")) {
        *p = Thread::SCHED_POLICY_OTHER;
    } else if (s == StrSegment("fifo")) {
        *p = Thread::SCHED_POLICY_FIFO;
    } else if (s == StrSegment("round_robin")) {
        *p = Thread::SCHED_POLICY_ROUND_ROBIN;
    } else {
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- construction

Thread::Thread(const char* format, ...) {
    va_list args;
    va_start(args, format);
    setName(format, args);
    va_end(args);
    initialize(DEFAULT_STACK_SIZE);
}

Thread::Thread(unsigned long stackSize, const char* format, ...) {
    va_list args;
    va_start(args, format);
    setName(format, args);
    va_end(args);
    initialize(stackSize);
}

Thread::Thread(SchedPolicy policy, int priority, const char* format, ...)
    : _schedPriority(priority), _schedPolicy(policy) {
    va_list args;
    va_start(args, format);
    setName(format, args);
    va_end(args);
    initialize(DEFAULT_STACK_SIZE);
}

void Thread::setName(const char* format, va_list args) {
    _name.vformat(format, args);
    remove_blanks(_name);
}

void Thread::initialize(unsigned long stackSize) {
    if (!main_thread_created) throw ThreadException(Str("Thread created before main thread!"));
    have_already_started_threads.store(true);
    thread_fence(std::memory_order_seq_cst);
    _crashlogStub = {{_renderCrashlogStub, nullptr, nullptr, nullptr}, this};
    _notations.root = _notations.last = &_crashlogStub.entry;

    Thread* creator = current();
    const bool creatorIsOther = creator == nullptr || creator->_schedPolicy == SCHED_POLICY_OTHER;
    pthread_attr_t own;
    pthread_attr_t* attr = &shared_attr;
    if (_schedPolicy != SCHED_POLICY_OTHER || stackSize != DEFAULT_STACK_SIZE || !creatorIsOther ||
        !shared_attr_ready) {
        attr = &own;
        pthread_attr_init(&own);
        if ((errno = pthread_attr_setstacksize(&own, stackSize)) != 0) {
            thread_log(THREAD_LOG_WARN,
                       "cannot override thread stack size: pthread_attr_setstacksize(): %m");
        }
        // A refused scheduling attribute only warns; the thread then starts
        // with its creator's scheduling rather than a half-set policy (FIFO
        // at priority 0 would make pthread_create itself fail).
        bool explicitSched = true;
        if ((errno = pthread_attr_setinheritsched(&own, PTHREAD_EXPLICIT_SCHED)) != 0) {
            thread_log(THREAD_LOG_WARN,
                       "cannot override thread inherit sched: pthread_attr_setinheritsched(): %m");
            explicitSched = false;
        }
        if (explicitSched && (errno = pthread_attr_setschedpolicy(&own, _schedPolicy)) != 0) {
            thread_log(
                THREAD_LOG_WARN,
                "cannot override thread scheduling policy: pthread_attr_setschedpolicy(): %m");
            explicitSched = false;
        }
        struct sched_param param = {};
        param.sched_priority = _schedPriority;
        if (explicitSched && (errno = pthread_attr_setschedparam(&own, &param)) != 0) {
            thread_log(
                THREAD_LOG_WARN,
                "cannot override thread scheduling parameter: pthread_attr_setschedparam(): %m");
            explicitSched = false;
        }
        if (!explicitSched) pthread_attr_setinheritsched(&own, PTHREAD_INHERIT_SCHED);
    }

    non_main_thread_count.fetch_add(1);
    int e = pthread_create(&_token._t, attr, callMain, this);
    if ((e == EPERM || e == EINVAL) && attr == &own) {
        // The attributes were accepted but the kernel refuses them at
        // creation (real-time scheduling without the privilege, a priority
        // the policy does not take). Start with the creator's scheduling.
        int inherit = PTHREAD_INHERIT_SCHED;
        pthread_attr_getinheritsched(&own, &inherit);
        if (inherit == PTHREAD_EXPLICIT_SCHED) {
            errno = e;
            thread_log(THREAD_LOG_WARN,
                       "cannot override thread scheduling policy: pthread_create(): %m; %s starts "
                       "with inherited scheduling",
                       _name.c_str());
            pthread_attr_setinheritsched(&own, PTHREAD_INHERIT_SCHED);
            e = pthread_create(&_token._t, attr, callMain, this);
        }
    }
    if (attr == &own) pthread_attr_destroy(&own);
    if (e != 0) {
        non_main_thread_count.fetch_sub(1);
        _did_join.store(DID_JOIN);  // nothing to join
        if (MainThread::isDying()) return;
        errno = e;
        Str text;
        text.appendFormat(
            "%s: about to throw a ThreadException: pthread_create: %m; %u threads active. Trying "
            "to create %s",
            currentName(), approximateThreadCount(), _name.c_str());
        throw ThreadException(text);
    }
}

// The MainThread's base: the calling pthread, running already.
Thread::Thread()
    : _did_join(DID_JOIN),
      _token(pthread_self()),
      _tid(gettid_now()),
      _ready_to_run(true),
      _enters_global_list(false),
      _isMainThread(true) {
    _name.assign("MainThread");
}

MainThread::MainThread() {
    if (main_thread_created) throw ThreadException(Str("Main Thread created twice!"));
    non_main_thread_count.store(0);
    // Lazy set-up inside the C library that isn't safe to race: run it while
    // this is the only thread.
    (void)clock();
    char zeros[1025] = {};
    qsort(zeros, sizeof zeros, 1, compare_bytes);
    StaticStrHashSet::finalizeAll();

    if (pthread_attr_init(&shared_attr) == 0) {
        shared_attr_ready = true;
        if ((errno = pthread_attr_setstacksize(&shared_attr, DEFAULT_STACK_SIZE)) != 0) {
            thread_log(THREAD_LOG_WARN,
                       "cannot override thread stack size: pthread_attr_setstacksize(): %m");
        }
    }

    main_thread_created = true;
    main_pthread = pthread_self();
    main_tid = gettid_now();
    // The process's notations may have begun before main(); this thread's
    // description goes in front of them.
    _crashlogStub = {{_renderCrashlogStub, nullptr, nullptr, main_thread_notations.root}, this};
    if (main_thread_notations.root != nullptr) {
        main_thread_notations.root->prev = &_crashlogStub.entry;
    } else {
        main_thread_notations.last = &_crashlogStub.entry;
    }
    main_thread_notations.root = &_crashlogStub.entry;
    _notations = {nullptr, nullptr};

    _scratchp.store(&_scratch);
    // clang-format off
    ASSERT((activeThreads) == nullptr);
    // clang-format on
    activeThreads = this;

    for (auto& storage : in_signal_conditions) new (storage) PthreadConditionImpl();
    struct sigaction sa = {};
    sa.sa_sigaction = sigusr1_handler;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGUSR1, &sa, nullptr) == 0) {
        in_signal_pid = getpid();
        IN_SIGNAL_RUNNING.store(SLOT_IDLE);
    }
}

MainThread::~MainThread() {
    in_signal_mutex.lock();
    while (IN_SIGNAL_RUNNING.load() != SLOT_IDLE && IN_SIGNAL_RUNNING.load() != SLOT_DISABLED) {
        slot_free().wait(in_signal_mutex);
    }
    const bool wasEnabled = IN_SIGNAL_RUNNING.load() == SLOT_IDLE;
    IN_SIGNAL_RUNNING.store(SLOT_DISABLED);
    slot_free().wake_all();  // queued requests give up
    in_signal_mutex.unlock();
    if (wasEnabled) signal(SIGUSR1, SIG_DFL);

    process_dying.store(true);
    // clang-format off
    ASSERT((activeThreads) == this);
    // clang-format on
    activeThreads = nullptr;
    _scratchp.store(nullptr);

    crashlog_notation_entry* stub = &_crashlogStub.entry;
    if (stub->next != nullptr) {
        stub->next->prev = stub->prev;
    } else {
        main_thread_notations.last = stub->prev;
    }
    if (stub->prev != nullptr) {
        stub->prev->next = stub->next;
    } else {
        main_thread_notations.root = stub->next;
    }
}

bool MainThread::isDying() { return process_dying.load(std::memory_order_relaxed); }

void EmptyMainThread::main() {
    // clang-format off
    ASSERT(0);
    // clang-format on
}

// ---------------------------------------------------------------- life cycle

void* Thread::callMain(void* arg) {
    Thread* instance = static_cast<Thread*>(arg);
    // Every thread gets a signal stack of its own, so that a stack overflow
    // here can still be reported. Without one the crash goes unreported but
    // the thread runs all the same.
    crashdumper_alt_stack altStack = {};
    crash_log_alt_stack_install(&altStack);
    PerThreadStackScratch scratch;
    instance->_scratchp.store(&scratch);
    // The kernel keeps 15 bytes of a name; logs and crash reports keep all.
    char kernelName[16];
    const size_t n = std::min(instance->_name.size(), sizeof kernelName - 1);
    memcpy(kernelName, instance->_name.data(), n);
    kernelName[n] = '\0';
    pthread_setname_np(pthread_self(), kernelName);
    instance->_tid.store(gettid_now(), std::memory_order_release);
    // clang-format off
    ASSERT((activeThreads) == nullptr);
    // clang-format on
    activeThreads = instance;

    if (instance->wait_for_go()) {
        if (thread_hooks.setupXmlErrorTarget != nullptr) thread_hooks.setupXmlErrorTarget(instance);
        instance->_callMainAndDiscardTerminateException();
        instance->removeFromGlobalList();
    }
    if (thread_hooks.releaseTlsThreadState != nullptr) thread_hooks.releaseTlsThreadState();

    // clang-format off
    ASSERT(instance->_scratchp == perThreadScratch(&scratch));
    // clang-format on
    {
        // Readers of the scratch from other threads hold the state lock.
        ScopedLock lock(thr_state_lock);
        instance->_scratchp.store(nullptr);
    }
    activeThreads = nullptr;
    crash_log_alt_stack_remove(&altStack);
    non_main_thread_count.fetch_sub(1);
    return nullptr;
}

bool Thread::wait_for_go() {
    ScopedLock lock(thr_state_lock);
    while (!_ready_to_run.load()) _go.wait(thr_state_lock);
    if (_did_join.load() == ALREADY_DESTRUCTING) return false;
    if (_enters_global_list) {
        _global_thread_list_next = GLOBAL_THREAD_LIST_ROOT;
        _global_thread_list_prevp = &GLOBAL_THREAD_LIST_ROOT;
        if (GLOBAL_THREAD_LIST_ROOT != nullptr) {
            GLOBAL_THREAD_LIST_ROOT->_global_thread_list_prevp = &_global_thread_list_next;
        }
        GLOBAL_THREAD_LIST_ROOT = this;
    }
    return true;
}

void Thread::removeFromGlobalList() {
    ScopedLock lock(thr_state_lock);
    if (_global_thread_list_prevp == nullptr) return;
    *_global_thread_list_prevp = _global_thread_list_next;
    if (_global_thread_list_next != nullptr) {
        _global_thread_list_next->_global_thread_list_prevp = _global_thread_list_prevp;
    }
    _global_thread_list_prevp = nullptr;
    _global_thread_list_next = nullptr;
}

void Thread::_callMainAndDiscardTerminateException() {
    try {
        main();
    } catch (const TerminateException& e) {
        thread_log(THREAD_LOG_DEBUG, "caught Thread::TerminateException: %s", e.what());
    }
}

void Thread::go() {
    ScopedLock lock(thr_state_lock);
    if (thread_hooks.xmlSetupTooLate != nullptr) thread_hooks.xmlSetupTooLate();
    // clang-format off
    ASSERT(!_ready_to_run.load());
    // clang-format on
    _ready_to_run.store(true);
    _go.wake_all();
}

void Thread::excludeFromGlobalThreadList() {
    ScopedLock lock(thr_state_lock);
    // clang-format off
    ASSERT(!_ready_to_run.load());
    // clang-format on
    _enters_global_list = false;
}

static void join_pthread(pthread_t t) {
    const int e = pthread_join(t, nullptr);
    if (e != 0) fatal_thread_error("pthread_join", e);
}

void Thread::join() {
    {
        ScopedLock lock(thr_state_lock);
        // clang-format off
        ASSERT(_did_join.load() == DID_NOT_JOIN);
        // A thread that never got go() would wait for it for ever.
        ASSERT(_ready_to_run.load());
        // clang-format on
        _did_join.store(DID_JOIN);
    }
    join_pthread(_token._t);
}

// With thr_state_lock held: lets an unstarted thread leave without main(),
// and joins it. The lock is held again on return.
void Thread::releaseUnstarted() {
    _ready_to_run.store(true);
    _did_join.store(ALREADY_DESTRUCTING);
    _go.wake_all();
    thr_state_lock.unlock();
    join_pthread(_token._t);
    thr_state_lock.lock();
    // clang-format off
    ASSERT(_did_join.load() == ALREADY_DESTRUCTING);
    // clang-format on
    _did_join.store(DID_JOIN);
}

void Thread::joinEvenIfUnstarted() {
    thr_state_lock.lock();
    // clang-format off
    ASSERT(_did_join.load() == DID_NOT_JOIN);
    // clang-format on
    if (_ready_to_run.load()) {
        _did_join.store(DID_JOIN);
        thr_state_lock.unlock();
        join_pthread(_token._t);
        return;
    }
    releaseUnstarted();
    thr_state_lock.unlock();
}

Thread::~Thread() {
    if (MainThread::isDying()) return;
    const int state = _did_join.load();
    if (state == DID_JOIN) return;
    // clang-format off
    ASSERT(_did_join.load() == DID_NOT_JOIN);
    // clang-format on
    thr_state_lock.lock();
    // A started thread must be joined before its object goes.
    // clang-format off
    ASSERT(!_ready_to_run.load());
    // clang-format on
    releaseUnstarted();
    thr_state_lock.unlock();
}

// ---------------------------------------------------------------- queries

Thread* Thread::current() { return main_thread_created ? activeThreads : nullptr; }

const char* Thread::currentName() {
    if (!main_thread_created || pthread_equal(pthread_self(), main_pthread)) return "MainThread";
    Thread* t = activeThreads;
    return t != nullptr ? t->_name.c_str() : "Unknown Thread";
}

pid_t Thread::currentId() {
    if (Thread* t = current()) return t->_tid.load(std::memory_order_acquire);
    if (main_thread_created && pthread_equal(pthread_self(), main_pthread)) return main_tid;
    return gettid_now();
}

bool Thread::currentIsMainThread() {
    return !main_thread_created || pthread_equal(pthread_self(), main_pthread);
}

unsigned Thread::approximateThreadCount() {
    return main_thread_created ? non_main_thread_count.load(std::memory_order_relaxed) + 1 : 1;
}

void Thread::assertNotMultithreadedYet() {
    // clang-format off
    ASSERT(!have_already_started_threads);
    // clang-format on
}

void Thread::yieldCpu() { sched_yield(); }

void Thread::iterateEachRunning(iterate_running_threads_callback& cb) {
    ScopedLock lock(thr_state_lock);
    for (Thread* thr = GLOBAL_THREAD_LIST_ROOT; thr != nullptr;
         thr = thr->_global_thread_list_next) {
        if (thr->_did_join.load() != DID_NOT_JOIN) continue;
        // clang-format off
        ASSERT(thr->_ready_to_run.load());
        // clang-format on
        cb.thread(thr);
    }
}

Thread* Thread::find_if(const std::function<bool(const Thread&)>& pred) {
    ScopedLock lock(thr_state_lock);
    for (Thread* thr = GLOBAL_THREAD_LIST_ROOT; thr != nullptr;
         thr = thr->_global_thread_list_next) {
        if (thr->_did_join.load() != DID_NOT_JOIN) continue;
        // clang-format off
        ASSERT(thr->_ready_to_run.load());
        // clang-format on
        if (pred(*thr)) return thr;
    }
    return nullptr;
}

bool Thread::getDutyCycleRatio(double& ratio) const {
    // The scratch lives on the thread's stack: hold it there while reading.
    ScopedLock state(thr_state_lock);
    PerThreadStackScratch* s = _scratchp.load();
    if (s == nullptr) return false;
    ScopedLock lock(s->dutyCycle._mutex);
    if (!s->dutyCycle._claimed) return false;
    ratio = s->dutyCycle.locked_ratio(MonotonicTime::now());
    return true;
}

// ---------------------------------------------------------------- signals and exit

bool Thread::runInUnixSignalContext(InSignalContextActor* actor) const {
    // clang-format off
    ASSERT(!isCurrent());
    ASSERT(actor != nullptr);
    ASSERT(actor != (reinterpret_cast<Thread::InSignalContextActor *>(0x1)));
    // clang-format on
    if (IN_SIGNAL_RUNNING.load() == SLOT_DISABLED) return false;
    in_signal_mutex.lock();
    for (;;) {
        InSignalContextActor* slot = IN_SIGNAL_RUNNING.load();
        if (slot == SLOT_DISABLED) {
            in_signal_mutex.unlock();
            return false;
        }
        if (slot == SLOT_IDLE) break;
        slot_free().wait(in_signal_mutex);
    }
    IN_SIGNAL_RUNNING.store(actor);
    if (!actor->prepare() || raiseUnixSignal(SIGUSR1) != 0) {
        IN_SIGNAL_RUNNING.store(SLOT_IDLE);
        slot_free().wake_one();
        in_signal_mutex.unlock();
        return false;
    }
    // The handler may have come and gone already before this waits.
    while (!handler_running && IN_SIGNAL_RUNNING.load() != SLOT_FINISHED) {
        handler_started().wait(in_signal_mutex);
    }
    in_signal_mutex.unlock();
    actor->whileTargetInSignal();
    in_signal_mutex.lock();
    while (IN_SIGNAL_RUNNING.load() != SLOT_FINISHED) handler_finished().wait(in_signal_mutex);
    IN_SIGNAL_RUNNING.store(SLOT_IDLE);
    slot_free().wake_one();
    in_signal_mutex.unlock();
    return true;
}

void Thread::forceKillAllThreads(int status) {
    process_dying.store(true);
    _exit(status);
}

void Thread::reinitializeAfterFork() {
    // The caller is the one thread of a fresh child; that can't be checked
    // here, since the flag of started threads stays set across fork().
    if (IN_SIGNAL_RUNNING.load() != SLOT_DISABLED) in_signal_pid = getpid();
    main_pthread = pthread_self();
    main_tid = gettid_now();
    // The calling thread's object (the MainThread's, or the Thread that
    // forked) describes the parent's thread until renewed.
    if (Thread* t = current()) {
        t->_token = ThreadToken::self();
        t->_tid.store(main_tid);
    }
    DutyCycleEstimate::perThread().resetAfterFork();
}

// ---------------------------------------------------------------- crash log

static const char* crashlog_thread_name() { return Thread::currentName(); }
static unsigned crashlog_thread_count() { return Thread::approximateThreadCount(); }

void Thread::registerCrashlogHooks() {
    if (!main_thread_created) {
        early_thread = pthread_self();
        have_early_thread = true;
    }
    register_get_current_threadname_func(crashlog_thread_name);
    register_get_threadcount_func(crashlog_thread_count);
    register_get_crashlog_notation_perthread_state_func(getCrashLogPerThreadState);
}

crashlog_notation_list* Thread::getCrashLogPerThreadState() {
    // Every notation push asks this, so the common case is one thread-local
    // load.
    if (Thread* t = activeThreads)
        return t->_isMainThread ? &main_thread_notations : &t->_notations;
    const pthread_t self = pthread_self();
    if (!main_thread_created || pthread_equal(self, main_pthread) ||
        (have_early_thread && pthread_equal(self, early_thread))) {
        return &main_thread_notations;
    }
    return nullptr;
}

void Thread::_renderCrashlogStub(crashlog_notation_entry* e, backtrace_writing_handler* h) {
    CrashLogWriteHandler out(h);
    reinterpret_cast<NotationStub*>(e)->owner->renderCrashLogInfoTo(out);
}

void Thread::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    if (thread_death_reason.function != nullptr) {
        h.format("Dying on fatal thread error %d from %s, thread %s\n", thread_death_reason.errnum,
                 thread_death_reason.function, thread_death_reason.thread_name);
    }
    h.write("Thread: \"");
    h.write(_name.data(), _name.size());
    h.format("\", did_join=%d", _did_join.load(std::memory_order_relaxed));
    if (_ready_to_run.load(std::memory_order_relaxed)) h.write(", ready_to_run");
    if (_isMainThread) h.write(", main_thread");
    h.write(", token=");
    crashlog_write(h, _token);
    h.write("\n");
    if (PerThreadStackScratch* s = _scratchp.load(std::memory_order_relaxed)) {
        h.write("MutexByte: ");
        crashlog_write(h, s->mutexByteState);
        h.write("\n");
    }
}
