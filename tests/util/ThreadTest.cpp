#include "util/Thread.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "support/TextMatch.h"

namespace {

using testsupport::crashText;

// Polls the state of the threads, for at most 30 seconds.
bool spinUntil(const std::function<bool()>& pred) { return testsupport::waitUntil(pred, 30); }

// A thread that runs until the end of the scope, started and known to the
// kernel by the end of construction.
class Held {
public:
    template <class... A>
    explicit Held(const char* name, A... args)
        : _t([this] { spinUntil([this] { return !_hold.load(); }); }, name, args...) {
        _t.go();
        spinUntil([this] { return _t.kernelId() != 0; });
    }
    ~Held() {
        _hold = false;
        _t.join();
    }
    ThreadFunction* operator->() { return &_t; }

private:
    std::atomic<bool> _hold{true};
    ThreadFunction _t;
};

// ---------------------------------------------------------------- life cycle

TEST(Thread, NamesLoseTheirBlanksAndTheKernelKeepsFifteenBytes) {
    Held t("my thread %d", 1), longName("Tcp Channel Thread");
    EXPECT_EQ(t->name(), "mythread1");
    EXPECT_EQ(longName->name(), "TcpChannelThread");
    EXPECT_NE(t->kernelId(), longName->kernelId());
    // Each thread names itself once it runs.
    auto comm = [](Held& h) {
        return testsupport::readFile("/proc/self/task/" + std::to_string(h->kernelId()) + "/comm");
    };
    EXPECT_TRUE(spinUntil([&] { return comm(t) == "mythread1\n"; })) << comm(t);
    EXPECT_TRUE(spinUntil([&] { return comm(longName) == "TcpChannelThrea\n"; })) << comm(longName);
}

// The crash report describes a thread from the thread itself: its scratch
// is its own stack, gone once joined.
TEST(Thread, TheCurrentThreadKnowsItselfAndATerminateExceptionEndsItQuietly) {
    EXPECT_TRUE(Thread::currentIsMainThread());
    EXPECT_STREQ(Thread::currentName(), "MainThread");
    EXPECT_EQ(Thread::currentId(), static_cast<pid_t>(syscall(SYS_gettid)));
    pid_t id = 0;
    std::string running;
    std::atomic<bool> rendered{false};
    ThreadFunction t(
        [&] {
            EXPECT_EQ(Thread::current(), &t);
            EXPECT_STREQ(Thread::currentName(), "self-aware");
            EXPECT_FALSE(Thread::currentIsMainThread());
            id = Thread::currentId();
            running = crashText(*Thread::current());
            rendered = true;
            throw Thread::TerminateException("enough");
            ADD_FAILURE() << "went on after the TerminateException";
        },
        "self-aware");
    t.go();
    ASSERT_TRUE(spinUntil([&] { return rendered.load(); }));  // before join() changes did_join
    t.join();
    EXPECT_EQ(id, t.kernelId());
    EXPECT_NE(id, 0);
    EXPECT_TRUE(testsupport::contains(running, "did_join=0, ready_to_run, token="));
    EXPECT_TRUE(testsupport::contains(running, "\nMutexByte: MutexByte-waiting={none}\n"));
    const std::string after = crashText(t);
    EXPECT_TRUE(after.starts_with("Thread: \"self-aware\", did_join=1, ready_to_run, token=0x"))
        << after;
    EXPECT_EQ(after.find("MutexByte"), std::string::npos) << after;

    // A thread the library didn't make.
    std::thread([] {
        EXPECT_STREQ(Thread::currentName(), "Unknown Thread");
        EXPECT_EQ(Thread::current(), nullptr);
    }).join();
}

TEST(ThreadDeathTest, MisuseIsAnAssertionAndAnyOtherExceptionEndsTheProcess) {
    auto run = [](std::function<void()> body, int goes, int joins) {
        std::atomic<bool> ran{false};
        ThreadFunction t(
            [&] {
                body();
                ran = true;
            },
            "misused");
        for (int i = 0; i < goes; ++i) t.go();
        for (int i = 0; i < joins; ++i) t.join();
        // Destroyed unjoined: only once its main has run, which orders the
        // thread's last look at the object before the destructor.
        if (goes > 0 && joins == 0) spinUntil([&] { return ran.load(); });
    };
    EXPECT_DEATH(run([] { throw std::runtime_error("boom from a worker"); }, 1, 1),
                 "terminate called after throwing an instance of 'std::runtime_error'");
    EXPECT_DEATH(run([] {}, 1, 2), "Assertion `_did_join.load\\(\\) == DID_NOT_JOIN' failed");
    EXPECT_DEATH(run([] {}, 2, 1), "Assertion `!_ready_to_run.load\\(\\)' failed");
    EXPECT_DEATH(run([] {}, 1, 0), "Assertion `!_ready_to_run.load\\(\\)' failed");  // not joined
    EXPECT_DEATH(run([] {}, 0, 1), "Assertion `_ready_to_run.load\\(\\)' failed");
    // Only reachable by calling it: the empty main thread exists to be built.
    EXPECT_DEATH(Thread::current()->main(), "Assertion `0' failed");
}

// ---------------------------------------------------------------- the list

// Threads are counted from construction; only started ones are listed, until
// their main returns. One never started is joined, or destroyed, quietly.
TEST(Thread, RunningThreadsAreListedUntilTheirMainReturnsAndUnstartedOnesNeverRun) {
    struct Collect : iterate_running_threads_callback {
        std::set<const Thread*> seen;
        void thread(Thread* t) override { seen.insert(t); }
    } c, after;
    std::atomic<bool> hold{true};
    std::atomic<int> running{0};
    auto body = [&] {
        running.fetch_add(1);
        spinUntil([&] { return !hold.load(); });
    };
    const unsigned before = Thread::approximateThreadCount();
    {
        ThreadFunction listed(body, "listed"), hidden(body, "hidden"), unstarted(body, "unstarted"),
            dropped(body, "dropped");
        EXPECT_EQ(Thread::approximateThreadCount(), before + 4);
        hidden.excludeFromGlobalThreadList();
        listed.go();
        hidden.go();
        ASSERT_TRUE(spinUntil([&] { return running.load() == 2; }));
        Thread::iterateEachRunning(c);
        EXPECT_EQ(c.seen.count(&listed), 1u);
        EXPECT_EQ(c.seen.count(&hidden) + c.seen.count(&unstarted), 0u);
        EXPECT_EQ(Thread::find_if([](const Thread& t) { return t.name() == "listed"; }), &listed);
        EXPECT_EQ(Thread::find_if([](const Thread& t) { return t.name() == "hidden"; }), nullptr);

        hold = false;
        listed.joinEvenIfUnstarted();  // started: an ordinary join
        hidden.join();
        unstarted.joinEvenIfUnstarted();
        EXPECT_EQ(running.load(), 2);
        Thread::iterateEachRunning(after);
        EXPECT_EQ(after.seen.count(&listed), 0u);
    }
    EXPECT_TRUE(spinUntil([&] { return Thread::approximateThreadCount() == before; }));
}

TEST(ThreadTokenSet, LookupsAfterInsertsSortAndErasesCloseGaps) {
    auto token = [](uintptr_t v) { return ThreadToken(pthread_t(v)); };
    ThreadTokenSet set;
    for (uintptr_t v : {50u, 10u, 40u, 20u, 30u}) set.insert(token(v));
    for (uintptr_t v : {50u, 10u, 40u, 20u, 30u}) EXPECT_TRUE(set.contains(token(v))) << v;
    EXPECT_FALSE(set.contains(token(25)));
    set.erase(token(20));
    EXPECT_FALSE(set.contains(token(20)));
    set.insert(token(5));  // after a sort, unsorted again
    EXPECT_TRUE(set.contains(token(5)));
    EXPECT_TRUE(set.contains(token(50)));
    EXPECT_EQ(set.size(), 5u);
    EXPECT_EQ(crashText(set), "{0x5,0xa,0x1e,0x28,0x32}");
    set.clear();
    EXPECT_FALSE(set.contains(token(5)));
}

// A refused scheduling setting, by the attribute calls or by the kernel at
// creation, only warns: the thread starts with its creator's scheduling.
TEST(Thread, RefusedSchedulingStillStarts) {
    struct Scheduled : Thread {
        using Thread::Thread;
        int policy = -1;  // stays so unless main() runs
        void main() override {
            struct sched_param param;
            pthread_getschedparam(pthread_self(), &policy, &param);
        }
    };
    const struct {
        Thread::SchedPolicy policy;
        int priority;
        bool privileged;
    } cases[] = {
        {Thread::SCHED_POLICY_FIFO, 10, false},        // refused by pthread_create: EPERM
        {Thread::SCHED_POLICY_FIFO, 1000, true},       // refused by setschedparam: EINVAL
        {Thread::SCHED_POLICY_ROUND_ROBIN, -5, true},  // below the policy's range
    };
    for (const auto& c : cases) {
        auto body = [&c] {
            // An unprivileged user may have real-time priorities up to
            // RLIMIT_RTPRIO, which some hosts raise: none here.
            const struct rlimit none = {0, 0};
            if (setrlimit(RLIMIT_RTPRIO, &none) != 0) return 4;
            Scheduled t(c.policy, c.priority, "scheduled");
            t.go();
            t.join();
            return t.policy == SCHED_OTHER ? 0 : 3;
        };
        EXPECT_EQ(c.privileged ? testsupport::inChild(body)
                               : testsupport::inChildAs(testsupport::kUnprivilegedUid,
                                                        testsupport::kUnprivilegedGid, body),
                  0)
            << "policy " << c.policy << ", priority " << c.priority;
    }
}

// ---------------------------------------------------------------- signal context

class Probe : public Thread::InSignalContextActor {
public:
    std::atomic<bool> whileCalled{false};
    std::atomic<bool> overlapped{false};
    std::atomic<pid_t> ranOn{0};
    bool refuse = false;

    bool prepare() override { return !refuse; }
    void whileTargetInSignal() override { whileCalled = true; }
    void inSignal() override {
        ranOn = static_cast<pid_t>(syscall(SYS_gettid));
        // Hold the target here until the requester's part has run, so that
        // both are seen to overlap. Bounded, in case they never do.
        for (long i = 0; i < 2000000000L && !whileCalled.load(); ++i) {}
        overlapped = whileCalled.load();
    }
};

TEST(Thread, CodeRunsInsideTheTargetsSignalHandler) {
    Held target("target");
    Probe probe;
    ASSERT_TRUE(target->runInUnixSignalContext(&probe));
    EXPECT_EQ(probe.ranOn.load(), target->kernelId());
    EXPECT_TRUE(probe.overlapped.load());

    // A refusal in prepare() sends nothing, and the slot is free after it.
    Probe refused;
    refused.refuse = true;
    EXPECT_FALSE(target->runInUnixSignalContext(&refused));
    EXPECT_EQ(refused.ranOn.load(), 0);

    // A SIGUSR1 from another process is ignored, and the channel still works.
    const pid_t self = getpid();
    EXPECT_EQ(testsupport::inChild([self] { return kill(self, SIGUSR1) == 0 ? 0 : 1; }), 0);
    Probe again;
    EXPECT_TRUE(target->runInUnixSignalContext(&again));
    EXPECT_EQ(again.ranOn.load(), target->kernelId());

    // Requests from several threads run one at a time.
    std::atomic<int> done{0};
    auto request = [&] {
        for (int k = 0; k < 20; ++k) {
            Probe p;
            if (target->runInUnixSignalContext(&p) && p.ranOn.load() == target->kernelId()) {
                done.fetch_add(1);
            }
        }
    };
    ThreadFunction r0(request, "requester0"), r1(request, "requester1"), r2(request, "requester2");
    for (Thread* r : {&r0, &r1, &r2}) r->go();
    for (Thread* r : {&r0, &r1, &r2}) r->join();
    EXPECT_EQ(done.load(), 60);
}

// A child of fork() is one thread with the parent's memory: after
// reinitializeAfterFork() it is the main thread under its own ids, and
// signal-context requests, which check the sender's process id, work again.
TEST(Thread, AForkedChildStartsOverAsTheMainThread) {
    EXPECT_EQ(testsupport::inChild([] {
                  Thread::reinitializeAfterFork();
                  if (Thread::currentId() != static_cast<pid_t>(syscall(SYS_gettid))) return 2;
                  if (!Thread::currentIsMainThread()) return 3;
                  Held target("child-target");
                  if (target->kernelId() == 0) return 4;
                  Probe p;
                  const bool ran = target->runInUnixSignalContext(&p);
                  return ran && p.ranOn.load() == target->kernelId() ? 0 : 5;
              }),
              0);
}

// ---------------------------------------------------------------- duty cycle

TEST(DutyCycleEstimate, OldHistoryFadesLinearly) {
    // In quarters of the one-second span, from t0.
    auto at = [](uint64_t quarters) {
        return MonotonicTime(1000, 0) + MonotonicTime::Ticks(quarters * 250000000);
    };
    DutyCycleEstimate d{MonotonicTime::Ticks(1000000000)};
    d.setRunning(true, at(0));
    EXPECT_DOUBLE_EQ(d.ratio(at(0)), 0.0);
    EXPECT_DOUBLE_EQ(d.ratio(at(1)), 0.25);
    d.setRunning(false, at(2));
    // Right after a transition to idle: the ratio stored.
    EXPECT_DOUBLE_EQ(d.ratio(at(2)), 0.5);
    EXPECT_DOUBLE_EQ(d.ratio(at(4)), 0.25);
    EXPECT_DOUBLE_EQ(d.ratio(at(12)), 0.0);
    d.setRunning(true, at(12));
    EXPECT_DOUBLE_EQ(d.ratio(at(20)), 1.0);
    // A clock read from before the last transition counts as no time.
    EXPECT_DOUBLE_EQ(d.ratio(at(0)), 0.0);
}

TEST(DutyCycleEstimate, AThreadsEstimateIsClaimedOnceAndReadFromOutside) {
    std::atomic<bool> hold{true}, claimed{false};
    bool innerUsedOwn = false;
    ThreadFunction t(
        [&] {
            ScopedDutyCycleClaimThread claim(true);
            {
                ScopedDutyCycleClaimThread nested(false);
                innerUsedOwn = &nested.estimate() != &DutyCycleEstimate::perThread();
            }
            claimed = true;
            spinUntil([&] { return !hold.load(); });
        },
        "busy");
    double ratio = -1;
    EXPECT_FALSE(t.getDutyCycleRatio(ratio)) << "no scratch before it runs";
    t.go();
    ASSERT_TRUE(spinUntil([&] { return claimed.load(); }));
    ASSERT_TRUE(t.getDutyCycleRatio(ratio));
    EXPECT_GE(ratio, 0.0);
    EXPECT_LE(ratio, 1.0);
    EXPECT_TRUE(innerUsedOwn);
    hold = false;
    t.join();
    EXPECT_FALSE(t.getDutyCycleRatio(ratio));
}

}  // namespace
