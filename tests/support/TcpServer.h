#pragma once
// A real server on 127.0.0.1 for the length of a test: a TcpChannelLoop (and
// subordinates) on threads of their own, one acceptor whose channels a test
// supplies, and scripted Python peers (tests/data/tcp_peer.py).
#include <dirent.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/TcpChannel.h"

namespace testsupport {

// What the server's channels reported, in order.
class Journal {
public:
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(_m);
        _lines.push_back(std::move(line));
    }
    void add(const SocketError& err) {
        Str text;
        append_stringified(&text, err);
        add("error " + text);
    }
    void clear() {
        std::lock_guard<std::mutex> lock(_m);
        _lines.clear();
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(_m);
        return _lines;
    }
    bool has(const std::string& line) {
        for (const std::string& l : lines()) {
            if (l == line) return true;
        }
        return false;
    }

private:
    std::mutex _m;
    std::vector<std::string> _lines;
};

using ChannelMaker = std::function<std::unique_ptr<TcpChannel>()>;

class TestAcceptor : public TcpChannelAcceptor {
public:
    explicit TestAcceptor(ChannelMaker make) : _make(std::move(make)) {}
    std::unique_ptr<TcpChannel> factory(PollableDescriptor, const IPv46SocketAddress&) override {
        return _make();
    }
    std::unique_ptr<TcpChannel> factory(Base_TcpChannelLoop* loop, PollableDescriptor,
                                        const IPv46SocketAddress&) override {
        std::unique_ptr<TcpChannel> chan = _make();
        if (chan != nullptr) {
            std::lock_guard<std::mutex> lock(_m);
            _loopsUsed.push_back(loop);
        }
        return chan;
    }
    bool limitActiveConnections(unsigned count, bool) override {
        return _limit != 0 && count >= _limit;
    }
    std::vector<Base_TcpChannelLoop*> loopsUsed() {
        std::lock_guard<std::mutex> lock(_m);
        return _loopsUsed;
    }

    unsigned _limit = 0;  // 0: none

private:
    ChannelMaker _make;
    std::mutex _m;
    std::vector<Base_TcpChannelLoop*> _loopsUsed;
};

using atr = TcpChannelThreadedHandler::atr;
using Worker = std::function<atr(TcpSyncDataBuffer&)>;

class FunctionHandler : public TcpChannelThreadedHandler {
public:
    explicit FunctionHandler(Worker f) : _f(std::move(f)) {}
    atr communicate(TcpSyncDataBuffer& b) override { return _f(b); }

private:
    Worker _f;
};

// Echoes what comes until "bye\n", the end of the input or an error.
inline atr echo(TcpSyncDataBuffer& b) {
    StrSegment seg;
    for (ssize_t n = b.peek(&seg); n > 0; n = b.consumeAndPeek(size_t(n), &seg)) {
        if (seg == StrSegment("bye\n")) return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
        b.write(seg._data, seg._len);
    }
    return TcpChannelThreadedHandler::TCPSYNCDONE_CLOSE;
}

struct Options {
    Worker worker;  // empty: asynchronous echo
    Interval readTimeout{0};
    Interval writeTimeout{240000};
    bool graceful = false;
    size_t asyncReply = 0;  // bytes written for the first input instead of the echo
    bool moreAfterWrite = false;  // asyncWriteComplete() asks for dataAvailable
};

class TestChannel : public TcpChannel {
public:
    TestChannel(Journal& j, Options o) : _j(j), _o(std::move(o)) {}

    Interval initialReadTimeout() override { return _o.readTimeout; }
    Interval initialWriteTimeout() override { return _o.writeTimeout; }
    bool wantGracefulShutdown() override { return _o.graceful; }
    void errorHappened(const SocketError& e) override { _j.add(e); }
    bool asyncWriteComplete() override { return _o.moreAfterWrite; }

    void dataAvailable(TcpAsyncDataBuffer& d) override {
        if (_o.worker) {
            d.setHandler(new FunctionHandler(_o.worker));
            return;
        }
        Str chunk(d.bytesAvailable(), '\0');
        d.read(chunk.data(), chunk.size());
        if (chunk == "bye\n") {
            d.kill();
            return;
        }
        if (_o.asyncReply != 0) chunk.assign(_o.asyncReply, 'r');
        d.writeBuffer().addDestructive(&chunk);
        d.startAsyncWrite();
    }

private:
    Journal& _j;
    Options _o;
};

class LoopRunner : public Thread {
public:
    explicit LoopRunner(Base_TcpChannelLoop& loop) : Thread("TestLoop"), _loop(loop) {}
    void main() override { _loop._do_run(); }

private:
    Base_TcpChannelLoop& _loop;
};

inline unsigned countEntries(const char* dir) {
    unsigned n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}
inline unsigned openDescriptors() { return countEntries("/proc/self/fd"); }
inline unsigned processThreads() { return countEntries("/proc/self/task"); }

class TcpServer {
public:
    explicit TcpServer(ChannelMaker make, unsigned subordinates = 0)
        : _acceptor(new TestAcceptor(std::move(make))) {
        for (unsigned i = 0; i < subordinates; i++) {
            _subs.push_back(std::make_unique<SubordinateTcpChannelLoop>(&loop));
            loop.addSubordinate(_subs.back().get());
        }
        IPv46SocketAddress where;
        where.setIpv4Localhost();
        const PollableDescriptor pd = where.make_listener(128);
        EXPECT_TRUE(pd.valid());
        IPv46SocketAddress bound;
        EXPECT_TRUE(pd.localAddress(&bound));
        port = bound.port().value();
        loop.add(_acceptor, pd);
    }
    ~TcpServer() { stop(); }

    TestAcceptor& acceptor() { return *_acceptor; }

    void start() {
        for (auto& sub : _subs) {
            _runners.push_back(std::make_unique<LoopRunner>(*sub));
            sub->startThreadAndLoop(_runners.back().get());
        }
        _runners.push_back(std::make_unique<LoopRunner>(loop));
        loop.startThreadAndLoop(_runners.back().get());
    }

    // Ends the listener, the connections (waiting for every worker), the loops.
    void stop() {
        if (_stopped || _runners.empty()) return;
        _stopped = true;
        // No new connections, then the ones there are; only then does the
        // acceptor have none left.
        loop.runInThread([this] { _acceptor->close(); });
        loop.terminateConnections();
        loop.runInThread([this] {
            delete _acceptor;
            _acceptor = nullptr;
        });
        loop.terminate();
        for (auto& r : _runners) r->join();
    }

    // Runs on the listening loop's thread and waits.
    template <class F>
    auto inLoop(F f) -> decltype(f()) {
        decltype(f()) out{};
        loop.runInThread([&] { out = f(); });
        return out;
    }
    unsigned activeChannels(Base_TcpChannelLoop* l = nullptr) {
        if (l == nullptr) l = &loop;
        unsigned n = 0;
        l->runInThread([&] {
            for (TcpChannel* c = l->_activeList; c != nullptr; c = c->_next) n++;
        });
        return n;
    }

    // A Python peer running `actions`; its printed lines.
    std::vector<std::string> peer(const std::vector<std::string>& actions) {
        std::vector<std::string> argv = {"/usr/bin/env", "python3",
                                         TARVEX_SOURCE_DIR "/tests/data/tcp_peer.py",
                                         std::to_string(port)};
        argv.insert(argv.end(), actions.begin(), actions.end());
        const ProcessResult r = runProcess(argv);
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        std::vector<std::string> lines;
        size_t at = 0;
        for (size_t nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
            lines.push_back(r.out.substr(at, nl - at));
        }
        return lines;
    }
    std::future<std::vector<std::string>> peerInBackground(std::vector<std::string> actions) {
        return std::async(std::launch::async, [this, actions] { return peer(actions); });
    }

    TcpChannelLoop loop;
    uint16_t port = 0;

private:
    TestAcceptor* _acceptor;
    std::vector<std::unique_ptr<SubordinateTcpChannelLoop>> _subs;
    std::vector<std::unique_ptr<LoopRunner>> _runners;
    bool _stopped = false;
};

}  // namespace testsupport
