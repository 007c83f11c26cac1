// Rendering a reply head and body: a small 200 text reply and a 404 error
// document, against the same bytes formatted with snprintf and with {fmt}.
//
// Ours runs on a reused transaction, as a keep-alive connection does: the
// reply side is reset, the handler's calls are made (contents and text, or
// the status alone), and the head is built; the body is referenced by the
// transaction's send list. The peers format the same head, date line
// included, into a reused buffer; the date text is cached for them as it is
// for us, so that no one pays for a calendar conversion. For the error
// document the peers format the body first and then the head with its
// length, as they must. Every contender's output is checked against ours
// once, before timing.

#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "BenchSupport.h"
#include "util/HttpListener.h"
#include "util/TcpChannel.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

const char kBody[] = "hello, world";

struct Ours {
    Ours() {
        const std::string head = "GET /missing HTTP/1.1\r\nHost: example.com\r\n\r\n";
        auto buffer = std::make_unique<TcpAsyncDataBuffer>();
        buffer->_rbuf.write(head.data(), head.size());
        t._parser.parse(*buffer, &t._request);
    }
    void ok() {
        t.clearReply();
        t.contents(&HttpContentType::TYPE_PLAINTEXT).append(kBody, sizeof(kBody) - 1);
        build();
    }
    void notFound() {
        t.clearReply();
        t.setStatus(404);
        build();
    }
    void build() {
        t._provider->getPreBody(&t);
        t._internal_prepareReplyHeaders();
    }
    std::string text() {
        std::string s(Str::from(t.headerBlock()));
        t._toSend.forEachPiece([&](const char* p, size_t n) { s.append(p, n); });
        return s;
    }
    HttpServerTransaction t;
};

// The date line text behind "Date: ", cached per second for the peers.
struct DateCache {
    const char* get() {
        const time_t now = time(nullptr);
        if (now != when) {
            struct tm tm;
            gmtime_r(&now, &tm);
            strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &tm);
            when = now;
        }
        return text;
    }
    char text[40];
    time_t when = -1;
};

constexpr const char* kOkFormat =
    "HTTP/1.1 200 OK\r\nDate: %s\r\nContent-Type: text/plain; charset=UTF-8\r\n"
    "X-Content-Type-Options: nosniff\r\nContent-Length: %zu\r\nConnection: Keep-Alive\r\n\r\n%s";
constexpr const char* kDocFormat =
    "<!doctype html><html><head><meta http-equiv=\"content-type\" content=\"text/html; "
    "charset=UTF-8\"><title>%03u %s</title></head><body><h1>%s</h1><p>%s.</p></body></html>\r\n";
constexpr const char* kErrorHeadFormat =
    "HTTP/1.1 %03u %s\r\nDate: %s\r\nContent-Type: text/html; charset=UTF-8\r\n"
    "X-Content-Type-Options: nosniff\r\nContent-Length: %d\r\nConnection: Keep-Alive\r\n\r\n";

struct Snprintf {
    int ok() {
        return snprintf(out, sizeof(out), kOkFormat, dates.get(), sizeof(kBody) - 1, kBody);
    }
    int notFound() {
        const unsigned status = 404;
        const char* text = http_status_text(status);
        const int body = snprintf(doc, sizeof(doc), kDocFormat, status, text, text,
                                  http_status_explanation(status));
        const int head =
            snprintf(out, sizeof(out), kErrorHeadFormat, status, text, dates.get(), body);
        memcpy(out + head, doc, size_t(body));
        return head + body;
    }
    DateCache dates;
    char out[2048];
    char doc[1024];
};

struct Fmt {
    void ok() {
        out.clear();
        fmt::format_to(std::back_inserter(out),
                       "HTTP/1.1 200 OK\r\nDate: {}\r\nContent-Type: text/plain; charset=UTF-8\r\n"
                       "X-Content-Type-Options: nosniff\r\nContent-Length: {}\r\n"
                       "Connection: Keep-Alive\r\n\r\n{}",
                       dates.get(), sizeof(kBody) - 1, kBody);
    }
    void notFound() {
        const unsigned status = 404;
        const char* text = http_status_text(status);
        doc.clear();
        fmt::format_to(std::back_inserter(doc),
                       "<!doctype html><html><head><meta http-equiv=\"content-type\" "
                       "content=\"text/html; charset=UTF-8\"><title>{:03} {}</title></head><body>"
                       "<h1>{}</h1><p>{}.</p></body></html>\r\n",
                       status, text, text, http_status_explanation(status));
        out.clear();
        fmt::format_to(std::back_inserter(out),
                       "HTTP/1.1 {:03} {}\r\nDate: {}\r\nContent-Type: text/html; charset=UTF-8\r\n"
                       "X-Content-Type-Options: nosniff\r\nContent-Length: {}\r\n"
                       "Connection: Keep-Alive\r\n\r\n",
                       status, text, dates.get(), doc.size());
        out.append(doc.data(), doc.data() + doc.size());
    }
    std::string text() const { return std::string(out.data(), out.size()); }
    DateCache dates;
    fmt::memory_buffer out;
    fmt::memory_buffer doc;
};

// The contenders must produce our bytes, or the race means nothing.
bool sameBytes(State& state, const std::string& ours, const std::string& theirs) {
    if (ours == theirs) return true;
    state.SkipWithError("output differs from ours");
    return false;
}

void BM_ok_tarvex(State& state) {
    Ours o;
    for (auto _ : state) {
        o.ok();
        DoNotOptimize(o.t._headerBlock.size());
    }
}
void BM_ok_snprintf(State& state) {
    Ours o;
    o.ok();
    Snprintf s;
    if (!sameBytes(state, o.text(), std::string(s.out, size_t(s.ok())))) return;
    for (auto _ : state) DoNotOptimize(s.ok());
}
void BM_ok_fmt(State& state) {
    Ours o;
    o.ok();
    Fmt f;
    f.ok();
    if (!sameBytes(state, o.text(), f.text())) return;
    for (auto _ : state) {
        f.ok();
        DoNotOptimize(f.out.size());
    }
}
void BM_404_tarvex(State& state) {
    Ours o;
    for (auto _ : state) {
        o.notFound();
        DoNotOptimize(o.t._headerBlock.size());
    }
}
void BM_404_snprintf(State& state) {
    Ours o;
    o.notFound();
    Snprintf s;
    if (!sameBytes(state, o.text(), std::string(s.out, size_t(s.notFound())))) return;
    for (auto _ : state) DoNotOptimize(s.notFound());
}
void BM_404_fmt(State& state) {
    Ours o;
    o.notFound();
    Fmt f;
    f.notFound();
    if (!sameBytes(state, o.text(), f.text())) return;
    for (auto _ : state) {
        f.notFound();
        DoNotOptimize(f.out.size());
    }
}

BENCHMARK(BM_ok_tarvex)->Name("reply_200/tarvex");
BENCHMARK(BM_ok_snprintf)->Name("reply_200/snprintf");
BENCHMARK(BM_ok_fmt)->Name("reply_200/fmt");
BENCHMARK(BM_404_tarvex)->Name("reply_404/tarvex");
BENCHMARK(BM_404_snprintf)->Name("reply_404/snprintf");
BENCHMARK(BM_404_fmt)->Name("reply_404/fmt");

}  // namespace
