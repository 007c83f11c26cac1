// Access checks, apart from the rest of Pathname: dirclasp needs only these,
// and links only the objects it uses.

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "libzero/syscall-probe.h"
#include "util/Pathname.h"

// The faccessat system call takes no flags (glibc emulates AT_EACCESS in user
// space, by guesswork); faccessat2 does, so the kernel itself checks for the
// effective user. Kernels before 5.8 lack it (ENOSYS), and some container
// seccomp profiles refuse calls they do not know with EPERM: then access(2),
// which checks for the real user. access(2) itself gives EPERM only for
// writing an immutable file, where it answers no as well.
bool Pathname::accessOk(int mode) const {
    if (can_safely_probe_linux_syscalls()) {
        if (syscall(SYS_faccessat2, AT_FDCWD, c_str(), mode, AT_EACCESS) == 0) return true;
        if (errno != ENOSYS && errno != EPERM) return false;
    }
    return access(c_str(), mode) == 0;
}
