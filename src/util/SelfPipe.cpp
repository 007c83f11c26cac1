#include "util/SelfPipe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "libzero/assertion.h"
#include "libzero/syscall-probe.h"
#include "util/Logger.h"

extern Logger eventloop_log;

namespace {

std::atomic<bool> fast_selfpipe{false};

// glibc has no eventfd2 symbol: eventfd() with flags is that call. The
// flagless system call is the fallback for kernels without it.
int make_eventfd() {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd >= 0 || errno != ENOSYS) return fd;
#ifdef SYS_eventfd
    const int old = int(syscall(SYS_eventfd, 0));
    if (old >= 0) {
        fcntl(old, F_SETFD, FD_CLOEXEC);
        fcntl(old, F_SETFL, fcntl(old, F_GETFL) | O_NONBLOCK);
    }
    return old;
#else
    return -1;
#endif
}

}  // namespace

SelfPipeException::SelfPipeException(const char* text) {
    const int errnum = errno;
    try {
        const Str s = Logger::fromFormat(errnum, "%s: about to throw a SelfPipeException: %s: %m",
                                         Thread::currentName(), text);
        _set_str(s.data(), s.size());
    } catch (...) {
        _set_str(text, strlen(text));
    }
}

SelfPipe::~SelfPipe() {
    if (_eventfd >= 0) ::close(_eventfd);
}

bool SelfPipe::enableFastVersion() {
    if (!can_safely_probe_linux_syscalls()) return false;
    const int fd = make_eventfd();
    if (fd < 0) return false;
    ::close(fd);
    fast_selfpipe.store(true);
    return true;
}

bool SelfPipe::fastVersionEnabled() { return fast_selfpipe.load(); }

void SelfPipe::setup() {
    ASSERT(_eventfd < 0 && !_write.valid());
    if (fast_selfpipe.load()) {
        _eventfd = make_eventfd();
        if (_eventfd < 0) throw SelfPipeException("can't create selfpipe");
        return;
    }
    if (!PollableReadablePipe::makePipe(&_pipe, &_write)) {
        throw SelfPipeException("can't create selfpipe");
    }
    // Triggers come under the actor list's mutex: a writer must never block
    // on a full pipe there, or the loop could not take the mutex to drain it.
    fcntl(_write.fd(), F_SETFL, fcntl(_write.fd(), F_GETFL) | O_NONBLOCK);
}

PollableDescriptor SelfPipe::readSide() const {
    return PollableDescriptor(_eventfd >= 0 ? _eventfd : _pipe.fd());
}

void SelfPipe::add_to_eventloop(EventLoop* eloop) { add_to(eloop, readSide()); }

void SelfPipe::remove_from_eventloop(EventLoop* eloop) {
    if (_pfd.isActive()) eloop->removeActivePolledFd(&_pfd);
}

void SelfPipe::trigger() const {
    thread_fence(std::memory_order_seq_cst);
    if (_eventfd >= 0) {
        const uint64_t one = 1;
        ssize_t n;
        do {
            n = ::write(_eventfd, &one, sizeof one);
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            if (errno == EAGAIN) return;
            throw SelfPipeException("error from eventfd write");
        }
        if (n != sizeof one) throw SelfPipeException("invalid return from eventfd write");
        return;
    }
    const char byte = 0;
    ssize_t n;
    do {
        n = ::write(_write.fd(), &byte, 1);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno == EAGAIN) return;  // full: the loop has a wake-up coming anyway
        throw SelfPipeException("error from selfpipe write");
    }
    if (n != 1) throw SelfPipeException("invalid return from selfpipe write");
}

bool SelfPipe::when_events(PipeReadHandle fd) {
    if (_eventfd >= 0) {
        uint64_t value;
        ssize_t n;
        do {
            n = ::read(fd.fd(), &value, sizeof value);
        } while (n < 0 && errno == EINTR);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EAGAIN) return false;
            throw SelfPipeException("error from eventfd read");
        }
        if (n != sizeof value) throw SelfPipeException("invalid partial read from eventfd read");
    } else {
        char buf[128];
        bool gotAny = false;
        for (;;) {
            const ssize_t n = ::read(fd.fd(), buf, sizeof buf);
            if (n == ssize_t(sizeof buf)) {
                gotAny = true;
                continue;
            }
            if (n > 0) break;
            if (n == 0) return true;
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                if (gotAny) break;
                return false;
            }
            if (errno == 0) {
                eventloop_log.warn("read from selfpipe returned %ld with errno==0!  Ignoring.",
                                   long(n));
                return false;
            }
            throw SelfPipeException("error from selfpipe read");
        }
    }
    // More work than one round may do: come back at the next cycle.
    if (!when_triggered()) trigger();
    return false;
}

void SelfPipe::pollForTrigger() {
    struct pollfd p {};
    p.fd = readSide().fd();
    p.events = POLLIN;
    for (;;) {
        const int rv = poll(&p, 1, -1);
        if (rv > 0) break;
        if (rv < 0 && errno != EINTR && errno != EAGAIN) {
            throw SelfPipeException("error from selfpipe poll");
        }
    }
    when_events(PipeReadHandle(p.fd));
}
