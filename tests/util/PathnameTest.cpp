#include "util/Pathname.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libzero/syscall-probe.h"
#include "support/TestSupport.h"

namespace {

using testsupport::inChild;
using testsupport::inChildAs;
using testsupport::kUnprivilegedGid;
using testsupport::kUnprivilegedUid;
using testsupport::ScratchDir;

TEST(Pathname, Constants) {
    EXPECT_EQ(Pathname::cur, ".");
    EXPECT_EQ(Pathname::parent, "..");
}

TEST(PathnameAccess, ModesForAnUnprivilegedUser) {
    ScratchDir dir;
    const std::string ro = dir / "ro", rw = dir / "rw", none = dir / "none", x = dir / "x";
    for (const std::string& p : {ro, rw, none, x}) mkdir(p.c_str(), 0700);
    for (const std::string& p : {ro, rw, x}) {
        ASSERT_EQ(chown(p.c_str(), kUnprivilegedUid, kUnprivilegedGid), 0);
    }
    ASSERT_EQ(chmod(ro.c_str(), 0500), 0);
    ASSERT_EQ(chmod(rw.c_str(), 0600), 0);

    // Each check packs its answers into the exit status of a child that runs
    // as nobody: bit 0 r_ok, bit 1 w_ok, bit 2 rw_ok, bit 3 rwx_ok.
    auto modes = [](const std::string& path) {
        return inChildAs(kUnprivilegedUid, kUnprivilegedGid, [&] {
            Pathname p(path);
            return p.r_ok() | p.w_ok() << 1 | p.rw_ok() << 2 | p.rwx_ok() << 3;
        });
    };
    EXPECT_EQ(modes(ro), 0b0001);
    EXPECT_EQ(modes(rw), 0b0111);
    EXPECT_EQ(modes(x), 0b1111);
    EXPECT_EQ(modes(none), 0b0000) << "root's directory, mode 0700";
    EXPECT_EQ(modes(dir / "missing"), 0b0000);
}

TEST(PathnameAccess, ChecksTheEffectiveUserNotTheRealOne) {
    // Real user root, effective user nobody: access(2) would say yes, the
    // check for the effective user must say no.
    ScratchDir dir;
    const std::string locked = dir / "locked";
    mkdir(locked.c_str(), 0700);
    const int status = inChild([&] {
        if (setresgid(0, kUnprivilegedGid, 0) != 0 || setresuid(0, kUnprivilegedUid, 0) != 0) {
            return 100;
        }
        const bool accessSays = access(locked.c_str(), R_OK | W_OK) == 0;
        const bool rwOk = Pathname(locked).rw_ok();
        return (accessSays ? 1 : 0) | (rwOk ? 2 : 0);
    });
    ASSERT_TRUE(can_safely_probe_linux_syscalls()) << "this kernel fails unknown calls cleanly";
    EXPECT_EQ(status, 1) << "access(2) yes, rw_ok no";
}

TEST(SyscallProbe, AnswerIsStable) {
    const bool first = can_safely_probe_linux_syscalls();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(can_safely_probe_linux_syscalls(), first);
}

}  // namespace
