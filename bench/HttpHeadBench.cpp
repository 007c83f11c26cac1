// Request head parsing against picohttpparser (phr_parse_request, as h2o
// exports it) and Node's http_parser, on a ~500-byte browser head and a
// 20-header head.
//
// Every contender ends with the same thing in hand: method, URL, version and
// the header lines as (name, value) pieces. Picohttpparser fills its array
// of headers; http_parser's callbacks record the pieces into one. Both work
// in place on a buffer that read() would have filled. Ours reads from the
// connection's receive ring, which is that buffer: the ring is filled with
// as many copies of the head as fit while the clock is paused, and the timed
// region parses them one after another, each into a request that is cleared
// for reuse as a keep-alive connection does. Ours validates more than both
// (every limit, key characters, versions, folding) and copies each line once,
// into the header string that it keeps; the peers keep pointers only.

#include <http_parser.h>

#include <cstring>
#include <memory>
#include <string>

#include "BenchSupport.h"
#include "util/HttpHeaders.h"
#include "util/TcpChannel.h"

// picohttpparser's published interface; Debian's libh2o-evloop-dev exports
// the functions but ships no header for them.
extern "C" {
struct phr_header {
    const char* name;
    size_t name_len;
    const char* value;
    size_t value_len;
};
int phr_parse_request(const char* buf, size_t len, const char** method, size_t* method_len,
                      const char** path, size_t* path_len, int* minor_version,
                      struct phr_header* headers, size_t* num_headers, size_t last_len);
}

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

const std::string kBrowserHead =
    "GET /static/app/main.js?v=20261124 HTTP/1.1\r\n"
    "Host: www.example.com\r\n"
    "Connection: keep-alive\r\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like "
    "Gecko) Chrome/120.0.0.0 Safari/537.36\r\n"
    "Accept: */*\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-Mode: no-cors\r\n"
    "Sec-Fetch-Dest: script\r\n"
    "Referer: https://www.example.com/account/overview\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Accept-Language: en-US,en;q=0.9\r\n"
    "Cookie: session=3f9a1c0e7b2d4a6f8e1c; _ga=GA1.2.1234567890.1700000000\r\n"
    "\r\n";

const std::string& twentyHeaderHead() {
    static const std::string s = [] {
        std::string h = "POST /api/v2/orders/12345/items HTTP/1.1\r\n";
        const char* keys[] = {"Host",
                              "User-Agent",
                              "Accept",
                              "Accept-Encoding",
                              "Accept-Language",
                              "Content-Type",
                              "Content-Length",
                              "Authorization",
                              "X-Request-Id",
                              "X-Forwarded-For",
                              "X-Forwarded-Proto",
                              "Origin",
                              "Referer",
                              "Cookie",
                              "Cache-Control",
                              "Pragma",
                              "X-Custom-Trace",
                              "X-Tenant",
                              "If-None-Match",
                              "Connection"};
        for (const char* k : keys) {
            h +=
                std::string(k) + ": " +
                (strcmp(k, "Content-Length") == 0 ? "0" : std::string("value-for-") + k + "-0123") +
                "\r\n";
        }
        return h + "\r\n";
    }();
    return s;
}

struct Header {
    const char* name;
    size_t nameLength;
    const char* value;
    size_t valueLength;
};

void benchTarvex(State& state, const std::string& head) {
    auto buffer = std::make_unique<TcpAsyncDataBuffer>();
    HttpServerRequestParser parser;
    HttpServerRequest request;
    const size_t copies = TcpAsyncDataBuffer::READ_BUFFER_SIZE / head.size();
    for (auto _ : state) {
        if (buffer->_rbuf.empty()) {
            state.PauseTiming();
            buffer->_rbuf.reset();
            for (size_t i = 0; i < copies; ++i) buffer->_rbuf.write(head.data(), head.size());
            state.ResumeTiming();
        }
        request.clear(&parser.freeList());
        if (!parser.parse(*buffer, &request)) state.SkipWithError("incomplete");
        DoNotOptimize(request.headers.size());
    }
}

void benchPico(State& state, const std::string& head) {
    phr_header headers[64];
    for (auto _ : state) {
        const char *method, *path;
        size_t methodLength, pathLength, n = 64;
        int minor;
        const int r = phr_parse_request(head.data(), head.size(), &method, &methodLength, &path,
                                        &pathLength, &minor, headers, &n, 0);
        if (r != int(head.size())) state.SkipWithError("pico failed");
        DoNotOptimize(n);
        DoNotOptimize(headers[0]);
    }
}

struct HttpParserCollector {
    http_parser parser;
    const char* url = nullptr;
    size_t urlLength = 0;
    Header headers[64];
    size_t n = 0;
    bool inValue = false;
};

int onUrl(http_parser* p, const char* at, size_t length) {
    auto* c = static_cast<HttpParserCollector*>(p->data);
    c->url = at, c->urlLength = length;
    return 0;
}
int onHeaderField(http_parser* p, const char* at, size_t length) {
    auto* c = static_cast<HttpParserCollector*>(p->data);
    if (c->inValue || c->n == 0) {
        if (c->n == 64) return 1;
        c->headers[c->n++] = {at, length, nullptr, 0};
        c->inValue = false;
    } else {
        c->headers[c->n - 1].nameLength += length;  // continues in place
    }
    return 0;
}
int onHeaderValue(http_parser* p, const char* at, size_t length) {
    auto* c = static_cast<HttpParserCollector*>(p->data);
    Header& h = c->headers[c->n - 1];
    if (!c->inValue) h.value = at, h.valueLength = 0;
    h.valueLength += length;
    c->inValue = true;
    return 0;
}

void benchHttpParser(State& state, const std::string& head) {
    http_parser_settings settings;
    memset(&settings, 0, sizeof(settings));
    settings.on_url = onUrl;
    settings.on_header_field = onHeaderField;
    settings.on_header_value = onHeaderValue;
    HttpParserCollector c;
    for (auto _ : state) {
        http_parser_init(&c.parser, HTTP_REQUEST);
        c.parser.data = &c;
        c.n = 0;
        c.inValue = false;
        const size_t r = http_parser_execute(&c.parser, &settings, head.data(), head.size());
        if (r != head.size() || c.parser.http_errno != 0) state.SkipWithError("http_parser failed");
        DoNotOptimize(c.n);
    }
}

void BM_browser_tarvex(State& s) { benchTarvex(s, kBrowserHead); }
void BM_browser_pico(State& s) { benchPico(s, kBrowserHead); }
void BM_browser_http_parser(State& s) { benchHttpParser(s, kBrowserHead); }
void BM_twenty_tarvex(State& s) { benchTarvex(s, twentyHeaderHead()); }
void BM_twenty_pico(State& s) { benchPico(s, twentyHeaderHead()); }
void BM_twenty_http_parser(State& s) { benchHttpParser(s, twentyHeaderHead()); }

BENCHMARK(BM_browser_tarvex)->Name("head_browser/tarvex");
BENCHMARK(BM_browser_pico)->Name("head_browser/picohttpparser");
BENCHMARK(BM_browser_http_parser)->Name("head_browser/http_parser");
BENCHMARK(BM_twenty_tarvex)->Name("head_20_headers/tarvex");
BENCHMARK(BM_twenty_pico)->Name("head_20_headers/picohttpparser");
BENCHMARK(BM_twenty_http_parser)->Name("head_20_headers/http_parser");

}  // namespace
