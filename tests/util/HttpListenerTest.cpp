#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/DateTime.h"
#include "util/HttpListener.h"

namespace {

class NoopListener : public HttpListener {
public:
    void dispatch(HttpServerTransaction*) override {}
};

std::vector<std::vector<std::string>> rows(const std::string& name) {
    return testsupport::dataRows("HttpListenerTest/" + name);
}

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
    std::unique_ptr<NoopListener> l;
    std::string max;
    for (const auto& r : rows("connection-limits")) {
        if (r[0] != max) {
            max = r[0];
            l = std::make_unique<NoopListener>();
            l->setMaxConnections(std::stoul(r[0]));
        }
        SCOPED_TRACE(r[0] + " at " + r[1]);
        EXPECT_EQ(l->limitActiveConnections(std::stoul(r[1]), false), r[2] == "1");
        EXPECT_EQ(l->wellBelowConnectionLimit(), r[3] == "1");
    }
}

TEST(HttpListener, TheClientBehindATrustedProxy) {
    for (const auto& r : rows("proxies")) {
        SCOPED_TRACE(r[0]);
        Request q("GET / HTTP/1.1\r\n" + r[0] + "\r\n");
        if (r[1] == "1") q.t().allowOverrideSource();
        EXPECT_EQ(q.t().ip(), r[2]);
        EXPECT_EQ(q.t().isHttps(), r[3] == "1");
        if (r.size() > 4) {
            EXPECT_EQ(q.t().requestHost(), r[4]);
        } else {
            EXPECT_THROW(q.t().requestHost(), HttpBadRequestException);
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
    for (const auto& r : rows("proxied-reply")) u.add(&t, r[0].c_str(), r[1].c_str());
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
