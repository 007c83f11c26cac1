// An echo server on our TcpChannelLoop against the same server on libuv and
// on libevent's bufferevents, over loopback, in one run.
//
// echo_pingpong_64B_<N>conn: N connections each send 64 bytes, wait for
// the echo and send again; items_per_second is round trips per second over
// all connections, p50_us/p99_us the round-trip times the client saw.
// echo_bulk_64MiB: one connection streams 64 MiB in 64 KiB writes while
// reading the echo back; bytes_per_second counts the payload once.
//
// Every contender gets a listening socket made the same way, the same load
// from the same client code (run on the benchmark thread: plain blocking
// calls for one connection, an epoll loop for more), TCP_NODELAY on both
// ends, reads and writes of up to 64 KiB asked for, and one event-loop
// thread. libevent 2.1 reads at most 4 KiB per call whatever it is asked
// (no setting changes that before 2.2), which is most of its bulk figure.
// The peers stop reading a connection while 64 KiB of its output are
// unsent; ours reads nothing while an output is pending, by design. Ours
// copies each read into its output; libuv writes from its read buffer and
// libevent moves buffers. The echo is checked byte for byte.
//
// Ours runs in two modes. "tarvex" answers in the loop's callback, as the
// peers do: the ratios printed at the end are for it. "tarvex_worker" hands
// each connection to a worker thread of the loop's pool, which echoes with
// blocking calls until the client leaves: one worker per connection on top
// of the loop thread, and every byte crosses between the two threads. No
// peer has that mode, and the ratios are printed against the contender
// named "tarvex" only, so it sits in groups of its own (suffix _worker):
// compare its rates with the "tarvex" line of the same size by eye.

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "BenchSupport.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/TcpChannel.h"
#include "util/Thread.h"

namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

constexpr size_t MESSAGE = 64;
constexpr size_t CHUNK = 64 << 10;
constexpr size_t BULK_BYTES = 64 << 20;
// Unsent output past which a server stops reading the connection.
constexpr size_t OUTPUT_LIMIT = 64 << 10;
constexpr int BACKLOG = 1024;
// A server that answers nothing for this long has failed.
constexpr int STALL_MS = 10000;

// Before any loop exists: ours waits in epoll and wakes through an eventfd,
// as the peers do.
const bool fast_poll = EventLoop::enableFastPoll();

void setUp() {
    static const bool once = [] {
        (void)fast_poll;
        Logger::initialize();
        // Connections coming and going are logged below WARN.
        Logger::setChannelLevel(nullptr, "WARN", nullptr);
        // 1000 connections, both of their ends, in one process.
        rlimit lim;
        if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
            lim.rlim_cur = lim.rlim_max;
            setrlimit(RLIMIT_NOFILE, &lim);
        }
        return true;
    }();
    (void)once;
}

void setNoDelay(int fd) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

// A non-blocking socket listening on 127.0.0.1 at a port the kernel picks.
struct Listener {
    int fd = -1;
    uint16_t port = 0;
};

Listener listenOnLoopback() {
    Listener l;
    l.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (l.fd < 0 || bind(l.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(l.fd, BACKLOG) != 0 ||
        getsockname(l.fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        perror("echo server: listening on 127.0.0.1");
        abort();
    }
    l.port = ntohs(a.sin_port);
    return l;
}

// ---------------------------------------------------------------- libuv

class LibuvEchoServer {
public:
    LibuvEchoServer() {
        const Listener l = listenOnLoopback();
        _port = l.port;
        uv_loop_init(&_loop);
        uv_tcp_init(&_loop, &_listener);
        uv_tcp_open(&_listener, l.fd);
        uv_listen(stream(&_listener), BACKLOG, accepted);
        uv_async_init(&_loop, &_stop, closeEverything);
        _thread.go();
    }
    ~LibuvEchoServer() {
        uv_async_send(&_stop);
        _thread.join();
        uv_loop_close(&_loop);
    }
    uint16_t port() const { return _port; }

private:
    // handle.data points at the Connection, so that closing any handle
    // frees what it must; it is null for the listener and the stop signal.
    struct Connection {
        uv_tcp_t tcp;
        bool paused = false;
    };
    // What one read filled, written back from where it lies.
    struct Chunk {
        uv_write_t req;
        uv_buf_t buf;
        char data[CHUNK];
    };

    static uv_stream_t* stream(uv_tcp_t* t) { return reinterpret_cast<uv_stream_t*>(t); }
    static uv_handle_t* handle(uv_stream_t* s) { return reinterpret_cast<uv_handle_t*>(s); }
    static Connection* connection(uv_stream_t* s) { return static_cast<Connection*>(s->data); }

    static void closed(uv_handle_t* h) { delete static_cast<Connection*>(h->data); }
    static void close(uv_stream_t* s) {
        if (!uv_is_closing(handle(s))) uv_close(handle(s), closed);
    }
    static void closeEverything(uv_async_t* stop) {
        uv_walk(
            stop->loop,
            [](uv_handle_t* h, void*) {
                if (!uv_is_closing(h)) uv_close(h, closed);
            },
            nullptr);
    }

    static void accepted(uv_stream_t* listener, int status) {
        if (status < 0) return;
        auto* c = new Connection;
        uv_tcp_init(listener->loop, &c->tcp);
        c->tcp.data = c;
        if (uv_accept(listener, stream(&c->tcp)) != 0) {
            close(stream(&c->tcp));
            return;
        }
        uv_tcp_nodelay(&c->tcp, 1);
        uv_read_start(stream(&c->tcp), allocate, echo);
    }
    static void allocate(uv_handle_t*, size_t, uv_buf_t* buf) {
        auto* chunk = new Chunk;
        chunk->req.data = chunk;
        *buf = uv_buf_init(chunk->data, sizeof chunk->data);
    }
    static void echo(uv_stream_t* s, ssize_t n, const uv_buf_t* buf) {
        Chunk* chunk = buf->base == nullptr
                           ? nullptr
                           : reinterpret_cast<Chunk*>(buf->base - offsetof(Chunk, data));
        if (n <= 0) {
            delete chunk;
            if (n < 0) close(s);
            return;
        }
        chunk->buf = uv_buf_init(chunk->data, unsigned(n));
        uv_write(&chunk->req, s, &chunk->buf, 1, written);
        if (s->write_queue_size >= OUTPUT_LIMIT) {
            uv_read_stop(s);
            connection(s)->paused = true;
        }
    }
    static void written(uv_write_t* req, int status) {
        uv_stream_t* s = req->handle;
        delete static_cast<Chunk*>(req->data);
        if (status < 0) {
            close(s);
        } else if (connection(s)->paused && s->write_queue_size == 0) {
            connection(s)->paused = false;
            uv_read_start(s, allocate, echo);
        }
    }

    uv_loop_t _loop;
    uv_tcp_t _listener{};
    uv_async_t _stop{};
    uint16_t _port;
    ThreadFunction _thread{[this] { uv_run(&_loop, UV_RUN_DEFAULT); }, "libuv-echo"};
};

// ---------------------------------------------------------------- libevent

// A base without locks: only its own thread touches it, and the stop comes
// through an eventfd it polls.
class LibeventEchoServer {
public:
    LibeventEchoServer() {
        const Listener l = listenOnLoopback();
        _port = l.port;
        _base = event_base_new();
        _listener = evconnlistener_new(_base, accepted, this, LEV_OPT_CLOSE_ON_FREE, 0, l.fd);
        _stopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        _stop = event_new(
            _base, _stopFd, EV_READ,
            [](evutil_socket_t, short, void* base) {
                event_base_loopbreak(static_cast<event_base*>(base));
            },
            _base);
        event_add(_stop, nullptr);
        _thread.go();
    }
    ~LibeventEchoServer() {
        const uint64_t one = 1;
        if (write(_stopFd, &one, sizeof one) != sizeof one) abort();
        _thread.join();
        for (bufferevent* bev : _open) bufferevent_free(bev);
        evconnlistener_free(_listener);
        event_free(_stop);
        ::close(_stopFd);
        event_base_free(_base);
    }
    uint16_t port() const { return _port; }

private:
    static void accepted(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* arg) {
        auto* self = static_cast<LibeventEchoServer*>(arg);
        setNoDelay(fd);
        bufferevent* bev = bufferevent_socket_new(self->_base, fd, BEV_OPT_CLOSE_ON_FREE);
        bufferevent_set_max_single_read(bev, CHUNK);
        bufferevent_set_max_single_write(bev, CHUNK);
        bufferevent_setcb(bev, echo, drained, eventHappened, self);
        bufferevent_enable(bev, EV_READ | EV_WRITE);
        self->_open.insert(bev);
    }
    // The input's buffers move to the output without a copy.
    static void echo(bufferevent* bev, void*) {
        bufferevent_write_buffer(bev, bufferevent_get_input(bev));
        if (evbuffer_get_length(bufferevent_get_output(bev)) >= OUTPUT_LIMIT) {
            bufferevent_disable(bev, EV_READ);
        }
    }
    // The output is empty.
    static void drained(bufferevent* bev, void*) {
        if ((bufferevent_get_enabled(bev) & EV_READ) == 0) bufferevent_enable(bev, EV_READ);
    }
    static void eventHappened(bufferevent* bev, short what, void* arg) {
        if ((what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0) return;
        static_cast<LibeventEchoServer*>(arg)->_open.erase(bev);
        bufferevent_free(bev);
    }

    event_base* _base;
    evconnlistener* _listener;
    int _stopFd;
    event* _stop;
    std::unordered_set<bufferevent*> _open;
    uint16_t _port;
    ThreadFunction _thread{[this] { event_base_dispatch(_base); }, "libevent-echo"};
};

// ---------------------------------------------------------------- ours

// Worker mode: blocking calls until the client leaves.
class EchoHandler : public TcpChannelThreadedHandler {
public:
    atr communicate(TcpSyncDataBuffer& b) override {
        StrSegment seg;
        for (ssize_t n = b.peek_nothrow(&seg); n > 0;
             n = b.consumeAndPeek_nothrow(size_t(n), &seg)) {
            if (b.write_nothrow(seg._data, seg._len) != n) break;
        }
        return TCPSYNCDONE_CLOSE;
    }
};

class EchoChannel : public TcpChannel {
public:
    explicit EchoChannel(bool worker) : _worker(worker) {}

    // Not called while an output is pending, and the loop does not read
    // then either: all input is consumed here, so asyncWriteComplete() keeps
    // its default (nothing due).
    void dataAvailable(TcpAsyncDataBuffer& d) override {
        if (_worker) {
            d.setHandler(new EchoHandler);
            return;
        }
        // The output must outlive the callback: it takes this string's bytes.
        _chunk.resize(d.bytesAvailable());
        d.read(_chunk.data(), _chunk.size());
        d.writeBuffer().addDestructive(&_chunk);
        d.startAsyncWrite();
    }

private:
    const bool _worker;
    Str _chunk;
};

class EchoAcceptor : public TcpChannelAcceptor {
public:
    explicit EchoAcceptor(bool worker) : _worker(worker) {}
    std::unique_ptr<TcpChannel> factory(PollableDescriptor fd, const IPv46SocketAddress&) override {
        fd.setNoDelay(true);
        return std::make_unique<EchoChannel>(_worker);
    }

private:
    const bool _worker;
};

class TarvexEchoServer {
public:
    explicit TarvexEchoServer(bool worker) : _acceptor(worker) {
        const Listener l = listenOnLoopback();
        _port = l.port;
        _loop.add(&_acceptor, PollableDescriptor(l.fd));
        _thread.go();
    }
    ~TarvexEchoServer() {
        _loop.terminateConnections();
        _loop.runInThread([this] { _acceptor.close(); });
        _loop.terminate();
        _thread.join();
    }
    uint16_t port() const { return _port; }

private:
    TcpChannelLoop _loop;
    EchoAcceptor _acceptor;
    uint16_t _port;
    ThreadFunction _thread{[this] { _loop.run(); }, "tarvex-echo"};
};

struct TarvexAsyncEchoServer : TarvexEchoServer {
    TarvexAsyncEchoServer() : TarvexEchoServer(false) {}
};
struct TarvexWorkerEchoServer : TarvexEchoServer {
    TarvexWorkerEchoServer() : TarvexEchoServer(true) {}
};

// ---------------------------------------------------------------- the client

// The load, the same for every server. Sockets stay blocking; the epoll
// paths pass MSG_DONTWAIT.
class EchoClient {
public:
    EchoClient(uint16_t port, int connections) : _conns(size_t(connections)) {
        _epoll = epoll_create1(EPOLL_CLOEXEC);
        const sockaddr_in a = loopback(port);
        const timeval stall{STALL_MS / 1000, 0};
        for (size_t i = 0; i < _conns.size(); ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            _conns[i].fd = fd;
            if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
                _error = std::string("connect: ") + strerror(errno);
                return;
            }
            setNoDelay(fd);
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &stall, sizeof stall);
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = i;
            epoll_ctl(_epoll, EPOLL_CTL_ADD, fd, &ev);
        }
        for (size_t i = 0; i < CHUNK; ++i) _pattern[i] = char(i * 7 + i / 251);
    }
    ~EchoClient() {
        for (const Connection& c : _conns) {
            if (c.fd >= 0) close(c.fd);
        }
        close(_epoll);
    }
    // Empty when all is well.
    const std::string& error() const { return _error; }

    // `requests` round trips spread over the connections, at most one in
    // flight on each; every round-trip time goes to `rtt`.
    bool pingPong(uint64_t requests, std::vector<uint32_t>& rtt) {
        return _conns.size() == 1 ? pingPongBlocking(requests, rtt) : pingPongEpoll(requests, rtt);
    }

    // `bytes` sent in CHUNK writes while the echo is read back.
    bool bulk(size_t bytes) {
        const int fd = _conns[0].fd;
        size_t sent = 0;
        size_t received = 0;
        watch(0, EPOLLIN | EPOLLOUT);
        while (received < bytes) {
            epoll_event ev;
            if (wait(&ev, 1) < 0) return false;
            if ((ev.events & EPOLLOUT) != 0 && sent < bytes) {
                const size_t at = sent % CHUNK;
                const ssize_t w = send(fd, _pattern + at, std::min(CHUNK - at, bytes - sent),
                                       MSG_DONTWAIT | MSG_NOSIGNAL);
                if (w < 0 && errno != EAGAIN) return fail("send");
                if (w > 0) sent += size_t(w);
                if (sent == bytes) watch(0, EPOLLIN);
            }
            if ((ev.events & ~EPOLLOUT) != 0) {
                const ssize_t r = recv(fd, _in, sizeof _in, MSG_DONTWAIT);
                if (r == 0) return fail("the server closed the connection", false);
                if (r < 0 && errno != EAGAIN) return fail("recv");
                if (r > 0 && !matchesPattern(received, size_t(r))) return fail("wrong echo", false);
                if (r > 0) received += size_t(r);
            }
        }
        return true;
    }

private:
    struct Connection {
        int fd = -1;
        uint64_t sequence = 0;
        size_t got = 0;
        Clock::time_point sentAt;
        char in[MESSAGE];
    };

    // The message carries its connection's sequence number, so that an
    // echo of anything else is caught.
    static void message(const Connection& c, char* out) {
        memset(out, 'e', MESSAGE);
        memcpy(out, &c.sequence, sizeof c.sequence);
    }
    bool sendMessage(Connection& c, int flags) {
        char out[MESSAGE];
        message(c, out);
        c.got = 0;
        c.sentAt = Clock::now();
        // An idle socket takes 64 bytes whole.
        if (send(c.fd, out, MESSAGE, flags | MSG_NOSIGNAL) != ssize_t(MESSAGE)) return fail("send");
        return true;
    }
    bool echoed(Connection& c, std::vector<uint32_t>& rtt) {
        char expected[MESSAGE];
        message(c, expected);
        if (memcmp(expected, c.in, MESSAGE) != 0) return fail("wrong echo", false);
        rtt.push_back(uint32_t(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - c.sentAt).count()));
        ++c.sequence;
        return true;
    }

    bool pingPongBlocking(uint64_t requests, std::vector<uint32_t>& rtt) {
        Connection& c = _conns[0];
        for (uint64_t i = 0; i < requests; ++i) {
            if (!sendMessage(c, 0)) return false;
            while (c.got < MESSAGE) {
                const ssize_t r = recv(c.fd, c.in + c.got, MESSAGE - c.got, 0);
                if (r == 0) return fail("the server closed the connection", false);
                if (r < 0) return fail(errno == EAGAIN ? "the server stopped answering" : "recv");
                c.got += size_t(r);
            }
            if (!echoed(c, rtt)) return false;
        }
        return true;
    }

    bool pingPongEpoll(uint64_t requests, std::vector<uint32_t>& rtt) {
        uint64_t issued = 0;
        for (Connection& c : _conns) {
            if (issued == requests) break;
            if (!sendMessage(c, MSG_DONTWAIT)) return false;
            ++issued;
        }
        epoll_event events[256];
        for (uint64_t done = 0; done < requests;) {
            const int n = wait(events, 256);
            if (n < 0) return false;
            for (int i = 0; i < n; ++i) {
                Connection& c = _conns[events[i].data.u64];
                const ssize_t r = recv(c.fd, c.in + c.got, MESSAGE - c.got, MSG_DONTWAIT);
                if (r < 0 && errno == EAGAIN) continue;
                if (r == 0) return fail("the server closed the connection", false);
                if (r < 0) return fail("recv");
                c.got += size_t(r);
                if (c.got < MESSAGE) continue;
                if (!echoed(c, rtt)) return false;
                ++done;
                if (issued < requests) {
                    if (!sendMessage(c, MSG_DONTWAIT)) return false;
                    ++issued;
                }
            }
        }
        return true;
    }

    // The count of events, or -1 when the server stalled.
    int wait(epoll_event* events, int max) {
        for (;;) {
            const int n = epoll_wait(_epoll, events, max, STALL_MS);
            if (n > 0) return n;
            if (n < 0 && errno == EINTR) continue;
            fail(n == 0 ? "the server stopped answering" : "epoll_wait", n != 0);
            return -1;
        }
    }
    void watch(size_t conn, uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = conn;
        epoll_ctl(_epoll, EPOLL_CTL_MOD, _conns[conn].fd, &ev);
    }
    // The `length` bytes in _in continue the stream at `offset`.
    bool matchesPattern(size_t offset, size_t length) const {
        const size_t at = offset % CHUNK;
        const size_t first = std::min(length, CHUNK - at);
        return memcmp(_in, _pattern + at, first) == 0 &&
               memcmp(_in + first, _pattern, length - first) == 0;
    }
    // A failed call's errno is named; a wrong echo has none.
    bool fail(const char* what, bool withErrno = true) {
        _error = what;
        if (withErrno) _error += std::string(": ") + strerror(errno);
        return false;
    }

    std::vector<Connection> _conns;
    int _epoll;
    std::string _error;
    char _pattern[CHUNK];
    char _in[CHUNK];
};

// ---------------------------------------------------------------- the benchmarks

// Round trips per iteration, by connection count.
uint64_t requestsPerIteration(int connections) { return connections == 1 ? 3000 : 10000; }

double percentileUs(std::vector<uint32_t>& ns, double p) {
    if (ns.empty()) return 0;
    auto at = ns.begin() + ptrdiff_t(double(ns.size() - 1) * p);
    std::nth_element(ns.begin(), at, ns.end());
    return *at / 1e3;
}

template <class Server>
void pingPong(State& state, int connections) {
    setUp();
    const uint64_t requests = requestsPerIteration(connections);
    Server server;
    EchoClient client(server.port(), connections);
    std::vector<uint32_t> rtt;
    rtt.reserve(size_t(state.max_iterations * requests));
    // Every connection accepted and answered once before the clock runs.
    if (client.error().empty()) client.pingPong(uint64_t(connections), rtt);
    rtt.clear();
    for (auto _ : state) {
        if (!client.error().empty() || !client.pingPong(requests, rtt)) {
            state.SkipWithError(client.error().c_str());
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations() * requests));
    state.counters["p50_us"] = percentileUs(rtt, 0.50);
    state.counters["p99_us"] = percentileUs(rtt, 0.99);
}

template <class Server>
void bulk(State& state) {
    setUp();
    Server server;
    EchoClient client(server.port(), 1);
    // Accepted and answered before the clock runs.
    if (client.error().empty()) client.bulk(CHUNK);
    for (auto _ : state) {
        if (!client.error().empty() || !client.bulk(BULK_BYTES)) {
            state.SkipWithError(client.error().c_str());
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations() * BULK_BYTES));
}

struct Group {
    const char* name;
    int connections;  // 0 for the bulk transfer
};
constexpr Group GROUPS[] = {{"echo_pingpong_64B_1conn", 1},
                            {"echo_pingpong_64B_100conn", 100},
                            {"echo_pingpong_64B_1000conn", 1000},
                            {"echo_bulk_64MiB", 0}};

template <class Server>
void addContender(const Group& g, const std::string& group, const char* contender) {
    const std::string name = group + "/" + contender;
    benchmark::internal::Benchmark* b;
    if (g.connections == 0) {
        b = benchmark::RegisterBenchmark(name.c_str(), bulk<Server>)->Iterations(5);
    } else {
        b = benchmark::RegisterBenchmark(name.c_str(), [n = g.connections](State& state) {
                pingPong<Server>(state, n);
            })->Iterations(5);
    }
    b->UseRealTime()->Unit(benchmark::kMillisecond);
}

// Each group's contenders one after the other, so that they sit together in
// the report.
const bool registered = [] {
    for (const Group& g : GROUPS) {
        addContender<TarvexAsyncEchoServer>(g, g.name, "tarvex");
        addContender<LibuvEchoServer>(g, g.name, "libuv");
        addContender<LibeventEchoServer>(g, g.name, "libevent");
        addContender<TarvexWorkerEchoServer>(g, std::string(g.name) + "_worker", "tarvex_worker");
    }
    return true;
}();

}  // namespace
