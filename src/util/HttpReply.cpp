#include "util/HttpListener.h"

#include <sys/stat.h>
#include <cstdarg>
#include <cstring>
#include <exception>

#include "libzero/assertion.h"
#include "util/CrashLog.h"
#include "util/DateTime.h"
#include "util/Logger.h"

// ---------------------------------------------------------------- status tables

const char* http_status_text(http_status_code_t status) {
    switch (status) {
        case 100:
            return "Continue";
        case 101:
            return "Switching Protocols";
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 202:
            return "Accepted";
        case 203:
            return "Non-Authoritative Information";
        case 204:
            return "No Content";
        case 205:
            return "Reset Content";
        case 206:
            return "Partial Content";
        case 300:
            return "Multiple Choices";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 303:
            return "See Other";
        case 304:
            return "Not Modified";
        case 306:
            return "Use Proxy";  // at 306, with no 305, as clients of this server expect
        case 307:
            return "Temporary Redirect";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 402:
            return "Payment Required";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 406:
            return "Not Acceptable";
        case 407:
            return "Proxy Authentication Required";
        case 408:
            return "Request Timeout";
        case 409:
            return "Conflict";
        case 410:
            return "Gone";
        case 411:
            return "Length Required";
        case 412:
            return "Precondition Failed";
        case 413:
            return "Request Entity Too Large";
        case 414:
            return "Request-URI Too Long";
        case 415:
            return "Unsupported Media Type";
        case 416:
            return "Requested Range Not Satisfiable";
        case 417:
            return "Expectation Failed";
        case 428:
            return "Precondition Required";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        case 505:
            return "HTTP Version Not Supported";
        case 511:
            return "Network Authentication Required";
        default:
            return "???";
    }
}

const char* http_status_explanation(http_status_code_t status) {
    switch (status) {
        case 300:
            return "Multiple choices are available, redirecting";
        case 301:
            return "The resource has moved";
        case 302:
        case 303:
        case 307:
            return "The resource has moved temporarily";
        case 306:
            return "Request must be made using proxy";
        case 400:
            return "HTTP Request was malformed";
        case 401:
        case 407:
            return "Authentication is required";
        case 402:
            return "Payment is required";
        case 403:
            return "Request is not allowed";
        case 404:
            return "The requested URL was not found on this server";
        case 405:
            return "Specified method is not allowed on this resource";
        case 406:
            return "Content would not be acceptable for client";
        case 408:
            return "Request timed out";
        case 409:
            return "Resource is busy";
        case 410:
            return "The requested URL is gone from this server";
        case 411:
            return "A request length was required, but not sent";
        case 412:
            return "Response would not match client's preconditions";
        case 413:
            return "The request your client sent was too large";
        case 414:
            return "The URL your client requested was too long";
        case 415:
            return "The requested URL does not support the media type sent";
        case 416:
            return "The requested ranges were not available for the requested URL";
        case 417:
            return "Response did not match client's stated expectations";
        case 428:
            return "The origin server requires the request to be conditional";
        case 429:
            return "The user has sent too many requests in a given amount of time";
        case 431:
            return "The server is unwilling to process the request because its header fields are "
                   "too large";
        case 500:
            return "The server had an unexpected error";
        case 501:
            return "The server does not support the functionality requested";
        case 502:
            return "The remote host sent this server a bad response";
        case 503:
            return "The server can not presently handle the given request";
        case 504:
            return "This server timed out while communicating with the remote host";
        case 505:
            return "The request was made with a version of the HTTP protocol this server does not "
                   "support";
        case 511:
            return "The client needs to authenticate to gain network access";
        default:
            return "Unknown error";
    }
}

// ---------------------------------------------------------------- providers, acceptors, policies

HttpReplyDataProvider::~HttpReplyDataProvider() = default;

void HttpReplyDataProvider::getBody(HttpServerTransaction* trans) {
    if (!trans->_toSendIsSet()) trans->_toSendState = HttpServerTransaction::TOSEND_HAS_FINAL_ITEM;
}

void HttpReplyDataProvider::getErrorDocument(HttpServerTransaction* trans, AppendStr* out) {
    trans->setContentType(&HttpContentType::TYPE_HTML);
    out->append(
        "<!doctype html><html><head><meta http-equiv=\"content-type\" content=\"text/html; "
        "charset=UTF-8\">");
    const http_status_code_t status = trans->_statusCode;
    const bool redirect = status >= 300 && status <= 399 && !trans->_redirectUrl.empty();
    if (redirect) {
        out->append("<meta http-equiv=\"refresh\" content=\"1;url=");
        out->appendHtmlEscaped(trans->_redirectUrl.data(), trans->_redirectUrl.size());
        out->append("\">");
    }
    const char* text = trans->statusExplaination();
    out->appendFormat("<title>%03u ", status);
    out->appendHtmlEscaped(text);
    out->append("</title></head><body><h1>");
    out->appendHtmlEscaped(text);
    out->append("</h1><p>");
    out->append(http_status_explanation(status));
    if (redirect) {
        out->append(" <a href=\"");
        out->appendHtmlEscaped(trans->_redirectUrl.data(), trans->_redirectUrl.size());
        out->append("\">here</a>");
    }
    out->append(".</p></body></html>\r\n");
}

void HttpReplyDataProvider::onAttach(HttpServerTransaction*) {}
bool HttpReplyDataProvider::errorHappened(const SocketError&) { return false; }
bool HttpReplyDataProvider::expectDisconnect() { return false; }
void HttpReplyDataProvider::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("%p", static_cast<const void*>(this));
}

void NullHttpReplyDataProvider::getPreBody(HttpServerTransaction*) {}
void NullHttpReplyDataProvider::getBody(HttpServerTransaction*) {}
NullHttpReplyDataProvider nullHttpReplyDataProvider;

StaticFileHttpDataProvider::StaticFileHttpDataProvider(const Pathname& path) : _fd(path) {
    if (!_fd.valid()) {
        _errno = errno;
        return;
    }
    if (!_fd.stat(&_stat)) {
        _errno = errno;
        httplistener_log.warn("Couldn't fstat(\"%s\"): %m", path.c_str());
        _fd.close();
        return;
    }
    if (!S_ISREG(_stat.st_mode)) {
        httplistener_log.warn("File \"%s\" not a regular file", path.c_str());
        _fd.close();
        return;
    }
    _regular = true;
    _left = file_offset_t(_stat.st_size);
}

StaticFileHttpDataProvider::~StaticFileHttpDataProvider() = default;

void StaticFileHttpDataProvider::prepare(HttpServerTransaction*) {}

void StaticFileHttpDataProvider::getPreBody(HttpServerTransaction* t) {
    if (!_regular) {
        if (_errno != 0) {
            t->setStatus(http_status_code_from_portable_errno(_errno));
            t->_statusText = strerror(_errno);
        } else {
            t->setStatusFormat(404, "Not a regular file");
        }
        return;
    }
    t->setContentLength(file_offset_t(_stat.st_size));
    Timeval mtime;
    _stat.getMtime(&mtime);
    t->setLastModified(mtime);
    t->_etag.set(_stat, false);
    t->_etagp = &t->_etag;
    t->_finishSetEtag();
    prepare(t);
}

void StaticFileHttpDataProvider::getBody(HttpServerTransaction* t) {
    if (_buffer == nullptr) {
        _bufferSize = size_t(std::min<file_offset_t>(std::max<file_offset_t>(_left, 1), 32768));
        _buffer = std::make_unique<char[]>(_bufferSize);
    }
    const size_t want = size_t(std::min<file_offset_t>(_left, file_offset_t(_bufferSize)));
    if (want == 0) {
        t->writeAsync(nullptr, 0, true);
        return;
    }
    ssize_t got = _fd.read(_buffer.get(), want);
    if (got < 0) got = 0;
    // A file that shrank since its stat: the promised length still holds.
    if (size_t(got) < want) memset(_buffer.get() + got, 0, want - size_t(got));
    _left -= file_offset_t(want);
    t->writeAsync(_buffer.get(), want, _left == 0);
}

void ThreadedStringHttpDataProvider::getPreBody(HttpServerTransaction* trans) {
    if (!trans->isInOwnThread()) {
        trans->_askForThread();
        return;
    }
    fill(trans, &trans->_astr);
    trans->postFinalResult(trans->_astr);
}

HttpRequestDataAcceptor::~HttpRequestDataAcceptor() = default;
void HttpRequestDataAcceptor::dataAvailable(const StrSegment&) {}
void HttpRequestDataAcceptor::dataFinished() {}

void HttpRequestDataAcceptor::threadedAcceptData(HttpServerTransaction* trans) {
    ASSERT(trans->isInOwnThread());
    PortableIovecCursor cursor;
    while (trans->read(&cursor)) {
        StrSegment piece;
        while (cursor.getSeg(&piece)) dataAvailable(piece);
    }
}
void HttpRequestDataAcceptor::onAttach(HttpServerTransaction*) {}
bool HttpRequestDataAcceptor::errorHappened(const SocketError&) { return false; }
void HttpRequestDataAcceptor::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("%p", static_cast<const void*>(this));
}
HttpRequestDataAcceptor doNothingHttpRequestDataAcceptor;

HttpServerCrossSitePolicy::~HttpServerCrossSitePolicy() = default;
Str HttpServerCrossSitePolicy::allowedHeaders() const { return Str(); }
bool HttpServerCrossSitePolicyDenyAll::allowFor(HttpServerTransaction*) const { return false; }
HttpServerCrossSitePolicyDenyAll httpServerCrossSitePolicyDenyAll;

void HttpServerTransaction::HttpReplyDataProviderDefault::getPreBody(HttpServerTransaction* trans) {
    if (trans->_statusCode != 200 || trans->_toSendIsSet()) return;
    const StrSegment url = trans->url();
    trans->_statusCode = !url.empty() && url[0] == '/' ? 404 : 400;
}

namespace {
HttpServerTransaction::HttpReplyDataProviderDefault defaultHttpReplyDataProvider;
}

void HttpServerTransaction::AppendStrHttpDataProvider::getPreBody(HttpServerTransaction* trans) {
    if (trans->isInOwnThread()) {
        trans->postFinalResult(trans->_astr);
    } else {
        trans->writeAsync(trans->_astr, true);
    }
}

// ---------------------------------------------------------------- ready-made text

void HttpChunkedEncodingHexLength::fill(uint64_t size, bool leadingCrlf) {
    ASSERT(size != 0);
    static const char hex[] = "0123456789ABCDEF";
    char digits[16];
    int n = 0;
    for (; size != 0; size >>= 4) digits[n++] = hex[size & 15];
    char* p = _buf;
    if (leadingCrlf) *p++ = '\r', *p++ = '\n';
    while (n > 0) *p++ = digits[--n];
    *p++ = '\r', *p++ = '\n';
    _len = uint8_t(p - _buf);
}

StrSegment HttpDateLine::get(time_t now) {
    if (now != _time) {
        Str line("Date: ");
        GmtStructTm tm;
        if (Timeval(now, 0).gmtime(&tm)) tm.appendFtime(line, TimeFormat_RFC1123);
        line.append("\r\n", 2);
        if (line.size() == SIZE) {  // a year beyond four digits keeps the previous line
            memcpy(_line, line.data(), SIZE);
            _time = now;
        }
    }
    return StrSegment(_line, SIZE);
}

void HttpDateLine::appendYearAhead(Str* out) const {
    constexpr size_t prefix = 6;   // "Date: "
    constexpr size_t yearAt = 18;  // "Date: Sun, 06 Nov " then the year
    const size_t base = out->size();
    out->append(_line + prefix, SIZE - prefix);
    char* year = out->data() + base + (yearAt - prefix);
    for (size_t i = 4; i-- > 0;) {
        if (year[i] != '9') {
            ++year[i];
            break;
        }
        year[i] = '0';  // and carry
    }
}

void HttpReplyTail::set(const Str& serverName, const std::map<Str, Str>& headers, bool frameOptions,
                        bool hsts, bool includeSubDomains, bool preload) {
    Str t;
    if (frameOptions) t.append("X-Frame-Options: SAMEORIGIN\r\n");
    _frameOptionsLength = t.size();
    if (hsts) {
        t.append("Strict-Transport-Security: max-age=31536000");
        if (includeSubDomains) t.append("; includeSubDomains");
        if (preload) t.append("; preload");
        t.append("\r\n", 2);
    }
    if (!serverName.empty()) t.append("Server: ").append(serverName).append("\r\n", 2);
    for (const auto& [key, value] : headers)
        t.append(key).append(": ").append(value).append("\r\n", 2);
    t.append("\r\n", 2);
    _text.swap(t);
}

// ---------------------------------------------------------------- the transaction

HttpServerTransaction::HttpServerTransaction() : _provider(&defaultHttpReplyDataProvider) {
    memcpy(_statusLine, "HTTP/1.1 200 ", sizeof(_statusLine));
}

HttpServerTransaction::~HttpServerTransaction() {
    _freeProviders();
    _freeAcceptors();
}

void HttpServerTransaction::clear_extra() {}
void HttpServerTransaction::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    // What one needs at 3 a.m.: which request, how far it got, who answers.
    h.format("HttpServerTransaction %p state=%u ", static_cast<const void*>(this),
             unsigned(_state));
    h.write(method().c_str());
    h.write(" ");
    crashlog_write(h, url());
    h.write(http_version_suffix(_request.firstLine._version));
    h.format(
        " status=%u headersBuilt=%d needBody=%d last=%d chunked=%u toSend=%u/%llu "
        "received=%lld left=%lld written=%lld threaded=%d",
        _statusCode, int(_alreadyBuiltHeaders), int(_needToSendBody), int(_isLastTransaction),
        unsigned(_chunkedState), unsigned(_toSendState), (unsigned long long)_toSend.size(),
        (long long)_bytesReceived, (long long)_bytesLeftInRequestDataChunk,
        (long long)_bodyBytesWritten, int(_threadedIo != nullptr));
    h.write(" provider=");
    _provider->renderCrashLogInfoTo(h);
    h.write(" acceptor=");
    _acceptor->renderCrashLogInfoTo(h);
}

void HttpServerTransaction::_freeProviders() {
    delete _claimedProvider;
    _claimedProvider = nullptr;
}

void HttpServerTransaction::clear() {
    _state = READING_REQUEST_HEAD;
    _request.clear(&_parser.freeList());
    _parser.clear();
    _startTimeSet = false;
    _100continue = 0;
    _bytesReceived = 0;
    _totalBytesExpectedOfRequestData = -1;
    _bytesLeftInRequestDataChunk = 0;
    _requestTransferEncodingIsChunked = false;
    _freeAcceptors();
    _postArguments.clear();
    _acceptor = &_postArguments;
    _maximumRequestDataSize = 52428800;
    _receivingRequestDataForever = _needToSetupRequestGunzip = false;
    _wantSavedRequestData = false;
    _savedRequestData.clear();
    _expectDisconnect = false;
    _shouldLog = true;
    // Trust in forwarding headers is per request: a proxy's connection
    // carries many clients.
    _overrideSourceState = 0;
    _overrideSource.clear();
    _overrideRevdns.clear();
    _overrideHostHdr.clear();
    clearReply();
    if (_connection != nullptr) {
        _desiredCompressionLevel = _connection->_desiredCompressionLevel;
        _crossSitePolicy = _connection->_listener->crossSitePolicy();
    }
    clear_extra();
}

void HttpServerTransaction::clearReply() {
    _statusCode = 200;
    _statusText.clear();
    _wantsSeparateThread = _alreadyBuiltHeaders = _isLastTransaction = false;
    _needToSendBody = true;
    _bodyBytesWritten = 0;
    _chunkedState = CHUNKED_NONE;
    _toSend.resize(0);
    _toSendState = TOSEND_VIRGIN;
    _toSendSafe = true;
    _knowCompleteLength = _willSendDataLater = false;
    _totalScheduledLength = 0;
    _preconditionState = 0;

    _allowedMethods = ALL_METHODS;
    _lastModified.clear();
    _etagp = nullptr;
    _etag.clear();
    _link.clear();
    _headerBlock.clear();
    _work.clear();
    _astr.clear();
    _extraHeaders.clear();
    _varyBy.clear();
    _redirectUrl.clear();
    _downloadFilename.clear();
    _freeProviders();
    _provider = &defaultHttpReplyDataProvider;
    _contentType = nullptr;
    _replyContentEncoding = HttpCompressionAlgorithm();
    _cacheControl = 0;
    _maxCacheSeconds = MAX_CACHE_UNSET;
    _dontIncludeFrameOptions = false;
}

void HttpServerTransaction::setStatus(http_status_code_t status) {
    ASSERT(!_alreadyBuiltHeaders);
    ASSERT(status >= 100 && status <= 599);
    _statusCode = status;
}

void HttpServerTransaction::setStatusFormat(http_status_code_t status, const char* format, ...) {
    setStatus(status);
    va_list args;
    va_start(args, format);
    _statusText.clear();
    _statusText.appendVformat(format, args);
    va_end(args);
}

const char* HttpServerTransaction::statusExplaination() const {
    return _statusText.empty() ? http_status_text(_statusCode) : _statusText.c_str();
}

void HttpServerTransaction::setContentLength(file_offset_t length) {
    ASSERT(!_alreadyBuiltHeaders);
    ASSERT(_toSendState == TOSEND_VIRGIN);
    _totalScheduledLength = length;
    _knowCompleteLength = true;
    _toSendState = TOSEND_UNSET;
}

void HttpServerTransaction::setContentType(const HttpContentType* type) {
    ASSERT(!_alreadyBuiltHeaders);
    _contentType = type;
}

void HttpServerTransaction::setContentEncoding(HttpCompressionAlgorithm encoding) {
    ASSERT(!_alreadyBuiltHeaders);
    ASSERT((encoding.flags() & (encoding.flags() - 1)) == 0);
    _replyContentEncoding = encoding;
}

bool HttpServerTransaction::_finishSetLastModified() {
    if (method() == HttpMethod::PUT) return true;
    if (_preconditionState == 0) {
        _preconditionState = _request.headers.checkPreconditionsSoFar(_lastModified, _etagp);
    }
    return _preconditionState < 300;
}

bool HttpServerTransaction::setLastModified(const Timeval& t) {
    ASSERT(!_alreadyBuiltHeaders);
    _lastModified.set(t);
    return _finishSetLastModified();
}

bool HttpServerTransaction::setEtag(StrSegment value, bool weak) {
    ASSERT(!_alreadyBuiltHeaders);
    _etag.set(value, weak);
    _etagp = &_etag;
    return _finishSetLastModified();
}

void HttpServerTransaction::setLink(const Str& value) {
    ASSERT(!_alreadyBuiltHeaders);
    _link = value;
}

void HttpServerTransaction::setAllowedMethods(HttpMethod methods) {
    ASSERT(!_alreadyBuiltHeaders);
    _allowedMethods = methods;
}

void HttpServerTransaction::setRedirect(http_status_code_t status, const Str& url) {
    ASSERT(status >= 300 && status <= 399);
    setStatus(status);
    _redirectUrl = url;
}

void HttpServerTransaction::setDownloadFilename(const Str& name) {
    ASSERT(!_alreadyBuiltHeaders);
    _downloadFilename = name;
}

AppendStr& HttpServerTransaction::contentsWithoutSettingContentType() {
    ASSERT(!isInOwnThread());
    ASSERT(!_alreadyBuiltHeaders);
    if (_provider == &defaultHttpReplyDataProvider) _provider = &_strProvider;
    return _astr;
}

AppendStr& HttpServerTransaction::contents(const HttpContentType* type) {
    setContentType(type);
    return contentsWithoutSettingContentType();
}

void HttpServerTransaction::setContents(const HttpContentType* type, AppendStr&& body) {
    setContentType(type);
    _astr.assignDestructive(&body);
    if (isInOwnThread()) {
        postFinalResult(_astr);
    } else {
        writeAsync(_astr, true);
    }
}

void HttpServerTransaction::setNoContents() {
    ASSERT(!_alreadyBuiltHeaders);
    ASSERT(_bodyBytesWritten == 0);
    _contentType = nullptr;
    _statusCode = 204;
    _totalScheduledLength = 0;
    _knowCompleteLength = true;
    if (_provider == &defaultHttpReplyDataProvider) {
        _astr.clear();
        _provider = &_strProvider;
    } else {
        _toSend.resize(0);
        _toSendState = TOSEND_HAS_FINAL_ITEM;
    }
}

void HttpServerTransaction::requestCompression(int level) {
    ASSERT(level <= 9);
    // A TLS layer that compresses would make this pointless; none does here.
    _desiredCompressionLevel = level;
}

void HttpServerTransaction::setReplyDataProviderAndClaim(HttpReplyDataProvider* provider) {
    ASSERT(!_alreadyBuiltHeaders);
    if (_claimedProvider != provider) _freeProviders();
    _claimedProvider = provider;
    _provider = provider;
    provider->onAttach(this);
}

void HttpServerTransaction::setReplyDataProviderDontClaim(HttpReplyDataProvider* provider) {
    ASSERT(!_alreadyBuiltHeaders);
    _provider = provider;
    provider->onAttach(this);
}

void HttpServerTransaction::setRequestDataAcceptorDontClaim(HttpRequestDataAcceptor* acceptor) {
    ASSERT(_bytesReceived == 0);
    ASSERT(!_alreadyBuiltHeaders);
    _acceptor = acceptor;
    acceptor->onAttach(this);
}

void HttpServerTransaction::ignoreRequestData() {
    if (_100continue == 2) {
        // The client still waits for "100 Continue": it never gets it, and
        // the body is not read at all.
        _100continue = 0;
        if (_requestTransferEncodingIsChunked) _state = EATING_REQUEST_DATA;
        _bytesReceived = _totalBytesExpectedOfRequestData = _bytesLeftInRequestDataChunk = 0;
        // A client that sends its body anyway must not have it read as the
        // next request.
        _isLastTransaction = true;
        return;
    }
    _acceptor = &doNothingHttpRequestDataAcceptor;
}

// ---------------------------------------------------------------- writing

void HttpServerTransaction::onlyWriteSizeIs(file_offset_t size) {
    if (_knowCompleteLength && _totalScheduledLength != size) {
        httplistener_log.warn(
            "Handler for %s originally reported a content length of %lld but now has "
            "changed it to %lld",
            http_text_for_log(url()).c_str(), (long long)_totalScheduledLength, (long long)size);
        if (_alreadyBuiltHeaders) {
            throw HttpInternalErrorException("Content length changed after the headers were sent");
        }
    }
    _totalScheduledLength = size;
    _knowCompleteLength = true;
}

// The three forms differ only in how the data is referenced.
template <class Add>
void HttpServerTransaction::_writeAsync(uint64_t size, bool last, bool owned, Add add) {
    ASSERT(!isInOwnThread());
    ASSERT(size != 0 || last);
    if (last && _bodyBytesWritten == 0 && !_toSendIsSet() && _toSend.empty()) {
        onlyWriteSizeIs(file_offset_t(size));
    }
    if (size != 0) add();
    _toSendState = last ? TOSEND_HAS_FINAL_ITEM : TOSEND_HAS_PARTIAL_ITEM;
    if (!owned) _toSendSafe = false;
}

void HttpServerTransaction::writeAsync(const char* data, size_t size, bool last) {
    _writeAsync(size, last, false, [&] { _toSend.addReference(data, size); });
}

void HttpServerTransaction::writeAsync(const AppendStr& data, bool last) {
    _writeAsync(data.size(), last, &data == &_astr, [&] { _toSend.addReference(data); });
}

void HttpServerTransaction::writeAsync(const SerializedResult& data, bool last) {
    _writeAsync(data.size(), last, false, [&] { _toSend.addReference(data); });
}

void HttpServerTransaction::postFinalResult(const char* data, size_t size) {
    ASSERT(_toSendState < TOSEND_HAS_FINAL_ITEM);
    if (_bodyBytesWritten == 0) onlyWriteSizeIs(file_offset_t(size));
    if (size != 0) _toSend.addReference(data, size);
    _toSendState = TOSEND_HAS_FINAL_ITEM;
    _toSendSafe = false;
}

void HttpServerTransaction::postFinalResult(const AppendStr& data) {
    ASSERT(_toSendState < TOSEND_HAS_FINAL_ITEM);
    if (_bodyBytesWritten == 0) onlyWriteSizeIs(file_offset_t(data.size()));
    if (data.size() != 0) _toSend.addReference(data);
    _toSendState = TOSEND_HAS_FINAL_ITEM;
    _toSendSafe = &data == &_astr;
}

// ---------------------------------------------------------------- writing on a worker

void HttpServerTransaction::_writeHeadersSync() {
    if (!_checkHttpPreconditions()) throw HttpPreconditionFailedException();
    const bool head = _internal_prepareReplyHeaders();
    _alreadyBuiltHeaders = true;
    if (head) _threadedIo->write(_headerBlock);
}

void HttpServerTransaction::_threaded_write_chunk(const struct iovec* v, unsigned count,
                                                  uint64_t size) {
    if (_chunkedState == CHUNKED_NONE) {
        _threadedIo->writev(v, count);
        return;
    }
    // The size line and the data in one gathered write.
    _chunkLine.fill(size, _chunkedState == CHUNKED_MIDDLE);
    _chunkedState = CHUNKED_MIDDLE;
    PortableIovec all;
    all.push_back(_chunkLine.seg().data(), _chunkLine.seg().size());
    for (unsigned i = 0; i < count; ++i) all.push_back(v[i].iov_base, v[i].iov_len);
    _threadedIo->writev(&all[0], unsigned(all.size()));
}

namespace {
// The pieces of any body form as one gather list.
template <class F>
PortableIovec gather(F forEach, uint64_t* size) {
    PortableIovec v;
    *size = 0;
    forEach([&](const char* p, size_t n) {
        if (n == 0) return;
        v.push_back(p, n);
        *size += n;
    });
    return v;
}
}  // namespace

void HttpServerTransaction::_writeGathered(const PortableIovec& v, uint64_t size) {
    ASSERT(isInOwnThread());
    ASSERT(_toSendState < TOSEND_HAS_FINAL_ITEM);
    if (_receivingRequestDataForever || size == 0) return;
    if (!_alreadyBuiltHeaders) {
        _bodyBytesWritten += file_offset_t(size);
        ScopedTcpSyncDataCork cork(*_threadedIo);
        try {
            _writeHeadersSync();
        } catch (...) {
            _bodyBytesWritten -= file_offset_t(size);  // none of it went
            throw;
        }
        if (_needToSendBody) {
            _threaded_write_chunk(&v[0], unsigned(v.size()), size);
        } else {
            _bodyBytesWritten -= file_offset_t(size);
        }
        return;
    }
    if (!_needToSendBody) return;
    _bodyBytesWritten += file_offset_t(size);
    _threaded_write_chunk(&v[0], unsigned(v.size()), size);
}

void HttpServerTransaction::write(const char* data, size_t size) {
    PortableIovec v;
    if (size != 0) v.push_back(data, size);
    _writeGathered(v, size);
}

void HttpServerTransaction::write(const AppendStr& data) {
    uint64_t size;
    const PortableIovec v = gather(
        [&](auto f) {
            PortableIovecCursor c;
            c.start(data);
            for (StrSegment seg; c.getSeg(&seg);) f(seg.data(), seg.size());
        },
        &size);
    _writeGathered(v, size);
}

void HttpServerTransaction::write(const SerializedResult& data) {
    uint64_t size;
    const PortableIovec v = gather([&](auto f) { data.forEachPiece(f); }, &size);
    _writeGathered(v, size);
}

void HttpServerTransaction::write(const PortableIovec& data) {
    uint64_t size = 0;
    for (size_t i = 0; i < data.size(); ++i) size += data[i].iov_len;
    if (size == 0) return;
    _writeGathered(data, size);
}

void HttpServerTransaction::write(PortableIovecCursor* data) {
    uint64_t size;
    const PortableIovec v = gather(
        [&](auto f) {
            for (StrSegment seg; data->getSeg(&seg);) f(seg.data(), seg.size());
        },
        &size);
    _writeGathered(v, size);
}

void HttpServerTransaction::postFinalResult(const SerializedResult& data) {
    ASSERT(_toSendState < TOSEND_HAS_FINAL_ITEM);
    if (_bodyBytesWritten == 0) onlyWriteSizeIs(file_offset_t(data.size()));
    if (data.size() != 0) _toSend.addReference(data);
    _toSendState = TOSEND_HAS_FINAL_ITEM;
    _toSendSafe = false;
}

// ---------------------------------------------------------------- gzip of a final reply

void HttpServerTransaction::_compressToSendBuffer() {
    ASSERT(isInOwnThread());
    if (_desiredCompressionLevel < 1 || !_knowCompleteLength || _totalScheduledLength < 500 ||
        _replyContentEncoding.flags() != 0 || _toSendState != TOSEND_HAS_FINAL_ITEM ||
        !_request.headers.acceptEncoding().has(HttpCompressionAlgorithm::FLAG_GZIP)) {
        return;
    }
    _toSend.finalize();
    AppendStr gz;
    AppendStrGzipState state(_desiredCompressionLevel, 15, 9, Z_DEFAULT_STRATEGY);
    state.startFile(&gz, _lastModified.valid() ? _lastModified.time() : _startTime);
    state.gzip(_toSend, &gz);
    state.endFile(&gz);
    // Worth it only when it saves more than a little.
    if (gz.size() + 24 >= uint64_t(_totalScheduledLength)) return;
    _totalScheduledLength = file_offset_t(gz.size());
    _astr.assignDestructive(&gz);
    _toSend.resize(0);
    _toSend.addReference(_astr);
    _toSendSafe = true;
    _replyContentEncoding = HttpCompressionAlgorithm::FLAG_GZIP;
}

// ---------------------------------------------------------------- errors into replies

void HttpServerTransaction::_prepareErrorFromHttpException(const HttpException& e) {
    _state = EATING_REQUEST_DATA;
    _statusCode = e.status();
    _statusText = e.what_as_str();
    if (const Str* dest = e.redirectDest()) {
        _redirectUrl = *dest;
    } else {
        _redirectUrl.clear();
    }
    _prepareErrorFromAnyException();
}

void HttpServerTransaction::_prepareErrorFromOtherException(const char* what) {
    _state = EATING_REQUEST_DATA;
    _statusCode = 500;
    size_t n = 0;
    while (n < 500 && what[n] >= 0x20 && what[n] <= 0x7E) ++n;
    _statusText.assign(n != 0 ? what : "exception", n != 0 ? n : 9);
    _prepareErrorFromAnyException();
    _extraHeaders.clear();
}

void HttpServerTransaction::_prepareErrorFromAnyException() {
    _wantsSeparateThread = false;
    ignoreRequestData();
    _prepareError();
}

void HttpServerTransaction::_prepareError() {
    _astr.clear();
    _toSend.resize(0);
    HttpReplyDataProvider* const remembered = _provider;
    _provider = &_strProvider;
    _toSendState = TOSEND_VIRGIN;
    _chunkedState = CHUNKED_NONE;
    if (_statusCode == 304) return;
    _totalScheduledLength = 0;
    _knowCompleteLength = false;
    _replyContentEncoding = HttpCompressionAlgorithm();
    _contentType = nullptr;
    if (_statusCode != 412) {
        _lastModified.clear();
        _etagp = nullptr;
    }
    try {
        remembered->getErrorDocument(this, &_astr);
    } catch (const std::exception& e) {
        httplistener_log.error("Exception caught while preparing an error document: %s", e.what());
        _astr.clear();
    }
}

bool HttpServerTransaction::safeToReplaceBodyWithError() {
    if (_alreadyBuiltHeaders) {
        _isLastTransaction = true;
        return false;
    }
    _lastModified.clear();
    _etagp = nullptr;
    _redirectUrl.clear();
    _toSend.resize(0);
    _toSendState = TOSEND_VIRGIN;
    _contentType = nullptr;
    _replyContentEncoding = HttpCompressionAlgorithm();
    _knowCompleteLength = false;
    _totalScheduledLength = 0;
    return true;
}

// ---------------------------------------------------------------- the head

namespace {
constexpr StrSegment kExpiresLongAgo("Expires: Thu, 26 Oct 1978 00:00:00 GMT\r\n");

// "()<>@,;:\\\"/[]?={} \t"
constexpr CharacterClass kFilenameSeparators("()<>@,;:\\\"/[]?={} \t");
}  // namespace

void HttpServerTransaction::_appendCacheHeaders(bool forceNoCache, time_t now) {
    uint32_t bits = _cacheControl;
    uint32_t maxAge = _maxCacheSeconds;
    if (forceNoCache) {
        bits |= CACHE_NO_CACHE | CACHE_MUST_REVALIDATE;
        maxAge = 0;
    }
    if (_maxCacheSeconds == MAX_CACHE_UNSET && bits == 0 && !forceNoCache) return;
    if (_maxCacheSeconds == 0) {
        _headerBlock.append(kExpiresLongAgo);
        bits |= CACHE_NO_STORE | CACHE_NO_CACHE | CACHE_MUST_REVALIDATE;
    } else if (_maxCacheSeconds != MAX_CACHE_UNSET) {
        GmtStructTm tm;
        Str expires("Expires: ");
        if (_maxCacheSeconds != 31536000 &&
            Timeval(int64_t(now) + _maxCacheSeconds, 0).gmtime(&tm)) {
            tm.appendFtime(expires, TimeFormat_RFC1123);
            expires.append("\r\n", 2);
        } else {
            _dateLine->get(now);
            _dateLine->appendYearAhead(&expires);
        }
        _headerBlock.append(expires);
    }
    _headerBlock.append("Cache-Control: ", 15);
    bool first = true;
    auto item = [&](const char* text) {
        if (!first) _headerBlock.append(", ", 2);
        _headerBlock.append(text);
        first = false;
    };
    if (bits & CACHE_NO_STORE) item("no-store");
    if (bits & CACHE_NO_CACHE) item("no-cache");
    if (bits & CACHE_MUST_REVALIDATE) item("must-revalidate");
    if ((bits & CACHE_PUBLIC) && !(bits & (CACHE_NO_CACHE | CACHE_PRIVATE))) item("public");
    if ((bits & CACHE_PRIVATE) && !(bits & CACHE_NO_CACHE)) item("private");
    if (maxAge != MAX_CACHE_UNSET) {
        if (!first) _headerBlock.append(", ", 2);
        _headerBlock.appendFormat("max-age=%u", maxAge);
        first = false;
    }
    ASSERT(!first);
    _headerBlock.append("\r\n", 2);
}

void HttpServerTransaction::_appendDownloadFilename() {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(_downloadFilename.data());
    const size_t n = _downloadFilename.size();
    bool needQuotes = false, needExtended = false;
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = s[i];
        if (c == ' ' || c == '/') needQuotes = true;
        if (c == 0xC0 || c == 0xC1) {
            if (i + 1 < n && (s[i + 1] & 0xC0) == 0x80) {
                ++i;  // an overlong two-byte form of an ASCII byte: kept as that byte
                continue;
            }
            needExtended = true;
            continue;
        }
        if (c < 0x20 || c > 0x7E || kFilenameSeparators.contains(c) || c == '%') {
            needExtended = true;
        }
    }
    _headerBlock.append("Content-Disposition: Attachment; filename=");
    if (needQuotes) _headerBlock.push_back('"');
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = s[i];
        if ((c == 0xC0 || c == 0xC1) && i + 1 < n && (s[i + 1] & 0xC0) == 0x80) {
            c = static_cast<unsigned char>((c << 6) | (s[i + 1] & 0x3F) | 0x80);
            ++i;
        }
        if (c == '\\') {
            _headerBlock.push_back('/');
        } else if (c >= 0x20 && c <= 0x7E && !kFilenameSeparators.contains(c) && c != '%') {
            _headerBlock.push_back(char(c));
        }
    }
    if (needQuotes) _headerBlock.push_back('"');
    if (needExtended) {
        static const char hex[] = "0123456789abcdef";
        _headerBlock.append("; filename*=UTF-8''");
        for (size_t i = 0; i < n; ++i) {
            const unsigned char c = s[i];
            if (c >= 0x21 && c <= 0x7E && !kFilenameSeparators.contains(c) && c != '%') {
                _headerBlock.push_back(char(c));
            } else {
                const char esc[3] = {'%', hex[c >> 4], hex[c & 15]};
                _headerBlock.append(esc, 3);
            }
        }
    }
    _headerBlock.append("\r\n", 2);
}

bool HttpServerTransaction::_internal_prepareReplyHeaders() {
    ASSERT(_statusCode <= 599);
    // 1. An error with nothing to send gets its document.
    if (_statusCode >= 300 && _totalScheduledLength == 0 && !_willSendDataLater) {
        _prepareError();
        _toSend.addReference(_astr);
        onlyWriteSizeIs(file_offset_t(_astr.size()));
        _toSendSafe = true;
        _toSendState = TOSEND_HAS_FINAL_ITEM;
    }
    // 2.
    const HttpMethod m = method();
    _needToSendBody =
        !(_statusCode == 204 || _statusCode == 304 || (_statusCode >= 100 && _statusCode <= 199)) &&
        m != HttpMethod::HEAD;
    // 3. HTTP/0.9 gets the body alone.
    if (_request.firstLine._version == HTTPVERSION_0_9) {
        ASSERT(m == HttpMethod::GET);
        _isLastTransaction = true;
        return false;
    }
    // 4.
    if (!_request.supportsKeepalive()) _isLastTransaction = true;

    // 5. The status line: only its digits change from one reply to the next.
    _headerBlock.clear();
    if (_statusCode != _statusLineCode) {
        _statusLine[9] = char('0' + _statusCode / 100);
        _statusLine[10] = char('0' + _statusCode / 10 % 10);
        _statusLine[11] = char('0' + _statusCode % 10);
        _statusLineCode = _statusCode;
    }
    _headerBlock.append(_statusLine, sizeof(_statusLine));
    if (_statusText.empty()) {
        _headerBlock.append(http_status_text(_statusCode));
    } else {
        _headerBlock.appendDroppingControlCharacters(_statusText.data(), _statusText.size());
    }
    _headerBlock.append("\r\n", 2);

    // 6. A tag made from a file's stat within the last two seconds may not
    // yet name the file's final state: it goes out weak.
    const time_t now = time(nullptr);
    bool forceNoCache = false;
    if (_etagp != nullptr && _etagp->valid()) {
        if (!_etagp->fromStat() || !_lastModified.valid() ||
            int64_t(now) - 2 > _lastModified.time().sec()) {
            _etagp->render(&_headerBlock);
            forceNoCache = _request.headers.userAgent()._e == HttpUserAgent::USER_AGENT_IE;
        } else {
            _etagp->renderForceWeak(&_headerBlock);
        }
    }
    // 7.
    _headerBlock.append(_dateLine->get(now));
    // 8, 9.
    _appendCacheHeaders(forceNoCache, now);

    if (_statusCode == 304) {
        // 10.
        _extraHeaders.stripHeadersFor304NotModified();
    } else {
        if (m == HttpMethod::OPTIONS) {
            // 11.
            _knowCompleteLength = true;
            _provider = &nullHttpReplyDataProvider;
            if (_contentType == nullptr) _contentType = &HttpContentType::TYPE_PLAINTEXT;
            if (_statusCode == 200) {
                _headerBlock.append("Allow: ", 7);
                _allowedMethods.appendSetTo(&_headerBlock);
                _headerBlock.append("\r\n", 2);
            }
            _headerBlock.append(_contentType->line());
        } else {
            // 12.
            if (_statusCode == 405) {
                if ((_allowedMethods & m) != 0) {
                    httplistener_log.warn(
                        "Returning a 405 error from URL \"%s\" but was not given the "
                        "list of valid methods, so cannot send Allow: header",
                        http_text_for_log(url()).c_str());
                } else {
                    _headerBlock.append("Allow: ", 7);
                    _allowedMethods.appendSetTo(&_headerBlock);
                    _headerBlock.append("\r\n", 2);
                }
            }
            if (_contentType != nullptr) _headerBlock.append(_contentType->line());
        }
        // 13, 14.
        if (_lastModified.valid()) _headerBlock.append(_lastModified.line());
        if (!_link.empty()) _headerBlock.append("Link: ", 6).append(_link).append("\r\n", 2);
        // 15.
        if (_knowCompleteLength) {
            _headerBlock.append("Content-Length: ", 16);
            _headerBlock.append_int64(_totalScheduledLength);
            _headerBlock.append("\r\n", 2);
        } else if (_needToSendBody && !_isLastTransaction) {
            if (_request.firstLine._version >= HTTPVERSION_1_1) {
                _headerBlock.append("Transfer-Encoding: chunked\r\n");
                _chunkedState = CHUNKED_STARTING;
            } else {
                _isLastTransaction = true;  // the body ends with the connection
            }
        }
        // 16.
        if (_replyContentEncoding.flags() != 0) {
            _replyContentEncoding._appendContentEncodingHeaderTo(&_headerBlock);
            _varyBy.add("Accept-Encoding");
        }
        // 17.
        if (!_redirectUrl.empty()) {
            _headerBlock.append("Location: ", 10);
            _headerBlock.appendDroppingControlCharacters(_redirectUrl.data(), _redirectUrl.size());
            _headerBlock.append("\r\n", 2);
        }
        if (!_downloadFilename.empty()) _appendDownloadFilename();
    }

    // 18. Cross-origin.
    const HttpHeader* origin = _request.headers.get(HttpHeader::__qkey_origin);
    if (origin != nullptr && _crossSitePolicy->allowFor(this)) {
        _headerBlock.append("Access-Control-Allow-Origin: ");
        if (_varyBy._bitmask & 64) {  // varies by Origin: name it
            _headerBlock.append(origin->value());
        } else {
            _headerBlock.push_back('*');
        }
        _headerBlock.append("\r\nAccess-Control-Allow-Credentials: true");
        if (_request.headers.has(HttpHeader::__qkey_access_control_request_headers)) {
            _headerBlock.append("\r\nAccess-Control-Allow-Headers:Authorization");
            const Str more = _crossSitePolicy->allowedHeaders();
            if (!more.empty()) _headerBlock.push_back(','), _headerBlock.append(more);
        }
        _headerBlock.append("\r\nAccess-Control-Allow-Methods: ");
        _allowedMethods.appendSetTo(&_headerBlock);
        _headerBlock.append("\r\n", 2);
    }
    // 19, 20, 21, 22.
    if (!_varyBy.empty()) {
        _headerBlock.append("Vary: ", 6);
        _varyBy.appendTo(&_headerBlock);
        _headerBlock.append("\r\n", 2);
    }
    _headerBlock.append(_isLastTransaction ? StrSegment("Connection: Close\r\n")
                                           : StrSegment("Connection: Keep-Alive\r\n"));
    _extraHeaders.appendTo(&_headerBlock);
    _headerBlock.append(_dontIncludeFrameOptions ? _replyTail->withoutFrameOptions()
                                                 : _replyTail->full());
    return true;
}
