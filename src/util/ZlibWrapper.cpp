#include "util/ZlibWrapper.h"

#include <new>

ZlibException::ZlibException(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    vformat(nullptr, format, args);
    va_end(args);
}

namespace {

void checkInit(int rc, const char* what) {
    if (rc == Z_OK) return;
    if (rc == Z_MEM_ERROR) throw std::bad_alloc();
    throw ZlibException("zlib %s set-up failed: %s (zlib %s)", what, zError(rc), zlibVersion());
}

}  // namespace

void ZlibStream::initRawInflate() {
    end();
    _z = {};
    checkInit(inflateInit2(&_z, -MAX_WBITS), "inflate");
    _kind = INFLATE;
}

void ZlibStream::initRawDeflate(int level, int windowBits, int memLevel, int strategy) {
    end();
    _z = {};
    // Negative window bits ask zlib for raw deflate; a negative argument here
    // would silently mean the opposite, so it is refused.
    if (windowBits < 9 || windowBits > MAX_WBITS) {
        throw ZlibException("zlib deflate set-up failed: window bits %d not in 9..15", windowBits);
    }
    const int rc = deflateInit2(&_z, level, Z_DEFLATED, -windowBits, memLevel, strategy);
    if (rc == Z_STREAM_ERROR) {
        throw ZlibException("zlib deflate set-up failed: level %d, memory level %d, strategy %d",
                            level, memLevel, strategy);
    }
    checkInit(rc, "deflate");
    _kind = DEFLATE;
}

void ZlibStream::end() {
    if (_kind == INFLATE) inflateEnd(&_z);
    if (_kind == DEFLATE) deflateEnd(&_z);
    _kind = NONE;
}
