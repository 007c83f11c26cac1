#pragma once
// Helpers shared by the test suites: scratch directories on a real disk,
// children with dropped privileges, and whole processes with their output.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "util/CrashLog.h"

namespace testsupport {

// A fresh directory under the build tree (on the same file system as the
// checkout, not on a tmpfs), removed with everything in it at the end.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return _path; }
    std::string operator/(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

// Removes a tree; true when it is gone.
bool removeTree(const std::string& path);

// The user the permission tests drop to (nobody).
constexpr uid_t kUnprivilegedUid = 65534;
constexpr gid_t kUnprivilegedGid = 65534;

// Runs `body` in a forked child and returns its exit status, or -1 if the child
// died of a signal. The child calls _exit with what `body` returned.
int inChild(const std::function<int()>& body);

// As inChild, with real, effective and saved ids all set to the given user.
int inChildAs(uid_t uid, gid_t gid, const std::function<int()>& body);

struct ProcessResult {
    int exitStatus = -1;  // as the shell sees it; -1 when killed by a signal
    std::string out;
    std::string err;
    double seconds = 0;
};

// Runs argv[0] (a path) with the given arguments and extra environment
// ("NAME=value"), capturing standard output and error.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv = {});

// Polls `condition` until true or `seconds` pass.
bool waitUntil(const std::function<bool()>& condition, double seconds);

std::string readFile(const std::string& path);

// The rows of the table tests/data/NAME: fields split at '|'; "\r", "\n",
// "\t" and "\xHH" stand for those bytes, a backslash before any other
// character for that character. Empty lines and '#' comments are skipped; a
// table without rows throws.
std::vector<std::vector<std::string>> dataRows(const std::string& name);
void writeFile(const std::string& path, const std::string& contents);
bool fileExists(const std::string& path);

// What crashlog_write prints for `v`.
template <class T>
std::string crashText(const T& v) {
    Str out;
    CrashLogWriteHandlerAppendToStr h(&out);
    crashlog_write(h, v);
    return out;
}

}  // namespace testsupport
