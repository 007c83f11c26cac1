#include "support/WriteCounter.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {
std::atomic<int> watched_fd{-1};
std::atomic<unsigned> writes{0};
}  // namespace

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
    if (fd == watched_fd.load(std::memory_order_relaxed)) {
        writes.fetch_add(1, std::memory_order_relaxed);
    }
    return syscall(SYS_write, fd, buf, n);
}

namespace testsupport {

WriteCounter::WriteCounter(int fd) {
    writes.store(0);
    watched_fd.store(fd);
}

WriteCounter::~WriteCounter() { watched_fd.store(-1); }

unsigned WriteCounter::count() const { return writes.load(); }

}  // namespace testsupport
