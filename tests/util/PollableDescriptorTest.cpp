// Pollable descriptors against real socketpairs, pipes and a refused loopback
// connect: error texts, waiting, timed and blocking transfers.

#include "util/PollableDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <tuple>

#include "support/TestSupport.h"
#include "util/AppendStr.h"
#include "util/SocketAddress.h"

namespace {

struct SocketPair {
    ScopedPollableDescriptor a, b;
    SocketPair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        a = PollableDescriptor(fds[0]);
        b = PollableDescriptor(fds[1]);
        a.try_setting_bufsize(SO_SNDBUF, 4096);
    }
};

bool isNonblocking(const PollableDescriptor& d) { return fcntl(d.fd(), F_GETFL) & O_NONBLOCK; }

// Reads `n` bytes from `d` on a thread of its own.
std::thread drain(const PollableDescriptor& d, size_t n, std::string* out) {
    return std::thread([d, n, out] {
        char buf[65536];
        while (out->size() < n) {
            const ssize_t got = ::read(d.fd(), buf, sizeof buf);
            if (got <= 0) return;
            out->append(buf, static_cast<size_t>(got));
        }
    });
}

TEST(SocketError, Texts) {
    const std::tuple<SocketError, const char*> cases[] = {
        {SocketError::none(), "No error"},
        {SocketError::timeout(SocketError::TIMEOUT_TYPE_READ), "Read Timeout"},
        {SocketError::timeout(SocketError::TIMEOUT_TYPE_WRITE), "Write Timeout"},
        {SocketError::timeout(SocketError::TIMEOUT_TYPE_CONNECT), "Connect Timeout"},
        {SocketError(1, 3), "bad SocketError timeout type 3!"},
        {SocketError::eof(), "Connection closed by peer"},
        {SocketError::localShutdown(), "Local side shutting down"},
        {SocketError::exception(), "Uncaught exception"},
        {SocketError::fromErrno(ECONNREFUSED), "Connection refused"},
        {SocketError(6, 77), "TLS error 77"},
        {SocketError::nameLookup(), "Cannot resolve hostname"},
        {SocketError(8, 0), "Transaction not started"},
        {SocketError(9, 0), "SSL not configured on client"},
        {SocketError(10, 0), "SSL certificate check failed"},
        {SocketError(11, 0), "bad SocketError type 11!"},
        {SocketError(-1, 0), "bad SocketError type -1!"},
    };
    for (const auto& [e, expected] : cases) {
        Str text;
        append_stringified(&text, e);
        EXPECT_STREQ(text.c_str(), expected);
        EXPECT_EQ(testsupport::crashText(e), expected);
    }
    socket_error_tls_text = [](Str* out, const SocketError& e) {
        out->appendFormat("tls:%ld", e.data());
    };
    Str text;
    append_stringified(&text, SocketError(6, 77));
    socket_error_tls_text = nullptr;
    EXPECT_STREQ(text.c_str(), "tls:77");
    errno = 0;
    SocketError::fromErrno(EPIPE).restoreSocketError();
    EXPECT_EQ(errno, EPIPE);
    SocketError::eof().restoreSocketError();
    EXPECT_EQ(errno, EIO);
}

TEST(PollableDescriptor, SelectForLoop) {
    SocketPair p;
    ASSERT_EQ(::write(p.b.fd(), "x", 1), 1);
    SocketPair idle;
    const std::tuple<PollableDescriptor, bool, int> cases[] = {
        {idle.a, false, -2},
        {idle.a, true, 0},
        {p.a, false, 0},
        {PollableDescriptor(), true, -3},
    };
    for (const auto& [d, forWrite, expected] : cases)
        EXPECT_EQ(d.select_for_loop(forWrite, Interval(20)), expected) << d.fd();
    // A zero timeout waits for ever.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ASSERT_EQ(::write(idle.b.fd(), "x", 1), 1);
    });
    EXPECT_EQ(idle.a.select_for(false, Interval(0)), 1);
    late.join();
}

TEST(PollableDescriptor, WriteBlockingAcrossAFullBuffer) {
    SocketPair p;
    const std::string data(1 << 20, 'q');
    std::string got;
    std::thread reader = drain(p.b, data.size(), &got);
    EXPECT_EQ(p.a.writeBlocking(data.data(), data.size(), Interval(2000)),
              static_cast<ssize_t>(data.size()));
    reader.join();
    EXPECT_EQ(got, data);
    EXPECT_FALSE(isNonblocking(p.a));

    // Nobody reads: the wait's result, and blocking again all the same.
    EXPECT_EQ(p.a.writeBlocking(data.data(), data.size(), Interval(20)), -2);
    EXPECT_FALSE(isNonblocking(p.a));
}

TEST(PortableIovec, WriteWithTimeoutGathersOnAPipe) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ScopedPollableDescriptor r{PollableDescriptor(fds[0])}, w{PollableDescriptor(fds[1])};
    const std::string one(100000, 'a'), two = "bc", three(70000, 'd');
    PortableIovec v;
    EXPECT_EQ(v._writeWithTimeout(w, Interval(100), 0), 0);
    for (const std::string* s : {&one, &two, &three}) v.push_back(s->data(), s->size());
    std::string got;
    std::thread reader = drain(r, v.totalBytes(), &got);
    EXPECT_EQ(v._writeWithTimeout(w, Interval(2000), v.totalBytes()),
              static_cast<ssize_t>(v.totalBytes()));
    reader.join();
    EXPECT_EQ(got, one + two + three);
    EXPECT_FALSE(isNonblocking(w));
    // A write error that isn't EAGAIN: the read end can't be written.
    EXPECT_EQ(v._writeWithTimeout(r, Interval(100), v.totalBytes()), -3);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(isNonblocking(r));
}

TEST(PollableDescriptor, ReadWithTimeoutThenClosed) {
    SocketPair p;
    char buf[8];
    SocketError err;
    EXPECT_EQ(p.a.readWithTimeout(buf, sizeof buf, Interval(20), &err), -1);
    EXPECT_EQ(err, SocketError::timeout(SocketError::TIMEOUT_TYPE_READ));
    ASSERT_EQ(::write(p.b.fd(), "hey", 3), 3);
    p.b.close();
    err = SocketError();
    EXPECT_EQ(p.a.readWithTimeout(buf, sizeof buf, Interval(1000), &err), 3);
    EXPECT_FALSE(err.valid());
    EXPECT_EQ(p.a.readWithTimeout(buf, sizeof buf, Interval(1000), &err), 0);
    EXPECT_TRUE(err.isEof());

    // Once closed, its blocking mode can't change.
    PollableDescriptor gone = p.a;
    p.a.close();
    try {
        gone.setNonblock(true);
        FAIL();
    } catch (const PollableDescriptorException& e) {
        EXPECT_STREQ(e.what(), "can't change non-blocking setting: Bad file descriptor");
    }
}

TEST(PollableDescriptor, RefusedConnectIsReportedOnce) {
    IPv46SocketAddress gone;
    gone.setIpv4Localhost();
    ASSERT_TRUE(ScopedPollableDescriptor(gone.make_listener(1)).localAddress(&gone));
    ScopedPollableDescriptor c(gone.start_async_connect());
    ASSERT_TRUE(c.valid()) << strerror(errno);
    ASSERT_EQ(c.select_for_connect(Interval(1000)), 1);
    EXPECT_EQ(c.finishAsyncConnect(), SocketError::fromErrno(ECONNREFUSED));
    EXPECT_EQ(c.getErrorStatusAndReset(), 0);
}

TEST(AppendStr, ReadFromSocketThenPipeEnds) {
    SocketPair p;
    const std::string data(10000, 'z');
    ASSERT_EQ(::write(p.b.fd(), data.data(), data.size()), 10000);
    AppendStr s;
    s.append("ab", 2);
    while (s.size() < 2 + data.size()) ASSERT_GT(s.read(p.a, 3 * 8192), 0);
    p.a.setNonblock(true);
    errno = 0;
    EXPECT_EQ(s.read(p.a, 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(std::string(Str::from(s)), "ab" + data);

    PollableReadablePipe r;
    WritablePipe w;
    ASSERT_TRUE(PollableReadablePipe::makePipe(&r, &w));
    EXPECT_TRUE(isNonblocking(r.handle()));
    EXPECT_EQ(fcntl(w.fd(), F_GETFD), FD_CLOEXEC);
    ASSERT_EQ(::write(w.fd(), "pipe", 4), 4);
    char got[8];
    EXPECT_EQ(r.read(got, sizeof got), 4);
}

}  // namespace
