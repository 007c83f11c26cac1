#pragma once
// Gzip as streams over zlib's raw deflate and inflate. The member header is
// parsed here, one byte at a time, so that a header may arrive split across
// reads and members may follow one another; readers skip each member's
// trailer (CRC and length) unchecked.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/FileDescriptor.h"
#include "util/Timeval.h"
#include "util/ZlibWrapper.h"

// A stream's byte buffer: compressed input for readers, compressed output
// for writers.
struct gzip_buffer {
    explicit gzip_buffer(size_t bufsiz);
    std::unique_ptr<uint8_t[]> _data;
    size_t siz;

    uint8_t* buf() { return _data.get(); }
};

// The 10-byte header of a member without optional fields: MTIME clamped
// into 0..2^31-1 (times outside 1970..2038), the given XFL, OS Unix.
void render_gzip_member_header(uint8_t out[10], const Timeval& mtime, uint8_t xfl);

class internal_RWGzipStream {
protected:
    explicit internal_RWGzipStream(size_t bufsiz) : _buf(bufsiz) {}

    ZlibStream _zs;
    gzip_buffer _buf;
};

// The reading state: the gzip header machine in front of an inflate stream
// the caller owns (set up for raw inflate here).
class DecompressingGzipStream {
public:
    enum HeaderState : uint8_t {
        HEADER_COMPLETE = 0,
        HEADER_MAGIC1,
        HEADER_MAGIC2,
        HEADER_METHOD,
        HEADER_FLAGS,
        HEADER_TIME,
        HEADER_SKIPPING,
        HEADER_EXTRA_LENGTH_LOW,
        HEADER_EXTRA_LENGTH_HIGH,
        HEADER_NAME,
        HEADER_COMMENT,
        AT_HEAD_CRC,
    };
    static constexpr uint8_t FLAG_HAS_HEAD_CRC = 2;
    static constexpr uint8_t FLAG_HAS_EXTRA_FIELD = 4;
    static constexpr uint8_t FLAG_HAS_ORIG_NAME = 8;
    static constexpr uint8_t FLAG_HAS_COMMENT = 16;

    explicit DecompressingGzipStream(ZlibStream& inflater);

    // False for a byte that can't come next in a gzip header.
    bool feedGzipHeaderStateMachine(uint8_t byte);
    // At the end of a member's deflate data: skip the 8 trailer bytes, then
    // expect the next member's header.
    void prepareForFooterAndNextHeader();
    static HeaderState next_state_for_flags(unsigned flags);

    // Runs the stream's input into its output: header bytes through the
    // machine, member data through inflate, until either runs out. 0, or -1
    // with ENOEXEC for data that is not gzip; out of memory throws.
    int decompress();

    HeaderState headerState() const { return _header_state; }
    // Back to the start of a header, for a caller that reads trailers itself.
    void expectHeader() { _header_state = HEADER_MAGIC1; }
    // Where a stream may cleanly end: before a member's first byte.
    bool atMemberBoundary() const { return _header_state == HEADER_MAGIC1; }
    // The MTIME field of the latest header read (seconds, 0 when unset).
    uint32_t modificationTime() const { return _mtime; }

private:
    void skipThen(unsigned count, HeaderState next);

    ZlibStream& _inflater;
    HeaderState _header_state = HEADER_MAGIC1;
    HeaderState _state_after_skip = HEADER_COMPLETE;
    uint8_t _mtime_bytes = 0;
    uint8_t _flags = 0;
    unsigned _skip_count = 0;
    uint32_t _mtime = 0;
};

// Reads the uncompressed bytes of gzip data that read_stream() supplies.
class ReadableGzipStream : protected internal_RWGzipStream, public DecompressingGzipStream {
public:
    explicit ReadableGzipStream(size_t bufsiz);
    virtual ~ReadableGzipStream() = default;

    // Up to `size` bytes: the count, 0 at a clean end (between members), -1
    // with ENOEXEC for bad or truncated gzip, what read_stream() gave on its
    // failure, or -2 when `timeout` passed with nothing to return. With a
    // bounded timeout, bytes are returned as soon as the buffered input is used.
    ssize_t read(void* buf, size_t size, Interval timeout = Interval::unbounded());

protected:
    // Up to `size` compressed bytes within `timeout`: the count, 0 at the
    // end, -1 with errno on failure, -2 on timeout.
    virtual ssize_t read_stream(void* buf, size_t size, Interval timeout) = 0;
};

class ReadableGzipFileDescriptor : public ReadableGzipStream {
public:
    explicit ReadableGzipFileDescriptor(FileDescriptor fd, size_t bufsiz = 65536)
        : ReadableGzipStream(bufsiz), _fd(fd) {}

protected:
    ssize_t read_stream(void* buf, size_t size, Interval timeout) override;

private:
    FileDescriptor _fd;
};

// Writes gzip members to write_stream(). A member's header is written with
// its first output; finish() ends the member, and a later write starts
// another with the present time.
class WritableGzipStream : protected internal_RWGzipStream {
public:
    // The member's time is the time of construction, or `mtime`.
    WritableGzipStream(int level, size_t bufsiz, int windowBits = 15, int memLevel = 8,
                       int strategy = Z_DEFAULT_STRATEGY);
    WritableGzipStream(int level, size_t bufsiz, const Timeval& mtime, int windowBits = 15,
                       int memLevel = 8, int strategy = Z_DEFAULT_STRATEGY);
    virtual ~WritableGzipStream() = default;

    // Ends the member under way, if any; the next one carries `mtime`.
    bool startNewFile(const Timeval& mtime);
    // Compresses the bytes; `flush` is a zlib flush value. Z_FINISH ends the
    // member and appends its trailer. False when writing out failed: if all
    // input had been taken, a later call picks up where this one stopped;
    // otherwise the stream is broken and every later call fails with EIO.
    bool write(const void* data, size_t length, int flush = Z_NO_FLUSH);
    // Everything written so far goes out, decodable by a reader (Z_SYNC_FLUSH).
    bool sync();
    // Ends the member (an empty one if nothing was written) and writes it all out.
    bool finish();

    // Writes out the buffered output; on failure what wasn't written stays.
    bool flushBuf();
    bool addOutputLE4(unsigned value);
    bool addOutputGzipHeader(const Timeval& mtime);
    // Starts a member if none is under way: restarts deflate after a
    // finished one, writes the header.
    bool resetIfNeeded();

    bool memberOpen() const { return _member == MEMBER_OPEN; }
    bool broken() const { return _broken; }

protected:
    // Takes compressed bytes: how many it took (at least 1), or 0 or less on failure.
    virtual ssize_t write_stream(const void* data, size_t length) = 0;

private:
    enum MemberState : uint8_t { MEMBER_NEEDS_HEADER, MEMBER_OPEN, MEMBER_FINISHED };
    bool ensureRoom(unsigned bytes);

    Timeval _nextMtime;
    uint32_t _crc = 0;
    uint32_t _isize = 0;
    int _level;
    MemberState _member = MEMBER_NEEDS_HEADER;
    bool _broken = false;
};

class WritableGzipFileDescriptor : public WritableGzipStream {
public:
    WritableGzipFileDescriptor(FileDescriptor fd, int level, size_t bufsiz = 65536)
        : WritableGzipStream(level, bufsiz), _fd(fd) {}
    WritableGzipFileDescriptor(FileDescriptor fd, int level, size_t bufsiz, const Timeval& mtime)
        : WritableGzipStream(level, bufsiz, mtime), _fd(fd) {}
    // Finishes a member left open, as a file stream closes, so that data
    // isn't lost to a forgotten finish(); call finish() to see failures.
    ~WritableGzipFileDescriptor() override;

protected:
    ssize_t write_stream(const void* data, size_t length) override;

private:
    FileDescriptor _fd;
};
