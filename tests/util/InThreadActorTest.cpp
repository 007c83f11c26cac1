#include "util/InThreadActor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "support/LoopThread.h"
#include "support/TestSupport.h"
#include "support/WriteCounter.h"
#include "util/EventLoop.h"
#include "util/SelfPipe.h"

using testsupport::LoopThread;
using testsupport::waitUntil;

namespace {

TEST(InThreadActor, WithTheLoopDownTheCallerRunsTheWorkUnderTheClaim) {
    EventLoop loop;
    // Nested: an actor posting to its own loop runs the inner one at once.
    std::vector<int> order;
    loop.runInThread([&] {
        order.push_back(1);
        loop.runInThread([&] { order.push_back(2); });
        order.push_back(3);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    InThreadFunction<void> refused([&] { order.push_back(4); });
    EXPECT_FALSE(loop.runInThreadOrFail(&refused));
    EXPECT_EQ(order.size(), 3u);

    unsigned zero = 0;
    loop.runInThreadWorkUntilZero(&zero);  // returns at once

    // Off the loop, the wait ends when actors run by others bring it down.
    unsigned pending = 2;
    std::atomic<bool> returned{false};
    ThreadFunction waiter(
        [&] {
            loop.runInThreadWorkUntilZero(&pending);
            returned = true;
        },
        "Waiter");
    waiter.go();
    // Actors run by another thread under the claim bring the count down.
    for (int i = 0; i < 2; i++) {
        EXPECT_FALSE(returned);
        loop.runInThread([&] { __atomic_sub_fetch(&pending, 1, __ATOMIC_RELEASE); });
    }
    waiter.join();
    EXPECT_TRUE(returned);
}

// With the loop down each poster runs its work under the claim; with it up,
// the loop thread does, the waiting posts blocking and the others not.
TEST(InThreadActor, EveryPostRunsOnceAndAloneUnderContention) {
    for (const bool running : {false, true}) {
        EventLoop loop;
        std::unique_ptr<LoopThread> thread;
        if (running) thread = std::make_unique<LoopThread>(loop);
        if (running) thread->start();
        constexpr int kThreads = 4, kPosts = 3000;
        std::vector<int> perPoster(kThreads, 0);  // touched under the claim only
        std::atomic<int> inside{0}, overlaps{0};  // callbacks of one loop never overlap
        std::atomic<int> wrongThread{0};
        std::vector<std::unique_ptr<ThreadFunction>> posters;
        for (int t = 0; t < kThreads; t++) {
            posters.push_back(std::make_unique<ThreadFunction>(
                [&, t] {
                    for (int i = 0; i < kPosts; i++) {
                        auto count = [&, t] {
                            if (inside++ != 0) overlaps++;
                            if (running && !(ThreadToken::self() == thread->token())) wrongThread++;
                            perPoster[t]++;
                            inside--;
                        };
                        if (running && i % 2 == 1) {
                            loop.runInThreadAsync(count);
                            continue;
                        }
                        // A waiting poster sees its work done on return.
                        int seen = -1;
                        loop.runInThread([&] {
                            count();
                            seen = perPoster[t];
                        });
                        EXPECT_GT(seen, 0);
                    }
                },
                "Poster%d", t));
        }
        for (auto& p : posters) p->go();
        for (auto& p : posters) p->join();
        loop.runInThread([] {});  // the asynchronous ones are ahead of it
        for (int t = 0; t < kThreads; t++) EXPECT_EQ(perPoster[t], kPosts) << t;
        EXPECT_EQ(wrongThread, 0);
        EXPECT_EQ(overlaps, 0) << running;
    }
}

TEST(InThreadActor, PostersWaitingWhenTheLoopStopsAreServedByTheDrain) {
    for (int round = 0; round < 20; round++) {
        EventLoop loop;
        LoopThread thread(loop);
        thread.start();
        std::atomic<bool> release{false};
        std::atomic<int> done{0};
        // The loop is held busy so that posts queue up behind the stop.
        loop.runInThreadAsync([&] {
            while (!release) Thread::yieldCpu();
        });
        std::vector<std::unique_ptr<ThreadFunction>> posters;
        for (int t = 0; t < 3; t++) {
            posters.push_back(std::make_unique<ThreadFunction>(
                [&] { loop.runInThread([&] { done++; }); }, "Waiter%d", t));
            posters.back()->go();
        }
        ASSERT_TRUE(waitUntil([&] { return loop._ita_list.empty() == false; }, 10));
        loop.terminateNowait();
        release = true;
        for (auto& p : posters) p->join();
        EXPECT_EQ(done, 3);
    }
}

TEST(InThreadActor, RunOrFailRacingTheEndNeverRunsARefusedActor) {
    for (int round = 0; round < 50; round++) {
        EventLoop loop;
        LoopThread thread(loop);
        thread.start();
        std::atomic<int> ran{0};
        std::atomic<int> accepted{0};
        std::atomic<bool> go{false};
        ThreadFunction poster(
            [&] {
                while (!go) Thread::yieldCpu();
                for (int i = 0; i < 50; i++) {
                    InThreadFunction<void> a([&] { ran++; });
                    if (loop.runInThreadOrFail(&a)) accepted++;
                }
            },
            "Racer");
        poster.go();
        go = true;
        loop.terminateNowait();
        poster.join();
        EXPECT_EQ(ran, accepted) << "round " << round;
    }
}

TEST(InThreadActor, WorkUntilZeroRunsActorsWhileTheLoopThreadWaits) {
    EventLoop loop;
    LoopThread thread(loop);
    thread.start();
    unsigned pending = 3;
    std::atomic<int> timerRan{0};
    OneShotTimeoutFunction timer([&] { timerRan++; });
    std::atomic<bool> waiting{false}, finished{false};
    loop.runInThreadAsync([&] {
        loop.add(&timer, Interval(0));
        waiting = true;
        loop.runInThreadWorkUntilZero(&pending);
        // Only actors ran in the wait: the due timer did not.
        EXPECT_EQ(timerRan, 0);
        finished = true;
    });
    ASSERT_TRUE(waitUntil([&] { return waiting.load(); }, 10));
    for (int i = 0; i < 3; i++) {
        loop.runInThreadAsync([&] { __atomic_sub_fetch(&pending, 1, __ATOMIC_RELEASE); });
    }
    ASSERT_TRUE(waitUntil([&] { return finished.load(); }, 10));
    ASSERT_TRUE(waitUntil([&] { return timerRan == 1; }, 10));
}

TEST(InThreadActor, OneSelfPipeWritePerQueuedPostAndNoneOtherwise) {
    EventLoop loop;
    LoopThread thread(loop);
    thread.start();
    int kickFd = -1;
    loop.runInThread([&] { kickFd = loop._ita_kick->writeFd(); });
    ASSERT_GE(kickFd, 0);
    auto tenPosts = [&] {
        for (int i = 0; i < 10; i++) loop.runInThread([] {});
    };
    auto writesDuring = [&](const std::function<void()>& f) {
        testsupport::WriteCounter writes(kickFd);
        f();
        return writes.count();
    };
    // Each waiting post is queued alone: exactly one write each.
    EXPECT_EQ(writesDuring(tenPosts), 10u);
    // Posted from the loop thread itself: run directly.
    EXPECT_EQ(writesDuring([&] { loop.runInThread(tenPosts); }), 1u);
    // Loop down: the caller runs the work, nothing is written anywhere.
    thread.stop();
    EXPECT_EQ(writesDuring(tenPosts), 0u);
}

TEST(InThreadActor, RemovingAQueuedActorKeepsTheListWhole) {
    InThreadActorList list;
    InThreadFunction<void> a, b, c;
    {
        ScopedLock lock(list._mutex);
        for (InThreadActor* x : {&a, &b, &c}) list.add(x);
    }
    EXPECT_TRUE(list.removeFromPendingList(&c));  // the tail
    EXPECT_FALSE(list.removeFromPendingList(&c));
    EXPECT_TRUE(list.removeFromPendingList(&a));  // the head
    bool isLast = false;
    EXPECT_EQ(list.getNext(&isLast), &b);
    EXPECT_TRUE(isLast);
    EXPECT_TRUE(list.empty());
    {
        ScopedLock lock(list._mutex);
        list.add(&a);  // the tail link is right again
    }
    EXPECT_EQ(list.getNext(&isLast), &a);
}

}  // namespace
