#include "libzero/syscall-probe.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

bool can_safely_probe_linux_syscalls() {
    static const bool safe = [] {
        const int saved = errno;
        const bool enosys = syscall(9999) == -1 && errno == ENOSYS;
        errno = saved;
        return enosys;
    }();
    return safe;
}
