#include "util/Pathname.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "libzero/assertion.h"
#include "util/BasicConversions.h"
#include "util/LineReader.h"
#include "util/Logger.h"

TX_EARLY_CONSTANT const Pathname Pathname::cur(".");
TX_EARLY_CONSTANT const Pathname Pathname::parent("..");

const char* Pathname::fstab_path = "/etc/fstab";

namespace {

constexpr size_t PATH_BUFFER = 4096;

}  // namespace

// ---------------------------------------------------------------- composing

Pathname& Pathname::assign(const EnvironmentVariable& v) {
    if (v.isSet()) {
        Str::assign(v.value());
    } else {
        clear();
    }
    return *this;
}

Pathname& Pathname::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    Str::appendVformat(fmt, args);
    va_end(args);
    return *this;
}

Pathname& Pathname::appendVformat(const char* fmt, va_list args) {
    Str::appendVformat(fmt, args);
    return *this;
}

Pathname& Pathname::join(const char* text, size_t length) {
    if (length == 0) return *this;
    size_t skip = 0;
    while (skip < length && text[skip] == '/') ++skip;
    if (empty() || back() != '/') push_back('/');
    append(text + skip, length - skip);
    return *this;
}

Pathname operator/(const Pathname& a, const char* b) {
    Pathname r(a);
    return r /= b;
}

Pathname operator/(const Pathname& a, const std::string& b) {
    Pathname r(a);
    return r /= b;
}

Pathname operator+(const Pathname& a, const Pathname& b) {
    Pathname r;
    r.reserve(a.size() + b.size());
    r.append(a).append(b);
    return r;
}

Pathname operator+(const Pathname& a, const char* b) {
    Pathname r(a);
    r.append(b);
    return r;
}

Pathname operator+(const char* a, const Pathname& b) {
    Pathname r(a);
    r.append(b);
    return r;
}

Pathname& Pathname::replaceBackSlashesWithSep() {
    replaceAll('\\', '/');
    return *this;
}

Pathname Pathname::substr(size_t offset, size_t count) const {
    if (offset >= size()) return Pathname();
    return Pathname(data() + offset, std::min(count, size() - offset));
}

bool Pathname::cwd(Pathname& out) {
    char buf[PATH_BUFFER];
    if (getcwd(buf, sizeof buf) == nullptr) return false;
    out.Str::assign(buf);
    return true;
}

bool Pathname::realpath(Pathname& out) const {
    // realpath() writes at most PATH_MAX bytes into a caller's buffer.
    static_assert(PATH_MAX <= PATH_BUFFER);
    char buf[PATH_BUFFER];
    if (::realpath(c_str(), buf) == nullptr) return false;
    out.Str::assign(buf);
    return true;
}

bool Pathname::realpathInPlace() { return realpath(*this); }

// ---------------------------------------------------------------- inspecting

bool Pathname::stat(PathnameStat* out) const { return ::stat(c_str(), out) == 0; }
bool Pathname::lstat(PathnameStat* out) const { return ::lstat(c_str(), out) == 0; }

bool Pathname::exists() const { return !empty() && access(c_str(), F_OK) == 0; }

bool Pathname::getSize(long* sizep) const {
    PathnameStat st;
    if (!stat(&st)) return false;
    *sizep = st.st_size;
    ASSERT(*sizep >= 0);
    return true;
}

bool Pathname::isZeroLengthFile() const {
    long size;
    return getSize(&size) && size == 0;
}

bool Pathname::getSizeOnDisk(long* sizep) const {
    PathnameStat st;
    if (!stat(&st)) return false;
    *sizep = st.st_blocks * 512;
    return true;
}

bool Pathname::getMtime(Timeval* out) const {
    UnixStructStat st;
    if (!stat(&st)) return false;
    st.getMtime(out);
    return true;
}

Pathname::FileType Pathname::getFileType() const {
    PathnameStat st;
    if (!stat(&st)) return FILETYPE_NONE;
    if (S_ISREG(st.st_mode)) return FILETYPE_REGULAR;
    if (S_ISDIR(st.st_mode)) return FILETYPE_DIRECTORY;
    return FILETYPE_OTHER;
}

bool Pathname::isFifo() const {
    PathnameStat st;
    return stat(&st) && S_ISFIFO(st.st_mode);
}

bool Pathname::isSymlink() const {
    PathnameStat st;
    return lstat(&st) && S_ISLNK(st.st_mode);
}

bool Pathname::isReadOnly() const {
    PathnameStat st;
    return stat(&st) && (st.st_mode & 0222) == 0;
}

void UnixStructStat::getMtime(Timeval* out) const {
    *out = Timeval(st_mtim.tv_sec, st_mtim.tv_nsec / 1000);
}

bool operator==(const UnixStructStat& a, const UnixStructStat& b) {
    if (a.st_size != b.st_size || a.st_mtim.tv_sec != b.st_mtim.tv_sec ||
        a.st_mtim.tv_nsec != b.st_mtim.tv_nsec || a.st_mode != b.st_mode || a.st_dev != b.st_dev ||
        a.st_ino != b.st_ino || a.st_nlink != b.st_nlink || a.st_uid != b.st_uid ||
        a.st_gid != b.st_gid) {
        return false;
    }
    bool device = S_ISBLK(a.st_mode) || S_ISCHR(a.st_mode);
    return !device || a.st_rdev == b.st_rdev;
}

// ---------------------------------------------------------------- changing

bool Pathname::chmod(mode_t mode) const { return ::chmod(c_str(), mode) == 0; }
bool Pathname::truncate(off_t length) const { return ::truncate(c_str(), length) == 0; }
bool Pathname::rmdir() const { return ::rmdir(c_str()) == 0; }
bool Pathname::unlink() const { return ::unlink(c_str()) == 0; }
bool Pathname::remove() const { return ::remove(c_str()) == 0; }
bool Pathname::renameTo(const Pathname& dest) const { return ::rename(c_str(), dest.c_str()) == 0; }
bool Pathname::symlinkTo(const Pathname& link) const {
    return ::symlink(c_str(), link.c_str()) == 0;
}
bool Pathname::hardlinkTo(const Pathname& link) const { return ::link(c_str(), link.c_str()) == 0; }
DIR* Pathname::opendir() const { return ::opendir(c_str()); }
bool Pathname::touchExisting() const { return utimes(c_str(), nullptr) == 0; }

bool Pathname::setMtime(const Timeval& t) const {
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_NOW;
    times[1].tv_sec = t.sec();
    times[1].tv_nsec = t.usec() * 1000;
    return utimensat(AT_FDCWD, c_str(), times, 0) == 0;
}

bool Pathname::makeWriteable() const {
    if (w_ok()) return true;
    PathnameStat st;
    if (!stat(&st) || !chmod((st.st_mode & 07777) | S_IWUSR)) return false;
    return w_ok();
}

bool Pathname::makeReadOnly() const {
    if (w_ok()) {
        PathnameStat st;
        if (!stat(&st) || !chmod(st.st_mode & 07777 & ~0222)) return false;
    }
    return !w_ok();
}

mode_t createmode_to_perm(Pathname::CreateMode cm) {
    switch (cm) {
        case Pathname::CREATE_NORMAL:
            return 0644;
        case Pathname::CREATE_PRIVATE:
            return 0600;
        case Pathname::CREATE_READONLY_PRIVATE:
            return 0440;
    }
    ASSERT(cm == Pathname::CREATE_NORMAL);
    return 0;
}

mode_t Pathname::mkdirmode_to_perm(MkdirMode mode) {
    switch (mode) {
        case Pathname::MKDIR_PRIVATE:
            return 0700;
        case Pathname::MKDIR_GROUP:
            return 0770;
        case Pathname::MKDIR_ALL:
            return 0777;
        case Pathname::MKDIR_NORMAL:
            return 0755;
    }
    ASSERT(mode == MKDIR_PRIVATE);
    return 0;
}

int Pathname::openCreateOnly(CreateMode cm) const {
    return open(c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, createmode_to_perm(cm));
}
int Pathname::openCreateOrReplace(CreateMode cm) const {
    return open(c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, createmode_to_perm(cm));
}
int Pathname::openCreateOrAppend(CreateMode cm) const {
    return open(c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, createmode_to_perm(cm));
}
int Pathname::openReadWriteOrCreate(CreateMode cm) const {
    return open(c_str(), O_RDWR | O_CREAT | O_CLOEXEC, createmode_to_perm(cm));
}

bool Pathname::mkdir(MkdirMode mode) const {
    return ::mkdir(c_str(), mkdirmode_to_perm(mode)) == 0;
}

bool Pathname::mkdir_p(MkdirMode mode) const {
    if (empty() || *this == "/" || isDirectory()) return true;
    Pathname up(*this);
    up.removeTrailingSeps();
    size_t slash = up.rfind('/');
    if (slash != npos) {
        up.resize(slash);
        up.removeTrailingSeps();
        if (!up.empty() && !up.mkdir_p(mode)) return false;
    }
    if (mkdir(mode)) return true;
    if (errno != EEXIST) return false;
    // Another process may have been quicker; only a directory will do.
    if (isDirectory()) return true;
    errno = EEXIST;
    return false;
}

long Pathname::countFilesWithExt(const Pathname* ext, unsigned long limit) const {
    DIR* dir = opendir();
    if (dir == nullptr) return -1;
    long count = 0;
    errno = 0;
    while (struct dirent* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        if (ext != nullptr &&
            !mem_endswith(e->d_name, strlen(e->d_name), ext->data(), ext->size())) {
            continue;
        }
        if (++count == static_cast<long>(limit)) break;
    }
    int saved = errno;
    closedir(dir);
    if (saved != 0) {
        errno = saved;
        return -1;
    }
    return count;
}

// ---------------------------------------------------------------- names

Pathname Pathname::toLeaf() const {
    size_t end = size();
    while (end > 0 && (*this)[end - 1] == '/') --end;
    if (end == 0) return Pathname("/");
    size_t slash = mem_rfind(data(), end, '/');
    size_t start = slash == npos ? 0 : slash + 1;
    return Pathname(data() + start, end - start);
}

Pathname Pathname::toParent() const {
    Pathname p(*this);
    return p.stripElement();
}

Pathname& Pathname::stripElement() {
    if (empty()) return *this;
    bool absolute = front() == '/';
    size_t end = size();
    while (end > 0 && (*this)[end - 1] == '/') --end;
    while (end > 0 && (*this)[end - 1] != '/') --end;
    while (end > 0 && (*this)[end - 1] == '/') --end;
    resize(end);
    if (empty() && absolute) push_back('/');
    return *this;
}

Pathname Pathname::ext(unsigned nExts) const {
    ASSERT(nExts > 0);
    for (size_t i = size(); i-- > 0;) {
        char c = (*this)[i];
        if (c == '/') break;
        if (c == '.' && --nExts == 0) return Pathname(data() + i + 1, size() - i - 1);
    }
    return Pathname();
}

Pathname Pathname::withoutExt(unsigned nExts) const {
    if (nExts == 0) return *this;
    for (size_t i = size(); i-- > 0;) {
        char c = (*this)[i];
        if (c == '/') break;
        if (c != '.') continue;
        // A dot that begins a name makes it hidden, not an extension.
        if (i == 0 || (*this)[i - 1] == '/') break;
        if (--nExts == 0) return Pathname(data(), i);
    }
    return *this;
}

Pathname Pathname::basenameWithoutExt() const {
    Pathname leaf = toLeaf();
    size_t dot = leaf.rfind('.');
    if (dot != npos && dot > 0) leaf.resize(dot);
    return leaf;
}

Pathname& Pathname::addTrailingSep() {
    if (empty() || back() != '/') push_back('/');
    return *this;
}

Pathname& Pathname::removeTrailingSeps() {
    size_t end = size();
    while (end > 1 && (*this)[end - 1] == '/') --end;
    resize(end);
    return *this;
}

bool Pathname::normalize() {
    if (empty()) return true;
    bool absolute = front() == '/';
    bool trailing = back() == '/';
    std::vector<StrSegment> kept;
    bool underflow = false;
    const char* p = data();
    const char* end = p + size();
    while (p < end) {
        const char* slash = static_cast<const char*>(memchr(p, '/', end - p));
        const char* stop = slash ? slash : end;
        StrSegment element(p, stop - p);
        p = slash ? slash + 1 : end;
        if (element._len == 0 || element.equals(StrSegment(".", 1))) continue;
        if (element.equals(StrSegment("..", 2))) {
            if (kept.empty()) {
                underflow = true;
            } else {
                kept.pop_back();
            }
            continue;
        }
        kept.push_back(element);
    }
    Pathname rebuilt;
    rebuilt.reserve(size());
    if (absolute) rebuilt.push_back('/');
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i > 0) rebuilt.push_back('/');
        rebuilt.append(kept[i]);
    }
    if (trailing && !kept.empty()) rebuilt.push_back('/');
    swap(rebuilt);
    return !underflow;
}

Pathname& Pathname::removeDotDotSlash() {
    // Deleting whole elements never joins two others, so one pass from the
    // start finds what repeated passes would.
    Pathname out;
    out.reserve(size());
    size_t i = 0;
    while (i < size()) {
        size_t slash = find('/', i);
        size_t stop = slash == npos ? size() : slash;
        bool dotdot = stop - i == 2 && (*this)[i] == '.' && (*this)[i + 1] == '.';
        if (!dotdot) {
            out.append(data() + i, stop - i);
            if (slash != npos) out.push_back('/');
        } else if (slash == npos && out.size() > 1 && out.back() == '/') {
            // A last ".." takes the separator before it, but never a leading one.
            out.pop_back();
        }
        i = slash == npos ? size() : slash + 1;
    }
    swap(out);
    return *this;
}

Pathname& Pathname::removeDoubleSeps() {
    size_t w = 0;
    for (size_t r = 0; r < size(); ++r) {
        if ((*this)[r] == '/' && w > 0 && (*this)[w - 1] == '/') continue;
        (*this)[w++] = (*this)[r];
    }
    resize(w);
    return *this;
}

Pathname Pathname::removeDoubleSeps(const Pathname& p) {
    Pathname r(p);
    return r.removeDoubleSeps();
}

void Pathname::splitOnSepInto(PathnameVector& out) const { out.push_back_separated(seg(), '/'); }

// ---------------------------------------------------------------- file systems

namespace {

// Messages for a log: function and line first, %m the errno of the failure.
void addError(StrVector* errors, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void addError(StrVector* errors, const char* fmt, ...) {
    if (errors == nullptr) return;
    int saved = errno;
    va_list args;
    va_start(args, fmt);
    errors->push_back(Logger::vformat(saved, fmt, args));
    va_end(args);
    errno = saved;
}

// A block count times the block size, read as unsigned; past 2^63 it
// saturates, as a signed byte count must.
long saturatedBytes(unsigned long long blocks, unsigned long long size) {
    unsigned long long bytes;
    if (__builtin_mul_overflow(blocks, size, &bytes) || bytes >= (1ull << 63)) return LONG_MAX;
    return static_cast<long>(bytes);
}

}  // namespace

bool Pathname::wrap__statfs_or_statvfs(long* forUser, long* free, long* capacity,
                                       StrVector* errors) const {
    struct statfs sfs;
    if (::statfs(c_str(), &sfs) == 0) {
        if (sfs.f_blocks != 0) {
            if (forUser) *forUser = saturatedBytes(sfs.f_bavail, sfs.f_bsize);
            if (free) *free = saturatedBytes(sfs.f_bfree, sfs.f_bsize);
            if (capacity) *capacity = saturatedBytes(sfs.f_blocks, sfs.f_bsize);
            return true;
        }
        errno = EINVAL;
        addError(errors, "%s:%d Failed to find non0 blk size in %s() result: %m", __func__,
                 __LINE__, "statfs");
        errno = EINVAL;
    } else {
        addError(errors, "%s:%d Failed to statfs(2)%s: %m", __func__, __LINE__, "");
        if (errno != EINVAL && errno != ENOSYS && errno != EOVERFLOW) return false;
    }
    struct statvfs svfs;
    if (::statvfs(c_str(), &svfs) != 0) {
        addError(errors, "%s:%d Failed to statvfs(2)%s: %m", __func__, __LINE__, "");
        return false;
    }
    if (svfs.f_blocks == 0) {
        errno = EINVAL;
        addError(errors, "%s:%d Failed to find non0 blk size in %s() result: %m", __func__,
                 __LINE__, "statvfs");
        return false;
    }
    // statvfs counts in fragments.
    unsigned long unit = svfs.f_frsize ? svfs.f_frsize : svfs.f_bsize;
    if (forUser) *forUser = saturatedBytes(svfs.f_bavail, unit);
    if (free) *free = saturatedBytes(svfs.f_bfree, unit);
    if (capacity) *capacity = saturatedBytes(svfs.f_blocks, unit);
    return true;
}

bool Pathname::filesystemBytesFree_forUserAndTotal(long* forUser, long* total) const {
    return wrap__statfs_or_statvfs(forUser, nullptr, total, nullptr);
}

long Pathname::filesystemBytesFree() const {
    long forUser;
    return wrap__statfs_or_statvfs(&forUser, nullptr, nullptr, nullptr) ? forUser : -1;
}

bool Pathname::FilesystemToken::set(const Pathname& path) {
    PathnameStat st;
    if (!path.stat(&st)) return false;
    dev = st.st_dev;
    return true;
}

bool Pathname::inSameFilesystemAs(const Pathname& other, StrVector* errors) const {
    if (errors) errors->clear();
    FilesystemToken mine, theirs;
    if (!mine.set(*this)) {
        addError(errors, "%s:%d Failed to initial stat(2) of ancestorDir='%s': %m", __func__,
                 __LINE__, c_str());
        return false;
    }
    if (!theirs.set(other)) {
        addError(errors, "%s:%d Failed to stat(2) of childDir='%s': %m", __func__, __LINE__,
                 other.c_str());
        return false;
    }
    return mine == theirs;
}

bool Pathname::getFilesystemConstants(FilesystemConstants* out, StrVector* errors) const {
    out->clear();
    if (errors) errors->clear();
    bool ok = true;

    PathnameStat st;
    if (!stat(&st)) {
        addError(errors, "%s:%d Failed to initial stat(2) of ancestorDir='%s': %m", __func__,
                 __LINE__, c_str());
        ok = false;
    } else {
        // Climb while the parent is on the same device and is not the root
        // (the root is its own parent).
        // Lexically, from an absolute form: the parent of "a" is the
        // working directory, not ".".
        Pathname here;
        if (!isAbsolute() && cwd(here)) {
            here /= *this;
        } else {
            here = *this;
        }
        for (;;) {
            Pathname up = here.toParent();
            if (up.empty()) up = Pathname::cur;
            PathnameStat upst;
            if (!up.stat(&upst)) {
                addError(errors, "%s:%d Failed to stat(2) of ancestorDir='%s': %m", __func__,
                         __LINE__, up.c_str());
                ok = false;
                break;
            }
            if (upst.st_dev != st.st_dev || (upst.st_ino == st.st_ino)) break;
            here.swap(up);
            st = upst;
        }
        out->mount_point = here;
    }

    if (!wrap__statfs_or_statvfs(nullptr, nullptr, &out->capacity, nullptr)) {
        addError(errors, "%s:%d Failed to stat[v]fs(2) to get capacity; mountPoint='%s': %m",
                 __func__, __LINE__, out->mount_point.c_str());
        ok = false;
    }

    char type[17] = {};
    if (!get__fs_type(Pathname(out->mount_point), type, errors)) ok = false;
    out->fs_type.assign(type);
    return ok;
}

namespace {

struct FsMagic {
    unsigned long magic;
    const char* name;
};

constexpr FsMagic FS_MAGICS[] = {
    {0xEF53, "ext4"},    {0xEF51, "ext2"},         {0x137D, "ext"},      {0x6969, "nfs"},
    {0x517B, "smb"},     {0x2F, "qnx4"},           {0x564C, "ncp"},      {0x9660, "iso9660"},
    {0x72B6, "jffs2"},   {0x5346544E, "ntfs"},     {0x3153464A, "jfs"},  {0x52654973, "reiserfs"},
    {0x11954, "ufs"},    {0x15013346, "udf13346"}, {0xA501FCF5, "VxFS"}, {0xFF534D42, "cifs"},
    {0x58465342, "xfs"},
};

// The third field of the fstab line whose second field is `mountPoint`.
// Errors go to `errors`; false when nothing was found.
bool lookUpFstab(const Pathname& mountPoint, char* out, StrVector* errors) {
    const char* path = Pathname::fstab_path;
    struct stat st;
    if (::stat(path, &st) != 0) {
        addError(errors, "%s:%d Failed to stat /etc/fstab, mountPoint='%s': %m", "get__fs_type",
                 __LINE__, mountPoint.c_str());
        return false;
    }
    FileDescriptorLineReader reader{Pathname(path)};
    if (!reader.valid()) {
        addError(errors, "%s:%d Failed to read /etc/fstab%s: %m", "get__fs_type", __LINE__, "");
        return false;
    }
    Str line;
    int noncomment = 0;
    bool found = false, readError = false;
    while (!found) {
        // The reader takes a read error for the end; only the error sets errno.
        errno = 0;
        if (!reader.readline(line)) {
            readError = errno != 0;
            break;
        }
        StrSegment text(line);
        text.trimInPlace(StrlikeTraits::default_trimchars, true, false);
        if (text._len > 0 && text._data[0] == '#') continue;
        ++noncomment;
        StrSegmentVector fields;
        mem_split_into_nonempty(&fields, text._data, text._len, CharacterClass(" \t"));
        if (fields.size() >= 3 && fields[1].equals(mountPoint.seg())) {
            size_t n = std::min<size_t>(fields[2]._len, 16);
            memcpy(out, fields[2]._data, n);
            if (n < 16) out[n] = '\0';
            found = true;
        }
    }
    if (readError) {
        addError(errors, "%s:%d Failed to read /etc/fstab%s: %m", "get__fs_type", __LINE__, "");
    } else if (!found) {
        addError(errors,
                 "%s:%d Failed to find mountPoint='%s' in /etc/fstab of=%d noncomment lines: %m",
                 "get__fs_type", __LINE__, mountPoint.c_str(), noncomment);
    }
    return found;
}

}  // namespace

bool Pathname::get__fs_type(const Pathname& mountPoint, char* out, StrVector* errors) const {
    out[0] = '\0';
    struct statfs sfs;
    if (::statfs(c_str(), &sfs) != 0) {
        addError(errors, "%s:%d Failed to stat[v]fs(2) dir='%s': %m", __func__, __LINE__,
                 mountPoint.c_str());
        return false;
    }
    unsigned long magic = static_cast<unsigned long>(sfs.f_type) & 0xFFFFFFFFul;
    for (const FsMagic& m : FS_MAGICS) {
        if (m.magic == magic) {
            strncpy(out, m.name, 16);
            return true;
        }
    }
    addError(errors, "%s:%d Failed to interpret f_type=%x from statfs(2) on mountPoint='%s': %m",
             __func__, __LINE__, static_cast<unsigned>(magic), mountPoint.c_str());
    // An unknown type is not a failure: the name just stays empty without a
    // matching fstab line.
    if (!mountPoint.empty()) lookUpFstab(mountPoint, out, errors);
    return true;
}

// ---------------------------------------------------------------- shell quoting

namespace {

// Besides the classic lists, "`" is live inside double quotes just as "$"
// is, and "<" and ">" redirect: a word holding them must be quoted too, or
// the shell reads something else than the path.
constexpr CharacterClass SHELL_BLANKS("\t\n ");
constexpr CharacterClass DQ_SPECIALS("\"$\\`");
constexpr CharacterClass SHELL_SPECIALS("#&()*;=?[]|<>");

}  // namespace

Pathname Pathname::shellQuoted() const {
    bool blanks = false, dq = false, sq = false, specials = false;
    for (unsigned char c : *this) {
        blanks |= SHELL_BLANKS.contains(c);
        dq |= DQ_SPECIALS.contains(c);
        sq |= c == '\'';
        specials |= SHELL_SPECIALS.contains(c);
    }
    Pathname out;
    if (!blanks && !dq && !sq && !specials) return *this;
    if (!dq && !sq && !specials) {
        out.reserve(size() + 2);
        out.push_back('"');
        out.append(*this);
        out.push_back('"');
        return out;
    }
    if (dq && !sq) {
        out.reserve(size() + 2);
        out.push_back('\'');
        out.append(*this);
        out.push_back('\'');
        return out;
    }
    out.reserve(size() * 2 + 2);
    if (blanks) {
        out.push_back('"');
        for (unsigned char c : *this) {
            if (DQ_SPECIALS.contains(c)) out.push_back('\\');
            out.push_back(static_cast<char>(c));
        }
        out.push_back('"');
        return out;
    }
    for (unsigned char c : *this) {
        if (DQ_SPECIALS.contains(c) || c == '\'' || SHELL_SPECIALS.contains(c)) out.push_back('\\');
        out.push_back(static_cast<char>(c));
    }
    return out;
}

bool Pathname::splitArgShellQuoted(StrSegment source, Pathname* arg, StrSegment* rest) {
    arg->clear();
    const char* p = source._data;
    const char* end = p + source._len;
    while (p < end && SHELL_BLANKS.contains(*p)) ++p;
    enum { UNQUOTED, SINGLE, DOUBLE } state = UNQUOTED;
    for (; p < end; ++p) {
        char c = *p;
        if (state == SINGLE) {
            if (c == '\'') {
                state = UNQUOTED;
            } else {
                arg->push_back(c);
            }
        } else if (c == '\\') {
            if (++p == end) return false;
            arg->push_back(*p);
        } else if (state == DOUBLE) {
            if (c == '"') {
                state = UNQUOTED;
            } else {
                arg->push_back(c);
            }
        } else if (SHELL_BLANKS.contains(c)) {
            break;
        } else if (c == '\'') {
            state = SINGLE;
        } else if (c == '"') {
            state = DOUBLE;
        } else {
            arg->push_back(c);
        }
    }
    if (state != UNQUOTED || arg->empty()) return false;
    *rest = StrSegment(p, end - p);
    return true;
}

void Pathname::splitShellQuoted(PathnameVector& out, bool onlyExisting) const {
    StrSegment text = seg().trim(StrlikeTraits::default_trimchars, true, false);
    Pathname arg;
    while (splitArgShellQuoted(text, &arg, &text)) {
        if (!onlyExisting || arg.exists()) out.push_back(std::move(arg));
    }
}

// ---------------------------------------------------------------- PathnameVector

PathnameVector::PathnameVector(const EnvironmentVariable& v, char sep) {
    if (v.isSet()) push_back_separated(v.value(), sep);
}

void PathnameVector::push_back_separated(StrSegment text, char sep) {
    const char* p = text._data;
    const char* end = p + text._len;
    while (p < end) {
        const char* q = static_cast<const char*>(memchr(p, sep, end - p));
        if (q == nullptr) q = end;
        if (q > p) emplace_back(p, q - p);
        p = q + 1;
    }
}

void PathnameVector::appendDestructive(Pathname* p) {
    emplace_back(std::move(*p));
    p->clear();
}

void PathnameVector::addArg(const char* name, const char* value) {
    Pathname& arg = emplace_back("--");
    arg.append(name).append("=").append(value);
}

void PathnameVector::joinShellQuotedInto(Pathname& out) const {
    for (size_t i = 0; i < size(); ++i) {
        if (i > 0) out.push_back(' ');
        out.append((*this)[i].shellQuoted());
    }
}

Pathname PathnameVector::toPath() const {
    Pathname out;
    joinShellQuotedInto(out);
    return out;
}

void PathnameVector::reverse() { std::reverse(begin(), end()); }

void append_stringified(Str* dest, const PathnameVector& v) {
    dest->push_back('{');
    dest->append(v.toPath());
    dest->push_back('}');
}

bool mem_parse_into(const char* p, size_t n, PathnameVector* dest) {
    if (n < 2) return false;
    PathnameVector parsed;
    Pathname(p + 1, n - 2).splitShellQuotedInto(parsed);
    dest->swap(parsed);
    return true;
}

void append_stringified(Str* dest, const FilesystemConstants& v) {
    dest->append("{capacity=");
    append_stringified(dest, v.capacity);
    dest->append(" fs_type=").append(v.fs_type);
    dest->append(" mount_point=").append(v.mount_point);
    dest->push_back('}');
}
