// Channels against real peers (tests/data/tcp_peer.py): the same cases in
// asynchronous mode and with a worker thread, which must never touch the
// socket itself.
#include "util/TcpChannel.h"

#include <sys/syscall.h>

#include <future>

#include "support/SocketIoWitness.h"
#include "support/TcpServer.h"

using namespace testsupport;
using Strings = std::vector<std::string>;

namespace {

// A started server whose channels all take `o`.
std::unique_ptr<TcpServer> serve(Journal& journal, Options o) {
    auto server = std::make_unique<TcpServer>(
        [&journal, o] { return std::make_unique<TestChannel>(journal, o); });
    server->start();
    return server;
}

struct Mode {
    const char* name;
    bool worker;
};

class ChannelModes : public ::testing::TestWithParam<Mode> {
protected:
    // A server whose channels all take `o`, with the worker's echo in
    // worker mode unless `o` brings its own.
    std::unique_ptr<TcpServer> serve(Options o = {}) {
        if (GetParam().worker && !o.worker) o.worker = echo;
        if (!GetParam().worker) o.worker = nullptr;
        return ::serve(journal, o);
    }

    Journal journal;
};

INSTANTIATE_TEST_SUITE_P(, ChannelModes,
                         ::testing::Values(Mode{"async", false}, Mode{"worker", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(ChannelModes, EchoesWhateverArrivesHowever) {
    const std::tuple<Strings, Strings> cases[] = {
        {{"send:hello\\n", "recv:6"}, {"recv b'hello\\n'"}},
        {{"echo:1"}, {"echo 1 ok"}},
        // Exactly a read buffer, then far beyond both buffers and the kernel's.
        {{"echo:65536"}, {"echo 65536 ok"}},
        {{"echo:8388608"}, {"echo 8388608 ok"}},
        {{"send:ab", "sleep:50", "send:cd", "recv:4"}, {"recv b'abcd'"}},
    };
    auto server = serve();
    socketwitness::reset();
    for (const auto& [actions, expected] : cases) {
        EXPECT_EQ(server->peer(actions), expected) << actions[0];
    }
    // Only the loop thread did socket I/O, whichever mode.
    const pid_t loopThread = server->inLoop([] { return pid_t(syscall(SYS_gettid)); });
    EXPECT_EQ(socketwitness::threads(), std::set<pid_t>{loopThread});
    EXPECT_TRUE(waitUntil([&] { return server->activeChannels() == 0; }, 10));
}

TEST_P(ChannelModes, IdleAndStuckConnectionsTimeOut) {
    static const char big[1 << 16] = {};
    const std::tuple<const char*, Options, Strings, std::string> cases[] = {
        {"silent peer", {nullptr, Interval(200)}, {"eof"}, "error Read Timeout"},
        {"peer gone quiet",
         {nullptr, Interval(200)},
         {"send:x", "recv:1", "eof"},
         "error Read Timeout"},
        {"peer that never reads",
         {[](TcpSyncDataBuffer& b) {
              for (;;) b.write(big, sizeof big);
              return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
          },
          Interval(0), Interval(300), false, 64 << 20},
         {"send:go", "sleep:1500"},
         "error Write Timeout"},
    };
    for (const auto& [name, options, actions, error] : cases) {
        auto server = serve(options);
        const MonotonicTime start = MonotonicTime::now();
        server->peer(actions);
        EXPECT_TRUE(waitUntil([&] { return journal.has(error); }, 10)) << name;
        EXPECT_GE((MonotonicTime::now() - start).ms(), 200u) << name;
        journal.clear();
    }
}

TEST_P(ChannelModes, GracefulShutdownHalfClosesThenWaitsForThePeer) {
    auto server = serve({nullptr, Interval(0), Interval(240000), true});
    // The peer sees our FIN while the server side waits in FIN-WAIT-2.
    EXPECT_EQ(server->peer({"send:x\\n", "recv:2", "send:bye\\n", "eof", "states", "close"}),
              (Strings{"recv b'x\\n'", "eof 0", "states FIN-WAIT-2 CLOSE-WAIT"}));
    EXPECT_TRUE(waitUntil([&] { return server->activeChannels() == 0; }, 10));
    EXPECT_EQ(journal.lines(), Strings{});
}

TEST_P(ChannelModes, PeerThatVanishesIsReported) {
    const std::tuple<Strings, std::set<std::string>> cases[] = {
        {{"send:x\\n", "recv:2", "reset"}, {"error Connection reset by peer"}},
        // Mid-transfer: the echo of megabytes is being written when the reset comes.
        {{"nbsend:8388608", "reset"}, {"error Connection reset by peer", "error Broken pipe"}},
    };
    auto server = serve();
    for (const auto& [actions, errors] : cases) {
        server->peer(actions);
        EXPECT_TRUE(waitUntil(
            [&] {
                for (const std::string& line : journal.lines()) {
                    if (errors.count(line) != 0) return true;
                }
                return false;
            },
            10))
            << actions[0] << ": " << testing::PrintToString(journal.lines());
        EXPECT_TRUE(waitUntil([&] { return server->activeChannels() == 0; }, 10));
        journal.clear();
    }
}

TEST(TcpChannelAsync, ReadingGoesOnWhenAWriteCompletionAsksForData) {
    Journal journal;
    Options o;
    o.moreAfterWrite = true;
    EXPECT_EQ(serve(journal, o)->peer({"send:a", "recv:1", "send:b", "recv:1"}),
              (Strings{"recv b'a'", "recv b'b'"}));
}

// ---------------------------------------------------------------- worker only

TEST(TcpChannelWorker, FullReadBufferStopsReadingUntilTheWorkerDrains) {
    std::promise<void> gate;
    std::shared_future<void> open = gate.get_future().share();
    std::atomic<size_t> drained{0};
    Journal journal;
    const Worker worker = [open, &drained](TcpSyncDataBuffer& b) {
        open.wait();
        char buf[4096];
        for (ssize_t n; (n = b.read(buf, sizeof buf)) > 0;) drained += size_t(n);
        return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
    };
    auto server = serve(journal, {worker});
    const size_t offered = size_t(256) << 20;
    auto peer = server->peerInBackground({"nbsend:" + std::to_string(offered), "shutwr", "eof"});
    // The worker is blocked: the loop must stop reading once the buffer is full.
    auto channelState = [&] {
        return server->inLoop([&] {
            TcpChannel* c = server->loop._activeList;
            return c == nullptr                                               ? 0
                   : c->_data._rbuf.full() && (c->ourEvents() & EPOLLIN) == 0 ? 2
                                                                              : 1;
        });
    };
    EXPECT_TRUE(waitUntil([&] { return channelState() == 2; }, 10));
    // Past the peer's one second of trying to send, then drain.
    Interval(1500).sleep();
    EXPECT_EQ(channelState(), 2);
    gate.set_value();
    const Strings out = peer.get();
    ASSERT_EQ(out.size(), 2u);
    const size_t sent = std::stoul(out[0].substr(7));
    EXPECT_LT(sent, offered) << "the peer never felt the back-pressure";
    EXPECT_EQ(out[1], "eof 0");
    EXPECT_EQ(drained.load(), sent);
}

TEST(TcpChannelWorker, ReadlineEndsWithAPartialLineAtEndOfInput) {
    Journal journal;
    const Worker worker = [&journal](TcpSyncDataBuffer& b) {
        Str line;
        while (b.readline(line)) journal.add("line " + line);
        journal.add("end");
        return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
    };
    auto server = serve(journal, {worker});
    EXPECT_EQ(server->peer({"send:a\\nb\\r\\n", "sleep:50", "send:\\r\\nc", "shutwr", "eof"}),
              Strings{"eof 0"});
    EXPECT_EQ(journal.lines(), (Strings{"line a", "line b", "line ", "line c", "end"}));
}

TEST(TcpChannelWorker, UncaughtExceptionClosesTheChannel) {
    Journal journal;
    const Worker worker = [](TcpSyncDataBuffer& b) -> atr {
        b.write("partial", 7);
        throw std::runtime_error("boom");
    };
    auto server = serve(journal, {worker});
    EXPECT_EQ(server->peer({"send:x", "eof"}).back().substr(0, 4), "eof ");
    EXPECT_TRUE(waitUntil([&] { return journal.has("error Uncaught exception"); }, 10));
}

TEST(TcpChannelWorker, CorkedWritesLeaveInOneGo) {
    Journal journal;
    const Worker worker = [](TcpSyncDataBuffer& b) {
        char c;
        b.read(&c, 1);
        {
            ScopedTcpSyncDataCork cork(b);
            for (int i = 0; i < 100; i++) b.write("0123456789", 10);
            // Nothing has been announced to the loop while corked.
            if (b._writeAvail[0].isQueued() || b._writeAvail[1].isQueued()) b.write("!", 1);
        }
        b.flushWrite();
        return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
    };
    auto server = serve(journal, {worker});
    EXPECT_EQ(server->peer({"send:x", "eof"}), Strings{"eof 1000"});
}

}  // namespace
