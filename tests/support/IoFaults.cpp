#include "support/IoFaults.h"

#include <dlfcn.h>
#include <errno.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

namespace iofaults {

int readCalls = 0;
int writeCalls = 0;
int writevCalls = 0;

namespace {

int armedFd = -1;
std::vector<Step> readScript, writeScript;
size_t readNext = 0, writeNext = 0;

template <class F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using ReadFn = ssize_t (*)(int, void*, size_t);
using WriteFn = ssize_t (*)(int, const void*, size_t);
using WritevFn = ssize_t (*)(int, const struct iovec*, int);

ReadFn realRead() {
    static ReadFn f = next<ReadFn>("read");
    return f;
}
WriteFn realWrite() {
    static WriteFn f = next<WriteFn>("write");
    return f;
}
WritevFn realWritev() {
    static WritevFn f = next<WritevFn>("writev");
    return f;
}

}  // namespace

void arm(int fd, std::vector<Step> reads, std::vector<Step> writes) {
    readScript = std::move(reads);
    writeScript = std::move(writes);
    readNext = writeNext = 0;
    readCalls = writeCalls = writevCalls = 0;
    armedFd = fd;
}

void disarm() { armedFd = -1; }

}  // namespace iofaults

using namespace iofaults;

namespace {

// The next scripted step for a call on the armed descriptor: `real(limit)`
// makes the real call with at most `limit` bytes.
template <class Real>
ssize_t scripted(const std::vector<Step>& script, size_t& next, size_t n, Real real) {
    if (next >= script.size()) return real(n);
    Step s = script[next++];
    switch (s.kind) {
        case Step::SHORT:
            return real(std::min(n, s.limit));
        case Step::ZERO:
            return 0;
        case Step::FAIL:
            errno = s.error;
            return -1;
        default:
            return real(n);
    }
}

}  // namespace

extern "C" ssize_t read(int fd, void* buf, size_t n) {
    if (fd != armedFd) return realRead()(fd, buf, n);
    ++readCalls;
    return scripted(readScript, readNext, n, [&](size_t m) { return realRead()(fd, buf, m); });
}

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
    if (fd != armedFd) return realWrite()(fd, buf, n);
    ++writeCalls;
    return scripted(writeScript, writeNext, n, [&](size_t m) { return realWrite()(fd, buf, m); });
}

extern "C" ssize_t writev(int fd, const struct iovec* iov, int count) {
    if (fd != armedFd) return realWritev()(fd, iov, count);
    ++writevCalls;
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    return scripted(writeScript, writeNext, total, [&](size_t limit) {
        // Only the elements that fit in the limit, the last one cut.
        std::vector<struct iovec> cut;
        for (int i = 0; i < count && limit > 0; ++i) {
            size_t take = std::min(limit, iov[i].iov_len);
            cut.push_back({iov[i].iov_base, take});
            limit -= take;
        }
        return realWritev()(fd, cut.data(), static_cast<int>(cut.size()));
    });
}
