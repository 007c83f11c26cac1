// The server around channels: accepting, limits, the worker pool, and a
// stop that leaves nothing behind, against real clients.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <map>
#include <thread>

#include "support/TcpServer.h"
#include "util/TcpChannel.h"

using namespace testsupport;
using Strings = std::vector<std::string>;

namespace {

// Workers that wait for the test's word before they echo.
struct Gate {
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();

    Options options() {
        Options o;
        std::shared_future<void> f = future;
        o.worker = [f](TcpSyncDataBuffer& b) {
            f.wait();
            return echo(b);
        };
        return o;
    }
};

// Whether a tcp_peer.py for `port` runs.
bool peerRunning(const std::string& port) {
    for (const auto& e : std::filesystem::directory_iterator("/proc")) {
        const std::string cmdline = readFile(e.path() / "cmdline");
        if (cmdline.find("tcp_peer.py") != std::string::npos &&
            cmdline.find(std::string(1, '\0') + port + '\0') != std::string::npos) {
            return true;
        }
    }
    return false;
}

unsigned workerThreads(TcpServer& s) {
    return s.inLoop([&] { return s.loop.allWorkerThreads(); });
}

unsigned disabledReasons(TcpServer& s) {
    return s.inLoop([&] { return s.acceptor().disabledReasons(); });
}

// Short connections without workers: SubordinatesShareTheConnections.
TEST(TcpChannelLoop, ManyShortConnectionsReuseTheWorkers) {
    Journal journal;
    Options o;
    o.worker = echo;
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, o); });
    server.start();
    EXPECT_EQ(server.peer({"burst:300"}), Strings{"burst 300 ok"});
    EXPECT_TRUE(waitUntil([&] { return server.activeChannels() == 0; }, 10));
    EXPECT_EQ(server.inLoop([&] { return server.acceptor().activeCount(); }), 0u);
    // One connection at a time: workers are reused, though the next
    // client may come before the last worker is back.
    EXPECT_GE(workerThreads(server), 1u);
    EXPECT_LT(workerThreads(server), 30u);
}

TEST(TcpChannelLoop, CurlTelnetClientIsServed) {
    Journal journal;
    Options o;
    o.worker = [](TcpSyncDataBuffer& b) {
        Str line;
        if (b.readline(line)) {
            const Str reply = "you said: " + line + "\n";
            b.write(reply.data(), reply.size());
        }
        return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
    };
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, o); });
    server.start();
    const ProcessResult r =
        runProcess({"/bin/sh", "-c",
                    "printf 'hello\\n' | curl -s --max-time 10 telnet://127.0.0.1:" +
                        std::to_string(server.port)});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, "you said: hello\n");
}

TEST(TcpChannelLoop, ActiveLimitPausesTheListenerUntilAConnectionEnds) {
    Journal journal;
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, Options{}); });
    server.acceptor()._limit = 2;
    server.start();
    // Two connections held for a while: the listener leaves the loop.
    auto holder = server.peerInBackground({"hold:1", "sleep:1500"});
    EXPECT_TRUE(waitUntil(
        [&] { return disabledReasons(server) == TcpChannelAcceptor::DISABLE_FOR_ACTIVE_LIMIT; },
        10));
    // A third client is queued by the kernel, and served only once the holder leaves.
    auto third = server.peerInBackground({"send:x\\n", "recv:2"});
    EXPECT_EQ(third.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_EQ(holder.get(), Strings{});
    EXPECT_EQ(third.get(), Strings{"recv b'x\\n'"});
    EXPECT_TRUE(waitUntil([&] { return disabledReasons(server) == 0; }, 10));
}

TEST(TcpChannelLoop, PoolGrowsUnderLoadAndShrinksWhenIdle) {
    Journal journal;
    Gate gate;
    const Options o = gate.options();
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, o); });
    server.loop._idleThreadTrimInterval = Interval(50);
    server.start();
    auto peer = server.peerInBackground({"holdsend:3", "send:x", "recv:1"});
    EXPECT_TRUE(waitUntil([&] { return workerThreads(server) == 4; }, 10));
    EXPECT_EQ(server.inLoop([&] { return server.loop.activeThreadCount(); }), 4u);
    gate.promise.set_value();
    EXPECT_EQ(peer.get(), Strings{"recv b'x'"});
    // Idle threads go by halves once the period's high-water mark allows.
    EXPECT_TRUE(waitUntil([&] { return workerThreads(server) == 0; }, 10));
}

TEST(TcpChannelLoop, TrimKeepsHalfOfTheIdleThreadsAboveTheHighWaterMark) {
    const std::tuple<unsigned, unsigned, unsigned> cases[] = {
        {6, 2, 3}, {6, 6, 6}, {1, 0, 0}, {2, 1, 1}, {0, 0, 0}};
    for (const auto& [idle, maxActive, left] : cases) {
        TcpChannelLoop loop;
        for (unsigned i = 0; i < idle; i++) {
            auto* t = new TcpChannelThread();
            t->nextIdle = loop._idleThreads;
            loop._idleThreads = t;
            loop._idleThreadCount++;
            loop._allThreads++;
        }
        loop._maxActiveThreadsInTimePeriod = maxActive;
        loop._trimIdleThreads();
        EXPECT_EQ(loop.idleThreadCount(), left) << idle << "/" << maxActive;
        EXPECT_EQ(loop.allWorkerThreads(), left);
        EXPECT_EQ(loop._maxActiveThreadsInTimePeriod, 0u) << "the active count";
    }
}

TEST(TcpChannelLoop, StopsWithWorkersBlockedInReadAndWriteLeavingNothingBehind) {
    // ThreadSanitizer starts a thread of its own with the process's second.
    std::thread([] {}).join();
    const unsigned fds = openDescriptors(), threads = processThreads();
    {
        static const char big[1 << 16] = {};
        Journal journal;
        Options o;
        o.worker = [&journal](TcpSyncDataBuffer& b) {
            char c;
            if (b.read(&c, 1) != 1) return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
            const char blocked = c;
            try {
                if (blocked == 'r') {
                    journal.add("reading");
                    b.read(&c, 1);
                } else if (blocked == 'w') {
                    journal.add("writing");
                    for (;;) b.write(big, sizeof big);
                }
            } catch (const TcpChannel::Error& e) {
                journal.add(std::string(1, blocked) + " woke: " + e.what());
                throw;
            }
            b.write(&c, 1);
            return echo(b);
        };
        TcpServer server([&] { return std::make_unique<TestChannel>(journal, o); }, 2);
        server.start();
        auto reader = server.peerInBackground({"send:r", "eof"});
        auto writer = server.peerInBackground({"send:w", "sleep:500", "eof"});
        EXPECT_TRUE(
            waitUntil([&] { return journal.has("reading") && journal.has("writing"); }, 10));
        // Connections keep coming while the server stops.
        auto burst = server.peerInBackground({"burst:100000"});
        EXPECT_TRUE(waitUntil([&] { return server.acceptor().loopsUsed().size() > 20; }, 10));
        server.stop();
        EXPECT_EQ(reader.get(), Strings{"eof 0"});
        EXPECT_EQ(writer.get().size(), 1u);
        EXPECT_EQ(burst.get().at(0).substr(0, 14), "burst stopped ");
        // The blocked workers woke with the stop's error.
        EXPECT_TRUE(journal.has("r woke: Local side shutting down"));
        EXPECT_TRUE(journal.has("w woke: Local side shutting down"));
    }
    EXPECT_EQ(openDescriptors(), fds);
    EXPECT_TRUE(waitUntil([&] { return processThreads() == threads; }, 5))
        << processThreads() << " threads, " << threads << " before";
}

TEST(TcpChannelLoop, SubordinatesShareTheConnections) {
    Journal journal;
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, Options{}); }, 2);
    server.start();
    EXPECT_EQ(server.peer({"burst:40"}), Strings{"burst 40 ok"});
    std::map<Base_TcpChannelLoop*, int> perLoop;
    for (Base_TcpChannelLoop* l : server.acceptor().loopsUsed()) perLoop[l]++;
    ASSERT_EQ(perLoop.size(), 2u);
    EXPECT_EQ(perLoop.count(&server.loop), 0u);
    // Round robin, plus the peer's own first connection.
    for (auto& [loop, n] : perLoop) EXPECT_NEAR(n, 20.5, 1);
    EXPECT_TRUE(waitUntil(
        [&] { return server.inLoop([&] { return server.acceptor().activeCount(); }) == 0; }, 10));
}

TEST(TcpChannelLoop, OutOfDescriptorsPausesAcceptingForFourSeconds) {
    Journal journal;
    TcpServer server([&] { return std::make_unique<TestChannel>(journal, Options{}); });
    server.start();
    // The client connects once this process has no descriptor to spare.
    auto peer = server.peerInBackground({"delay:2000", "send:x\\n", "recv:2"});
    // Once the peer runs, its pipes are open: the limit can come down.
    const std::string port = std::to_string(server.port);
    ASSERT_TRUE(waitUntil([&] { return peerRunning(port); }, 10));
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = openDescriptors() + 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);
    const bool paused = waitUntil(
        [&] { return disabledReasons(server) == TcpChannelAcceptor::DISABLE_FOR_OUT_OF_FDS; }, 10);
    const MonotonicTime pausedAt = MonotonicTime::now();
    for (int fd : fillers) close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(paused);
    EXPECT_FALSE(server.inLoop([&] { return server.acceptor().isActive(); }));
    // The same socket comes back and the waiting client is served.
    EXPECT_EQ(peer.get(), Strings{"recv b'x\\n'"});
    EXPECT_GE((MonotonicTime::now() - pausedAt).ms(), 3500u);
    EXPECT_TRUE(server.inLoop([&] { return server.acceptor().isActive(); }));
}

TEST(TcpChannelLoop, ClosedAcceptorGoesOnlyAfterItsLastConnection) {
    Journal journal;
    Gate gate;
    const Options o = gate.options();
    auto* acc = new TestAcceptor([&] { return std::make_unique<TestChannel>(journal, o); });
    std::atomic<bool> gone{false};
    InThreadFunction<void> notice([&] { gone = true; });
    acc->_finalDestructionActor = &notice;
    TcpServer server([&] { return nullptr; });
    IPv46SocketAddress where;
    where.setIpv4Localhost();
    const PollableDescriptor pd = where.make_listener(16);
    IPv46SocketAddress bound;
    pd.localAddress(&bound);
    server.loop.add(acc, pd);
    server.port = bound.port().value();
    server.start();
    auto peer = server.peerInBackground({"send:x", "recv:1"});
    EXPECT_TRUE(waitUntil([&] { return workerThreads(server) == 1; }, 10));
    server.loop.runInThread([&] {
        acc->close();
        acc->deleteWhenConnectionsFinish();
    });
    EXPECT_FALSE(gone.load());
    gate.promise.set_value();
    EXPECT_EQ(peer.get(), Strings{"recv b'x'"});
    EXPECT_TRUE(waitUntil([&] { return gone.load(); }, 10));
}

}  // namespace
