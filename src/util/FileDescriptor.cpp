#include "util/FileDescriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"
#include "util/BasicConversions.h"

// ---------------------------------------------------------------- FileDescriptorStat

void FileDescriptorStat::appendEtag(Str* dest) const {
    uint64_t block[4] = {static_cast<uint64_t>(st_mtim.tv_sec),
                         static_cast<uint64_t>(st_mtim.tv_nsec / 1000),
                         static_cast<uint64_t>(st_ino), static_cast<uint64_t>(st_size)};
    Str encoded;
    Base64::encode(encoded, block, sizeof block);
    while (!encoded.empty() && encoded.back() == '=') encoded.pop_back();
    size_t esz = encoded.size();
    ASSERT(esz > 0);
    dest->append("s-").append(encoded);
}

// ---------------------------------------------------------------- closing

bool FileDescriptor::close() {
    if (_fd < 0) return true;
    bool rv = ::close(_fd) == 0;
    // clang-format off
    ASSERT(rv || (0 + errno) != EBADF);
    // clang-format on
    _fd = -1;
    return rv;
}

bool FileDescriptor::close_saveErrno() {
    int saved = errno;
    bool rv = close();
    errno = saved;
    return rv;
}

// ---------------------------------------------------------------- transfers

ssize_t FileDescriptor::read(void* buf, size_t length) {
    char* p = static_cast<char*>(buf);
    size_t total = 0;
    ssize_t last = 0;
    while (total < length) {
        last = ::read(_fd, p + total, length - total);
        if (last > 0) {
            total += static_cast<size_t>(last);
        } else if (last < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    return total != 0 ? static_cast<ssize_t>(total) : last;
}

ssize_t FileDescriptor::write(const void* buf, size_t length) {
    if (length == 0) return 0;
    const char* p = static_cast<const char*>(buf);
    size_t total = 0;
    for (;;) {
        ssize_t n = ::write(_fd, p + total, length - total);
        if (n > 0) {
            total += static_cast<size_t>(n);
            if (total == length) return static_cast<ssize_t>(total);
        } else if (n == 0) {
            return static_cast<ssize_t>(total);
        } else if (errno != EINTR) {
            return total != 0 ? static_cast<ssize_t>(total) : n;
        }
    }
}

ssize_t FileDescriptor::writev(const struct iovec* iov, unsigned count) {
    if (count <= IOV_BATCH) return ::writev(_fd, iov, static_cast<int>(count));
    ssize_t total = 0;
    for (unsigned done = 0; done < count;) {
        unsigned batch = std::min(count - done, IOV_BATCH);
        ssize_t n = ::writev(_fd, iov + done, static_cast<int>(batch));
        if (n < 0) return total != 0 ? total : n;
        total += n;
        size_t expected = 0;
        for (unsigned i = done; i < done + batch; ++i) expected += iov[i].iov_len;
        if (static_cast<size_t>(n) < expected) return total;
        done += batch;
    }
    return total;
}

// ---------------------------------------------------------------- text

ssize_t FileDescriptor::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    ssize_t rv = vformat(fmt, args);
    va_end(args);
    return rv;
}

ssize_t FileDescriptor::vformat(const char* fmt, va_list args) {
    Str text;
    text.appendVformat(fmt, args);
    return write(text.data(), text.size());
}

ssize_t FileDescriptor::put(const char* text) { return write(text, strlen(text)); }

ssize_t FileDescriptor::format_longlong(long long v) {
    char buf[24];
    return write(buf, convertI64ToAscii(v, buf));
}

ssize_t FileDescriptor::format_unsignedlonglong(unsigned long long v) {
    char buf[24];
    return write(buf, convertU64ToAscii(v, buf));
}

ssize_t FileDescriptor::format_double(double v) {
    ssize_t total = 0;
    bool failed = false;
    write_double_fixed_point(v, [&](const char* p, size_t n) {
        if (failed) return;
        ssize_t w = write(p, n);
        if (w < static_cast<ssize_t>(n)) failed = true;
        if (w > 0) total += w;
    });
    return failed && total == 0 ? -1 : total;
}

// ---------------------------------------------------------------- inspection

bool FileDescriptor::stat(FileDescriptorStat* out) const { return fstat(_fd, out) == 0; }

bool FileDescriptor::getMtime(Timeval* out) const {
    FileDescriptorStat st;
    if (!stat(&st)) return false;
    st.getMtime(out);
    return true;
}

bool FileDescriptor::getSize(long* out) const {
    FileDescriptorStat st;
    if (!stat(&st)) return false;
    *out = st.st_size;
    return true;
}

bool FileDescriptor::isReg() const {
    FileDescriptorStat st;
    return stat(&st) && S_ISREG(st.st_mode);
}

bool FileDescriptor::isDir() const {
    FileDescriptorStat st;
    return stat(&st) && S_ISDIR(st.st_mode);
}

bool FileDescriptor::chmod(unsigned mode) const { return fchmod(_fd, mode) == 0; }
bool FileDescriptor::seek_set(long offset) const { return lseek(_fd, offset, SEEK_SET) >= 0; }
bool FileDescriptor::seekEof() const { return lseek(_fd, 0, SEEK_END) >= 0; }
long FileDescriptor::curPos() const { return lseek(_fd, 0, SEEK_CUR); }
bool FileDescriptor::sync() const { return fsync(_fd) == 0; }

bool FileDescriptor::seek_set_and_truncate(long length) const {
    return seek_set(length) && ftruncate(_fd, length) == 0;
}

bool FileDescriptor::fadvise_random() const {
    return posix_fadvise(_fd, 0, 0, POSIX_FADV_RANDOM) == 0;
}

bool FileDescriptor::fadvise_sequential() const {
    return posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL) == 0;
}

namespace {

// Until the logger exists this layer has no channel of its own; a failing
// fcntl on a descriptor we hold is rare enough to say so on stderr.
void complain(const char* what) {
    int saved = errno;
    Str line;
    line.appendFormat("%s: %m\n", what);
    FileDescriptor(2).write(line.data(), line.size());
    errno = saved;
}

}  // namespace

bool FileDescriptor::setCloseOnExec(bool on) const {
    int flags = fcntl(_fd, F_GETFD);
    if (flags < 0) {
        complain("can't F_GETFD");
        return false;
    }
    int wanted = on ? flags | FD_CLOEXEC : flags & ~FD_CLOEXEC;
    if (wanted != flags && fcntl(_fd, F_SETFD, wanted) < 0) {
        complain("can't F_SETFD!");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- copying

bool FileDescriptor::copyTo(FileDescriptor dest) {
    char buf[8192];
    for (;;) {
        ssize_t n = read(buf, sizeof buf);
        if (n == 0) return true;
        if (n < 0) return false;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = dest.write(buf + done, static_cast<size_t>(n - done));
            if (w < 0) return false;
            if (w == 0) {
                errno = ENOSPC;
                return false;
            }
            done += w;
        }
    }
}

bool FileDescriptor::copyTo(const Pathname& dest) {
    ScopedFileDescriptor out(FileDescriptor(dest.openCreateOrReplace(Pathname::CREATE_NORMAL)));
    if (!out.valid()) return false;
    if (!copyTo(static_cast<FileDescriptor>(out))) return false;
    return out.close();
}

FILE* FileDescriptor::fdopen(const char* mode) {
    if (_fd < 0) return nullptr;
    FILE* f = ::fdopen(_fd, mode);
    if (f == nullptr) {
        close_saveErrno();
        return nullptr;
    }
    _fd = -1;
    return f;
}

ScopedFileDescriptor::ScopedFileDescriptor(const Pathname& path)
    : FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
