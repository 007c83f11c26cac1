#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"
#include "util/FileDescriptor.h"
#include "util/HttpListener.h"
#include "util/TcpChannel.h"

namespace {

class AllowAll : public HttpServerCrossSitePolicy {
public:
    bool allowFor(HttpServerTransaction*) const override { return true; }
    Str allowedHeaders() const override { return headers; }
    Str headers;
};

// One transaction fed a request head; render() builds the reply as the
// server would send it: the head, then the body when one is due.
struct Exchange {
    explicit Exchange(const std::string& head) {
        t._setConnectionParts(&date, &tail, &httpServerCrossSitePolicyDenyAll);
        receive(head);
    }
    void receive(const std::string& head) {
        buffer->_rbuf.write(head.data(), head.size());
        EXPECT_TRUE(t._parser.parse(*buffer, &t._request)) << head;
    }
    // The head, as the server builds it once the handler is done.
    bool build() {
        t._provider->getPreBody(&t);
        const bool head = t._internal_prepareReplyHeaders();
        t._alreadyBuiltHeaders = true;
        return head;
    }
    std::string render() {
        const bool head = build();
        std::string out = head ? std::string(Str::from(t.headerBlock())) : std::string();
        if (t._needToSendBody) {
            t._toSend.forEachPiece([&](const char* p, size_t n) { out.append(p, n); });
        }
        return out;
    }
    std::unique_ptr<TcpAsyncDataBuffer> buffer = std::make_unique<TcpAsyncDataBuffer>();
    HttpServerTransaction t;
    HttpDateLine date;
    HttpReplyTail tail;
};

// The date lines change with the clock: their shape is checked, then they
// are replaced by "*". The fixed Expires of 1978 stays.
std::string withoutDates(const std::string& reply) {
    std::string out;
    size_t at = 0;
    for (size_t eol; (eol = reply.find("\r\n", at)) != std::string::npos; at = eol + 2) {
        std::string line = reply.substr(at, eol - at);
        for (const std::string key : {"Date: ", "Expires: "}) {
            if (line.rfind(key, 0) != 0) continue;
            const std::string date = line.substr(key.size());
            Timeval parsed;
            if (date.size() == 29 && http_parse_date(date, &parsed) &&
                date.find("1978") == std::string::npos) {
                line = key + "*";
            }
        }
        out += line + "\r\n";
        if (eol == at) return out + reply.substr(eol + 2);  // the body follows
    }
    return out + reply.substr(at);
}

// Python's http.client reads the reply: status, reason, headers and the
// body's length, one per line.
std::string pythonReads(const std::string& reply, const char* method) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "reply", reply);
    const auto r = testsupport::runProcess(
        {"/usr/bin/env", "python3", "-c",
         "import sys, io, http.client\n"
         "class S:\n"
         "    def makefile(self, *a, **k): return open(sys.argv[1], 'rb')\n"
         "r = http.client.HTTPResponse(S(), method=sys.argv[2]); r.begin()\n"
         "body = r.read()\n"
         "print(r.status, r.reason, r.version, len(body), r.will_close)",
         dir / "reply", method});
    EXPECT_EQ(r.err, "");
    return r.out;
}

const char* kGet11 = "GET /x HTTP/1.1\r\nHost: h\r\n\r\n";

TEST(HttpReply, GoldenRepliesAreValidHttp) {
    struct Case {
        const char* name;
        const char* request;
        std::function<void(HttpServerTransaction&)> handler;
        const char* reply;  // Date and Expires values as "*"
        const char* python;
    };
    const Case cases[] = {
        {"text", kGet11,
         [](HttpServerTransaction& t) {
             t.contents(&HttpContentType::TYPE_PLAINTEXT).append("hello");
         },
         "HTTP/1.1 200 OK\r\nDate: *\r\nContent-Type: text/plain; charset=UTF-8\r\n"
         "X-Content-Type-Options: nosniff\r\nContent-Length: 5\r\nConnection: "
         "Keep-Alive\r\n\r\nhello",
         "200 OK 11 5 False\n"},
        {"head", "HEAD /x HTTP/1.1\r\n\r\n",
         [](HttpServerTransaction& t) {
             t.contents(&HttpContentType::TYPE_PLAINTEXT).append("hello");
         },
         "HTTP/1.1 200 OK\r\nDate: *\r\nContent-Type: text/plain; charset=UTF-8\r\n"
         "X-Content-Type-Options: nosniff\r\nContent-Length: 5\r\nConnection: Keep-Alive\r\n\r\n",
         "200 OK 11 0 False\n"},
        {"no content", "GET /x HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
         [](HttpServerTransaction& t) { t.setNoContents(); },
         "HTTP/1.1 204 No Content\r\nDate: *\r\nContent-Length: 0\r\nConnection: "
         "Keep-Alive\r\n\r\n",
         "204 No Content 11 0 False\n"},
        {"1.0 without a length", "GET /x HTTP/1.0\r\n\r\n",
         [](HttpServerTransaction& t) {
             static const char part[] = "partial";
             t.writeAsync(part, 7, false);
         },
         "HTTP/1.1 200 OK\r\nDate: *\r\nConnection: Close\r\n\r\npartial", "200 OK 11 7 True\n"},
        {"no caching", kGet11,
         [](HttpServerTransaction& t) {
             t.setMaxCacheSeconds(0);
             t.setNoContents();
         },
         "HTTP/1.1 204 No Content\r\nDate: *\r\nExpires: Thu, 26 Oct 1978 00:00:00 GMT\r\n"
         "Cache-Control: no-store, no-cache, must-revalidate, max-age=0\r\nContent-Length: 0\r\n"
         "Connection: Keep-Alive\r\n\r\n",
         "204 No Content 11 0 False\n"},
        {"public for a day", kGet11,
         [](HttpServerTransaction& t) {
             t.setCacheControl(HttpServerTransaction::CACHE_PUBLIC);
             t.setMaxCacheSeconds(86400);
             t.setNoContents();
         },
         "HTTP/1.1 204 No Content\r\nDate: *\r\nExpires: *\r\nCache-Control: public, "
         "max-age=86400\r\n"
         "Content-Length: 0\r\nConnection: Keep-Alive\r\n\r\n",
         "204 No Content 11 0 False\n"},
        {"not modified", kGet11,
         [](HttpServerTransaction& t) {
             t.setEtag("v1", false);
             t.setLastModified(Timeval(784111777, 0));
             t.setCacheControl(HttpServerTransaction::CACHE_PRIVATE);
             t.setMaxCacheSeconds(60);
             t.setContentType(&HttpContentType::TYPE_HTML);
             Str v("x"), c("close-later");
             t.extraHeaders().addDestructive(HttpHeader::__pkey_pragma, v);
             t.extraHeaders().addDestructive(HttpHeader::__pkey_vary, c);
             t.setStatus(304);
         },
         "HTTP/1.1 304 Not Modified\r\nETag: \"v1\"\r\nDate: *\r\nExpires: *\r\n"
         "Cache-Control: private, max-age=60\r\nConnection: Keep-Alive\r\nVary: "
         "close-later\r\n\r\n",
         "304 Not Modified 11 0 False\n"},
        {"not found", "GET /missing HTTP/1.1\r\nConnection: close\r\n\r\n", nullptr,
         "HTTP/1.1 404 Not Found\r\nDate: *\r\nContent-Type: text/html; charset=UTF-8\r\n"
         "X-Content-Type-Options: nosniff\r\nContent-Length: 223\r\nConnection: Close\r\n\r\n"
         "<!doctype html><html><head><meta http-equiv=\"content-type\" content=\"text/html; "
         "charset=UTF-8\"><title>404 Not Found</title></head><body><h1>Not Found</h1><p>The "
         "requested URL was not found on this server.</p></body></html>\r\n",
         "404 Not Found 11 223 True\n"},
        {"redirect", kGet11, [](HttpServerTransaction& t) { t.setRedirect(302, "/a?b=1&c=\"2\""); },
         "HTTP/1.1 302 Found\r\nDate: *\r\nContent-Type: text/html; charset=UTF-8\r\n"
         "X-Content-Type-Options: nosniff\r\nContent-Length: 319\r\nLocation: /a?b=1&c=\"2\"\r\n"
         "Connection: Keep-Alive\r\n\r\n"
         "<!doctype html><html><head><meta http-equiv=\"content-type\" content=\"text/html; "
         "charset=UTF-8\"><meta http-equiv=\"refresh\" "
         "content=\"1;url=/a?b=1&amp;c=&quot;2&quot;\">"
         "<title>302 Found</title></head><body><h1>Found</h1><p>The resource has moved "
         "temporarily <a href=\"/a?b=1&amp;c=&quot;2&quot;\">here</a>.</p></body></html>\r\n",
         "302 Found 11 319 False\n"},
        {"options", "OPTIONS /x HTTP/1.1\r\n\r\n",
         [](HttpServerTransaction& t) {
             t.setReplyDataProviderDontClaim(&nullHttpReplyDataProvider);  // as dispatch does
             t.setAllowedMethods(HttpMethod(HttpMethod::GET | HttpMethod::OPTIONS));
         },
         "HTTP/1.1 200 OK\r\nDate: *\r\nAllow: GET,OPTIONS\r\nContent-Type: text/plain; "
         "charset=UTF-8\r\nX-Content-Type-Options: nosniff\r\nContent-Length: 0\r\n"
         "Connection: Keep-Alive\r\n\r\n",
         "200 OK 11 0 False\n"},
        {"method not allowed", "DELETE /x HTTP/1.1\r\n\r\n",
         [](HttpServerTransaction& t) {
             t.setAllowedMethods(HttpMethod(HttpMethod::GET | HttpMethod::HEAD));
             t.setStatusFormat(405, "No %s here", "deleting");
         },
         "HTTP/1.1 405 No deleting here\r\nDate: *\r\nAllow: GET,HEAD\r\nContent-Type: text/html; "
         "charset=UTF-8\r\nX-Content-Type-Options: nosniff\r\nContent-Length: 239\r\n"
         "Connection: Keep-Alive\r\n\r\n"
         "<!doctype html><html><head><meta http-equiv=\"content-type\" content=\"text/html; "
         "charset=UTF-8\"><title>405 No deleting here</title></head><body><h1>No deleting "
         "here</h1><p>Specified method is not allowed on this resource.</p></body></html>\r\n",
         "405 No deleting here 11 239 False\n"},
        {"download", kGet11,
         [](HttpServerTransaction& t) {
             t.setDownloadFilename("a b.txt");
             t.setLink("</s.css>; rel=preload");
             t.contents(&HttpContentType::TYPE_BINARY).append("x");
         },
         "HTTP/1.1 200 OK\r\nDate: *\r\nContent-Type: application/octet-stream\r\n"
         "X-Content-Type-Options: nosniff\r\nLink: </s.css>; rel=preload\r\nContent-Length: 1\r\n"
         "Content-Disposition: Attachment; filename=\"ab.txt\"; filename*=UTF-8''a%20b.txt\r\n"
         "Connection: Keep-Alive\r\n\r\nx",
         "200 OK 11 1 False\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Exchange x(c.request);
        if (c.handler) c.handler(x.t);
        const std::string reply = x.render();
        EXPECT_EQ(withoutDates(reply), c.reply);
        const char* method = x.t.method() == HttpMethod::HEAD ? "HEAD" : "GET";
        EXPECT_EQ(pythonReads(reply, method), c.python);
    }
}

TEST(HttpReply, HeadOrderWithEveryPart) {
    Exchange x(
        "GET /doc HTTP/1.1\r\nOrigin: https://a.example\r\nAccess-Control-Request-Headers: X-A\r\n"
        "Accept-Encoding: gzip\r\n\r\n");
    AllowAll policy;
    policy.headers = "X-A,X-B";
    x.tail.set("tarvex-test", {{"X-Z", "last"}, {"X-A", "first"}}, true, true, true, false);
    x.t._setConnectionParts(&x.date, &x.tail, &policy);
    x.t.varyBy("Origin, Cookie");
    x.t.setContentEncoding(HttpCompressionAlgorithm::FLAG_GZIP);
    x.t.setLastModified(Timeval(784111777, 0));
    x.t.contents(&HttpContentType::TYPE_JSON).append("{}");
    EXPECT_EQ(withoutDates(x.render()),
              "HTTP/1.1 200 OK\r\nDate: *\r\nContent-Type: application/json; charset=UTF-8\r\n"
              "X-Content-Type-Options: nosniff\r\n"
              "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nContent-Length: 2\r\n"
              "Content-Encoding: gzip\r\n"
              "Access-Control-Allow-Origin: https://a.example\r\n"
              "Access-Control-Allow-Credentials: true\r\n"
              "Access-Control-Allow-Headers:Authorization,X-A,X-B\r\n"
              "Access-Control-Allow-Methods: GET,POST,PUT,DELETE,HEAD,OPTIONS,PATCH\r\n"
              "Vary: Accept-Encoding, Cookie, Origin\r\nConnection: Keep-Alive\r\n"
              "X-Frame-Options: SAMEORIGIN\r\n"
              "Strict-Transport-Security: max-age=31536000; includeSubDomains\r\n"
              "Server: tarvex-test\r\nX-A: first\r\nX-Z: last\r\n\r\n{}");

    // Without Vary: Origin the origin is "*"; the frame options can be left out.
    Exchange y("GET / HTTP/1.1\r\nOrigin: o\r\n\r\n");
    y.tail.set("", {}, true, false, false, false);
    y.t._setConnectionParts(&y.date, &y.tail, &policy);
    y.t.dontIncludeFrameOptions();
    y.t.setNoContents();
    EXPECT_EQ(withoutDates(y.render()),
              "HTTP/1.1 204 No Content\r\nDate: *\r\nContent-Length: 0\r\n"
              "Access-Control-Allow-Origin: *\r\nAccess-Control-Allow-Credentials: true\r\n"
              "Access-Control-Allow-Methods: GET,POST,PUT,DELETE,HEAD,OPTIONS,PATCH\r\n"
              "Connection: Keep-Alive\r\n\r\n");
}

TEST(HttpReply, EntityTagsOfFreshFilesGoOutWeak) {
    const Timeval now = Timeval::now();
    struct Case {
        bool fromStat;
        int64_t age;
        const char* ua;
        bool weak, noCache;
    };
    const Case cases[] = {
        {false, 0, "x", false, false},
        {true, 0, "x", true, false},
        {true, 10, "x", false, false},
        {false, 0, "Mozilla/4.0 (compatible; MSIE 8.0)", false, true},
    };
    for (const Case& c : cases) {
        Exchange x(std::string("GET / HTTP/1.1\r\nUser-Agent: ") + c.ua + "\r\n\r\n");
        if (c.fromStat) {
            FileDescriptorStat st{};
            x.t._etag.set(st, false);
            x.t._etagp = &x.t._etag;
        } else {
            x.t.setEtag("e", false);
        }
        x.t.setLastModified(Timeval(now.sec() - c.age, 0));
        x.t.setNoContents();
        const std::string reply = x.render();
        EXPECT_EQ(reply.find("ETag: W/\"") != std::string::npos, c.weak) << reply;
        EXPECT_EQ(reply.find("Cache-Control: no-cache, must-revalidate, max-age=0\r\n") !=
                      std::string::npos,
                  c.noCache)
            << reply;
    }
}

TEST(HttpReply, EveryExceptionBecomesItsReply) {
    struct Case {
        std::function<void()> raise;
        unsigned status;
        const char* statusLine;
        const char* sentence;
    };
    const Case cases[] = {
        {[] { throw HttpBadRequestException("Bad \x01thing"); }, 400, "HTTP/1.1 400 Bad thing",
         "HTTP Request was malformed"},
        {[] { throw HttpPreconditionFailedException(); }, 412, "HTTP/1.1 412 Precondition Failed",
         "Response would not match client's preconditions"},
        {[] { throw HttpRequestEntityTooLargeException("Too big"); }, 413, "HTTP/1.1 413 Too big",
         "The request your client sent was too large"},
        {[] { throw HttpRequestUriTooLongException(); }, 414, "HTTP/1.1 414 Request-URI Too Long",
         "The URL your client requested was too long"},
        {[] { throw HttpChunkedProtocolException("Chunked"); }, 413, "HTTP/1.1 413 Chunked",
         "The request your client sent was too large"},
        {[] { throw HttpClientException(415); }, 415, "HTTP/1.1 415 Unsupported Media Type",
         "The requested URL does not support the media type sent"},
        {[] { throw HttpInternalErrorException(); }, 500, "HTTP/1.1 500 Internal Server Error",
         "The server had an unexpected error"},
        {[] { throw HttpNotImplementedException(); }, 501, "HTTP/1.1 501 Method not implemented",
         "The server does not support the functionality requested"},
        {[] { throw HttpServerException(505); }, 505, "HTTP/1.1 505 HTTP Version Not Supported",
         "The request was made with a version of the HTTP protocol this server does not support"},
        {[] { throw HttpGenericRedirectException(301, "/new"); }, 301,
         "HTTP/1.1 301 Moved Permanently", "The resource has moved <a href=\"/new\">here</a>"},
        {[] {
             errno = ENOENT;
             throw HttpExceptionFromErrno("open /f");
         },
         404, "HTTP/1.1 404 open /f: No such file or directory",
         "The requested URL was not found on this server"},
        {[] { throw std::runtime_error("kaput\nwith detail"); }, 500, "HTTP/1.1 500 kaput",
         "The server had an unexpected error"},
        {[] { throw std::runtime_error("\x01"); }, 500, "HTTP/1.1 500 exception",
         "The server had an unexpected error"},
    };
    for (const Case& c : cases) {
        Exchange x(kGet11);
        x.t.setLastModified(Timeval(784111777, 0));
        Str h("kept?");
        x.t.extraHeaders().addDestructive(HttpHeader::__pkey_pragma, h);
        bool other = false;
        try {
            c.raise();
        } catch (const HttpException& e) {
            x.t._prepareErrorFromHttpException(e);
        } catch (const std::exception& e) {
            x.t._prepareErrorFromOtherException(e.what());
            other = true;
        }
        const std::string reply = x.render();
        SCOPED_TRACE(reply);
        EXPECT_EQ(x.t.statusCode(), c.status);
        EXPECT_EQ(reply.substr(0, reply.find('\r')), c.statusLine);
        EXPECT_NE(reply.find(std::string("<p>") + c.sentence + ".</p>"), std::string::npos);
        // A 412 keeps its validators; other errors drop them.
        EXPECT_EQ(reply.find("Last-Modified") != std::string::npos, c.status == 412);
        EXPECT_EQ(reply.find("Pragma: kept?") != std::string::npos, !other);
        EXPECT_EQ(pythonReads(reply, "GET").substr(0, 4), std::to_string(c.status) + " ");
    }
}

TEST(HttpReply, AFailingErrorDocumentStillGivesAValidReply) {
    struct Broken : HttpReplyDataProvider {
        void getPreBody(HttpServerTransaction*) override {}
        void getErrorDocument(HttpServerTransaction* t, AppendStr* out) override {
            out->append("half a document");
            (void)t;
            throw std::runtime_error("no templates");
        }
    };
    Broken broken;
    Exchange x(kGet11);
    x.t.setReplyDataProviderDontClaim(&broken);
    x.t._prepareErrorFromHttpException(HttpInternalErrorException("Oops"));
    // The half-written document is dropped; with nothing left to send, the
    // head builder asks again, now of the plain error document.
    const std::string reply = x.render();
    EXPECT_EQ(reply.find("half a document"), std::string::npos);
    EXPECT_NE(reply.find("<title>500 Oops</title>"), std::string::npos) << reply;
    EXPECT_EQ(pythonReads(reply, "GET"), "500 Oops 11 201 False\n");
}

TEST(HttpReply, ACrashReportNamesTheRequestAndItsProgress) {
    Exchange x("POST /orders/7 HTTP/1.1\r\nHost: h\r\n\r\n");
    x.t.setStatus(409);
    x.build();
    const std::string text = testsupport::crashText(x.t);
    EXPECT_NE(text.find("state=0 POST /orders/7 HTTP/1.1 status=409 headersBuilt=1"),
              std::string::npos)
        << text;
}

TEST(HttpReply, HttpZeroNineGetsTheBodyAlone) {
    Exchange x("GET /x\r\n");
    x.t.contents(&HttpContentType::TYPE_PLAINTEXT).append("raw");
    EXPECT_EQ(x.render(), "raw");
    EXPECT_TRUE(x.t._isLastTransaction);
}

TEST(HttpReply, ReadyMadeText) {
    struct Hex {
        uint64_t size;
        bool crlf;
        const char* line;
    };
    const Hex hex[] = {{1, false, "1\r\n"},
                       {255, true, "\r\nFF\r\n"},
                       {0x1000, false, "1000\r\n"},
                       {~uint64_t(0), true, "\r\nFFFFFFFFFFFFFFFF\r\n"}};
    for (const Hex& h : hex) {
        HttpChunkedEncodingHexLength l;
        l.fill(h.size, h.crlf);
        EXPECT_EQ(l.seg(), StrSegment(h.line));
    }

    // A year ahead keeps the weekday and carries through the digits.
    struct Year {
        time_t t;
        const char* ahead;
    };
    const Year years[] = {{946684799, "Fri, 31 Dec 2000 23:59:59 GMT\r\n"},
                          {784111777, "Sun, 06 Nov 1995 08:49:37 GMT\r\n"}};
    for (const Year& y : years) {
        HttpDateLine d;
        d.get(y.t);
        Str s;
        d.appendYearAhead(&s);
        EXPECT_EQ(s, y.ahead);
    }

    EXPECT_STREQ(http_status_text(306), "Use Proxy");
    EXPECT_STREQ(http_status_text(305), "???");
    EXPECT_STREQ(http_status_explanation(418), "Unknown error");
}

TEST(HttpReply, DownloadNames) {
    struct Case {
        const char* name;
        const char* header;
    };
    const Case cases[] = {
        {"report.csv", "filename=report.csv"},
        {"dir/a.txt", "filename=\"dira.txt\"; filename*=UTF-8''dir%2fa.txt"},
        {"back\\slash", "filename=back/slash; filename*=UTF-8''back%5cslash"},
        {"r\xC3\xA9sum\xC3\xA9.pdf", "filename=rsum.pdf; filename*=UTF-8''r%c3%a9sum%c3%a9.pdf"},
        {"50%.txt", "filename=50.txt; filename*=UTF-8''50%25.txt"},
        // 0xC0 or 0xC1 and a continuation make one byte (here 0xC1, not
        // printable, so dropped), and ask for no extended form.
        {"x\xC1\x81y", "filename=xy"},
        {"x\xC1y", "filename=xy; filename*=UTF-8''x%c1y"},
    };
    for (const Case& c : cases) {
        Exchange x(kGet11);
        x.t.setDownloadFilename(c.name);
        x.t.setNoContents();
        const std::string reply = x.render();
        const std::string expected =
            std::string("Content-Disposition: Attachment; ") + c.header + "\r\n";
        EXPECT_NE(reply.find(expected), std::string::npos) << c.name << "\n" << reply;
    }
}

TEST(HttpReply, AReusedTransactionRendersWithoutAllocating) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    Exchange x(kGet11);
    const std::string request = kGet11;
    auto once = [&](http_status_code_t status) {
        x.t.clear();
        x.receive(request);
        if (status == 200) {
            x.t.contents(&HttpContentType::TYPE_PLAINTEXT).append("hello, world");
        } else {
            x.t.setStatus(status);
        }
        EXPECT_TRUE(x.build());
    };
    once(200);
    once(404);
    {
        alloccounter::Scope scope;
        for (int i = 0; i < 3; ++i) {
            once(200);
            once(404);
        }
        EXPECT_EQ(scope.allocations(), 0);
    }
    // And the status line's digits follow the status each time.
    once(200);
    EXPECT_EQ(Str::from(x.t.headerBlock()).substr(0, 15), "HTTP/1.1 200 OK");
    once(404);
    EXPECT_EQ(Str::from(x.t.headerBlock()).substr(0, 22), "HTTP/1.1 404 Not Found");
}

}  // namespace
