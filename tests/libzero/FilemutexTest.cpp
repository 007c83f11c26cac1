// The file mutex, by both methods. The link method is meant for NFS; there is
// no NFS here, so this binary's statfs() reports NFS for chosen paths on the
// real disk, and its link() can be made to fail in the ways NFS fails.

#include "libzero/filemutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/FsFaults.h"
#include "support/TestSupport.h"

namespace {

using testsupport::fileExists;
using testsupport::readFile;
using testsupport::ScratchDir;
using Names = std::vector<std::string>;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Names listDir(const std::string& path) {
    Names names;
    for (const auto& e : std::filesystem::directory_iterator(path)) {
        names.push_back(e.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Makes paths under `prefix` look like a file system of `type` to this process.
void fakeFs(const std::string& prefix, long type) {
    fsfaults::fakeFsPrefix = prefix;
    fsfaults::fakeFsType = type;
}

void setMtime(const std::string& path, time_t when) {
    struct timeval tv[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(path.c_str(), tv), 0);
}

class FileMutex : public testing::Test {
protected:
    void SetUp() override {
        fsfaults::reset();
        unsetenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
        filemutex_init_contents("filemutex_test");
        // The build tree may be on a file system the mutex refuses (tmpfs,
        // overlay): the scratch directory then passes for ext4.
        if (filemutex_classify_fs(dir.path().c_str()) != FILEMUTEX_FS_LOCAL) {
            fakeFs(dir.path(), 0xEF53);
            ASSERT_EQ(filemutex_classify_fs(dir.path().c_str()), FILEMUTEX_FS_LOCAL);
        }
        target = dir / "target";
        ASSERT_EQ(mkdir(target.c_str(), 0777), 0);
        dirFd = open(dir.path().c_str(), O_DIRECTORY | O_RDONLY);
    }
    void TearDown() override {
        close(dirFd);
        fsfaults::reset();
        unsetenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
    }

    void pretendNfs() { fakeFs(dir.path(), fsfaults::NFS_SUPER_MAGIC); }

    // Runs `body` as nobody with the scratch directory as the working
    // directory: its ancestors may be closed to others (a checkout under
    // /root), so the body works with relative paths.
    int asNobody(const std::function<int()>& body) {
        return testsupport::inChildAs(testsupport::kUnprivilegedUid, testsupport::kUnprivilegedGid,
                                      [&] { return fchdir(dirFd) == 0 ? body() : 99; });
    }

    ScratchDir dir;
    std::string target;
    int dirFd = -1;
};

TEST_F(FileMutex, LockFileContentsAreForPeople) {
    char host[HOST_NAME_MAX + 1];
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    const std::string expect = std::to_string(getpid()) + "\n" + host + "\nfilemutex_test";
    EXPECT_EQ(std::string(lockfile_text), expect) << "no line feed at the end";
    EXPECT_EQ(lockfile_text_len, expect.size());

    // Another thread may still be writing the earlier text into a lock file.
    const char* first = lockfile_text;
    filemutex_init_contents("filemutex_test");
    EXPECT_EQ(lockfile_text, first) << "the same text again keeps the one in force";
    filemutex_init_contents("another_name");
    EXPECT_NE(lockfile_text, first);
    EXPECT_TRUE(std::string(lockfile_text).ends_with("\nanother_name"));
    EXPECT_EQ(std::string(first), expect);
    EXPECT_EQ(lockfile_text_len, strlen(lockfile_text));
}

TEST(FileMutexDeathTest, LockingBeforeInitIsAProgrammingError) {
    // A fresh process, where the contents were never set up.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(filemutex_lock("/tmp/x"), "Assertion `lockfile_text != \\(\\(void \\*\\)0\\)'");
}

TEST_F(FileMutex, ExclusiveCreateOnALocalDisk) {
    EXPECT_EQ(filemutex_is_locked(target.c_str()), 0);
    EXPECT_EQ(filemutex_lock(target.c_str()), 0);
    // A sibling of the directory, by plain concatenation.
    EXPECT_EQ(readFile(target + ".lock"), std::string(lockfile_text));
    struct stat st;
    ASSERT_EQ(stat((target + ".lock").c_str(), &st), 0);
    const mode_t mask = umask(0);  // umask(umask(0)) would give 0, not the mask
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0644 & ~mask);
    EXPECT_EQ(filemutex_is_locked(target.c_str()), 1);
    EXPECT_EQ(filemutex_lock(target.c_str()), 1) << "busy, also for the same process";
    EXPECT_EQ(filemutex_unlock(target.c_str()), 0);
    EXPECT_EQ(filemutex_unlock(target.c_str()), 0) << "unlocking twice is fine";
    EXPECT_EQ(filemutex_is_locked(target.c_str()), 0);
    EXPECT_EQ(fsfaults::linkCalls, 0);

    const std::string inside = target + "/";
    EXPECT_EQ(filemutex_lock(inside.c_str()), 0);
    EXPECT_TRUE(fileExists(target + "/.lock")) << "a trailing slash puts the lock inside";
    EXPECT_EQ(filemutex_unlock(inside.c_str()), 0);
}

TEST_F(FileMutex, TheFileSystemDecidesUnlessOptimistic) {
    const std::string missing = dir / "missing";
    EXPECT_EQ(filemutex_lock(missing.c_str()), -1) << "statfs of a missing path fails";
    EXPECT_FALSE(filemutex_path_supported(missing.c_str()));

    fakeFs(dir.path(), fsfaults::TMPFS_MAGIC);
    EXPECT_EQ(filemutex_lock(target.c_str()), -1) << "tmpfs is not trusted";
    EXPECT_FALSE(filemutex_path_supported(target.c_str()));

    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "yes", 1);
    EXPECT_TRUE(filemutex_path_supported(target.c_str()));
    EXPECT_EQ(filemutex_lock(target.c_str()), 0);
    EXPECT_EQ(filemutex_lock(missing.c_str()), 0) << "only the parent has to be writable";
    EXPECT_TRUE(fileExists(missing + ".lock"));

    for (const char* on : {"1", "t", "true", "yes"}) {
        setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", on, 1);
        EXPECT_TRUE(filemutex_optimistic_about_file_locking()) << on;
    }
    for (const char* off : {"", "0", "y", "TRUE", "Yes", "1x", "t1", "yes "}) {
        setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", off, 1);
        EXPECT_FALSE(filemutex_optimistic_about_file_locking()) << "'" << off << "'";
    }
}

TEST_F(FileMutex, PathsThatDoNotFit) {
    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
    const std::string tooLong(4091, 'a');
    EXPECT_EQ(filemutex_lock(tooLong.c_str()), -1);
    EXPECT_EQ(filemutex_is_locked(tooLong.c_str()), 0);
    EXPECT_EQ(filemutex_unlock(tooLong.c_str()), -1);
    EXPECT_EQ(filemutex_unlock_forced(tooLong.c_str(), time(nullptr)), -2);
    // The lock of the lock must fit too.
    const std::string almost(4086, 'a');
    EXPECT_EQ(filemutex_unlock_forced(almost.c_str(), time(nullptr)), -2);
}

TEST_F(FileMutex, PermissionAndPathErrors) {
    // The lock name is a directory: EISDIR is a hard failure.
    ASSERT_EQ(mkdir((target + ".lock").c_str(), 0755), 0);
    EXPECT_EQ(filemutex_unlock(target.c_str()), -1);
    ASSERT_EQ(rmdir((target + ".lock").c_str()), 0);

    // Somebody else's lock in a directory we may not write: EACCES.
    ASSERT_EQ(mkdir((dir / "closed").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir / "closed/v").c_str(), 0777), 0);
    EXPECT_EQ(asNobody([] {
                  fakeFs("closed", fsfaults::NFS_SUPER_MAGIC);
                  return filemutex_lock("closed/v") == -1 ? 0 : 1;
              }),
              0)
        << "the link method needs a writable parent";
    ASSERT_EQ(filemutex_lock((dir / "closed/v").c_str()), 0);
    EXPECT_EQ(asNobody([] { return filemutex_unlock("closed/v") == -1 ? 0 : 1; }), 0);
    EXPECT_TRUE(fileExists(dir / "closed/v.lock"));

    // ENOTDIR and ENAMETOOLONG mean the caller's path is nonsense.
    testsupport::writeFile(dir / "file", "x");
    EXPECT_DEATH(filemutex_unlock((dir / "file/x").c_str()), "Assertion `0' failed");
    EXPECT_DEATH(filemutex_unlock((dir / std::string(252, 'n')).c_str()), "Assertion `0' failed");
}

TEST_F(FileMutex, WithTimeoutZeroMakesExactlyOneAttempt) {
    ASSERT_EQ(filemutex_lock(target.c_str()), 0);
    fsfaults::statfsCalls = 0;
    EXPECT_EQ(filemutex_lock_with_timeout(target.c_str(), 0), 1);
    EXPECT_EQ(fsfaults::statfsCalls, 1);

    // time() has whole seconds: a wait of 2 lasts more than 1 and at most 2.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(filemutex_lock_with_timeout(target.c_str(), 2), 1);
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_LE(secondsSince(start), 3.0);
    EXPECT_GT(fsfaults::statfsCalls, 50) << "retries every 10 ms";

    EXPECT_EQ(filemutex_unlock(target.c_str()), 0);
    EXPECT_EQ(filemutex_lock_with_timeout(target.c_str(), 5), 0);
}

TEST_F(FileMutex, ForcedUnlockBreaksOnlyOlderLocksAndForcedLockTakesOver) {
    const std::string lock = target + ".lock";
    EXPECT_EQ(filemutex_unlock_forced(target.c_str(), time(nullptr)), -1) << "nothing to break";

    ASSERT_EQ(filemutex_lock(target.c_str()), 0);
    const time_t old = time(nullptr) - 100;
    setMtime(lock, old);
    EXPECT_EQ(filemutex_unlock_forced(target.c_str(), old), -1) << "cut-off equal: fresh";
    EXPECT_TRUE(fileExists(lock));
    EXPECT_EQ(filemutex_unlock_forced(target.c_str(), old + 1), 0);
    EXPECT_FALSE(fileExists(lock));
    EXPECT_FALSE(fileExists(lock + ".lock")) << "the lock of the lock is released";

    testsupport::writeFile(lock, "someone who died");
    setMtime(lock, time(nullptr) - 3600);
    EXPECT_EQ(filemutex_lock_forced(target.c_str(), 1), 0);
    EXPECT_EQ(readFile(lock), std::string(lockfile_text)) << "now ours";
}

TEST_F(FileMutex, TestCapability) {
    EXPECT_EQ(filemutex_test_capability(""), 2);
    EXPECT_EQ(filemutex_test_capability(std::string(4090, 'd').c_str()), 2);
    EXPECT_EQ(filemutex_test_capability((dir / "missing").c_str()), 3);
    testsupport::writeFile(dir / "file", "");
    EXPECT_EQ(filemutex_test_capability((dir / "file").c_str()), 5);

    const mode_t saved = umask(022);
    EXPECT_EQ(filemutex_test_capability(target.c_str()), 0);
    EXPECT_EQ(listDir(target), Names{}) << "probe and lock are gone";
    EXPECT_EQ(umask(saved) & 066, 066) << "the umask keeps the added bits";

    ASSERT_EQ(mkdir((dir / "closed").c_str(), 0755), 0);
    EXPECT_EQ(asNobody([] { return filemutex_test_capability("closed"); }), 7);

    fakeFs(target, fsfaults::TMPFS_MAGIC);
    EXPECT_EQ(filemutex_test_capability(target.c_str()), 9);
    EXPECT_EQ(listDir(target).size(), 1u) << "the probe stays for whoever investigates";
}

// ---------------------------------------------------------------- link method

TEST_F(FileMutex, LinkMethodTakesAndReleases) {
    pretendNfs();
    EXPECT_EQ(filemutex_lock(target.c_str()), 0);
    EXPECT_EQ(fsfaults::linkCalls, 1);
    EXPECT_EQ(readFile(target + ".lock"), std::string(lockfile_text));
    EXPECT_EQ(listDir(dir.path()), (Names{"target", "target.lock"}))
        << "no temporary file is left behind";

    fsfaults::linkCalls = 0;
    EXPECT_EQ(filemutex_lock(target.c_str()), 1);
    EXPECT_EQ(fsfaults::linkCalls, 0) << "a held lock is seen before anything is created";
    EXPECT_EQ(listDir(dir.path()).size(), 2u);

    EXPECT_EQ(filemutex_unlock(target.c_str()), 0);
    EXPECT_FALSE(fileExists(target + ".lock"));

    // The server made the link, but the reply was lost: the inode decides.
    fsfaults::linkHook = [](const char* from, const char* to) {
        fsfaults::realLink(from, to);
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(filemutex_lock(target.c_str()), 0);
    EXPECT_EQ(listDir(dir.path()), (Names{"target", "target.lock"}));
}

TEST_F(FileMutex, LinkMethodHardErrorsFailAtOnce) {
    pretendNfs();
    for (int err : {EROFS, ENOSPC, EXDEV, EMLINK, EIO}) {
        fsfaults::linkHook = [err](const char*, const char*) {
            errno = err;
            return -1;
        };
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(filemutex_lock(target.c_str()), -1) << strerror(err);
        EXPECT_EQ(errno, err);
        EXPECT_LT(secondsSince(start), 1.0);
        EXPECT_EQ(listDir(dir.path()), Names{"target"});
    }
}

// Permission errors, and a lock another client took between our check and
// our link, are retried every 50 ms until the five seconds run out.
TEST_F(FileMutex, LinkMethodRetriesUntilTheTimeRunsOut) {
    pretendNfs();
    const std::string lock = target + ".lock";
    for (bool race : {false, true}) {
        SCOPED_TRACE(race ? "lost race" : "EACCES");
        fsfaults::linkHook = [&](const char* from, const char* to) {
            if (!race) return errno = EACCES, -1;
            if (!fileExists(lock)) testsupport::writeFile(lock, "other client");
            return fsfaults::realLink(from, to);
        };
        fsfaults::linkCalls = 0;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(filemutex_lock(target.c_str()), 1);
        EXPECT_GE(secondsSince(start), 4.0);
        EXPECT_LT(secondsSince(start), 7.0);
        EXPECT_GT(fsfaults::linkCalls, 50);
    }
    EXPECT_EQ(readFile(lock), "other client");
    EXPECT_EQ(listDir(dir.path()), (Names{"target", "target.lock"})) << "no temporary file left";
}

TEST_F(FileMutex, LinkMethodTemporaryNameUsesASanitisedHostName) {
    pretendNfs();
    // A host name with punctuation, in a UTS namespace of a child's own.
    const int status = testsupport::inChild([&] {
        if (unshare(CLONE_NEWUTS) != 0) return 77;
        const char host[] = "build.node_7";
        if (sethostname(host, sizeof host - 1) != 0) return 77;
        filemutex_init_contents("probe");
        std::string seen;
        fsfaults::linkHook = [&](const char* from, const char* to) {
            seen = from;
            return fsfaults::realLink(from, to);
        };
        if (filemutex_lock(target.c_str()) != 0) return 1;
        const std::string prefix = target + ".build-node-7-" + std::to_string(getpid()) + ".temp-";
        if (!seen.starts_with(prefix) || seen.size() == prefix.size() ||
            seen.find_first_not_of("0123456789", prefix.size()) != std::string::npos) {
            return 2;
        }
        // The contents keep the name as it came.
        return readFile(target + ".lock").find("\nbuild.node_7\n") == std::string::npos ? 3 : 0;
    });
    if (status == 77) GTEST_SKIP() << "no UTS namespaces here";
    EXPECT_EQ(status, 0);
}

// ---------------------------------------------------------------- exclusion

// Several processes each take the lock, read a counter, write it back plus
// one, and unlock. Any overlap loses an update.
int hammer(const std::string& path, const std::string& counter, int rounds) {
    alarm(120);  // a hang fails the test instead of stalling the suite
    fsfaults::linkCalls = 0;
    filemutex_init_contents("hammer");
    for (int i = 0; i < rounds; ++i) {
        for (int32_t r; (r = filemutex_lock(path.c_str())) != 0; sched_yield()) {
            if (r < 0) return 2;
        }
        const int value = std::stoi(readFile(counter));
        testsupport::writeFile(counter, std::to_string(value + 1));
        if (filemutex_unlock(path.c_str()) != 0) return 3;
    }
    // The method in use: link(2) is called exactly when the path looks like NFS.
    const bool nfs =
        !fsfaults::fakeFsPrefix.empty() && fsfaults::fakeFsType == fsfaults::NFS_SUPER_MAGIC;
    return (fsfaults::linkCalls >= rounds) == nfs ? 0 : 4;
}

void runContention(const std::string& path, const std::string& counter, int procs, int rounds) {
    testsupport::writeFile(counter, "0");
    std::vector<pid_t> pids;
    for (int p = 0; p < procs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(hammer(path, counter, rounds));
        pids.push_back(pid);
    }
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
        ASSERT_EQ(WEXITSTATUS(status), 0);
    }
    EXPECT_EQ(readFile(counter), std::to_string(procs * rounds));
    EXPECT_FALSE(fileExists(path + ".lock"));
}

TEST_F(FileMutex, MutualExclusionByExclusiveCreateAndByLink) {
    runContention(target, dir / "counter", 4, 300);
    pretendNfs();  // inherited by the children
    runContention(target, dir / "counter", 4, 60);
    EXPECT_EQ(listDir(dir.path()), (Names{"counter", "target"}));
}

}  // namespace
