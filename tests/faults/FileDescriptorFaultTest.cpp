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
    int r = -1, w = -1;
    Pipe() {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        r = fds[0];
        w = fds[1];
    }
    ~Pipe() {
        disarm();
        if (r >= 0) close(r);
        if (w >= 0) close(w);
    }
    std::string drain() {
        close(w);
        w = -1;
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = ::read(r, buf, sizeof buf)) > 0) out.append(buf, n);
        return out;
    }
};

TEST(FileDescriptorFaults, WriteLoopsOverShortAndInterruptedCalls) {
    Pipe p;
    FileDescriptor fd(p.w);
    arm(p.w, {}, {shortBy(3), fail(EINTR), shortBy(2), real()});
    EXPECT_EQ(fd.write("hello world", 11), 11);
    EXPECT_EQ(writeCalls, 4);
    EXPECT_EQ(p.drain(), "hello world");
}

TEST(FileDescriptorFaults, WriteStopsAtZeroAndAtErrors) {
    {
        Pipe p;
        arm(p.w, {}, {shortBy(4), zero()});
        EXPECT_EQ(FileDescriptor(p.w).write("abcdefgh", 8), 4);
        EXPECT_EQ(p.drain(), "abcd");
    }
    {
        Pipe p;
        arm(p.w, {}, {shortBy(4), fail(EIO)});
        EXPECT_EQ(FileDescriptor(p.w).write("abcdefgh", 8), 4);
    }
    {
        Pipe p;
        arm(p.w, {}, {fail(EIO)});
        errno = 0;
        EXPECT_EQ(FileDescriptor(p.w).write("abcdefgh", 8), -1);
        EXPECT_EQ(errno, EIO);
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

std::vector<struct iovec> pieces(std::vector<std::string>& storage, size_t count) {
    std::vector<struct iovec> iov;
    for (size_t i = 0; i < count; ++i) {
        storage.push_back(std::to_string(i % 10));
    }
    for (auto& s : storage) iov.push_back({s.data(), s.size()});
    return iov;
}

TEST(FileDescriptorFaults, WritevGoesInBatchesAndStopsWhenShort) {
    {
        Pipe p;
        std::vector<std::string> storage;
        auto iov = pieces(storage, 2000);
        arm(p.w, {}, {});
        EXPECT_EQ(FileDescriptor(p.w).writev(iov.data(), 2000), 2000);
        EXPECT_EQ(writevCalls, 2);
        std::string expected;
        for (auto& s : storage) expected += s;
        EXPECT_EQ(p.drain(), expected);
    }
    {
        Pipe p;
        std::vector<std::string> storage;
        auto iov = pieces(storage, 2000);
        arm(p.w, {}, {shortBy(1000)});
        EXPECT_EQ(FileDescriptor(p.w).writev(iov.data(), 2000), 1000);
        EXPECT_EQ(writevCalls, 1);
    }
    {
        // At most one batch: one call, its result as it is, no retry.
        Pipe p;
        std::vector<std::string> storage;
        auto iov = pieces(storage, 1024);
        arm(p.w, {}, {shortBy(10)});
        EXPECT_EQ(FileDescriptor(p.w).writev(iov.data(), 1024), 10);
        EXPECT_EQ(writevCalls, 1);
    }
    {
        Pipe p;
        std::vector<std::string> storage;
        auto iov = pieces(storage, 3000);
        arm(p.w, {}, {real(), fail(EIO)});
        EXPECT_EQ(FileDescriptor(p.w).writev(iov.data(), 3000), 1024);
        EXPECT_EQ(writevCalls, 2);
    }
}

TEST(FileDescriptorFaults, CopyTurnsAZeroWriteIntoNoSpace) {
    testsupport::ScratchDir dir;
    std::string src = dir / "src";
    testsupport::writeFile(src, std::string(20000, 'x'));
    ScopedFileDescriptor in{Pathname(src)};
    Pipe p;
    arm(p.w, {}, {real(), zero()});
    errno = 0;
    EXPECT_FALSE(in.copyTo(FileDescriptor(p.w)));
    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
