// dirclasp: take or release the file mutex of a directory, so that shell
// scripts can serialise work on it.
//
//   dirclasp -l|--lock   DIR [TIMEOUT_SECONDS]
//   dirclasp -u|--unlock DIR [TIMEOUT_SECONDS]
//
// Polls once a second until done or timed out; a negative or absent time-out
// waits for ever. The entry function's result is the exit status.

#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "libzero/filemutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

namespace {

void printUsage() {
    puts("Usage :");
    puts("lock : [-l | --lock ] [dirToLock] <timeOutSecs>");
    puts("unlock [-u | --unlock ] [dirToUnlock] <timeOutSecs>");
}

int32_t retryUntilDone(int32_t (*operation)(const char*), const char* path, long timeoutSecs,
                       time_t start, const char* failureMessage, const char* timeoutMessage) {
    for (;;) {
        const int32_t r = operation(path);
        if (r == 0) return 0;
        if (r < 0) {
            printf(failureMessage, path);
            return r;
        }
        if (timeoutSecs >= 0 && time(nullptr) - start > timeoutSecs) {
            printf(timeoutMessage, path);
            return -1;
        }
        sleep(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The time-out counts from here, so the access check counts too.
    const time_t start = time(nullptr);

    if (argc != 3 && argc != 4) {
        printUsage();
        return -1;
    }
    const Str action(argv[1]);
    // Read as strtol reads it: "abc" is 0 and "12x" is 12.
    const long timeoutSecs = argc == 4 ? strtol(argv[3], nullptr, 10) : -1;

    // Before the action is looked at: a bad action on an inaccessible path is
    // an access failure.
    const char* path = argv[2];
    if (!Pathname(path).rw_ok()) {
        printf("Unable to access %s\n", path);
        return -2;
    }

    filemutex_init_contents("dirclasp");

    const bool lock = mem_equals_cstring(action.data(), action.size(), "-l") ||
                      mem_equals_cstring(action.data(), action.size(), "--lock");
    const bool unlock = mem_equals_cstring(action.data(), action.size(), "-u") ||
                        mem_equals_cstring(action.data(), action.size(), "--unlock");
    if (lock) {
        return retryUntilDone(filemutex_lock, path, timeoutSecs, start,
                              "Unable to acquire lock on %s\n",
                              "Timeout out acquiring lock on %s\n");
    }
    if (unlock) {
        return retryUntilDone(filemutex_unlock, path, timeoutSecs, start,
                              "Unable to release lock on %s\n",
                              "Timeout out releasing lock on %s\n");
    }
    printUsage();
    return -1;
}
