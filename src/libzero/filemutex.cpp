#include "libzero/filemutex.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include "libzero/assertion.h"
#include "libzero/ospath-builder.h"

namespace {

constexpr char kFallbackText[] = "0\nuninitialized";
constexpr size_t kHostNameBuf = 64;
constexpr unsigned kLinkMethodSeconds = 5;

// Keeps errno across clean-up calls, so that a failure reports its own cause.
struct SavedErrno {
    int saved = errno;
    ~SavedErrno() { errno = saved; }
};

// The contents are for people who look at a lock; an empty lock file is still
// a lock, so a short or failed write is not an error.
void write_lock_contents(int fd) {
    ssize_t ignored = write(fd, lockfile_text, lockfile_text_len);
    (void)ignored;
}

void unlink_keeping_errno(const char* path) {
    SavedErrno keep;
    unlink(path);
}

bool is_ascii_alnum(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

int32_t lock_by_exclusive_create(const char* path) {
    ospath_builder lock;
    if (ospath_builder_concat_two_paths(&lock, path, ".lock") != 0) return -1;
    int fd = open(lock.path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        write_lock_contents(fd);
        close(fd);
        return 0;
    }
    return errno == EEXIST ? 1 : -1;
}

void report_unexpected_stat_errno(int err) {
    char buf[64];
    string_builder sb;
    string_builder_start(&sb, buf, sizeof buf);
    string_builder_appendz(&sb, "received unexpected ERRNO ");
    string_builder_append_decimal_i64(&sb, err);
    string_builder_appendz(&sb, " for stat()\n");
    string_builder_finish(&sb);
    ssize_t ignored = write(STDERR_FILENO, buf, strlen(buf));
    (void)ignored;
}

bool is_hard_link_errno(int err) {
    switch (err) {
        case EIO:
        case ENOMEM:
        case EFAULT:
        case EXDEV:
        case ENOSPC:
        case EROFS:
        case EMLINK:
        case ENAMETOOLONG:
        case ELOOP:
        case EOPNOTSUPP:
            return true;
        default:
            // EACCES and EPERM are deliberately soft: they run out the time.
            return false;
    }
}

// O_EXCL is not atomic on NFS, and the reply to a link(2) that succeeded can be
// lost. So: link a private file to the lock name and decide by the inode that
// the lock name then has, whatever link(2) said.
int32_t lock_by_link(const char* path) {
    char host[kHostNameBuf];
    if (gethostname(host, sizeof host) != 0) return -1;
    host[sizeof host - 1] = '\0';
    if (host[0] == '\0') return -1;
    for (char* p = host; *p; ++p) {
        if (!is_ascii_alnum(*p)) *p = '-';
    }

    ospath_builder lock;
    if (ospath_builder_concat_two_paths(&lock, path, ".lock") != 0) return -1;
    if (access(lock.path, F_OK) == 0) return 1;

    // Unique among concurrent calls of this process: the address of this
    // call's own buffer. An overlong name finishes empty and fails below.
    ospath_builder temp;
    ospath_builder_start(&temp);
    ospath_builder_appendz(&temp, path);
    ospath_builder_append1(&temp, '.');
    ospath_builder_appendz(&temp, host);
    ospath_builder_append1(&temp, '-');
    ospath_builder_append_decimal_u64(&temp, static_cast<uint64_t>(getpid()));
    ospath_builder_appendz(&temp, ".temp-");
    ospath_builder_append_decimal_u64(&temp, reinterpret_cast<uintptr_t>(&lock));
    ospath_builder_finish(&temp);

    // dirname() writes into its argument; the copy lives on the stack, and
    // fits since the lock name did.
    ospath_buf dir_copy;
    if (ospath_buf_set(&dir_copy, path) != 0) return -1;
    const char* dir = dirname(dir_copy.path);
    if (dir == nullptr || access(dir, R_OK | W_OK) != 0) return -1;

    if (unlink(temp.path) != 0 && errno != ENOENT) return -1;
    int fd = open(temp.path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    write_lock_contents(fd);
    close(fd);

    struct stat temp_st;
    if (stat(temp.path, &temp_st) != 0) {
        unlink_keeping_errno(temp.path);
        return -1;
    }

    const time_t deadline = time(nullptr) + kLinkMethodSeconds;
    for (;;) {
        int link_errno = link(temp.path, lock.path) == 0 ? 0 : errno;
        struct stat lock_st;
        if (stat(lock.path, &lock_st) == 0) {
            if (lock_st.st_ino == temp_st.st_ino && lock_st.st_dev == temp_st.st_dev) {
                unlink(temp.path);
                return 0;
            }
            // Another inode: somebody else holds the lock.
        } else {
            int stat_errno = errno;
            if (stat_errno != ENOENT && stat_errno != ENOMEM) {
                report_unexpected_stat_errno(stat_errno);
                unlink_keeping_errno(temp.path);
                return -1;
            }
            if (is_hard_link_errno(link_errno)) {
                unlink(temp.path);
                errno = link_errno;
                return -1;
            }
        }
        if (time(nullptr) >= deadline) {
            unlink(temp.path);
            return 1;
        }
        usleep(50000);
    }
}

}  // namespace

const char* lockfile_text = nullptr;
size_t lockfile_text_len = 0;

namespace {

// Every text that was ever in force stays allocated to the end of the process
// (another thread may be writing it into a lock file), chained so that it
// stays reachable rather than leaked. The text follows its header.
struct LockfileTextBlock {
    LockfileTextBlock* previous;
};
LockfileTextBlock* lockfileTextBlocks = nullptr;

}  // namespace

void filemutex_init_contents(const char* program_name) {
    const char* const current = lockfile_text;
    lockfile_text = kFallbackText;
    lockfile_text_len = sizeof kFallbackText - 1;

    // A name that does not fit fails gethostname() with ENAMETOOLONG on glibc,
    // and the fallback text is used.
    char host[kHostNameBuf];
    if (gethostname(host, sizeof host) != 0) return;
    host[sizeof host - 1] = '\0';

    // Room for a 64-bit decimal, two line feeds and the terminator.
    const size_t size = strlen(host) + strlen(program_name) + 23;
    auto* block = static_cast<LockfileTextBlock*>(malloc(sizeof(LockfileTextBlock) + size));
    if (block == nullptr) return;
    char* text = reinterpret_cast<char*>(block + 1);
    string_builder sb;
    string_builder_start(&sb, text, size);
    string_builder_append_decimal_i64(&sb, getpid());
    string_builder_append1(&sb, '\n');
    string_builder_appendz(&sb, host);
    string_builder_append1(&sb, '\n');
    string_builder_appendz(&sb, program_name);
    if (string_builder_finish(&sb) != 0) {
        free(block);
        return;
    }
    if (current != nullptr && strcmp(current, text) == 0) {
        free(block);  // the same text again: keep the one in force
        lockfile_text = current;
    } else {
        block->previous = lockfileTextBlocks;
        lockfileTextBlocks = block;
        lockfile_text = text;
    }
    lockfile_text_len = strlen(lockfile_text);
}

bool filemutex_optimistic_about_file_locking() {
    const char* v = getenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
    if (v == nullptr) return false;
    return strcmp(v, "1") == 0 || strcmp(v, "t") == 0 || strcmp(v, "true") == 0 ||
           strcmp(v, "yes") == 0;
}

filemutex_fs_class filemutex_classify_fs(const char* path) {
    struct statfs sfs;
    if (statfs(path, &sfs) != 0) return FILEMUTEX_FS_UNUSABLE;
    switch (static_cast<unsigned long>(sfs.f_type)) {
        case 0xEF53:      // ext2/3/4
        case 0x52654973:  // ReiserFS
        case 0xA501FCF5:  // VxFS
        case 0x565A4653:  // Virtuozzo VZFS
        case 0x58465342:  // XFS
        case 0x9123683E:  // Btrfs
        case 0x2FC12FC1:  // ZFS
            return FILEMUTEX_FS_LOCAL;
        case 0x6969:  // NFS
            return FILEMUTEX_FS_NFS;
        default:
            return FILEMUTEX_FS_UNUSABLE;
    }
}

int32_t filemutex_lock(const char* path) {
    // The text is what crash reports quote: kept as written.
    // clang-format off
    ASSERT(lockfile_text != ((void *)0));
    // clang-format on
    if (filemutex_optimistic_about_file_locking()) return lock_by_exclusive_create(path);
    switch (filemutex_classify_fs(path)) {
        case FILEMUTEX_FS_LOCAL:
            return lock_by_exclusive_create(path);
        case FILEMUTEX_FS_NFS:
            return lock_by_link(path);
        default:
            return -1;
    }
}

int32_t filemutex_lock_with_timeout(const char* path, unsigned seconds) {
    const time_t start = time(nullptr);
    for (;;) {
        int32_t r = filemutex_lock(path);
        if (r == 0 || (r < 0 && r != -2)) return r;
        if (time(nullptr) >= start + static_cast<time_t>(seconds)) return r;
        usleep(10000);
    }
}

int32_t filemutex_lock_forced(const char* path, unsigned seconds) {
    for (;;) {
        // A lock whose file was not touched since before this wait is stale.
        const time_t now = time(nullptr);
        int32_t r = filemutex_lock_with_timeout(path, seconds);
        if (r <= 0) return r;
        r = filemutex_unlock_forced(path, now);
        if (r <= -2) return r;
    }
}

int32_t filemutex_unlock(const char* path) {
    ospath_builder lock;
    if (ospath_builder_concat_two_paths(&lock, path, ".lock") != 0) return -1;
    if (unlink(lock.path) == 0) return 0;
    switch (errno) {
        case EPERM:
        case EIO:
        case EACCES:
        case EBUSY:
        case EISDIR:
        case EROFS:
        case ELOOP:
            return -1;
        case ENOMEM:
            return 1;
        case EFAULT:
        case ENOTDIR:
        case ENAMETOOLONG:
            // The caller's path can't be that wrong.
            ASSERT(0);
        default:
            // Above all ENOENT: the lock is gone, which is what was asked for.
            return 0;
    }
}

int32_t filemutex_unlock_forced(const char* path, int64_t cutoff) {
    ospath_builder lock;
    ospath_builder lock_of_lock;
    if (ospath_builder_concat_two_paths(&lock, path, ".lock") != 0) return -2;
    if (ospath_builder_concat_two_paths(&lock_of_lock, lock.path, ".lock") != 0) return -2;

    struct stat st;
    if (stat(lock.path, &st) != 0 || !(st.st_mtime < cutoff)) return -1;

    // The lock of the lock makes breakers exclude each other, so that two of
    // them never remove a fresh lock that a third has just taken.
    if (filemutex_lock_forced(lock.path, 10) != 0) return -1;

    int32_t result = 0;
    if (stat(lock.path, &st) != 0) {
        result = -1;
    } else if (st.st_mtime < cutoff) {
        switch (filemutex_unlock(path)) {
            case -1:
                result = -2;
                break;
            case 1:
                result = -1;
                break;
            default:
                result = 0;
                break;
        }
    }
    // Releasing the lock of the lock must not hide why breaking failed.
    SavedErrno keep;
    filemutex_unlock(lock.path);
    return result;
}

int32_t filemutex_is_locked(const char* path) {
    ospath_builder lock;
    if (ospath_builder_concat_two_paths(&lock, path, ".lock") != 0) return 0;
    struct stat st;
    if (stat(lock.path, &st) == 0) return 1;
    return errno == ENOENT ? 0 : -1;
}

bool filemutex_path_supported(const char* path) {
    return filemutex_optimistic_about_file_locking() ||
           filemutex_classify_fs(path) != FILEMUTEX_FS_UNUSABLE;
}

int32_t filemutex_test_capability(const char* directory) {
    ospath_builder probe;
    if (directory[0] == '\0' ||
        ospath_builder_concat_two_paths(&probe, directory, "/test.XXXXXX") != 0) {
        return 2;
    }
    struct stat st;
    if (stat(directory, &st) != 0) return 3;
    if (!S_ISDIR(st.st_mode)) return 5;

    // The probe must not be readable by others; the umask stays so.
    mode_t old_mask = umask(0777);
    umask(old_mask | 066);

    int fd = mkstemp(probe.path);
    if (fd < 0) return 7;
    // On failure the probe stays behind, open, for whoever investigates.
    if (filemutex_lock(probe.path) < 0) return 9;
    close(fd);
    filemutex_unlock(probe.path);
    unlink(probe.path);
    return 0;
}
