#pragma once
// Fault injection for file-system calls made anywhere in the test binary:
// statfs(2) can report another file-system type, and link(2) can be replaced.
// Linked only into the binaries that need it; forked children inherit the
// settings.

#include <functional>
#include <string>

namespace fsfaults {

// Paths that start with this prefix report `fakeFsType` from statfs (all
// other fields are real). Empty: no faking.
extern std::string fakeFsPrefix;
extern long fakeFsType;

constexpr long NFS_SUPER_MAGIC = 0x6969;
constexpr long TMPFS_MAGIC = 0x01021994;

// When set, link(2) calls this instead; `realLink` reaches the real one.
extern std::function<int(const char* from, const char* to)> linkHook;
int realLink(const char* from, const char* to);

// Counts of the calls seen since the last reset.
extern int linkCalls;
extern int statfsCalls;

void reset();

}  // namespace fsfaults
