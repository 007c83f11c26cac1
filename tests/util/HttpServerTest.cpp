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
        for (auto it = t->postArguments().arguments().begin();
             it != t->postArguments().arguments().end(); ++it) {
            out.appendFormat(" %s=%s", it->key.c_str(), it->value.c_str());
        }
        if (t->postArguments().hadParsingError()) out.append(" [bad form]");
        t->writeAsync(t->_astr, true);
    }
};

// Sends its body in three pieces, each asked for in turn.
class ThreePiecesProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override { getBody(t); }
    void getBody(HttpServerTransaction* t) override {
        static const char* pieces[] = {"one,", "two,", "three"};
        t->writeAsync(pieces[_next], strlen(pieces[_next]), _next == 2);
        ++_next;
    }

private:
    int _next = 0;
};

// Made on a worker thread: what the worker saw.
class WorkerEcho : public ThreadedStringHttpDataProvider {
public:
    void fill(HttpServerTransaction* t, AppendStr* out) override {
        t->setContentType(&HttpContentType::TYPE_PLAINTEXT);
        out->appendFormat("worker=%d received=%lld", int(t->isInOwnThread()),
                          (long long)t->_bytesReceived);
        for (const auto& arg : t->postArguments().arguments()) {
            out->appendFormat(" %s=%s", arg.key.c_str(), arg.value.c_str());
        }
    }
};

// A body worth compressing, made on a worker.
class WorkerRepeat : public ThreadedStringHttpDataProvider {
public:
    void fill(HttpServerTransaction* t, AppendStr* out) override {
        t->setContentType(&HttpContentType::TYPE_PLAINTEXT);
        for (int i = 0; i < 1000; ++i) out->appendFormat("line %d\n", i);
    }
};

// Fails after its first piece has gone.
class FailingProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override { t->writeAsync("first,", 6, false); }
    void getBody(HttpServerTransaction*) override { throw std::runtime_error("disk gone"); }
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
            t->setReplyDataProviderAndClaim(new ThreePiecesProvider);
        } else if (url == "/threaded") {
            t->setReplyDataProviderAndClaim(new WorkerEcho);
        } else if (url == "/threaded/big") {
            t->requestCompression(6);
            t->setReplyDataProviderAndClaim(new WorkerRepeat);
        } else if (url == "/stream") {
            t->setReplyDataProviderAndClaim(new WorkerStream);
        } else if (url == "/small") {
            t->setMaximumRequestDataSize(10);
            t->setReplyDataProviderAndClaim(new EchoBodyProvider);
        } else if (url.rfind("/static/", 0) == 0) {
            t->setReplyDataProviderAndClaim(
                new StaticFileHttpDataProvider(Pathname(staticRoot + url.substr(8))));
        } else if (url == "/fails") {
            t->setReplyDataProviderAndClaim(new FailingProvider);
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

// A raw exchange: sends the bytes (in the pieces given), half-closes, and
// returns all that came back.
std::string rawExchange(unsigned port, const std::vector<std::string>& pieces,
                        bool halfClose = true) {
    std::string script =
        "import socket, sys, time\n"
        "s = socket.create_connection(('127.0.0.1', int(sys.argv[1])), timeout=20)\n"
        "for p in sys.argv[2:]:\n"
        "    s.sendall(p.encode('latin-1')); time.sleep(0.02)\n";
    if (halfClose) script += "s.shutdown(socket.SHUT_WR)\n";
    script +=
        "out = b''\n"
        "while True:\n"
        "    d = s.recv(65536)\n"
        "    if not d: break\n"
        "    out += d\n"
        "sys.stdout.write(out.decode('latin-1'))\n";
    std::vector<std::string> argv = {"/usr/bin/env", "python3", "-c", script, std::to_string(port)};
    argv.insert(argv.end(), pieces.begin(), pieces.end());
    const auto r = runProcess(argv);
    EXPECT_EQ(r.err, "");
    return r.out;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(HttpServer, CurlKeepsTheConnectionAcrossRequests) {
    HttpTestServer server;
    const auto r = runProcess({"/usr/bin/curl", "-sS", "-v", "--max-time", "20",
                               server.url("/hello"), server.url("/missing"), server.url("/hello")});
    EXPECT_EQ(r.out.substr(0, 5), "hello");
    EXPECT_NE(r.out.find("<title>404 Not Found</title>"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 5), "hello");
    EXPECT_EQ(count(r.err, "Re-using existing connection"), 2u) << r.err;
    EXPECT_NE(r.err.find("< Server: tarvex-test"), std::string::npos);
}

TEST(HttpServer, RequestBodiesFixedChunkedAndAfterContinue) {
    HttpTestServer server;
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "big", std::string(3 * 1024 * 1024 + 7, 'b'));
    testsupport::writeFile(dir / "form", "a=1&b=two+words&c=%41");

    struct Case {
        std::vector<std::string> curlArgs;
        std::string reply;
        std::string inTrace;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        std::vector<std::string> argv = {"/usr/bin/curl", "-sS", "-v", "--max-time", "30"};
        argv.insert(argv.end(), c.curlArgs.begin(), c.curlArgs.end());
        const auto r = runProcess(argv);
        SCOPED_TRACE(c.curlArgs.back());
        if (!c.reply.empty()) {
            EXPECT_EQ(r.out, c.reply);
        }
        EXPECT_NE(r.err.find(c.inTrace), std::string::npos) << r.err;
        if (c.curlArgs.back() == server.url("/refuse")) {
            EXPECT_EQ(r.err.find("100 Continue"), std::string::npos);
            EXPECT_NE(r.out.find("<title>403 Not for you</title>"), std::string::npos);
        }
    }
}

TEST(HttpServer, PythonClientReadsPiecesHeadAndErrors) {
    HttpTestServer server;

    const auto r = runProcess(
        {"/usr/bin/env", "python3", "-c",
         "import http.client, sys\n"
         "c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=20)\n"
         "for method, url in [('GET', '/pieces'), ('HEAD', '/hello'), ('GET', '/hello'),\n"
         "                    ('DELETE', '/nowhere'), ('OPTIONS', '/hello'), ('OPTIONS', '*'),\n"
         "                    ('GET', '/hello')]:\n"
         "    c.request(method, url)\n"
         "    r = c.getresponse()\n"
         "    print(method, url, r.status, r.getheader('Transfer-Encoding'),\n"
         "          r.getheader('Content-Length'), r.read()[:20])\n",
         std::to_string(server.port)});
    EXPECT_EQ(r.out,
              "GET /pieces 200 chunked None b'one,two,three'\n"
              "HEAD /hello 200 None 5 b''\n"
              "GET /hello 200 None 5 b'hello'\n"
              "DELETE /nowhere 404 None 223 b'<!doctype html><html'\n"
              "OPTIONS /hello 200 None 0 b''\n"
              "OPTIONS * 200 None 0 b''\n"
              "GET /hello 200 None 5 b'hello'\n")
        << r.err;
}

TEST(HttpServer, PipelinedAndSplitRequests) {
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
}

TEST(HttpServer, BadRequestsAreAnsweredAndTheConnectionClosed) {
    HttpTestServer server;
    struct Case {
        std::string request;
        std::string statusLine;
    };
    const Case cases[] = {
        {"GET /hello HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Host header not provided"},
        {"GET /hello HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",
         "HTTP/1.1 400 Request message contains more than one Host header"},
        {"GET /hello HTTP/1.1\r\nBad Line\r\n\r\nGET /hello HTTP/1.1\r\n\r\n",
         "HTTP/1.1 400 Malformed header line"},
        {"BREW /pot HTTP/1.1\r\nHost: h\r\n\r\n", "HTTP/1.1 501 Method not implemented"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nContent-Length: -1\r\n\r\n",
         "HTTP/1.1 413 Invalid Content-Length"},
        {"POST /small HTTP/1.1\r\nHost: h\r\nContent-Length: 11\r\n\r\n12345678901",
         "HTTP/1.1 413 Content-Length of 11 too large (maximum is 10)"},
        {"POST /small HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\nb\r\n",
         "HTTP/1.1 413 Content-Length of 11 too large (maximum is 10)"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: gzip\r\n\r\n",
         "HTTP/1.1 501 Unknown Transfer-Encoding"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nExpect: 200-ok\r\n\r\n",
         "HTTP/1.1 417 Expectation Failed"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nContent-Encoding: br\r\nContent-Length: 1\r\n\r\nx",
         "HTTP/1.1 415 Unsupported Media Type"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
         "HTTP/1.1 413 Chunked protocol error: bad hex digit 0x7A"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n"
         "ffffffffffffffff\r\n",
         "HTTP/1.1 413 Chunked protocol error: chunk length too large"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n"
         "4\r\nabcd\r\n0\r\n\r\n",
         "HTTP/1.1 413 Chunked protocol error: client claimed it would send 5 bytes, but only "
         "sent 4"},
        {"POST /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n"
         "4\r\nabcd\r\n0\r\n\r\n",
         "HTTP/1.1 413 Chunked protocol error: client claimed it would send only send 3 bytes, "
         "but has exceeded that"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        // No half-close: the server ends the connection itself, for a head
        // it could not read, or as the request asked.
        std::string request = c.request;
        if (c.statusLine.find(" 400 ") == std::string::npos &&
            c.statusLine.find(" 501 Method") == std::string::npos) {
            request.insert(request.find("\r\n") + 2, "Connection: close\r\n");
        }
        const std::string reply = rawExchange(server.port, {request}, false);
        EXPECT_EQ(reply.substr(0, reply.find("\r\n")), c.statusLine) << reply;
        EXPECT_EQ(count(reply, "HTTP/1.1 "), 1u) << reply;
    }
    // A good request after all that is still served.
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
}

TEST(HttpServer, RepliesMadeOnWorkerThreads) {
    HttpTestServer server;
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "form", "a=1&b=" + std::string(200000, 'x'));
    const auto r = runProcess(
        {"/usr/bin/env", "python3", "-c",
         "import http.client, sys\n"
         "c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=20)\n"
         "form = open(sys.argv[2], 'rb').read()\n"
         "def chunks():\n"
         "    yield form[:3]; yield form[3:100]; yield form[100:]\n"
         "for method, url, body, enc in [('GET', '/threaded', None, False),\n"
         "        ('POST', '/threaded', form, False), ('POST', '/threaded', chunks(), True),\n"
         "        ('GET', '/stream', None, False), ('HEAD', '/stream', None, False),\n"
         "        ('GET', '/hello', None, False)]:\n"
         "    c.request(method, url, body=body, encode_chunked=enc,\n"
         "              headers={'Transfer-Encoding': 'chunked'} if enc else {})\n"
         "    r = c.getresponse()\n"
         "    print(method, url, r.status, r.getheader('Transfer-Encoding'), r.read()[:40])\n",
         std::to_string(server.port), dir / "form"});
    EXPECT_EQ(r.out,
              "GET /threaded 200 None b'worker=1 received=0'\n"
              "POST /threaded 200 None b'worker=1 received=200006 a=1 b=xxxxxxxxx'\n"
              "POST /threaded 200 None b'worker=1 received=200006 a=1 b=xxxxxxxxx'\n"
              "GET /stream 200 chunked b'alpha,beta,gamma'\n"
              "HEAD /stream 200 None b''\n"
              "GET /hello 200 None b'hello'\n")
        << r.err;
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
    struct Case {
        const char* file;
        const char* path;
        std::string expected;
    };
    const Case cases[] = {
        {"form.gz", "/echo", " a=1 b=" + std::string(100000, 'z')},
        {"form.gz", "/threaded", " a=1 b=" + std::string(100000, 'z')},
        // Two members, one after the other: "b" continues into the second "a".
        {"twice.gz", "/echo", " a=1 b=" + std::string(100000, 'z') + "a=1"},
        {"cut.gz", "/echo", "<title>400 Truncated gzip data in request</title>"},
        {"cut.gz", "/threaded", "<title>400 Truncated gzip data in request</title>"},
        {"bad.gz", "/echo", "<title>400 Unparsable gzip header in request data</title>"},
        {"bomb.gz", "/echo", "<title>413 Content-Length of "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + c.path);
        const auto r =
            runProcess({"/usr/bin/curl", "-sS", "--max-time", "30", "-H", "Content-Encoding: gzip",
                        "-H", "Content-Type: application/x-www-form-urlencoded", "--data-binary",
                        "@" + (dir / c.file), server.url(c.path)});
        EXPECT_NE(r.out.find(c.expected), std::string::npos) << r.out.substr(0, 300) << r.err;
    }
}

TEST(HttpServer, AFinalReplyIsGzippedForAClientThatTakesIt) {
    HttpTestServer server;
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

// Many clients at once, half of them served by workers: every reply right.
TEST(HttpServer, ConcurrentClientsWithWorkerHandlers) {
    HttpTestServer server;
    const auto r = runProcess(
        {"/usr/bin/env", "python3", "-c",
         "import http.client, sys, threading\n"
         "bad = []\n"
         "def client(n):\n"
         "    c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=30)\n"
         "    for i in range(20):\n"
         "        url = '/threaded' if (n + i) % 2 else '/echo'\n"
         "        c.request('POST', url, body='k=%d' % i,\n"
         "                  headers={'Content-Type': 'application/x-www-form-urlencoded'})\n"
         "        body = c.getresponse().read().decode()\n"
         "        if not body.endswith('k=%d' % i): bad.append(body)\n"
         "ts = [threading.Thread(target=client, args=(n,)) for n in range(12)]\n"
         "[t.start() for t in ts]; [t.join() for t in ts]\n"
         "print(len(bad), bad[:3])\n",
         std::to_string(server.port)});
    EXPECT_EQ(r.out, "0 []\n") << r.err;
}

// A provider that fails once the head is out: the connection ends, and the
// client sees a cut chunked body, never a second head.
TEST(HttpServer, AProviderFailingMidwayEndsTheConnection) {
    HttpTestServer server;
    const std::string reply =
        rawExchange(server.port, {"GET /fails HTTP/1.1\r\nHost: h\r\n\r\n"}, false);
    EXPECT_EQ(reply.substr(0, 17), "HTTP/1.1 200 OK\r\n");
    EXPECT_NE(reply.find("\r\n\r\n6\r\nfirst,"), std::string::npos) << reply;
    EXPECT_EQ(reply.find("0\r\n\r\n"), std::string::npos) << reply;  // no end marker
    EXPECT_EQ(count(reply, "HTTP/1.1"), 1u);
    // The server goes on.
    EXPECT_EQ(runProcess({"/usr/bin/curl", "-sS", server.url("/hello")}).out, "hello");
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
    const auto r = runProcess(
        {"/usr/bin/env", "python3", "-c",
         "import socket, sys, time\n"
         "def closed_after(first):\n"
         "    s = socket.create_connection(('127.0.0.1', int(sys.argv[1])), timeout=10)\n"
         "    if first: s.sendall(first)\n"
         "    t = time.time(); out = b''\n"
         "    while True:\n"
         "        d = s.recv(4096)\n"
         "        if not d: break\n"
         "        out += d\n"
         "        if out.endswith(b'hello'): t = time.time()\n"
         "    return out, time.time() - t\n"
         "for first in [b'GET /hello HTTP/1.1\\r\\nHo', b'',\n"
         "              b'GET /hello HTTP/1.1\\r\\nHost: h\\r\\n\\r\\n']:\n"
         "    out, waited = closed_after(first)\n"
         "    print(out.count(b'HTTP/1.1 200'), 0.2 < waited < 5)\n",
         std::to_string(server.port)});
    EXPECT_EQ(r.out, "0 True\n0 True\n1 True\n") << r.err;
}

// wrk's load: no errors, every reply a 200.
TEST(HttpServer, WrkLoad) {
    HttpTestServer server;
    const auto r = runProcess({"/usr/bin/wrk", "-t1", "-c20", "-d1s", server.url("/hello")});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_NE(r.out.find("requests in"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Socket errors"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Non-2xx"), std::string::npos) << r.out;
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

    struct Case {
        std::vector<std::string> args;
        const char* status;
    };
    const Case cases[] = {
        {{"-H", "If-None-Match: " + etag, server.url("/static/blob.bin")}, "304 Not Modified"},
        {{"-H", "If-Modified-Since: Thu, 31 Dec 2099 23:59:59 GMT", server.url("/static/blob.bin")},
         "304 Not Modified"},
        {{"-H", "If-Match: \"other\"", server.url("/static/blob.bin")}, "412 Precondition Failed"},
        {{server.url("/static/missing")}, "404 No such file or directory"},
        {{server.url("/static/sub")}, "404 Not a regular file"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = {"/usr/bin/curl", "-sS", "-o", "/dev/null", "-D", "-"};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const auto r = runProcess(argv);
        EXPECT_EQ(r.out.substr(0, r.out.find("\r\n")), std::string("HTTP/1.1 ") + c.status)
            << c.args.back() << "\n"
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
