#pragma once
// A cross-process, cross-host advisory lock on a path, held as the existence
// of the file path + ".lock". Results: 0 success, negative hard failure,
// positive busy or try again. Nothing here allocates per call, raises or logs.

#include <cstddef>
#include <cstdint>

// The text written into lock files, for people who look at them:
// "<pid>\n<host>\n<program>". Set by filemutex_init_contents.
extern const char* lockfile_text;
extern size_t lockfile_text_len;

// Must run before the first lock.
void filemutex_init_contents(const char* program_name);

// 0 acquired; 1 busy; -1 failure.
int32_t filemutex_lock(const char* path);
// Retries every 10 ms; returns the last result of filemutex_lock. A time-out
// of 0 makes exactly one attempt.
int32_t filemutex_lock_with_timeout(const char* path, unsigned seconds);
// As filemutex_lock_with_timeout, then breaks a lock that was not touched
// since the wait began, and starts over. 0, or negative.
int32_t filemutex_lock_forced(const char* path, unsigned seconds);
// 0 released (or there was nothing to release); 1 try again; -1 failure.
int32_t filemutex_unlock(const char* path);
// Removes the lock only if its file is older than `cutoff` (seconds since the
// epoch). 0 done or still fresh after a second look; -1 not older, gone, or
// the lock of the lock was not had; -2 failure.
int32_t filemutex_unlock_forced(const char* path, int64_t cutoff);
// 1 the lock file exists; 0 it does not, or the path is too long; -1 on error.
int32_t filemutex_is_locked(const char* path);
bool filemutex_path_supported(const char* path);
// 0 if a lock could be taken and released in `directory`, else a code:
// 2 empty or too long, 3 stat failed, 5 not a directory, 7 mkstemp failed,
// 9 filemutex_lock failed.
int32_t filemutex_test_capability(const char* directory);

// Filesystem classes that decide the method of acquisition.
enum filemutex_fs_class : int32_t {
    FILEMUTEX_FS_UNUSABLE = 0,
    FILEMUTEX_FS_LOCAL = 1,  // exclusive create is atomic
    FILEMUTEX_FS_NFS = 2,    // only link(2) is
};
filemutex_fs_class filemutex_classify_fs(const char* path);

// True for exactly "1", "t", "true" and "yes"; read on every call.
bool filemutex_optimistic_about_file_locking();
