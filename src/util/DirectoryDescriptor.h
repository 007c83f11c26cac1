#pragma once
// Directory streams as values, and iteration that leaves "." and ".." out:
// plain, sorted by bytes, or read once into a cache.

#include <dirent.h>

#include <map>
#include <set>

#include "util/Pathname.h"

// One entry as readdir() gave it; valid until the next read of its stream.
class DirectoryEntry {
public:
    explicit DirectoryEntry(const struct dirent* e) : _entry(e) {}
    const char* name() const { return _entry->d_name; }
    unsigned char type() const { return _entry->d_type; }
    // False for "", ".", ".." and names beginning with "/".
    static bool _isRealEntry(const char* name);

private:
    const struct dirent* _entry;
};

class DirectoryDescriptor {
public:
    DirectoryDescriptor() = default;
    explicit DirectoryDescriptor(DIR* d) : _dir(d) {}
    DIR* get() const { return _dir; }
    bool valid() const { return _dir != nullptr; }
    bool close();
    // The next entry, or null at the end (errno tells an error from the end).
    const struct dirent* _read_unix();

protected:
    DIR* _dir = nullptr;
};

class ScopedDirectoryDescriptor : public DirectoryDescriptor {
public:
    ScopedDirectoryDescriptor() = default;
    explicit ScopedDirectoryDescriptor(DIR* d) : DirectoryDescriptor(d) {}
    ~ScopedDirectoryDescriptor() { close(); }
    ScopedDirectoryDescriptor(const ScopedDirectoryDescriptor&) = delete;
    ScopedDirectoryDescriptor& operator=(const ScopedDirectoryDescriptor&) = delete;
};

class ScopedDirectoryDescriptorWithBuffer : public ScopedDirectoryDescriptor {
public:
    // Must not be open already.
    bool open(const Pathname& dir);
};

// The names in a directory, without the directory, in the order readdir()
// gives them. A failed open is tried again at the next call.
class DirectoryIterator {
public:
    explicit DirectoryIterator(const Pathname& dir) : _dir(dir) {}
    explicit DirectoryIterator(Pathname&& dir) : _dir(std::move(dir)) {}

    bool getNext(Pathname& name);
    // With the type: from the entry for directories and regular files, else
    // (DT_UNKNOWN included) by stat of the joined path.
    bool getNext(Pathname& name, Pathname::file_type_t& type);
    const Pathname& directory() const { return _dir; }

protected:
    const struct dirent* getNextImpl(Pathname& name);

    ScopedDirectoryDescriptorWithBuffer _dd;
    Pathname _dir;
    bool _finished = false;
};

struct PathnameByteOrder {
    bool operator()(const Pathname& a, const Pathname& b) const {
        return mem_compare_normal(a.data(), a.size(), b.data(), b.size()) < 0;
    }
};
using SortedPathnameSet = std::set<Pathname, PathnameByteOrder>;

// The same names, in byte order: the whole directory is read at the first call.
class SortedDirectoryIterator {
public:
    explicit SortedDirectoryIterator(const Pathname& dir) : _it(dir) {}
    bool getNext(Pathname& name);

private:
    DirectoryIterator _it;
    SortedPathnameSet _names;
    bool _filled = false;
    SortedPathnameSet::const_iterator _pos;
};

// Directory listings read once and kept for the owner's lifetime; there is
// no invalidation.
class ReaddirCache {
public:
    struct entry {
        SortedPathnameSet names;
        bool read = false;
    };
    // The names of `dir`; an unreadable directory gives the empty set and is
    // tried again next time.
    const SortedPathnameSet& read(const Pathname& dir);

private:
    std::map<Pathname, entry, PathnameByteOrder> _entries;
};
