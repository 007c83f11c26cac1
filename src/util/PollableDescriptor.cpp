#include "util/PollableDescriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>

#include "libzero/assertion.h"
#include "util/AppendStr.h"
#include "util/CrashLog.h"
#include "util/Logger.h"
#include "util/PrintfFormat.h"

namespace {

Logger pollable_log("PollableDescriptor");

const char* directionWord(bool forWrite) { return forWrite ? "write" : "read"; }

// Saves errno across a call that may change it.
struct ErrnoKeeper {
    int saved = errno;
    ~ErrnoKeeper() { errno = saved; }
};

// The fixed texts of the table; null where the text depends on the data.
const char* fixedText(const SocketError& e) {
    switch (e.type()) {
        case SocketError::SOCKERROR_TYPE_NONE:
            return "No error";
        case SocketError::SOCKERROR_TYPE_TIMEOUT:
            switch (e.data()) {
                case SocketError::TIMEOUT_TYPE_READ:
                    return "Read Timeout";
                case SocketError::TIMEOUT_TYPE_WRITE:
                    return "Write Timeout";
                case SocketError::TIMEOUT_TYPE_CONNECT:
                    return "Connect Timeout";
                default:
                    return nullptr;
            }
        case SocketError::SOCKERROR_TYPE_EOF:
            return "Connection closed by peer";
        case SocketError::SOCKERROR_TYPE_LOCAL_SHUTDOWN:
            return "Local side shutting down";
        case SocketError::SOCKERROR_TYPE_EXCEPTION:
            return "Uncaught exception";
        case SocketError::SOCKERROR_TYPE_NAME_LOOKUP:
            return "Cannot resolve hostname";
        case SocketError::SOCKERROR_TYPE_NOT_STARTED:
            return "Transaction not started";
        case SocketError::SOCKERROR_TYPE_SSL_NOT_CONFIGURED:
            return "SSL not configured on client";
        case SocketError::SOCKERROR_TYPE_SSL_CHECK_FAILED:
            return "SSL certificate check failed";
        default:
            return nullptr;
    }
}

// The gather write behind writeBlocking and PortableIovec::_writeWithTimeout.
// One writev while more than one element is left at the start, then element by
// element; EAGAIN waits for room. The descriptor is blocking again on return,
// with the errno of a failure kept.
ssize_t writeAllWithTimeout(const PollableDescriptor& d, const struct iovec* iov, size_t count,
                            Interval timeout, uint64_t total) {
    if (count == 0 || total == 0) return 0;
    d.setNonblock(true);
    ssize_t rv = static_cast<ssize_t>(total);
    uint64_t left = total;
    size_t elem = 0, into = 0;
    bool gather = count >= 2;
    while (left > 0 && elem < count) {
        const size_t rest = iov[elem].iov_len - into;
        if (rest == 0) {
            ++elem;
            into = 0;
            continue;
        }
        ssize_t n;
        if (gather) {
            const size_t batch = std::min<size_t>(count - elem, FileDescriptor::IOV_BATCH);
            n = ::writev(d.fd(), iov + elem, static_cast<int>(batch));
        } else {
            n = ::write(d.fd(), static_cast<const char*>(iov[elem].iov_base) + into,
                        static_cast<size_t>(std::min<uint64_t>(rest, left)));
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) {
                rv = -3;
                break;
            }
            const int w = d.select_for_loop(true, timeout);
            if (w < 0) {
                rv = w;
                break;
            }
            continue;
        }
        gather = false;
        left -= std::min<uint64_t>(left, static_cast<uint64_t>(n));
        for (size_t done = static_cast<size_t>(n); done > 0 && elem < count;) {
            const size_t step = std::min(done, iov[elem].iov_len - into);
            done -= step;
            into += step;
            if (into == iov[elem].iov_len) {
                ++elem;
                into = 0;
            }
        }
    }
    ErrnoKeeper keep;
    d.setNonblock(false);
    return rv;
}

}  // namespace

// ---------------------------------------------------------------- exception

PollableDescriptorException::PollableDescriptorException(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vformat(nullptr, format, args);
    va_end(args);
}

// ---------------------------------------------------------------- SocketError

void (*socket_error_tls_text)(Str* out, const SocketError& e) = nullptr;

SocketError SocketError::fromErrno() { return fromErrno(errno); }

void SocketError::restoreSocketError() const { errno = isErrno() ? static_cast<int>(_data) : EIO; }

void append_stringified(Str* out, const SocketError& e) {
    if (const char* text = fixedText(e)) {
        out->append(text);
    } else if (e.isTimeout()) {
        out->appendFormat("bad SocketError timeout type %d!", static_cast<int>(e.data()));
    } else if (e.isErrno()) {
        append_stringified(out, print_strerror{static_cast<int>(e.data())});
    } else if (e.type() == SocketError::SOCKERROR_TYPE_OPENSSL) {
        if (socket_error_tls_text != nullptr) {
            socket_error_tls_text(out, e);
        } else {
            out->appendFormat("TLS error %ld", e.data());
        }
    } else {
        out->appendFormat("bad SocketError type %d!", e.type());
    }
}

void SocketError::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    // The TLS hook may allocate: a crash report gets the number only.
    if (const char* text = fixedText(*this)) {
        h.write(text);
    } else if (isTimeout()) {
        h.format("bad SocketError timeout type %d!", static_cast<int>(_data));
    } else if (isErrno()) {
        crashlog_write(h, print_strerror{static_cast<int>(_data)});
    } else if (_type == SOCKERROR_TYPE_OPENSSL) {
        h.format("TLS error %ld", _data);
    } else {
        h.format("bad SocketError type %d!", _type);
    }
}

// ---------------------------------------------------------------- options

void PollableDescriptor::setNonblock(bool on) const {
    const int flags = fcntl(_fd, F_GETFL);
    if (flags < 0) throw PollableDescriptorException("can't change non-blocking setting: %m");
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (wanted != flags && fcntl(_fd, F_SETFL, wanted) < 0)
        throw PollableDescriptorException("can't change non-blocking setting: %m");
}

namespace {

bool setIntOption(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof value) == 0;
}

}  // namespace

bool PollableDescriptor::setReuseAddress(bool on) const {
    return setIntOption(_fd, SOL_SOCKET, SO_REUSEADDR, on);
}

bool PollableDescriptor::setKeepAlive(bool on) const {
    return setIntOption(_fd, SOL_SOCKET, SO_KEEPALIVE, on);
}

bool PollableDescriptor::setNoDelay(bool on) const {
    return setIntOption(_fd, IPPROTO_TCP, TCP_NODELAY, on);
}

void PollableDescriptor::try_setting_bufsize(int which, unsigned long size) const {
    ErrnoKeeper keep;
    setIntOption(_fd, SOL_SOCKET, which, static_cast<int>(std::min<unsigned long>(size, INT_MAX)));
}

// ---------------------------------------------------------------- connections

bool PollableDescriptor::listen(unsigned backlog) const {
    return ::listen(_fd, static_cast<int>(std::min<unsigned>(backlog, INT_MAX))) == 0;
}

PollableDescriptor PollableDescriptor::accept() const {
    int fd;
    do fd = ::accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return PollableDescriptor(fd);
}

int PollableDescriptor::getErrorStatusAndReset() const {
    int status = 0;
    socklen_t length = sizeof status;
    if (getsockopt(_fd, SOL_SOCKET, SO_ERROR, &status, &length) < 0) return errno;
    return status;
}

SocketError PollableDescriptor::finishAsyncConnect() const {
    const int status = getErrorStatusAndReset();
    return status == 0 ? SocketError::none() : SocketError::fromErrno(status);
}

// ---------------------------------------------------------------- transfers

ssize_t PollableDescriptor::readv(const struct iovec* iov, unsigned count) const {
    ssize_t n;
    do n = ::readv(_fd, iov, static_cast<int>(count));
    while (n < 0 && errno == EINTR);
    return n;
}

ssize_t PollableDescriptor::sendtov(const struct iovec* iov, unsigned count) const {
    struct msghdr msg = {};
    msg.msg_iov = const_cast<struct iovec*>(iov);
    msg.msg_iovlen = count;
    ssize_t n;
    // A vanished peer is an EPIPE for the caller, not a signal for the process.
    do n = ::sendmsg(_fd, &msg, MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    return n;
}

ssize_t PollableDescriptor::writeBlocking(const void* data, size_t length, Interval timeout) const {
    const struct iovec one = {const_cast<void*>(data), length};
    return writeAllWithTimeout(*this, &one, 1, timeout, length);
}

ssize_t PollableDescriptor::write(const AppendStr& s) const { return FileDescriptor(_fd).write(s); }

ssize_t PortableIovec::_writeWithTimeout(const PollableDescriptor& descriptor, Interval timeout,
                                         uint64_t total) const {
    return writeAllWithTimeout(descriptor, data(), size(), timeout, total);
}

bool PortableIovecCursor::write(const PollableDescriptor& descriptor) {
    return write(static_cast<const FileDescriptor&>(descriptor));
}

bool PortableIovecCursor::write(const WritablePipe& pipe) {
    return write(FileDescriptor(pipe.fd()));
}

ssize_t AppendStr::read(const PollableDescriptor& fd, size_t wanted) {
    return read(static_cast<const FileDescriptor&>(fd), wanted);
}

// ---------------------------------------------------------------- waiting

void PollableDescriptor::fill_struct_pollfd(struct pollfd* p, short events) const {
    p->fd = _fd;
    p->events = events;
    p->revents = 0;
}

int PollableDescriptor::select_for(bool forWrite, Interval timeout) const {
    struct pollfd p;
    static_assert((POLLOUT | POLLWRNORM) == 260 &&
                  (POLLIN | POLLPRI | POLLRDNORM | POLLRDBAND) == 195);
    fill_struct_pollfd(
        &p, forWrite ? POLLOUT | POLLWRNORM : POLLIN | POLLPRI | POLLRDNORM | POLLRDBAND);
    // poll() takes 32 bits: the unbounded interval becomes -1 like 0 does.
    const int ms = timeout.isZero() ? -1 : static_cast<int>(static_cast<uint32_t>(timeout.ms()));
    return poll(&p, 1, ms);
}

int PollableDescriptor::select_for_loop(bool forWrite, Interval timeout) const {
    const char* word = directionWord(forWrite);
    if (!valid()) {
        pollable_log.warn("select_for called with invalid descriptor for %s", word);
        errno = EBADF;
        return -3;
    }
    for (;;) {
        const int ret = select_for(forWrite, timeout);
        if (ret > 0) {
            ASSERT(ret == 1);
            return 0;
        }
        if (ret == 0) {
            pollable_log.warn("select_for timeout hit waiting for %s", word);
            return -2;
        }
        if (errno == EAGAIN || errno == EINTR) continue;
        pollable_log.warn("select_for failed for %s with :%d", word, errno);
        return -3;
    }
}

ssize_t PollableDescriptor::readWithTimeout(void* buf, size_t length, Interval timeout,
                                            SocketError* err) const {
    const int w = select_for_loop(false, timeout);
    if (w < 0) {
        *err = w == -2 ? SocketError::timeout(SocketError::TIMEOUT_TYPE_READ)
                       : SocketError::fromErrno();
        return -1;
    }
    ssize_t n;
    do n = ::read(_fd, buf, length);
    while (n < 0 && errno == EINTR);
    if (n < 0) *err = SocketError::fromErrno();
    if (n == 0 && length > 0) *err = SocketError::eof();
    return n;
}

ssize_t PollableDescriptor::writeWithTimeout(const void* buf, size_t length, Interval timeout,
                                             SocketError* err) const {
    const int w = select_for_loop(true, timeout);
    if (w < 0) {
        *err = w == -2 ? SocketError::timeout(SocketError::TIMEOUT_TYPE_WRITE)
                       : SocketError::fromErrno();
        return -1;
    }
    ssize_t n;
    do n = ::write(_fd, buf, length);
    while (n < 0 && errno == EINTR);
    if (n < 0) *err = SocketError::fromErrno();
    return n;
}

// ---------------------------------------------------------------- pipes

bool ReadablePipe::makePipe(ReadablePipe* r, WritablePipe* w) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) < 0) return false;
    r->close();
    w->close();
    r->_fd = fds[0];
    w->_fd = fds[1];
    return true;
}

bool PollableReadablePipe::makePipe(PollableReadablePipe* r, WritablePipe* w) {
    if (!ReadablePipe::makePipe(r, w)) return false;
    const int flags = fcntl(r->_fd, F_GETFL);
    if (flags >= 0 && fcntl(r->_fd, F_SETFL, flags | O_NONBLOCK) == 0) return true;
    ErrnoKeeper keep;
    r->close();
    w->close();
    return false;
}

void ReadablePipe::close() {
    FileDescriptor(_fd).close_saveErrno();
    _fd = -1;
}

ssize_t ReadablePipe::read(void* buf, size_t length) const {
    ssize_t n;
    do n = ::read(_fd, buf, length);
    while (n < 0 && errno == EINTR);
    return n;
}

void WritablePipe::close() {
    FileDescriptor(_fd).close_saveErrno();
    _fd = -1;
}

ssize_t WritablePipe::write(const void* buf, size_t length) const {
    ssize_t n;
    do n = ::write(_fd, buf, length);
    while (n < 0 && errno == EINTR);
    return n;
}

void setBothCloseOnExec(const ReadablePipe& r, const WritablePipe& w) {
    FileDescriptor(r.fd()).setCloseOnExec(true);
    FileDescriptor(w.fd()).setCloseOnExec(true);
}
