#include "util/HttpCompression.h"

#include <cerrno>

#include "libzero/assertion.h"

HttpServerRequestDataGunzipHelper::HttpServerRequestDataGunzipHelper(HttpServerTransaction* trans)
    : _trans(trans), _gzip(_zlib) {
    _zlib.initRawInflate();
}

HttpServerRequestDataGunzipHelper::~HttpServerRequestDataGunzipHelper() = default;

void HttpServerRequestDataGunzipHelper::_gotData(const char* data, size_t size) {
    _outputBytes += size;
    // The limit holds for the inflated body too: a small bomb is refused.
    if (file_offset_t(_outputBytes) > _trans->_maximumRequestDataSize) {
        _trans->_requestDataTooLarge(file_offset_t(_outputBytes));
    }
    takeUncompressedData(data, size);
}

void HttpServerRequestDataGunzipHelper::provideCompressedData(const char* data, size_t size) {
    z_stream& z = _zlib.z();
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    z.avail_in = uInt(size);
    char out[32768];
    for (;;) {
        z.next_out = reinterpret_cast<Bytef*>(out);
        z.avail_out = sizeof(out);
        const bool inHeader = _gzip.headerState() != DecompressingGzipStream::HEADER_COMPLETE;
        const int r = _gzip.decompress();
        const size_t produced = sizeof(out) - z.avail_out;
        if (produced != 0) _gotData(out, produced);
        if (r < 0) {
            const bool header =
                inHeader || _gzip.headerState() != DecompressingGzipStream::HEADER_COMPLETE;
            throw HttpBadRequestException(header ? "Unparsable gzip header in request data"
                                                 : "Gzip format error in request data");
        }
        if (z.avail_in == 0 && z.avail_out != 0) break;
    }
}

void HttpServerRequestDataGunzipHelper::verifyInGroundState() const {
    if (!_gzip.atMemberBoundary()) throw HttpBadRequestException("Truncated gzip data in request");
}

GunzipHttpRequestData::GunzipHttpRequestData(HttpServerTransaction* trans,
                                             HttpRequestDataAcceptor* real, bool claimed)
    : _real(real), _owned(claimed), _decompressor(trans, real) {}

GunzipHttpRequestData::~GunzipHttpRequestData() {
    if (_owned) delete _real;
}

void GunzipHttpRequestData::dataAvailable(const StrSegment& data) {
    _decompressor.provideCompressedData(data.data(), data.size());
}

void GunzipHttpRequestData::dataFinished() {
    _decompressor.verifyInGroundState();
    _real->dataFinished();
}

bool GunzipHttpRequestData::errorHappened(const SocketError& err) {
    return _real->errorHappened(err);
}

void GunzipHttpRequestData::decompressor::takeUncompressedData(const char* data, size_t size) {
    _real->dataAvailable(StrSegment(data, size));
}

void HttpServerTransaction::threaded_gunzip::takeUncompressedData(const char* data, size_t size) {
    _t->_work.append(data, size);
}
