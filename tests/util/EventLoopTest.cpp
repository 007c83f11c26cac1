#include "util/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "support/LoopThread.h"
#include "support/TestSupport.h"
#include "util/SelfPipe.h"
#include "util/SocketAddress.h"

using testsupport::LoopThread;
using testsupport::waitUntil;

namespace {

struct Pipe {
    int r = -1, w = -1;
    Pipe() {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        r = fds[0];
        w = fds[1];
    }
    ~Pipe() {
        if (r >= 0) close(r);
        if (w >= 0) close(w);
    }
    void put(const char* s = "x") const { ASSERT_EQ(write(w, s, strlen(s)), ssize_t(strlen(s))); }
    void closeWriter() { close(std::exchange(w, -1)); }
};

bool drain(PollableDescriptor fd) {
    char buf[64];
    return read(fd.fd(), buf, sizeof buf) == 0;
}

// A descriptor whose handler is a callable (by default: read, done at the
// end) and which records its events.
struct Handler : PolledFd {
    std::function<bool(PollableDescriptor)> body;
    std::atomic<int> calls{0};
    std::atomic<events_mask_t> lastRevents{0};
    std::atomic<int> eofs{0};
    bool when_events(PollableDescriptor fd) override {
        calls++;
        lastRevents = epoll_revents();
        return body ? body(fd) : drain(fd);
    }
    void after_eof(PollableDescriptor) override { eofs++; }
};

struct Tick : OneShotTimeout {
    std::atomic<int> fired{0};
    std::function<void()> body;
    void callback() override {
        fired++;
        if (body) body();
    }
};

TEST(EventLoop, ManyDescriptorsOutgrowTheFirstArrays) {
    EventLoop loop;
    constexpr int N = 70;  // past two doublings of the poll arrays
    std::vector<Pipe> pipes(N);
    std::vector<Handler> handlers(N);
    LoopThread thread(loop);
    thread.start();
    loop.runInThread([&] {
        for (int i = 0; i < N; i++) {
            loop.add(&handlers[i], PollableDescriptor(pipes[i].r));
        }
    });
    for (Pipe& p : pipes) p.put();
    ASSERT_TRUE(waitUntil(
        [&] {
            return std::all_of(handlers.begin(), handlers.end(),
                               [](const Handler& h) { return h.calls >= 1; });
        },
        10));
    // Every descriptor still finds its own slot when it goes.
    loop.runInThread([&] {
        for (int i = 0; i < N; i += 2) loop.removeActivePolledFd(&handlers[i]);
    });
    for (int i = 1; i < N; i += 2) pipes[i].closeWriter();
    ASSERT_TRUE(waitUntil([&] { return loop.descriptorCount() == 1; }, 10));  // the self-pipe
}

TEST(EventLoop, HangUpAndErrorBitsReachTheHandler) {
    EventLoop loop;
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Handler hup;
    hup.body = [](PollableDescriptor) { return true; };
    loop.add(&hup, PollableDescriptor(sv[0]));

    // A refused connect on loopback: error and hang-up on the socket.
    IPv46SocketAddress gone;
    gone.setIpv4Localhost();
    ASSERT_TRUE(ScopedPollableDescriptor(gone.make_listener(1)).localAddress(&gone));
    const PollableDescriptor s = gone.start_async_connect();
    ASSERT_TRUE(s.valid()) << strerror(errno);
    Handler err;
    err.body = [](PollableDescriptor) { return true; };
    loop.add(&err, s, PolledFd::DEFAULT_EVENTS | EPOLLOUT);

    LoopThread thread(loop);
    thread.start();
    close(sv[1]);
    ASSERT_TRUE(waitUntil([&] { return hup.eofs == 1 && err.eofs == 1; }, 10));
    EXPECT_TRUE(hup.lastRevents & EPOLLHUP) << hup.lastRevents;
    EXPECT_TRUE(err.lastRevents & EPOLLERR) << err.lastRevents;
    thread.stop();
    close(sv[0]);
    close(s.fd());
}

TEST(EventLoop, AThrottledGroupHoldsEventsBackUntilReleased) {
    EventLoop loop;
    Pipe p;
    Handler h;
    ThrottleGroup group;
    h.setThrottleGroup(&group);
    unsigned cause = 0;
    loop.add(&h, PollableDescriptor(p.r));
    LoopThread thread(loop);
    thread.start();
    group.maybe_throttle(EPOLLIN, &cause);
    p.put();
    // Held back: the loop masks the descriptor's input instead of calling it.
    ASSERT_TRUE(waitUntil(
        [&] {
            bool held = false;
            loop.runInThread([&] { held = h._throttled_events != 0; });
            return held;
        },
        10));
    loop.runInThread([&] { EXPECT_EQ(h.ourEvents() & EPOLLIN, 0u); });
    EXPECT_EQ(h.calls, 0);
    loop.runInThread([&] { group.maybe_unthrottle(EPOLLIN, &cause); });
    ASSERT_TRUE(waitUntil([&] { return h.calls == 1; }, 10));
    loop.runInThread([&] { EXPECT_NE(h.ourEvents() & EPOLLIN, 0u); });
    EXPECT_EQ(group.mask(), 0u);
    // Frozen: masked for good.
    loop.runInThread([&] { group.freeze(); });
    p.put();
    loop.runInThread([] {});
    loop.runInThread([&] { EXPECT_EQ(h.ourEvents(), 0u); });
    EXPECT_EQ(h.calls, 1);
    EXPECT_EQ(h.group(), &ThrottleGroup::frozen_events);
    loop.runInThread([&] { loop.removeActivePolledFd(&h); });
}

TEST(EventLoop, AHandlerThatRemovesAnotherDescriptorSpareItItsCall) {
    EventLoop loop;
    Pipe a, b;
    Handler ha, hb;
    ha.body = [&](PollableDescriptor fd) {
        if (hb.isActive()) loop.removeActivePolledFd(&hb);
        return drain(fd);
    };
    hb.body = [&](PollableDescriptor fd) {
        if (ha.isActive()) loop.removeActivePolledFd(&ha);
        return drain(fd);
    };
    loop.add(&ha, PollableDescriptor(a.r));
    loop.add(&hb, PollableDescriptor(b.r));
    a.put();
    b.put();
    // Both are readable before the loop's first wait: one batch.
    LoopThread thread(loop);
    thread.start();
    ASSERT_TRUE(waitUntil([&] { return ha.calls + hb.calls >= 1; }, 10));
    loop.runInThread([] {});
    // Poll may deliver the survivor's event twice (its handler moved the
    // array); the removed one never gets a call.
    EXPECT_TRUE(ha.calls == 0 || hb.calls == 0) << ha.calls << " " << hb.calls;
    thread.stop();
    Handler* left = ha.isActive() ? &ha : &hb;
    loop.removeActivePolledFd(left);
}

TEST(EventLoop, TerminatingTwiceFromAnotherThreadEndsItOnce) {
    EventLoop loop;
    LoopThread thread(loop);
    thread.start();
    EXPECT_TRUE(loop.isRunning());
    loop.terminateNowait();
    loop.terminateNowait();
    ASSERT_TRUE(waitUntil([&] { return !loop.isRunning(); }, 10));
}

TEST(EventLoop, ATerminateExceptionEndsTheLoopAfterTheZeroTimeouts) {
    EventLoop loop;
    Tick thrower, promise;
    thrower.body = [&] {
        loop.add(&promise, Interval(0));
        throw Thread::TerminateException("enough");
    };
    loop.add(&thrower, Interval(0));
    LoopThread thread(loop);
    thread.go();
    ASSERT_TRUE(waitUntil([&] { return promise.fired == 1; }, 10));
    thread.stop();
    ASSERT_TRUE(thread.thrown());
    EXPECT_THROW(std::rethrow_exception(thread.thrown()), Thread::TerminateException);
    EXPECT_EQ(promise.fired, 1);
}

TEST(EventLoop, ActorsAndDescriptorsTakeTurns) {
    EventLoop loop;
    loop.setMaxActorRunsPerCycle(1);
    Pipe p;
    ASSERT_EQ(fcntl(p.r, F_SETFL, O_NONBLOCK), 0);
    std::vector<int> order;  // 0: the descriptor's handler
    Handler h;
    h.body = [&](PollableDescriptor fd) {
        order.push_back(0);
        return drain(fd);
    };
    loop.add(&h, PollableDescriptor(p.r));
    LoopThread thread(loop);
    thread.start();
    // The first actor holds the loop while three more and an event arrive.
    std::atomic<bool> release{false};
    loop.runInThreadAsync([&] {
        while (!release) Thread::yieldCpu();
    });
    for (int i = 1; i <= 3; i++) loop.runInThreadAsync([&order, i] { order.push_back(i); });
    p.put();
    release = true;
    ASSERT_TRUE(waitUntil([&] { return h.calls == 1; }, 10));
    loop.runInThread([] {});
    ASSERT_EQ(order.size(), 4u);
    // One actor a cycle: the descriptor is served before the flood is over.
    EXPECT_NE(order.back(), 0);

    // An actor can have a descriptor served right after it.
    order.clear();
    loop.runInThread([&] {
        EXPECT_TRUE(InThreadActor::triggerAfterwards(&loop, &h));
        order.push_back(1);
    });
    loop.runInThread([] {});
    EXPECT_EQ(order, (std::vector<int>{1, 0}));
    // A descriptor asked to run again: with no timers, at the next wake-up.
    loop.runInThread([&] { loop.triggerNextTime(&h); });
    loop.runInThread([] {});
    ASSERT_TRUE(waitUntil([&] { return h.calls == 3; }, 10));
    loop.runInThread([&] { loop.removeActivePolledFd(&h); });
}

TEST(EventLoop, APolledSocketWritesWhatItTakesLaterOrDropsItWhenThePeerLeaves) {
    struct Quiet : PolledSocket {
        using PolledSocket::PolledSocket;
        bool when_readable(PollableDescriptor) override { return false; }
    };
    for (const bool peerLeaves : {false, true}) {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        Quiet sock{PollableDescriptor(sv[0])};
        EventLoop loop;
        LoopThread thread(loop);
        thread.start();
        loop.addFromAnywhere(&sock);
        // More than the socket buffer holds: the rest waits.
        const std::string big(4 << 20, 'z');
        sock.write(big.data(), big.size());
        if (peerLeaves) {
            close(sv[1]);
            sock.flush();  // returns: nothing can go any more
            // The loop lives on, and the hang-up finished the socket.
            bool active = true;
            loop.runInThread([&] { active = sock._pfd.isActive(); });
            EXPECT_FALSE(active);
        } else {
            std::string got;
            std::thread reader([&] {
                char buf[65536];
                for (ssize_t n;
                     got.size() < big.size() && (n = read(sv[1], buf, sizeof buf)) > 0;) {
                    got.append(buf, size_t(n));
                }
            });
            sock.flush();
            reader.join();
            EXPECT_EQ(got, big);
            loop.removeFromAnywhere(&sock);
            close(sv[1]);
        }
        thread.stop();
        close(sv[0]);
    }
}

TEST(EventLoop, ACommandConsumerTakesWholeLinesAndHearsTheClose) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    struct Lines : SocketCommandConsumer {
        using SocketCommandConsumer::SocketCommandConsumer;
        std::vector<std::string> lines;  // loop thread only
        std::atomic<int> closedWith{-1};
        size_t parseCommands(const Str& input) override {
            const size_t nl = input.find('\n');
            if (nl == Str::npos) return 0;  // wait for the rest
            lines.push_back(input.substr(0, nl));
            return nl + 1;
        }
        void socketClosed(int errnum) override { closedWith = errnum; }
    } consumer{PollableDescriptor(sv[0])};
    EventLoop loop;
    LoopThread thread(loop);
    thread.start();
    loop.addFromAnywhere(&consumer);
    // More than one read's worth, and a line cut across two writes.
    std::string text;
    for (int i = 0; i < 100; i++) text += "command " + std::to_string(i) + "\n";
    ASSERT_EQ(write(sv[1], text.data(), text.size()), ssize_t(text.size()));
    ASSERT_EQ(write(sv[1], "half", 4), 4);
    ASSERT_EQ(write(sv[1], "-line\ntail", 10), 10);
    close(sv[1]);
    ASSERT_TRUE(waitUntil([&] { return consumer.closedWith != -1; }, 10));
    EXPECT_EQ(consumer.closedWith, 0);
    thread.stop();
    ASSERT_EQ(consumer.lines.size(), 101u);
    EXPECT_EQ(consumer.lines[99], "command 99");
    EXPECT_EQ(consumer.lines[100], "half-line");
    EXPECT_EQ(std::string(consumer._input), "tail");  // never a whole command
    close(sv[0]);
}

TEST(SelfPipe, TriggersCoalesceAndAFloodNeverBlocksTheWriter) {
    struct Counting : SelfPipe {
        int rounds = 0;
        bool when_triggered() override {
            rounds++;
            return true;
        }
    } pipe;
    pipe.setup();
    // Far more triggers than a pipe holds: none blocks.
    for (int i = 0; i < 100000; i++) pipe.trigger();
    pipe.pollForTrigger();
    EXPECT_EQ(pipe.rounds, 1);
    EXPECT_FALSE(pipe.when_events(PipeReadHandle(pipe.readSide())));
    EXPECT_EQ(pipe.rounds, 1) << "nothing pending: no round";
    EXPECT_EQ(pipe.isEventfd(), EventLoop::usingEpoll());
}

}  // namespace
