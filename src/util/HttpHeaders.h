#pragma once
// The text layer of HTTP: request and status lines, the header set with its
// table of well-known keys, the incremental head parsers, and the small
// values a reply renders (entity tags, modification times, Vary, cookies,
// user agents, compression algorithms).
//
// A header set is reused from request to request on a connection. A parsed
// line is moved into its header, never copied, and clear() hands the strings
// to a free list that the next request's lines are read into: a warm
// connection parses without allocating.
#include <cstdint>
#include <ctime>
#include <vector>

#include "util/HttpException.h"
#include "util/Str.h"
#include "util/StrVector.h"
#include "util/Timeval.h"

class AppendStr;
class HttpArguments;
class Pathname;
class TcpAsyncDataBuffer;
struct FileDescriptorStat;

// ---------------------------------------------------------------- methods and versions

// One bit a method, so that a set of methods is their OR.
class HttpMethod {
public:
    enum value_t : uint32_t {
        UNKNOWN = 0,
        GET = 1,
        POST = 2,
        PUT = 4,
        DELETE = 8,
        HEAD = 16,
        OPTIONS = 32,
        PATCH = 64,
    };
    constexpr HttpMethod(uint32_t v = UNKNOWN) : _v(v) {}
    constexpr uint32_t value() const { return _v; }
    constexpr operator uint32_t() const { return _v; }

    // The name of a single method; "???" for anything else.
    const char* c_str() const;
    // Exact and case-sensitive; UNKNOWN when no method has that name.
    static HttpMethod getMethodByName(const Str& name);
    // The members of the set in the order GET, POST, PUT, DELETE, HEAD,
    // OPTIONS, PATCH, joined by ",".
    void appendSetTo(AppendStr* out) const;

private:
    uint32_t _v;
};
// Any case; decided by the length first. UNKNOWN and false for no method.
bool mem_parse_into(const char* data, size_t length, HttpMethod* out);

enum http_version_t : uint8_t { HTTPVERSION_0_9 = 0, HTTPVERSION_1_0 = 1, HTTPVERSION_1_1 = 2 };
// " HTTP/0.9", " HTTP/1.0" or " HTTP/1.1": what follows the URL.
const char* http_version_suffix(http_version_t v);

// ---------------------------------------------------------------- one header

// The well-known keys.
#define TARVEX_HTTP_QUERYABLE_KEYS(X)                                   \
    X(accept, "Accept")                                                 \
    X(accept_encoding, "Accept-Encoding")                               \
    X(accept_language, "Accept-Language")                               \
    X(access_control_request_headers, "Access-Control-Request-Headers") \
    X(authorization, "Authorization")                                   \
    X(connection, "Connection")                                         \
    X(content_disposition, "Content-Disposition")                       \
    X(content_encoding, "Content-Encoding")                             \
    X(content_length, "Content-Length")                                 \
    X(content_type, "Content-Type")                                     \
    X(cookie, "Cookie")                                                 \
    X(date, "Date")                                                     \
    X(etag, "ETag")                                                     \
    X(content_md5, "Content-MD5")                                       \
    X(expect, "Expect")                                                 \
    X(front_end_https, "Front-End-Https")                               \
    X(host, "Host")                                                     \
    X(if_match, "If-Match")                                             \
    X(if_modified_since, "If-Modified-Since")                           \
    X(if_none_match, "If-None-Match")                                   \
    X(if_unmodified_since, "If-Unmodified-Since")                       \
    X(location, "Location")                                             \
    X(origin, "Origin")                                                 \
    X(referer, "Referer")                                               \
    X(tarvex_app_id, "Tarvex-App-Id")                                   \
    X(tarvex_user_id, "Tarvex-User-Id")                                 \
    X(transfer_encoding, "Transfer-Encoding")                           \
    X(uber_trace_id, "uber-trace-id")                                   \
    X(user_agent, "User-Agent")                                         \
    X(x_b3_traceid, "x-b3-traceid")                                     \
    X(x_b3_parentspanid, "x-b3-parentspanid")                           \
    X(x_b3_sampled, "x-b3-sampled")                                     \
    X(x_b3_spanid, "x-b3-spanid")                                       \
    X(x_client_trace_id, "x-client-trace-id")                           \
    X(x_forwarded_for, "X-Forwarded-For")                               \
    X(x_forwarded_host, "X-Forwarded-Host")                             \
    X(x_forwarded_port, "X-Forwarded-Port")                             \
    X(x_forwarded_proto, "X-Forwarded-Proto")                           \
    X(x_forwarded_protocol, "X-Forwarded-Protocol")                     \
    X(x_forwarded_ssl, "X-Forwarded-Ssl")                               \
    X(x_request_id, "X-Request-Id")                                     \
    X(x_requested_with, "X-Requested-With")                             \
    X(x_url_scheme, "X-Url-Scheme")                                     \
    X(x_last_modified, "Last-Modified")

#define TARVEX_HTTP_PREDEFINED_KEYS(X)      \
    X(accept_charset, "Accept-Charset")     \
    X(allow, "Allow")                       \
    X(cache_control, "Cache-Control")       \
    X(content_language, "Content-Language") \
    X(expires, "Expires")                   \
    X(pragma, "Pragma")                     \
    X(server, "Server")                     \
    X(set_cookie, "Set-Cookie")             \
    X(vary, "Vary")                         \
    X(www_authenticate, "WWW-Authenticate") \
    X(range, "Range")

class HttpHeader {
public:
    static constexpr unsigned MAX_QUERYABLE_KEYS = 73;

    // A key that can be added to a header set.
    struct predefined_key {
        constexpr predefined_key(const char* text, unsigned length) : text(text), length(length) {}
        const char* text;
        unsigned length;
        // Which of the queryable slots; -1 for a key that is never looked up.
        int slot = -1;
    };
    // A key that can also be looked up: it owns a slot in every header set.
    // Made only during process start; a 74th, or a second key with the same
    // hash, aborts.
    struct queryable_key : predefined_key {
        queryable_key(const char* text, unsigned length);
        uint64_t hash;  // djb2 of the text, letters folded to lower case
    };

    HttpHeader() = default;
    HttpHeader(const HttpHeader& o) : _s(o._s), _valueOffset(o._valueOffset), _pkey(o._pkey) {}
    HttpHeader(HttpHeader&& o) noexcept = default;
    HttpHeader& operator=(const HttpHeader& o) {
        _s = o._s, _valueOffset = o._valueOffset, _pkey = o._pkey, _next = 0;
        return *this;
    }
    HttpHeader& operator=(HttpHeader&&) noexcept = default;

    StrSegment value() const {
        return StrSegment(_s.data() + _valueOffset, _s.size() - _valueOffset);
    }
    // The whole line of a parsed header ("Key: value"); the value alone for
    // one added by code.
    const Str& str() const { return _s; }
    const predefined_key* pkey() const { return _pkey; }
    // The known key's text; else the line up to the value, without the ":"
    // and the blanks before it.
    void key(StrSegment* out) const;
    StrSegment key() const {
        StrSegment k;
        key(&k);
        return k;
    }
    // An HTTP date in any of its three forms; a valid start is enough.
    bool parseTimeInto(Timeval* out) const;
    // Date, Server, ETag, Expires, Cache-Control, Vary and Connection.
    bool keepHeaderFor304NotModified() const;

    // One "key=value" parameter of a ";" list, taken off the front of `in`:
    // false at the end, or for a parameter without "=" or with an empty key.
    static bool getHeaderKeyValue(StrSegment* in, StrSegment* key, StrSegment* value);

#define TARVEX_DECLARE_QKEY(member, text) static const queryable_key __qkey_##member;
#define TARVEX_DECLARE_PKEY(member, text) static const predefined_key __pkey_##member;
    TARVEX_HTTP_QUERYABLE_KEYS(TARVEX_DECLARE_QKEY)
    TARVEX_HTTP_PREDEFINED_KEYS(TARVEX_DECLARE_PKEY)
#undef TARVEX_DECLARE_QKEY
#undef TARVEX_DECLARE_PKEY

private:
    friend class HttpHeaders;
    Str _s;
    uint32_t _valueOffset = 0;
    const predefined_key* _pkey = nullptr;
    uint32_t _next = 0;  // the next header with this key; 0 ends the chain
};

// ---------------------------------------------------------------- small values

// One byte of flags: which compression algorithms; the top bit marks one that
// isn't recognised, or a value naming more than one.
class HttpCompressionAlgorithm {
public:
    static constexpr uint8_t FLAG_GZIP = 1;
    static constexpr uint8_t FLAG_BROTLI = 2;
    static constexpr uint8_t FLAG_ZSTD = 4;
    static constexpr uint8_t FLAG_UNKNOWN = 0x80;

    constexpr HttpCompressionAlgorithm(uint8_t flags = 0) : _flags(flags) {}
    constexpr uint8_t flags() const { return _flags; }
    constexpr bool has(uint8_t flag) const { return (_flags & flag) != 0; }

    // "Accept-Encoding: gzip, br, zstd\r\n" for the flags set (at least one).
    void _appendAcceptEncodingHeaderTo(AppendStr* out) const;
    // "Content-Encoding: gzip\r\n" and the like; exactly one known flag.
    void _appendContentEncodingHeaderTo(AppendStr* out) const;

    friend bool operator==(HttpCompressionAlgorithm, HttpCompressionAlgorithm) = default;

private:
    uint8_t _flags;
};
// "identity" for none, "?" with the top bit, else "gzip", "br", "zstd" joined by ",".
void append_stringified(Str* out, HttpCompressionAlgorithm a);

// A ready-to-send "ETag: ..." line.
class HttpEtagValue {
public:
    bool valid() const { return !_line.empty(); }
    void clear() { _line.clear(), _fromStat = false; }
    void set(StrSegment value, bool weak);
    // From a file's modification time, inode and size.
    void set(const FileDescriptorStat& st, bool weak);
    // The text between the quotes.
    StrSegment getValue() const;
    bool isWeak() const;
    bool fromStat() const { return _fromStat; }
    // The whole line, "\r\n" included.
    const Str& line() const { return _line; }
    void render(AppendStr* out) const;
    // The line as a weak tag, whatever it is.
    void renderForceWeak(AppendStr* out) const;

private:
    Str _line;
    bool _fromStat = false;
};

// A ready-to-send "Last-Modified: <RFC 1123 date>\r\n" line.
class HttpLastModifiedValue {
public:
    bool valid() const { return _valid; }
    void clear() { _valid = false, _time = Timeval::max(); }
    // False (and not valid) for a time whose date has no four-digit year.
    bool set(const Timeval& t);
    const Timeval& time() const { return _time; }
    StrSegment line() const { return StrSegment(_header, sizeof(_header)); }
    // The 29 bytes of the date.
    StrSegment date() const { return StrSegment(_header + 15, 29); }
    void _setHeader(time_t t);

private:
    Timeval _time = Timeval::max();
    char _header[46] = {};
    bool _valid = false;
};
// The date, or "?" when no time is set.
void append_stringified(Str* out, const HttpLastModifiedValue& v);

// The request headers a reply varies on, as bits.
class HttpVaryHeaderValue {
public:
    static constexpr uint32_t VARY_ANY = 1;
    struct entry {
        uint32_t bit;
        const char* name;
    };
    // Accept-Encoding, Accept-Language, Cookie, Authorization, User-Agent, Origin.
    static const entry vary_table[6];

    // Each comma-separated name; an unknown one makes it "*".
    void _add(const char* text, size_t length);
    void add(StrSegment names) { _add(names.data(), names.size()); }
    bool empty() const { return _bitmask == 0; }
    void clear() { _bitmask = 0; }
    // "*", or the names joined by ", ". Not for an empty value.
    void appendTo(AppendStr* out) const;

    uint32_t _bitmask = 0;
};

class HttpCookie {
public:
    enum same_site_t : int { SAMESITE_UNSET = 0, SAMESITE_LAX = 1, SAMESITE_NONE = 3 };
    Str name, value, domain, path;
    bool httpOnly = false;
    bool secure = false;
    bool hasLifetime = false;
    long lifetimeSeconds = 0;       // negative: expire now; zero: a session cookie
    int sameSite = SAMESITE_UNSET;  // any other value writes a bare "SameSite"
};

class HttpUserAgent {
public:
    enum user_agent_t : uint8_t {
        USER_AGENT_UNKNOWN = 0,
        USER_AGENT_FIREFOX = 1,
        USER_AGENT_CHROME = 2,
        USER_AGENT_SAFARI = 3,
        USER_AGENT_IE = 4,
        USER_AGENT_IOS = 5,
        USER_AGENT_OPERA = 6,
    };
    static const char* e_as_str(user_agent_t e);
    // Internet Explorer before version 7.
    bool isIE6() const;

    user_agent_t _e = USER_AGENT_UNKNOWN;
    StrSegment _version;  // into the header it came from
};
// False, and unknown, when no browser is recognised.
bool mem_parse_into(const char* data, size_t length, HttpUserAgent* out);
// The name, and a blank and the version when there is one.
void append_stringified(Str* out, const HttpUserAgent& ua);

// ---------------------------------------------------------------- the header set

class HttpHeaders {
public:
    typedef std::vector<HttpHeader>::const_iterator const_iterator;

    HttpHeaders() { _resetSlots(); }

    size_t size() const { return _h.size(); }
    bool empty() const { return _h.empty(); }
    const_iterator begin() const { return _h.begin(); }
    const_iterator end() const { return _h.end(); }
    const HttpHeader& operator[](size_t i) const { return _h[i]; }

    // --- adding
    // Appends; the value's string is swapped in.
    void addDestructive(const HttpHeader::predefined_key& key, Str& value);
    // The same, and the header joins its key's chain.
    void addDestructive(const HttpHeader::queryable_key& key, Str& value);
    // Replaces the value of the first header with the key (later ones stay),
    // or adds one.
    void setDestructive(const HttpHeader::queryable_key& key, Str& value);
    // A copy, found by no lookup.
    void add(const HttpHeader& h);
    void addFormat(const HttpHeader::predefined_key& key, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // RFC 1123 in GMT; nothing for a time that can't be broken down.
    void addTime(const HttpHeader::predefined_key& key, const Timeval& t);
    // "WWW-Authenticate: Basic realm=..."
    void requestBasicAuth(const Str& realm);
    static Str requestBasicAuthWithoutHeader(const Str& realm);
    void setBasicAuthentication(const Str& user, const Str& password);
    void addBasicAuthentication(const Str& user, const Str& password);
    // Checks the cookie (HttpInternalErrorException) and adds its Set-Cookie.
    void addCookie(const HttpCookie& cookie);
    // A whole "Key: value" line taken over from elsewhere, the value at
    // `valueOffset`; found by no lookup. The string is swapped in.
    void _addRawLine(Str& line, uint32_t valueOffset);
    // Lookups of the key find nothing from here on; the headers stay.
    void _forgetKey(const HttpHeader::queryable_key& key);
    // One received line. The bytes taken, 0 at the end of the head; a
    // malformed line throws HttpBadRequestException.
    size_t addParsedHeaderLine(Str* line, StrVector* freeList);
    // The same for a line still in the receive buffer: its bytes are copied
    // into a string from the free list.
    size_t _addParsedHeaderBytes(const char* data, size_t length, StrVector* freeList);
    // Empties the set, keeping the strings' capacity in `freeList`.
    void clear(StrVector* freeList);
    void clear() { clear(nullptr); }

    // --- reading
    // Each header as received (control characters dropped) or as added.
    void appendTo(AppendStr* out) const;
    // The first header with the key, or end().
    const_iterator find(const HttpHeader::queryable_key& key) const {
        const uint32_t first = _slots[key.slot].first;
        return first == NONE ? end() : _h.begin() + first;
    }
    const HttpHeader* get(const HttpHeader::queryable_key& key) const {
        const uint32_t first = _slots[key.slot].first;
        return first == NONE ? nullptr : &_h[first];
    }
    bool has(const HttpHeader::queryable_key& key) const { return _slots[key.slot].first != NONE; }
    // Moves to the next header with the same key, or end().
    void getNextWithKey(const_iterator* it) const;

    // 0 "close", 1 "Keep-Alive", 2 neither ("close" wins).
    int hasKeepalive() const;
    HttpCompressionAlgorithm acceptEncoding() const;
    HttpCompressionAlgorithm contentEncoding() const;
    // 0 none, 1 chunked, 2 anything this server can't read.
    int transferEncoding() const;
    // 0 none, 1 "100-continue", 2 something else.
    int expects() const;
    // The boundary of a multipart/form-data body; false for another type.
    bool getMultipartBoundary(StrSegment* boundary) const;
    bool isAjax() const;
    bool isFormUrlEncoded() const;
    bool isJson() const;
    bool getBasicAuthenticationCredentials(Str* user, Str* password) const;
    HttpUserAgent userAgent() const;
    bool getContentDispositionFilename(Pathname* out) const;

    class const_cookie_iterator {
    public:
        explicit const_cookie_iterator(const HttpHeaders& h);
        // The next name and value of all Cookie headers; false at the end.
        bool getNext(StrSegment* name, StrSegment* value);

    private:
        const HttpHeaders& _headers;
        const_iterator _it;
        StrSegment _rest;
    };

    // --- preconditions: 200 go on, 304 not modified, 412 failed
    http_status_code_t checkIfClientWantsBodyWithModtime(time_t mtime) const;
    http_status_code_t checkEtagFiltering(const HttpEtagValue& etag) const;
    http_status_code_t checkPreconditions(const HttpLastModifiedValue& lastModified,
                                          const HttpEtagValue* etagp) const;
    // As checkPreconditions before all validators are known: 0 when it
    // can't tell yet.
    http_status_code_t checkPreconditionsSoFar(const HttpLastModifiedValue& lastModified,
                                               const HttpEtagValue* etagp) const;
    // Whether a PUT may go on.
    bool verifyPutPreconditions(bool exists, const Timeval* mtime, const Str& etag) const;

    // --- reply header stripping; lookups find nothing afterwards
    void stripHeadersFor304NotModified();
    void stripHeadersFor303SeeOther();

private:
    static constexpr uint32_t NONE = ~uint32_t(0);
    static constexpr size_t MAX_RECYCLED_CAPACITY = 8192;
    enum line_kind_t { LINE_END, LINE_CONTINUATION, LINE_HEADER };
    // Checks a line and starts its header (or extends the previous one).
    line_kind_t _takeParsedLine(const char* data, size_t length);
    struct slot {
        uint32_t first, last;
    };
    void _resetSlots();
    void _link(const HttpHeader::queryable_key& key, uint32_t index);
    bool _contentTypeIs(const char* type) const;
    bool _anyEtagMatches(const HttpHeader::queryable_key& key, StrSegment value, bool exists,
                         bool wildcardNeedsExisting) const;

    std::vector<HttpHeader> _h;
    bool _slotsInUse = false;  // some slot is set: clear() must reset them
    slot _slots[HttpHeader::MAX_QUERYABLE_KEYS];
};

// ---------------------------------------------------------------- token helpers

// The next token of a `sep`-separated list: blanks, tabs and separators
// skipped; a quoted token runs to the next quote (false for an unclosed one);
// others to the separator, trailing blanks trimmed. False at the end.
bool get_next_token(StrSegment& rest, StrSegment* out, char sep);

enum etag_entry_t { ETAG_END = 0, ETAG_VALUE = 1, ETAG_WILDCARD = 2 };
// The next entry of an If-Match or If-None-Match list; "W/" is dropped.
etag_entry_t parse_next_matching_etag_value(StrSegment& rest, StrSegment* value);

// For logs: printable ASCII stays ("\\" and "\"" escaped), CR, LF and tab as
// "\r", "\n", "\t", other bytes as "\xhh".
void print_http_header_value_with_escaping(Str* out, const char* data, size_t length);
// HTTP's caseless comparison of a token: ASCII letters only.
bool http_equals_caseless(StrSegment s, const char* z);
// An HTTP date in any of its three forms (RFC 1123, RFC 1036, asctime) in
// GMT; the longest valid start counts, so trailing rubbish is allowed.
bool http_parse_date(StrSegment text, Timeval* out);

// The same as a new string: request text a log line quotes.
inline Str http_text_for_log(StrSegment s) {
    Str out;
    print_http_header_value_with_escaping(&out, s.data(), s.size());
    return out;
}

// ---------------------------------------------------------------- first lines

class HttpServerRequestFirstLine {
public:
    // Takes the line (swapped in) apart. HttpBadRequestException for a line
    // without URL, or a 0.9 request that isn't GET; HttpServerException 505
    // for a version this server doesn't speak.
    void setDestructive(Str& line);
    void clear();

    // Drops the first path element: "/api/v1/x" becomes "/v1/x".
    void removeFirstUrlElement();
    // Path up to ";" or "?", params behind ";" up to "?", query behind "?".
    void urlPieces(StrSegment* path, StrSegment* params, StrSegment* query) const;
    // The same, params and query parsed; false at the first that fails.
    bool urlPieces(StrSegment* path, HttpArguments* params, HttpArguments* query) const;

    // What the parser leaves behind a line it can't use, so that an error
    // reply can still be built.
    void _setForError(bool urlSlash);

    Str _raw;
    HttpMethod _method;
    http_version_t _version = HTTPVERSION_0_9;
    StrSegment _url;
};
// "GET /url HTTP/1.1"
void append_stringified(Str* out, const HttpServerRequestFirstLine& l);

// An "HTTP/x.y" token: the version it names, or false to ignore it.
// HttpServerException 505 for HTTP/2 and later.
bool interpret_version_token(StrSegment token, http_version_t* out);

class HttpServerRequest {
public:
    // "close" no, "Keep-Alive" yes; neither: yes from HTTP/1.1 on.
    bool supportsKeepalive() const;
    void clear(StrVector* freeList);

    HttpServerRequestFirstLine firstLine;
    HttpHeaders headers;
};

class HttpClientResponseFirstLine {
public:
    void setDestructive(Str& line);
    void clear();

    Str _raw;
    http_version_t _version = HTTPVERSION_0_9;
    unsigned _status = 0;
    StrSegment _description;
};
// The line, or "Uninitialized HttpClientResponse structure".
void append_stringified(Str* out, const HttpClientResponseFirstLine& l);

class HttpClientResponse {
public:
    bool supportsKeepalive() const;
    void clear(StrVector* freeList);

    HttpClientResponseFirstLine firstLine;
    HttpHeaders headers;
};

// ---------------------------------------------------------------- parsers

// The state both head parsers share.
class HttpHeaderParserHelper {
public:
    static constexpr size_t MAX_HEAD_SIZE = 512000;
    static constexpr unsigned MAX_EMPTY_LINES = 100;
    static constexpr size_t MAX_HEADER_LINES = 200;

    enum state_t : uint8_t {
        STATE_FIRST_LINE = 0,
        STATE_HEADERS = 1,
        STATE_OVERSIZE = 2,
        STATE_OVERSIZE_CR = 3,
        STATE_OVERSIZE_LINE_START = 4,
        STATE_OVERSIZE_LINE_START_CR = 5,
    };
    // Ready for the next head; the free list stays.
    void clear();
    StrVector& freeList() { return _freeList; }
    size_t headSize() const { return _size; }

protected:
    void _startOversize();
    // Walks discarded bytes: true at the head's end, with `in` left at the
    // final LF; otherwise `in` is emptied.
    bool _throwAwayOversize(StrSegment* in);

    state_t _state = STATE_FIRST_LINE;
    size_t _size = 0;
    Str _line;
    StrVector _freeList;
    bool _firstLineOverflowed = false;
};

class HttpServerRequestParser : public HttpHeaderParserHelper {
public:
    // Consumes the head from the receive ring: true once it is complete,
    // false while more bytes are needed. Nothing past the head is consumed.
    bool parse(TcpAsyncDataBuffer& buffer, HttpServerRequest* request);
};

class HttpClientResponseParser : public HttpHeaderParserHelper {
public:
    // The same over a segment that it advances.
    bool parse(StrSegment* in, HttpClientResponse* response);
};
