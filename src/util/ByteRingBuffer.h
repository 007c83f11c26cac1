#pragma once
// A ring of bytes held inside its owner, so that reading and writing a
// connection never allocates. The positions run on as 64-bit counters and
// are taken modulo the size: their difference is the fill, and a full ring
// is told from an empty one without a spare byte.
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

template <size_t SIZE>
class ByteRingBuffer {
    static_assert(SIZE >= 2 && (SIZE & (SIZE - 1)) == 0, "the size is a power of two");

public:
    static constexpr size_t capacity() { return SIZE; }

    size_t bytesAvailable() const { return size_t(_writePos - _readPos); }
    size_t spaceAvailable() const { return SIZE - bytesAvailable(); }
    bool empty() const { return _writePos == _readPos; }
    bool full() const { return bytesAvailable() == SIZE; }
    uint64_t readPosition() const { return _readPos; }
    uint64_t writePosition() const { return _writePos; }
    // Both positions back to the start: everything buffered is dropped.
    void reset() { _readPos = _writePos = 0; }

    // Up to two pieces each, in order; the count of pieces.
    unsigned dataSegments(struct iovec v[2]) const {
        return segments(v, _readPos, bytesAvailable(), const_cast<char*>(_buf));
    }
    unsigned freeSegments(struct iovec v[2]) {
        return segments(v, _writePos, spaceAvailable(), _buf);
    }

    // Copies in as much as fits: the count.
    size_t write(const void* data, size_t length) {
        struct iovec v[2];
        const unsigned n = freeSegments(v);
        const char* p = static_cast<const char*>(data);
        size_t done = 0;
        for (unsigned i = 0; i < n && done < length; i++) {
            const size_t take = length - done < v[i].iov_len ? length - done : v[i].iov_len;
            memcpy(v[i].iov_base, p + done, take);
            done += take;
        }
        _writePos += done;
        return done;
    }
    // Copies out without consuming: the count.
    size_t peek(void* dest, size_t length) const {
        struct iovec v[2];
        const unsigned n = dataSegments(v);
        char* p = static_cast<char*>(dest);
        size_t done = 0;
        for (unsigned i = 0; i < n && done < length; i++) {
            const size_t take = length - done < v[i].iov_len ? length - done : v[i].iov_len;
            memcpy(p + done, v[i].iov_base, take);
            done += take;
        }
        return done;
    }
    size_t read(void* dest, size_t length) {
        const size_t n = peek(dest, length);
        _readPos += n;
        return n;
    }
    // At most what is there.
    void consume(size_t length) {
        _readPos += length < bytesAvailable() ? length : bytesAvailable();
    }
    // The offset of the first `c` from the read position, or -1.
    ptrdiff_t find(char c) const {
        struct iovec v[2];
        const unsigned n = dataSegments(v);
        size_t before = 0;
        for (unsigned i = 0; i < n; i++) {
            const void* hit = memchr(v[i].iov_base, c, v[i].iov_len);
            if (hit != nullptr) {
                return ptrdiff_t(before + size_t(static_cast<const char*>(hit) -
                                                 static_cast<const char*>(v[i].iov_base)));
            }
            before += v[i].iov_len;
        }
        return -1;
    }

    // Takes one line off the front into `accumulated`, without its LF and
    // without a CR right before it, also one that ended an earlier call's
    // bytes. True when the line ended; otherwise everything buffered was
    // taken. Nothing behind the LF is touched.
    template <class StrT>
    bool accumulateLine(StrT* accumulated) {
        struct iovec v[2];
        const unsigned n = dataSegments(v);
        for (unsigned i = 0; i < n; i++) {
            const char* p = static_cast<const char*>(v[i].iov_base);
            const void* hit = memchr(p, '\n', v[i].iov_len);
            if (hit == nullptr) {
                accumulated->append(p, v[i].iov_len);
                _readPos += v[i].iov_len;
                continue;
            }
            const size_t used = size_t(static_cast<const char*>(hit) - p);
            accumulated->append(p, used);
            _readPos += used + 1;
            if (!accumulated->empty() && accumulated->back() == '\r') accumulated->pop_back();
            return true;
        }
        return false;
    }

    // One readv() into the free space (retrying EINTR): its result. A full
    // ring reads nothing and gives 0, as end of file does: callers look at
    // full() first.
    ssize_t readFrom(int fd) {
        struct iovec v[2];
        const unsigned n = freeSegments(v);
        if (n == 0) return 0;
        ssize_t got;
        do {
            got = ::readv(fd, v, int(n));
        } while (got < 0 && errno == EINTR);
        if (got > 0) _writePos += size_t(got);
        return got;
    }
    // One writev() of the data (retrying EINTR): its result; what went is
    // consumed.
    ssize_t writeTo(int fd) {
        struct iovec v[2];
        const unsigned n = dataSegments(v);
        if (n == 0) return 0;
        ssize_t put;
        do {
            put = ::writev(fd, v, int(n));
        } while (put < 0 && errno == EINTR);
        if (put > 0) _readPos += size_t(put);
        return put;
    }

private:
    static unsigned segments(struct iovec v[2], uint64_t pos, size_t length, char* buf) {
        if (length == 0) return 0;
        const size_t start = size_t(pos & (SIZE - 1));
        const size_t first = SIZE - start < length ? SIZE - start : length;
        v[0].iov_base = buf + start;
        v[0].iov_len = first;
        if (first == length) return 1;
        v[1].iov_base = buf;
        v[1].iov_len = length - first;
        return 2;
    }

    uint64_t _readPos = 0;
    uint64_t _writePos = 0;
    char _buf[SIZE];
};
