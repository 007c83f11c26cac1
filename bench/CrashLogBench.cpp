// The crash report's costs while nothing crashes, and when something does.
//
// ScopedNotation: entering and leaving a ScopedPerThreadCrashLogNotation,
// which stands on the hot paths of the event loop and HTTP, against an empty
// loop and against the hand-written alternative, a thread_local vector of
// descriptions.
//
// CrashReport50Threads: from raise(SIGSEGV) to the death of a process with
// 50 threads, report written to a file.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "util/CrashLog.h"
#include "util/Thread.h"

namespace {

void ScopedNotationEmptyLoop(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ScopedNotationEmptyLoop)->Name("ScopedNotation/empty_loop");

void ScopedNotationTarvex(benchmark::State& state) {
    Thread::registerCrashlogHooks();
    for (auto _ : state) {
        ScopedPerThreadCrashLogConstantStringNotation n("serving a request");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ScopedNotationTarvex)->Name("ScopedNotation/tarvex");

thread_local std::vector<const char*> described;

void ScopedNotationVector(benchmark::State& state) {
    described.reserve(16);
    for (auto _ : state) {
        described.push_back("serving a request");
        benchmark::ClobberMemory();
        described.pop_back();
    }
}
BENCHMARK(ScopedNotationVector)->Name("ScopedNotation/thread_local_vector");

double monotonicSeconds() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The child: 50 threads, each with a notation, then a fault on the main
// thread. It sends the time of the fault through the pipe.
[[noreturn]] void crashWithThreads(int timePipe, const std::string& dir) {
    Thread::reinitializeAfterFork();
    if (crash_log_creator_init(dir.c_str()) != 0) _exit(3);
    Thread::registerCrashlogHooks();
    std::atomic<int> ready{0};
    std::vector<std::unique_ptr<ThreadFunction>> threads;
    for (int i = 0; i < 50; ++i) {
        threads.push_back(std::make_unique<ThreadFunction>(
            [&ready] {
                ScopedPerThreadCrashLogConstantStringNotation n("waiting for the crash");
                ready.fetch_add(1);
                for (;;) pause();
            },
            "Worker%d", i));
        threads.back()->go();
    }
    while (ready.load() < 50) sched_yield();
    ScopedPerThreadCrashLogConstantStringNotation n("about to crash");
    const double t0 = monotonicSeconds();
    if (write(timePipe, &t0, sizeof t0) != sizeof t0) _exit(4);
    raise(SIGSEGV);
    _exit(5);
}

void CrashReport50Threads(benchmark::State& state) {
    char dirTemplate[] = "/tmp/tarvex-crash-bench.XXXXXX";
    const std::string dir = mkdtemp(dirTemplate);
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) abort();
        const pid_t child = fork();
        if (child == 0) {
            close(fds[0]);
            crashWithThreads(fds[1], dir);
        }
        close(fds[1]);
        double t0 = 0;
        const bool gotTime = read(fds[0], &t0, sizeof t0) == sizeof t0;
        int status = 0;
        waitpid(child, &status, 0);
        const double t1 = monotonicSeconds();
        close(fds[0]);
        if (!gotTime || !WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) {
            state.SkipWithError("the child did not crash as planned");
            break;
        }
        state.SetIterationTime(t1 - t0);
        // One report a second fits the file name; clear the way for the next.
        if (system(("rm -f " + dir + "/crash-*.log").c_str()) != 0) abort();
    }
    rmdir(dir.c_str());
}
BENCHMARK(CrashReport50Threads)
    ->Name("CrashReport50Threads/tarvex")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20);

}  // namespace
