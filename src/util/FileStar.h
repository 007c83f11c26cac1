#pragma once
// A stdio stream as a value; null is the closed state. Output goes through
// the library's printf engine, and readline keeps zero bytes on files.

#include <stdio.h>

#include <cstdarg>

#include "util/Pathname.h"

class AppendStr;

class FileStar {
public:
    FileStar() = default;
    explicit FileStar(FILE* f) : _f(f) {}

    FILE* get() const { return _f; }
    bool valid() const { return _f != nullptr; }

    // Opens with fopen(); false leaves the value closed.
    bool open(const Pathname& path, const char* mode);
    // The same policy as FileDescriptor::close: true when already closed, and
    // a bad stream is a program fault.
    bool close();
    bool close_saveErrno();

    // fread(): the count; when nothing came, 0 at end of file and -1 on error.
    ssize_t read(void* buf, size_t length);
    // fwrite(): true when all of it was written.
    bool write(const void* buf, size_t length);
    bool write(const AppendStr& s);
    // One line without its line end; false at end of file with nothing read.
    // On a seekable file "\r\n" ends a line and a lone "\r" at the end stays;
    // on a pipe a "\r" before the end is dropped in every case.
    bool readline(Str& line);

    bool format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    bool vformat(const char* fmt, va_list args);
    // Without allocating.
    bool _fput_int(long long v);
    bool _fput_double(double v);

    bool setBuf(void* buf, size_t size);
    bool getMtime(Timeval* out) const;
    // The error flag is set and errno is ESTALE: the file was lost on a
    // network file system.
    bool hasNetworkError() const;

    // "tarvextmp.XXXXXX" in decideTempDir(), open "w+b". The first has no
    // name (unlinked before the stream exists); the second stores its name.
    bool openTemporaryFile();
    bool openNamedTemporaryFile(Pathname& name);
    // TMPDIR when set and not empty, else "/tmp"; always true.
    static bool decideTempDir(Pathname& dir);

private:
    bool openTemporary(Pathname* name);

    FILE* _f = nullptr;
};

class ScopedFileStar : public FileStar {
public:
    ScopedFileStar() = default;
    explicit ScopedFileStar(FILE* f) : FileStar(f) {}
    ~ScopedFileStar() { close_saveErrno(); }
    ScopedFileStar(const ScopedFileStar&) = delete;
    ScopedFileStar& operator=(const ScopedFileStar&) = delete;
};
