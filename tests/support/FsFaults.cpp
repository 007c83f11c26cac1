#include "support/FsFaults.h"

#include <dlfcn.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace fsfaults {

std::string fakeFsPrefix;
long fakeFsType = NFS_SUPER_MAGIC;
std::function<int(const char*, const char*)> linkHook;
int linkCalls = 0;
int statfsCalls = 0;

void reset() {
    fakeFsPrefix.clear();
    fakeFsType = NFS_SUPER_MAGIC;
    linkHook = nullptr;
    linkCalls = 0;
    statfsCalls = 0;
}

int realLink(const char* from, const char* to) {
    using Fn = int (*)(const char*, const char*);
    static const Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "link"));
    return next(from, to);
}

}  // namespace fsfaults

// These definitions in the executable take the place of the C library's for
// every caller in it, the library under test included.

extern "C" int statfs(const char* path, struct statfs* buf) noexcept {
    using Fn = int (*)(const char*, struct statfs*);
    static const Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "statfs"));
    ++fsfaults::statfsCalls;
    int rc = next(path, buf);
    if (rc == 0 && !fsfaults::fakeFsPrefix.empty() &&
        std::string_view(path).starts_with(fsfaults::fakeFsPrefix)) {
        buf->f_type = fsfaults::fakeFsType;
    }
    return rc;
}

extern "C" int link(const char* from, const char* to) noexcept {
    ++fsfaults::linkCalls;
    if (fsfaults::linkHook) return fsfaults::linkHook(from, to);
    return fsfaults::realLink(from, to);
}
