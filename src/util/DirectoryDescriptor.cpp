#include "util/DirectoryDescriptor.h"

#include <errno.h>
#include <string.h>

#include "libzero/assertion.h"

bool DirectoryEntry::_isRealEntry(const char* name) {
    if (name[0] == '\0' || name[0] == '/') return false;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return false;
    return true;
}

bool DirectoryDescriptor::close() {
    if (_dir == nullptr) return true;
    bool ok = closedir(_dir) == 0;
    _dir = nullptr;
    return ok;
}

const struct dirent* DirectoryDescriptor::_read_unix() {
    errno = 0;
    return readdir(_dir);
}

bool ScopedDirectoryDescriptorWithBuffer::open(const Pathname& dir) {
    ASSERT(!valid());
    _dir = dir.opendir();
    return _dir != nullptr;
}

const struct dirent* DirectoryIterator::getNextImpl(Pathname& name) {
    if (_finished) return nullptr;
    if (!_dd.valid() && !_dd.open(_dir)) return nullptr;
    while (const struct dirent* e = _dd._read_unix()) {
        if (!DirectoryEntry::_isRealEntry(e->d_name)) continue;
        name.assign(e->d_name);
        return e;
    }
    int saved = errno;
    _finished = true;
    _dd.close();
    errno = saved;
    return nullptr;
}

bool DirectoryIterator::getNext(Pathname& name) { return getNextImpl(name) != nullptr; }

bool DirectoryIterator::getNext(Pathname& name, Pathname::file_type_t& type) {
    const struct dirent* e = getNextImpl(name);
    if (e == nullptr) return false;
    if (e->d_type == DT_DIR) {
        type = Pathname::FILETYPE_DIRECTORY;
    } else if (e->d_type == DT_REG) {
        type = Pathname::FILETYPE_REGULAR;
    } else {
        // Links, devices, and file systems that do not fill d_type: ask the
        // path itself (which follows links, and may find nothing by now).
        type = (_dir / name).getFileType();
    }
    return true;
}

bool SortedDirectoryIterator::getNext(Pathname& name) {
    if (!_filled) {
        Pathname n;
        while (_it.getNext(n)) _names.insert(std::move(n));
        _filled = true;
        _pos = _names.begin();
    }
    if (_pos == _names.end()) return false;
    name = *_pos++;
    return true;
}

const SortedPathnameSet& ReaddirCache::read(const Pathname& dir) {
    entry& e = _entries[dir];
    if (e.read) return e.names;
    ScopedDirectoryDescriptorWithBuffer dd;
    if (!dd.open(dir)) return e.names;
    while (const struct dirent* d = dd._read_unix()) {
        if (DirectoryEntry::_isRealEntry(d->d_name)) e.names.emplace(d->d_name);
    }
    e.read = true;
    return e.names;
}

void Pathname::buildFromParentAndLeaf(const Pathname& parent, const DirectoryEntry& entry) {
    const char* leaf = entry.name();
    size_t leafLength = strlen(leaf);
    bool needSep = parent.empty() || parent.back() != '/';
    size_t total = parent.size() + (needSep ? 1 : 0) + leafLength;
    if (&parent != this) {
        clear();
        reserve(total);
        append(parent);
    } else {
        reserve(total);
    }
    if (needSep) push_back('/');
    append(leaf, leafLength);
}
