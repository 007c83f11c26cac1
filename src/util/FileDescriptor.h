#pragma once
// A file descriptor as a value, with one policy for EINTR, short transfers
// and bad descriptors. FileDescriptor does not own: it is copied freely and
// nothing closes it implicitly. ScopedFileDescriptor closes on destruction.

#include <stdio.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>

#include "util/Pathname.h"
#include "util/PrintFloatingPoint.h"

class AppendStr;
class SerializedResult;

// fstat's record with UnixStructStat's comparison, and the ETag of a file.
struct FileDescriptorStat : UnixStructStat {
    // "s-" and the Base64 (without padding) of modification time, inode and size.
    void appendEtag(Str* dest) const;
};

class FileDescriptor {
public:
    // writev() takes at most this many elements at a time.
    static constexpr unsigned IOV_BATCH = 1024;

    constexpr FileDescriptor() = default;
    constexpr explicit FileDescriptor(int fd) : _fd(fd) {}

    int fd() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    void clear() { _fd = -1; }

    // True when already closed. Closing a bad descriptor is a program fault
    // (it may be somebody else's file by now) and fails an assertion; after
    // any other failure the value is closed all the same.
    bool close();
    bool close_saveErrno();

    // Fills the buffer unless end of file or an error comes first: the
    // total, or what read() gave when nothing arrived (0 or -1).
    ssize_t read(void* buf, size_t length);
    // Writes all unless write() gives 0 or fails: the total, or -1 when
    // nothing was written.
    ssize_t write(const void* buf, size_t length);
    // Up to IOV_BATCH elements in one call, passed on as it is; more in
    // batches, stopping at the first short one.
    ssize_t writev(const struct iovec* iov, unsigned count);
    ssize_t write(const AppendStr& s);
    ssize_t write(const SerializedResult& s);

    // Through the library's printf engine, in one write().
    ssize_t format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    ssize_t vformat(const char* fmt, va_list args);
    ssize_t put(const char* text);
    // Without allocating, for paths near the crash reporter.
    ssize_t format_longlong(long long v);
    ssize_t format_unsignedlonglong(unsigned long long v);
    ssize_t format_double(double v);

    bool stat(FileDescriptorStat* out) const;
    bool getMtime(Timeval* out) const;
    bool getSize(long* out) const;
    bool isReg() const;
    bool isDir() const;
    bool chmod(unsigned mode) const;

    bool seek_set(long offset) const;
    bool seekEof() const;
    long curPos() const;
    bool sync() const;
    bool seek_set_and_truncate(long length) const;
    bool fadvise_random() const;
    bool fadvise_sequential() const;
    // Sets or clears FD_CLOEXEC, keeping the other descriptor flags.
    bool setCloseOnExec(bool on) const;

    // Copies to end of file through a stack buffer; a write of nothing is
    // ENOSPC.
    bool copyTo(FileDescriptor dest);
    bool copyTo(const Pathname& dest);

    // A stream that now owns the descriptor (this value becomes -1); on
    // failure the descriptor is closed, errno kept, and the result is null.
    FILE* fdopen(const char* mode);

    friend bool operator==(FileDescriptor a, FileDescriptor b) { return a._fd == b._fd; }

protected:
    int _fd = -1;
};

class ScopedFileDescriptor : public FileDescriptor {
public:
    ScopedFileDescriptor() = default;
    explicit ScopedFileDescriptor(FileDescriptor fd) : FileDescriptor(fd) {}
    // Opens for reading (close-on-exec); invalid when that fails.
    explicit ScopedFileDescriptor(const Pathname& path);
    ~ScopedFileDescriptor() { close_saveErrno(); }
    ScopedFileDescriptor(const ScopedFileDescriptor&) = delete;
    ScopedFileDescriptor& operator=(const ScopedFileDescriptor&) = delete;

    // Closes what it held first.
    ScopedFileDescriptor& operator=(FileDescriptor fd) {
        close();
        _fd = fd.fd();
        return *this;
    }
    void claimObjectFrom(ScopedFileDescriptor& other) {
        close();
        _fd = other._fd;
        other._fd = -1;
    }
    // Gives the descriptor up without closing it.
    int release() {
        int fd = _fd;
        _fd = -1;
        return fd;
    }
};

// The fixed-point text of a double into `sink(const char*, size_t)` without
// allocating: in one piece up to 100 bytes, else sign, digits and runs of
// zeros from a constant.
template <class Sink>
void write_double_fixed_point(double v, Sink&& sink) {
    if (!std::isfinite(v)) {
        StrSegment text;
        get_nonfinite_double_repl(&text, v);
        sink(text._data, text._len);
        return;
    }
    const ConvertDoubleToStringShortest c(v);
    size_t n = c.sizeFixedPoint();
    if (n <= 100) {
        char buf[100];
        c.renderFixedPointPrereserved(buf);
        sink(buf, n);
        return;
    }
    static const char ZEROS[] = "00000000000000000000000000000000";
    auto zeros = [&](size_t count) {
        for (; count > 0; count -= std::min<size_t>(count, 32))
            sink(ZEROS, std::min<size_t>(count, 32));
    };
    if (c._negative) sink("-", 1);
    if (c._point <= 0) {
        // Tiny: "0.", the zeros up to the first digit, the digits.
        sink("0.", 2);
        zeros(static_cast<size_t>(-c._point));
        sink(c._digits, c._length);
    } else {
        // Huge (no more than 17 digits exist): the digits, then zeros.
        sink(c._digits, c._length);
        zeros(static_cast<size_t>(c._point - c._length));
    }
}
