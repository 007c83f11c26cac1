// The server side of HTTP: the request half of a transaction (bodies plain,
// chunked and unbounded), the listener, and the connection that drives each
// exchange through its states on the event loop.
#include "util/HttpListener.h"

#include "util/CrashLog.h"
#include "util/HttpCompression.h"
#include "util/UriPiece.h"

#include <cerrno>
#include <cstring>

#include "libzero/assertion.h"
#include "util/Logger.h"

Logger httplistener_log("HttpListener");

namespace {
constexpr Interval ms(uint64_t n) { return Interval(n); }
constexpr char kEndMarkerAfterChunk[] = "\r\n0\r\n\r\n";
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

bool isPeerHangUp(const SocketError& err) {
    return err.isEof() || (err.isErrno() && (err.data() == ECONNABORTED ||
                                             err.data() == ECONNRESET || err.data() == EPIPE));
}
}  // namespace

// ---------------------------------------------------------------- PostArgumentsAcceptor

void PostArgumentsAcceptor::dataAvailable(const StrSegment& data) {
    if (!_parser.parse(data)) _hadParsingError = true;
}

void PostArgumentsAcceptor::dataFinished() {
    if (!_parser.finish()) _hadParsingError = true;
}

void PostArgumentsAcceptor::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    crashlog_write(h, "PostArgumentsAcceptor");
    if (_hadParsingError) crashlog_write(h, " [had parsing error]");
}

void PostArgumentsAcceptor::clear() {
    _parser.finish();
    _arguments.clear();
    _hadParsingError = false;
}

// ---------------------------------------------------------------- the request body

void HttpServerTransaction::_freeAcceptors() {
    delete _claimedAcceptor;
    _claimedAcceptor = nullptr;
}

void HttpServerTransaction::setRequestDataAcceptorAndClaim(HttpRequestDataAcceptor* acceptor) {
    ASSERT(_bytesReceived == 0);
    ASSERT(!_alreadyBuiltHeaders);
    if (_claimedAcceptor != acceptor) _freeAcceptors();
    _claimedAcceptor = acceptor;
    _acceptor = acceptor;
    acceptor->onAttach(this);
}

void HttpServerTransaction::stopParsingRequestData() {
    _acceptor = &doNothingHttpRequestDataAcceptor;
}

void HttpServerTransaction::setRequestDataSize(file_offset_t size) {
    _totalBytesExpectedOfRequestData = size;
    if (!_requestTransferEncodingIsChunked) _bytesLeftInRequestDataChunk = size;
    _prepareToReceiveRequestData();
}

void HttpServerTransaction::setRequestDataSizeInfinite() {
    _receivingRequestDataForever = true;
    if (!_requestTransferEncodingIsChunked) _isLastTransaction = true;
    _prepareToReceiveRequestData();
}

file_offset_t HttpServerTransaction::getRequestDataSize() const {
    if (_totalBytesExpectedOfRequestData >= 0) return _totalBytesExpectedOfRequestData;
    return _requestTransferEncodingIsChunked ? -1 : 0;
}

bool HttpServerTransaction::verifyPutPreconditions(bool exists, const Timeval* mtime,
                                                   const Str& etag) const {
    ASSERT(method() == HttpMethod::PUT);
    return _request.headers.verifyPutPreconditions(exists, mtime, etag);
}

void HttpServerTransaction::_prepareToReceiveRequestData() {
    if (_100continue == 1) _100continue = 2;
    const HttpCompressionAlgorithm encoding = _request.headers.contentEncoding();
    if (encoding.flags() == 0) return;
    if (encoding.flags() == HttpCompressionAlgorithm::FLAG_GZIP) {
        _needToSetupRequestGunzip = true;
        return;
    }
    throw HttpClientException(415);
}

void HttpServerTransaction::_requestDataTooLarge(file_offset_t size) {
    _isLastTransaction = true;
    _bytesLeftInRequestDataChunk = 0;
    _state = EATING_REQUEST_DATA;
    if (_maximumRequestDataSize == 0) {
        throw HttpRequestEntityTooLargeException("Unexpected request data received");
    }
    throw HttpRequestEntityTooLargeException(
        Str::fromFormat("Content-Length of %llu too large (maximum is %llu)",
                        (unsigned long long)size, (unsigned long long)_maximumRequestDataSize));
}

void HttpServerTransaction::_checkIfchunkedClientSentTooLittle() {
    if (_totalBytesExpectedOfRequestData >= 0 &&
        _totalBytesExpectedOfRequestData != _bytesReceived) {
        throw HttpChunkedProtocolException(Str::fromFormat(
            "Chunked protocol error: client claimed it would send %llu bytes, but only sent %llu",
            (unsigned long long)_totalBytesExpectedOfRequestData,
            (unsigned long long)_bytesReceived));
    }
}

void HttpServerTransaction::_chunkedClientSentTooMuch() {
    // "send only send" is the wording clients of this server match on.
    throw HttpChunkedProtocolException(Str::fromFormat(
        "Chunked protocol error: client claimed it would send only send %llu bytes, but has "
        "exceeded that",
        (unsigned long long)_totalBytesExpectedOfRequestData));
}

void HttpServerTransaction::_setupRequestGunzip() {
    ASSERT(_bytesReceived == 0);
    _needToSetupRequestGunzip = false;
    if (_acceptor == &doNothingHttpRequestDataAcceptor) return;  // thrown away as it is
    const bool owned = _claimedAcceptor == _acceptor;
    HttpRequestDataAcceptor* const stale = owned ? nullptr : _claimedAcceptor;
    auto* gunzip = new GunzipHttpRequestData(this, _acceptor, owned);
    _claimedAcceptor = gunzip;  // it owns the real one now, when that was claimed
    _acceptor = gunzip;
    delete stale;  // claimed once, replaced since
}

bool HttpServerTransaction::eatRequestData(const StrSegment& data, size_t* used) {
    const size_t n =
        size_t(std::min<file_offset_t>(_bytesLeftInRequestDataChunk, file_offset_t(data.size())));
    *used = n;
    if (_needToSetupRequestGunzip) _setupRequestGunzip();
    const StrSegment piece(data.data(), n);
    if (_wantSavedRequestData) _savedRequestData.append(piece);
    if (n != 0) _acceptor->dataAvailable(piece);
    _bytesLeftInRequestDataChunk -= file_offset_t(n);
    _bytesReceived += file_offset_t(n);
    return _bytesLeftInRequestDataChunk == 0;
}

HttpServerTransaction::chunk_walk_t HttpServerTransaction::_walkChunkHeader(const char*& p,
                                                                            const char* end) {
    while (p < end) {
        if (_state == EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET) {
            const char c = *p;
            if (c == '\t' || c == '\n' || c == '\r' || c == ' ') {
                ++p;
                continue;
            }
            ASSERT(_bytesLeftInRequestDataChunk == 0);
            _state = EATING_REQUEST_DATA_CHUNKED_LENGTH;
            continue;
        }
        if (_state == EATING_REQUEST_DATA_CHUNKED_DATA) return CHUNK_WALK_DATA;
        const char c = *p++;
        if (c == '\n') {
            if (_bytesLeftInRequestDataChunk == 0) {
                // The last chunk. Trailers are not read; the line ends that
                // follow are taken as empty lines before the next request.
                _checkIfchunkedClientSentTooLittle();
                _receivingRequestDataForever = false;
                return CHUNK_WALK_DONE;
            }
            if (_totalBytesExpectedOfRequestData >= 0 &&
                _bytesLeftInRequestDataChunk > _totalBytesExpectedOfRequestData - _bytesReceived) {
                _chunkedClientSentTooMuch();
            }
            if (_bytesLeftInRequestDataChunk > _maximumRequestDataSize - _bytesReceived) {
                _requestDataTooLarge(_bytesReceived + _bytesLeftInRequestDataChunk);
            }
            _state = EATING_REQUEST_DATA_CHUNKED_DATA;
            return CHUNK_WALK_DATA;
        }
        if (_state == EATING_REQUEST_DATA_CHUNKED_EXTENSION) continue;
        if (c == '\t' || c == '\r' || c == ' ') continue;
        if (c == ';') {
            _state = EATING_REQUEST_DATA_CHUNKED_EXTENSION;
            continue;
        }
        if (_bytesLeftInRequestDataChunk >= file_offset_t(0x800000000000000)) {
            throw HttpChunkedProtocolException("Chunked protocol error: chunk length too large");
        }
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
            digit = (c | 0x20) - 'a' + 10;
        } else {
            throw HttpChunkedProtocolException(Str::fromFormat(
                "Chunked protocol error: bad hex digit 0x%02X", unsigned(uint8_t(c))));
        }
        _bytesLeftInRequestDataChunk = _bytesLeftInRequestDataChunk * 16 + digit;
    }
    return _state == EATING_REQUEST_DATA_CHUNKED_DATA ? CHUNK_WALK_DATA : CHUNK_WALK_MORE;
}

bool HttpServerTransaction::eatChunkedRequestData(const StrSegment& data, size_t* used) {
    const char* p = data.begin();
    const char* const end = data.end();
    for (;;) {
        const chunk_walk_t w = _walkChunkHeader(p, end);
        if (w == CHUNK_WALK_DONE) {
            *used = size_t(p - data.begin());
            return true;
        }
        if (w == CHUNK_WALK_MORE || p == end) break;
        size_t n;
        if (eatRequestData(StrSegment(p, size_t(end - p)), &n)) {
            _state = EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET;
        }
        p += n;
    }
    *used = size_t(p - data.begin());
    return false;
}

bool HttpServerTransaction::read(PortableIovecCursor* cursor) {
    ASSERT(isInOwnThread());
    TcpSyncDataBuffer& io = *_threadedIo;
    if (_owedConsume != 0) {
        io.consume(_owedConsume);
        _owedConsume = 0;
    }
    // A piece goes out as it lies, or inflated into the work buffer; false
    // when inflating it gave nothing yet (the caller reads on).
    auto handOut = [&](const char* data, size_t n, size_t owed) {
        _bytesReceived += file_offset_t(n);
        if (_threadedGunzip == nullptr) {
            if (_wantSavedRequestData) _savedRequestData.append(data, n);
            _owedConsume = owed;
            _readIov.clear();
            _readIov.push_back(data, n);
            cursor->start(_readIov);
            return true;
        }
        _work.clear();
        try {
            _threadedGunzip->provideCompressedData(data, n);
        } catch (...) {
            io.consume(owed);
            throw;
        }
        io.consume(owed);
        if (_work.empty()) return false;
        if (_wantSavedRequestData) _savedRequestData.append(_work);
        cursor->start(_work);
        return true;
    };
    auto atEnd = [&] {
        if (_threadedGunzip != nullptr) _threadedGunzip->verifyInGroundState();
        _state = END_OF_TRANSACTION;
        return false;
    };
    StrSegment seg;
    for (;;) {
        switch (_state) {
            case EATING_REQUEST_DATA: {
                if (_bytesLeftInRequestDataChunk == 0) return atEnd();
                if (io.peek(&seg) == 0) throw TcpChannel::Error(SocketError::eof());
                const size_t n = size_t(std::min<file_offset_t>(_bytesLeftInRequestDataChunk,
                                                                file_offset_t(seg.size())));
                _bytesLeftInRequestDataChunk -= file_offset_t(n);
                if (handOut(seg.data(), n, n)) return true;
                continue;
            }
            case EATING_REQUEST_DATA_FOREVER: {
                const ssize_t got = io.peek_nothrow(&seg);
                if (got <= 0) {
                    const SocketError& err = io.lastError();
                    const bool hangUp = got == 0 || (err.isErrno() && (err.data() == ECONNRESET ||
                                                                       err.data() == ECONNABORTED ||
                                                                       err.data() == EPIPE));
                    if (!hangUp) throw TcpChannel::Error(err);
                    return atEnd();  // the client's close ends the body
                }
                if (file_offset_t(seg.size()) > _maximumRequestDataSize - _bytesReceived) {
                    _requestDataTooLarge(_bytesReceived + file_offset_t(seg.size()));
                }
                if (handOut(seg.data(), seg.size(), seg.size())) return true;
                continue;
            }
            case EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET:
            case EATING_REQUEST_DATA_CHUNKED_LENGTH:
            case EATING_REQUEST_DATA_CHUNKED_EXTENSION:
            case EATING_REQUEST_DATA_CHUNKED_DATA: {
                if (io.peek(&seg) == 0) throw TcpChannel::Error(SocketError::eof());
                const char* p = seg.begin();
                chunk_walk_t w;
                try {
                    w = _walkChunkHeader(p, seg.end());
                } catch (...) {
                    io.consume(size_t(p - seg.begin()));  // what was parsed is gone
                    throw;
                }
                const size_t walked = size_t(p - seg.begin());
                if (w == CHUNK_WALK_DONE) {
                    io.consume(walked);
                    return atEnd();
                }
                if (w == CHUNK_WALK_MORE || p == seg.end()) {
                    io.consume(walked);
                    continue;
                }
                const size_t n = size_t(std::min<file_offset_t>(_bytesLeftInRequestDataChunk,
                                                                file_offset_t(seg.end() - p)));
                _bytesLeftInRequestDataChunk -= file_offset_t(n);
                if (_bytesLeftInRequestDataChunk == 0) {
                    _state = EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET;
                }
                if (handOut(p, n, walked + n)) return true;
                continue;
            }
            default:
                return false;
        }
    }
}

namespace {
constexpr CharacterClass kHostChars(
    "[]:_-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

namespace {
bool isIpLiteral(StrSegment text) {
    ParsedIpv4Address v4;
    ParsedIpv6Address v6;
    return mem_parse_into(text.data(), text.size(), &v4) ||
           mem_parse_into(text.data(), text.size(), &v6);
}

constexpr CharacterClass kBlanks(" \t");

StrSegment trimmed(StrSegment s) { return s.trim(kBlanks); }

bool equalsNoCase(StrSegment s, const char* z) { return http_equals_caseless(s, z); }

void checkHostChars(StrSegment host, const char* what) {
    for (char c : host) {
        if (!kHostChars.contains(c)) {
            httplistener_log.error("%s contains invalid char, host = %s", what,
                                   http_text_for_log(host).c_str());
            throw HttpBadRequestException("Host header contains invalid characters");
        }
    }
}
}  // namespace

Str HttpServerTransaction::ip() {
    if (_overrideSourceState & OVERRIDESOURCE_ALLOW) {
        if (!(_overrideSourceState & OVERRIDESOURCE_DID_IP)) {
            _overrideSourceState |= OVERRIDESOURCE_DID_IP;
            _overrideSource.clear();
            if (const HttpHeader* h = _request.headers.get(HttpHeader::__qkey_x_forwarded_for)) {
                StrSegment v = h->value();
                v = trimmed(v.substr(0, v.find(',')));
                if (v.size() >= 2 && v[0] == '[' && v.back() == ']') v = v.substr(1, v.size() - 2);
                if (isIpLiteral(v)) _overrideSource.assign(v.data(), v.size());
            }
        }
        if (!_overrideSource.empty()) return _overrideSource;
    }
    return _connection != nullptr ? _connection->peer().ip() : Str();
}

Str HttpServerTransaction::reverseDns() {
    const Str address = ip();
    if ((_overrideSourceState & OVERRIDESOURCE_ALLOW) && !_overrideSource.empty()) {
        if (!(_overrideSourceState & OVERRIDESOURCE_DID_REVDNS)) {
            _overrideSourceState |= OVERRIDESOURCE_DID_REVDNS;
            IPv46SocketAddress a;
            _overrideRevdns = a.setHostname(_overrideSource.c_str()) ? a.reverseDns() : address;
        }
        return _overrideRevdns;
    }
    return _connection != nullptr ? _connection->peer().reverseDns() : address;
}

bool HttpServerTransaction::isHttps() {
    // No TLS channel exists in this build: the real connection is plain.
    const bool real = false;
    if (!(_overrideSourceState & OVERRIDESOURCE_ALLOW)) return real;
    if (_overrideSourceState & OVERRIDESOURCE_DID_PROTO) {
        return (_overrideSourceState & OVERRIDESOURCE_PROTO_IS_HTTPS) != 0;
    }
    struct Rule {
        const HttpHeader::queryable_key* key;
        const char* yes;
        const char* no;
    };
    const Rule rules[] = {
        {&HttpHeader::__qkey_x_forwarded_proto, "https", "http"},
        {&HttpHeader::__qkey_x_forwarded_ssl, "on", "off"},
        {&HttpHeader::__qkey_front_end_https, "on", "off"},
        {&HttpHeader::__qkey_x_forwarded_protocol, "https", "http"},
        {&HttpHeader::__qkey_x_url_scheme, "https", "http"},
    };
    int decided = -1;
    for (const Rule& r : rules) {
        for (auto it = _request.headers.find(*r.key); decided < 0 && it != _request.headers.end();
             _request.headers.getNextWithKey(&it)) {
            const StrSegment v = trimmed(it->value());
            if (equalsNoCase(v, r.yes)) decided = 1;
            if (equalsNoCase(v, r.no)) decided = 0;
        }
        if (decided >= 0) break;
    }
    const bool https = decided < 0 ? real : decided == 1;
    _overrideSourceState |= OVERRIDESOURCE_DID_PROTO | (https ? OVERRIDESOURCE_PROTO_IS_HTTPS : 0);
    return https;
}

Str HttpServerTransaction::requestHost() {
    if ((_overrideSourceState & OVERRIDESOURCE_ALLOW) &&
        !(_overrideSourceState & OVERRIDESOURCE_DID_HOSTHDR)) {
        _overrideSourceState |= OVERRIDESOURCE_DID_HOSTHDR;
        _overrideHostHdr.clear();
        if (const HttpHeader* h = _request.headers.get(HttpHeader::__qkey_x_forwarded_host)) {
            StrSegment host = trimmed(h->value());
            bool withPort = false;
            if (!host.empty() && host[0] == '[') {
                if (host.find(StrSegment("]:")) != StrSegment::npos) {
                    withPort = true;  // used as it stands
                } else {
                    if (host.back() == ']') host.pop_back();
                    host = host.substr(1);
                }
            } else if (host.find(':') != StrSegment::npos) {
                ParsedIpv6Address v6;
                withPort = !mem_parse_into(host.data(), host.size(), &v6);
            }
            if (withPort) {
                _overrideHostHdr.assign(host.data(), host.size());
            } else {
                Str bare(host.data(), host.size());
                if (const HttpHeader* p =
                        _request.headers.get(HttpHeader::__qkey_x_forwarded_port)) {
                    _overrideHostHdr = bare.find(':') != Str::npos ? "[" + bare + "]" : bare;
                    _overrideHostHdr.push_back(':');
                    _overrideHostHdr.append(trimmed(p->value()));
                    withPort = true;
                } else {
                    _overrideHostHdr = bare;
                }
            }
            if (withPort) {
                HostAndPort hp;
                if (!mem_parse_into(_overrideHostHdr.data(), _overrideHostHdr.size(), &hp)) {
                    _overrideHostHdr.clear();
                } else {
                    const unsigned port = hp.port().value();
                    const bool https = isHttps();
                    if ((port == 80 && !https) || (port == 443 && https)) {
                        _overrideHostHdr.assign(hp.host());
                        if (_overrideHostHdr.find(':') != Str::npos) {
                            _overrideHostHdr = "[" + _overrideHostHdr + "]";
                        }
                    }
                }
            }
        }
    }
    if (!_overrideHostHdr.empty()) {
        checkHostChars(_overrideHostHdr.seg(), "HTTP Override Host Header");
        return _overrideHostHdr;
    }
    auto it = _request.headers.find(HttpHeader::__qkey_host);
    if (_request.firstLine._version < HTTPVERSION_1_1) {
        return it == _request.headers.end() ? Str() : Str(it->value());
    }
    if (it == _request.headers.end()) {
        httplistener_log.info("HTTP Host Header is missing");
        throw HttpBadRequestException("Host header not provided");
    }
    const StrSegment host = it->value();
    auto next = it;
    _request.headers.getNextWithKey(&next);
    if (next != _request.headers.end()) {
        httplistener_log.info("HTTP request message contains more than one Host header");
        throw HttpBadRequestException("Request message contains more than one Host header");
    }
    checkHostChars(host, "HTTP Host Header");
    return Str(host);
}

// ---------------------------------------------------------------- taking over a proxied reply

HttpHeaderCopyPolicy::~HttpHeaderCopyPolicy() = default;

void HttpUpdateServerTransactionFromProxiedHeader::add(HttpServerTransaction* t,
                                                       const StrSegment& key,
                                                       const StrSegment& value) {
    auto appendRaw = [&] {
        Str line(key);
        line.append(": ", 2);
        const uint32_t offset = uint32_t(line.size());
        line.append(value);
        t->extraHeaders()._addRawLine(line, offset);
    };
    if (equalsNoCase(key, "ETag")) {
        StrSegment v = trimmed(value);
        bool weak = false;
        if (v.size() >= 2 && (v[0] == 'W' || v[0] == 'w') && v[1] == '/') {
            v = v.substr(2);
            weak = true;
        }
        if (v.size() >= 2 && v[0] == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
        if (!v.empty()) t->setEtag(v, weak);
    } else if (equalsNoCase(key, "Last-Modified")) {
        Timeval when;
        if (http_parse_date(value, &when)) t->setLastModified(when);
    } else if (equalsNoCase(key, "Expires")) {
        _expires.assign(value.data(), value.size());
    } else if (equalsNoCase(key, "Cache-Control")) {
        StrSegment rest = value, token;
        while (get_next_token(rest, &token, ',')) {
            using T = HttpServerTransaction;
            if (equalsNoCase(token, "no-store")) {
                t->_cacheControl |= T::CACHE_NO_STORE;
            } else if (equalsNoCase(token, "no-cache")) {
                t->_cacheControl |= T::CACHE_NO_CACHE;
            } else if (equalsNoCase(token, "must-revalidate")) {
                t->_cacheControl |= T::CACHE_MUST_REVALIDATE;
            } else if (equalsNoCase(token, "public")) {
                t->_cacheControl =
                    (t->_cacheControl & ~(T::CACHE_PUBLIC | T::CACHE_PRIVATE)) | T::CACHE_PUBLIC;
            } else if (equalsNoCase(token, "private")) {
                t->_cacheControl =
                    (t->_cacheControl & ~(T::CACHE_PUBLIC | T::CACHE_PRIVATE)) | T::CACHE_PRIVATE;
            } else if (token.size() > 8 && equalsNoCase(token.substr(0, 8), "max-age=")) {
                const StrSegment v = trimmed(token.substr(8));
                unsigned long seconds;
                if (!v.empty() && v[0] == '-') {
                    t->_maxCacheSeconds = 0;
                } else if (!mem_tryToUnsignedLong(v.data(), v.size(), &seconds)) {
                    t->_maxCacheSeconds = 0;
                } else {
                    t->_maxCacheSeconds = seconds >= 30000001 ? 31536000 : uint32_t(seconds);
                }
                _sawMaxAge = true;
            }
        }
    } else if (equalsNoCase(key, "Allow")) {
        StrSegment rest = value, token;
        while (get_next_token(rest, &token, ',')) {
            HttpMethod m;
            if (mem_parse_into(token.data(), token.size(), &m)) {
                t->_allowedMethods = HttpMethod(t->_allowedMethods | m);
            }
        }
    } else if (equalsNoCase(key, "Content-Type")) {
        _contentType.set(value.data(), value.size());
        t->setContentType(&_contentType);
    } else if (equalsNoCase(key, "Vary")) {
        t->_varyBy._add(value.data(), value.size());
    } else if (equalsNoCase(key, "X-Frame-Options")) {
        if (t->_dontIncludeFrameOptions) appendRaw();  // else the listener's own line stands
    } else if (equalsNoCase(key, "Access-Control-Allow-Origin") ||
               equalsNoCase(key, "Access-Control-Allow-Credentials") ||
               equalsNoCase(key, "Access-Control-Allow-Methods")) {
        // The proxied server decided: this one adds no cross-origin lines.
        t->_request.headers._forgetKey(HttpHeader::__qkey_origin);
        appendRaw();
    } else {
        appendRaw();
    }
}

void HttpUpdateServerTransactionFromProxiedHeader::add(HttpServerTransaction* t,
                                                       const HttpHeaders& headers,
                                                       HttpHeaderCopyPolicy& policy) {
    for (const HttpHeader& h : headers) {
        if (policy.shouldCopy(h)) add(t, h.key(), h.value());
    }
}

void HttpUpdateServerTransactionFromProxiedHeader::finish(HttpServerTransaction* t) {
    if (_sawMaxAge || _expires.empty()) return;
    Timeval when;
    if (!http_parse_date(_expires.seg(), &when)) return;
    const int64_t ahead = when.sec() - Timeval::now().sec();
    t->_maxCacheSeconds = ahead <= 0 ? 0 : ahead <= 30000000 ? uint32_t(ahead) : 31536000;
}

bool HttpServerTransaction::_checkHttpPreconditions() {
    if (_preconditionState == 200) {
        ASSERT(method() != HttpMethod::PUT);
        return true;
    }
    if (_preconditionState == 0) {
        if (method() == HttpMethod::OPTIONS || method() == HttpMethod::PUT) return true;
        _preconditionState = _request.headers.checkPreconditions(_lastModified, _etagp);
        if (_preconditionState == 200) return true;
    }
    // An error a handler chose stands.
    if (_statusCode < 200 || _statusCode > 299) return true;
    _statusCode = _preconditionState;
    _statusText.clear();
    if (_preconditionState == 304) {
        _needToSendBody = false;
        return true;
    }
    _totalScheduledLength = 0;
    _knowCompleteLength = false;
    _replyContentEncoding = HttpCompressionAlgorithm();
    _contentType = nullptr;
    return false;
}

void HttpServerTransaction::updateStateAfterHeadersSent() {
    if (!_needToSendBody) {
        _state = SEND_EOF_MARKER;
    } else if (_toSendState < TOSEND_HAS_FINAL_ITEM) {
        _state = NEED_REPLY_DATA;
    } else {
        _state = SENDING_REPLY_DATA;
    }
}

// ---------------------------------------------------------------- HttpTcpConnection

HttpTcpConnection::HttpTcpConnection(HttpListener* listener, const IPv46SocketAddress& peer)
    : _listener(listener), _peer(peer), _transaction(listener->allocateTransaction(this)) {
    _transaction->_connection = this;
    _transaction->_setConnectionParts(&cached_date_header, &listener->replyTail(),
                                      listener->crossSitePolicy());
}

HttpTcpConnection::~HttpTcpConnection() = default;
bool HttpTcpConnection::trustHttp11(const HttpServerRequest&) const { return true; }
void HttpTcpConnection::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("HttpTcpConnection %p peer=", static_cast<const void*>(this));
    crashlog_write(h, _peerText.seg());  // made on first use; never here, in a crash
    h.format(" keepalive=%d; ", int(_keepalive));
    _transaction->renderCrashLogInfoTo(h);
}

void HttpListeningConnection::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    TcpChannel::renderCrashLogInfoTo(h);
    h.format("; HTTP active=%d served=%d; ", int(_transactionActive), int(_haveHadTransaction));
    _conn->renderCrashLogInfoTo(h);
}

const Str& HttpTcpConnection::peerText() {
    if (_peerText.empty()) append_stringified(&_peerText, _peer);
    return _peerText;
}

// ---------------------------------------------------------------- HttpListener

HttpListener::HttpListener(SslServerContext* ssl) : _ssl(ssl) {}
HttpListener::~HttpListener() = default;

void HttpListener::dispatchGlobalOptionsRequest(HttpServerTransaction*) {}
void HttpListener::log(HttpServerTransaction*) {}

HttpTcpConnection* HttpListener::newConnection(HttpListener* listener,
                                               const IPv46SocketAddress& peer) {
    return new HttpTcpConnection(listener, peer);
}

HttpServerTransaction* HttpListener::allocateTransaction(HttpTcpConnection*) {
    return new HttpServerTransaction;
}

Interval HttpListener::initialRequestTimeout() { return ms(40000); }
Interval HttpListener::sslHandshakeTimeout() const { return ms(60000); }
Interval HttpListener::keepaliveIdleTimeout(bool wellBelow) {
    return wellBelow ? ms(7200000) : ms(12000);
}
void HttpListener::keepAliveConnectionWasIdleTooLong(const IPv46SocketAddress& peer, bool) {
    Str text;
    append_stringified(&text, peer);
    httplistener_log.debug("Peer %s idle too long, disconnecting", text.c_str());
}
Interval HttpListener::ioTimeout() { return ms(300000); }

std::unique_ptr<TcpChannel> HttpListener::factory(PollableDescriptor fd,
                                                  const IPv46SocketAddress& peer) {
    try {
        std::unique_ptr<HttpTcpConnection> conn(newConnection(this, peer));
        if (conn == nullptr) return nullptr;  // refused quietly
        conn->transaction().clear();
        conn->_desiredCompressionLevel = conn->transaction()._desiredCompressionLevel;
        fd.setNoDelay(true);  // a failure only costs latency
        return std::make_unique<HttpListeningConnection>(this, std::move(conn));
    } catch (const std::exception& e) {
        Str text;
        append_stringified(&text, peer);
        httplistener_log.error("Couldn't create an HTTP connection for %s: %s", text.c_str(),
                               e.what());
        return nullptr;
    }
}

bool HttpListener::limitActiveConnections(unsigned count, bool) {
    const unsigned max = _maxActiveConnections.load(std::memory_order_relaxed);
    if (count >= max) {
        if (!_throttling) httplistener_log.warn("%u HTTP connections active, throttling", count);
        _throttling = true;
        _wellBelowConnectionLimit.store(false);
        return true;
    }
    if (_throttling && max > 20 && count >= max - 10) {
        // Accepting resumes only ten below the limit.
        _wellBelowConnectionLimit.store(false);
        return true;
    }
    if (_throttling) {
        httplistener_log.info("HTTP active connections down to %u, unthrottling", count);
        _throttling = false;
    }
    if (max < 60) {
        _wellBelowConnectionLimit.store(false);
    } else {
        _wellBelowConnectionLimit.store(count < (max <= 320 ? max / 8 : 40));
    }
    return false;
}

void HttpListener::setServerName(const Str& name) {
    setServerName(name, std::map<Str, Str>(), true, false, false, false);
}

void HttpListener::setServerName(const Str& name, const std::map<Str, Str>& headers,
                                 bool frameOptions, bool hsts, bool includeSubDomains,
                                 bool preload) {
    _tail.set(name, headers, frameOptions, hsts, includeSubDomains, preload);
}

void HttpListener::setMaxConnections(unsigned max) {
    _maxActiveConnections.store(max, std::memory_order_relaxed);
    if (max < 60) _wellBelowConnectionLimit.store(false);
}

// ---------------------------------------------------------------- HttpListeningConnection

HttpListeningConnection::HttpListeningConnection(HttpListener* listener,
                                                 std::unique_ptr<HttpTcpConnection> connection)
    : _listener(listener), _conn(std::move(connection)) {}

HttpListeningConnection::~HttpListeningConnection() = default;

Interval HttpListeningConnection::initialReadTimeout() {
    return _listener->initialRequestTimeout();
}
Interval HttpListeningConnection::initialWriteTimeout() { return _listener->ioTimeout(); }
Interval HttpListeningConnection::sslHandshakeTimeout() const {
    return _listener->sslHandshakeTimeout();
}

bool HttpListeningConnection::wantGracefulShutdown() {
    return _conn->_keepalive || TcpChannel::wantGracefulShutdown();
}

void HttpListeningConnection::dataAvailable(TcpAsyncDataBuffer& data) {
    if (!_transactionActive) {
        if (data._rbuf.empty()) return;
        _transactionActive = _haveHadTransaction = true;
        setTimeouts(_listener->ioTimeout(), _listener->ioTimeout());
    }
    _proceed(data);
}

void HttpListeningConnection::_proceed(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    try {
        _run(data);
    } catch (const HttpException& e) {
        if (t._alreadyBuiltHeaders) {
            httplistener_log.error(
                "Handler for %s threw an HTTP exception after reply headers "
                "had already been sent!  %u %s",
                http_text_for_log(t.url()).c_str(), e.status(), e.what());
            data.kill();
            return;
        }
        if (e.status() > 499 ||
            t._state >= HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET) {
            // A chunked body whose framing failed, or a server error: what
            // follows can't be trusted to be read to its end.
            t._bytesLeftInRequestDataChunk = 0;
            t._isLastTransaction = true;
        }
        t._prepareErrorFromHttpException(e);
        try {
            _run(data);
        } catch (const HttpException& again) {
            httplistener_log.error("Handler for %s threw an HTTP exception recursively!  %u %s",
                                   http_text_for_log(t.url()).c_str(), again.status(),
                                   again.what());
            data.kill();
        } catch (const std::exception& other) {
            httplistener_log.error("Exception while processing request from %s for %s: %s",
                                   _conn->peerText().c_str(), http_text_for_log(t.url()).c_str(),
                                   other.what());
            data.kill();
        }
    } catch (const std::exception& e) {
        httplistener_log.error("Exception while processing request from %s for %s: %s",
                               _conn->peerText().c_str(), http_text_for_log(t.url()).c_str(),
                               e.what());
        t._isLastTransaction = true;
        if (t._alreadyBuiltHeaders) {
            data.kill();
            return;
        }
        t._prepareErrorFromOtherException(e.what());
        try {
            _run(data);
        } catch (...) {
            data.kill();
        }
    } catch (...) {
        httplistener_log.error("Caught unknown exception!");
        data.kill();
    }
}

void HttpListeningConnection::_run(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    for (;;) {
        // A write on its way (asyncWriteComplete continues), or a worker due.
        if (data.hasWriteData() || data._handler != nullptr) return;
        switch (t._state) {
            case HttpServerTransaction::READING_REQUEST_HEAD:
                t._state = HttpServerTransaction::EATING_REQUEST_DATA;
                t._bytesLeftInRequestDataChunk = 0;
                try {
                    if (!t._parser.parse(data, &t._request)) {
                        t._state = HttpServerTransaction::READING_REQUEST_HEAD;
                        return;
                    }
                } catch (const HttpException&) {
                    t._isLastTransaction = true;  // the stream's framing is lost
                    throw;
                }
                _startRequest(data);
                if (data.hasWriteData()) return;
                if (t._wantsSeparateThread) {
                    t._wantsSeparateThread = false;
                    if (t._toSendState != HttpServerTransaction::TOSEND_HAS_FINAL_ITEM) {
                        _handToWorker(data, false);
                        return;
                    }
                }
                break;
            case HttpServerTransaction::EATING_REQUEST_DATA:
            case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET:
            case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_LENGTH:
            case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_EXTENSION:
            case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_DATA:
            case HttpServerTransaction::EATING_REQUEST_DATA_FOREVER:
                if (!_readBody(data)) return;
                _startReply(data);
                if (data.hasWriteData()) return;
                break;
            case HttpServerTransaction::NEED_REPLY_DATA:
                if (!t._toSendIsSet() && t._toSend.empty()) {
                    ASSERT(t.method() != HttpMethod::HEAD);
                    t._provider->getBody(&t);
                    if (t._wantsSeparateThread) {
                        t._wantsSeparateThread = false;
                        _handToWorker(data, true);
                        return;
                    }
                }
                // Nothing queued, final or not: a provider that gave nothing
                // has nothing more to give (the null provider of OPTIONS).
                t._state = t._toSend.empty() ? HttpServerTransaction::SEND_EOF_MARKER
                                             : HttpServerTransaction::SENDING_REPLY_DATA;
                break;
            case HttpServerTransaction::SENDING_REPLY_DATA:
                if (_queueBody(data)) return;
                break;
            case HttpServerTransaction::SEND_EOF_MARKER:
                if (t._chunkedState == HttpServerTransaction::CHUNKED_NONE || !t._needToSendBody) {
                    t._state = HttpServerTransaction::END_OF_TRANSACTION;
                    break;
                }
                data.writeBuffer().addReference(
                    t._chunkedState == HttpServerTransaction::CHUNKED_MIDDLE
                        ? kEndMarkerAfterChunk
                        : kEndMarkerAfterChunk + 2,
                    t._chunkedState == HttpServerTransaction::CHUNKED_MIDDLE
                        ? sizeof(kEndMarkerAfterChunk) - 1
                        : sizeof(kEndMarkerAfterChunk) - 3);
                t._chunkedState = HttpServerTransaction::CHUNKED_NONE;
                t._state = HttpServerTransaction::END_OF_TRANSACTION;
                data.startAsyncWrite();
                return;
            case HttpServerTransaction::END_OF_TRANSACTION:
                _endTransaction(data);
                if (!_transactionActive) return;
                break;
            case HttpServerTransaction::SENDING_REPLY_HEADERS:
            case HttpServerTransaction::SENT_100_CONTINUE:
                return;  // waiting for the write to complete
        }
    }
}

void HttpListeningConnection::_startRequest(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    HttpServerRequest& r = t._request;
    // 3.
    const int expects = r.headers.expects();
    if (expects == 1) {
        if (r.firstLine._version >= HTTPVERSION_1_1) t._100continue = 1;
    } else if (expects != 0) {
        t._isLastTransaction = true;  // whether a body follows is unknown
        throw HttpClientException(417);
    }
    // 4.
    _conn->_keepalive = r.supportsKeepalive();
    // 5.
    if (const HttpHeader* h = r.headers.get(HttpHeader::__qkey_content_length)) {
        long long length;
        const StrSegment v = h->value();
        if (!mem_tryToLongLong(v.data(), v.size(), &length) || length < 0) {
            t._totalBytesExpectedOfRequestData = t._bytesLeftInRequestDataChunk = 0;
            if (r.firstLine._version == HTTPVERSION_1_1 && !_conn->trustHttp11(r)) {
                r.firstLine._version = HTTPVERSION_1_0;
                t._isLastTransaction = true;
            }
            t._isLastTransaction = true;  // where the body ends is unknown
            throw HttpRequestEntityTooLargeException("Invalid Content-Length");
        }
        t._totalBytesExpectedOfRequestData = t._bytesLeftInRequestDataChunk = length;
        t._prepareToReceiveRequestData();
    }
    // 6.
    const int te = r.headers.transferEncoding();
    if (te == 2) throw HttpNotImplementedException("Unknown Transfer-Encoding");
    if (te == 1) {
        t._requestTransferEncodingIsChunked = true;
        t._state = HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET;
        t._bytesLeftInRequestDataChunk = 0;
        t._prepareToReceiveRequestData();
    }
    // 7.
    if (r.firstLine._version == HTTPVERSION_1_1 && !_conn->trustHttp11(r)) {
        r.firstLine._version = HTTPVERSION_1_0;
        t._isLastTransaction = true;
    }
    // 8.
    if (t.method() == HttpMethod::OPTIONS) {
        t._allowedMethods =
            HttpMethod(HttpMethod::GET | HttpMethod::POST | HttpMethod::HEAD | HttpMethod::OPTIONS);
        t._provider = &nullHttpReplyDataProvider;
        const StrSegment url = t.url();
        if (url.size() == 1 && url[0] == '*') {
            _listener->dispatchGlobalOptionsRequest(&t);
        } else if (!url.empty() && url[0] == '/') {
            _listener->dispatch(&t);
        } else {
            throw HttpBadRequestException("Bad OPTIONS target");
        }
        if (t._acceptor == &t._postArguments) t._acceptor = &doNothingHttpRequestDataAcceptor;
    } else {
        _listener->dispatch(&t);
    }
    // 9.
    try {
        t.requestHost();
    } catch (const HttpException&) {
        t._isLastTransaction = true;
        throw;
    }
    // 10.
    if (t._totalBytesExpectedOfRequestData > t._maximumRequestDataSize) {
        t._requestDataTooLarge(t._totalBytesExpectedOfRequestData);
    }
    // 11.
    if (t._receivingRequestDataForever && !t._requestTransferEncodingIsChunked) {
        t._state = HttpServerTransaction::EATING_REQUEST_DATA_FOREVER;
    }
    // 12.
    if (t._statusCode > 299) t.ignoreRequestData();
    // 13. The interim reply goes out only if the handler left the request standing.
    if (t._100continue == 2) {
        data.writeBuffer().addReference(kContinue, sizeof(kContinue) - 1);
        t._state = HttpServerTransaction::SENT_100_CONTINUE;
        t._100continue = 3;
        data.startAsyncWrite();
    }
}

bool HttpListeningConnection::_readBody(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    struct iovec v[2];
    switch (t._state) {
        case HttpServerTransaction::EATING_REQUEST_DATA:
            while (t._bytesLeftInRequestDataChunk > 0) {
                if (data._rbuf.dataSegments(v) == 0) return false;
                size_t used;
                const bool done = t.eatRequestData(
                    StrSegment(static_cast<const char*>(v[0].iov_base), v[0].iov_len), &used);
                data.consume(used);
                if (done) break;
            }
            return true;
        case HttpServerTransaction::EATING_REQUEST_DATA_FOREVER:
            t._needToSendBody = false;
            if (t._needToSetupRequestGunzip && t._bytesReceived == 0) t._setupRequestGunzip();
            while (data._rbuf.dataSegments(v) != 0) {
                if (file_offset_t(v[0].iov_len) > t._maximumRequestDataSize - t._bytesReceived) {
                    t._requestDataTooLarge(t._bytesReceived + file_offset_t(v[0].iov_len));
                }
                if (t._wantSavedRequestData) {
                    t._savedRequestData.append(static_cast<const char*>(v[0].iov_base),
                                               v[0].iov_len);
                }
                t._acceptor->dataAvailable(
                    StrSegment(static_cast<const char*>(v[0].iov_base), v[0].iov_len));
                t._bytesReceived += file_offset_t(v[0].iov_len);
                data.consume(v[0].iov_len);
            }
            return false;  // ends only with the connection
        default:
            for (;;) {
                if (data._rbuf.dataSegments(v) == 0) return false;
                size_t used;
                const bool done = t.eatChunkedRequestData(
                    StrSegment(static_cast<const char*>(v[0].iov_base), v[0].iov_len), &used);
                data.consume(used);
                if (done) {
                    t._state = HttpServerTransaction::EATING_REQUEST_DATA;
                    return true;
                }
            }
    }
}

void HttpListeningConnection::_startReply(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    // 19.
    t._acceptor->dataFinished();
    if (!t._startTimeSet) t._startTime.setToNow(), t._startTimeSet = true;
    t._chunkedState = HttpServerTransaction::CHUNKED_NONE;
    t._provider->getPreBody(&t);
    if (t._wantsSeparateThread) {  // 21.
        t._wantsSeparateThread = false;
        _handToWorker(data, true);
        return;
    }
    // 20.
    t._state = HttpServerTransaction::SENDING_REPLY_HEADERS;
    t._checkHttpPreconditions();
    const bool head = t._internal_prepareReplyHeaders();
    t._alreadyBuiltHeaders = true;
    _sendHead(data, head);
}

bool HttpListeningConnection::_sendHead(TcpAsyncDataBuffer& data, bool head) {
    HttpServerTransaction& t = _conn->transaction();
    if (!head) {  // HTTP/0.9: the caller's loop goes on to the body
        t.updateStateAfterHeadersSent();
        return false;
    }
    data.writeBuffer().addReference(t._headerBlock);
    // 22. A body due and ready goes out with the head.
    if (t._toSendIsSet() && t._needToSendBody && !t._toSend.empty()) {
        t.updateStateAfterHeadersSent();
        return _queueBody(data);
    }
    data.startAsyncWrite();
    return true;
}

void HttpListeningConnection::_handToWorker(TcpAsyncDataBuffer& data, bool bodyRead) {
    HttpServerTransaction& t = _conn->transaction();
    // A body still to read keeps its state: the worker reads it.
    if (bodyRead) t._state = HttpServerTransaction::END_OF_TRANSACTION;
    data.setHandler(new HttpThreadedCommunicationHandler(this));
}

bool HttpListeningConnection::spawnMoreThreads(TcpAsyncDataBuffer& data, unsigned threadCount) {
    const unsigned max = _listener->maxThreads();
    if (threadCount < max) return true;
    HttpServerTransaction& t = _conn->transaction();
    httplistener_log.warn(
        "Can't handle request for %s, max thread limit for REST HTTP server "
        "is %u, threads already in use is %u",
        http_text_for_log(t.url()).c_str(), max, threadCount);
    t._statusCode = 503;
    t._statusText =
        Str::fromFormat("Too many HTTP threads (%u) already running, try again later", threadCount);
    t._prepareErrorFromAnyException();
    _finishThreadSpawnError(data);
    return false;
}

void HttpListeningConnection::errorSpawningThread(TcpAsyncDataBuffer& data, const char* what) {
    httplistener_log.error("Error spawning thread: %s", what);
    _conn->transaction()._prepareErrorFromOtherException(what);
    _finishThreadSpawnError(data);
}

void HttpListeningConnection::_finishThreadSpawnError(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    if (t._alreadyBuiltHeaders) {
        data.kill();
        return;
    }
    if (t._state != HttpServerTransaction::END_OF_TRANSACTION) t._isLastTransaction = true;
    t._state = HttpServerTransaction::SENDING_REPLY_HEADERS;
    const bool head = t._internal_prepareReplyHeaders();
    t._alreadyBuiltHeaders = true;
    // The handler was not taken: the loop goes on once the caller returns.
    _sendHead(data, head);
}

void HttpListeningConnection::workerReturned(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    if (t._state == HttpServerTransaction::SENDING_REPLY_HEADERS) {
        // The worker built the head; the loop sends it, with a final body.
        try {
            if (!_sendHead(data, true)) _proceed(data);
        } catch (const std::exception& e) {
            httplistener_log.error("Exception while processing request from %s for %s: %s",
                                   _conn->peerText().c_str(), http_text_for_log(t.url()).c_str(),
                                   e.what());
            data.kill();
        }
        return;
    }
    _proceed(data);
}

// ---------------------------------------------------------------- on a worker

TcpChannelThreadedHandler::atr
HttpListeningConnection::HttpThreadedCommunicationHandler::communicate(TcpSyncDataBuffer& buf) {
    HttpServerTransaction& t = _c->connection().transaction();
    ASSERT(t._threadedIo == nullptr);
    struct ThreadedIoScope {
        HttpServerTransaction& t;
        ThreadedIoScope(HttpServerTransaction& tr, TcpSyncDataBuffer& b) : t(tr) {
            t._threadedIo = &b;
        }
        ~ThreadedIoScope() { t._threadedIo = nullptr; }
    } scope(t, buf);
    return _communicate(buf) ? TCPSYNCDONE_CLOSE : TCPSYNCDONE_CONTINUE;
}

// True when the connection can't be saved; false hands it back to the loop,
// which sends what is queued.
bool HttpListeningConnection::HttpThreadedCommunicationHandler::_communicate(
    TcpSyncDataBuffer& buf) {
    HttpServerTransaction& t = _c->connection().transaction();
    using T = HttpServerTransaction;
    try {
        // 1. The body, if still unread.
        if (t._state == T::EATING_REQUEST_DATA ||
            t._state >= T::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET) {
            std::unique_ptr<HttpServerTransaction::threaded_gunzip> gunzip;
            if (t._needToSetupRequestGunzip) {
                gunzip = std::make_unique<HttpServerTransaction::threaded_gunzip>(&t);
                t._needToSetupRequestGunzip = false;
            }
            struct GunzipScope {
                HttpServerTransaction& t;
                ~GunzipScope() { t._threadedGunzip = nullptr; }
            } gunzipScope{t};
            t._threadedGunzip = gunzip.get();
            try {
                t._owedConsume = 0;
                t._acceptor->threadedAcceptData(&t);
                if (t._state != T::END_OF_TRANSACTION) {
                    PortableIovecCursor rest;
                    while (t.read(&rest)) {}
                }
                ASSERT(t._state == T::END_OF_TRANSACTION);
                if (t._owedConsume != 0) {
                    buf.consume(t._owedConsume);
                    t._owedConsume = 0;
                }
                t._acceptor->dataFinished();
                t._work.clear();
            } catch (const HttpException& e) {
                buf.consume(t._owedConsume);
                t._owedConsume = 0;
                // As on the loop: a chunked body whose framing failed can't
                // be read to its end.
                if (e.status() > 499 || t._requestTransferEncodingIsChunked) {
                    t._bytesLeftInRequestDataChunk = 0;
                    t._isLastTransaction = true;
                }
                throw;
            } catch (...) {
                buf.consume(t._owedConsume);
                t._owedConsume = 0;
                t._bytesLeftInRequestDataChunk = 0;
                t._isLastTransaction = true;
                throw;
            }
        }
        // 3.
        if (!t._startTimeSet) t._startTime.setToNow(), t._startTimeSet = true;
        if (t._toSendState != T::TOSEND_HAS_FINAL_ITEM) {
            // 4.
            ASSERT(t._toSendState <= T::TOSEND_UNSET);
            if (!t._alreadyBuiltHeaders) {
                t._provider->getPreBody(&t);
                if (t._receivingRequestDataForever) {
                    ASSERT(t._isLastTransaction);
                    t._totalScheduledLength = 0;
                    return false;
                }
            }
            if (t._toSendState != T::TOSEND_HAS_FINAL_ITEM) {
                if (!t._alreadyBuiltHeaders) {
                    if (!t._checkHttpPreconditions()) throw HttpPreconditionFailedException();
                    const bool head = t._internal_prepareReplyHeaders();
                    t._alreadyBuiltHeaders = true;
                    if (!t._needToSendBody) {
                        if (head) {
                            t._state = T::SENDING_REPLY_HEADERS;
                        } else {
                            t.updateStateAfterHeadersSent();
                        }
                        return false;
                    }
                    if (head) buf.write(t._headerBlock);
                }
                // 5. Typically writes straight to the socket.
                t._provider->getBody(&t);
                if (t._toSendState == T::TOSEND_HAS_FINAL_ITEM) {
                    t._state = T::SENDING_REPLY_DATA;
                } else {
                    t._state = T::SEND_EOF_MARKER;
                }
                return false;
            }
        }
        // 6. A final item: the loop sends it.
        if (t._alreadyBuiltHeaders) {
            t._state = t._needToSendBody ? T::SENDING_REPLY_DATA : T::END_OF_TRANSACTION;
        } else {
            if (t._checkHttpPreconditions()) t._compressToSendBuffer();
            const bool head = t._internal_prepareReplyHeaders();
            t._alreadyBuiltHeaders = true;
            if (head) {
                t._state = T::SENDING_REPLY_HEADERS;
            } else {
                t.updateStateAfterHeadersSent();
            }
        }
        return false;
    } catch (const HttpException& e) {
        if (!t._alreadyBuiltHeaders) {
            t._prepareErrorFromHttpException(e);
            return false;
        }
        httplistener_log.error(
            "Handler for %s threw an HTTP exception after reply headers had "
            "already been sent!  %u %s",
            http_text_for_log(t.url()).c_str(), e.status(), e.what());
        return true;
    } catch (const TcpChannel::Error& e) {
        t._isLastTransaction = true;
        if (!(isPeerHangUp(e.socketError()) &&
              (t._expectDisconnect || t._provider->expectDisconnect()))) {
            httplistener_log.warn("Exception while processing request from %s for %s: %s",
                                  _c->connection().peerText().c_str(),
                                  http_text_for_log(t.url()).c_str(), e.what());
        }
        return true;  // the socket failed: nothing can be sent
    } catch (const std::exception& e) {
        t._isLastTransaction = true;
        httplistener_log.error("Exception while processing request from %s for %s: %s",
                               _c->connection().peerText().c_str(),
                               http_text_for_log(t.url()).c_str(), e.what());
        if (!t._alreadyBuiltHeaders) {
            t._prepareErrorFromOtherException(e.what());
            return false;
        }
        return true;
    }
}

bool HttpListeningConnection::_queueBody(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    const bool final = t._toSendState == HttpServerTransaction::TOSEND_HAS_FINAL_ITEM;
    if (!t._toSend.empty() && t._needToSendBody) {
        t._bodyBytesWritten += file_offset_t(t._toSend.size());
        if (t._chunkedState != HttpServerTransaction::CHUNKED_NONE) {
            t._chunkLine.fill(t._toSend.size(),
                              t._chunkedState == HttpServerTransaction::CHUNKED_MIDDLE);
            t._chunkedState = HttpServerTransaction::CHUNKED_MIDDLE;
            data.writeBuffer().addReference(t._chunkLine.seg().data(), t._chunkLine.seg().size());
        }
        data.writeBuffer().addReference(t._toSend);
    }
    t._state = HttpServerTransaction::SENDING_REPLY_DATA;
    if (final) {
        t._state = HttpServerTransaction::SEND_EOF_MARKER;
        if (t._chunkedState != HttpServerTransaction::CHUNKED_NONE && t._needToSendBody) {
            const bool middle = t._chunkedState == HttpServerTransaction::CHUNKED_MIDDLE;
            data.writeBuffer().addReference(
                middle ? kEndMarkerAfterChunk : kEndMarkerAfterChunk + 2,
                middle ? sizeof(kEndMarkerAfterChunk) - 1 : sizeof(kEndMarkerAfterChunk) - 3);
            t._chunkedState = HttpServerTransaction::CHUNKED_NONE;
        }
    }
    if (data.writeBuffer().empty()) {
        // Nothing to write (an empty final item): the caller's loop goes on.
        if (t._state == HttpServerTransaction::SENDING_REPLY_DATA) {
            t._toSendState = HttpServerTransaction::TOSEND_UNSET;
            t._state = HttpServerTransaction::NEED_REPLY_DATA;
        } else {
            t._state = HttpServerTransaction::END_OF_TRANSACTION;
        }
        return false;
    }
    data.startAsyncWrite();
    return true;
}

bool HttpListeningConnection::asyncWriteComplete() {
    HttpServerTransaction& t = _conn->transaction();
    t._toSend.resize(0);
    t._toSendSafe = true;
    if (_failed) return false;  // the channel is ending
    switch (t._state) {
        case HttpServerTransaction::SENDING_REPLY_DATA:
            ASSERT(t._toSendState != HttpServerTransaction::TOSEND_UNSET);
            t._toSendState = HttpServerTransaction::TOSEND_UNSET;
            t._state = HttpServerTransaction::NEED_REPLY_DATA;
            break;
        case HttpServerTransaction::SEND_EOF_MARKER:
            // The head and the whole body went in one write.
            t._state = t._chunkedState == HttpServerTransaction::CHUNKED_NONE
                           ? HttpServerTransaction::END_OF_TRANSACTION
                           : HttpServerTransaction::SEND_EOF_MARKER;
            break;
        case HttpServerTransaction::SENDING_REPLY_HEADERS:
            t.updateStateAfterHeadersSent();
            break;
        case HttpServerTransaction::SENT_100_CONTINUE:
            t._state = t._requestTransferEncodingIsChunked
                           ? HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET
                       : t._receivingRequestDataForever
                           ? HttpServerTransaction::EATING_REQUEST_DATA_FOREVER
                           : HttpServerTransaction::EATING_REQUEST_DATA;
            if (t._wantsSeparateThread) {  // honoured here too
                t._wantsSeparateThread = false;
                _handToWorker(_data, false);
                return true;
            }
            break;
        case HttpServerTransaction::END_OF_TRANSACTION:
            break;
        default:
            ASSERT(t._state == HttpServerTransaction::SENDING_REPLY_DATA);
    }
    // The exchange goes on without waiting for input: the channel calls
    // dataAvailable only when some has come.
    if (_transactionActive) _proceed(_data);
    return true;
}

void HttpListeningConnection::_endTransaction(TcpAsyncDataBuffer& data) {
    HttpServerTransaction& t = _conn->transaction();
    if (t._shouldLog) {
        if (!t._startTimeSet) t._startTime.setToNow(), t._startTimeSet = true;
        if (!t._needToSendBody) t._bodyBytesWritten = 0;
        _listener->log(&t);
    }
    const StrSegment url = t.url();
    if (t._knowCompleteLength && t._needToSendBody &&
        t._bodyBytesWritten != t._totalScheduledLength) {
        httplistener_log.error(
            "Handler for %s sent a %lld byte response after earlier claiming "
            "a Content-Length of %lld!",
            http_text_for_log(url).c_str(), (long long)t._bodyBytesWritten,
            (long long)t._totalScheduledLength);
        t._isLastTransaction = true;
    }
    if (t._bodyBytesWritten != 0 && (t._statusCode == 204 || t._statusCode == 304)) {
        httplistener_log.error(
            "Handler for %s erroneously replied with a %lld byte response "
            "with a %u status code (which implies an empty response)",
            http_text_for_log(url).c_str(), (long long)t._bodyBytesWritten, t._statusCode);
        t._isLastTransaction = true;
    }
    _transactionActive = false;
    if (t._isLastTransaction) {
        data.kill();
        return;
    }
    setTimeouts(_listener->keepaliveIdleTimeout(_listener->wellBelowConnectionLimit()),
                _listener->ioTimeout());
    t.clear();
    if (!data._rbuf.empty()) {  // a pipelined request: at once
        _transactionActive = true;
        setTimeouts(_listener->ioTimeout(), _listener->ioTimeout());
    }
}

bool HttpListeningConnection::_notifyProviders(const SocketError& err) {
    HttpServerTransaction& t = _conn->transaction();
    switch (t._state) {
        case HttpServerTransaction::READING_REQUEST_HEAD:
            return false;
        case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_NODIGIT_YET:
        case HttpServerTransaction::EATING_REQUEST_DATA_FOREVER:
            if (t._receivingRequestDataForever && isPeerHangUp(err)) {
                // The normal end of an unbounded body. This runs inside the
                // channel's error path: nothing may be thrown from here.
                try {
                    t._acceptor->dataFinished();
                    if (!t._startTimeSet) t._startTime.setToNow(), t._startTimeSet = true;
                    t._provider->getPreBody(&t);
                    t._bodyBytesWritten = 0;
                    if (t._shouldLog) _listener->log(&t);
                } catch (const std::exception& e) {
                    httplistener_log.warn("Exception at the end of the unbounded body from %s: %s",
                                          _conn->peerText().c_str(), e.what());
                }
                return true;
            }
            [[fallthrough]];
        case HttpServerTransaction::EATING_REQUEST_DATA:
        case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_LENGTH:
        case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_EXTENSION:
        case HttpServerTransaction::EATING_REQUEST_DATA_CHUNKED_DATA:
            return t._acceptor->errorHappened(err) || t._provider->errorHappened(err);
        default:
            return t._provider->errorHappened(err);
    }
}

void HttpListeningConnection::errorHappened(const SocketError& err) {
    HttpServerTransaction& t = _conn->transaction();
    _failed = true;
    const bool hangUp = isPeerHangUp(err);
    if (hangUp && (t._expectDisconnect || t._provider->expectDisconnect())) return;
    if (_alreadyLoggedTimeout || err.isTimeout()) return;
    if (_notifyProviders(err)) return;
    Str text;
    append_stringified(&text, err);
    if (_transactionActive) {
        const StrSegment url = t.url();
        if (url.empty()) {
            httplistener_log.warn("Socket error from %s: %s", _conn->peerText().c_str(),
                                  text.c_str());
        } else {
            httplistener_log.warn("Socket error from %s while accessing %s: %s",
                                  _conn->peerText().c_str(), http_text_for_log(url).c_str(),
                                  text.c_str());
        }
    } else if (hangUp) {
        if (!_haveHadTransaction) {
            httplistener_log.debug("Connection from %s didn't send us any data",
                                   _conn->peerText().c_str());
        }
    } else {
        httplistener_log.warn("Socket error from %s while idling: %s", _conn->peerText().c_str(),
                              text.c_str());
    }
}

Interval HttpListeningConnection::asyncTimeoutExpired() {
    HttpServerTransaction& t = _conn->transaction();
    const bool reading = !_transactionActive || t._isInAsyncReadingState();
    const SocketError err = reading ? socketErrorReadTimeout : socketErrorWriteTimeout;
    if (!_notifyProviders(err)) {
        if (_haveHadTransaction && !_transactionActive) {
            _listener->keepAliveConnectionWasIdleTooLong(_conn->peer(),
                                                         _listener->wellBelowConnectionLimit());
        } else if (_transactionActive) {
            Str text;
            append_stringified(&text, err);
            httplistener_log.warn("%s communicating with %s, disconnecting", text.c_str(),
                                  _conn->peerText().c_str());
        } else {
            httplistener_log.warn("Connection from %s didn't send us any data, disconnecting",
                                  _conn->peerText().c_str());
        }
    }
    _alreadyLoggedTimeout = true;
    return Interval(0);
}
