// The gzip stream reader on arbitrary bytes: it must end, and how the input
// is cut into reads must not change what comes out.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "util/GzipStream.h"

namespace {

class PieceReader : public ReadableGzipStream {
public:
    PieceReader(const uint8_t* data, size_t size, size_t piece)
        : ReadableGzipStream(64), _data(data), _size(size), _piece(piece) {}

protected:
    ssize_t read_stream(void* buf, size_t size, Interval) override {
        const size_t n = std::min({size, _piece, _size - _pos});
        memcpy(buf, _data + _pos, n);
        _pos += n;
        return static_cast<ssize_t>(n);
    }

private:
    const uint8_t* _data;
    size_t _size, _piece, _pos = 0;
};

struct Outcome {
    std::string text;
    ssize_t last;
};

Outcome readAll(const uint8_t* data, size_t size, size_t piece, size_t chunk) {
    PieceReader in(data, size, piece);
    Outcome o;
    char buf[256];
    // Each successful read takes at least one byte of output, and output is
    // bounded by what inflate can make of the input: the loop ends.
    while ((o.last = in.read(buf, chunk)) > 0) {
        FUZZ_CHECK(static_cast<size_t>(o.last) <= chunk);
        o.text.append(buf, static_cast<size_t>(o.last));
        FUZZ_CHECK(o.text.size() < (size + 1) * 1100);  // deflate expands at most 1032:1
    }
    FUZZ_CHECK(o.last == 0 || (o.last == -1 && errno == ENOEXEC));
    return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t piece = data[0] % 17 + 1;
    const size_t chunk = data[1] % 255 + 1;
    data += 2;
    size -= 2;
    const Outcome whole = readAll(data, size, SIZE_MAX, chunk);
    const Outcome pieces = readAll(data, size, piece, chunk);
    FUZZ_CHECK(whole.last == pieces.last);
    if (whole.last == 0) FUZZ_CHECK(whole.text == pieces.text);
    return 0;
}
