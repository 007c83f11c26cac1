// The HTTP server end to end on 127.0.0.1, against real clients: curl,
// Python's http.client and raw Python sockets.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

#include "support/TcpServer.h"
#include "support/TestSupport.h"
#include "util/HttpListener.h"

namespace {

using testsupport::LoopRunner;
using testsupport::runProcess;

// Answers once the whole body is in: what it heard.
class EchoBodyProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override {
        AppendStr& out = t->contents(&HttpContentType::TYPE_PLAINTEXT);
        out.appendFormat("%s %.*s received=%lld", t->method().c_str(), int(t->url().size()),
                         t->url().data(), (long long)t->_bytesReceived);
        for (const auto& a : t->postArguments().arguments())
            out.appendFormat(" %s=%s", a.key.c_str(), a.value.c_str());
        if (t->postArguments().hadParsingError()) out.append(" [bad form]");
        t->writeAsync(t->_astr, true);
    }
};

// Sends its body in three pieces, each asked for in turn; with `fails`, it
// throws once the first has gone.
class PiecesProvider : public HttpReplyDataProvider {
public:
    explicit PiecesProvider(bool fails) : _fails(fails) {}
    void getPreBody(HttpServerTransaction* t) override { getBody(t); }
    void getBody(HttpServerTransaction* t) override {
        static const char* pieces[] = {"one,", "two,", "three"};
        if (_fails && _next == 1) throw std::runtime_error("disk gone");
        t->writeAsync(pieces[_next], strlen(pieces[_next]), _next == 2);
        ++_next;
    }

private:
    const bool _fails;
    int _next = 0;
};

// Made on a worker thread: what the worker saw, or with `repeat` a body
// worth compressing.
class WorkerEcho : public ThreadedStringHttpDataProvider {
public:
    explicit WorkerEcho(bool repeat = false) : _repeat(repeat) {}
    void fill(HttpServerTransaction* t, AppendStr* out) override {
        t->setContentType(&HttpContentType::TYPE_PLAINTEXT);
        if (_repeat) {
            for (int i = 0; i < 1000; ++i) out->appendFormat("line %d\n", i);
            return;
        }
        out->appendFormat("worker=%d received=%lld", int(t->isInOwnThread()),
                          (long long)t->_bytesReceived);
        for (const auto& a : t->postArguments().arguments())
            out->appendFormat(" %s=%s", a.key.c_str(), a.value.c_str());
    }

private:
    const bool _repeat;
};

// Writes its body straight to the socket from a worker, in pieces.
class WorkerStream : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override {
        if (!t->isInOwnThread()) t->_askForThread();
    }
    void getBody(HttpServerTransaction* t) override {
        for (const char* piece : {"alpha,", "beta,", "gamma"}) t->write(piece, strlen(piece));
        HttpReplyDataProvider::getBody(t);  // no more
    }
};

class TestListener : public HttpListener {
public:
    std::string staticRoot;  // "/static/NAME" serves staticRoot + NAME

    void dispatch(HttpServerTransaction* t) override {
        const std::string url(t->url());
        if (url == "/hello") {
            t->contents(&HttpContentType::TYPE_PLAINTEXT).append("hello");
        } else if (url.rfind("/echo", 0) == 0) {
            t->setReplyDataProviderAndClaim(new EchoBodyProvider);
            if (url == "/echo/discard") t->stopParsingRequestData();
        } else if (url == "/pieces") {
            t->setReplyDataProviderAndClaim(new PiecesProvider(false));
        } else if (url == "/threaded") {
            t->setReplyDataProviderAndClaim(new WorkerEcho);
        } else if (url == "/threaded/big") {
            t->requestCompression(6);
            t->setReplyDataProviderAndClaim(new WorkerEcho(true));
        } else if (url == "/stream") {
            t->setReplyDataProviderAndClaim(new WorkerStream);
        } else if (url == "/small") {
            t->setMaximumRequestDataSize(10);
            t->setReplyDataProviderAndClaim(new EchoBodyProvider);
        } else if (url.rfind("/static/", 0) == 0) {
            t->setReplyDataProviderAndClaim(
                new StaticFileHttpDataProvider(Pathname(staticRoot + url.substr(8))));
        } else if (url == "/fails") {
            t->setReplyDataProviderAndClaim(new PiecesProvider(true));
        } else if (url == "/refuse") {
            t->setStatusFormat(403, "Not for you");
        }  // else: the default 404
    }
};

// Short time-outs, for the tests of slow and idle clients.
class QuickListener : public TestListener {
public:
    Interval initialRequestTimeout() override { return Interval(300); }
    Interval ioTimeout() override { return Interval(300); }
    Interval keepaliveIdleTimeout(bool) override { return Interval(300); }
};

class HttpTestServer {
public:
    explicit HttpTestServer(TestListener* listener = new TestListener) : _listener(listener) {
        _listener->setServerName("tarvex-test");
        IPv46SocketAddress where;
        where.setIpv4Localhost();
        const PollableDescriptor pd = where.make_listener(128);
        IPv46SocketAddress bound;
        EXPECT_TRUE(pd.localAddress(&bound));
        port = bound.port().value();
        _loop.add(_listener, pd);
        _runner = std::make_unique<LoopRunner>(_loop);
        _loop.startThreadAndLoop(_runner.get());
    }
    ~HttpTestServer() {
        _loop.runInThread([this] { _listener->close(); });
        _loop.terminateConnections();
        _loop.runInThread([this] { delete _listener; });
        _loop.terminate();
        _runner->join();
    }
    TestListener& listener() { return *_listener; }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }
    unsigned port = 0;

private:
    TcpChannelLoop _loop;
    TestListener* _listener;
    std::unique_ptr<LoopRunner> _runner;
};

// A Python client of tests/data/HttpServerTest: what it printed.
std::string python(const char* script, std::vector<std::string> args) {
    args.insert(args.begin(),
                {"/usr/bin/env", "python3",
                 TARVEX_SOURCE_DIR "/tests/data/HttpServerTest/" + std::string(script)});
    const auto r = runProcess(args);
    EXPECT_EQ(r.err, "") << script;
    return r.out;
}

// A raw exchange: sends the bytes (in the pieces given), half-closes, and
// returns all that came back.
std::string rawExchange(unsigned port, const std::vector<std::string>& pieces,
                        bool halfClose = true) {
    std::vector<std::string> args = {std::to_string(port), halfClose ? "1" : "0"};
    args.insert(args.end(), pieces.begin(), pieces.end());
    return python("raw_exchange.py", args);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(HttpServer, CurlKeepsTheConnectionAndTakesGzip) {
    HttpTestServer server;
    const auto r = runProcess({"/usr/bin/curl", "-sS", "-v", "--max-time", "20",
                               server.url("/hello"), server.url("/missing"), server.url("/hello")});
    EXPECT_EQ(r.out.substr(0, 5), "hello");
    EXPECT_NE(r.out.find("<title>404 Not Found</title>"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 5), "hello");
    EXPECT_EQ(count(r.err, "Re-using existing connection"), 2u) << r.err;
    EXPECT_NE(r.err.find("< Server: tarvex-test"), std::string::npos);

    // A final reply is gzipped for a client that takes it.
    std::string expected;
    for (int i = 0; i < 1000; ++i) expected += "line " + std::to_string(i) + "\n";
    const auto gz = runProcess(
        {"/usr/bin/curl", "-sS", "-D", "/dev/stderr", "--compressed", server.url("/threaded/big")});
    EXPECT_EQ(gz.out, expected);
    EXPECT_NE(gz.err.find("Content-Encoding: gzip\r\n"), std::string::npos) << gz.err;
    EXPECT_NE(gz.err.find("Vary: Accept-Encoding\r\n"), std::string::npos) << gz.err;
    const auto plain =
        runProcess({"/usr/bin/curl", "-sS", "-D", "/dev/stderr", server.url("/threaded/big")});
    EXPECT_EQ(plain.out, expected);
    EXPECT_EQ(plain.err.find("Content-Encoding"), std::string::npos) << plain.err;
}

TEST(HttpServer, RequestBodiesFixedChunkedAndAfterContinue) {
    HttpTestServer server;
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "big", std::string(3 * 1024 * 1024 + 7, 'b'));
    testsupport::writeFile(dir / "form", "a=1&b=two+words&c=%41");

    const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {
        {{"--data-binary", "@" + (dir / "form"), server.url("/echo")},
         "POST /echo received=21 a=1 b=two words c=A",
         ""},
        // curl asks for "100 Continue" before a large body.
        {{"--data-binary", "@" + (dir / "big"), server.url("/echo/discard")},
         "POST /echo/discard received=3145735",
         "< HTTP/1.1 100 Continue"},
        {{"-H", "Transfer-Encoding: chunked", "--data-binary", "@" + (dir / "big"),
          server.url("/echo/discard")},
         "POST /echo/discard received=3145735",
         "> Transfer-Encoding: chunked"},
        // Refused before the body: no "100 Continue", the body never sent.
        {{"--data-binary", "@" + (dir / "big"), server.url("/refuse")}, "", "< HTTP/1.1 403"},
    };
    for (const auto& [curlArgs, reply, inTrace] : cases) {
        std::vector<std::string> argv = {"/usr/bin/curl", "-sS", "-v", "--max-time", "30"};
        argv.insert(argv.end(), curlArgs.begin(), curlArgs.end());
        const auto r = runProcess(argv);
        SCOPED_TRACE(curlArgs.back());
        if (!reply.empty()) {
            EXPECT_EQ(r.out, reply);
        }
        EXPECT_NE(r.err.find(inTrace), std::string::npos) << r.err;
        if (curlArgs.back() == server.url("/refuse")) {
            EXPECT_EQ(r.err.find("100 Continue"), std::string::npos);
            EXPECT_NE(r.out.find("<title>403 Not for you</title>"), std::string::npos);
        }
    }
}

TEST(HttpServer, PipelinedSplitAndCutReplies) {
    HttpTestServer server;
    const std::string two =
        "GET /hello HTTP/1.1\r\nHost: h\r\n\r\nPOST /echo HTTP/1.1\r\nHost: h\r\n"
        "Content-Length: 3\r\n\r\nx=1";
    const std::string replies = rawExchange(server.port, {two});
    EXPECT_EQ(count(replies, "HTTP/1.1 200 OK\r\n"), 2u) << replies;
    EXPECT_NE(replies.find("\r\n\r\nhello"), std::string::npos);
    EXPECT_NE(replies.find("POST /echo received=3 x=1"), std::string::npos);

    // The same bytes a few at a time.
    std::vector<std::string> pieces;
    for (size_t i = 0; i < two.size(); i += 7) pieces.push_back(two.substr(i, 7));
    EXPECT_EQ(count(rawExchange(server.port, pieces), "HTTP/1.1 200 OK\r\n"), 2u);

    // A provider that fails once the head is out: the connection ends, and
    // the client sees a cut chunked body, never a second head.
    const std::string reply =
        rawExchange(server.port, {"GET /fails HTTP/1.1\r\nHost: h\r\n\r\n"}, false);
    EXPECT_EQ(reply.substr(0, 17), "HTTP/1.1 200 OK\r\n");
    EXPECT_NE(reply.find("\r\n\r\n4\r\none,"), std::string::npos) << reply;
    EXPECT_EQ(reply.find("0\r\n\r\n"), std::string::npos) << reply;  // no end marker
    EXPECT_EQ(count(reply, "HTTP/1.1"), 1u);
    // The server goes on.
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
}

TEST(HttpServer, BadRequestsAreAnsweredAndTheConnectionClosed) {
    HttpTestServer server;
    for (const auto& row : testsupport::dataRows("HttpServerTest/bad-requests")) {
        std::string request = row[0];
        const std::string& statusLine = row[1];
        SCOPED_TRACE(request);
        // No half-close: the server ends the connection itself, for a head
        // it could not read, or as the request asked.
        if (statusLine.find(" 400 ") == std::string::npos &&
            statusLine.find(" 501 Method") == std::string::npos) {
            request.insert(request.find("\r\n") + 2, "Connection: close\r\n");
        }
        const std::string reply = rawExchange(server.port, {request}, false);
        EXPECT_EQ(reply.substr(0, reply.find("\r\n")), statusLine) << reply;
        EXPECT_EQ(count(reply, "HTTP/1.1 "), 1u) << reply;
    }
    // A good request after all that is still served.
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
}

TEST(HttpServer, PythonClientReadsPiecesHeadErrorsAndWorkerReplies) {
    HttpTestServer server;
    EXPECT_EQ(python("pieces_head_errors.py", {std::to_string(server.port)}),
              "GET /pieces 200 chunked None b'one,two,three'\n"
              "HEAD /hello 200 None 5 b''\n"
              "GET /hello 200 None 5 b'hello'\n"
              "DELETE /nowhere 404 None 223 b'<!doctype html><html'\n"
              "OPTIONS /hello 200 None 0 b''\n"
              "OPTIONS * 200 None 0 b''\n"
              "GET /hello 200 None 5 b'hello'\n");

    // Replies made on worker threads, for plain and chunked bodies.
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "form", "a=1&b=" + std::string(200000, 'x'));
    EXPECT_EQ(python("worker_replies.py", {std::to_string(server.port), dir / "form"}),
              "GET /threaded 200 None b'worker=1 received=0'\n"
              "POST /threaded 200 None b'worker=1 received=200006 a=1 b=xxxxxxxxx'\n"
              "POST /threaded 200 None b'worker=1 received=200006 a=1 b=xxxxxxxxx'\n"
              "GET /stream 200 chunked b'alpha,beta,gamma'\n"
              "HEAD /stream 200 None b''\n"
              "GET /hello 200 None b'hello'\n");
}

// Gzip request bodies are inflated for the acceptor, on the loop and on a
// worker; the size limit holds for the inflated body.
TEST(HttpServer, GzipRequestBodies) {
    HttpTestServer server;
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "form", "a=1&b=" + std::string(100000, 'z'));
    ASSERT_EQ(
        runProcess({"/bin/sh", "-c",
                    "cd \"$0\" && gzip -c form > form.gz && cat form.gz form.gz > twice.gz && "
                    "head -c 100 form.gz > cut.gz && printf 'not gzip' > bad.gz && "
                    "head -c 60000000 /dev/zero | gzip -c > bomb.gz",
                    dir.path()})
            .exitStatus,
        0);
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"form.gz", "/echo", " a=1 b=" + std::string(100000, 'z')},
        {"form.gz", "/threaded", " a=1 b=" + std::string(100000, 'z')},
        // Two members, one after the other: "b" continues into the second "a".
        {"twice.gz", "/echo", " a=1 b=" + std::string(100000, 'z') + "a=1"},
        {"cut.gz", "/echo", "<title>400 Truncated gzip data in request</title>"},
        {"cut.gz", "/threaded", "<title>400 Truncated gzip data in request</title>"},
        {"bad.gz", "/echo", "<title>400 Unparsable gzip header in request data</title>"},
        {"bomb.gz", "/echo", "<title>413 Content-Length of "},
    };
    for (const auto& [file, path, expected] : cases) {
        SCOPED_TRACE(std::string(file) + " " + path);
        const auto r =
            runProcess({"/usr/bin/curl", "-sS", "--max-time", "30", "-H", "Content-Encoding: gzip",
                        "-H", "Content-Type: application/x-www-form-urlencoded", "--data-binary",
                        "@" + (dir / file), server.url(path)});
        EXPECT_NE(r.out.find(expected), std::string::npos) << r.out.substr(0, 300) << r.err;
    }
}

// Many clients at once, half of them served by workers: every reply right.
TEST(HttpServer, ConcurrentClientsWithWorkerHandlersAndWrkLoad) {
    HttpTestServer server;
    EXPECT_EQ(python("concurrent_clients.py", {std::to_string(server.port)}), "0 []\n");
    // wrk's load: no errors, every reply a 200.
    const auto wrk = runProcess({"/usr/bin/wrk", "-t1", "-c20", "-d1s", server.url("/hello")});
    ASSERT_EQ(wrk.exitStatus, 0) << wrk.err;
    EXPECT_NE(wrk.out.find("requests in"), std::string::npos) << wrk.out;
    EXPECT_EQ(wrk.out.find("Socket errors"), std::string::npos) << wrk.out;
    EXPECT_EQ(wrk.out.find("Non-2xx"), std::string::npos) << wrk.out;
}

long residentKiB() {
    const std::string statm = testsupport::readFile("/proc/self/statm");
    return std::stol(statm.substr(statm.find(' ') + 1)) * (sysconf(_SC_PAGESIZE) / 1024);
}

// Malformed heads (the fuzzer's corpus and random mutations), slow clients
// and resets: every head gets an answer or a close, a normal request is
// served meanwhile, and descriptors come back to where they were.
TEST(HttpServer, MisbehavingClientsLeaveNoTrace) {
    HttpTestServer server;
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
    const unsigned fdsBefore = testsupport::openDescriptors();
    const long rssBefore = residentKiB();
    const auto r = runProcess(
        {"/usr/bin/env", "python3", TARVEX_SOURCE_DIR "/tests/data/http_abuse.py",
         std::to_string(server.port), TARVEX_SOURCE_DIR "/fuzz/corpus/http_request_head"});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_NE(r.out.find("served_while_slow=yes"), std::string::npos) << r.out;
    unsigned heads = 0, replies = 0;
    ASSERT_EQ(sscanf(r.out.c_str(), "heads=%u replies=%u", &heads, &replies), 2) << r.out;
    EXPECT_GT(replies, heads / 2) << r.out;  // most get an answer; the rest were cut short
    // The server lets go of every connection once its clients are gone.
    EXPECT_TRUE(
        testsupport::waitUntil([&] { return testsupport::openDescriptors() <= fdsBefore; }, 20.0))
        << testsupport::openDescriptors() << " descriptors, " << fdsBefore << " before";
    const long rssAfter = residentKiB();
    printf("robustness: %s; descriptors %u before, %u after; RSS %ld KiB before, %ld after\n",
           r.out.substr(0, r.out.find('\n')).c_str(), fdsBefore, testsupport::openDescriptors(),
           rssBefore, rssAfter);
    EXPECT_LT(rssAfter - rssBefore, 64 * 1024);
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
}

// A client that stops in the middle of a head, one that never sends, and an
// idle keep-alive connection are all let go when their time runs out.
TEST(HttpServer, SlowAndIdleClientsTimeOut) {
    HttpTestServer server(new QuickListener);
    EXPECT_EQ(python("slow_clients.py", {std::to_string(server.port)}), "0 True\n0 True\n1 True\n");
}

TEST(HttpServer, FilesWithTheirValidators) {
    testsupport::ScratchDir dir;
    std::string bytes;
    for (int i = 0; i < 100000; ++i) bytes.push_back(char(i * 7 + i / 251));
    testsupport::writeFile(dir / "blob.bin", bytes);
    ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
    auto* listener = new TestListener;
    listener->staticRoot = dir.path() + "/";  // before the loop runs
    HttpTestServer server(listener);

    const auto got =
        runProcess({"/usr/bin/curl", "-sS", "-D", "/dev/stderr", server.url("/static/blob.bin")});
    EXPECT_EQ(got.out, bytes);
    EXPECT_NE(got.err.find("Content-Length: 100000\r\n"), std::string::npos) << got.err;
    const size_t at = got.err.find("ETag: ");
    ASSERT_NE(at, std::string::npos) << got.err;
    const std::string etag = got.err.substr(at + 6, got.err.find("\r\n", at) - at - 6);

    const std::tuple<std::vector<std::string>, const char*> cases[] = {
        {{"-H", "If-None-Match: " + etag, server.url("/static/blob.bin")}, "304 Not Modified"},
        {{"-H", "If-Modified-Since: Thu, 31 Dec 2099 23:59:59 GMT", server.url("/static/blob.bin")},
         "304 Not Modified"},
        {{"-H", "If-Match: \"other\"", server.url("/static/blob.bin")}, "412 Precondition Failed"},
        {{server.url("/static/missing")}, "404 No such file or directory"},
        {{server.url("/static/sub")}, "404 Not a regular file"},
    };
    for (const auto& [args, status] : cases) {
        std::vector<std::string> argv = {"/usr/bin/curl", "-sS", "-o", "/dev/null", "-D", "-"};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto r = runProcess(argv);
        EXPECT_EQ(r.out.substr(0, r.out.find("\r\n")), std::string("HTTP/1.1 ") + status)
            << args.back() << "\n"
            << r.out;
    }
}

TEST(HttpServer, TheThreadLimitAnswers503) {
    HttpTestServer server;
    server.listener().setMaxThreads(0);
    const auto r = runProcess({"/usr/bin/curl", "-sS", "-i", server.url("/threaded")});
    EXPECT_EQ(r.out.substr(0, r.out.find("\r\n")),
              "HTTP/1.1 503 Too many HTTP threads (0) already running, try again later");
}

}  // namespace
