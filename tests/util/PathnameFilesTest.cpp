// Pathname against the real file system: creation modes, times, directories,
// and the file system queries checked against stat -f, findmnt and df.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <thread>

#include "support/TestSupport.h"
#include "util/BasicConversions.h"
#include "util/Pathname.h"

namespace {

using testsupport::inChildAs;
using testsupport::kUnprivilegedGid;
using testsupport::kUnprivilegedUid;
using testsupport::runProcess;
using testsupport::ScratchDir;

mode_t modeOf(const Pathname& p) {
    struct stat st;
    EXPECT_TRUE(p.stat(&st)) << p;
    return st.st_mode & 07777;
}

// The text holds `part`; the failure shows the whole text.
testing::AssertionResult holds(const Str& text, const std::string& part) {
    if (text.find(part.c_str()) != Str::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << text << "\" lacks \"" << part << "\"";
}

std::string shell(const std::string& cmd) {
    auto r = runProcess({"/bin/sh", "-c", cmd});
    EXPECT_EQ(r.exitStatus, 0) << cmd << ": " << r.err;
    while (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
    return r.out;
}

// Each test in its own directory.
class PathnameFiles : public testing::Test {
protected:
    ScratchDir dir;
    const Pathname d{dir.path()};
};

TEST_F(PathnameFiles, CreateModesAndTypes) {
    umask(022);
    const Pathname f = d / "f", ro = d / "ro", link = d / "link", hard = d / "hard",
                   fifo = d / "fifo";
    EXPECT_FALSE(Pathname("").exists());
    EXPECT_EQ(f.getFileType(), Pathname::FILETYPE_NONE);
    int fd = f.openCreateOnly(Pathname::CREATE_PRIVATE);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    EXPECT_EQ(modeOf(f), 0600u);
    EXPECT_LT(f.openCreateOnly(Pathname::CREATE_NORMAL), 0);
    EXPECT_EQ(errno, EEXIST);

    fd = f.openCreateOrAppend(Pathname::CREATE_NORMAL);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    close(fd);
    long size = -1;
    EXPECT_TRUE(f.getSize(&size));
    EXPECT_EQ(size, 5);
    close(f.openCreateOrReplace(Pathname::CREATE_NORMAL));
    EXPECT_TRUE(f.isZeroLengthFile());

    close(ro.openReadWriteOrCreate(Pathname::CREATE_READONLY_PRIVATE));
    EXPECT_EQ(modeOf(ro), 0440u);

    EXPECT_EQ(f.getFileType(), Pathname::FILETYPE_REGULAR);
    EXPECT_EQ(d.getFileType(), Pathname::FILETYPE_DIRECTORY);
    EXPECT_EQ(Pathname("/dev/null").getFileType(), Pathname::FILETYPE_OTHER);
    EXPECT_TRUE(f.symlinkTo(link));
    EXPECT_TRUE(link.isSymlink());
    EXPECT_TRUE(f.hardlinkTo(hard));
    UnixStructStat a, b;
    ASSERT_TRUE(f.stat(&a) && hard.stat(&b));
    EXPECT_TRUE(a == b);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(fifo.isFifo());
}

TEST_F(PathnameFiles, TimesAndWriteBits) {
    const Pathname f = d / "f";
    close(f.openCreateOnly(Pathname::CREATE_NORMAL));
    EXPECT_TRUE(f.setMtime(Timeval(1000000000, 250000)));
    Timeval m;
    EXPECT_TRUE(f.getMtime(&m));
    EXPECT_EQ(m, Timeval(1000000000, 250000));
    struct stat st;
    ASSERT_TRUE(f.stat(&st));
    EXPECT_GT(st.st_atime, 1600000000);  // the access time became now

    // Root writes anything, so the bits are checked by an ordinary user.
    for (const Pathname& p : {d, f})
        ASSERT_EQ(chown(p.c_str(), kUnprivilegedUid, kUnprivilegedGid), 0);
    const int status = inChildAs(kUnprivilegedUid, kUnprivilegedGid, [&] {
        if (!f.makeReadOnly() || f.w_ok() || modeOf(f) != 0444) return 1;
        return !f.makeWriteable() || !f.w_ok() || modeOf(f) != 0644 ? 2 : 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(PathnameFiles, MkdirP) {
    Pathname deep = d / "a/b//c/";
    EXPECT_TRUE(deep.mkdir_p(Pathname::MKDIR_GROUP));
    EXPECT_TRUE(deep.isDirectory());
    EXPECT_TRUE(deep.mkdir_p(Pathname::MKDIR_GROUP));
    EXPECT_TRUE(Pathname("").mkdir_p(Pathname::MKDIR_PRIVATE));
    EXPECT_TRUE(Pathname("/").mkdir_p(Pathname::MKDIR_PRIVATE));

    // A file in the way is EEXIST, not success.
    Pathname file = d / "file";
    close(file.openCreateOnly(Pathname::CREATE_NORMAL));
    for (const Pathname& p : {file / "x", file}) {
        errno = 0;
        EXPECT_FALSE(p.mkdir_p(Pathname::MKDIR_PRIVATE)) << p;
        EXPECT_EQ(errno, EEXIST) << p;
    }

    // Many threads racing for one tree all succeed.
    Pathname race = d / "r/s/t/u";
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] { failures += !race.mkdir_p(Pathname::MKDIR_NORMAL); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures, 0);

    Pathname locked = d / "locked";
    ASSERT_TRUE(locked.mkdir(Pathname::MKDIR_NORMAL));  // 0755, owned by root
    const int status = inChildAs(kUnprivilegedUid, kUnprivilegedGid, [&] {
        errno = 0;
        return (locked / "a/b/c").mkdir_p(Pathname::MKDIR_PRIVATE) ? 1 : errno == EACCES ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(PathnameFiles, CountsEntriesByExtension) {
    for (const char* name : {"a.log", "b.log", "c.txt", "dlog", "e.log"})
        close((d / name).openCreateOnly(Pathname::CREATE_NORMAL));
    Pathname log(".log");
    EXPECT_EQ(d.countFilesWithExt(&log), 3);
    EXPECT_EQ(d.countFilesWithExt(&log, 2), 2);
    EXPECT_EQ(d.countFilesWithExt(nullptr), 5);
    EXPECT_EQ((d / "none").countFilesWithExt(nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PathnameFiles, Realpath) {
    const Pathname target = d / "t", link = d / "l";
    ASSERT_TRUE(target.mkdir(Pathname::MKDIR_NORMAL));
    ASSERT_TRUE(target.symlinkTo(link));
    Pathname resolved = link / "../l/.";
    ASSERT_TRUE(resolved.realpathInPlace());
    Pathname expected;
    ASSERT_TRUE(target.realpath(expected));
    EXPECT_EQ(resolved, expected);
    EXPECT_FALSE(Pathname(dir.path() + "/missing/x").realpath(expected));

    PathnameVector existing;
    Pathname words(target.shellQuoted() + " '" + dir.path() + "/missing' " + link.shellQuoted());
    words.splitShellQuotedIntoExists(existing);
    EXPECT_EQ(existing, PathnameVector({target, link}));
}

// ---------------------------------------------------------------- file systems

TEST(PathnameFilesystems, SpaceAndConstantsAgreeWithStatFAndTheMountTable) {
    // The disk types a build tree is likely on; others go to the fstab.
    const std::map<std::string, std::string> known = {
        {"ef53", "ext4"}, {"58465342", "xfs"}, {"6969", "nfs"}};
    for (const char* path : {"/tmp", "/dev/shm", TARVEX_TEST_SCRATCH}) {
        SCOPED_TRACE(path);
        long forUser = -1, free = -1, capacity = -1;
        StrVector errors;
        ASSERT_TRUE(Pathname(path).wrap__statfs_or_statvfs(&forUser, &free, &capacity, &errors));
        std::istringstream in(shell(std::string("stat -f -c '%b %S %a %f %t' ") + path));
        long blocks, bsize, avail, bfree;
        std::string magic;
        in >> blocks >> bsize >> avail >> bfree >> magic;
        EXPECT_EQ(capacity, blocks * bsize);
        // Other writers move the free counts between the two readings.
        EXPECT_NEAR(forUser, avail * bsize, 256 << 20);
        EXPECT_NEAR(free, bfree * bsize, 256 << 20);
        EXPECT_GE(free, forUser);

        FilesystemConstants fc;
        EXPECT_TRUE(Pathname(path).getFilesystemConstants(&fc, &errors)) << errors.toString();
        EXPECT_EQ(fc.mount_point,
                  shell(std::string("findmnt -n -o TARGET -T ") + path + " | head -1"));
        EXPECT_EQ(fc.capacity, capacity);
        if (known.count(magic)) {
            EXPECT_EQ(fc.fs_type, known.at(magic));
            EXPECT_TRUE(errors.empty()) << errors.toString();
        } else {
            // Unknown to the table: looked up in the fstab, which containers leave empty.
            ASSERT_FALSE(errors.empty());
            EXPECT_TRUE(holds(errors[0], "Failed to interpret f_type=" + magic));
        }
    }
    StrVector errors;
    EXPECT_FALSE(
        Pathname("/no/such/dir").wrap__statfs_or_statvfs(nullptr, nullptr, nullptr, &errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(holds(errors[0], "wrap__statfs_or_statvfs:"));
    EXPECT_TRUE(holds(errors[0], "Failed to statfs(2): No such file or directory"));
    FilesystemConstants fc;
    fc.capacity = 5;
    errors.clear();
    EXPECT_FALSE(Pathname("/no/such/path").getFilesystemConstants(&fc, &errors));
    ASSERT_FALSE(errors.empty());
    EXPECT_TRUE(holds(errors[0],
                      "Failed to initial stat(2) of ancestorDir='/no/such/path': No such "
                      "file or directory"));
    EXPECT_EQ(Str::from(fc), "{capacity=0 fs_type= mount_point=}");
}

TEST(PathnameFilesystems, FstabLookupForUnknownTypes) {
    ScratchDir dir;
    std::string fstab = dir / "fstab";
    testsupport::writeFile(fstab,
                           "# comment /dev/shm wrongfs\n"
                           "   # indented comment\n"
                           "\n"
                           "none\t/dev/shm  tmpfs  defaults 0 0\n"
                           "proc /proc proc\n"
                           "dos /crlf crlffs\r\n"
                           "last /unterminated lastfs");
    const char* saved = Pathname::fstab_path;
    Pathname::fstab_path = fstab.c_str();
    char type[17] = {};
    StrVector errors;
    EXPECT_TRUE(Pathname("/dev/shm").get__fs_type(Pathname("/dev/shm"), type, &errors));
    EXPECT_STREQ(type, "tmpfs");
    EXPECT_EQ(errors.size(), 1u);

    errors.clear();
    EXPECT_TRUE(Pathname("/dev/shm").get__fs_type(Pathname("/elsewhere"), type, &errors));
    EXPECT_STREQ(type, "");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(holds(errors[1],
                      "Failed to find mountPoint='/elsewhere' in /etc/fstab of=5 "
                      "noncomment lines"));

    // A CR before the line end is not part of the last field; the last line
    // needs no line end.
    for (const char* mount : {"/crlf", "/unterminated"}) {
        errors.clear();
        EXPECT_TRUE(Pathname("/dev/shm").get__fs_type(Pathname(mount), type, &errors));
        EXPECT_STREQ(type, mount[1] == 'c' ? "crlffs" : "lastfs");
    }

    Pathname::fstab_path = "/no/such/fstab";
    errors.clear();
    EXPECT_TRUE(Pathname("/dev/shm").get__fs_type(Pathname("/dev/shm"), type, &errors));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(holds(errors[1], "Failed to stat /etc/fstab, mountPoint='/dev/shm'"));
    Pathname::fstab_path = saved;
}

TEST(PathnameFilesystems, AcrossDevices) {
    ScratchDir tmp;  // under the build tree, never on /dev/shm
    Pathname onDisk = Pathname(tmp.path()) / "f";
    close(onDisk.openCreateOnly(Pathname::CREATE_NORMAL));
    Pathname inMemory("/dev/shm/tarvex-exdev-test");
    inMemory.unlink();
    StrVector errors;
    EXPECT_FALSE(onDisk.inSameFilesystemAs(Pathname("/dev/shm"), &errors));
    EXPECT_TRUE(errors.empty());
    EXPECT_TRUE(onDisk.inSameFilesystemAs(Pathname(tmp.path()), &errors));
    errno = 0;
    EXPECT_FALSE(onDisk.renameTo(inMemory));
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(Pathname("/no/such").inSameFilesystemAs(Pathname("/tmp"), &errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(holds(errors[0], "initial stat(2) of ancestorDir='/no/such'"));
    EXPECT_FALSE(Pathname("/tmp").inSameFilesystemAs(Pathname("/no/such"), &errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(holds(errors[0], "stat(2) of childDir='/no/such'"));
}

}  // namespace
