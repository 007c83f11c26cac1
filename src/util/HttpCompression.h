#pragma once
// Gzip on the request side of the HTTP exchange: a request body sent with
// "Content-Encoding: gzip" is inflated on its way to the acceptor, and the
// request size limit applies to what it inflates to.
#include <cstddef>

#include "util/GzipStream.h"
#include "util/HttpListener.h"
#include "util/ZlibWrapper.h"

// Inflates gzip members (concatenated ones too) as bytes arrive.
class HttpServerRequestDataGunzipHelper {
public:
    explicit HttpServerRequestDataGunzipHelper(HttpServerTransaction* trans);
    virtual ~HttpServerRequestDataGunzipHelper();
    HttpServerRequestDataGunzipHelper(const HttpServerRequestDataGunzipHelper&) = delete;
    HttpServerRequestDataGunzipHelper& operator=(const HttpServerRequestDataGunzipHelper&) = delete;

    // HttpBadRequestException for bytes that are not gzip; the request
    // limit's 413 when the inflated body grows past it.
    void provideCompressedData(const char* data, size_t size);
    // A body that stops inside a member is 400.
    void verifyInGroundState() const;
    uint64_t uncompressedBytes() const { return _outputBytes; }

protected:
    virtual void takeUncompressedData(const char* data, size_t size) = 0;

private:
    void _gotData(const char* data, size_t size);

    HttpServerTransaction* _trans;
    ZlibStream _zlib;
    DecompressingGzipStream _gzip;
    uint64_t _outputBytes = 0;
};

// Wraps the real acceptor: what it gets is inflated.
class GunzipHttpRequestData : public HttpRequestDataAcceptor {
public:
    // Owns `real` when `claimed`.
    GunzipHttpRequestData(HttpServerTransaction* trans, HttpRequestDataAcceptor* real,
                          bool claimed);
    ~GunzipHttpRequestData() override;

    void dataAvailable(const StrSegment& data) override;
    void dataFinished() override;
    bool errorHappened(const SocketError& err) override;

    class decompressor : public HttpServerRequestDataGunzipHelper {
    public:
        decompressor(HttpServerTransaction* trans, HttpRequestDataAcceptor* real)
            : HttpServerRequestDataGunzipHelper(trans), _real(real) {}

    protected:
        void takeUncompressedData(const char* data, size_t size) override;

    private:
        HttpRequestDataAcceptor* _real;
    };

private:
    HttpRequestDataAcceptor* _real;
    bool _owned;
    decompressor _decompressor;
};

// On a worker: what a threaded read inflates goes to the transaction's work
// buffer, and is handed out from there.
class HttpServerTransaction::threaded_gunzip : public HttpServerRequestDataGunzipHelper {
public:
    explicit threaded_gunzip(HttpServerTransaction* trans)
        : HttpServerRequestDataGunzipHelper(trans), _t(trans) {}

protected:
    void takeUncompressedData(const char* data, size_t size) override;

private:
    HttpServerTransaction* _t;
};
