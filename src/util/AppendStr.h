#pragma once
// AppendStr: the output buffer of the library. Bytes live in chunks of
// CHUNK_SIZE that never move, so appending never copies what is there, and a
// whole reply leaves by one gather write. Chunks that fall out of use are kept
// for reuse: a buffer that is cleared and refilled allocates nothing.
//
// PortableIovec is the gather vector beside it, PortableIovecCursor a read
// position in one.

#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <vector>

#include "util/GzipStream.h"
#include "util/Str.h"
#include "util/Timeval.h"
#include "util/ZlibWrapper.h"

class AppendStr;
class FileDescriptor;
class FileStar;
class JsonDocument;
class JsonNode;
class PollableDescriptor;
class ScopedFileDescriptor;
class ScopedFileStar;
class SerializedResult;
class SslConnection;
class UnicodeCodepoint;
class WritablePipe;

// ---------------------------------------------------------------- PortableIovec

class PortableIovec {
public:
    PortableIovec() = default;

    // Grows to 16 elements at first, then doubles.
    void push_back(const void* base, size_t length);
    size_t size() const { return _v.size(); }
    bool empty() const { return _v.empty(); }
    size_t capacity() const { return _v.capacity(); }
    void reserve(size_t n) { _v.reserve(n); }
    void clear() { _v.clear(); }
    void pop_back() { _v.pop_back(); }
    struct iovec& operator[](size_t i) {
        return _v[i];
    }
    const struct iovec& operator[](size_t i) const { return _v[i]; }
    struct iovec& back() {
        return _v.back();
    }
    const struct iovec& back() const { return _v.back(); }
    struct iovec* data() {
        return _v.data();
    }
    const struct iovec* data() const { return _v.data(); }
    // The sum of the lengths.
    uint64_t totalBytes() const;
    void swap(PortableIovec& other) noexcept { _v.swap(other._v); }

    // Appends the other's elements (its chunks, or its resolved pieces).
    PortableIovec& operator<<(const AppendStr& s);
    PortableIovec& operator<<(const SerializedResult& r);

    // Defined with the pollable descriptors (the event-loop capability).
    ssize_t _writeWithTimeout(const PollableDescriptor& descriptor, Interval timeout,
                              uint64_t total) const;

private:
    friend class AppendStr;
    std::vector<struct iovec> _v;
};

// Exactly one element for the bytes; false only for null data.
bool mem_parse_into(const char* data, size_t length, PortableIovec* dest);

// ---------------------------------------------------------------- PortableIovecCursor

class PortableIovecCursor {
public:
    PortableIovecCursor() = default;
    explicit PortableIovecCursor(const PortableIovec& v) { start(v); }

    void start(const PortableIovec& v);
    void start(const AppendStr& s);
    // The result must be finalised.
    void start(const SerializedResult& r);

    bool finished() const { return _elem >= _iov->size(); }
    // The rest of the current element (empty elements are passed over).
    bool peekSeg(StrSegment* seg) const;
    bool getSeg(StrSegment* seg);
    bool getSegIfOnlyOneLeft(StrSegment* seg);
    uint64_t bytesLeftToWrite() const;
    void skipBytes(size_t n);
    void rewindBytes(size_t n);

    // Writes what is left, in one system call (two at most), and moves on by
    // what was written. False for an error only: short writes are the
    // caller's loop.
    bool write(const FileDescriptor& descriptor);
    // Loops write() until all is out, a failure or a write of nothing: the
    // bytes written, or -1 when a failure came before any.
    ssize_t writeAll(const FileDescriptor& descriptor);
    // Defined with their transports: pollable descriptors and pipes with the
    // event loop, TLS connections with TLS.
    bool write(const PollableDescriptor& descriptor);
    bool write(const WritablePipe& pipe);
    bool write(const SslConnection& connection);

    // Copies as many whole elements as fit into `buffer`, from the rest of
    // the current one on, when that gathers at least two; else 0. The
    // cursor doesn't move.
    size_t optimisticallyConsolidateInto(char* buffer, size_t size) const;

    const PortableIovec* _iov = nullptr;
    size_t _elem = 0;
    size_t _bytesIntoElem = 0;

private:
    size_t elemLength(size_t i) const { return (*_iov)[i].iov_len; }
    const char* elemBase(size_t i) const { return static_cast<const char*>((*_iov)[i].iov_base); }
    void passEmptyElements();
};

// ---------------------------------------------------------------- escaping flags

// Flags of appendXmlEscaped, by bit.
enum XmlEscapingFlag : unsigned {
    XML_ESCAPE_DOUBLE_QUOTE = 1u << 0,        // " as &quot;
    XML_ESCAPE_SINGLE_QUOTE = 1u << 1,        // ' as &apos;
    XML_ESCAPE_CONTROL_AS_CHARREF = 1u << 2,  // control bytes as &#xN;
    XML_ESCAPE_CONTROL_AS_HEX = 1u << 3,      // control bytes and invalid characters as \xHH
    XML_KEEP_TAB_LF_CR = 1u << 4,
};
struct XmlEscaping {
    unsigned flags = 0;
    constexpr XmlEscaping() = default;
    constexpr explicit XmlEscaping(unsigned f) : flags(f) {}
    constexpr bool has(unsigned f) const { return (flags & f) != 0; }
    // Anything into XML 1.0 text or a quoted attribute: no character
    // reference can carry a control byte there, so they become "\xHH".
    static constexpr unsigned ATTRIBUTE = XML_ESCAPE_DOUBLE_QUOTE | XML_ESCAPE_SINGLE_QUOTE |
                                          XML_ESCAPE_CONTROL_AS_HEX | XML_KEEP_TAB_LF_CR;
};

enum CsvEscapingFlag : unsigned {
    CSV_REMOVE_CR = 1u << 0,
};
struct CsvEscaping {
    unsigned flags = 0;
    constexpr CsvEscaping() = default;
    constexpr explicit CsvEscaping(unsigned f) : flags(f) {}
    constexpr bool has(unsigned f) const { return (flags & f) != 0; }
};

// ---------------------------------------------------------------- AppendStr

class AppendStr {
public:
    static constexpr size_t CHUNK_SIZE = 8192;
    static constexpr unsigned CHUNK_SHIFT = 13;
    static_assert(size_t{1} << CHUNK_SHIFT == CHUNK_SIZE);
    // Sizes stay this far under 2^64, so that chunk arithmetic can't overflow.
    static constexpr uint64_t MAX_SIZE = UINT64_MAX - CHUNK_SIZE;

    struct Base64EncodeState {
        unsigned _nbits = 0;  // 0, 2 or 4
        unsigned _bits = 0;
    };
    // Pending bits in the low 6 bits, their count above them; a count of 7
    // says that padding was seen. 0 is the initial state.
    struct Base64DecodeState {
        uint32_t _word = 0;
    };

    AppendStr() = default;
    AppendStr(const AppendStr& other);
    AppendStr(AppendStr&& other) noexcept;
    AppendStr& operator=(const AppendStr& other);
    AppendStr& operator=(AppendStr&& other) noexcept;
    ~AppendStr();

    uint64_t size() const {
        const size_t n = _v.size();
        return n == 0 ? 0 : (uint64_t(n - 1) << CHUNK_SHIFT) + _v._v.back().iov_len;
    }
    bool empty() const { return _v.empty(); }
    // Bytes the chunks held (used and free) can take without allocating.
    uint64_t capacity() const;
    // Every used chunk to the free list; nothing is freed.
    void clear() noexcept;
    void reserve(uint64_t n);
    // Shrinks to n bytes (no effect at or above the size).
    void resize(uint64_t n) noexcept;

    void push_back(char c) {
        if (!_v.empty() && _v._v.back().iov_len < CHUNK_SIZE) {
            struct iovec& last = _v._v.back();
            static_cast<char*>(last.iov_base)[last.iov_len++] = c;
        } else {
            _push_back_new_chunk_with(c);
        }
    }
    AppendStr& append(const void* data, size_t length) {
        if (!_v.empty() && CHUNK_SIZE - _v._v.back().iov_len >= length) {
            struct iovec& last = _v._v.back();
            if (length) memcpy(static_cast<char*>(last.iov_base) + last.iov_len, data, length);
            last.iov_len += length;
            return *this;
        }
        return _append_slow(static_cast<const char*>(data), length);
    }
    AppendStr& append(const char* z) { return append(z, strlen(z)); }
    AppendStr& append(StrSegment s) { return append(s.data(), s.size()); }
    AppendStr& append(size_t count, char c);
    AppendStr& append(const UnicodeCodepoint& c);
    AppendStr& append(const AppendStr& other);

    void append_int32(int32_t v);
    void append_uint32(uint32_t v);
    void append_int64(int64_t v);
    void append_uint64(uint64_t v);
    // Shortest digits that read back to the same double, in fixed notation.
    void append_double(double v);
    void appendReversed(const char* data, size_t length);
    // Seven bits a byte, high bit set on all but the last; also below 128.
    void appendBase128(uint64_t v);

    // Through the library's printf engine; format and vformat replace.
    void format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void vformat(const char* fmt, va_list args);
    void appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void appendVformat(const char* fmt, va_list args);

    // Query-string escaping: unreserved bytes stay, blank is "+", others %HH.
    void appendUriEscaped(const char* data, size_t length);
    void appendUriEscaped(const char* z) { appendUriEscaped(z, strlen(z)); }
    // "?" or "&", key, "=", value, both escaped.
    void _append_one_uri_query_param(const char* key, size_t keyLength, const char* value,
                                     size_t valueLength);
    void appendJsonEscaped(const char* data, size_t length);
    void appendJsonEscaped(const char* z) { appendJsonEscaped(z, strlen(z)); }
    void appendXmlEscaped(const char* data, size_t length, const XmlEscaping& escaping);
    void appendXmlEscaped(const char* z, const XmlEscaping& escaping) {
        appendXmlEscaped(z, strlen(z), escaping);
    }
    void appendHtmlEscaped(const char* data, size_t length);
    void appendHtmlEscaped(const char* z) { appendHtmlEscaped(z, strlen(z)); }
    void appendCsvEscaped(const char* data, size_t length, const CsvEscaping& escaping);
    void appendCsvEscaped(const char* z, const CsvEscaping& escaping) {
        appendCsvEscaped(z, strlen(z), escaping);
    }
    // Drops bytes under 32.
    void appendDroppingControlCharacters(const char* data, size_t length);

    void appendBase64Escaped(Base64EncodeState& state, const char* data, size_t length);
    void finishBase64Escaping(Base64EncodeState& state);
    // False on bad input (the state keeps what was pending, the bytes so far stay).
    bool appendBase64Unescaped(Base64DecodeState& state, const char* data, size_t length);

    // Fill bytes until the size is a multiple of `align`, a power of two.
    void padToAlignment(size_t align, char fill);
    // Takes from the front of `segment` what is missing to reach `expected`
    // (which must exceed the size); true when reached.
    bool accumulate_appendstr(uint64_t expected, StrSegment* segment);

    // The range as a view: into the chunk when it lies in one, else copied
    // into `scratch`. An offset at or past the end gives a null view.
    StrSegment substr(uint64_t offset, uint64_t count, Str* scratch) const;
    char operator[](uint64_t i) const {
        return static_cast<const char*>(
            _v[size_t(i >> CHUNK_SHIFT)].iov_base)[i & (CHUNK_SIZE - 1)];
    }

    // Takes the other's bytes; `other` ends empty. Never raises.
    void assignDestructive(AppendStr* other) noexcept;
    void appendDestructive(AppendStr* other);
    void _do_swap(AppendStr& other) noexcept;

    // memcmp order, a prefix first.
    int compare(const AppendStr& other) const;
    friend bool operator==(const AppendStr& a, const AppendStr& b) {
        return a.size() == b.size() && a.compare(b) == 0;
    }

    // Read to the end of the file, into free space behind the data.
    AppendStr& operator<<(FileStar& f);
    AppendStr& operator<<(ScopedFileStar& f);
    AppendStr& operator<<(const FileDescriptor& fd);
    AppendStr& operator<<(const ScopedFileDescriptor& fd);
    // Defined with the JSON documents (the JSON capability).
    AppendStr& operator<<(const JsonDocument& doc);
    AppendStr& operator<<(const JsonNode& node);

    // Up to `wanted` bytes by one read/readv into the free space: the count,
    // or the failed call's result (nothing added).
    ssize_t read(const FileDescriptor& fd, size_t wanted);
    // Defined with their transports: pollable descriptors with the event
    // loop, TLS connections with TLS.
    ssize_t read(const PollableDescriptor& fd, size_t wanted);
    ssize_t read(SslConnection& connection);
    // Up to `count` bytes; the number read.
    uint64_t read(std::istream& in, uint64_t count);

    // fwrite() element by element until a short one: the bytes written.
    uint64_t writeTo(FILE* f) const;

    const PortableIovec& iovec() const { return _v; }
    // The (pointer, length) of each chunk in order.
    template <typename F>
    void forEachSegment(F f) const {
        for (const struct iovec& e : _v._v) f(static_cast<const char*>(e.iov_base), e.iov_len);
    }

    // Memory policy, for the gzip and read paths and their tests.
    char* _alloc_chunk();
    void _push_back_chunk(char* chunk, size_t used);
    void _free(char* chunk) noexcept;
    size_t _allocSpace(uint64_t addBytes);
    void _trimFinalSegment(size_t length) noexcept;
    size_t _freeChunkCount() const { return _freeChunks.size(); }
    size_t _usedChunkCount() const { return _v.size(); }

private:
    friend class AppendStrGzipState;
    friend class AppendStrGunzipState;

    AppendStr& _append_slow(const char* data, size_t length);
    // Makes room for `length` more bytes, then lets fill(out, n) write each
    // chunk's share in order.
    template <typename F>
    void _fillAppended(size_t length, F fill) {
        if (length == 0) return;
        for (size_t i = _allocSpace(length); length > 0; ++i) {
            struct iovec& e = _v._v[i];
            const size_t n = std::min(CHUNK_SIZE - e.iov_len, length);
            fill(static_cast<char*>(e.iov_base) + e.iov_len, n);
            e.iov_len += n;
            length -= n;
        }
    }
    template <typename F>
    void _allOrNothing(F f) {
        grow_all_or_nothing(*this, f);
    }
    void _push_back_new_chunk_with(char c);
    void _append_spanning_two_chunks(const char* data, size_t n);
    // Room in the last chunk for n bytes written in place, or null.
    char* _roomInLast(size_t n) {
        if (_v.empty()) return nullptr;
        struct iovec& last = _v._v.back();
        return CHUNK_SIZE - last.iov_len >= n ? static_cast<char*>(last.iov_base) + last.iov_len
                                              : nullptr;
    }
    void _commitInLast(size_t n) { _v._v.back().iov_len += n; }
    void _stealFreeChunksFrom(AppendStr* other, size_t extra) noexcept;
    void _readToEnd(int fd);

    PortableIovec _v;
    std::vector<char*> _freeChunks;
};

void append_stringified(Str* dest, const AppendStr& s);

// ---------------------------------------------------------------- gzip into chunks

// Gzip members into an AppendStr: deflate writes straight into the free part
// of the last chunk, then into new ones.
class AppendStrGzipState {
public:
    AppendStrGzipState(int level, int windowBits, int memLevel, int strategy);

    // The 10-byte header with the time (clamped to 0..2^31-1) and a fresh CRC and count.
    void startFile(AppendStr* out, const Timeval& mtime);
    void startFile(AppendStr* out);
    // `flushFlag` is a zlib flush value other than Z_FINISH.
    void gzip(PortableIovecCursor* source, AppendStr* out, int flushFlag = Z_NO_FLUSH);
    void gzip(const PortableIovec& source, AppendStr* out, int flushFlag = Z_NO_FLUSH);
    void gzip(const char* data, size_t length, AppendStr* out, int flushFlag = Z_NO_FLUSH);
    void gzip(const SerializedResult& source, AppendStr* out, int flushFlag = Z_NO_FLUSH);
    void gzip(const AppendStr& source, AppendStr* out, int flushFlag = Z_NO_FLUSH);
    // Z_FINISH, then the trailer.
    void endFile(AppendStr* out);

    // CRC-32 of the input, then its length modulo 2^32: the trailer as it stands
    // in memory on this (little-endian) machine.
    uint32_t _trailer[2] = {0, 0};

private:
    void deflateInto(AppendStr* out, int flush);
    ZlibStream _zs;
};

// Gunzip of concatenated members into an AppendStr; each member's CRC and
// length are checked.
class AppendStrGunzipState {
public:
    AppendStrGunzipState();

    // False on corrupt data: the output so far stays, and the cursor is
    // rewound to the unused input.
    bool gunzip(PortableIovecCursor* source, AppendStr* out);
    bool gunzip(const PortableIovec& source, AppendStr* out);
    bool gunzip(const char* data, size_t length, AppendStr* out);
    bool gunzip(const SerializedResult& source, AppendStr* out);
    bool gunzip(const AppendStr& source, AppendStr* out);

    // Between members (or before the first): where input may cleanly end.
    bool atMemberBoundary() const { return _inFooter == 0 && _header.atMemberBoundary(); }

private:
    bool step(const char* data, size_t length, size_t* used, AppendStr* out);
    ZlibStream _zs;
    DecompressingGzipStream _header;
    uint32_t _crc = 0;
    uint32_t _count = 0;
    uint8_t _footer[8] = {};
    unsigned _inFooter = 0;  // bytes of the footer still to come (8 down to 1), 0 outside it
};
