#include "util/GzipStream.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "libzero/assertion.h"
#include "libzero/gzip-crc32.h"

gzip_buffer::gzip_buffer(size_t bufsiz) : siz(bufsiz) {
    ASSERT(bufsiz > 0);
    _data.reset(new uint8_t[bufsiz]);
}

// ---------------------------------------------------------------- reading

DecompressingGzipStream::DecompressingGzipStream(ZlibStream& inflater) : _inflater(inflater) {
    _inflater.initRawInflate();
}

DecompressingGzipStream::HeaderState DecompressingGzipStream::next_state_for_flags(unsigned flags) {
    if (flags & FLAG_HAS_EXTRA_FIELD) return HEADER_EXTRA_LENGTH_LOW;
    if (flags & FLAG_HAS_ORIG_NAME) return HEADER_NAME;
    if (flags & FLAG_HAS_COMMENT) return HEADER_COMMENT;
    if (flags & FLAG_HAS_HEAD_CRC) return AT_HEAD_CRC;
    return HEADER_COMPLETE;
}

void DecompressingGzipStream::skipThen(unsigned count, HeaderState next) {
    if (count == 0) {
        _header_state = next;
        return;
    }
    _skip_count = count;
    _state_after_skip = next;
    _header_state = HEADER_SKIPPING;
}

bool DecompressingGzipStream::feedGzipHeaderStateMachine(uint8_t byte) {
    switch (_header_state) {
        case HEADER_COMPLETE:
            // Member data belongs to inflate; feeding it here is a caller's fault.
            ASSERT(_header_state != HEADER_COMPLETE);
            return false;
        case HEADER_MAGIC1:
            if (byte != 31) return false;
            _header_state = HEADER_MAGIC2;
            return true;
        case HEADER_MAGIC2:
            if (byte != 139) return false;
            _header_state = HEADER_METHOD;
            return true;
        case HEADER_METHOD:
            if (byte != 8) return false;
            _header_state = HEADER_FLAGS;
            return true;
        case HEADER_FLAGS:
            if (byte & 0xE0) return false;  // reserved bits: a format we don't know
            _flags = byte;
            _mtime = 0;
            _mtime_bytes = 0;
            _header_state = HEADER_TIME;
            return true;
        case HEADER_TIME:
            _mtime |= uint32_t(byte) << (8 * _mtime_bytes);
            if (++_mtime_bytes == 4) skipThen(2, next_state_for_flags(_flags));  // XFL, OS
            return true;
        case HEADER_SKIPPING:
            if (--_skip_count == 0) _header_state = _state_after_skip;
            return true;
        case HEADER_EXTRA_LENGTH_LOW:
            _skip_count = byte;
            _header_state = HEADER_EXTRA_LENGTH_HIGH;
            return true;
        case HEADER_EXTRA_LENGTH_HIGH:
            skipThen(_skip_count + (unsigned(byte) << 8),
                     next_state_for_flags(_flags & ~FLAG_HAS_EXTRA_FIELD));
            return true;
        case HEADER_NAME:
            if (byte == 0) {
                _header_state =
                    next_state_for_flags(_flags & ~(FLAG_HAS_EXTRA_FIELD | FLAG_HAS_ORIG_NAME));
            }
            return true;
        case HEADER_COMMENT:
            if (byte == 0) {
                _header_state = next_state_for_flags(
                    _flags & ~(FLAG_HAS_EXTRA_FIELD | FLAG_HAS_ORIG_NAME | FLAG_HAS_COMMENT));
            }
            return true;
        case AT_HEAD_CRC:
            skipThen(1, HEADER_COMPLETE);
            return true;
    }
    return false;
}

void DecompressingGzipStream::prepareForFooterAndNextHeader() {
    inflateReset(&_inflater.z());
    skipThen(8, HEADER_MAGIC1);
}

int DecompressingGzipStream::decompress() {
    z_stream& z = _inflater.z();
    while (z.avail_out > 0) {
        if (_header_state != HEADER_COMPLETE) {
            if (z.avail_in == 0) return 0;
            if (!feedGzipHeaderStateMachine(*z.next_in)) {
                errno = ENOEXEC;
                return -1;
            }
            ++z.next_in;
            --z.avail_in;
            continue;
        }
        const uInt inBefore = z.avail_in;
        const uInt outBefore = z.avail_out;
        switch (inflate(&z, Z_NO_FLUSH)) {
            case Z_STREAM_END:
                prepareForFooterAndNextHeader();
                break;
            case Z_OK:
                if (z.avail_in == inBefore && z.avail_out == outBefore) return 0;
                break;
            case Z_BUF_ERROR:  // no progress without more input
                return 0;
            case Z_MEM_ERROR:
                throw std::bad_alloc();
            default:  // Z_DATA_ERROR, Z_NEED_DICT: not deflate data we can read
                errno = ENOEXEC;
                return -1;
        }
    }
    return 0;
}

ReadableGzipStream::ReadableGzipStream(size_t bufsiz)
    : internal_RWGzipStream(bufsiz), DecompressingGzipStream(_zs) {}

ssize_t ReadableGzipStream::read(void* buf, size_t size, Interval timeout) {
    z_stream& z = _zs.z();
    const size_t want = std::min<size_t>(size, UINT_MAX);
    z.next_out = static_cast<Bytef*>(buf);
    z.avail_out = static_cast<uInt>(want);
    const bool timed = !timeout.isUnbounded();
    const MonotonicTime start = timed ? MonotonicTime::now() : MonotonicTime();
    for (;;) {
        if (decompress() < 0) return -1;
        const size_t produced = want - z.avail_out;
        if (z.avail_out == 0) return static_cast<ssize_t>(produced);
        Interval wait = timeout;
        if (timed) {
            if (produced > 0) return static_cast<ssize_t>(produced);
            const Interval elapsed = MonotonicTime::now() - start;
            if (elapsed > timeout) return -2;
            wait = Interval(timeout.ms() - elapsed.ms());
        }
        const ssize_t n = read_stream(_buf.buf(), std::min<size_t>(_buf.siz, UINT_MAX), wait);
        if (n <= 0) {
            if (produced > 0) return static_cast<ssize_t>(produced);
            if (n == 0 && !atMemberBoundary()) {
                errno = ENOEXEC;  // cut inside a member
                return -1;
            }
            return n;
        }
        z.next_in = _buf.buf();
        z.avail_in = static_cast<uInt>(n);
    }
}

ssize_t ReadableGzipFileDescriptor::read_stream(void* buf, size_t size, Interval timeout) {
    if (!timeout.isUnbounded()) {
        struct pollfd p = {_fd.fd(), POLLIN, 0};
        const int ms = static_cast<int>(std::min<uint64_t>(timeout.ms(), INT_MAX));
        int ready;
        while ((ready = ::poll(&p, 1, ms)) < 0 && errno == EINTR) {}
        if (ready < 0) return -1;
        if (ready == 0) {
            errno = ETIMEDOUT;
            return -2;
        }
    }
    ssize_t n;
    while ((n = ::read(_fd.fd(), buf, size)) < 0 && errno == EINTR) {}
    return n;
}

// ---------------------------------------------------------------- writing

WritableGzipStream::WritableGzipStream(int level, size_t bufsiz, int windowBits, int memLevel,
                                       int strategy)
    : WritableGzipStream(level, bufsiz, Timeval::now(), windowBits, memLevel, strategy) {}

WritableGzipStream::WritableGzipStream(int level, size_t bufsiz, const Timeval& mtime,
                                       int windowBits, int memLevel, int strategy)
    : internal_RWGzipStream(bufsiz), _nextMtime(mtime), _level(level) {
    ASSERT(_buf.siz >= 10);  // the header goes into the buffer whole
    _zs.initRawDeflate(level, windowBits, memLevel, strategy);
    _zs->next_out = _buf.buf();
    _zs->avail_out = static_cast<uInt>(std::min<size_t>(_buf.siz, UINT_MAX));
}

bool WritableGzipStream::flushBuf() {
    z_stream& z = _zs.z();
    const uint8_t* p = _buf.buf();
    size_t pending = static_cast<size_t>(z.next_out - p);
    while (pending > 0) {
        const ssize_t n = write_stream(p, pending);
        if (n <= 0) {
            // Keep what didn't go out at the front, for a later attempt.
            memmove(_buf.buf(), p, pending);
            z.next_out = _buf.buf() + pending;
            z.avail_out = static_cast<uInt>(std::min<size_t>(_buf.siz - pending, UINT_MAX));
            return false;
        }
        p += n;
        pending -= static_cast<size_t>(n);
    }
    z.next_out = _buf.buf();
    z.avail_out = static_cast<uInt>(std::min<size_t>(_buf.siz, UINT_MAX));
    return true;
}

bool WritableGzipStream::ensureRoom(unsigned bytes) {
    return _zs->avail_out >= bytes || (flushBuf() && _zs->avail_out >= bytes);
}

bool WritableGzipStream::addOutputLE4(unsigned value) {
    if (!ensureRoom(4)) return false;
    uint8_t*& out = _zs->next_out;
    for (int i = 0; i < 4; ++i) *out++ = static_cast<uint8_t>(value >> (8 * i));
    _zs->avail_out -= 4;
    return true;
}

void render_gzip_member_header(uint8_t out[10], const Timeval& mtime, uint8_t xfl) {
    const uint32_t sec = static_cast<uint32_t>(std::clamp<int64_t>(mtime.sec(), 0, 0x7FFFFFFF));
    const uint8_t header[10] = {
        0x1F, 0x8B, 8, 0, uint8_t(sec), uint8_t(sec >> 8), uint8_t(sec >> 16), uint8_t(sec >> 24),
        xfl,  3,
    };
    memcpy(out, header, 10);
}

bool WritableGzipStream::addOutputGzipHeader(const Timeval& mtime) {
    if (!ensureRoom(10)) return false;
    // XFL as gzip(1) writes it: 2 for the slowest level, 4 for the fastest.
    const uint8_t xfl = _level == Z_BEST_COMPRESSION ? 2 : _level == Z_BEST_SPEED ? 4 : 0;
    render_gzip_member_header(_zs->next_out, mtime, xfl);
    _zs->next_out += 10;
    _zs->avail_out -= 10;
    return true;
}

bool WritableGzipStream::resetIfNeeded() {
    if (_member == MEMBER_OPEN) return true;
    if (_member == MEMBER_FINISHED) {
        deflateReset(&_zs.z());
        _nextMtime = Timeval::now();
        _member = MEMBER_NEEDS_HEADER;
    }
    if (!addOutputGzipHeader(_nextMtime)) return false;
    _crc = 0;
    _isize = 0;
    _member = MEMBER_OPEN;
    return true;
}

bool WritableGzipStream::startNewFile(const Timeval& mtime) {
    if (_broken) {
        errno = EIO;
        return false;
    }
    if (_member == MEMBER_OPEN && !write(nullptr, 0, Z_FINISH)) return false;
    if (_member == MEMBER_FINISHED) deflateReset(&_zs.z());
    _nextMtime = mtime;
    _member = MEMBER_NEEDS_HEADER;
    return true;
}

bool WritableGzipStream::write(const void* data, size_t length, int flush) {
    if (_broken) {
        errno = EIO;
        return false;
    }
    if (length == 0 && flush != Z_FINISH && _member != MEMBER_OPEN) return true;
    if (!resetIfNeeded()) return false;
    z_stream& z = _zs.z();
    _crc = gzip_crc32(_crc, data, length);
    _isize += static_cast<uint32_t>(length);  // the length modulo 2^32, as gzip keeps it
    z.next_in = static_cast<Bytef*>(const_cast<void*>(data));
    size_t left = length;
    do {
        const uInt chunk = static_cast<uInt>(std::min<size_t>(left, UINT_MAX));
        z.avail_in = chunk;
        left -= chunk;
        const int mode = left > 0 ? Z_NO_FLUSH : flush;
        for (;;) {
            if (z.avail_out == 0 && !flushBuf()) {
                // Input deflate hasn't taken is lost to this member: refuse
                // to go on rather than write a member that silently lacks it.
                if (z.avail_in > 0 || left > 0) _broken = true;
                return false;
            }
            const int rc = deflate(&z, mode);
            ASSERT(rc != Z_STREAM_ERROR);
            if (rc == Z_STREAM_END) break;
            // Done when deflate took all input and still had room to spare:
            // nothing more is pending for this flush mode.
            if (mode != Z_FINISH && z.avail_in == 0 && z.avail_out > 0) break;
            if (rc == Z_BUF_ERROR && z.avail_out > 0) break;
        }
    } while (left > 0);
    if (flush == Z_FINISH) {
        // Room for the whole trailer first, so that a failed write-out can't
        // leave half of it behind to be repeated by a retry.
        if (!ensureRoom(8)) return false;
        addOutputLE4(_crc);
        addOutputLE4(_isize);
        _member = MEMBER_FINISHED;
    }
    return true;
}

bool WritableGzipStream::sync() { return write(nullptr, 0, Z_SYNC_FLUSH) && flushBuf(); }

bool WritableGzipStream::finish() {
    if (_member == MEMBER_FINISHED) return flushBuf();
    return write(nullptr, 0, Z_FINISH) && flushBuf();
}

WritableGzipFileDescriptor::~WritableGzipFileDescriptor() {
    if (memberOpen()) finish();
}

ssize_t WritableGzipFileDescriptor::write_stream(const void* data, size_t length) {
    return _fd.write(data, length);
}
