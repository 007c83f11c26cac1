#pragma once
// The HTTP server's exchange: HttpServerTransaction is one request and its
// reply on one connection, reused for every request of a keep-alive
// connection. This header holds its reply side: the status and header block
// built byte for byte, cache, cross-origin and download headers, error
// documents, how exceptions become replies, the providers that produce
// bodies and the asynchronous write operations.
#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>

#include "util/AppendStr.h"
#include "util/FileDescriptor.h"
#include "util/HttpArguments.h"
#include "util/HttpContentType.h"
#include "util/HttpException.h"
#include "util/HttpHeaders.h"
#include "util/SerializedResult.h"
#include "util/Str.h"
#include "util/TcpChannel.h"
#include "util/Timeval.h"

class CrashLogWriteHandler;
class HttpListener;
class HttpServerTransaction;
class HttpTcpConnection;
class Logger;
class SocketError;
class SslServerContext;
class TcpSyncDataBuffer;

// The "HttpListener" log channel.
extern Logger httplistener_log;

typedef int64_t file_offset_t;

// The reason text of a status ("Not Found"); "???" for one without.
const char* http_status_text(http_status_code_t status);
// The sentence an error document gives for a status; "Unknown error" for others.
const char* http_status_explanation(http_status_code_t status);

// ---------------------------------------------------------------- providers and acceptors

// Produces a reply's body. getPreBody runs once the request body is in and
// before the head is built, and decides status and length; getBody is called
// for each further piece. Both queue data through the transaction's write
// operations, or ask for a thread.
class HttpReplyDataProvider {
public:
    virtual ~HttpReplyDataProvider();
    virtual void getPreBody(HttpServerTransaction* trans) = 0;
    // Says that no more data follows.
    virtual void getBody(HttpServerTransaction* trans);
    // The HTML error document for the transaction's status (sets TYPE_HTML).
    virtual void getErrorDocument(HttpServerTransaction* trans, AppendStr* out);
    virtual void onAttach(HttpServerTransaction* trans);
    // True when the error was expected and needs no log line.
    virtual bool errorHappened(const SocketError& error);
    virtual bool expectDisconnect();
    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
};

// Sends nothing (OPTIONS replies).
class NullHttpReplyDataProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* trans) override;
    void getBody(HttpServerTransaction* trans) override;
};
extern NullHttpReplyDataProvider nullHttpReplyDataProvider;

// A file as the reply: length, Last-Modified and a strong ETag from its stat,
// the body read in 32 KiB pieces. A file that can't be opened answers by
// errno (404, 403...); one that isn't a regular file is 404.
class StaticFileHttpDataProvider : public HttpReplyDataProvider {
public:
    explicit StaticFileHttpDataProvider(const Pathname& path);
    ~StaticFileHttpDataProvider() override;
    void getPreBody(HttpServerTransaction* trans) override;
    void getBody(HttpServerTransaction* trans) override;
    // Once the file is accepted, before the head: a subclass may set more.
    virtual void prepare(HttpServerTransaction* trans);

private:
    ScopedFileDescriptor _fd;
    FileDescriptorStat _stat;
    int _errno = 0;
    bool _regular = false;
    file_offset_t _left = 0;
    std::unique_ptr<char[]> _buffer;
    size_t _bufferSize = 0;
};

// A reply made on a worker thread, for work that blocks or takes long: the
// exchange moves to a thread of the loop's pool, fill() makes the body there.
class ThreadedStringHttpDataProvider : public HttpReplyDataProvider {
public:
    void getPreBody(HttpServerTransaction* trans) override;
    // On the worker: the body into `out`; status and type may be set too.
    virtual void fill(HttpServerTransaction* trans, AppendStr* out) = 0;
};

// Takes a request's body. The defaults do nothing.
class HttpRequestDataAcceptor {
public:
    virtual ~HttpRequestDataAcceptor();
    virtual void dataAvailable(const StrSegment& data);
    // On a worker: reads the body through the transaction, handing each
    // piece to dataAvailable.
    virtual void threadedAcceptData(HttpServerTransaction* trans);
    virtual void dataFinished();
    virtual void onAttach(HttpServerTransaction* trans);
    virtual bool errorHappened(const SocketError& error);
    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;
};
// Reads a body and throws it away.
extern HttpRequestDataAcceptor doNothingHttpRequestDataAcceptor;

// Parses a URL-encoded body (a form) into arguments.
class PostArgumentsAcceptor : public HttpRequestDataAcceptor {
public:
    PostArgumentsAcceptor() : _parser(&_arguments) {}
    void dataAvailable(const StrSegment& data) override;
    void dataFinished() override;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const override;
    void clear();

    const HttpArguments& arguments() const { return _arguments; }
    bool hadParsingError() const { return _hadParsingError; }

private:
    HttpArguments _arguments;
    HttpArguments::FillFromUrlEncodedParser _parser;
    bool _hadParsingError = false;
};

// Whether a cross-origin request may see the reply.
class HttpServerCrossSitePolicy {
public:
    virtual ~HttpServerCrossSitePolicy();
    virtual bool allowFor(HttpServerTransaction* trans) const = 0;
    // Request headers allowed beyond Authorization, comma-separated.
    virtual Str allowedHeaders() const;
};
class HttpServerCrossSitePolicyDenyAll : public HttpServerCrossSitePolicy {
public:
    bool allowFor(HttpServerTransaction* trans) const override;
};
extern HttpServerCrossSitePolicyDenyAll httpServerCrossSitePolicyDenyAll;

// ---------------------------------------------------------------- ready-made text

// A chunk's size line: optionally CRLF, the size in upper-case hex, CRLF.
class HttpChunkedEncodingHexLength {
public:
    // Size 0 is not a chunk: the end marker is written otherwise.
    void fill(uint64_t size, bool leadingCrlf);
    StrSegment seg() const { return StrSegment(_buf, _len); }

private:
    char _buf[20];
    uint8_t _len = 0;
};

// The "Date: ...\r\n" line of a connection, rebuilt when the second changes.
class HttpDateLine {
public:
    static constexpr size_t SIZE = 37;
    // The line for `now`.
    StrSegment get(time_t now);
    time_t time() const { return _time; }
    // The line's date with its year raised by one, digit by digit (the
    // weekday stays as it was): an Expires a year ahead with no calendar work.
    void appendYearAhead(Str* out) const;

private:
    char _line[SIZE] = {};
    time_t _time = -1;
};

// What ends every reply head of a listener: frame options, HSTS, the server
// name, fixed headers and the blank line.
class HttpReplyTail {
public:
    HttpReplyTail() : _text("\r\n") {}
    // The lines in this order: "X-Frame-Options: SAMEORIGIN" if frameOptions,
    // Strict-Transport-Security if hsts, "Server: " name if not empty, each
    // header in key order, then the blank line.
    void set(const Str& serverName, const std::map<Str, Str>& headers, bool frameOptions, bool hsts,
             bool includeSubDomains, bool preload);
    StrSegment full() const { return _text.seg(); }
    // The same without the X-Frame-Options line.
    StrSegment withoutFrameOptions() const { return _text.seg().substr(_frameOptionsLength); }

private:
    Str _text;
    size_t _frameOptionsLength = 0;
};

// ---------------------------------------------------------------- the transaction

class HttpServerTransaction {
public:
    enum state_t : uint8_t {
        READING_REQUEST_HEAD = 0,
        SENDING_REPLY_HEADERS = 1,
        EATING_REQUEST_DATA = 2,
        NEED_REPLY_DATA = 3,
        SENDING_REPLY_DATA = 4,
        SEND_EOF_MARKER = 5,
        END_OF_TRANSACTION = 6,
        SENT_100_CONTINUE = 7,
        EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET = 8,
        EATING_REQUEST_DATA_CHUNKED_LENGTH = 9,
        EATING_REQUEST_DATA_CHUNKED_EXTENSION = 10,
        EATING_REQUEST_DATA_CHUNKED_DATA = 11,
        EATING_REQUEST_DATA_FOREVER = 12,
    };
    enum tosend_state_t : uint8_t {
        TOSEND_VIRGIN = 0,
        TOSEND_UNSET = 1,
        TOSEND_HAS_FINAL_ITEM = 2,
        TOSEND_HAS_PARTIAL_ITEM = 3,
    };
    enum chunked_state_t : uint8_t { CHUNKED_NONE = 0, CHUNKED_STARTING = 1, CHUNKED_MIDDLE = 2 };
    enum cache_control_t : uint32_t {
        CACHE_NO_STORE = 1,
        CACHE_NO_CACHE = 2,
        CACHE_MUST_REVALIDATE = 4,
        CACHE_PUBLIC = 8,
        CACHE_PRIVATE = 16,
    };
    static constexpr uint32_t MAX_CACHE_UNSET = ~uint32_t(0);
    static constexpr uint32_t ALL_METHODS = 127;

    // Inflates a gzip body that a worker reads.
    class threaded_gunzip;

    // The default provider: a 200 with nothing written becomes 404 (400 for
    // a URL that doesn't start with "/").
    class HttpReplyDataProviderDefault : public HttpReplyDataProvider {
    public:
        void getPreBody(HttpServerTransaction* trans) override;
    };
    // Sends the transaction's _astr.
    class AppendStrHttpDataProvider : public HttpReplyDataProvider {
    public:
        void getPreBody(HttpServerTransaction* trans) override;
    };

    HttpServerTransaction();
    HttpServerTransaction(const HttpServerTransaction&) = delete;
    HttpServerTransaction& operator=(const HttpServerTransaction&) = delete;
    virtual ~HttpServerTransaction();
    // For a subclass's own fields; called at the end of clear().
    virtual void clear_extra();
    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    // Ready for the next request of the connection.
    void clear();
    // The reply side alone back to its defaults; the request stays.
    void clearReply();

    // --- the request
    const HttpServerRequest& request() const { return _request; }
    HttpMethod method() const { return _request.firstLine._method; }
    StrSegment url() const { return _request.firstLine._url; }
    bool isInOwnThread() const { return _threadedIo != nullptr; }

    // --- setting the reply, all before the head is built
    void setStatus(http_status_code_t status);
    void setStatusFormat(http_status_code_t status, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    http_status_code_t statusCode() const { return _statusCode; }
    // `_statusText`, else the table's text.
    const char* statusExplaination() const;
    // Only before anything is queued.
    void setContentLength(file_offset_t length);
    void setContentType(const HttpContentType* type);
    // One algorithm, or none.
    void setContentEncoding(HttpCompressionAlgorithm encoding);
    // Both return false once it is known that the client won't want the body.
    bool setLastModified(const Timeval& t);
    bool setEtag(StrSegment value, bool weak);
    void setLink(const Str& value);
    void setAllowedMethods(HttpMethod methods);
    void setCacheControl(uint32_t bits) { _cacheControl = bits; }
    void setMaxCacheSeconds(uint32_t seconds) { _maxCacheSeconds = seconds; }
    void setRedirect(http_status_code_t status, const Str& url);
    void setDownloadFilename(const Str& name);
    void varyBy(StrSegment names) { _varyBy.add(names); }
    void dontIncludeFrameOptions() { _dontIncludeFrameOptions = true; }
    HttpHeaders& extraHeaders() { return _extraHeaders; }
    // The body buffer: the transaction sends it once the handler returns.
    AppendStr& contents(const HttpContentType* type);
    AppendStr& contentsWithoutSettingContentType();
    // The whole body, sent as the final result.
    void setContents(const HttpContentType* type, AppendStr&& body);
    // 204 with no body.
    void setNoContents();
    void requestBasicAuth(const Str& realm) { _extraHeaders.requestBasicAuth(realm); }
    static Str requestBasicAuthWithoutHeader(const Str& realm) {
        return HttpHeaders::requestBasicAuthWithoutHeader(realm);
    }
    // gzip the reply when it pays (levels 1 to 9; 0 turns it off).
    void requestCompression(int level);

    void setReplyDataProviderAndClaim(HttpReplyDataProvider* provider);
    void setReplyDataProviderDontClaim(HttpReplyDataProvider* provider);
    HttpReplyDataProvider* replyDataProvider() const { return _provider; }
    void setRequestDataAcceptorDontClaim(HttpRequestDataAcceptor* acceptor);
    // The body is not read if the client still waits for "100 Continue";
    // otherwise it is read and thrown away.
    void ignoreRequestData();

    // --- the request body: the handler says how to take it, before the
    // first byte
    void setRequestDataAcceptorAndClaim(HttpRequestDataAcceptor* acceptor);
    // The rest of the body is read and thrown away.
    void stopParsingRequestData();
    // For a body the head didn't announce: this many bytes follow.
    void setRequestDataSize(file_offset_t size);
    // A body that ends only when the client closes.
    void setRequestDataSizeInfinite();
    // The announced size; -1 for a chunked body of unknown total, else 0.
    file_offset_t getRequestDataSize() const;
    void setMaximumRequestDataSize(file_offset_t max) { _maximumRequestDataSize = max; }
    // For a PUT only: whether its preconditions allow it.
    bool verifyPutPreconditions(bool exists, const Timeval* mtime, const Str& etag) const;
    // A form body, once read by the default acceptor.
    const PostArgumentsAcceptor& postArguments() const { return _postArguments; }
    // Keep a copy of the raw body.
    void saveRequestData() { _wantSavedRequestData = true; }
    const AppendStr& savedRequestData() const { return _savedRequestData; }
    // A later connection loss is expected and needs no log line.
    void setExpectDisconnect(bool expect) { _expectDisconnect = expect; }
    bool expectDisconnect() const { return _expectDisconnect; }
    void setShouldLog(bool log) { _shouldLog = log; }

    // --- for the connection
    // Body bytes: how many were used; true once the body is complete.
    bool eatRequestData(const StrSegment& data, size_t* used);
    bool eatChunkedRequestData(const StrSegment& data, size_t* used);
    void updateStateAfterHeadersSent();
    void _prepareToReceiveRequestData();
    // Wraps the acceptor so that it gets the body inflated.
    void _setupRequestGunzip();
    [[noreturn]] void _requestDataTooLarge(file_offset_t size);
    // False when the reply became 412.
    bool _checkHttpPreconditions();
    bool _isInAsyncReadingState() const {
        return _state == READING_REQUEST_HEAD || _state == EATING_REQUEST_DATA ||
               _state >= EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET;
    }
    HttpTcpConnection* connection() const { return _connection; }
    // --- the true client, behind a trusted proxy
    enum override_source_t : uint8_t {
        OVERRIDESOURCE_ALLOW = 1,  // the peer is a trusted proxy: headers may name the client
        OVERRIDESOURCE_DID_IP = 2,
        OVERRIDESOURCE_DID_REVDNS = 4,
        OVERRIDESOURCE_DID_PROTO = 8,
        OVERRIDESOURCE_PROTO_IS_HTTPS = 16,
        OVERRIDESOURCE_DID_HOSTHDR = 32,
    };
    // Trust this request's forwarding headers (from dispatch, for a peer
    // known to be a proxy). Each fact is then worked out once.
    void allowOverrideSource() { _overrideSourceState |= OVERRIDESOURCE_ALLOW; }
    // The client's address: the first X-Forwarded-For entry when trusted and
    // valid, else the peer's.
    Str ip();
    Str reverseDns();
    bool isHttps();
    // The request's host: with the override, X-Forwarded-Host (and -Port);
    // else, from HTTP/1.1 on, exactly one Host header of host characters.
    // HttpBadRequestException for a missing, doubled or bad one.
    Str requestHost();

    // --- writing on a worker: straight to the socket, the head first
    void write(const char* data, size_t size);
    void write(const AppendStr& data);
    void write(const SerializedResult& data);
    void write(const PortableIovec& data);
    void write(PortableIovecCursor* data);
    void postFinalResult(const SerializedResult& data);
    // On a worker: the next piece of the body through `cursor`; false at
    // its end. A piece stays valid until the next call.
    bool read(PortableIovecCursor* cursor);
    // Provider side: the exchange is to go on on a worker thread.
    void _askForThread() { _wantsSeparateThread = true; }
    void _writeHeadersSync();
    void _threaded_write_chunk(const struct iovec* v, unsigned count, uint64_t size);
    void _writeGathered(const PortableIovec& v, uint64_t size);
    // On a worker, before the head: gzips a final reply of known length (500
    // bytes or more) when compression was asked for and the client takes gzip.
    void _compressToSendBuffer();
    TcpSyncDataBuffer* threadedIo() const { return _threadedIo; }

    // --- writing, on the loop thread. The data is referenced, not copied,
    // and must stay until it is sent.
    void writeAsync(const char* data, size_t size, bool last);
    void writeAsync(const AppendStr& data, bool last);
    void writeAsync(const SerializedResult& data, bool last);
    // The final result from a worker: referenced likewise.
    void postFinalResult(const char* data, size_t size);
    void postFinalResult(const AppendStr& data);
    // The reply will be exactly this long.
    void onlyWriteSizeIs(file_offset_t size);

    // --- turning errors into replies
    void _prepareErrorFromHttpException(const HttpException& e);
    void _prepareErrorFromOtherException(const char* what);
    void _prepareErrorFromAnyException();
    void _prepareError();
    // False (and the connection to end) once the head is out.
    bool safeToReplaceBodyWithError();

    // --- building the head
    // The head into _headerBlock; false when none is to be sent (HTTP/0.9).
    bool _internal_prepareReplyHeaders();
    const AppendStr& headerBlock() const { return _headerBlock; }
    bool _toSendIsSet() const { return _toSendState >= TOSEND_HAS_FINAL_ITEM; }

    // What the connection supplies; tests and servers set them before use.
    void _setConnectionParts(HttpDateLine* dateLine, const HttpReplyTail* tail,
                             const HttpServerCrossSitePolicy* policy) {
        _dateLine = dateLine, _replyTail = tail, _crossSitePolicy = policy;
    }

    // ---------------------------------------------------------------- fields
    // General and request
    state_t _state = READING_REQUEST_HEAD;
    HttpServerRequest _request;
    HttpServerRequestParser _parser;
    TcpSyncDataBuffer* _threadedIo = nullptr;
    Timeval _startTime;
    bool _startTimeSet = false;
    uint32_t _100continue = 0;
    file_offset_t _bytesReceived = 0;
    file_offset_t _totalBytesExpectedOfRequestData = -1;
    file_offset_t _bytesLeftInRequestDataChunk = 0;
    bool _requestTransferEncodingIsChunked = false;
    HttpRequestDataAcceptor* _acceptor = &_postArguments;
    HttpRequestDataAcceptor* _claimedAcceptor = nullptr;
    PostArgumentsAcceptor _postArguments;
    file_offset_t _maximumRequestDataSize = 52428800;
    bool _receivingRequestDataForever = false;
    bool _needToSetupRequestGunzip = false;
    bool _wantSavedRequestData = false;
    AppendStr _savedRequestData;
    bool _expectDisconnect = false;
    bool _shouldLog = true;
    HttpTcpConnection* _connection = nullptr;
    HttpChunkedEncodingHexLength _chunkLine;     // the size line of the chunk being sent
    size_t _owedConsume = 0;                     // peeked by a threaded read, to consume
    threaded_gunzip* _threadedGunzip = nullptr;  // set while a worker reads a gzip body
    uint8_t _overrideSourceState = 0;
    Str _overrideSource, _overrideRevdns, _overrideHostHdr;
    PortableIovec _readIov;  // what a threaded read hands out

    // Reply flow
    http_status_code_t _statusCode = 200;
    Str _statusText;
    bool _wantsSeparateThread = false;
    bool _alreadyBuiltHeaders = false;
    bool _needToSendBody = true;
    bool _isLastTransaction = false;
    file_offset_t _bodyBytesWritten = 0;
    chunked_state_t _chunkedState = CHUNKED_NONE;
    SerializedResult _toSend;
    tosend_state_t _toSendState = TOSEND_VIRGIN;
    bool _toSendSafe = true;
    bool _knowCompleteLength = false;
    file_offset_t _totalScheduledLength = 0;
    bool _willSendDataLater = false;
    http_status_code_t _preconditionState = 0;

    // Reply content
    char _statusLine[13];  // "HTTP/1.1 200 ", digits rewritten as needed
    http_status_code_t _statusLineCode = 200;
    HttpMethod _allowedMethods = ALL_METHODS;
    HttpLastModifiedValue _lastModified;
    const HttpEtagValue* _etagp = nullptr;
    HttpEtagValue _etag;
    Str _link;
    AppendStr _headerBlock;
    AppendStr _work;
    AppendStr _astr;
    HttpHeaders _extraHeaders;
    HttpVaryHeaderValue _varyBy;
    Str _redirectUrl;
    Str _downloadFilename;
    AppendStrHttpDataProvider _strProvider;
    HttpReplyDataProvider* _provider;
    HttpReplyDataProvider* _claimedProvider = nullptr;
    const HttpContentType* _contentType = nullptr;
    int _desiredCompressionLevel = 0;
    HttpCompressionAlgorithm _replyContentEncoding;
    uint32_t _cacheControl = 0;
    uint32_t _maxCacheSeconds = MAX_CACHE_UNSET;
    const HttpServerCrossSitePolicy* _crossSitePolicy = &httpServerCrossSitePolicyDenyAll;
    bool _dontIncludeFrameOptions = false;

private:
    bool _finishSetLastModified();

public:
    // After a validator was set from outside (a file's stat, a proxied reply).
    bool _finishSetEtag() { return _finishSetLastModified(); }

private:
    void _appendCacheHeaders(bool forceNoCache, time_t now);
    void _appendDownloadFilename();
    void _freeProviders();
    void _freeAcceptors();
    template <class Add>
    void _writeAsync(uint64_t size, bool last, bool owned, Add add);
    void _checkIfchunkedClientSentTooLittle();
    enum chunk_walk_t { CHUNK_WALK_MORE, CHUNK_WALK_DATA, CHUNK_WALK_DONE };
    // Walks chunk sizes and extensions up to a chunk's data or the body's end.
    chunk_walk_t _walkChunkHeader(const char*& p, const char* end);
    [[noreturn]] void _chunkedClientSentTooMuch();

    HttpDateLine* _dateLine = &_ownDateLine;
    const HttpReplyTail* _replyTail = &_defaultTail;
    HttpDateLine _ownDateLine;
    HttpReplyTail _defaultTail;
};

// ---------------------------------------------------------------- the server

// The part of a connection that lasts from request to request.
class HttpTcpConnection {
public:
    HttpTcpConnection(HttpListener* listener, const IPv46SocketAddress& peer);
    virtual ~HttpTcpConnection();
    // False downgrades a client known to be broken to HTTP/1.0.
    virtual bool trustHttp11(const HttpServerRequest& request) const;
    virtual void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    HttpServerTransaction& transaction() { return *_transaction; }
    const IPv46SocketAddress& peer() const { return _peer; }
    // The peer's address as text, made on first use.
    const Str& peerText();

    HttpListener* _listener;
    IPv46SocketAddress _peer;
    Str _peerText;
    int _desiredCompressionLevel = 0;
    HttpDateLine cached_date_header;
    bool _keepalive = false;
    std::unique_ptr<HttpServerTransaction> _transaction;
};

// The HTTP server front: an application subclasses it and receives each
// request in dispatch().
class HttpListener : public TcpChannelAcceptor {
public:
    // `ssl` is for a TLS listener; plain HTTP has none.
    explicit HttpListener(SslServerContext* ssl = nullptr);
    ~HttpListener() override;

    // The request head is in: set the reply, or say how to take the body.
    virtual void dispatch(HttpServerTransaction* trans) = 0;
    // "OPTIONS *".
    virtual void dispatchGlobalOptionsRequest(HttpServerTransaction* trans);
    // Each finished exchange, for an access log.
    virtual void log(HttpServerTransaction* trans);
    virtual HttpTcpConnection* newConnection(HttpListener* listener,
                                             const IPv46SocketAddress& peer);
    virtual HttpServerTransaction* allocateTransaction(HttpTcpConnection* connection);
    virtual Interval initialRequestTimeout();
    virtual Interval sslHandshakeTimeout() const;
    virtual Interval keepaliveIdleTimeout(bool wellBelowConnectionLimit);
    virtual void keepAliveConnectionWasIdleTooLong(const IPv46SocketAddress& peer,
                                                   bool wellBelowConnectionLimit);
    virtual Interval ioTimeout();

    std::unique_ptr<TcpChannel> factory(PollableDescriptor fd,
                                        const IPv46SocketAddress& peer) override;
    bool limitActiveConnections(unsigned count, bool gone) override;

    // What ends every reply head: frame options on, no HSTS.
    void setServerName(const Str& name);
    void setServerName(const Str& name, const std::map<Str, Str>& headers, bool frameOptions,
                       bool hsts, bool includeSubDomains, bool preload);
    // Below 60 the server counts as never well below its limit.
    void setMaxConnections(unsigned max);
    // May change while the server runs.
    void setMaxThreads(unsigned max) { _maxThreads.store(max, std::memory_order_relaxed); }
    void setCrossSitePolicy(const HttpServerCrossSitePolicy* policy) { _crossSitePolicy = policy; }

    const HttpReplyTail& replyTail() const { return _tail; }
    // The TLS context connections are made over; none for plain HTTP.
    SslServerContext* sslContext() const { return _ssl; }
    const HttpServerCrossSitePolicy* crossSitePolicy() const { return _crossSitePolicy; }
    bool wellBelowConnectionLimit() const { return _wellBelowConnectionLimit.load(); }
    unsigned maxThreads() const { return _maxThreads.load(std::memory_order_relaxed); }

private:
    SslServerContext* _ssl;
    HttpReplyTail _tail;
    std::atomic<unsigned> _maxActiveConnections{~0u};
    std::atomic<bool> _wellBelowConnectionLimit{true};
    bool _throttling = false;
    std::atomic<unsigned> _maxThreads{~0u};
    const HttpServerCrossSitePolicy* _crossSitePolicy = &httpServerCrossSitePolicyDenyAll;
};

// One accepted HTTP connection on its loop: drives its transaction.
class HttpListeningConnection : public TcpChannel {
public:
    HttpListeningConnection(HttpListener* listener, std::unique_ptr<HttpTcpConnection> connection);
    ~HttpListeningConnection() override;

    void dataAvailable(TcpAsyncDataBuffer& data) override;
    bool asyncWriteComplete() override;
    void errorHappened(const SocketError& err) override;
    Interval asyncTimeoutExpired() override;
    Interval initialReadTimeout() override;
    Interval initialWriteTimeout() override;
    Interval sslHandshakeTimeout() const override;
    bool wantGracefulShutdown() override;
    bool spawnMoreThreads(TcpAsyncDataBuffer& data, unsigned threadCount) override;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const override;
    void errorSpawningThread(TcpAsyncDataBuffer& data, const char* what) override;
    void workerReturned(TcpAsyncDataBuffer& data) override;

    HttpTcpConnection& connection() { return *_conn; }
    HttpListener* listener() const { return _listener; }

    // The exchange on a worker thread.
    class HttpThreadedCommunicationHandler : public TcpChannelThreadedHandler {
    public:
        explicit HttpThreadedCommunicationHandler(HttpListeningConnection* c) : _c(c) {}
        atr communicate(TcpSyncDataBuffer& buf) override;

    private:
        bool _communicate(TcpSyncDataBuffer& buf);
        HttpListeningConnection* _c;
    };

private:
    // One pass of the exchange's state machine; returns when it needs input
    // or has started a write.
    void _run(TcpAsyncDataBuffer& data);
    // _run with the exceptions turned into replies.
    void _proceed(TcpAsyncDataBuffer& data);
    void _startRequest(TcpAsyncDataBuffer& data);
    bool _readBody(TcpAsyncDataBuffer& data);
    void _startReply(TcpAsyncDataBuffer& data);
    // Both: whether a write was started; if not, the state says what's next.
    bool _queueBody(TcpAsyncDataBuffer& data);
    void _endTransaction(TcpAsyncDataBuffer& data);
    bool _sendHead(TcpAsyncDataBuffer& data, bool head);
    void _handToWorker(TcpAsyncDataBuffer& data, bool bodyRead);
    void _finishThreadSpawnError(TcpAsyncDataBuffer& data);
    bool _notifyProviders(const SocketError& err);

    HttpListener* _listener;
    std::unique_ptr<HttpTcpConnection> _conn;
    bool _transactionActive = false;
    bool _haveHadTransaction = false;
    bool _alreadyLoggedTimeout = false;
    bool _failed = false;  // the socket failed: nothing more is sent
};

// Which headers of a proxied reply to take over.
class HttpHeaderCopyPolicy {
public:
    virtual ~HttpHeaderCopyPolicy();
    virtual bool shouldCopy(const HttpHeader& header) = 0;
};

// Takes over the headers of a reply that came from another server: its
// validators, cache settings, type and the rest become this reply's.
class HttpUpdateServerTransactionFromProxiedHeader {
public:
    void add(HttpServerTransaction* trans, const StrSegment& key, const StrSegment& value);
    void add(HttpServerTransaction* trans, const HttpHeaders& headers,
             HttpHeaderCopyPolicy& policy);
    // An Expires without a max-age becomes the cache time.
    void finish(HttpServerTransaction* trans);

private:
    HttpContentType _contentType;
    Str _expires;
    bool _sawMaxAge = false;
};
