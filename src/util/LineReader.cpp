#include "util/LineReader.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "libzero/assertion.h"
#include "util/Logger.h"

namespace {

Logger line_reader_log("LineReader");

void logReadFailure(size_t bytes) {
    line_reader_log.error("failed to read bytes=%lu from underlying reader",
                          static_cast<unsigned long>(bytes));
}

void dropFinalCr(Str& line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

// Where the descriptor stands, or 0 where it can't tell (pipes); errno kept.
file_offset_t currentOffset(FileDescriptor fd) {
    const int saved = errno;
    const off_t pos = fd.valid() ? ::lseek(fd.fd(), 0, SEEK_CUR) : -1;
    errno = saved;
    return pos >= 0 ? pos : 0;
}

}  // namespace

// ---------------------------------------------------------------- LineReader

LineReader::~LineReader() = default;
bool LineReader::rewind() { return false; }
int LineReader::getEncoding() const { return UTRANS_UNKNOWN; }
bool LineReader::close() { return true; }
bool LineReader::valid() const { return true; }
file_offset_t LineReader::curPos() { return -1; }
bool LineReader::getMtime(Timeval*) const { return false; }
bool LineReader::seek_set(file_offset_t) { return false; }

// ---------------------------------------------------------------- BufferedLineReader

bool BufferedLineReader::readline(Str& line) {
    line.clear();
    for (;;) {
        if (_p < _end) {
            const size_t avail = static_cast<size_t>(_end - _p);
            const char* nl = static_cast<const char*>(memchr(_p, '\n', avail));
            if (nl != nullptr) {
                line.append(_p, static_cast<size_t>(nl - _p));
                _p = const_cast<char*>(nl) + 1;
                dropFinalCr(line);
                return true;
            }
            line.append(_p, avail);
        }
        const ssize_t n = do_read(_buffer, BUFFER_SIZE);
        if (n <= 0) {
            _p = _end = _buffer;
            if (line.empty()) return false;
            dropFinalCr(line);
            return true;
        }
        _total += n;
        _p = _buffer;
        _end = _buffer + n;
    }
}

bool BufferedLineReader::rewind() {
    if (seekDirectly(0) != SEEK_MOVED) return false;
    resetBuffer(0);
    return true;
}

file_offset_t BufferedLineReader::curPos() { return _total - (_end - _p); }

bool BufferedLineReader::seek_set(file_offset_t offset) {
    ASSERT(offset >= curPos());
    if (offset <= _total) {
        _p = _end - (_total - offset);
        return true;
    }
    switch (seekDirectly(offset)) {
        case SEEK_FAILED:
            return false;
        case SEEK_MOVED:
            resetBuffer(offset);
            return true;
        default:
            break;
    }
    resetBuffer(_total);
    while (_total < offset) {
        const size_t piece = static_cast<size_t>(
            std::min<file_offset_t>(static_cast<file_offset_t>(BUFFER_SIZE), offset - _total));
        const ssize_t n = do_read(_buffer, piece);
        if (n <= 0) return false;
        _total += n;
    }
    return true;
}

// ---------------------------------------------------------------- StringLineReader

bool StringLineReader::readline(StrSegment& line) {
    if (_pos >= _text._len) return false;
    const char* start = _text._data + _pos;
    const size_t rest = _text._len - _pos;
    const char* nl = static_cast<const char*>(memchr(start, '\n', rest));
    size_t n = nl != nullptr ? static_cast<size_t>(nl - start) : rest;
    _pos += nl != nullptr ? n + 1 : n;
    if (n > 0 && start[n - 1] == '\r') --n;
    line.assign(start, n);
    return true;
}

bool StringLineReader::readline(Str& line) {
    StrSegment seg;
    if (!readline(seg)) {
        line.clear();
        return false;
    }
    line.assign(seg._data, seg._len);
    return true;
}

bool StringLineReader::rewind() {
    _pos = 0;
    return true;
}

file_offset_t StringLineReader::curPos() { return static_cast<file_offset_t>(_pos); }

bool StringLineReader::seek_set(file_offset_t offset) {
    if (offset < 0 || static_cast<uint64_t>(offset) > _text._len) return false;
    _pos = static_cast<size_t>(offset);
    return true;
}

// ---------------------------------------------------------------- AppendStrLineReader

bool AppendStrLineReader::readline(Str& line) {
    line.clear();
    const uint64_t size = _text.size();
    if (_pos >= size) return false;
    const PortableIovec& chunks = _text.iovec();
    size_t index = size_t(_pos >> AppendStr::CHUNK_SHIFT);
    size_t offset = size_t(_pos & (AppendStr::CHUNK_SIZE - 1));
    for (; index < chunks.size(); ++index, offset = 0) {
        const char* start = static_cast<const char*>(chunks[index].iov_base) + offset;
        const size_t rest = chunks[index].iov_len - offset;
        const char* nl = static_cast<const char*>(memchr(start, '\n', rest));
        if (nl != nullptr) {
            const size_t n = size_t(nl - start);
            line.append(start, n);
            _pos += n + 1;
            break;
        }
        line.append(start, rest);
        _pos += rest;
    }
    // The CR may sit at the end of the chunk before the LF's.
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

bool AppendStrLineReader::rewind() {
    _pos = 0;
    return true;
}

file_offset_t AppendStrLineReader::curPos() { return static_cast<file_offset_t>(_pos); }

bool AppendStrLineReader::seek_set(file_offset_t offset) {
    if (offset < 0 || static_cast<uint64_t>(offset) > _text.size()) return false;
    _pos = static_cast<uint64_t>(offset);
    return true;
}

// ---------------------------------------------------------------- FileStarLineReader

FileStarLineReader::FileStarLineReader(FileStar& file, bool rewindFirst)
    : _file(file), _owned(false) {
    if (rewindFirst) rewind();
}

FileStarLineReader::FileStarLineReader(const Pathname& path) : _owned(true) {
    _file.open(path, "r");
}

FileStarLineReader::~FileStarLineReader() {
    if (_owned) _file.close_saveErrno();
}

bool FileStarLineReader::readline(Str& line) {
    if (!_file.valid()) {
        line.clear();
        return false;
    }
    if (!_file.readline(line)) return false;
    // FileStar keeps a lone CR at the end of a seekable file, where the line
    // ended without LF because the data did; drop it as every reader does.
    FILE* f = _file.get();
    if (!line.empty() && line.back() == '\r' && (feof(f) || ferror(f))) {
        const int saved = errno;
        if (ftello(f) >= 0) line.pop_back();
        errno = saved;
    }
    return true;
}

bool FileStarLineReader::rewind() { return seek_set(0); }

bool FileStarLineReader::close() {
    if (_owned) return _file.close();
    _file = FileStar();
    return true;
}

bool FileStarLineReader::valid() const { return _file.valid(); }

file_offset_t FileStarLineReader::curPos() { return _file.valid() ? ftello(_file.get()) : -1; }

bool FileStarLineReader::getMtime(Timeval* out) const {
    return _file.valid() && _file.getMtime(out);
}

bool FileStarLineReader::seek_set(file_offset_t offset) {
    if (!_file.valid() || fseeko(_file.get(), offset, SEEK_SET) != 0) return false;
    clearerr(_file.get());
    return true;
}

// ---------------------------------------------------------------- FileDescriptorLineReader

FileDescriptorLineReader::FileDescriptorLineReader(FileDescriptor& fd, bool seekToStart)
    : _fd(fd), _owned(false) {
    if (seekToStart && _fd.valid()) {
        const int saved = errno;
        _fd.seek_set(0);
        errno = saved;
    }
    resetBuffer(currentOffset(_fd));
}

FileDescriptorLineReader::FileDescriptorLineReader(const Pathname& path)
    : _fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), _owned(true) {}

FileDescriptorLineReader::~FileDescriptorLineReader() {
    if (_owned) _fd.close_saveErrno();
}

bool FileDescriptorLineReader::close() {
    resetBuffer(0);
    if (_owned) return _fd.close();
    _fd.clear();
    return true;
}

bool FileDescriptorLineReader::valid() const { return _fd.valid(); }

bool FileDescriptorLineReader::getMtime(Timeval* out) const {
    return _fd.valid() && _fd.getMtime(out);
}

ssize_t FileDescriptorLineReader::do_read(void* buf, size_t size) {
    for (;;) {
        const ssize_t n = ::read(_fd.fd(), buf, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

int FileDescriptorLineReader::seekDirectly(file_offset_t offset) {
    if (::lseek(_fd.fd(), offset, SEEK_SET) >= 0) return SEEK_MOVED;
    return errno == ESPIPE ? SEEK_UNSUPPORTED : SEEK_FAILED;
}

// ---------------------------------------------------------------- GZLineReader

GZLineReader::GZLineReader(const FileDescriptor& fd) : _fd(fd), _owned(false) { start(); }

GZLineReader::GZLineReader(const Pathname& path)
    : _fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), _owned(true) {
    start();
}

GZLineReader::~GZLineReader() {
    if (_owned) _fd.close_saveErrno();
}

void GZLineReader::start() {
    if (!_fd.valid()) return;
    _start = currentOffset(_fd);
    _stream.emplace(_fd);
}

bool GZLineReader::close() {
    _stream.reset();
    resetBuffer(0);
    if (_owned) return _fd.close();
    _fd.clear();
    return true;
}

bool GZLineReader::valid() const { return _fd.valid(); }

bool GZLineReader::getMtime(Timeval* out) const { return _fd.valid() && _fd.getMtime(out); }

ssize_t GZLineReader::do_read(void* buf, size_t size) {
    if (!_stream) return -1;
    return _stream->read(buf, size);
}

int GZLineReader::seekDirectly(file_offset_t offset) {
    // Only the start of the data is a place the compressed stream can go to.
    if (offset != 0 || !_stream) return SEEK_UNSUPPORTED;
    if (::lseek(_fd.fd(), _start, SEEK_SET) < 0) {
        return errno == ESPIPE ? SEEK_UNSUPPORTED : SEEK_FAILED;
    }
    _stream.emplace(_fd);
    return SEEK_MOVED;
}

// ----------------------------------------------------------------
// ReadableUnicodeFileStarLineReader

ReadableUnicodeFileStarLineReader::ReadableUnicodeFileStarLineReader(FileStar& file)
    : _file(file), _owned(false) {
    if (_file.valid()) _stream.emplace(_file.get());
}

ReadableUnicodeFileStarLineReader::ReadableUnicodeFileStarLineReader(const Pathname& path)
    : _owned(true) {
    if (_file.open(path, "r")) _stream.emplace(_file.get());
}

ReadableUnicodeFileStarLineReader::~ReadableUnicodeFileStarLineReader() {
    _stream.reset();
    if (_owned) _file.close_saveErrno();
}

bool ReadableUnicodeFileStarLineReader::readline(Str& line) {
    if (!_stream) {
        line.clear();
        return false;
    }
    const uint64_t ends = _stream->lfLines() + _stream->crlfLines();
    if (!_stream->readLine(&line)) return false;
    // The stream keeps a CR that no LF follows; at the very end of the text
    // (no line end counted) the line rule drops it.
    if (_stream->lfLines() + _stream->crlfLines() == ends) dropFinalCr(line);
    return true;
}

bool ReadableUnicodeFileStarLineReader::rewind() {
    if (!_stream || fseeko(_file.get(), 0, SEEK_SET) != 0) return false;
    clearerr(_file.get());
    _stream.emplace(_file.get());
    return true;
}

int ReadableUnicodeFileStarLineReader::getEncoding() const {
    return _stream ? _stream->encoding() : 0;
}

bool ReadableUnicodeFileStarLineReader::close() {
    _stream.reset();
    if (_owned) return _file.close();
    _file = FileStar();
    return true;
}

bool ReadableUnicodeFileStarLineReader::valid() const { return _file.valid(); }

bool ReadableUnicodeFileStarLineReader::getMtime(Timeval* out) const {
    return _file.valid() && _file.getMtime(out);
}

// ---------------------------------------------------------------- LimitedLineReader

bool LimitedLineReader::readline(Str& line) {
    line.clear();
    line.swap(_leftover);
    if (!_fd.valid()) {
        line.clear();
        return false;
    }
    size_t searched = 0;
    for (;;) {
        const char* nl =
            static_cast<const char*>(memchr(line.data() + searched, '\n', line.size() - searched));
        if (nl != nullptr) {
            const size_t at = static_cast<size_t>(nl - line.data());
            _leftover.assign(line, at + 1);
            line.resize(at);
            return true;
        }
        searched = line.size();
        if (_limit == 0) return !line.empty();
        const size_t want = std::min(_limit, READ_SIZE);
        line.resize(searched + want);
        const ssize_t got = _fd.read(line.data() + searched, want);
        if (got != static_cast<ssize_t>(want)) {
            logReadFailure(want);
            // What came can't be trusted to be the data the limit promised.
            _limit = 0;
            line.clear();
            return false;
        }
        _limit -= want;
    }
}

bool LimitedLineReader::valid() const { return _fd.valid(); }
