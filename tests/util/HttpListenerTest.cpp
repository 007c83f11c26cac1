#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "util/DateTime.h"
#include "util/HttpListener.h"

namespace {

class NoopListener : public HttpListener {
public:
    void dispatch(HttpServerTransaction*) override {}
};

// A transaction on a connection from 10.1.2.3, fed a request head.
struct Request {
    explicit Request(const std::string& head) {
        IPv46SocketAddress peer;
        EXPECT_TRUE(peer.setHostname("10.1.2.3"));
        conn = std::make_unique<HttpTcpConnection>(&listener, peer);
        auto buffer = std::make_unique<TcpAsyncDataBuffer>();
        buffer->_rbuf.write(head.data(), head.size());
        EXPECT_TRUE(t()._parser.parse(*buffer, &t()._request)) << head;
    }
    HttpServerTransaction& t() { return conn->transaction(); }
    NoopListener listener;
    std::unique_ptr<HttpTcpConnection> conn;
};

TEST(HttpListener, ConnectionLimitWithHysteresis) {
    struct Step {
        unsigned count;
        bool throttle, wellBelow;
    };
    struct Case {
        unsigned max;
        std::vector<Step> steps;
    };
    const Case cases[] = {
        {100,
         {{11, false, true},
          {12, false, false},
          {99, false, false},
          {100, true, false},
          {95, true, false},
          {90, true, false},
          {89, false, false},
          {5, false, true}}},
        {500, {{39, false, true}, {40, false, false}, {500, true, false}, {489, false, false}}},
        {50,
         {{0, false, false},
          {49, false, false},
          {50, true, false},
          {45, true, false},
          {39, false, false}}},
    };
    for (const Case& c : cases) {
        NoopListener l;
        l.setMaxConnections(c.max);
        for (const Step& s : c.steps) {
            EXPECT_EQ(l.limitActiveConnections(s.count, false), s.throttle)
                << c.max << " at " << s.count;
            EXPECT_EQ(l.wellBelowConnectionLimit(), s.wellBelow) << c.max << " at " << s.count;
        }
    }
}

TEST(HttpListener, TheClientBehindATrustedProxy) {
    struct Case {
        const char* headers;
        bool trusted;
        const char* ip;
        bool https;
        const char* host;  // null: the host check refuses
    };
    const Case cases[] = {
        {"X-Forwarded-For: ::1, 10.0.0.1\r\nHost: h\r\n", true, "::1", false, "h"},
        {"X-Forwarded-For: [2001:db8::7]\r\nHost: h\r\n", true, "2001:db8::7", false, "h"},
        {"X-Forwarded-For: nonsense\r\nHost: h\r\n", true, "10.1.2.3", false, "h"},
        {"X-Forwarded-For: 192.0.2.9\r\nHost: h\r\n", false, "10.1.2.3", false, "h"},
        {"X-Forwarded-Proto: HTTPS\r\nX-Forwarded-Host: host\r\nX-Forwarded-Port: 443\r\n", true,
         "10.1.2.3", true, "host"},
        {"X-Forwarded-Ssl: off\r\nFront-End-Https: on\r\nX-Forwarded-Host: host\r\n"
         "X-Forwarded-Port: 8443\r\n",
         true, "10.1.2.3", false, "host:8443"},
        {"Front-End-Https: on\r\nX-Forwarded-Host: [::1]\r\nX-Forwarded-Port: 80\r\n", true,
         "10.1.2.3", true, "[::1]:80"},
        {"X-Url-Scheme: http\r\nX-Forwarded-Host: [::1]:8080\r\n", true, "10.1.2.3", false,
         "[::1]:8080"},
        {"X-Forwarded-Host: bad/host\r\n", true, "10.1.2.3", false, nullptr},
        {"X-Forwarded-Proto: https\r\n", false, "10.1.2.3", false, nullptr},  // no Host
        {"Host: a\r\nHost: b\r\n", false, "10.1.2.3", false, nullptr},
        {"Host: a_b.example:81\r\n", false, "10.1.2.3", false, "a_b.example:81"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.headers);
        Request r(std::string("GET / HTTP/1.1\r\n") + c.headers + "\r\n");
        if (c.trusted) r.t().allowOverrideSource();
        EXPECT_EQ(r.t().ip(), c.ip);
        EXPECT_EQ(r.t().isHttps(), c.https);
        if (c.host != nullptr) {
            EXPECT_EQ(r.t().requestHost(), c.host);
        } else {
            EXPECT_THROW(r.t().requestHost(), HttpBadRequestException);
        }
    }
    // Trust is per request: the next one on the connection starts without it.
    Request proxied("GET / HTTP/1.1\r\nX-Forwarded-For: 192.0.2.1\r\nHost: h\r\n\r\n");
    proxied.t().allowOverrideSource();
    EXPECT_EQ(proxied.t().ip(), "192.0.2.1");
    proxied.t().clear();
    EXPECT_EQ(proxied.t().ip(), "10.1.2.3");

    Request old("GET / HTTP/1.0\r\n\r\n");  // HTTP/1.0 needs no Host
    EXPECT_EQ(old.t().requestHost(), "");
}

TEST(HttpListener, TakingOverAProxiedReply) {
    Request r("GET / HTTP/1.1\r\nHost: h\r\nOrigin: o\r\n\r\n");
    HttpServerTransaction& t = r.t();
    t.setAllowedMethods(HttpMethod::HEAD);
    HttpUpdateServerTransactionFromProxiedHeader u;
    const std::pair<const char*, const char*> headers[] = {
        {"ETag", " W/\"abc\" "},
        {"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
        {"cache-control", "no-cache, private, max-age=99999999"},
        {"Allow", "GET, PROPFIND, Delete"},
        {"Content-Type", "text/x-special"},
        {"Vary", "Cookie"},
        {"X-Frame-Options", "DENY"},
        {"Access-Control-Allow-Origin", "*"},
        {"X-Upstream", "kept"},
    };
    for (const auto& [key, value] : headers) u.add(&t, key, value);
    u.finish(&t);
    EXPECT_EQ(t._etagp->getValue(), StrSegment("abc"));
    EXPECT_TRUE(t._etagp->isWeak());
    EXPECT_EQ(t._lastModified.time().sec(), 784111777);
    EXPECT_EQ(t._cacheControl, uint32_t(HttpServerTransaction::CACHE_NO_CACHE |
                                        HttpServerTransaction::CACHE_PRIVATE));
    EXPECT_EQ(t._maxCacheSeconds, 31536000u);  // capped at a year
    EXPECT_EQ(t._allowedMethods, uint32_t(HttpMethod::HEAD | HttpMethod::GET | HttpMethod::DELETE));
    EXPECT_EQ(t._contentType->type(), StrSegment("text/x-special"));
    EXPECT_FALSE(t.request().headers.has(HttpHeader::__qkey_origin));
    AppendStr extra;
    t.extraHeaders().appendTo(&extra);
    EXPECT_EQ(Str::from(extra), "Access-Control-Allow-Origin: *\r\nX-Upstream: kept\r\n");

    // Without max-age, Expires sets the cache time.
    struct Expiry {
        int64_t ahead;
        uint32_t seconds;
    };
    for (const Expiry& e : {Expiry{-5, 0}, Expiry{3600, 3600}, Expiry{40000000, 31536000}}) {
        Request q("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
        HttpUpdateServerTransactionFromProxiedHeader v;
        GmtStructTm tm;
        ASSERT_TRUE(Timeval(Timeval::now().sec() + e.ahead, 0).gmtime(&tm));
        Str date;
        tm.appendFtime(date, TimeFormat_RFC1123);
        v.add(&q.t(), "Expires", date.seg());
        v.finish(&q.t());
        EXPECT_NEAR(double(q.t()._maxCacheSeconds), double(e.seconds), 2.0) << e.ahead;
    }
}

}  // namespace
