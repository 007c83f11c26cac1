// The transfer policy of FileDescriptor where the kernel won't misbehave on
// its own: short, zero, interrupted and failed calls, scripted per call.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/IoFaults.h"
#include "support/TestSupport.h"
#include "util/FileDescriptor.h"

namespace {

using namespace iofaults;

struct Pipe {
    int fds[2] = {-1, -1}, &r = fds[0], &w = fds[1];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        disarm();
        close(r);
        if (w >= 0) close(w);
    }
    std::string drain() {
        close(w);
        w = -1;
        std::string out(70000, '\0');  // more than any test writes
        out.resize(std::max<ssize_t>(0, ::read(r, out.data(), out.size())));
        return out;
    }
};

// Short and interrupted calls are continued; a zero or a failure after some
// bytes ends with the count so far, a failure before any with -1 and errno.
TEST(FileDescriptorFaults, WriteLoopsOverShortAndInterruptedCallsAndStopsAtZeroAndErrors) {
    struct Case {
        std::vector<Step> script;
        ssize_t result;
        int calls;
        const char* written;
    } cases[] = {
        {{shortBy(3), fail(EINTR), shortBy(2), real()}, 11, 4, "hello world"},
        {{shortBy(4), zero()}, 4, 2, "hell"},
        {{shortBy(4), fail(EIO)}, 4, 2, "hell"},
        {{fail(EIO)}, -1, 1, ""},
    };
    for (const Case& c : cases) {
        Pipe p;
        arm(p.w, {}, c.script);
        errno = 0;
        EXPECT_EQ(FileDescriptor(p.w).write("hello world", 11), c.result) << c.written;
        EXPECT_EQ(writeCalls, c.calls) << c.written;
        if (c.result < 0) {
            EXPECT_EQ(errno, EIO);
        }
        EXPECT_EQ(p.drain(), c.written);
    }
}

TEST(FileDescriptorFaults, ReadRepeatsOnEintrAndStopsOnErrors) {
    Pipe p;
    ASSERT_EQ(::write(p.w, "0123456789", 10), 10);
    arm(p.r, {fail(EINTR), shortBy(4), fail(EIO)}, {});
    char buf[10];
    EXPECT_EQ(FileDescriptor(p.r).read(buf, 10), 4);
    EXPECT_EQ(readCalls, 3);
    arm(p.r, {fail(EIO)}, {});
    errno = 0;
    EXPECT_EQ(FileDescriptor(p.r).read(buf, 10), -1);
    EXPECT_EQ(errno, EIO);
}

// Batches of 1024 pieces of one byte. A short batch ends the call with what
// it wrote, and so does a failure after a whole one.
TEST(FileDescriptorFaults, WritevGoesInBatchesAndStopsWhenShort) {
    struct Case {
        int pieces;
        std::vector<Step> script;
        ssize_t result;
        int calls;
    } cases[] = {
        {2000, {}, 2000, 2},
        {2000, {shortBy(1000)}, 1000, 1},
        {1024, {shortBy(10)}, 10, 1},  // at most one batch: its result as it is, no retry
        {3000, {real(), fail(EIO)}, 1024, 2},
    };
    for (const Case& c : cases) {
        Pipe p;
        std::string expected;
        for (int i = 0; i < c.pieces; ++i) expected += char('0' + i % 10);
        std::vector<struct iovec> iov;
        for (char& byte : expected) iov.push_back({&byte, 1});
        arm(p.w, {}, c.script);
        EXPECT_EQ(FileDescriptor(p.w).writev(iov.data(), c.pieces), c.result) << c.pieces;
        EXPECT_EQ(writevCalls, c.calls) << c.pieces;
        EXPECT_EQ(p.drain(), expected.substr(0, c.result)) << c.pieces;
    }
}

TEST(FileDescriptorFaults, CopyTurnsAZeroWriteIntoNoSpace) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "src", std::string(20000, 'x'));
    ScopedFileDescriptor in{Pathname(dir / "src")};
    Pipe p;
    arm(p.w, {}, {real(), zero()});
    errno = 0;
    EXPECT_FALSE(in.copyTo(FileDescriptor(p.w)));
    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
