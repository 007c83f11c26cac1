// Locks and threads against what a user would otherwise pick: pthread_mutex_t,
// std::mutex, absl::Mutex and std::thread. Contended runs use library Threads
// for every contender, since a MutexByte sleeps on per-thread state that only
// Threads have; the cost of starting them is the same for all.

#include <absl/synchronization/mutex.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "util/Thread.h"

namespace {

using benchmark::State;

struct PthreadLock {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    void lock() { pthread_mutex_lock(&m); }
    void unlock() { pthread_mutex_unlock(&m); }
};
struct StdLock {
    std::mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};
struct AbslLock {
    absl::Mutex m;
    void lock() { m.Lock(); }
    void unlock() { m.Unlock(); }
};

// ---------------------------------------------------------------- uncontended

// glibc drops the lock prefix from its mutexes while the process has never
// had a second thread. A server always has one: measure in that state.
void becomeMultithreaded() {
    static const bool once = [] {
        ThreadFunction t([] {}, "first");
        t.go();
        t.join();
        return true;
    }();
    (void)once;
}

template <class L>
void uncontended(State& state) {
    becomeMultithreaded();
    L lock;
    uint64_t counter = 0;
    for (auto _ : state) {
        lock.lock();
        ++counter;
        lock.unlock();
        benchmark::DoNotOptimize(counter);
    }
}
BENCHMARK(uncontended<QueueingMutex>)->Name("lock_unlock_uncontended/tarvex");
BENCHMARK(uncontended<PthreadLock>)->Name("lock_unlock_uncontended/pthread_mutex_t");
BENCHMARK(uncontended<StdLock>)->Name("lock_unlock_uncontended/std_mutex");
BENCHMARK(uncontended<AbslLock>)->Name("lock_unlock_uncontended/absl_Mutex");

// ---------------------------------------------------------------- contended

constexpr uint64_t TOTAL_OPS = 400000;

// `threads` Threads take the lock in turn until TOTAL_OPS critical sections
// have run, each a few loads and stores of shared state. Reports the spread
// between the busiest and the idlest thread.
template <class L>
void contended(State& state) {
    const int threads = static_cast<int>(state.range(0));
    // Work each thread does between its critical sections, as a server does
    // between taking a lock: 0 for the lock alone.
    const int outside = static_cast<int>(state.range(1));
    double worstFairness = 1.0;
    for (auto _ : state) {
        L lock;
        uint64_t shared[8] = {};
        uint64_t done = 0;
        std::vector<uint64_t> perThread(threads);
        std::atomic<int> ready{0};
        std::vector<std::unique_ptr<ThreadFunction>> workers;
        for (int i = 0; i < threads; ++i) {
            workers.push_back(std::make_unique<ThreadFunction>(
                [&, i] {
                    ready.fetch_add(1);
                    while (ready.load() < threads) {}
                    for (;;) {
                        lock.lock();
                        if (done == TOTAL_OPS) {
                            lock.unlock();
                            break;
                        }
                        ++done;
                        for (uint64_t& s : shared) s += done;
                        lock.unlock();
                        ++perThread[i];
                        uint64_t x = perThread[i];
                        for (int k = 0; k < outside; ++k) x = x * 6364136223846793005u + 1;
                        benchmark::DoNotOptimize(x);
                    }
                },
                "contender%d", i));
        }
        for (auto& w : workers) w->go();
        for (auto& w : workers) w->join();
        const auto [lo, hi] = std::minmax_element(perThread.begin(), perThread.end());
        worstFairness = std::min(worstFairness, double(*lo) / double(*hi));
        benchmark::DoNotOptimize(shared);
    }
    state.counters["min/max_share"] = worstFairness;
    state.SetItemsProcessed(int64_t(state.iterations() * TOTAL_OPS));
}
BENCHMARK(contended<QueueingMutex>)->Name("contended_2/tarvex")->Args({2, 0})->UseRealTime();
BENCHMARK(contended<PthreadLock>)->Name("contended_2/pthread_mutex_t")->Args({2, 0})->UseRealTime();
BENCHMARK(contended<StdLock>)->Name("contended_2/std_mutex")->Args({2, 0})->UseRealTime();
BENCHMARK(contended<AbslLock>)->Name("contended_2/absl_Mutex")->Args({2, 0})->UseRealTime();
BENCHMARK(contended<QueueingMutex>)->Name("contended_4/tarvex")->Args({4, 0})->UseRealTime();
BENCHMARK(contended<PthreadLock>)->Name("contended_4/pthread_mutex_t")->Args({4, 0})->UseRealTime();
BENCHMARK(contended<StdLock>)->Name("contended_4/std_mutex")->Args({4, 0})->UseRealTime();
BENCHMARK(contended<AbslLock>)->Name("contended_4/absl_Mutex")->Args({4, 0})->UseRealTime();
BENCHMARK(contended<QueueingMutex>)->Name("contended_8/tarvex")->Args({8, 0})->UseRealTime();
BENCHMARK(contended<PthreadLock>)->Name("contended_8/pthread_mutex_t")->Args({8, 0})->UseRealTime();
BENCHMARK(contended<StdLock>)->Name("contended_8/std_mutex")->Args({8, 0})->UseRealTime();
BENCHMARK(contended<AbslLock>)->Name("contended_8/absl_Mutex")->Args({8, 0})->UseRealTime();

// The same with about a microsecond of work outside the lock.
BENCHMARK(contended<QueueingMutex>)->Name("contended_4_work/tarvex")->Args({4, 400})->UseRealTime();
BENCHMARK(contended<PthreadLock>)
    ->Name("contended_4_work/pthread_mutex_t")
    ->Args({4, 400})
    ->UseRealTime();
BENCHMARK(contended<StdLock>)->Name("contended_4_work/std_mutex")->Args({4, 400})->UseRealTime();
BENCHMARK(contended<AbslLock>)->Name("contended_4_work/absl_Mutex")->Args({4, 400})->UseRealTime();

// ---------------------------------------------------------------- threads

void threadCreateGoJoin(State& state) {
    uint64_t runs = 0;
    for (auto _ : state) {
        ThreadFunction t([&] { ++runs; }, "short");
        t.go();
        t.join();
    }
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(threadCreateGoJoin)->Name("thread_create_go_join/tarvex")->UseRealTime();

void stdThreadCreateJoin(State& state) {
    uint64_t runs = 0;
    for (auto _ : state) {
        std::thread t([&] { ++runs; });
        t.join();
    }
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(stdThreadCreateJoin)->Name("thread_create_go_join/std_thread")->UseRealTime();

// ---------------------------------------------------------------- memory

// Not a timing: the bytes each lock costs where it is embedded, as counters.
void memoryPerLock(State& state) {
    for (auto _ : state) {}
    state.counters["MutexByte"] = sizeof(MutexByte);
    state.counters["QueueingMutex"] = sizeof(QueueingMutex);
    state.counters["pthread_mutex_t"] = sizeof(pthread_mutex_t);
    state.counters["std_mutex"] = sizeof(std::mutex);
    state.counters["absl_Mutex"] = sizeof(absl::Mutex);
}
BENCHMARK(memoryPerLock)->Name("bytes_per_lock")->Iterations(1);

}  // namespace
