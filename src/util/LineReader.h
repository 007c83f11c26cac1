#pragma once
// Reading text line by line from any source through one interface. Every
// reader agrees on what a line is: LF ends it, one CR in front of the LF or
// at the very end of the data is dropped, and the last line needs no LF.
// (LimitedLineReader is the exception: it keeps CRs.) A read error looks
// like the end of the data; no reader raises for one.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "util/AppendStr.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/GzipStream.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Timeval.h"
#include "util/UnicodeStream.h"

typedef int64_t file_offset_t;

class LineReader {
public:
    LineReader() = default;
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    virtual ~LineReader();
    // The next line without its line end replaces `line`; false at the end.
    virtual bool readline(Str& line) = 0;
    // Back to the first line; false when the source can't go back.
    virtual bool rewind();
    // A UTRANS_ value (libzero/unicode-file-reader.h). Readers that hand out
    // the bytes as they stand know nothing of the text: UTRANS_UNKNOWN.
    virtual int getEncoding() const;
    // Lets go of the source: a source the reader opened itself is closed,
    // one it was lent is only forgotten. Afterwards the reader is invalid.
    virtual bool close();
    // Whether the source opened; an invalid reader is always at its end.
    virtual bool valid() const;
    // The offset of the next line's first byte in the source, or -1 when
    // the reader can't tell.
    virtual file_offset_t curPos();
    virtual bool getMtime(Timeval* out) const;
    // Moves so that the next line starts at `offset`.
    virtual bool seek_set(file_offset_t offset);
};

class FileBackedLineReader : public LineReader {};

// Lines out of a 16384-byte buffer that a subclass fills through do_read().
class BufferedLineReader : public FileBackedLineReader {
public:
    static constexpr size_t BUFFER_SIZE = 16384;

    BufferedLineReader() = default;

    bool readline(Str& line) override;
    // Through seekDirectly(0): only where the source can move.
    bool rewind() override;
    file_offset_t curPos() override;
    // Only forward: `offset` must not lie before curPos().
    bool seek_set(file_offset_t offset) override;

protected:
    // Up to `size` bytes: the count, 0 at the end, negative on failure.
    virtual ssize_t do_read(void* buf, size_t size) = 0;
    // Moves the source to `offset`: SEEK_MOVED, SEEK_FAILED, or
    // SEEK_UNSUPPORTED for sources that can only be read forward.
    virtual int seekDirectly(file_offset_t offset) = 0;

    static constexpr int SEEK_UNSUPPORTED = 0;
    static constexpr int SEEK_FAILED = 1;
    static constexpr int SEEK_MOVED = 2;

    // Forgets the buffered bytes; the source stands at `total`.
    void resetBuffer(file_offset_t total) {
        _p = _end = _buffer;
        _total = total;
    }

private:
    char _buffer[BUFFER_SIZE];
    char* _p = _buffer;
    char* _end = _buffer;
    file_offset_t _total = 0;  // bytes taken from the source, from offset 0 on
};

// Lines of a text in memory, which must outlive the reader.
class StringLineReader : public LineReader {
public:
    explicit StringLineReader(StrSegment text) : _text(text) {}
    // The text would be gone before the first line.
    explicit StringLineReader(Str&&) = delete;
    explicit StringLineReader(std::string&&) = delete;

    bool readline(Str& line) override;
    // The line as a view into the text, without copying; false at the end.
    bool readline(StrSegment& line);
    bool rewind() override;
    file_offset_t curPos() override;
    // Anywhere within the text, backwards too.
    bool seek_set(file_offset_t offset) override;

private:
    size_t _pos = 0;
    StrSegment _text;
};

// Lines of an AppendStr, which must outlive the reader. Lines may run
// across chunks; appending to the buffer between reads is fine.
class AppendStrLineReader : public LineReader {
public:
    explicit AppendStrLineReader(const AppendStr& text) : _text(text) {}
    explicit AppendStrLineReader(AppendStr&&) = delete;

    bool readline(Str& line) override;
    bool rewind() override;
    file_offset_t curPos() override;
    // Anywhere within the data, backwards too.
    bool seek_set(file_offset_t offset) override;

private:
    const AppendStr& _text;
    uint64_t _pos = 0;
};

// Over a stdio stream, read with FileStar::readline.
class FileStarLineReader : public FileBackedLineReader {
public:
    // Lent: the stream stays the caller's. `rewindFirst` starts at its beginning.
    explicit FileStarLineReader(FileStar& file, bool rewindFirst = false);
    // Opened with "r" and closed by the reader; invalid when that failed.
    explicit FileStarLineReader(const Pathname& path);
    ~FileStarLineReader() override;

    bool readline(Str& line) override;
    bool rewind() override;
    bool close() override;
    bool valid() const override;
    file_offset_t curPos() override;
    bool getMtime(Timeval* out) const override;
    // Through fseeko(): anywhere, backwards too, but not on pipes.
    bool seek_set(file_offset_t offset) override;

private:
    FileStar _file;
    bool _owned;
};

// Over a descriptor. Each refill takes what one read() gives, so that lines
// from a pipe come out as soon as they are written. Positions are offsets in
// the file, from where the descriptor stood (0 on a pipe).
class FileDescriptorLineReader : public BufferedLineReader {
public:
    // Lent: the descriptor stays the caller's. `seekToStart` moves a valid
    // descriptor to offset 0 first.
    explicit FileDescriptorLineReader(FileDescriptor& fd, bool seekToStart = false);
    // Opened for reading and closed by the reader; invalid when that failed,
    // with errno from open().
    explicit FileDescriptorLineReader(const Pathname& path);
    ~FileDescriptorLineReader() override;

    bool close() override;
    bool valid() const override;
    bool getMtime(Timeval* out) const override;

protected:
    ssize_t do_read(void* buf, size_t size) override;
    int seekDirectly(file_offset_t offset) override;

private:
    FileDescriptor _fd;
    bool _owned;
};

// The lines of gzip data. Positions count uncompressed bytes; they can be
// reached only by reading forward, except that rewind() starts the data
// again where the descriptor first stood. Data that is not gzip, or is cut
// short, ends the lines where it goes wrong.
class GZLineReader : public BufferedLineReader {
public:
    // Lent: the descriptor stays the caller's.
    explicit GZLineReader(const FileDescriptor& fd);
    // Opened for reading and closed by the reader.
    explicit GZLineReader(const Pathname& path);
    ~GZLineReader() override;

    bool close() override;
    bool valid() const override;
    bool getMtime(Timeval* out) const override;

protected:
    ssize_t do_read(void* buf, size_t size) override;
    int seekDirectly(file_offset_t offset) override;

private:
    void start();

    FileDescriptor _fd;
    bool _owned;
    off_t _start = 0;  // where the compressed data begins
    std::optional<ReadableGzipFileDescriptor> _stream;
};

// Lines of a Unicode text file of any UTF encoding, handed out in UTF-8
// with byte-order marks dropped and broken input as U+FFFD.
class ReadableUnicodeFileStarLineReader : public LineReader {
public:
    // Lent: the stream stays the caller's.
    explicit ReadableUnicodeFileStarLineReader(FileStar& file);
    // Opened with "r" and closed by the reader.
    explicit ReadableUnicodeFileStarLineReader(const Pathname& path);
    ~ReadableUnicodeFileStarLineReader() override;

    bool readline(Str& line) override;
    bool rewind() override;
    // The file's encoding with UTRANS_BOM when it had a mark; 0 until the
    // first line has been read.
    int getEncoding() const override;
    bool close() override;
    bool valid() const override;
    bool getMtime(Timeval* out) const override;

private:
    FileStar _file;
    bool _owned;
    std::optional<ReadableUnicodeFileStar> _stream;
};

// The lines of the next `limit` bytes of a descriptor the caller has
// positioned, such as a body inside a longer file. CRs are kept. The limit
// must be there to read: a source that ends or fails before it is an error
// that ends the lines.
class LimitedLineReader : public LineReader {
public:
    static constexpr size_t READ_SIZE = 8192;

    LimitedLineReader(FileDescriptor fd, size_t limit) : _fd(fd), _limit(limit) {}

    bool readline(Str& line) override;
    bool valid() const override;

private:
    FileDescriptor _fd;
    size_t _limit;  // bytes still to read
    Str _leftover;  // read past the last line handed out
};
