#include "util/AppendStr.h"

#include <errno.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <istream>
#include <new>

#include "libzero/assertion.h"
#include "libzero/gzip-crc32.h"
#include "libzero/int-to-ascii.h"
#include "util/ByteScan.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/PrintFloatingPoint.h"
#include "util/PrintfFormat.h"
#include "util/SerializedResult.h"
#include "util/UnicodeCodepoint.h"

using std::min;

// ---------------------------------------------------------------- PortableIovec

void PortableIovec::push_back(const void* base, size_t length) {
    if (_v.size() == _v.capacity()) _v.reserve(_v.empty() ? 16 : 2 * _v.capacity());
    _v.push_back({const_cast<void*>(base), length});
}

uint64_t PortableIovec::totalBytes() const {
    uint64_t total = 0;
    for (const struct iovec& e : _v) total += e.iov_len;
    return total;
}

PortableIovec& PortableIovec::operator<<(const AppendStr& s) {
    s.forEachSegment([this](const char* p, size_t n) { push_back(p, n); });
    return *this;
}

bool mem_parse_into(const char* data, size_t length, PortableIovec* dest) {
    if (data == nullptr) return false;
    dest->clear();
    dest->push_back(data, length);
    return true;
}

// ---------------------------------------------------------------- PortableIovecCursor

void PortableIovecCursor::passEmptyElements() {
    while (!finished() && _bytesIntoElem == elemLength(_elem)) {
        ++_elem;
        _bytesIntoElem = 0;
    }
}

void PortableIovecCursor::start(const PortableIovec& v) {
    _iov = &v;
    _elem = 0;
    _bytesIntoElem = 0;
    passEmptyElements();
}

void PortableIovecCursor::start(const AppendStr& s) { start(s.iovec()); }

bool PortableIovecCursor::peekSeg(StrSegment* seg) const {
    if (finished()) return false;
    seg->assign(elemBase(_elem) + _bytesIntoElem, elemLength(_elem) - _bytesIntoElem);
    return true;
}

bool PortableIovecCursor::getSeg(StrSegment* seg) {
    if (!peekSeg(seg)) return false;
    ++_elem;
    _bytesIntoElem = 0;
    passEmptyElements();
    return true;
}

bool PortableIovecCursor::getSegIfOnlyOneLeft(StrSegment* seg) {
    if (finished() || _iov->size() - _elem != 1) return false;
    return getSeg(seg);
}

uint64_t PortableIovecCursor::bytesLeftToWrite() const {
    if (finished()) return 0;
    uint64_t total = elemLength(_elem) - _bytesIntoElem;
    for (size_t i = _elem + 1; i < _iov->size(); ++i) total += elemLength(i);
    return total;
}

void PortableIovecCursor::skipBytes(size_t n) {
    while (n > 0) {
        ASSERT(!finished());
        const size_t left = elemLength(_elem) - _bytesIntoElem;
        if (n < left) {
            _bytesIntoElem += n;
            return;
        }
        n -= left;
        _bytesIntoElem = elemLength(_elem);
        passEmptyElements();
    }
}

void PortableIovecCursor::rewindBytes(size_t n) {
    while (n > _bytesIntoElem) {
        n -= _bytesIntoElem;
        ASSERT(_elem > 0);
        --_elem;
        _bytesIntoElem = elemLength(_elem);
    }
    _bytesIntoElem -= n;
    passEmptyElements();
}

bool PortableIovecCursor::write(const FileDescriptor& descriptor) {
    if (finished()) return true;
    const int fd = descriptor.fd();
    const size_t remaining = _iov->size() - _elem;
    const struct iovec* first = &(*_iov)[_elem];
    ssize_t n;
    auto retry = [](ssize_t r) { return r < 0 && errno == EINTR; };
    if (remaining == 1) {
        do n = ::write(fd, elemBase(_elem) + _bytesIntoElem, elemLength(_elem) - _bytesIntoElem);
        while (retry(n));
    } else if (_bytesIntoElem == 0) {
        const int count = static_cast<int>(min<size_t>(remaining, FileDescriptor::IOV_BATCH));
        do n = ::writev(fd, first, count);
        while (retry(n));
    } else if (remaining > 128) {
        // Too many to copy onto the stack: finish the first element alone.
        const size_t rest = elemLength(_elem) - _bytesIntoElem;
        do n = ::write(fd, elemBase(_elem) + _bytesIntoElem, rest);
        while (retry(n));
        if (n == static_cast<ssize_t>(rest)) {
            const int count =
                static_cast<int>(min<size_t>(remaining - 1, FileDescriptor::IOV_BATCH));
            ssize_t more;
            do more = ::writev(fd, first + 1, count);
            while (retry(more));
            if (more > 0) n += more;
        }
    } else {
        struct iovec copy[128];
        std::copy(first, first + remaining, copy);
        copy[0].iov_base = static_cast<char*>(copy[0].iov_base) + _bytesIntoElem;
        copy[0].iov_len -= _bytesIntoElem;
        do n = ::writev(fd, copy, static_cast<int>(remaining));
        while (retry(n));
    }
    if (n < 0) return false;
    skipBytes(static_cast<size_t>(n));
    return true;
}

size_t PortableIovecCursor::optimisticallyConsolidateInto(char* buffer, size_t size) const {
    if (finished() || _iov->size() - _elem < 2) return 0;
    const size_t firstLength = elemLength(_elem) - _bytesIntoElem;
    if (firstLength >= size || firstLength + elemLength(_elem + 1) > size) return 0;
    memcpy(buffer, elemBase(_elem) + _bytesIntoElem, firstLength);
    size_t used = firstLength;
    for (size_t i = _elem + 1; i < _iov->size() && used + elemLength(i) <= size; ++i) {
        memcpy(buffer + used, elemBase(i), elemLength(i));
        used += elemLength(i);
    }
    return used;
}

// ---------------------------------------------------------------- AppendStr memory

AppendStr::AppendStr(const AppendStr& other) { append(other); }

AppendStr::AppendStr(AppendStr&& other) noexcept { _do_swap(other); }

AppendStr& AppendStr::operator=(const AppendStr& other) {
    if (this != &other) {
        AppendStr copy(other);
        assignDestructive(&copy);
    }
    return *this;
}

AppendStr& AppendStr::operator=(AppendStr&& other) noexcept {
    if (this != &other) assignDestructive(&other);
    return *this;
}

AppendStr::~AppendStr() {
    for (const struct iovec& e : _v._v) delete[] static_cast<char*>(e.iov_base);
    for (char* c : _freeChunks) delete[] c;
}

uint64_t AppendStr::capacity() const {
    const size_t chunks = min(_v.size() + _freeChunks.size(), _v.capacity());
    return uint64_t(chunks) << CHUNK_SHIFT;
}

char* AppendStr::_alloc_chunk() {
    if (!_freeChunks.empty()) {
        char* c = _freeChunks.back();
        _freeChunks.pop_back();
        return c;
    }
    return new char[CHUNK_SIZE];
}

void AppendStr::_free(char* chunk) noexcept {
    // Reserved room makes this a plain store; without it, releasing memory
    // still must not raise.
    if (_freeChunks.size() < _freeChunks.capacity()) {
        _freeChunks.push_back(chunk);
        return;
    }
    try {
        _freeChunks.push_back(chunk);
    } catch (...) {
        delete[] chunk;
    }
}

void AppendStr::_push_back_chunk(char* chunk, size_t used) {
    try {
        if (_v.size() == _v.capacity()) _v.reserve(_v.empty() ? 16 : 2 * _v.capacity());
        // One free-list entry for every chunk owned, so that giving chunks
        // back (clear, resize, failures) never allocates.
        const size_t owned = _v.size() + 1 + _freeChunks.size();
        if (_freeChunks.capacity() < owned) {
            _freeChunks.reserve(std::max(owned, 2 * _freeChunks.capacity()));
        }
    } catch (...) {
        if (_freeChunks.size() < _freeChunks.capacity()) {
            _freeChunks.push_back(chunk);
        } else {
            delete[] chunk;
        }
        throw;
    }
    _v._v.push_back({chunk, used});
}

void AppendStr::clear() noexcept {
    for (const struct iovec& e : _v._v) _free(static_cast<char*>(e.iov_base));
    _v.clear();
}

void AppendStr::reserve(uint64_t n) {
    if (n > MAX_SIZE) throw std::bad_alloc();
    const size_t chunks = static_cast<size_t>((n + CHUNK_SIZE - 1) >> CHUNK_SHIFT);
    if (_v.capacity() < chunks) _v.reserve(chunks);
    if (_freeChunks.capacity() < chunks) _freeChunks.reserve(chunks);
    while (_v.size() + _freeChunks.size() < chunks) {
        char* c = new char[CHUNK_SIZE];
        _freeChunks.push_back(c);  // reserved above: can't fail
    }
}

void AppendStr::resize(uint64_t n) noexcept {
    if (n >= size()) return;
    const size_t keep = static_cast<size_t>((n + CHUNK_SIZE - 1) >> CHUNK_SHIFT);
    while (_v.size() > keep) {
        _free(static_cast<char*>(_v.back().iov_base));
        _v.pop_back();
    }
    if (keep > 0 && (n & (CHUNK_SIZE - 1)) != 0) _v.back().iov_len = n & (CHUNK_SIZE - 1);
}

size_t AppendStr::_allocSpace(uint64_t addBytes) {
    const uint64_t before = size();
    if (addBytes > MAX_SIZE - before) throw std::bad_alloc();
    const size_t needed = static_cast<size_t>((before + addBytes + CHUNK_SIZE - 1) >> CHUNK_SHIFT);
    const size_t startCount = _v.size();
    try {
        while (_v.size() < needed) _push_back_chunk(_alloc_chunk(), 0);
    } catch (...) {
        while (_v.size() > startCount) {
            _free(static_cast<char*>(_v.back().iov_base));
            _v.pop_back();
        }
        throw;
    }
    return startCount == 0 ? 0 : startCount - 1;
}

void AppendStr::_trimFinalSegment(size_t length) noexcept {
    if (length == 0) {
        _free(static_cast<char*>(_v.back().iov_base));
        _v.pop_back();
    } else {
        _v.back().iov_len = length;
    }
}

// ---------------------------------------------------------------- appending

AppendStr& AppendStr::_append_slow(const char* data, size_t length) {
    // A cleared buffer taking its first bytes again: its chunk comes back
    // from the free list, and the element vector has room already. This is
    // every reply on a reused connection.
    if (_v.empty() && length <= CHUNK_SIZE && !_freeChunks.empty() && _v.capacity() != 0) {
        char* chunk = _freeChunks.back();
        _freeChunks.pop_back();
        if (length) memcpy(chunk, data, length);
        _v._v.push_back({chunk, length});  // within capacity: can't throw
        return *this;
    }
    _fillAppended(length, [&data](char* out, size_t n) {
        memcpy(out, data, n);
        data += n;
    });
    return *this;
}

void AppendStr::_push_back_new_chunk_with(char c) {
    char* chunk = _alloc_chunk();
    chunk[0] = c;
    _push_back_chunk(chunk, 1);
}

void AppendStr::_append_spanning_two_chunks(const char* data, size_t n) {
    struct iovec& last = _v.back();
    const size_t old_used = last.iov_len;
    ASSERT(old_used < CHUNK_SIZE);
    const size_t bytes_in_first_chunk = CHUNK_SIZE - old_used;
    ASSERT(bytes_in_first_chunk < n);
    const size_t bytes_in_second_chunk = n - bytes_in_first_chunk;
    ASSERT(bytes_in_second_chunk <= CHUNK_SIZE);
    char* chunk = _alloc_chunk();
    memcpy(static_cast<char*>(last.iov_base) + old_used, data, bytes_in_first_chunk);
    last.iov_len = CHUNK_SIZE;
    memcpy(chunk, data + bytes_in_first_chunk, bytes_in_second_chunk);
    try {
        _push_back_chunk(chunk, bytes_in_second_chunk);
    } catch (...) {
        _v.back().iov_len = old_used;  // as if nothing had happened
        throw;
    }
}

AppendStr& AppendStr::append(size_t count, char c) {
    _fillAppended(count, [c](char* out, size_t n) { memset(out, c, n); });
    return *this;
}

AppendStr& AppendStr::append(const UnicodeCodepoint& c) {
    const utf8_character_buffer b(c.value());
    return append(b.data(), b.size());
}

AppendStr& AppendStr::append(const AppendStr& other) {
    if (&other == this) {
        const AppendStr copy(other);
        return append(copy);
    }
    reserve(size() + other.size());
    other.forEachSegment([this](const char* p, size_t n) { append(p, n); });
    return *this;
}

// Integers go straight into the last chunk when they fit; across a chunk
// boundary they are rendered aside and split.
#define TARVEX_APPEND_INTEGER(TYPE, COUNT, RENDER)       \
    const unsigned n = COUNT(v);                         \
    if (char* room = _roomInLast(n)) {                   \
        RENDER(v, room, n);                              \
        _commitInLast(n);                                \
        return;                                          \
    }                                                    \
    char buf[24];                                        \
    RENDER(v, buf, n);                                   \
    if (_v.empty() || _v.back().iov_len == CHUNK_SIZE) { \
        append(buf, n);                                  \
    } else {                                             \
        _append_spanning_two_chunks(buf, n);             \
    }

void AppendStr::append_int32(int32_t v) {
    TARVEX_APPEND_INTEGER(int32_t, decimalCharactersI32, convertI32ToAsciiSizeKnown)
}
void AppendStr::append_uint32(uint32_t v) {
    TARVEX_APPEND_INTEGER(uint32_t, decimalCharactersU32, convertU32ToAsciiSizeKnown)
}
void AppendStr::append_int64(int64_t v) {
    TARVEX_APPEND_INTEGER(int64_t, decimalCharactersI64, convertI64ToAsciiSizeKnown)
}
void AppendStr::append_uint64(uint64_t v) {
    TARVEX_APPEND_INTEGER(uint64_t, decimalCharactersU64, convertU64ToAsciiSizeKnown)
}
#undef TARVEX_APPEND_INTEGER

void AppendStr::append_double(double v) {
    // Integers, common in real data, are their own shortest digits; -0 is not.
    constexpr double kTwoTo53 = 9007199254740992.0;
    if (v > -kTwoTo53 && v < kTwoTo53 && v == static_cast<double>(static_cast<int64_t>(v)) &&
        !(v == 0 && std::signbit(v))) {
        append_int64(static_cast<int64_t>(v));
        return;
    }
    if (std::isfinite(v)) {
        const ConvertDoubleToStringShortest c(v);
        const size_t n = c.sizeFixedPoint();
        if (n <= 100) {
            if (char* room = _roomInLast(n)) {
                c.renderFixedPointPrereserved(room);
                _commitInLast(n);
                return;
            }
        }
    }
    _allOrNothing(
        [&] { write_double_fixed_point(v, [this](const char* p, size_t n) { append(p, n); }); });
}

void AppendStr::appendReversed(const char* data, size_t length) {
    const char* p = data + length;
    _fillAppended(length, [&p](char* out, size_t n) {
        for (size_t k = 0; k < n; ++k) out[k] = *--p;
    });
}

void AppendStr::appendBase128(uint64_t v) {
    char buf[10];
    append(buf, render_base128(v, buf));
}

void AppendStr::padToAlignment(size_t align, char fill) {
    ASSERT(align != 0 && (align & (align - 1)) == 0);
    const size_t over = static_cast<size_t>(size() & (align - 1));
    if (over != 0) append(align - over, fill);
}

bool AppendStr::accumulate_appendstr(uint64_t expected, StrSegment* segment) {
    const uint64_t have = size();
    ASSERT(expected > have);
    const size_t take = static_cast<size_t>(min<uint64_t>(expected - have, segment->size()));
    append(segment->data(), take);
    segment->advanceTo(segment->data() + take);
    return have + take == expected;
}

// ---------------------------------------------------------------- formats

namespace {

class AppendStrPrintfOutput final : public PrintfOutput {
public:
    explicit AppendStrPrintfOutput(AppendStr& s) : _s(s) {}

protected:
    void emit(const char* data, size_t length) override { _s.append(data, length); }

private:
    AppendStr& _s;
};

}  // namespace

void AppendStr::appendVformat(const char* fmt, va_list args) {
    const int errnum = errno;
    va_list copy;
    va_copy(copy, args);
    try {
        _allOrNothing([&] {
            AppendStrPrintfOutput out(*this);
            printf_render(out, errnum, fmt, &copy);  // flushes at its end
        });
    } catch (...) {
        va_end(copy);
        throw;
    }
    va_end(copy);
}

void AppendStr::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    appendVformat(fmt, args);
    va_end(args);
}

void AppendStr::vformat(const char* fmt, va_list args) {
    clear();
    appendVformat(fmt, args);
}

void AppendStr::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vformat(fmt, args);
    va_end(args);
}

// ---------------------------------------------------------------- escapers

namespace {

constexpr char HEX_UPPER[] = "0123456789ABCDEF";

constexpr bool isUriUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '~';
}

}  // namespace

void AppendStr::appendUriEscaped(const char* data, size_t length) {
    _allOrNothing([&] {
        const char* run = data;
        const char* end = data + length;
        for (const char* p = data; p < end; ++p) {
            const unsigned char c = static_cast<unsigned char>(*p);
            if (isUriUnreserved(c)) continue;
            append(run, static_cast<size_t>(p - run));
            run = p + 1;
            if (c == ' ') {
                push_back('+');
            } else {
                const char esc[3] = {'%', HEX_UPPER[c >> 4], HEX_UPPER[c & 15]};
                append(esc, 3);
            }
        }
        append(run, static_cast<size_t>(end - run));
    });
}

void AppendStr::_append_one_uri_query_param(const char* key, size_t keyLength, const char* value,
                                            size_t valueLength) {
    _allOrNothing([&] {
        push_back(empty() ? '?' : '&');
        appendUriEscaped(key, keyLength);
        push_back('=');
        appendUriEscaped(value, valueLength);
    });
}

namespace {

// Bytes that need a look in JSON: under 32, '"', '\\', '<', and 0xE2 (the
// lead byte of U+2028/U+2029).
inline unsigned jsonInterestingMask16(const char* p) {
    const __m128i v = bytescan::load16(p);
    const __m128i control = _mm_cmpeq_epi8(_mm_max_epu8(v, _mm_set1_epi8(31)), _mm_set1_epi8(31));
    __m128i hits = _mm_or_si128(control, _mm_cmpeq_epi8(v, _mm_set1_epi8('"')));
    hits = _mm_or_si128(hits, _mm_cmpeq_epi8(v, _mm_set1_epi8('\\')));
    hits = _mm_or_si128(hits, _mm_cmpeq_epi8(v, _mm_set1_epi8('<')));
    hits = _mm_or_si128(hits, _mm_cmpeq_epi8(v, _mm_set1_epi8(static_cast<char>(0xE2))));
    return static_cast<unsigned>(_mm_movemask_epi8(hits));
}

inline bool jsonInteresting(unsigned char c) {
    return c < 32 || c == '"' || c == '\\' || c == '<' || c == 0xE2;
}

}  // namespace

void AppendStr::appendJsonEscaped(const char* data, size_t length) {
    _allOrNothing([&] {
        const char* end = data + length;
        const char* run = data;
        const char* p = data;
        for (;;) {
            // Find the next byte worth a look, 16 at a time.
            while (end - p >= 16) {
                const unsigned m = jsonInterestingMask16(p);
                if (m) {
                    p += __builtin_ctz(m);
                    goto found;
                }
                p += 16;
            }
            while (p < end && !jsonInteresting(static_cast<unsigned char>(*p))) ++p;
            if (p == end) break;
        found:
            const unsigned char c = static_cast<unsigned char>(*p);
            const char* replacement = nullptr;
            size_t consumed = 1;
            char buf[8];
            switch (c) {
                case '"':
                    replacement = "\\\"";
                    break;
                case '\\':
                    replacement = "\\\\";
                    break;
                case '\t':
                    replacement = "\\t";
                    break;
                case '\n':
                    replacement = "\\n";
                    break;
                case '\f':
                    replacement = "\\f";
                    break;
                case '\r':
                    replacement = "\\r";
                    break;
                case '<':
                    if (p + 1 < end && p[1] == '/') {
                        replacement = "<\\/";
                        consumed = 2;
                    }
                    break;
                case 0xE2:
                    if (end - p >= 3 && static_cast<unsigned char>(p[1]) == 0x80 &&
                        (p[2] == '\xA8' || p[2] == '\xA9')) {
                        replacement = p[2] == '\xA8' ? "\\u2028" : "\\u2029";
                        consumed = 3;
                    }
                    break;
                default:
                    if (c < 32) {
                        buf[0] = '\\', buf[1] = 'u', buf[2] = '0', buf[3] = '0';
                        buf[4] = HEX_UPPER[c >> 4] | 0x20, buf[5] = HEX_UPPER[c & 15] | 0x20;
                        buf[6] = '\0';
                        replacement = buf;
                    }
            }
            if (replacement == nullptr) {
                ++p;  // a '<' or 0xE2 that stays
                continue;
            }
            append(run, static_cast<size_t>(p - run));
            append(replacement);
            p += consumed;
            run = p;
        }
        append(run, static_cast<size_t>(end - run));
    });
}

void AppendStr::appendXmlEscaped(const char* data, size_t length, const XmlEscaping& escaping) {
    _allOrNothing([&] {
        const char* end = data + length;
        const char* run = data;
        char buf[16];
        for (const char* p = data; p < end;) {
            const unsigned char c = static_cast<unsigned char>(*p);
            const char* replacement = nullptr;
            size_t consumed = 1;
            bool drop = false;
            if (c == '&') {
                replacement = "&amp;";
            } else if (c == '<') {
                replacement = "&lt;";
            } else if (c == '>') {
                replacement = "&gt;";
            } else if (c == '"' && escaping.has(XML_ESCAPE_DOUBLE_QUOTE)) {
                replacement = "&quot;";
            } else if (c == '\'' && escaping.has(XML_ESCAPE_SINGLE_QUOTE)) {
                replacement = "&apos;";
            } else if (c < 32) {
                if (escaping.has(XML_KEEP_TAB_LF_CR) && (c == '\t' || c == '\n' || c == '\r')) {
                    // copied
                } else if (escaping.has(XML_ESCAPE_CONTROL_AS_HEX)) {
                    snprintf(buf, sizeof buf, "\\x%02X", c);
                    replacement = buf;
                } else if (c == 0) {
                    drop = true;
                } else if (escaping.has(XML_ESCAPE_CONTROL_AS_CHARREF)) {
                    snprintf(buf, sizeof buf, "&#x%X;", c);
                    replacement = buf;
                }
            } else if ((c == 0xED || c == 0xEF) && end - p >= 3) {
                const unsigned char b1 = static_cast<unsigned char>(p[1]);
                const unsigned char b2 = static_cast<unsigned char>(p[2]);
                // Surrogates and U+FFFE/U+FFFF can't stand in XML.
                const bool invalid = c == 0xED ? (b1 >= 0xA0 && b1 <= 0xBF && (b2 & 0xC0) == 0x80)
                                               : (b1 == 0xBF && (b2 == 0xBE || b2 == 0xBF));
                if (invalid) {
                    consumed = 3;
                    if (escaping.has(XML_ESCAPE_CONTROL_AS_HEX)) {
                        snprintf(buf, sizeof buf, "\\x%02X\\x%02X\\x%02X", c, b1, b2);
                        replacement = buf;
                    } else {
                        drop = true;
                    }
                }
            }
            if (replacement == nullptr && !drop) {
                ++p;
                continue;
            }
            append(run, static_cast<size_t>(p - run));
            if (replacement) append(replacement);
            p += consumed;
            run = p;
        }
        append(run, static_cast<size_t>(end - run));
    });
}

void AppendStr::appendHtmlEscaped(const char* data, size_t length) {
    _allOrNothing([&] {
        const char* end = data + length;
        const char* run = data;
        for (const char* p = data; p < end; ++p) {
            const char* replacement;
            switch (*p) {
                case '"':
                    replacement = "&quot;";
                    break;
                case '&':
                    replacement = "&amp;";
                    break;
                case '\'':
                    replacement = "&#039;";
                    break;
                case '<':
                    replacement = "&lt;";
                    break;
                case '>':
                    replacement = "&gt;";
                    break;
                default:
                    continue;
            }
            append(run, static_cast<size_t>(p - run));
            append(replacement);
            run = p + 1;
        }
        append(run, static_cast<size_t>(end - run));
    });
}

void AppendStr::appendCsvEscaped(const char* data, size_t length, const CsvEscaping& escaping) {
    _allOrNothing([&] {
        if (length == 0) {
            append("\"\"", 2);
            return;
        }
        const bool removeCr = escaping.has(CSV_REMOVE_CR);
        const uint64_t before = size();
        const char* end = data + length;
        const char* run = data;
        const char* p = data;
        // A removed CR is gone, not a reason to quote: only a CR that stays
        // counts as non-alphanumeric.
        for (; p < end; ++p) {
            if (isalnum(static_cast<unsigned char>(*p))) continue;
            if (*p != '\r' || !removeCr) break;
            append(run, static_cast<size_t>(p - run));
            run = p + 1;
        }
        append(run, static_cast<size_t>(p - run));
        if (p == end) {
            if (size() == before) append("\"\"", 2);  // nothing but CRs: still a field
            return;
        }
        // Quoted from the first byte that isn't alphanumeric to the end.
        push_back('"');
        run = p;
        for (; p < end; ++p) {
            if (*p == '"') {
                append(run, static_cast<size_t>(p + 1 - run));  // the quote, then its double
                run = p;
            } else if (*p == '\r' && escaping.has(CSV_REMOVE_CR)) {
                append(run, static_cast<size_t>(p - run));
                run = p + 1;
            }
        }
        append(run, static_cast<size_t>(end - run));
        push_back('"');
    });
}

void AppendStr::appendDroppingControlCharacters(const char* data, size_t length) {
    _allOrNothing([&] {
        const char* end = data + length;
        const char* run = data;
        for (const char* p = data; p < end; ++p) {
            if (static_cast<unsigned char>(*p) >= 32) continue;
            append(run, static_cast<size_t>(p - run));
            run = p + 1;
        }
        append(run, static_cast<size_t>(end - run));
    });
}

// ---------------------------------------------------------------- Base64

namespace {

constexpr char BASE64_ALPHABET[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr uint8_t B64_SPACE = 254, B64_PAD = 253, B64_INVALID = 255;

struct Base64DecodeTable {
    uint8_t v[256];
    constexpr Base64DecodeTable() : v{} {
        for (auto& x : v) x = B64_INVALID;
        for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(BASE64_ALPHABET[i])] = uint8_t(i);
        for (char c : {' ', '\t', '\n', '\r', '\f', '\v'})
            v[static_cast<unsigned char>(c)] = B64_SPACE;
        v[static_cast<unsigned char>('=')] = B64_PAD;
    }
};
constexpr Base64DecodeTable BASE64_DECODE;

constexpr uint32_t PADDING_SEEN = 7;

}  // namespace

void AppendStr::appendBase64Escaped(Base64EncodeState& state, const char* data, size_t length) {
    _allOrNothing([&] {
        char out[256];
        size_t used = 0;
        unsigned bits = state._bits, nbits = state._nbits;
        for (size_t i = 0; i < length; ++i) {
            bits = (bits << 8) | static_cast<unsigned char>(data[i]);
            nbits += 8;
            while (nbits >= 6) {
                nbits -= 6;
                out[used++] = BASE64_ALPHABET[(bits >> nbits) & 63];
            }
            bits &= (1u << nbits) - 1;
            if (used > sizeof out - 4) {
                append(out, used);
                used = 0;
            }
        }
        append(out, used);
        state._bits = bits;
        state._nbits = nbits;
    });
}

void AppendStr::finishBase64Escaping(Base64EncodeState& state) {
    if (state._nbits != 0) {
        char out[3];
        size_t n = 0;
        out[n++] = BASE64_ALPHABET[(state._bits << (6 - state._nbits)) & 63];
        for (unsigned missing = 6 - state._nbits; missing > 0; missing -= 2) out[n++] = '=';
        append(out, n);
    }
    state = Base64EncodeState();
}

bool AppendStr::appendBase64Unescaped(Base64DecodeState& state, const char* data, size_t length) {
    if (length == 0) return true;
    uint32_t bits = state._word & 63;
    uint32_t nbits = state._word >> 6;
    // Room for the whole result first: the loop below then takes chunks
    // from the free list only.
    reserve(size() + (nbits + uint64_t(length) * 6) / 8);
    auto store = [&] { state._word = (nbits << 6) | (bits & 63); };
    for (size_t i = 0; i < length; ++i) {
        const uint8_t v = BASE64_DECODE.v[static_cast<unsigned char>(data[i])];
        if (nbits == PADDING_SEEN) {
            if (v == B64_SPACE || v == B64_PAD) continue;
            return false;
        }
        if (v < 64) {
            bits = (bits << 6) | v;
            nbits += 6;
            if (nbits >= 8) {
                nbits -= 8;
                push_back(static_cast<char>(bits >> nbits));
                bits &= (1u << nbits) - 1;
            }
        } else if (v == B64_PAD) {
            nbits = PADDING_SEEN;
            bits = 0;
        } else if (v != B64_SPACE) {
            store();
            return false;
        }
    }
    store();
    return true;
}

// ---------------------------------------------------------------- views, moves, comparison

StrSegment AppendStr::substr(uint64_t offset, uint64_t count, Str* scratch) const {
    const uint64_t total = size();
    if (offset >= total) return StrSegment(nullptr, 0);
    count = min(count, total - offset);
    const size_t chunk = static_cast<size_t>(offset >> CHUNK_SHIFT);
    const size_t within = static_cast<size_t>(offset & (CHUNK_SIZE - 1));
    const char* base = static_cast<const char*>(_v[chunk].iov_base);
    if (within + count <= _v[chunk].iov_len) return StrSegment(base + within, count);
    scratch->clear();
    scratch->reserve(count);
    for (size_t i = chunk; count > 0; ++i) {
        const size_t from = i == chunk ? within : 0;
        const size_t n = static_cast<size_t>(min<uint64_t>(_v[i].iov_len - from, count));
        scratch->append(static_cast<const char*>(_v[i].iov_base) + from, n);
        count -= n;
    }
    return StrSegment(scratch->data(), scratch->size());
}

void AppendStr::_do_swap(AppendStr& other) noexcept {
    _v.swap(other._v);
    _freeChunks.swap(other._freeChunks);
}

void AppendStr::_stealFreeChunksFrom(AppendStr* other, size_t extra) noexcept {
    try {
        if (other->_freeChunks.capacity() > _freeChunks.capacity())
            _freeChunks.swap(other->_freeChunks);
        const size_t needed = _freeChunks.size() + other->_freeChunks.size() + extra;
        if (_freeChunks.capacity() < needed) _freeChunks.reserve(needed);
    } catch (...) {
        return;  // the chunks stay where they are
    }
    _freeChunks.insert(_freeChunks.end(), other->_freeChunks.begin(), other->_freeChunks.end());
    other->_freeChunks.clear();
}

void AppendStr::assignDestructive(AppendStr* other) noexcept {
    if (other == this) return;
    _stealFreeChunksFrom(other, _v.size() + other->_v.size());
    clear();
    if (other->_v.capacity() >= _v.capacity()) {
        _v.swap(other->_v);
    } else {
        // Ours is larger and survives; copying into it can't allocate.
        _v._v.assign(other->_v._v.begin(), other->_v._v.end());
        other->_v.clear();
    }
}

void AppendStr::appendDestructive(AppendStr* other) {
    if (other == this || other->empty()) return;
    if (empty()) {
        assignDestructive(other);
        return;
    }
    if (_v.back().iov_len == CHUNK_SIZE) {
        // Every chunk before theirs is full: their chunks join ours as they are.
        _stealFreeChunksFrom(other, other->_v.size());
        const size_t needed = _v.size() + other->_v.size();
        if (_v.capacity() < needed) _v.reserve(std::max(needed, 2 * _v.capacity()));
        _v._v.insert(_v._v.end(), other->_v._v.begin(), other->_v._v.end());
        other->_v.clear();
        // Their chunks may outnumber the free-list room reserved for ours.
        const size_t owned = _v.size() + _freeChunks.size();
        if (_freeChunks.capacity() < owned) {
            try {
                _freeChunks.reserve(owned);
            } catch (...) {
                // _free copes without the reservation.
            }
        }
        return;
    }
    // A short last chunk can't sit in the middle: copy, handing each copied
    // chunk to our free list.
    size_t copied = 0;
    try {
        for (; copied < other->_v.size(); ++copied) {
            const struct iovec& e = other->_v[copied];
            append(e.iov_base, e.iov_len);
        }
    } catch (...) {
        for (size_t i = 0; i < copied; ++i) _free(static_cast<char*>(other->_v[i].iov_base));
        other->_v._v.erase(other->_v._v.begin(), other->_v._v.begin() + long(copied));
        throw;
    }
    for (const struct iovec& e : other->_v._v) _free(static_cast<char*>(e.iov_base));
    other->_v.clear();
}

int AppendStr::compare(const AppendStr& other) const {
    const uint64_t a = size(), b = other.size();
    const uint64_t common = min(a, b);
    for (size_t i = 0; (uint64_t(i) << CHUNK_SHIFT) < common; ++i) {
        const size_t n =
            static_cast<size_t>(min<uint64_t>(CHUNK_SIZE, common - (uint64_t(i) << CHUNK_SHIFT)));
        const int c = memcmp(_v[i].iov_base, other._v[i].iov_base, n);
        if (c != 0) return c;
    }
    return a < b ? -1 : a > b ? 1 : 0;
}

// ---------------------------------------------------------------- reading and writing

ssize_t AppendStr::read(const FileDescriptor& fd, size_t wanted) {
    if (wanted == 0) return 0;
    const size_t countBefore = _v.size();
    const size_t first = _allocSpace(wanted);
    // Point the new range at the free parts of its chunks.
    struct iovec target[FileDescriptor::IOV_BATCH];
    size_t chunkOf[FileDescriptor::IOV_BATCH];
    size_t count = 0;
    size_t left = wanted;
    for (size_t i = first; i < _v.size() && left > 0 && count < FileDescriptor::IOV_BATCH; ++i) {
        const size_t n = min(CHUNK_SIZE - _v[i].iov_len, left);
        if (n == 0) continue;
        target[count] = {static_cast<char*>(_v[i].iov_base) + _v[i].iov_len, n};
        chunkOf[count++] = i;
        left -= n;
    }
    ssize_t got;
    do
        got = count == 1 ? ::read(fd.fd(), target[0].iov_base, target[0].iov_len)
                         : ::readv(fd.fd(), target, static_cast<int>(count));
    while (got < 0 && errno == EINTR);
    size_t arrived = got > 0 ? static_cast<size_t>(got) : 0;
    for (size_t k = 0; k < count && arrived > 0; ++k) {
        const size_t n = min(target[k].iov_len, arrived);
        _v[chunkOf[k]].iov_len += n;
        arrived -= n;
    }
    // Chunks that stayed empty go back to the free list.
    while (_v.size() > countBefore && _v.back().iov_len == 0) _trimFinalSegment(0);
    return got;
}

void AppendStr::_readToEnd(int fd) {
    while (read(FileDescriptor(fd), 4 * CHUNK_SIZE) > 0) {}
}

AppendStr& AppendStr::operator<<(const FileDescriptor& fd) {
    _readToEnd(fd.fd());
    return *this;
}

AppendStr& AppendStr::operator<<(const ScopedFileDescriptor& fd) {
    _readToEnd(fd.fd());
    return *this;
}

AppendStr& AppendStr::operator<<(FileStar& f) {
    FILE* file = f.get();
    for (;;) {
        char* room = _roomInLast(1);
        if (room == nullptr) {
            _push_back_chunk(_alloc_chunk(), 0);
            room = _roomInLast(1);
        }
        const size_t space = CHUNK_SIZE - _v.back().iov_len;
        const size_t n = fread(room, 1, space, file);
        _commitInLast(n);
        if (_v.back().iov_len == 0) _trimFinalSegment(0);
        if (n < space) return *this;
    }
}

AppendStr& AppendStr::operator<<(ScopedFileStar& f) { return *this << static_cast<FileStar&>(f); }

uint64_t AppendStr::read(std::istream& in, uint64_t count) {
    uint64_t total = 0;
    while (total < count && in) {
        if (_roomInLast(1) == nullptr) _push_back_chunk(_alloc_chunk(), 0);
        struct iovec& last = _v.back();
        const size_t space =
            static_cast<size_t>(min<uint64_t>(CHUNK_SIZE - last.iov_len, count - total));
        in.read(static_cast<char*>(last.iov_base) + last.iov_len,
                static_cast<std::streamsize>(space));
        const size_t n = static_cast<size_t>(in.gcount());
        last.iov_len += n;
        total += n;
        if (last.iov_len == 0) _trimFinalSegment(0);
        if (n < space) break;
    }
    return total;
}

uint64_t AppendStr::writeTo(FILE* f) const {
    uint64_t total = 0;
    for (const struct iovec& e : _v._v) {
        const size_t n = fwrite(e.iov_base, 1, e.iov_len, f);
        total += n;
        if (n < e.iov_len) break;
    }
    return total;
}

void append_stringified(Str* dest, const AppendStr& s) {
    dest->reserve(dest->size() + s.size());
    s.forEachSegment([dest](const char* p, size_t n) { dest->append(p, n); });
}

ssize_t PortableIovecCursor::writeAll(const FileDescriptor& descriptor) {
    const uint64_t total = bytesLeftToWrite();
    while (!finished()) {
        const uint64_t before = bytesLeftToWrite();
        if (!write(descriptor)) return total == before ? -1 : static_cast<ssize_t>(total - before);
        if (bytesLeftToWrite() == before) break;  // write() gave 0
    }
    return static_cast<ssize_t>(total - bytesLeftToWrite());
}

ssize_t FileDescriptor::write(const AppendStr& s) {
    PortableIovecCursor cursor;
    cursor.start(s);
    return cursor.writeAll(*this);
}

bool FileStar::write(const AppendStr& s) { return s.writeTo(get()) == s.size(); }

// ---------------------------------------------------------------- gzip

AppendStrGzipState::AppendStrGzipState(int level, int windowBits, int memLevel, int strategy) {
    _zs.initRawDeflate(level, windowBits, memLevel, strategy);
}

void AppendStrGzipState::startFile(AppendStr* out, const Timeval& mtime) {
    uint8_t header[10];
    render_gzip_member_header(header, mtime, 0);
    out->append(header, 10);
    deflateReset(&_zs.z());
    _trailer[0] = 0;
    _trailer[1] = 0;
}

void AppendStrGzipState::startFile(AppendStr* out) { startFile(out, Timeval::now()); }

// Runs deflate over the stream's present input into the free space of
// `out`'s last chunk, then new chunks, until deflate is done with it.
void AppendStrGzipState::deflateInto(AppendStr* out, int flush) {
    z_stream& z = _zs.z();
    for (;;) {
        if (out->_roomInLast(1) == nullptr) out->_push_back_chunk(out->_alloc_chunk(), 0);
        struct iovec& last = out->_v.back();
        z.next_out = static_cast<Bytef*>(last.iov_base) + last.iov_len;
        z.avail_out = static_cast<uInt>(AppendStr::CHUNK_SIZE - last.iov_len);
        const int rc = deflate(&z, flush);
        last.iov_len = AppendStr::CHUNK_SIZE - z.avail_out;
        if (rc == Z_MEM_ERROR) {
            if (last.iov_len == 0) out->_trimFinalSegment(0);
            throw std::bad_alloc();
        }
        ASSERT(rc != Z_STREAM_ERROR);
        if (rc == Z_STREAM_END) break;
        if (z.avail_out != 0 && (flush != Z_FINISH || rc == Z_BUF_ERROR)) break;
    }
    if (out->_v.back().iov_len == 0) out->_trimFinalSegment(0);
}

void AppendStrGzipState::gzip(PortableIovecCursor* source, AppendStr* out, int flushFlag) {
    ASSERT(flushFlag != Z_FINISH);
    z_stream& z = _zs.z();
    StrSegment seg;
    bool any = false;
    while (source->getSeg(&seg)) {
        any = true;
        size_t done = 0;
        while (done < seg.size()) {
            const uInt n = static_cast<uInt>(min<size_t>(seg.size() - done, UINT_MAX));
            const bool lastPiece = done + n == seg.size() && source->finished();
            z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(seg.data() + done));
            z.avail_in = n;
            try {
                deflateInto(out, lastPiece ? flushFlag : Z_NO_FLUSH);
            } catch (...) {
                source->rewindBytes(seg.size() - done - (n - z.avail_in));
                throw;
            }
            _trailer[0] = gzip_crc32(_trailer[0], seg.data() + done, n);
            _trailer[1] += n;
            done += n;
        }
    }
    if (!any && flushFlag != Z_NO_FLUSH) {
        z.next_in = nullptr;
        z.avail_in = 0;
        deflateInto(out, flushFlag);
    }
}

void AppendStrGzipState::gzip(const PortableIovec& source, AppendStr* out, int flushFlag) {
    PortableIovecCursor c(source);
    gzip(&c, out, flushFlag);
}

void AppendStrGzipState::gzip(const char* data, size_t length, AppendStr* out, int flushFlag) {
    PortableIovec v;
    if (length) v.push_back(data, length);
    gzip(v, out, flushFlag);
}

void AppendStrGzipState::gzip(const SerializedResult& source, AppendStr* out, int flushFlag) {
    PortableIovec v;
    v << source;
    gzip(v, out, flushFlag);
}

void AppendStrGzipState::gzip(const AppendStr& source, AppendStr* out, int flushFlag) {
    gzip(source.iovec(), out, flushFlag);
}

void AppendStrGzipState::endFile(AppendStr* out) {
    z_stream& z = _zs.z();
    z.next_in = nullptr;
    z.avail_in = 0;
    deflateInto(out, Z_FINISH);
    out->append(reinterpret_cast<const char*>(_trailer), 8);
}

AppendStrGunzipState::AppendStrGunzipState() : _header(_zs) {}

// One piece of input: header bytes through the machine, member data through
// inflate into `out`, footers checked. `*used` is what was consumed.
bool AppendStrGunzipState::step(const char* data, size_t length, size_t* used, AppendStr* out) {
    z_stream& z = _zs.z();
    size_t i = 0;
    while (i < length) {
        if (_inFooter > 0) {
            _footer[8 - _inFooter--] = static_cast<uint8_t>(data[i++]);
            if (_inFooter == 0) {
                uint32_t crc, count;
                memcpy(&crc, _footer, 4);
                memcpy(&count, _footer + 4, 4);
                if (crc != _crc || count != _count) {
                    *used = i;
                    return false;
                }
                _header.expectHeader();
            }
            continue;
        }
        if (_header.headerState() != DecompressingGzipStream::HEADER_COMPLETE) {
            if (!_header.feedGzipHeaderStateMachine(static_cast<uint8_t>(data[i]))) {
                *used = i;
                return false;
            }
            ++i;
            if (_header.headerState() == DecompressingGzipStream::HEADER_COMPLETE) {
                _crc = 0;
                _count = 0;
            }
            continue;
        }
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data + i));
        z.avail_in = static_cast<uInt>(min<size_t>(length - i, UINT_MAX));
        int rc;
        do {
            if (out->_roomInLast(1) == nullptr) out->_push_back_chunk(out->_alloc_chunk(), 0);
            struct iovec& last = out->_v.back();
            Bytef* start = static_cast<Bytef*>(last.iov_base) + last.iov_len;
            z.next_out = start;
            z.avail_out = static_cast<uInt>(AppendStr::CHUNK_SIZE - last.iov_len);
            rc = inflate(&z, Z_NO_FLUSH);
            const size_t produced = static_cast<size_t>(z.next_out - start);
            last.iov_len += produced;
            _crc = gzip_crc32(_crc, start, produced);
            _count += static_cast<uint32_t>(produced);
            if (last.iov_len == 0) out->_trimFinalSegment(0);
            if (rc == Z_MEM_ERROR) {
                *used = static_cast<size_t>(reinterpret_cast<const char*>(z.next_in) - data);
                throw std::bad_alloc();
            }
            if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
                *used = static_cast<size_t>(reinterpret_cast<const char*>(z.next_in) - data);
                return false;
            }
        } while (rc == Z_OK && z.avail_out == 0);
        i = static_cast<size_t>(reinterpret_cast<const char*>(z.next_in) - data);
        if (rc == Z_STREAM_END) {
            inflateReset(&z);
            _inFooter = 8;
        } else if (z.avail_in == 0) {
            continue;
        } else if (rc == Z_BUF_ERROR) {
            break;  // can't happen with input and room left; don't spin
        }
    }
    *used = i;
    return true;
}

bool AppendStrGunzipState::gunzip(PortableIovecCursor* source, AppendStr* out) {
    StrSegment seg;
    while (source->getSeg(&seg)) {
        size_t used = 0;
        bool ok;
        try {
            ok = step(seg.data(), seg.size(), &used, out);
        } catch (...) {
            source->rewindBytes(seg.size() - used);
            throw;
        }
        if (!ok) {
            source->rewindBytes(seg.size() - used);
            return false;
        }
    }
    return true;
}

bool AppendStrGunzipState::gunzip(const PortableIovec& source, AppendStr* out) {
    PortableIovecCursor c(source);
    return gunzip(&c, out);
}

bool AppendStrGunzipState::gunzip(const char* data, size_t length, AppendStr* out) {
    PortableIovec v;
    if (length) v.push_back(data, length);
    return gunzip(v, out);
}

bool AppendStrGunzipState::gunzip(const SerializedResult& source, AppendStr* out) {
    PortableIovec v;
    v << source;
    return gunzip(v, out);
}

bool AppendStrGunzipState::gunzip(const AppendStr& source, AppendStr* out) {
    return gunzip(source.iovec(), out);
}
