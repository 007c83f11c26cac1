// Arbitrary bytes from a client, in reads of any size, through one HTTP
// connection's state machine (no socket: writes complete at once). Nothing
// may crash, leak or touch memory it shouldn't; a reply to HTTP/1.x starts
// with a status line (one to HTTP/0.9 is the bare body).
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzCheck.h"
#include "util/HttpListener.h"

namespace {

class BodyEcho : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override {
        t->contents(&HttpContentType::TYPE_PLAINTEXT)
            .appendFormat("%lld", (long long)t->_bytesReceived);
        t->writeAsync(t->_astr, true);
    }
};

class Pieces : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override { getBody(t); }
    void getBody(HttpServerTransaction* t) override { t->writeAsync("piece", 5, ++_n == 3); }

private:
    int _n = 0;
};

class FuzzListener : public HttpListener {
public:
    void dispatch(HttpServerTransaction* t) override {
        const StrSegment url = t->url();
        const char c = url.size() > 1 ? url[1] : 0;
        if (c == 'a') {
            t->contents(&HttpContentType::TYPE_PLAINTEXT).append("hello");
        } else if (c == 'e') {
            t->setReplyDataProviderAndClaim(new BodyEcho);
        } else if (c == 'p') {
            t->setReplyDataProviderAndClaim(new Pieces);
        } else if (c == 'i') {
            t->setRequestDataSizeInfinite();
        } else if (c == 'r') {
            t->setStatus(403);
        }
    }
};

FuzzListener* listener() {
    static FuzzListener* l = [] {
        auto* x = new FuzzListener;
        x->setServerName("fuzz");
        return x;
    }();
    return l;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t stride = 1 + data[0] % 97;
    const char* text = reinterpret_cast<const char*>(data + 1);
    const size_t length = size - 1;

    IPv46SocketAddress peer;
    peer.setIpv4Localhost();
    auto conn = std::make_unique<HttpListeningConnection>(
        listener(),
        std::unique_ptr<HttpTcpConnection>(listener()->newConnection(listener(), peer)));
    conn->connection().transaction().clear();
    TcpAsyncDataBuffer& buf = conn->_data;
    std::string out;
    auto drainWrites = [&] {
        for (int rounds = 0; buf.hasWriteData() && rounds < 10000; ++rounds) {
            for (StrSegment seg; buf._writeCursor.getSeg(&seg);) out.append(seg.data(), seg.size());
            buf.doneWithWriteData();
            const bool more = conn->asyncWriteComplete();
            if (more && !buf.hasWriteData() && !buf._rbuf.empty() && !buf._shouldKill) {
                conn->dataAvailable(buf);
            }
        }
    };
    size_t fed = 0;
    while (fed < length && !buf._shouldKill && buf._handler == nullptr) {
        fed += buf._rbuf.write(text + fed, std::min(stride, length - fed));
        conn->dataAvailable(buf);
        drainWrites();
        if (buf._rbuf.full()) break;  // a server that stopped reading
    }
    const HttpServerTransaction& t = conn->connection().transaction();
    if (!out.empty() && t.request().firstLine._version != HTTPVERSION_0_9) {
        FUZZ_CHECK(out.compare(0, 9, "HTTP/1.1 ") == 0 || out.compare(0, 5, "hello") == 0 ||
                   out.compare(0, 9, "<!doctype") == 0);
    }
    delete buf._handler;  // a worker was asked for: none runs here
    buf._handler = nullptr;
    return 0;
}
