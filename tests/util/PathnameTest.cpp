#include "util/Pathname.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "libzero/syscall-probe.h"
#include "support/TestSupport.h"

namespace {

using testsupport::inChild;
using testsupport::inChildAs;
using testsupport::kUnprivilegedGid;
using testsupport::kUnprivilegedUid;
using testsupport::ScratchDir;

TEST(PathnameAccess, ChecksTheEffectiveUserNotTheRealOne) {
    // Real user root, effective user nobody: access(2) would say yes, the
    // check for the effective user must say no. Without faccessat2 (older
    // kernels, some container profiles) the check is access(2)'s by design.
    if (!can_safely_probe_linux_syscalls() ||
        syscall(SYS_faccessat2, AT_FDCWD, "/", F_OK, AT_EACCESS) != 0) {
        GTEST_SKIP() << "no faccessat2 here: " << strerror(errno);
    }
    ScratchDir dir;
    const std::string locked = dir / "locked";
    mkdir(locked.c_str(), 0700);
    const int status = inChild([&] {
        if (setresgid(0, kUnprivilegedGid, 0) != 0 || setresuid(0, kUnprivilegedUid, 0) != 0)
            return 100;
        const bool accessSays = access(locked.c_str(), R_OK | W_OK) == 0;
        const bool rwOk = Pathname(locked).rw_ok();
        return (accessSays ? 1 : 0) | (rwOk ? 2 : 0);
    });
    EXPECT_EQ(status, 1) << "access(2) yes, rw_ok no";
}

// Refuses faccessat2 with `err` from here on, as some container profiles do:
// 0 when in force, 100 when filters can't be installed, 101 when it isn't in force.
int refuseFaccessat2(int err) {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_faccessat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<unsigned>(err) & 0xFFFF)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog prog = {static_cast<unsigned short>(std::size(filter)), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) != 0)
        return 100;
    return syscall(SYS_faccessat2, AT_FDCWD, "/", F_OK, AT_EACCESS) == -1 && errno == err ? 0 : 101;
}

// With faccessat2, and where it is refused (access(2) then answers).
TEST(PathnameAccess, ModesForAnUnprivilegedUser) {
    ScratchDir dir;
    const std::string ro = dir / "ro", rw = dir / "rw", none = dir / "none", x = dir / "x";
    for (const std::string& p : {ro, rw, none, x}) mkdir(p.c_str(), 0700);
    for (const std::string& p : {ro, rw, x})
        ASSERT_EQ(chown(p.c_str(), kUnprivilegedUid, kUnprivilegedGid), 0);
    ASSERT_EQ(chmod(ro.c_str(), 0500), 0);
    ASSERT_EQ(chmod(rw.c_str(), 0600), 0);
    for (int refused : {0, EPERM, ENOSYS}) {
        SCOPED_TRACE(refused);
        // Each check packs its answers into the exit status of a child that
        // runs as nobody: bit 0 r_ok, bit 1 w_ok, bit 2 rw_ok, bit 3 rwx_ok.
        auto modes = [&](const std::string& path) {
            return inChildAs(kUnprivilegedUid, kUnprivilegedGid, [&] {
                if (const int bad = refused ? refuseFaccessat2(refused) : 0) return bad;
                Pathname p(path);
                return p.r_ok() | p.w_ok() << 1 | p.rw_ok() << 2 | p.rwx_ok() << 3;
            });
        };
        if (modes(x) == 100) GTEST_SKIP() << "seccomp filters can't be installed here";
        EXPECT_EQ(modes(ro), 0b0001);
        EXPECT_EQ(modes(rw), 0b0111);
        EXPECT_EQ(modes(x), 0b1111);
        EXPECT_EQ(modes(none), 0b0000) << "root's directory, mode 0700";
        EXPECT_EQ(modes(dir / "missing"), 0b0000);
    }
}

}  // namespace
