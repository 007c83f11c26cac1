#include "util/FileStar.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/single_threaded.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"
#include "util/BasicConversions.h"
#include "util/FileDescriptor.h"

bool FileStar::open(const Pathname& path, const char* mode) {
    close();
    _f = fopen(path.c_str(), mode);
    return _f != nullptr;
}

bool FileStar::close() {
    if (_f == nullptr) return true;
    bool ok = fclose(_f) == 0;
    // clang-format off
    ASSERT(ok || (0 + errno) != EBADF);
    // clang-format on
    _f = nullptr;
    return ok;
}

bool FileStar::close_saveErrno() {
    int saved = errno;
    bool ok = close();
    errno = saved;
    return ok;
}

ssize_t FileStar::read(void* buf, size_t length) {
    size_t n = fread(buf, 1, length, _f);
    if (n == 0 && length != 0) return feof(_f) ? 0 : -1;
    return static_cast<ssize_t>(n);
}

bool FileStar::write(const void* buf, size_t length) {
    return fwrite(buf, 1, length, _f) == length;
}

// The line is scanned in stdio's own buffer and appended straight into
// `line`, the way glibc's getc_unlocked macro reads that buffer (__uflow
// refills it), so zero bytes survive and nothing is copied twice. Seekable
// files and pipes differ only for a carriage return at end of file without
// a line feed: a file keeps it, a pipe drops it. Asking which one this is
// costs a system call, so it is asked only in that case.
bool FileStar::readline(Str& line) {
    line.clear();
    bool any = false, lineFeed = false;
    // A process that has never had a second thread needs no stream lock,
    // and the pair of atomic calls is an eighth of the time of a short
    // line. The flag is glibc's public promise: once false, false for good.
    const bool lock = !__libc_single_threaded;
    if (lock) flockfile(_f);
    for (;;) {
        char* p = _f->_IO_read_ptr;
        char* end = _f->_IO_read_end;
        if (p < end) {
            any = true;
            char* nl = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
            if (nl != nullptr) {
                line.append(p, static_cast<size_t>(nl - p));
                _f->_IO_read_ptr = nl + 1;
                lineFeed = true;
                break;
            }
            line.append(p, static_cast<size_t>(end - p));
            _f->_IO_read_ptr = end;
        }
        int c = __uflow(_f);
        if (c == EOF) break;
        any = true;
        if (c == '\n') {
            lineFeed = true;
            break;
        }
        line.push_back(static_cast<char>(c));
    }
    if (lock) funlockfile(_f);
    if (!line.empty() && line.back() == '\r' && (lineFeed || ftello(_f) < 0)) line.pop_back();
    return any;
}

bool FileStar::vformat(const char* fmt, va_list args) {
    Str text;
    text.appendVformat(fmt, args);
    return write(text.data(), text.size());
}

bool FileStar::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    bool ok = vformat(fmt, args);
    va_end(args);
    return ok;
}

bool FileStar::_fput_int(long long v) {
    char buf[24];
    return write(buf, convertI64ToAscii(v, buf));
}

bool FileStar::_fput_double(double v) {
    bool ok = true;
    write_double_fixed_point(v, [&](const char* p, size_t n) { ok = ok && write(p, n); });
    return ok;
}

bool FileStar::setBuf(void* buf, size_t size) {
    return setvbuf(_f, static_cast<char*>(buf), buf ? _IOFBF : _IONBF, size) == 0;
}

bool FileStar::getMtime(Timeval* out) const {
    FileDescriptorStat st;
    if (fstat(fileno(_f), &st) != 0) return false;
    st.getMtime(out);
    return true;
}

bool FileStar::hasNetworkError() const { return _f != nullptr && ferror(_f) && errno == ESTALE; }

bool FileStar::decideTempDir(Pathname& dir) {
    dir.assign(EnvironmentVariable("TMPDIR"));
    if (dir.empty()) dir = "/tmp";
    return true;
}

bool FileStar::openTemporary(Pathname* name) {
    close();
    Pathname path;
    decideTempDir(path);
    path /= "tarvextmp.XXXXXX";
    int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0) return false;
    if (name == nullptr) ::unlink(path.c_str());
    FileDescriptor d(fd);
    _f = d.fdopen("w+b");
    if (_f == nullptr) {
        if (name != nullptr) {
            int saved = errno;
            ::unlink(path.c_str());
            errno = saved;
        }
        return false;
    }
    if (name != nullptr) *name = std::move(path);
    return true;
}

bool FileStar::openTemporaryFile() { return openTemporary(nullptr); }
bool FileStar::openNamedTemporaryFile(Pathname& name) { return openTemporary(&name); }
