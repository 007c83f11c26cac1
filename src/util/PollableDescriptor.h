#pragma once
// Socket and pipe descriptors as values, with the operations an event loop
// and blocking clients need. Every network failure is reported as a
// SocketError. Like FileDescriptor, nothing here owns the descriptor except
// the Scoped and pipe classes.
#include <poll.h>
#include <sys/uio.h>

#include <cstdint>

#include "util/FileDescriptor.h"
#include "util/Str.h"
#include "util/Timeval.h"

class AppendStr;
class CrashLogWriteHandler;
class SSLNetworkConnection;
class SocketAddress;

class PollableDescriptorException : public BaseException {
public:
    // The formatted text; %m is the text of `errno` at the call.
    explicit PollableDescriptorException(const char* format, ...)
        __attribute__((format(printf, 2, 3)));
};

// ---------------------------------------------------------------- SocketError

class SocketError {
public:
    enum type_t : int {
        SOCKERROR_TYPE_NONE = 0,
        SOCKERROR_TYPE_TIMEOUT = 1,
        SOCKERROR_TYPE_EOF = 2,
        SOCKERROR_TYPE_LOCAL_SHUTDOWN = 3,
        SOCKERROR_TYPE_EXCEPTION = 4,
        SOCKERROR_TYPE_ERRNO = 5,
        SOCKERROR_TYPE_OPENSSL = 6,
        SOCKERROR_TYPE_NAME_LOOKUP = 7,
        SOCKERROR_TYPE_NOT_STARTED = 8,
        SOCKERROR_TYPE_SSL_NOT_CONFIGURED = 9,
        SOCKERROR_TYPE_SSL_CHECK_FAILED = 10,
    };
    enum timeout_type_t : int {
        TIMEOUT_TYPE_READ = 0,
        TIMEOUT_TYPE_WRITE = 1,
        TIMEOUT_TYPE_CONNECT = 2,
    };

    constexpr SocketError() = default;
    constexpr SocketError(int type, long data) : _type(type), _data(data) {}

    static SocketError none() { return SocketError(); }
    static SocketError timeout(timeout_type_t t) { return SocketError(SOCKERROR_TYPE_TIMEOUT, t); }
    static SocketError eof() { return SocketError(SOCKERROR_TYPE_EOF, 0); }
    static SocketError localShutdown() { return SocketError(SOCKERROR_TYPE_LOCAL_SHUTDOWN, 0); }
    static SocketError exception() { return SocketError(SOCKERROR_TYPE_EXCEPTION, 0); }
    // The current errno.
    static SocketError fromErrno();
    static SocketError fromErrno(int errnum) { return SocketError(SOCKERROR_TYPE_ERRNO, errnum); }
    static SocketError nameLookup() { return SocketError(SOCKERROR_TYPE_NAME_LOOKUP, 0); }

    bool valid() const { return _type != SOCKERROR_TYPE_NONE; }
    int type() const { return _type; }
    long data() const { return _data; }
    bool isTimeout() const { return _type == SOCKERROR_TYPE_TIMEOUT; }
    bool isErrno() const { return _type == SOCKERROR_TYPE_ERRNO; }
    bool isEof() const { return _type == SOCKERROR_TYPE_EOF; }

    // Puts the saved errno back in errno (EIO when this is not an errno error).
    void restoreSocketError() const;

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    friend bool operator==(const SocketError&, const SocketError&) = default;

    int _type = SOCKERROR_TYPE_NONE;
    long _data = 0;
};

// The table of texts: "No error", "Read Timeout", ..., the errno's text;
// "bad SocketError type %d!" and "bad SocketError timeout type %d!" for
// values outside it. A TLS error is rendered by the hook below, which the
// TLS layer sets; without it, "TLS error %ld".
void append_stringified(Str* out, const SocketError& e);
extern void (*socket_error_tls_text)(Str* out, const SocketError& e);

// ---------------------------------------------------------------- PollableDescriptor

class PollableDescriptor : public FileDescriptor {
public:
    constexpr PollableDescriptor() = default;
    constexpr explicit PollableDescriptor(int fd) : FileDescriptor(fd) {}
    explicit PollableDescriptor(FileDescriptor fd) : FileDescriptor(fd) {}

    // Throws PollableDescriptorException "can't change non-blocking setting: %m".
    void setNonblock(bool on) const;
    // setsockopt(); false with errno on failure.
    bool setReuseAddress(bool on) const;
    bool setKeepAlive(bool on) const;
    bool setNoDelay(bool on) const;
    // Best effort: SO_SNDBUF or SO_RCVBUF (`which`), failures ignored.
    void try_setting_bufsize(int which, unsigned long size) const;

    bool listen(unsigned backlog) const;
    // The address forms; false or -1 with errno on failure.
    bool bind(const SocketAddress& address) const;
    bool connect(const SocketAddress& address) const;
    // Gives up after `timeout` (0: never): no error on success, a connect
    // timeout, or the errno of the failure. The descriptor's blocking mode
    // is as it was.
    SocketError connect(const SocketAddress& address, Interval timeout) const;
    PollableDescriptor accept(SocketAddress& peer) const;
    ssize_t recvfrom(void* buf, size_t length, SocketAddress* from) const;
    ssize_t sendto(const void* buf, size_t length, const SocketAddress& to) const;
    bool localAddress(SocketAddress* out) const;
    // Close-on-exec; invalid with errno on failure.
    PollableDescriptor accept() const;

    ssize_t readv(const struct iovec* iov, unsigned count) const;
    ssize_t sendtov(const struct iovec* iov, unsigned count) const;

    // Writes all `length` bytes within `timeout`, waiting with
    // select_for_loop when the descriptor is full: the length, or the
    // negative result of the wait, or -3 for a write error.
    ssize_t writeBlocking(const void* data, size_t length, Interval timeout) const;
    // Loops until all is written (blocking descriptors): see FileDescriptor.
    using FileDescriptor::write;
    ssize_t write(const AppendStr& s) const;

    // SO_ERROR: 0 or the pending error, which reading clears.
    int getErrorStatusAndReset() const;
    // After a non-blocking connect reported writable: the connect's result.
    SocketError finishAsyncConnect() const;

    void fill_struct_pollfd(struct pollfd* p, short events) const;

    // poll() on this descriptor alone, events 260 (write) or 195 (read). A
    // timeout of 0 waits forever. poll's result, errno kept.
    int select_for(bool forWrite, Interval timeout) const;
    int select_for_connect(Interval timeout) const { return select_for(true, timeout); }
    // select_for until an answer: 0 ready, -2 timed out, -3 failed (each
    // with a warning); EAGAIN and EINTR start the full wait again.
    int select_for_loop(bool forWrite, Interval timeout) const;

    // One read (or write) once the descriptor is ready within `timeout`;
    // the count, 0 at end of file, or -1 with `*err` set.
    ssize_t readWithTimeout(void* buf, size_t length, Interval timeout, SocketError* err) const;
    ssize_t writeWithTimeout(const void* buf, size_t length, Interval timeout,
                             SocketError* err) const;
};

class ScopedPollableDescriptor : public PollableDescriptor {
public:
    ScopedPollableDescriptor() = default;
    explicit ScopedPollableDescriptor(PollableDescriptor fd) : PollableDescriptor(fd) {}
    ~ScopedPollableDescriptor() { close_saveErrno(); }
    ScopedPollableDescriptor(const ScopedPollableDescriptor&) = delete;
    ScopedPollableDescriptor& operator=(const ScopedPollableDescriptor&) = delete;
    ScopedPollableDescriptor& operator=(PollableDescriptor fd) {
        close();
        _fd = fd.fd();
        return *this;
    }
    int release() {
        const int fd = _fd;
        _fd = -1;
        return fd;
    }
};

// The read side of a pipe as a descriptor, as event handlers receive it.
class PipeReadHandle : public PollableDescriptor {
public:
    constexpr PipeReadHandle() = default;
    constexpr explicit PipeReadHandle(int fd) : PollableDescriptor(fd) {}
    explicit PipeReadHandle(PollableDescriptor fd) : PollableDescriptor(fd) {}
};

class WritablePipe;

// Pipe ends, owned: each closes its descriptor when destroyed. A pair is
// made by makePipe(); both ends are close-on-exec.
class ReadablePipe {
public:
    ReadablePipe() = default;
    ~ReadablePipe() { close(); }
    ReadablePipe(const ReadablePipe&) = delete;
    ReadablePipe& operator=(const ReadablePipe&) = delete;

    // pipe2(O_CLOEXEC) into the two ends; false with errno, both untouched.
    static bool makePipe(ReadablePipe* r, WritablePipe* w);

    PipeReadHandle handle() const { return PipeReadHandle(_fd); }
    int fd() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    void close();
    ssize_t read(void* buf, size_t length) const;

protected:
    int _fd = -1;
};

// A read side that is non-blocking from the start, for an event loop.
class PollableReadablePipe : public ReadablePipe {
public:
    // makePipe, then the read side non-blocking; false with errno.
    static bool makePipe(PollableReadablePipe* r, WritablePipe* w);
};

class WritablePipe {
public:
    WritablePipe() = default;
    ~WritablePipe() { close(); }
    WritablePipe(const WritablePipe&) = delete;
    WritablePipe& operator=(const WritablePipe&) = delete;

    int fd() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    void close();
    ssize_t write(const void* buf, size_t length) const;

private:
    friend class ReadablePipe;
    int _fd = -1;
};

// Both ends close-on-exec, for pairs made by other means.
void setBothCloseOnExec(const ReadablePipe& r, const WritablePipe& w);
