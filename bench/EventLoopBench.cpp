// The event loop against libuv and libevent, the loops a server would
// otherwise be built on: the timer heap alone, and work posted to a loop that
// runs on another thread. Every loop waits in epoll and is woken through an
// eventfd, as a server's are: ours by enableFastPoll() below, the peers by
// default on Linux.
//
// Timers: the peers read only real clocks, so their expiry is waited for.
// After the adds and cancels the thread sleeps, untimed, until every deadline
// has passed; then one non-blocking pass of the loop runs them all. Ours and
// std::multimap are handed a `now` past the last deadline instead. Only the
// calls into the timer code are timed (manual time). Every contender gets the
// same deadlines, whole milliseconds from one seed, and every timer object
// exists before the clock runs: std::multimap reuses its nodes through node
// handles, as a user who preallocates would.

#include <event2/event.h>
#include <event2/thread.h>
#include <sys/time.h>
#include <uv.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/SelfPipe.h"
#include "util/Thread.h"
#include "util/TimeoutHeap.h"

namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

// What a server runs; before any loop exists.
const bool fast_poll = EventLoop::enableFastPoll();

// Once, before the first loop or event base of any contender.
void setUp() {
    static const bool once = [] {
        Logger::initialize();
        // The loop logs a debug line for every post that waits.
        Logger::setChannelLevel(nullptr, "WARN", nullptr);
        // Posting to a libevent base from another thread needs its locks.
        evthread_use_pthreads();
        return true;
    }();
    (void)once;
}

const char* ourPollMethod() {
    if (!fast_poll) return "poll + pipe";
    return SelfPipe::fastVersionEnabled() ? "epoll + eventfd" : "epoll + pipe";
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

uint64_t steadyMs() {
    return uint64_t(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
            .count());
}

// A libevent base for one thread: its timers pay no lock, like the others.
event_base* unlockedEventBase() {
    event_config* cfg = event_config_new();
    event_config_set_flag(cfg, EVENT_BASE_FLAG_NOLOCK);
    event_base* base = event_base_new_with_config(cfg);
    event_config_free(cfg);
    return base;
}

timeval msToTimeval(uint64_t ms) {
    return timeval{time_t(ms / 1000), suseconds_t(ms % 1000 * 1000)};
}

// ---------------------------------------------------------------- add, cancel, expire

// Deadlines fall in this window. Short, since the peers' expiry has to be
// waited for in real time.
constexpr uint32_t SPREAD_MS = 100;
// libevent reads the coarse clock, which lags by up to a tick.
constexpr auto COARSE_CLOCK_LAG = std::chrono::milliseconds(12);

const std::vector<uint32_t>& deadlinesMs(size_t n) {
    static std::map<size_t, std::vector<uint32_t>> cache;
    std::vector<uint32_t>& v = cache[n];
    if (v.empty()) {
        std::mt19937 rng(42);
        v.resize(n);
        for (uint32_t& ms : v) ms = 1 + rng() % SPREAD_MS;
    }
    return v;
}

// N timers are added, every other one is cancelled and the rest expire.
bool checkFired(State& state, uint64_t fired, size_t n) {
    if (fired == (n + 1) / 2) return true;
    state.SkipWithError("wrong number of timers fired");
    return false;
}

// Times the three phases apart, so that the report says where time goes.
class Phases {
public:
    enum { ADD, CANCEL, EXPIRE };
    void start() {
        _iteration = {};
        resume();
    }
    void resume() { _t = Clock::now(); }
    void end(int phase) {
        const Clock::duration d = Clock::now() - _t;
        _spent[phase] += d;
        _iteration += d;
    }
    void endIteration(State& state) { state.SetIterationTime(seconds(_iteration)); }
    // Nanoseconds per timer that each phase touched.
    void report(State& state, size_t n) {
        const double iters = double(state.iterations());
        const double touched[] = {double(n), double(n / 2), double((n + 1) / 2)};
        const char* names[] = {"add_ns", "cancel_ns", "expire_ns"};
        for (int i = 0; i < 3; ++i) {
            state.counters[names[i]] = seconds(_spent[i]) * 1e9 / (iters * touched[i]);
        }
        state.SetItemsProcessed(int64_t(state.iterations() * n));
    }

private:
    Clock::time_point _t;
    Clock::duration _iteration{};
    Clock::duration _spent[3]{};
};

class CountingTimeout : public OneShotTimeout {
public:
    void callback() override { ++*_fired; }
    uint64_t* _fired = nullptr;
};

void addCancelExpireTarvex(State& state) {
    setUp();
    const size_t n = size_t(state.range(0));
    const std::vector<uint32_t>& ms = deadlinesMs(n);
    std::unique_ptr<CountingTimeout[]> timers(new CountingTimeout[n]);
    uint64_t fired = 0;
    for (size_t i = 0; i < n; ++i) timers[i]._fired = &fired;
    TimeoutHeap heap;
    Phases phases;
    for (auto _ : state) {
        fired = 0;
        phases.start();
        const MonotonicTime start = MonotonicTime::now();
        for (size_t i = 0; i < n; ++i) heap.add(&timers[i], start, Interval(ms[i]));
        phases.end(Phases::ADD);
        phases.resume();
        for (size_t i = 1; i < n; i += 2) heap.remove(&timers[i]);
        phases.end(Phases::CANCEL);
        phases.resume();
        // A `now` past the last deadline: nothing is waited for.
        MonotonicTime now = start + Interval(SPREAD_MS);
        heap.runExpiredTimeouts(now);
        phases.end(Phases::EXPIRE);
        phases.endIteration(state);
        if (!checkFired(state, fired, n) || !heap.empty()) break;
    }
    for (size_t i = 0; i < n; ++i) heap.remove(&timers[i]);
    phases.report(state, n);
}

void countUv(uv_timer_t* t) { ++*static_cast<uint64_t*>(t->data); }

// Closes every handle and the loop.
void closeUvLoop(uv_loop_t* loop, uv_timer_t* timers, size_t n) {
    for (size_t i = 0; i < n; ++i) uv_close(reinterpret_cast<uv_handle_t*>(&timers[i]), nullptr);
    uv_run(loop, UV_RUN_DEFAULT);
    uv_loop_close(loop);
}

void addCancelExpireLibuv(State& state) {
    setUp();
    const size_t n = size_t(state.range(0));
    const std::vector<uint32_t>& ms = deadlinesMs(n);
    uint64_t fired = 0;
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::unique_ptr<uv_timer_t[]> timers(new uv_timer_t[n]);
    for (size_t i = 0; i < n; ++i) {
        uv_timer_init(&loop, &timers[i]);
        timers[i].data = &fired;
    }
    Phases phases;
    for (auto _ : state) {
        fired = 0;
        phases.start();
        // Deadlines count from the loop's cached time, as in a callback.
        uv_update_time(&loop);
        const uint64_t start = uv_now(&loop);
        for (size_t i = 0; i < n; ++i) uv_timer_start(&timers[i], countUv, ms[i], 0);
        phases.end(Phases::ADD);
        phases.resume();
        for (size_t i = 1; i < n; i += 2) uv_timer_stop(&timers[i]);
        phases.end(Phases::CANCEL);
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            uv_update_time(&loop);
        } while (uv_now(&loop) <= start + SPREAD_MS);
        phases.resume();
        uv_run(&loop, UV_RUN_NOWAIT);
        phases.end(Phases::EXPIRE);
        phases.endIteration(state);
        if (!checkFired(state, fired, n)) break;
    }
    closeUvLoop(&loop, timers.get(), n);
    phases.report(state, n);
}

void countEvent(evutil_socket_t, short, void* fired) { ++*static_cast<uint64_t*>(fired); }

void addCancelExpireLibevent(State& state) {
    setUp();
    const size_t n = size_t(state.range(0));
    const std::vector<uint32_t>& ms = deadlinesMs(n);
    uint64_t fired = 0;
    event_base* base = unlockedEventBase();
    std::vector<event*> timers(n);
    for (event*& e : timers) e = evtimer_new(base, countEvent, &fired);
    Phases phases;
    for (auto _ : state) {
        fired = 0;
        phases.start();
        for (size_t i = 0; i < n; ++i) {
            const timeval tv = msToTimeval(ms[i]);
            evtimer_add(timers[i], &tv);
        }
        phases.end(Phases::ADD);
        phases.resume();
        for (size_t i = 1; i < n; i += 2) evtimer_del(timers[i]);
        phases.end(Phases::CANCEL);
        std::this_thread::sleep_for(std::chrono::milliseconds(SPREAD_MS) + COARSE_CLOCK_LAG);
        phases.resume();
        event_base_loop(base, EVLOOP_NONBLOCK);
        phases.end(Phases::EXPIRE);
        phases.endIteration(state);
        if (!checkFired(state, fired, n)) break;
    }
    for (event* e : timers) event_free(e);
    event_base_free(base);
    phases.report(state, n);
}

// A timer on a std::multimap: the entry's node is kept while it is off the
// map, so that no operation allocates.
struct MapTimer;
using TimerMap = std::multimap<uint64_t, MapTimer*>;
struct MapTimer {
    void (*callback)(MapTimer*) = nullptr;
    uint64_t* fired = nullptr;
    uint64_t intervalMs = 0;
    TimerMap::iterator pos;
    TimerMap::node_type node;
};

void countMapTimer(MapTimer* t) { ++*t->fired; }

// Gives every timer its node.
void makeNodes(TimerMap& map, MapTimer* timers, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        timers[i].node = map.extract(map.emplace(0, &timers[i]));
    }
}

void addCancelExpireMultimap(State& state) {
    setUp();
    const size_t n = size_t(state.range(0));
    const std::vector<uint32_t>& ms = deadlinesMs(n);
    uint64_t fired = 0;
    TimerMap map;
    std::unique_ptr<MapTimer[]> timers(new MapTimer[n]);
    for (size_t i = 0; i < n; ++i) {
        timers[i].callback = countMapTimer;
        timers[i].fired = &fired;
    }
    makeNodes(map, timers.get(), n);
    Phases phases;
    for (auto _ : state) {
        fired = 0;
        phases.start();
        const uint64_t start = steadyMs();
        for (size_t i = 0; i < n; ++i) {
            MapTimer& t = timers[i];
            t.node.key() = start + ms[i];
            t.pos = map.insert(std::move(t.node));
        }
        phases.end(Phases::ADD);
        phases.resume();
        for (size_t i = 1; i < n; i += 2) timers[i].node = map.extract(timers[i].pos);
        phases.end(Phases::CANCEL);
        phases.resume();
        const uint64_t now = start + SPREAD_MS;
        while (!map.empty() && map.begin()->first <= now) {
            TimerMap::node_type node = map.extract(map.begin());
            MapTimer* t = node.mapped();
            t->node = std::move(node);
            t->callback(t);
        }
        phases.end(Phases::EXPIRE);
        phases.endIteration(state);
        if (!checkFired(state, fired, n) || !map.empty()) break;
    }
    phases.report(state, n);
}

// Few iterations: each of a peer's waits for its deadlines.
#define TIMER_BENCHMARK(fn, name, n, iterations) \
    BENCHMARK(fn)                                \
        ->Name(name)                             \
        ->Arg(n)                                 \
        ->UseManualTime()                        \
        ->Iterations(iterations)                 \
        ->Unit(benchmark::kMillisecond)

TIMER_BENCHMARK(addCancelExpireTarvex, "timers_add_cancel_expire_1e5/tarvex", 100000, 10);
TIMER_BENCHMARK(addCancelExpireLibuv, "timers_add_cancel_expire_1e5/libuv", 100000, 10);
TIMER_BENCHMARK(addCancelExpireLibevent, "timers_add_cancel_expire_1e5/libevent", 100000, 10);
TIMER_BENCHMARK(addCancelExpireMultimap, "timers_add_cancel_expire_1e5/std_multimap", 100000, 10);
TIMER_BENCHMARK(addCancelExpireTarvex, "timers_add_cancel_expire_1e6/tarvex", 1000000, 3);
TIMER_BENCHMARK(addCancelExpireLibuv, "timers_add_cancel_expire_1e6/libuv", 1000000, 3);
TIMER_BENCHMARK(addCancelExpireLibevent, "timers_add_cancel_expire_1e6/libevent", 1000000, 3);
TIMER_BENCHMARK(addCancelExpireMultimap, "timers_add_cancel_expire_1e6/std_multimap", 1000000, 3);

// ---------------------------------------------------------------- periodic timers

// Timers that re-arm themselves at every expiry, with periods of 1 to
// REARM_MAX_MS: each round sleeps ROUND, then one pass runs what is due.
// Our batch takes everything due within 170 ms, so each of our passes runs
// every timer; a peer's runs what its clock says is due. The time is scaled
// to REARM_EXPIRIES expirations.
constexpr size_t REARM_TIMERS = 1000;
constexpr uint32_t REARM_MAX_MS = 8;
constexpr auto ROUND = std::chrono::milliseconds(2);
constexpr uint64_t REARM_EXPIRIES = 20 * REARM_TIMERS;

const std::vector<uint32_t>& periodsMs() {
    static const std::vector<uint32_t> v = [] {
        std::mt19937 rng(43);
        std::vector<uint32_t> p(REARM_TIMERS);
        for (uint32_t& ms : p) ms = 1 + rng() % REARM_MAX_MS;
        return p;
    }();
    return v;
}

// Runs rounds of `pass` until REARM_EXPIRIES timers have fired.
template <class Pass>
void rearmRounds(State& state, uint64_t& fired, Pass pass) {
    uint64_t total = 0;
    uint64_t passes = 0;
    for (auto _ : state) {
        fired = 0;
        Clock::duration busy{};
        while (fired < REARM_EXPIRIES) {
            std::this_thread::sleep_for(ROUND);
            const Clock::time_point t0 = Clock::now();
            pass();
            busy += Clock::now() - t0;
            ++passes;
        }
        total += fired;
        state.SetIterationTime(seconds(busy) * double(REARM_EXPIRIES) / double(fired));
    }
    state.counters["fired_per_pass"] = double(total) / double(passes);
    state.SetItemsProcessed(int64_t(state.iterations() * REARM_EXPIRIES));
}

// Left nonzero, the interval schedules the timer again.
class RearmingTimeout : public Timeout {
public:
    void when_expired(Interval*) override { ++*_fired; }
    uint64_t* _fired = nullptr;
};

void rearmTarvex(State& state) {
    setUp();
    const std::vector<uint32_t>& ms = periodsMs();
    uint64_t fired = 0;
    std::unique_ptr<RearmingTimeout[]> timers(new RearmingTimeout[REARM_TIMERS]);
    TimeoutHeap heap;
    const MonotonicTime start = MonotonicTime::now();
    for (size_t i = 0; i < REARM_TIMERS; ++i) {
        timers[i]._fired = &fired;
        heap.add(&timers[i], start, Interval(ms[i]));
    }
    rearmRounds(state, fired, [&] {
        MonotonicTime now = MonotonicTime::now();
        heap.runExpiredTimeouts(now);
    });
    for (size_t i = 0; i < REARM_TIMERS; ++i) heap.remove(&timers[i]);
}

void rearmLibuv(State& state) {
    setUp();
    const std::vector<uint32_t>& ms = periodsMs();
    uint64_t fired = 0;
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::unique_ptr<uv_timer_t[]> timers(new uv_timer_t[REARM_TIMERS]);
    for (size_t i = 0; i < REARM_TIMERS; ++i) {
        uv_timer_init(&loop, &timers[i]);
        timers[i].data = &fired;
        uv_timer_start(&timers[i], countUv, ms[i], ms[i]);
    }
    rearmRounds(state, fired, [&] { uv_run(&loop, UV_RUN_NOWAIT); });
    closeUvLoop(&loop, timers.get(), REARM_TIMERS);
}

void rearmLibevent(State& state) {
    setUp();
    const std::vector<uint32_t>& ms = periodsMs();
    uint64_t fired = 0;
    event_base* base = unlockedEventBase();
    std::vector<event*> timers(REARM_TIMERS);
    for (size_t i = 0; i < REARM_TIMERS; ++i) {
        timers[i] = event_new(base, -1, EV_PERSIST, countEvent, &fired);
        const timeval tv = msToTimeval(ms[i]);
        event_add(timers[i], &tv);
    }
    rearmRounds(state, fired, [&] { event_base_loop(base, EVLOOP_NONBLOCK); });
    for (event* e : timers) event_free(e);
    event_base_free(base);
}

void rearmMapTimer(MapTimer* t) { ++*t->fired; }

void rearmMultimap(State& state) {
    setUp();
    const std::vector<uint32_t>& ms = periodsMs();
    uint64_t fired = 0;
    TimerMap map;
    std::unique_ptr<MapTimer[]> timers(new MapTimer[REARM_TIMERS]);
    makeNodes(map, timers.get(), REARM_TIMERS);
    const uint64_t start = steadyMs();
    for (size_t i = 0; i < REARM_TIMERS; ++i) {
        MapTimer& t = timers[i];
        t.callback = rearmMapTimer;
        t.fired = &fired;
        t.intervalMs = ms[i];
        t.node.key() = start + ms[i];
        t.pos = map.insert(std::move(t.node));
    }
    rearmRounds(state, fired, [&] {
        const uint64_t now = steadyMs();
        while (map.begin()->first <= now) {
            TimerMap::node_type node = map.extract(map.begin());
            MapTimer* t = node.mapped();
            t->callback(t);
            node.key() = now + t->intervalMs;
            t->pos = map.insert(std::move(node));
        }
    });
}

#define REARM_BENCHMARK(fn, name) \
    BENCHMARK(fn)->Name(name)->UseManualTime()->Iterations(5)->Unit(benchmark::kMicrosecond)

REARM_BENCHMARK(rearmTarvex, "timers_rearm_on_every_event/tarvex");
REARM_BENCHMARK(rearmLibuv, "timers_rearm_on_every_event/libuv");
REARM_BENCHMARK(rearmLibevent, "timers_rearm_on_every_event/libevent");
REARM_BENCHMARK(rearmMultimap, "timers_rearm_on_every_event/std_multimap");

// ---------------------------------------------------------------- posting

// Where the benchmark thread waits until the loop has run a batch of posts.
// Only the loop thread counts; the posts order `target` before it.
class Countdown {
public:
    void arm(uint64_t n) { _target = _ran + n; }
    void one() {
        if (++_ran != _target) return;
        std::lock_guard<std::mutex> lock(_m);
        _done = true;
        _cv.notify_one();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(_m);
        _cv.wait(lock, [this] { return _done; });
        _done = false;
    }

private:
    uint64_t _ran = 0;
    uint64_t _target = ~uint64_t(0);
    std::mutex _m;
    std::condition_variable _cv;
    bool _done = false;
};

class CountingActor : public InThreadActor {
public:
    void callback() override {
        ++_runs;
        if (_countdown != nullptr) _countdown->one();
    }
    uint64_t _runs = 0;
    Countdown* _countdown = nullptr;
};

class TarvexContender {
public:
    TarvexContender(size_t slots, Countdown* countdown) : _actors(new CountingActor[slots]) {
        for (size_t i = 0; i < slots; ++i) _actors[i]._countdown = countdown;
        _loop.startThreadAndLoop(&_thread);
    }
    ~TarvexContender() {
        _loop.terminate();
        _thread.join();
    }
    static const char* label() { return ourPollMethod(); }
    void postAsync(size_t slot) { _loop.runInThreadAsync(&_actors[slot]); }
    void postAndWait() { _loop.runInThread(&_waiter); }

private:
    std::unique_ptr<CountingActor[]> _actors;
    CountingActor _waiter;
    EventLoop _loop;
    ThreadFunction _thread{[this] { _loop.run(); }, "tarvex-loop"};
};

// What a libuv or libevent user writes to post work: a mutex-protected
// intrusive queue that the loop drains whole when woken.
struct PeerItem {
    PeerItem* next = nullptr;
    Countdown* countdown = nullptr;
    bool wait = false;
    bool done = false;
};

class PeerQueue {
public:
    void push(PeerItem* item) {
        std::lock_guard<std::mutex> lock(_m);
        item->next = nullptr;
        item->done = false;
        *_tail = item;
        _tail = &item->next;
    }
    // Loop thread.
    void drain() {
        PeerItem* item;
        {
            std::lock_guard<std::mutex> lock(_m);
            item = _head;
            _head = nullptr;
            _tail = &_head;
        }
        while (item != nullptr) {
            PeerItem* next = item->next;
            ++_runs;
            if (item->countdown != nullptr) item->countdown->one();
            if (item->wait) {
                {
                    std::lock_guard<std::mutex> lock(_m);
                    item->done = true;
                }
                _doneCond.notify_all();
            }
            item = next;
        }
    }
    void waitDone(PeerItem* item) {
        std::unique_lock<std::mutex> lock(_m);
        _doneCond.wait(lock, [item] { return item->done; });
    }

private:
    std::mutex _m;
    std::condition_variable _doneCond;
    PeerItem* _head = nullptr;
    PeerItem** _tail = &_head;
    uint64_t _runs = 0;
};

// Posting and waiting, and the slots, are the same for both peers: only
// the wake-up differs.
template <class Self>
class PeerContender {
public:
    PeerContender(size_t slots, Countdown* countdown) : _items(new PeerItem[slots]) {
        for (size_t i = 0; i < slots; ++i) _items[i].countdown = countdown;
        _waiter.wait = true;
    }
    void postAsync(size_t slot) {
        _queue.push(&_items[slot]);
        static_cast<Self*>(this)->wake();
    }
    void postAndWait() {
        _queue.push(&_waiter);
        static_cast<Self*>(this)->wake();
        _queue.waitDone(&_waiter);
    }

protected:
    std::unique_ptr<PeerItem[]> _items;
    PeerItem _waiter;
    PeerQueue _queue;
};

// uv_async_send coalesces: while a wake-up is pending, a send writes nothing.
class LibuvContender : public PeerContender<LibuvContender> {
public:
    LibuvContender(size_t slots, Countdown* countdown) : PeerContender(slots, countdown) {
        uv_loop_init(&_loop);
        uv_async_init(&_loop, &_wake,
                      [](uv_async_t* a) { static_cast<LibuvContender*>(a->data)->_queue.drain(); });
        _wake.data = this;
        uv_async_init(&_loop, &_stop, [](uv_async_t* a) {
            auto* self = static_cast<LibuvContender*>(a->data);
            uv_close(reinterpret_cast<uv_handle_t*>(&self->_wake), nullptr);
            uv_close(reinterpret_cast<uv_handle_t*>(&self->_stop), nullptr);
        });
        _stop.data = this;
        _thread.go();
        postAndWait();  // the loop runs
    }
    ~LibuvContender() {
        uv_async_send(&_stop);
        _thread.join();
        uv_loop_close(&_loop);
    }
    static const char* label() { return "epoll + eventfd"; }
    void wake() { uv_async_send(&_wake); }

private:
    uv_loop_t _loop;
    uv_async_t _wake;
    uv_async_t _stop;
    ThreadFunction _thread{[this] { uv_run(&_loop, UV_RUN_DEFAULT); }, "libuv-loop"};
};

// A user event on a locked base; activating one that is already active
// writes nothing, and the base writes its eventfd once per pending wake-up.
class LibeventContender : public PeerContender<LibeventContender> {
public:
    LibeventContender(size_t slots, Countdown* countdown) : PeerContender(slots, countdown) {
        _base = event_base_new();
        _wake = event_new(
            _base, -1, 0,
            [](evutil_socket_t, short, void* self) {
                static_cast<LibeventContender*>(self)->_queue.drain();
            },
            this);
        // A break before the loop starts would be lost: the loop breaks itself.
        _stop = event_new(
            _base, -1, 0,
            [](evutil_socket_t, short, void* base) {
                event_base_loopbreak(static_cast<event_base*>(base));
            },
            _base);
        _thread.go();
        postAndWait();
    }
    ~LibeventContender() {
        event_active(_stop, EV_READ, 0);
        _thread.join();
        event_free(_wake);
        event_free(_stop);
        event_base_free(_base);
    }
    static const char* label() { return "epoll + eventfd"; }
    void wake() { event_active(_wake, EV_READ, 0); }

private:
    event_base* _base;
    event* _wake;
    event* _stop;
    ThreadFunction _thread{[this] { event_base_loop(_base, EVLOOP_NO_EXIT_ON_EMPTY); },
                           "libevent-loop"};
};

// One post at a time, the poster waiting until the loop thread has run it.
template <class Contender>
void postWaitLatency(State& state) {
    setUp();
    Contender c(0, nullptr);
    for (auto _ : state) c.postAndWait();
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetLabel(Contender::label());
}
BENCHMARK(postWaitLatency<TarvexContender>)->Name("post_wait_latency/tarvex")->UseRealTime();
BENCHMARK(postWaitLatency<LibuvContender>)->Name("post_wait_latency/libuv")->UseRealTime();
BENCHMARK(postWaitLatency<LibeventContender>)->Name("post_wait_latency/libevent")->UseRealTime();

constexpr size_t ASYNC_POSTS = 100000;

// Threads that each post their share of the slots when released, started
// before the clock runs.
class PosterGroup {
public:
    PosterGroup(int count, const std::function<void(size_t)>& post) {
        for (int p = 0; p < count; ++p) {
            const size_t from = ASYNC_POSTS * size_t(p) / size_t(count);
            const size_t to = ASYNC_POSTS * size_t(p + 1) / size_t(count);
            _threads.push_back(std::make_unique<ThreadFunction>(
                [this, from, to, post] {
                    uint64_t seen = 0;
                    for (;;) {
                        {
                            std::unique_lock<std::mutex> lock(_m);
                            _cv.wait(lock, [&] { return _generation != seen; });
                            seen = _generation;
                            if (_stopping) return;
                        }
                        for (size_t i = from; i < to; ++i) post(i);
                    }
                },
                "poster%d", p));
            _threads.back()->go();
        }
    }
    ~PosterGroup() {
        {
            std::lock_guard<std::mutex> lock(_m);
            _stopping = true;
            ++_generation;
        }
        _cv.notify_all();
        for (auto& t : _threads) t->join();
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(_m);
            ++_generation;
        }
        _cv.notify_all();
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    uint64_t _generation = 0;
    bool _stopping = false;
    std::vector<std::unique_ptr<ThreadFunction>> _threads;
};

// ASYNC_POSTS posts, none waiting, each with its own slot; done when the
// loop has run them all. With one poster, the benchmark thread posts.
template <class Contender>
void postAsyncThroughput(State& state) {
    setUp();
    const int posters = int(state.range(0));
    Countdown countdown;
    Contender c(ASYNC_POSTS, &countdown);
    std::unique_ptr<PosterGroup> group;
    if (posters > 1)
        group = std::make_unique<PosterGroup>(posters, [&c](size_t i) { c.postAsync(i); });
    for (auto _ : state) {
        countdown.arm(ASYNC_POSTS);
        if (group) {
            group->release();
        } else {
            for (size_t i = 0; i < ASYNC_POSTS; ++i) c.postAsync(i);
        }
        countdown.wait();
    }
    group.reset();
    state.SetItemsProcessed(int64_t(state.iterations() * ASYNC_POSTS));
    state.SetLabel(Contender::label());
}

#define POST_ASYNC_BENCHMARK(contender, name, posters) \
    BENCHMARK(postAsyncThroughput<contender>)          \
        ->Name(name)                                   \
        ->Arg(posters)                                 \
        ->UseRealTime()                                \
        ->Unit(benchmark::kMillisecond)

POST_ASYNC_BENCHMARK(TarvexContender, "post_async_throughput_1_poster/tarvex", 1);
POST_ASYNC_BENCHMARK(LibuvContender, "post_async_throughput_1_poster/libuv", 1);
POST_ASYNC_BENCHMARK(LibeventContender, "post_async_throughput_1_poster/libevent", 1);
POST_ASYNC_BENCHMARK(TarvexContender, "post_async_throughput_4_posters/tarvex", 4);
POST_ASYNC_BENCHMARK(LibuvContender, "post_async_throughput_4_posters/libuv", 4);
POST_ASYNC_BENCHMARK(LibeventContender, "post_async_throughput_4_posters/libevent", 4);

}  // namespace
