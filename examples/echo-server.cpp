// A TCP echo server on the library, in either programming style.
//
//   echo-server [--port N] [--worker] [--loops N]
//
// Listens on 127.0.0.1 (port 0 picks a free one; the port is printed) and
// sends back whatever a client sends. By default each connection is served
// by callbacks on the loop thread; with --worker each connection is handed
// to a thread of the loop's pool, which echoes with plain blocking calls.
// --loops N spreads connections over N subordinate loops, each on a thread
// of its own. Ctrl-C (or SIGTERM) stops it cleanly: no new connections,
// the open ones ended, every worker back, then the loops.
//
// Try it:   echo-server --port 7000 &   then   curl telnet://127.0.0.1:7000
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "util/TcpChannel.h"

namespace {

// Worker style: blocking reads and writes; the loop thread still does the
// socket I/O, the worker only fills and drains the channel's buffers.
class EchoHandler : public TcpChannelThreadedHandler {
public:
    atr communicate(TcpSyncDataBuffer& b) override {
        StrSegment seg;
        // peek() shows buffered input in place; it gives 0 when the client
        // has gone, and throws on a reset or a time-out.
        for (ssize_t n = b.peek(&seg); n > 0; n = b.consumeAndPeek(size_t(n), &seg)) {
            b.write(seg._data, seg._len);
        }
        return TCPSYNCDONE_CLOSE;
    }
};

class EchoChannel : public TcpChannel {
public:
    explicit EchoChannel(bool worker) : _worker(worker) {}

    // Asynchronous style: runs on the loop thread with what has arrived.
    void dataAvailable(TcpAsyncDataBuffer& data) override {
        if (_worker) {
            data.setHandler(new EchoHandler);  // the worker reads what is buffered
            return;
        }
        // One output at a time: the loop calls again once it has gone.
        Str chunk(data.bytesAvailable(), '\0');
        data.read(chunk.data(), chunk.size());
        data.writeBuffer().addDestructive(&chunk);
        data.startAsyncWrite();
    }

    // A client that says nothing for five minutes is let go.
    Interval initialReadTimeout() override { return Interval::fromSeconds(300); }

private:
    bool _worker;
};

class EchoAcceptor : public TcpChannelAcceptor {
public:
    explicit EchoAcceptor(bool worker) : _worker(worker) {}
    std::unique_ptr<TcpChannel> factory(PollableDescriptor, const IPv46SocketAddress&) override {
        return std::make_unique<EchoChannel>(_worker);
    }

private:
    bool _worker;
};

class LoopThread : public Thread {
public:
    explicit LoopThread(Base_TcpChannelLoop& loop) : Thread("EchoLoop"), _loop(loop) {}
    void main() override { _loop._do_run(); }

private:
    Base_TcpChannelLoop& _loop;
};

[[noreturn]] void usage() {
    fprintf(stderr, "usage: echo-server [--port N] [--worker] [--loops N]\n");
    exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    EmptyMainThread mainThread;  // a library program starts with its MainThread
    unsigned port = 0, loops = 0;
    bool worker = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--worker") == 0) {
            worker = true;
        } else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            port = unsigned(atoi(argv[++i]));
        } else if (strcmp(argv[i], "--loops") == 0 && i + 1 < argc) {
            loops = unsigned(atoi(argv[++i]));
        } else {
            usage();
        }
    }

    // The signals are taken by sigwait below, not by whichever thread runs.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    EventLoop::enableFastPoll();  // epoll, before any loop exists
    TcpChannelLoop loop;
    std::vector<std::unique_ptr<SubordinateTcpChannelLoop>> subordinates;
    for (unsigned i = 0; i < loops; i++) {
        subordinates.push_back(std::make_unique<SubordinateTcpChannelLoop>(&loop));
        loop.addSubordinate(subordinates.back().get());
    }

    IPv46SocketAddress where;
    where.setIpv4Localhost();
    where.setPort(PortNumber(uint16_t(port)));
    const PollableDescriptor listener = where.make_listener();
    IPv46SocketAddress bound;
    if (!listener.valid() || !listener.localAddress(&bound)) {
        perror("echo-server: can't listen");
        return 1;
    }
    auto* acceptor = new EchoAcceptor(worker);
    loop.add(acceptor, listener);

    std::vector<std::unique_ptr<LoopThread>> threads;
    for (auto& sub : subordinates) {
        threads.push_back(std::make_unique<LoopThread>(*sub));
        sub->startThreadAndLoop(threads.back().get());
    }
    threads.push_back(std::make_unique<LoopThread>(loop));
    loop.startThreadAndLoop(threads.back().get());
    printf("echo-server: listening on 127.0.0.1:%u (%s mode)\n", bound.port().value(),
           worker ? "worker" : "asynchronous");
    fflush(stdout);

    int sig = 0;
    sigwait(&stopSignals, &sig);

    loop.runInThread([acceptor] { acceptor->close(); });
    loop.terminateConnections();
    loop.runInThread([acceptor] { delete acceptor; });
    loop.terminate();
    for (auto& t : threads) t->join();
    printf("echo-server: stopped\n");
    return 0;
}
