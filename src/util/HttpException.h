#pragma once
// The HTTP exception tree: each exception carries the status of the reply
// that reports it, so a parser or a handler can throw and the transaction
// still answers properly.
#include "util/Str.h"

typedef unsigned http_status_code_t;

// The status for an errno of a failed file or system operation: 403 for
// permissions, 404 for what isn't there, 414 for names too long, 500 for the
// server's own trouble, 400 otherwise (also outside 1 to 40).
http_status_code_t http_status_code_from_portable_errno(int err);

class HttpException : public BaseException {
public:
    // A status outside 100 to 599 is a programming error.
    explicit HttpException(http_status_code_t status);
    HttpException(http_status_code_t status, const Str& message);
    HttpException(http_status_code_t status, Str&& message);
    HttpException(http_status_code_t status, const char* message);

    http_status_code_t status() const { return _status; }
    // Where a redirect points; null for every other exception.
    virtual const Str* redirectDest() const { return nullptr; }

protected:
    http_status_code_t _status;
};

// The client's fault.
class HttpClientException : public HttpException {
public:
    using HttpException::HttpException;
};

class HttpServerException : public HttpException {
public:
    using HttpException::HttpException;
};

#define TARVEX_HTTP_FIXED_STATUS_EXCEPTION(name, base, code)                      \
    class name : public base {                                                    \
    public:                                                                       \
        name() : base(code) {}                                                    \
        explicit name(const Str& message) : base(code, message) {}                \
        explicit name(Str&& message) : base(code, static_cast<Str&&>(message)) {} \
        explicit name(const char* message) : base(code, message) {}               \
    }

TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpBadRequestException, HttpClientException, 400);
TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpPreconditionFailedException, HttpClientException, 412);
TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpRequestEntityTooLargeException, HttpClientException, 413);
TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpRequestUriTooLongException, HttpClientException, 414);
// A malformed chunked body is answered as an oversized one.
TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpChunkedProtocolException, HttpClientException, 413);
TARVEX_HTTP_FIXED_STATUS_EXCEPTION(HttpInternalErrorException, HttpServerException, 500);
#undef TARVEX_HTTP_FIXED_STATUS_EXCEPTION

class HttpNotImplementedException : public HttpServerException {
public:
    HttpNotImplementedException() : HttpServerException(501, "Method not implemented") {}
    explicit HttpNotImplementedException(const Str& message) : HttpServerException(501, message) {}
    explicit HttpNotImplementedException(const char* message) : HttpServerException(501, message) {}
};

// A 3xx reply to `dest`; any other status is a programming error.
class HttpGenericRedirectException : public HttpException {
public:
    HttpGenericRedirectException(http_status_code_t status, const Str& dest);
    const Str* redirectDest() const override { return &_dest; }

private:
    Str _dest;
};

// "<text>: <strerror(errno)>", with the status errno calls for. errno is read
// at the call.
class HttpExceptionFromErrno : public HttpException {
public:
    explicit HttpExceptionFromErrno(const char* text);
    HttpExceptionFromErrno(int err, const char* text);

private:
    void _format(int err, const char* format, ...) __attribute__((format(printf, 3, 4)));
};
