#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
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

using Row = std::vector<std::string>;
std::vector<Row> rows(const std::string& name) {
    return testsupport::dataRows("HttpReplyTest/" + name);
}

// The golden reply named `name`.
Row golden(const std::string& name) {
    for (const Row& r : rows("golden-replies")) {
        if (r[0] == name) return r;
    }
    ADD_FAILURE() << "no golden reply " << name;
    return {name, "", ""};
}

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

// Python's http.client reads the reply to a GET: status, reason, headers and the
// body's length, one per line.
std::string pythonReads(const std::string& reply) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "reply", reply);
    const auto r =
        testsupport::runProcess({"/usr/bin/env", "python3", "-c",
                                 "import sys, io, http.client\n"
                                 "class S:\n"
                                 "    def makefile(self, *a, **k): return open(sys.argv[1], 'rb')\n"
                                 "r = http.client.HTTPResponse(S(), method='GET'); r.begin()\n"
                                 "body = r.read()\n"
                                 "print(r.status, r.reason, r.version, len(body), r.will_close)",
                                 dir / "reply"});
    EXPECT_EQ(r.err, "");
    return r.out;
}

const char* kGet11 = "GET /x HTTP/1.1\r\nHost: h\r\n\r\n";

TEST(HttpReply, GoldenReplies) {
    using Tx = HttpServerTransaction;
    const std::tuple<const char*, const char*, std::function<void(Tx&)>> cases[] = {
        {"text", kGet11,
         [](Tx& t) { t.contents(&HttpContentType::TYPE_PLAINTEXT).append("hello"); }},
        {"no content", "GET /x HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
         [](Tx& t) { t.setNoContents(); }},
        {"1.0 without a length", "GET /x HTTP/1.0\r\n\r\n",
         [](Tx& t) {
             static const char part[] = "partial";
             t.writeAsync(part, 7, false);
         }},
        {"no caching", kGet11,
         [](Tx& t) {
             t.setMaxCacheSeconds(0);
             t.setNoContents();
         }},
        {"public for a day", kGet11,
         [](Tx& t) {
             t.setCacheControl(HttpServerTransaction::CACHE_PUBLIC);
             t.setMaxCacheSeconds(86400);
             t.setNoContents();
         }},
        {"not modified", kGet11,
         [](Tx& t) {
             t.setEtag("v1", false);
             t.setLastModified(Timeval(784111777, 0));
             t.setCacheControl(HttpServerTransaction::CACHE_PRIVATE);
             t.setMaxCacheSeconds(60);
             t.setContentType(&HttpContentType::TYPE_HTML);
             Str v("x"), c("close-later");
             t.extraHeaders().addDestructive(HttpHeader::__pkey_pragma, v);
             t.extraHeaders().addDestructive(HttpHeader::__pkey_vary, c);
             t.setStatus(304);
         }},
        {"not found", "GET /missing HTTP/1.1\r\nConnection: close\r\n\r\n", nullptr},
        {"redirect", kGet11, [](Tx& t) { t.setRedirect(302, "/a?b=1&c=\"2\""); }},
        {"options", "OPTIONS /x HTTP/1.1\r\n\r\n",
         [](Tx& t) {
             t.setReplyDataProviderDontClaim(&nullHttpReplyDataProvider);  // as dispatch does
             t.setAllowedMethods(HttpMethod(HttpMethod::GET | HttpMethod::OPTIONS));
         }},
        {"method not allowed", "DELETE /x HTTP/1.1\r\n\r\n",
         [](Tx& t) {
             t.setAllowedMethods(HttpMethod(HttpMethod::GET | HttpMethod::HEAD));
             t.setStatusFormat(405, "No %s here", "deleting");
         }},
        {"download", kGet11,
         [](Tx& t) {
             t.setDownloadFilename("a b.txt");
             t.setLink("</s.css>; rel=preload");
             t.contents(&HttpContentType::TYPE_BINARY).append("x");
         }},
    };
    for (const auto& [name, request, handler] : cases) {
        SCOPED_TRACE(name);
        Exchange x(request);
        if (handler) handler(x.t);
        EXPECT_EQ(withoutDates(x.render()), golden(name)[1]);
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
    EXPECT_EQ(withoutDates(x.render()), golden("every part")[1]);

    // Without Vary: Origin the origin is "*"; the frame options can be left out.
    Exchange y("GET / HTTP/1.1\r\nOrigin: o\r\n\r\n");
    y.tail.set("", {}, true, false, false, false);
    y.t._setConnectionParts(&y.date, &y.tail, &policy);
    y.t.dontIncludeFrameOptions();
    y.t.setNoContents();
    EXPECT_EQ(withoutDates(y.render()), golden("any origin")[1]);
}

TEST(HttpReply, EntityTagsOfFreshFilesGoOutWeak) {
    const Timeval now = Timeval::now();
    const std::tuple<bool, int64_t, const char*, bool, bool> cases[] = {
        {false, 0, "x", false, false},
        {true, 0, "x", true, false},
        {true, 10, "x", false, false},
        {false, 0, "Mozilla/4.0 (compatible; MSIE 8.0)", false, true},
    };
    for (const auto& [fromStat, age, ua, weak, noCache] : cases) {
        Exchange x(std::string("GET / HTTP/1.1\r\nUser-Agent: ") + ua + "\r\n\r\n");
        if (fromStat) {
            FileDescriptorStat st{};
            x.t._etag.set(st, false);
            x.t._etagp = &x.t._etag;
        } else {
            x.t.setEtag("e", false);
        }
        x.t.setLastModified(Timeval(now.sec() - age, 0));
        x.t.setNoContents();
        const std::string reply = x.render();
        EXPECT_EQ(reply.find("ETag: W/\"") != std::string::npos, weak) << reply;
        EXPECT_EQ(reply.find("Cache-Control: no-cache, must-revalidate, max-age=0\r\n") !=
                      std::string::npos,
                  noCache)
            << reply;
    }
}

TEST(HttpReply, EveryExceptionBecomesItsReply) {
    const std::function<void()> raisers[] = {
        [] { throw HttpBadRequestException("Bad \x01thing"); },
        [] { throw HttpPreconditionFailedException(); },
        [] { throw HttpRequestUriTooLongException(); },
        [] { throw HttpGenericRedirectException(301, "/new"); },
        [] {
            errno = ENOENT;
            throw HttpExceptionFromErrno("open /f");
        },
        [] { throw std::runtime_error("kaput\nwith detail"); },
        [] { throw std::runtime_error("\x01"); },
    };
    const std::vector<Row> expected = rows("exceptions");
    ASSERT_EQ(expected.size(), std::size(raisers));
    for (size_t i = 0; i < expected.size(); ++i) {
        const unsigned status = std::stoul(expected[i][0]);
        Exchange x(kGet11);
        x.t.setLastModified(Timeval(784111777, 0));
        Str h("kept?");
        x.t.extraHeaders().addDestructive(HttpHeader::__pkey_pragma, h);
        bool other = false;
        try {
            raisers[i]();
        } catch (const HttpException& e) {
            x.t._prepareErrorFromHttpException(e);
        } catch (const std::exception& e) {
            x.t._prepareErrorFromOtherException(e.what());
            other = true;
        }
        const std::string reply = x.render();
        SCOPED_TRACE(reply);
        EXPECT_EQ(x.t.statusCode(), status);
        EXPECT_EQ(reply.substr(0, reply.find('\r')), expected[i][1]);
        EXPECT_NE(reply.find("<p>" + expected[i][2] + ".</p>"), std::string::npos);
        // A 412 keeps its validators; other errors drop them.
        EXPECT_EQ(reply.find("Last-Modified") != std::string::npos, status == 412);
        EXPECT_EQ(reply.find("Pragma: kept?") != std::string::npos, !other);
        EXPECT_EQ(pythonReads(reply).substr(0, 4), expected[i][0] + " ");
    }
}

TEST(HttpReply, AFailingErrorDocumentStillGivesAValidReply) {
    struct Broken : HttpReplyDataProvider {
        void getPreBody(HttpServerTransaction*) override {}
        void getErrorDocument(HttpServerTransaction*, AppendStr* out) override {
            out->append("half a document");
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
    EXPECT_EQ(pythonReads(reply), "500 Oops 11 201 False\n");
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
    for (const auto& [size, crlf, line] :
         {std::tuple(uint64_t(1), false, "1\r\n"), std::tuple(uint64_t(255), true, "\r\nFF\r\n"),
          std::tuple(uint64_t(0x1000), false, "1000\r\n"),
          std::tuple(~uint64_t(0), true, "\r\nFFFFFFFFFFFFFFFF\r\n")}) {
        HttpChunkedEncodingHexLength l;
        l.fill(size, crlf);
        EXPECT_EQ(l.seg(), StrSegment(line));
    }
    // A year ahead keeps the weekday and carries through the digits.
    for (const auto& [t, ahead] :
         {std::pair(time_t(946684799), "Fri, 31 Dec 2000 23:59:59 GMT\r\n"),
          std::pair(time_t(784111777), "Sun, 06 Nov 1995 08:49:37 GMT\r\n")}) {
        HttpDateLine d;
        d.get(t);
        Str s;
        d.appendYearAhead(&s);
        EXPECT_EQ(s, ahead);
    }
}

TEST(HttpReply, DownloadNames) {
    for (const Row& r : rows("download-names")) {
        Exchange x(kGet11);
        x.t.setDownloadFilename(r[0].c_str());
        x.t.setNoContents();
        const std::string reply = x.render();
        EXPECT_NE(reply.find("Content-Disposition: Attachment; " + r[1] + "\r\n"),
                  std::string::npos)
            << r[0] << "\n"
            << reply;
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
