// Request heads as a client may send them, in reads of any size: the result
// (complete, waiting, or the status of the refusal), the request line, the
// header list and the bytes consumed never depend on how the bytes were
// split, and every reading of the parsed headers is safe.
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzCheck.h"
#include "util/AppendStr.h"
#include "util/HttpHeaders.h"
#include "util/Pathname.h"
#include "util/TcpChannel.h"

namespace {

struct Result {
    int status = -1;
    uint32_t method = 0;
    int version = 0;
    std::string url;
    std::string headers;
    size_t consumed = 0;
    bool operator==(const Result&) const = default;
};

void readEverything(const HttpServerRequest& r) {
    const HttpHeaders& h = r.headers;
    (void)r.supportsKeepalive();
    (void)h.transferEncoding();
    (void)h.expects();
    (void)h.acceptEncoding();
    (void)h.contentEncoding();
    (void)h.isAjax();
    (void)h.isJson();
    StrSegment boundary;
    (void)h.getMultipartBoundary(&boundary);
    Str user, password;
    (void)h.getBasicAuthenticationCredentials(&user, &password);
    Str ua;
    append_stringified(&ua, h.userAgent());
    Pathname name;
    (void)h.getContentDispositionFilename(&name);
    HttpHeaders::const_cookie_iterator cookies(h);
    for (StrSegment n, v; cookies.getNext(&n, &v);) FUZZ_CHECK(n.end() <= v.begin());
    HttpEtagValue etag;
    etag.set("x", false);
    HttpLastModifiedValue lm;
    lm.set(Timeval(1000000000, 0));
    (void)h.checkPreconditions(lm, &etag);
    (void)h.verifyPutPreconditions(true, &lm.time(), "x");
    AppendStr out;
    h.appendTo(&out);
    StrSegment path, params, query;
    r.firstLine.urlPieces(&path, &params, &query);
}

Result parse(const char* data, size_t size, size_t stride) {
    auto buffer = std::make_unique<TcpAsyncDataBuffer>();
    HttpServerRequestParser parser;
    HttpServerRequest request;
    Result res;
    size_t fed = 0;
    try {
        for (;;) {
            const size_t want = std::min(stride, size - fed);
            fed += buffer->_rbuf.write(data + fed, want);
            if (parser.parse(*buffer, &request)) {
                res.status = 0;
                readEverything(request);
                break;
            }
            if (fed == size) break;
        }
    } catch (const HttpException& e) {
        res.status = int(e.status());
    }
    res.consumed = fed - buffer->bytesAvailable();
    res.method = request.firstLine._method;
    res.version = request.firstLine._version;
    res.url = std::string(request.firstLine._url);
    for (const HttpHeader& h : request.headers) {
        res.headers += std::string(h.key()) + "\n" + std::string(h.value()) + "\n";
    }
    return res;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t stride = 1 + data[0] % 64;
    const char* text = reinterpret_cast<const char*>(data + 1);
    const size_t length = size - 1;
    const Result whole = parse(text, length, length + 1);
    FUZZ_CHECK(parse(text, length, stride) == whole);
    if (whole.status == 0) FUZZ_CHECK(whole.consumed <= length);

    // The same bytes as a response head, read from a segment.
    HttpClientResponseParser client;
    HttpClientResponse response;
    StrSegment in(text, length);
    try {
        if (client.parse(&in, &response)) FUZZ_CHECK(in.begin() <= text + length);
    } catch (const HttpException& e) {
        FUZZ_CHECK(e.status() >= 400);
    }
    return 0;
}
