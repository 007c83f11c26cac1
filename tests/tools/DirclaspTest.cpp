// dirclasp as the shell sees it: arguments, messages, exit statuses, timing.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "libzero/filemutex.h"
#include "support/TestSupport.h"

namespace {

using testsupport::fileExists;
using testsupport::ProcessResult;
using testsupport::ScratchDir;

const char kUsage[] =
    "Usage :\n"
    "lock : [-l | --lock ] [dirToLock] <timeOutSecs>\n"
    "unlock [-u | --unlock ] [dirToUnlock] <timeOutSecs>\n";

ProcessResult dirclasp(std::vector<std::string> args, std::vector<std::string> env = {}) {
    args.insert(args.begin(), DIRCLASP_PATH);
    // The variable must not leak in from the environment of whoever runs
    // this; but where the build tree's file system is one the lock refuses
    // (tmpfs, overlay), only the optimistic setting lets it work there.
    static const bool local = [] {
        ScratchDir probe;
        return filemutex_classify_fs(probe.path().c_str()) == FILEMUTEX_FS_LOCAL;
    }();
    env.insert(env.begin(),
               local ? "OPTIMISTIC_ABOUT_FILE_LOCKING=" : "OPTIMISTIC_ABOUT_FILE_LOCKING=yes");
    return testsupport::runProcess(args, env);
}

// Runs dirclasp and checks its exit status and standard output; it says
// everything there, nothing on standard error.
void expectRun(const std::vector<std::string>& args, int status, const std::string& out,
               const std::vector<std::string>& env = {}) {
    const ProcessResult r = dirclasp(args, env);
    std::string line;
    for (const auto& a : args) line += " '" + a + "'";
    EXPECT_EQ(r.exitStatus, status) << line;
    EXPECT_EQ(r.out, out) << line;
    EXPECT_EQ(r.err, "") << line;
}

class Dirclasp : public testing::Test {
protected:
    void SetUp() override {
        target = dir / "work";
        ASSERT_EQ(mkdir(target.c_str(), 0777), 0);
    }
    ScratchDir dir;
    std::string target;
};

TEST_F(Dirclasp, WrongArgumentsPrintUsageAndAccessIsCheckedBeforeTheAction) {
    expectRun({"-x", "/no/such/dir"}, 254, "Unable to access /no/such/dir\n");
    for (auto args :
         std::vector<std::vector<std::string>>{{}, {"-l"}, {"-l", target, "1", "extra"}}) {
        expectRun(args, 255, kUsage);
    }
    // Actions match exactly.
    for (const char* bad : {"-x", "-L", "-lock", "--lockx", "l", ""}) {
        expectRun({bad, target}, 255, kUsage);
    }
    EXPECT_FALSE(fileExists(target + ".lock"));
}

TEST_F(Dirclasp, ADirectoryTheUserCannotWriteIsNotAccessible) {
    ASSERT_EQ(mkdir((dir / "closed").c_str(), 0755), 0);
    // The checkout's directories may be closed to others (one under /root):
    // the program and the scratch directory are opened before dropping
    // privileges, and the path is relative.
    const int exe = open(DIRCLASP_PATH, O_RDONLY | O_CLOEXEC);
    const int cwd = open(dir.path().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    const int status =
        testsupport::inChildAs(testsupport::kUnprivilegedUid, testsupport::kUnprivilegedGid, [&] {
            close(1);  // the message is checked elsewhere; only the status here
            const char* argv[] = {"dirclasp", "-l", "closed", "0", nullptr};
            if (fchdir(cwd) == 0) fexecve(exe, const_cast<char**>(argv), environ);
            return 127;
        });
    close(exe);
    close(cwd);
    EXPECT_EQ(status, 254);
    EXPECT_FALSE(fileExists(dir / "closed.lock"));
}

TEST_F(Dirclasp, LockUnlockRelock) {
    expectRun({"-u", target}, 0, "");  // unlocking an unlocked directory succeeds
    expectRun({"-l", target}, 0, "");  // success prints nothing
    const std::string contents = testsupport::readFile(target + ".lock");
    EXPECT_NE(contents.find("\ndirclasp"), std::string::npos) << contents;

    EXPECT_EQ(dirclasp({"--unlock", target}).exitStatus, 0);
    EXPECT_FALSE(fileExists(target + ".lock"));

    EXPECT_EQ(dirclasp({"--lock", target, "5"}).exitStatus, 0);
    EXPECT_EQ(dirclasp({"-u", target}).exitStatus, 0);
}

TEST_F(Dirclasp, TimeOutZeroTriesTwiceOneSecondApartAndANumericPrefixCounts) {
    ASSERT_EQ(dirclasp({"-l", target}).exitStatus, 0);
    // At once, and again after a second: only then is the time strictly past
    // 0. The wait for "2x" ends once more than 2 whole seconds have passed.
    for (auto [timeout, least, most] : {std::tuple{"0", 0.9, 2.9}, {"2x", 1.9, 4.9}}) {
        ProcessResult r = dirclasp({"-l", target, timeout});
        EXPECT_EQ(r.exitStatus, 255) << timeout;
        EXPECT_EQ(r.out, "Timeout out acquiring lock on " + target + "\n");
        EXPECT_GE(r.seconds, least) << timeout;
        EXPECT_LT(r.seconds, most) << timeout;
    }
}

TEST_F(Dirclasp, ANegativeTimeOutWaitsForEver) {
    ASSERT_EQ(dirclasp({"-l", target}).exitStatus, 0);
    auto waiter = std::async(std::launch::async, [&] { return dirclasp({"-l", target, "-5"}); });
    // Still waiting well past what any time-out of 0 would allow...
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(2500)), std::future_status::timeout);
    // ...and done soon after the holder lets go.
    ASSERT_EQ(dirclasp({"-u", target}).exitStatus, 0);
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const ProcessResult r = waiter.get();
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(fileExists(target + ".lock"));
}

TEST_F(Dirclasp, HardFailuresPrintAndReturnTheResult) {
    // The lock name taken by a directory: unlink fails with EISDIR.
    ASSERT_EQ(mkdir((target + ".lock").c_str(), 0755), 0);
    expectRun({"-u", target}, 255, "Unable to release lock on " + target + "\n");
    // While it stands there, locking is busy: a time-out, not a failure.
    expectRun({"-l", target, "0"}, 255, "Timeout out acquiring lock on " + target + "\n");
}

TEST_F(Dirclasp, UnusableFileSystemsFailUnlessOptimistic) {
    struct statfs sfs;
    if (statfs("/dev/shm", &sfs) != 0 || sfs.f_type != 0x01021994) {
        GTEST_SKIP() << "no tmpfs at /dev/shm";
    }
    char shmTemplate[] = "/dev/shm/dirclasp-test.XXXXXX";
    ASSERT_NE(mkdtemp(shmTemplate), nullptr);
    const std::string shm = shmTemplate;

    expectRun({"-l", shm}, 255, "Unable to acquire lock on " + shm + "\n",
              {"OPTIMISTIC_ABOUT_FILE_LOCKING="});
    expectRun({"-l", shm}, 0, "", {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes"});
    EXPECT_TRUE(fileExists(shm + ".lock"));
    expectRun({"-u", shm}, 0, "", {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes"});
    testsupport::removeTree(shm);
}

}  // namespace
