#include "support/SocketIoWitness.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <mutex>

namespace socketwitness {
namespace {

std::mutex mutex;
std::set<pid_t>& seen() {
    static std::set<pid_t> s;
    return s;
}

}  // namespace

void note(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) return;
    std::lock_guard<std::mutex> lock(mutex);
    seen().insert(gettid());
}

void reset() {
    std::lock_guard<std::mutex> lock(mutex);
    seen().clear();
}

std::set<pid_t> threads() {
    std::lock_guard<std::mutex> lock(mutex);
    return seen();
}

}  // namespace socketwitness

// The system calls themselves, so that nothing else's interposition (a
// sanitizer's) is needed to reach them.
extern "C" {

ssize_t read(int fd, void* buf, size_t n) {
    socketwitness::note(fd);
    return syscall(SYS_read, fd, buf, n);
}
ssize_t readv(int fd, const struct iovec* v, int n) {
    socketwitness::note(fd);
    return syscall(SYS_readv, fd, v, n);
}
ssize_t recv(int fd, void* buf, size_t n, int flags) {
    socketwitness::note(fd);
    return syscall(SYS_recvfrom, fd, buf, n, flags, nullptr, nullptr);
}
ssize_t write(int fd, const void* buf, size_t n) {
    socketwitness::note(fd);
    return syscall(SYS_write, fd, buf, n);
}
ssize_t writev(int fd, const struct iovec* v, int n) {
    socketwitness::note(fd);
    return syscall(SYS_writev, fd, v, n);
}
ssize_t send(int fd, const void* buf, size_t n, int flags) {
    socketwitness::note(fd);
    return syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}
ssize_t sendmsg(int fd, const struct msghdr* msg, int flags) {
    socketwitness::note(fd);
    return syscall(SYS_sendmsg, fd, msg, flags);
}

}  // extern "C"
