#pragma once
// Threads of the process. Every thread is a Thread, and one MainThread is
// built first, before any other, and destroyed last. A Thread is created
// suspended: the system thread exists when the constructor returns and waits
// for go(). A started thread must be joined before its object is destroyed.

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "libzero/create-crash-dump.h"
#include "libzero/xorshift128plus.h"
#include "util/CrashLog.h"
#include "util/DutyCycle.h"
#include "util/Logger.h"
#include "util/Str.h"
#include "util/ThreadLocks.h"

class Thread;

// One pthread identifier, ordered by its numeric value.
struct ThreadToken {
    pthread_t _t = 0;

    ThreadToken() = default;
    explicit ThreadToken(pthread_t t) : _t(t) {}
    static ThreadToken self() { return ThreadToken(pthread_self()); }
    // pthread_kill's result.
    int raiseUnixSignal(int sig) const { return pthread_kill(_t, sig); }
    friend bool operator==(ThreadToken a, ThreadToken b) { return a._t == b._t; }
    friend auto operator<=>(ThreadToken a, ThreadToken b) {
        return uintptr_t(a._t) <=> uintptr_t(b._t);
    }
};
void append_stringified(Str* out, ThreadToken t);  // "0x..." of the value
void crashlog_write(CrashLogWriteHandler& h, ThreadToken t);

// A set of threads, kept sorted lazily: inserts are cheap, the first lookup
// after them sorts.
class ThreadTokenSet {
public:
    void insert(ThreadToken t);
    void insert(const Thread* t);
    void erase(ThreadToken t);
    void erase(const Thread* t);
    bool contains(ThreadToken t);
    bool contains(const Thread* t);
    void clear();
    size_t size();

    void _do_resort();
    // "{" tokens joined by "," "}"; unlocked, as befits a crash.
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

private:
    PthreadMutexImpl _mutex;
    std::vector<ThreadToken> _tokens;
    bool _needs_resort = false;
};

// Per-thread state that lives on the thread's own stack (the MainThread holds
// it as a member), so that a thread costs no allocation of its own.
struct PerThreadStackScratch {
    MutexByte::per_thread_state mutexByteState;
    xorshift128plus_state random{{0, 0}};  // seeded at first use
    DutyCycleEstimate dutyCycle{MonotonicTime::Ticks(DutyCycleEstimate::DEFAULT_SPAN_NS)};
    // Where this thread's log messages are formatted.
    LoggerStreamAccumulator logAccumulator;
};

// The visitor of Thread::iterateEachRunning. It runs under the thread-state
// lock and must take no thread lock itself.
class iterate_running_threads_callback {
public:
    virtual ~iterate_running_threads_callback() = default;
    virtual void thread(Thread* t) = 0;
};

// Services of other parts of the library that threads call, registered by
// those parts so that threads link neither of them. Each may be null.
struct ThreadHooks {
    // Points the XML library's error text of the new thread at `thread`.
    void (*setupXmlErrorTarget)(Thread* thread) = nullptr;
    // Called once by go(): the XML library's set-up can no longer change.
    void (*xmlSetupTooLate)() = nullptr;
    // Frees the TLS library's per-thread state as a thread ends.
    void (*releaseTlsThreadState)() = nullptr;
};
extern ThreadHooks thread_hooks;

class Thread {
public:
    enum SchedPolicy {
        SCHED_POLICY_OTHER = 0,
        SCHED_POLICY_FIFO = 1,
        SCHED_POLICY_ROUND_ROBIN = 2
    };
    static constexpr int DID_NOT_JOIN = 0;
    static constexpr int DID_JOIN = 1;
    static constexpr int ALREADY_DESTRUCTING = 2;
    static constexpr unsigned long DEFAULT_STACK_SIZE = 2097152;

    // Thrown from main() to end the thread quietly.
    class TerminateException : public BaseException {
    public:
        using BaseException::BaseException;
    };

    // Code run on a target thread inside its SIGUSR1 handler.
    class InSignalContextActor {
    public:
        virtual ~InSignalContextActor() = default;
        // On the requesting thread, before the signal; false cancels.
        virtual bool prepare() = 0;
        // On the requesting thread while the target sits in its handler.
        virtual void whileTargetInSignal() = 0;
        // On the target, in signal context: signal-safe means only.
        virtual void inSignal() = 0;
    };

    // The name is formatted, then every blank is taken out of it.
    explicit Thread(const char* format, ...) __attribute__((format(printf, 2, 3)));
    Thread(unsigned long stackSize, const char* format, ...) __attribute__((format(printf, 3, 4)));
    Thread(SchedPolicy policy, int priority, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
    virtual void main() = 0;

    void go();
    void join();
    // Joins a thread whether or not go() was called; main() never runs
    // when it wasn't.
    void joinEvenIfUnstarted();
    // Before go() only: the thread never enters the global list.
    void excludeFromGlobalThreadList();

    const Str& name() const { return _name; }
    // 0 until the new thread has begun.
    pid_t kernelId() const { return _tid.load(std::memory_order_acquire); }
    ThreadToken token() const { return _token; }
    bool isCurrent() const { return current() == this; }
    int raiseUnixSignal(int sig) const { return _token.raiseUnixSignal(sig); }
    // False when the thread has no scratch or nobody claimed its estimate.
    bool getDutyCycleRatio(double& ratio) const;

    // Runs `actor` on this thread inside a SIGUSR1 handler; see the actor.
    // One request runs in the whole process at a time. False when the
    // MainThread is gone or the signal could not be sent.
    bool runInUnixSignalContext(InSignalContextActor* actor) const;

    static Thread* current();
    static const char* currentName();
    static pid_t currentId();
    static bool currentIsMainThread();
    static unsigned approximateThreadCount();
    // Fails an assertion once a second thread has ever been created.
    static void assertNotMultithreadedYet();
    static void yieldCpu();
    // For each listed thread that hasn't been joined, under the state lock.
    static void iterateEachRunning(iterate_running_threads_callback& cb);
    static Thread* find_if(const std::function<bool(const Thread&)>& pred);
    [[noreturn]] static void forceKillAllThreads(int status);
    // In a child after fork(), while it has one thread.
    static void reinitializeAfterFork();
    static void registerCrashlogHooks();
    static crashlog_notation_list* getCrashLogPerThreadState();

    // Guards join states, readiness and the global list. A leaf, except
    // that iteration callbacks run under it and getDutyCycleRatio() takes a
    // thread's duty-cycle mutex inside it.
    static ConditionMutex thr_state_lock;

    // Read by the crash report and the duty-cycle and lock code.
    std::atomic<PerThreadStackScratch*> _scratchp{nullptr};

protected:
    // The MainThread's: the calling pthread, already running.
    Thread();

private:
    friend class MainThread;
    void initialize(unsigned long stackSize);
    void setName(const char* format, va_list args);
    bool wait_for_go();
    void _callMainAndDiscardTerminateException();
    void removeFromGlobalList();
    void releaseUnstarted();
    static void* callMain(void* arg);
    static void _renderCrashlogStub(crashlog_notation_entry* e, backtrace_writing_handler* h);

    std::atomic<int> _did_join{DID_NOT_JOIN};
    ThreadToken _token;
    Str _name;
    std::atomic<pid_t> _tid{0};
    std::atomic<bool> _ready_to_run{false};
    bool _enters_global_list = true;
    Thread** _global_thread_list_prevp = nullptr;
    Thread* _global_thread_list_next = nullptr;
    PthreadConditionImpl _go;
    Str _xmlErrors;  // the XML library's error text for this thread
    bool _isMainThread = false;
    crashlog_notation_list _notations;
    // First on the thread's notations, so that its own description leads.
    struct NotationStub {
        crashlog_notation_entry entry;
        const Thread* owner;
    } _crashlogStub;
    int _schedPriority = 0;
    int _schedPolicy = SCHED_POLICY_OTHER;

public:
    Str& xmlErrors() { return _xmlErrors; }
};

// "other", "fifo", "round_robin"; "none" for anything else.
void append_stringified(Str* out, Thread::SchedPolicy p);
// Exactly the three words; the target is left alone otherwise.
bool mem_parse_into(const char* data, size_t length, Thread::SchedPolicy* p);

// The calling pthread as the first Thread; see the file comment.
class MainThread : public Thread {
public:
    MainThread();
    ~MainThread() override;
    // True once the MainThread is gone or forceKillAllThreads ran: lock and
    // join failures pass silently from then on.
    static bool isDying();

private:
    PerThreadStackScratch _scratch;
};

// For programs whose main thread has no body of its own.
class EmptyMainThread : public MainThread {
public:
    void main() override;
};

// A Thread that runs a callable.
class ThreadFunction : public Thread {
public:
    template <class... A>
    ThreadFunction(std::function<void()> f, const char* format, A... args)
        : Thread(format, args...), _f(std::move(f)) {}
    void main() override { _f(); }

private:
    std::function<void()> _f;
};

// Process-wide thread state.
extern bool main_thread_created;
extern std::atomic<bool> have_already_started_threads;
