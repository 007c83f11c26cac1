// A small HTTP server on the library.
//
//   hello-server [--port N]          (default 8080, on 127.0.0.1)
//   curl http://127.0.0.1:8080/                 a static reply
//   curl -d 'a=1&b=two' http://127.0.0.1:8080/echo   what the request said
//   curl http://127.0.0.1:8080/file?name=README.md   a file of the current directory
//
// An application subclasses HttpListener; dispatch() runs on the event loop
// once a request head is in and says how to answer. Replies that need the
// request body are made by a provider, whose getPreBody() runs once the body
// has been read. SIGINT or SIGTERM stops the server cleanly.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/HttpListener.h"
#include "util/Pathname.h"

namespace {

// The request as the server understood it: method, URL, headers and the
// form fields of the body.
class EchoProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* t) override {
        AppendStr& out = t->contents(&HttpContentType::TYPE_JSON);
        out.append("{\"method\":\"");
        out.append(t->method().c_str());
        out.append("\",\"url\":\"");
        out.appendJsonEscaped(t->url().data(), t->url().size());
        out.append("\",\"headers\":{");
        const char* sep = "";
        for (const HttpHeader& h : t->request().headers) {
            out.append(sep);
            out.push_back('"');
            out.appendJsonEscaped(h.key().data(), h.key().size());
            out.append("\":\"");
            out.appendJsonEscaped(h.value().data(), h.value().size());
            out.push_back('"');
            sep = ",";
        }
        out.append("},\"form\":{");
        sep = "";
        for (const HttpArguments::argument& arg : t->postArguments().arguments()) {
            out.append(sep);
            out.push_back('"');
            out.appendJsonEscaped(arg.key.data(), arg.key.size());
            out.append("\":\"");
            out.appendJsonEscaped(arg.value.data(), arg.value.size());
            out.push_back('"');
            sep = ",";
        }
        out.append("}}\n");
        t->writeAsync(t->_astr, true);
    }
};

class HelloListener : public HttpListener {
public:
    void dispatch(HttpServerTransaction* t) override {
        StrSegment path;
        HttpArguments query;
        t->request().firstLine.urlPieces(&path, nullptr, &query);
        if (path == StrSegment("/")) {
            t->contents(&HttpContentType::TYPE_PLAINTEXT).append("Hello from Tarvex\n");
        } else if (path == StrSegment("/echo")) {
            t->setReplyDataProviderAndClaim(new EchoProvider);  // answers after the body
        } else if (path == StrSegment("/file")) {
            serveFile(t, query);
        } else {
            t->setStatus(404);  // the server writes the error document
        }
    }

private:
    // A plain file of the current directory, by name; nothing with a "/".
    static void serveFile(HttpServerTransaction* t, const HttpArguments& query) {
        const Str* name = query.get("name", 4, djb2_hash_n("name", 4));
        if (name == nullptr || name->empty() || name->find('/') != Str::npos || (*name)[0] == '.') {
            t->setStatusFormat(400, "Give a file name of this directory: /file?name=...");
            return;
        }
        // Length, Last-Modified and ETag from the file's stat; the body in
        // pieces as the connection takes them; 404 or 403 by errno.
        t->setReplyDataProviderAndClaim(new StaticFileHttpDataProvider(Pathname(*name)));
        const HttpContentType* type = Pathname(*name).httpContentType();
        t->setContentType(type != nullptr ? type : &HttpContentType::TYPE_BINARY);
    }
};

class LoopThread : public Thread {
public:
    explicit LoopThread(TcpChannelLoop& loop) : Thread("HttpLoop"), _loop(loop) {}
    void main() override { _loop._do_run(); }

private:
    TcpChannelLoop& _loop;
};

}  // namespace

int main(int argc, char** argv) {
    EmptyMainThread mainThread;
    unsigned port = 8080;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            port = unsigned(atoi(argv[++i]));
        } else {
            fprintf(stderr, "usage: hello-server [--port N]\n");
            return 2;
        }
    }
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    EventLoop::enableFastPoll();
    TcpChannelLoop loop;
    IPv46SocketAddress where;
    where.setIpv4Localhost();
    where.setPort(PortNumber(uint16_t(port)));
    const PollableDescriptor fd = where.make_listener();
    IPv46SocketAddress bound;
    if (!fd.valid() || !fd.localAddress(&bound)) {
        perror("hello-server: can't listen");
        return 1;
    }
    auto* listener = new HelloListener;
    listener->setServerName("hello-server");
    loop.add(listener, fd);
    LoopThread thread(loop);
    loop.startThreadAndLoop(&thread);
    printf("listening on 127.0.0.1:%u\n", unsigned(bound.port().value()));
    fflush(stdout);

    int sig;
    sigwait(&stopSignals, &sig);
    loop.runInThread([listener] { listener->close(); });
    loop.terminateConnections();
    loop.runInThread([listener] { delete listener; });
    loop.terminate();
    thread.join();
    return 0;
}
