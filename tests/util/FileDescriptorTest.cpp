// Descriptors and streams against real pipes and files: the read and close
// policy, ownership on fdopen, output without allocating, temporary files
// and line reading on seekable and unseekable streams.

#include "util/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"
#include "util/BasicConversions.h"
#include "util/FileStar.h"

namespace {

using testsupport::ScratchDir;

TEST(FileDescriptor, ReadFillsUntilEndOfFile) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], std::string(60, 'a').data(), 60), 60);
    close(fds[1]);
    ScopedFileDescriptor r{FileDescriptor(fds[0])};
    char buf[100];
    EXPECT_EQ(r.read(buf, 100), 60);
    EXPECT_EQ(r.read(buf, 100), 0);
    EXPECT_EQ(FileDescriptor().write("", 0), 0);  // no system call, no error
    errno = 0;
    EXPECT_EQ(FileDescriptor().read(buf, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(FileDescriptor, CloseOnceAndOnlyOnce) {
    FileDescriptor closed;
    EXPECT_TRUE(closed.close());
    FileDescriptor a(open("/dev/null", O_RDONLY)), copy(a);
    EXPECT_TRUE(a.close());
    EXPECT_EQ(a.fd(), -1);
    EXPECT_TRUE(a.close());
    // The copy still holds the number: closing it is a program fault.
    EXPECT_DEATH(copy.close(), "rv \\|\\| \\(0 \\+ .*\\) != 9");

    ScopedFileDescriptor owner{FileDescriptor(open("/dev/null", O_RDONLY))}, other;
    const int held = owner.fd();
    other.claimObjectFrom(owner);
    EXPECT_FALSE(owner.valid());
    EXPECT_EQ(other.fd(), held);
    EXPECT_NE(fcntl(held, F_GETFD), -1);
}

TEST(FileDescriptor, FdopenTakesOwnership) {
    FileDescriptor fd(open("/dev/null", O_RDONLY));
    int n = fd.fd();
    FILE* f = fd.fdopen("r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(fd.fd(), -1);
    fclose(f);
    EXPECT_EQ(fcntl(n, F_GETFD), -1);

    // A mode the descriptor can't have: closed, errno kept.
    FileDescriptor ro(open("/dev/null", O_RDONLY));
    n = ro.fd();
    errno = 0;
    EXPECT_EQ(ro.fdopen("w"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fcntl(n, F_GETFD), -1);
    EXPECT_EQ(FileDescriptor().fdopen("r"), nullptr);
}

TEST(FileDescriptor, NumbersWithoutAllocating) {
    ScratchDir dir;
    Pathname path(dir / "out");
    ScopedFileDescriptor fd{FileDescriptor(path.openCreateOrReplace(Pathname::CREATE_NORMAL))};
    const double values[] = {1.5, -0.25, 1e300, -1e-300, 123456789012345678.0, 0.0, -0.0, NAN};
    std::string expected;
    {
        alloccounter::Scope noAllocations;
        for (double v : values) fd.format_double(v), fd.put(" ");
        fd.format_longlong(-9223372036854775807LL - 1);
        fd.format_unsignedlonglong(18446744073709551615ULL);
        if (alloccounter::available()) {
            EXPECT_EQ(noAllocations.allocations(), 0);
        }
    }
    for (double v : values) expected += Str::from(v) + " ";
    expected += "-922337203685477580818446744073709551615";
    EXPECT_EQ(testsupport::readFile(path), expected);
}

TEST(FileDescriptor, EtagMatchesAnIndependentEncoding) {
    ScratchDir dir;
    Pathname path(dir / "f");
    testsupport::writeFile(path, "some content");
    ASSERT_TRUE(path.setMtime(Timeval(1700000000, 123456)));
    ScopedFileDescriptor fd{path};
    FileDescriptorStat st;
    ASSERT_TRUE(fd.stat(&st));
    Str etag;
    st.appendEtag(&etag);
    std::string script =
        "import base64, os, struct, sys\n"
        "s = os.stat(sys.argv[1])\n"
        "b = struct.pack('<4Q', s.st_mtime_ns // 10**9, s.st_mtime_ns % 10**9 // 1000, "
        "s.st_ino, s.st_size)\n"
        "print('s-' + base64.b64encode(b).decode().rstrip('='))\n";
    auto r = testsupport::runProcess({"/usr/bin/python3", "-c", script, path});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(etag + "\n", r.out);
}

TEST(FileDescriptor, CopyAndFlags) {
    ScratchDir dir;
    std::string data(100000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    testsupport::writeFile(dir / "src", data);
    ScopedFileDescriptor in{Pathname(dir / "src")};
    EXPECT_EQ(fcntl(in.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_TRUE(in.copyTo(Pathname(dir / "dst")));
    EXPECT_EQ(testsupport::readFile(dir / "dst"), data);
    EXPECT_TRUE(in.setCloseOnExec(false));
    EXPECT_EQ(fcntl(in.fd(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(FileDescriptor().setCloseOnExec(true));
    EXPECT_FALSE(in.copyTo(Pathname(dir / "no/such/dir/dst")));

    FileDescriptor rw(Pathname(dir / "rw").openReadWriteOrCreate(Pathname::CREATE_NORMAL));
    EXPECT_EQ(rw.format("%d-%s", 42, "x"), 4);
    EXPECT_TRUE(rw.seek_set_and_truncate(2));
    EXPECT_EQ(rw.curPos(), 2);
    rw.close();
    EXPECT_EQ(testsupport::readFile(dir / "rw"), "42");
}

// ---------------------------------------------------------------- FileStar

std::vector<std::string> linesOf(FileStar f) {
    std::vector<std::string> lines;
    Str line("stale");
    while (f.readline(line)) lines.push_back(line);
    EXPECT_TRUE(line.empty());
    f.close();
    return lines;
}

std::vector<std::string> fromFile(const std::string& content) {
    ScratchDir dir;
    testsupport::writeFile(dir / "f", content);
    return linesOf(FileStar(fopen((dir / "f").c_str(), "r")));
}

std::vector<std::string> fromPipe(const std::string& content) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    EXPECT_EQ(write(fds[1], content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fds[1]);
    return linesOf(FileStar(fdopen(fds[0], "r")));
}

// The line rule itself goes through here in LineReaderKinds (its FILE*
// kinds); FileStarLineReader drops the lone final CR a file keeps.
TEST(FileStar, ReadlineOnFilesAndPipes) {
    using V = std::vector<std::string>;
    std::string withNul(300, 'x');
    withNul[10] = '\0';
    for (auto reader : {&fromFile, &fromPipe}) {
        EXPECT_EQ(reader(withNul + "\nnext\n"), V({withNul, "next"}));
        // The two readers differ here on purpose.
        EXPECT_EQ(reader("abc\r"), V({reader == &fromFile ? "abc\r" : "abc"}));
    }
}

TEST(FileStar, ReadAndWrite) {
    ScratchDir dir;
    FileStar f;
    ASSERT_TRUE(f.open(Pathname(dir / "f"), "w"));
    EXPECT_TRUE(f.format("%s=%d;", "n", 5));
    EXPECT_TRUE(f._fput_int(-12));
    EXPECT_TRUE(f._fput_double(-1e-300));
    char buf[4];
    EXPECT_EQ(f.read(buf, 4), -1);  // a write-only stream: an error, not end of file
    EXPECT_TRUE(f.close());
    EXPECT_EQ(testsupport::readFile(dir / "f"), "n=5;-12" + Str::from(-1e-300));
    ASSERT_TRUE(f.open(Pathname(dir / "f"), "r"));
    char all[1000];
    EXPECT_GT(f.read(all, sizeof all), 0);
    EXPECT_EQ(f.read(all, sizeof all), 0);
    f.close();
}

TEST(FileStar, TemporaryFiles) {
    ScratchDir dir;
    // The runner's own TMPDIR is put back for the tests after this one.
    const char* inherited = getenv("TMPDIR");
    const std::string saved = inherited ? inherited : "";
    const bool had = inherited != nullptr;
    Pathname tmp;
    setenv("TMPDIR", "", 1);
    EXPECT_TRUE(FileStar::decideTempDir(tmp));
    EXPECT_EQ(tmp, "/tmp");
    setenv("TMPDIR", dir.path().c_str(), 1);
    EXPECT_TRUE(FileStar::decideTempDir(tmp));
    EXPECT_EQ(tmp, dir.path());

    ScopedFileStar anonymous;
    ASSERT_TRUE(anonymous.openTemporaryFile());
    struct stat st;
    ASSERT_EQ(fstat(fileno(anonymous.get()), &st), 0);
    EXPECT_EQ(st.st_nlink, 0u);
    EXPECT_TRUE(anonymous.write("abc", 3));

    Pathname name;
    ScopedFileStar named;
    ASSERT_TRUE(named.openNamedTemporaryFile(name));
    EXPECT_TRUE(name.startsWith(Pathname(dir.path() + "/tarvextmp.").seg())) << name;
    EXPECT_TRUE(name.exists());
    EXPECT_EQ(Pathname(dir.path()).countFilesWithExt(nullptr), 1);

    // Out of descriptors: a closed FileStar and no name.
    int status = testsupport::inChild([] {
        struct rlimit rl = {3, 3};
        setrlimit(RLIMIT_NOFILE, &rl);
        Pathname n;
        FileStar f;
        bool made = f.openNamedTemporaryFile(n);
        return made || f.valid() || !n.empty() ? 1 : errno == EMFILE ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    had ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
}

}  // namespace
