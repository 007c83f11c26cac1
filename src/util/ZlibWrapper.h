#pragma once
// zlib's stream object, owned: set up for raw deflate or raw inflate (the
// gzip framing is ours), ended on destruction. This is the one place that
// calls zlib's set-up functions.

#include <zlib.h>

#include "util/Str.h"

// zlib refused what it was asked to do: settings out of range, or a library
// version that doesn't match the headers.
class ZlibException : public BaseException {
public:
    explicit ZlibException(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
};

class ZlibStream {
public:
    ZlibStream() = default;
    ZlibStream(const ZlibStream&) = delete;
    ZlibStream& operator=(const ZlibStream&) = delete;
    ~ZlibStream() { end(); }

    // Raw inflate with the largest window, which reads what any deflate
    // setting writes. Out of memory throws std::bad_alloc.
    void initRawInflate();
    // Raw deflate; `windowBits` is 9..15 as for a zlib or gzip stream. Bad
    // settings throw ZlibException, out of memory std::bad_alloc.
    void initRawDeflate(int level, int windowBits, int memLevel, int strategy);
    // Frees zlib's state; the object may be set up again.
    void end();

    bool isInflate() const { return _kind == INFLATE; }
    bool isDeflate() const { return _kind == DEFLATE; }

    z_stream& z() { return _z; }
    z_stream* operator->() { return &_z; }

private:
    enum Kind { NONE, INFLATE, DEFLATE };
    z_stream _z = {};
    Kind _kind = NONE;
};
