#pragma once
// A path: a Str with the path rules of one POSIX system ("/" separates, no
// drive letters). A Pathname only names; it is never opened. File system
// failures are false or negative results with errno left for the caller, or,
// for the file system queries, messages added to a StrVector the caller
// passes; only programming errors fail assertions.

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdarg>
#include <vector>

#include "util/Str.h"
#include "util/StrVector.h"
#include "util/Timeval.h"

class DirectoryEntry;
class EnvironmentVariable;
class HttpContentType;
class PathnameVector;

// The platform's stat record.
using PathnameStat = struct stat;

// A stat record that compares: size, modification time with its fraction,
// mode, device, inode, link count, owner and group, and for block and
// character devices the device number of the file too.
struct UnixStructStat : PathnameStat {
    UnixStructStat() : PathnameStat{} {}
    void getMtime(Timeval* out) const;
    friend bool operator==(const UnixStructStat& a, const UnixStructStat& b);
};

struct FilesystemConstants {
    long capacity = 0;  // bytes
    Str fs_type;
    Str mount_point;

    void clear() {
        capacity = 0;
        fs_type.clear();
        mount_point.clear();
    }
};

// "{capacity=... fs_type=... mount_point=...}"
void append_stringified(Str* dest, const FilesystemConstants& v);

class Pathname : public Str {
public:
    using Str::Str;
    Pathname() = default;
    Pathname(const Str& s) : Str(s) {}
    Pathname(Str&& s) noexcept : Str(std::move(s)) {}
    explicit Pathname(StrSegment s) : Str(s) {}

    static const Pathname cur;     // "."
    static const Pathname parent;  // ".."

    enum CreateMode { CREATE_NORMAL = 0, CREATE_PRIVATE = 1, CREATE_READONLY_PRIVATE = 2 };
    enum MkdirMode { MKDIR_PRIVATE = 0, MKDIR_GROUP = 1, MKDIR_ALL = 2, MKDIR_NORMAL = 3 };
    enum FileType {
        FILETYPE_NONE = 0,
        FILETYPE_REGULAR = 1,
        FILETYPE_DIRECTORY = 2,
        FILETYPE_OTHER = 3
    };
    using file_type_t = FileType;

    // The device a path lies on; all bits set until set() succeeds.
    struct FilesystemToken {
        dev_t dev = static_cast<dev_t>(-1);
        bool set(const Pathname& path);
        friend bool operator==(const FilesystemToken&, const FilesystemToken&) = default;
    };

    // ---------------------------------------------------------------- composing

    // The variable's value; unset or empty gives an empty path.
    Pathname& assign(const EnvironmentVariable& v);
    using Str::assign;

    Pathname& appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    Pathname& appendVformat(const char* fmt, va_list args);

    // Joins with exactly the separators needed: "a" / "/b" is "a/b", "" / "a"
    // is "/a", and an empty text changes nothing.
    Pathname& operator/=(const char* text) { return join(text, strlen(text)); }
    Pathname& operator/=(StrSegment s) { return join(s._data, s._len); }
    Pathname& operator/=(const std::string& s) { return join(s.data(), s.size()); }
    Pathname& join(const char* text, size_t length);

    // this = parent / the entry's name, reserving exactly; `parent` may be *this.
    void buildFromParentAndLeaf(const Pathname& parent, const DirectoryEntry& entry);

    // Each "\" becomes "/".
    Pathname& replaceBackSlashesWithSep();
    // An offset past the end gives an empty value rather than raising.
    Pathname substr(size_t offset, size_t count = npos) const;

    // getcwd() and realpath(), into 4096 bytes; false on failure.
    static bool cwd(Pathname& out);
    bool realpath(Pathname& out) const;
    bool realpathInPlace();

    // ---------------------------------------------------------------- inspecting

    bool stat(PathnameStat* out) const;
    bool lstat(PathnameStat* out) const;
    // False for the empty path without asking the kernel.
    bool exists() const;
    bool getSize(long* sizep) const;
    bool isZeroLengthFile() const;
    // Allocated blocks times 512.
    bool getSizeOnDisk(long* sizep) const;
    bool getMtime(Timeval* out) const;
    FileType getFileType() const;
    bool isFile() const { return getFileType() == FILETYPE_REGULAR; }
    bool isDirectory() const { return getFileType() == FILETYPE_DIRECTORY; }
    bool isFifo() const;
    bool isSymlink() const;  // by lstat
    // No write bit for owner, group or other.
    bool isReadOnly() const;
    bool isAbsolute() const { return !empty() && front() == '/'; }
    bool isUNC() const { return false; }

    // Access for the effective user: read 4, write 2, both 6, and execute 7.
    bool r_ok() const { return accessOk(4); }
    bool w_ok() const { return accessOk(2); }
    bool rw_ok() const { return accessOk(6); }
    bool rwx_ok() const { return accessOk(7); }

    // ---------------------------------------------------------------- changing

    bool chmod(mode_t mode) const;
    bool truncate(off_t length) const;
    bool rmdir() const;
    bool unlink() const;
    bool remove() const;
    bool renameTo(const Pathname& dest) const;
    // Makes `link` a symbolic link whose text is this path.
    bool symlinkTo(const Pathname& link) const;
    // Makes `link` another name of this file.
    bool hardlinkTo(const Pathname& link) const;
    // Null on failure.
    DIR* opendir() const;
    // Access and modification time to now.
    bool touchExisting() const;
    // Modification time to `t`, access time to now.
    bool setMtime(const Timeval& t) const;
    // Adds the owner-write bit unless writeable already; true when writeable.
    bool makeWriteable() const;
    // Clears every write bit if writeable; true when no longer writeable.
    bool makeReadOnly() const;

    // Descriptors, or a negative value with errno. All are close-on-exec:
    // a server's children must not inherit its files by accident.
    int openCreateOnly(CreateMode cm) const;         // O_WRONLY|O_CREAT|O_EXCL
    int openCreateOrReplace(CreateMode cm) const;    // O_WRONLY|O_CREAT|O_TRUNC
    int openCreateOrAppend(CreateMode cm) const;     // O_WRONLY|O_CREAT|O_APPEND
    int openReadWriteOrCreate(CreateMode cm) const;  // O_RDWR|O_CREAT

    static mode_t mkdirmode_to_perm(MkdirMode mode);
    bool mkdir(MkdirMode mode) const;
    // Creates the missing ancestors too; an existing directory is success,
    // also when another process made it first.
    bool mkdir_p(MkdirMode mode) const;
    // Entries other than "." and ".." whose name ends in `ext` (all when null), stopping at `limit`
    // when it is not 0; -1 with errno when the directory can't be read.
    long countFilesWithExt(const Pathname* ext, unsigned long limit = 0) const;

    // ---------------------------------------------------------------- names

    // The last element, trailing separators ignored; "/" for "" and "///".
    Pathname toLeaf() const;
    // A copy with stripElement applied.
    Pathname toParent() const;
    // Removes the last element and the separators before it: "/a/b/" becomes
    // "/a", "/a" becomes "/", "a" becomes "".
    Pathname& stripElement();
    // The text behind the nExts-th dot from the end of the last element;
    // empty with too few dots.
    Pathname ext(unsigned nExts = 1) const;
    // Cuts at the nExts-th dot from the end; a dot that begins an element
    // (hidden files) or too few dots return the whole path.
    Pathname withoutExt(unsigned nExts = 1) const;
    // The leaf up to its last dot, a leading dot not counting.
    Pathname basenameWithoutExt() const;
    Pathname& addTrailingSep();
    // Never removes the first byte: "///" gives "/".
    Pathname& removeTrailingSeps();
    // Drops "." and resolves ".." lexically; false (with the path rebuilt
    // all the same) when ".." went above the start.
    bool normalize();
    // Deletes every ".." element, leaving its neighbours: a sanitiser for
    // untrusted names, not a normaliser.
    Pathname& removeDotDotSlash();
    Pathname& removeDoubleSeps();
    static Pathname removeDoubleSeps(const Pathname& p);
    // The non-empty elements.
    void splitOnSepInto(PathnameVector& out) const;
    // The type a server sends for the leaf's extension of 2 to 4 letters, in
    // any case ("x.JPEG"); null for none or one not known.
    const HttpContentType* httpContentType() const;

    // ---------------------------------------------------------------- file systems

    // Bytes available to unprivileged users; -1 on failure.
    long filesystemBytesFree() const;
    bool filesystemBytesFree_forUserAndTotal(long* forUser, long* total) const;
    // statfs(), falling back on statvfs(); any out-pointer may be null.
    bool wrap__statfs_or_statvfs(long* forUser, long* free, long* capacity,
                                 StrVector* errors) const;
    bool inSameFilesystemAs(const Pathname& other, StrVector* errors) const;
    bool getFilesystemConstants(FilesystemConstants* out, StrVector* errors) const;
    // The file system type of this path into 16 bytes; unknown magic numbers
    // are looked up by `mountPoint` in the fstab.
    bool get__fs_type(const Pathname& mountPoint, char* out, StrVector* errors) const;
    // Where get__fs_type reads the mount table; a test fixture may stand in.
    static const char* fstab_path;

    // ---------------------------------------------------------------- shell quoting

    // The path as one word of a POSIX shell command line.
    Pathname shellQuoted() const;
    // Takes the first shell word off `source` into `arg`; `rest` is what
    // follows it. False at the end, on an empty word, or when the text ends
    // inside quotes or after a backslash.
    static bool splitArgShellQuoted(StrSegment source, Pathname* arg, StrSegment* rest);
    void splitShellQuotedInto(PathnameVector& out) const { splitShellQuoted(out, false); }
    // As splitShellQuotedInto, keeping only the words that exist as paths.
    void splitShellQuotedIntoExists(PathnameVector& out) const { splitShellQuoted(out, true); }

private:
    bool accessOk(int mode) const;
    void splitShellQuoted(PathnameVector& out, bool onlyExisting) const;
};

Pathname operator/(const Pathname& a, const char* b);
Pathname operator/(const Pathname& a, const std::string& b);
Pathname operator+(const Pathname& a, const Pathname& b);
Pathname operator+(const Pathname& a, const char* b);
Pathname operator+(const char* a, const Pathname& b);

// Permission bits of the creation modes; anything else is a programming error.
mode_t createmode_to_perm(Pathname::CreateMode cm);

// A search path or an argument vector.
class PathnameVector : public std::vector<Pathname> {
public:
    using std::vector<Pathname>::vector;
    using std::vector<Pathname>::push_back;

    PathnameVector() = default;
    // The non-empty pieces between separators.
    PathnameVector(const Str& text, char sep) { push_back_separated(text.seg(), sep); }
    PathnameVector(const char* text, char sep) { push_back_separated(text, sep); }
    PathnameVector(const Pathname& text, char sep) { push_back_separated(text.seg(), sep); }
    PathnameVector(const EnvironmentVariable& v, char sep);

    void push_back(const char* data, size_t length) { emplace_back(data, length); }
    void push_back(const char* z) { emplace_back(z); }
    void push_back(const Str& s) { emplace_back(s); }
    void push_back(Str&& s) { emplace_back(std::move(s)); }
    void push_back_separated(const char* text, char sep) {
        push_back_separated(StrSegment(text, strlen(text)), sep);
    }
    void push_back_separated(StrSegment text, char sep);
    // Moves the path in, leaving it empty.
    void appendDestructive(Pathname* p);
    // "--name=value" as one element.
    void addArg(const char* name, const char* value);

    // The shell-quoted elements joined by one blank, appended to `out`.
    void joinShellQuotedInto(Pathname& out) const;
    Pathname toPath() const;
    void reverse();
};

// "{" toPath "}"
void append_stringified(Str* dest, const PathnameVector& v);
// The text between a first and a last byte that are not looked at, split as
// shell words.
bool mem_parse_into(const char* p, size_t n, PathnameVector* dest);

// The result of an operation with retries.
struct PathnameOpResult {
    Str description;
    bool success = false;
    int status = 0;  // an errno value
    uint64_t attempts = 0;
    Timeval first_attempt;
    Timeval last_attempt;
};

// Description, outcome, attempts and their times in asctime form.
void append_stringified(Str* dest, const PathnameOpResult& v);
