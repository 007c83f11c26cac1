#include "util/SerializedResult.h"

#include <ostream>

#include "libzero/assertion.h"
#include "util/FileDescriptor.h"

namespace {
SerializedResult makeEmpty() {
    SerializedResult r;
    r.finalize();
    return r;
}
}  // namespace

const SerializedResult EmptySerializedResult = makeEmpty();

void SerializedResult::_justAddedToStor(size_t n) {
    ASSERT(_state != FINALIZED);
    if (_state == LAST_IS_STORED) {
        _v.back().iov_len += n;
    } else if (n > 0) {
        try {
            _v.push_back(nullptr, n);
        } catch (...) {
            _stor.resize(_stor.size() - n);
            throw;
        }
        _state = LAST_IS_STORED;
    }
    _size += n;
}

void SerializedResult::addReferenceElement(const void* data, size_t length) {
    ASSERT(_state != FINALIZED);
    _v.push_back(data, length);
    _state = LAST_IS_REFERENCE;
    _size += length;
}

void SerializedResult::addReference(const void* data, size_t length) {
    if (length >= MIN_REFERENCE) {
        addReferenceElement(data, length);
    } else {
        ASSERT(_state != FINALIZED);
        _stor.append(static_cast<const char*>(data), length);
        _justAddedToStor(length);
    }
}

void SerializedResult::addReferenceFinal(const void* data, size_t length) {
    if (length == 0) return;
    if (length < MIN_REFERENCE && _state == LAST_IS_STORED) {
        _stor.append(static_cast<const char*>(data), length);
        _justAddedToStor(length);
    } else {
        addReferenceElement(data, length);
    }
}

void SerializedResult::addReference(const AppendStr& s) {
    s.forEachSegment([this](const char* p, size_t n) { addReference(p, n); });
}

void SerializedResult::addReference(const SerializedResult& r) {
    ASSERT(&r != this);
    r.forEachPiece([this](const char* p, size_t n) { addReference(p, n); });
}

void SerializedResult::addDestructive(Str* s) {
    ASSERT(_state != FINALIZED);
    const size_t n = s->size();
    if (_stor.empty()) {
        _stor.swap(*s);
    } else {
        _stor.append(*s);
    }
    _justAddedToStor(n);
}

size_t SerializedResult::reserveSpace(size_t n) {
    ASSERT(_state != FINALIZED);
    const size_t token = _stor.size();
    _stor.append(n, '\0');
    _justAddedToStor(n);
    return token;
}

void SerializedResult::fillInReservedSpace(size_t token, const void* data, size_t n) {
    ASSERT(token + n <= _stor.size());
    memcpy(_stor.data() + token, data, n);
}

void SerializedResult::appendVformat(const char* fmt, va_list args) {
    ASSERT(_state != FINALIZED);
    const size_t before = _stor.size();
    _stor.appendVformat(fmt, args);
    _justAddedToStor(_stor.size() - before);
}

void SerializedResult::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    appendVformat(fmt, args);
    va_end(args);
}

void SerializedResult::finalize() {
    if (_state == FINALIZED) return;
    char* stored = _stor.data();
    for (size_t i = 0; i < _v.size(); ++i) {
        struct iovec& e = _v[i];
        if (e.iov_base == nullptr) {
            e.iov_base = stored;
            stored += e.iov_len;
        }
    }
    _state = FINALIZED;
}

void SerializedResult::_post_swap_fix_finalized(const char* formerData, size_t formerSize) {
    if (_state != FINALIZED || formerData == _stor.data()) return;
    for (size_t i = 0; i < _v.size(); ++i) {
        struct iovec& e = _v[i];
        const char* p = static_cast<const char*>(e.iov_base);
        if (p >= formerData && p < formerData + formerSize) {
            e.iov_base = _stor.data() + (p - formerData);
        }
    }
}

void SerializedResult::swap(SerializedResult& other) noexcept {
    const char* mine = _stor.data();
    const char* theirs = other._stor.data();
    const size_t mineSize = _stor.size(), theirSize = other._stor.size();
    _v.swap(other._v);
    std::swap(_state, other._state);
    _stor.swap(other._stor);
    std::swap(_size, other._size);
    // Strings short enough to live inside the object don't move with the
    // swap: resolved addresses into the other's buffer are rebased.
    _post_swap_fix_finalized(theirs, theirSize);
    other._post_swap_fix_finalized(mine, mineSize);
}

void SerializedResult::resize(uint64_t n) {
    ASSERT(n <= _size);
    if (n == 0) {
        _v.clear();
        _stor.clear();
        _size = 0;
        _state = LAST_IS_REFERENCE;
        return;
    }
    uint64_t at = 0;
    size_t storedNeeded = 0;
    size_t i = 0;
    for (;; ++i) {
        struct iovec& e = _v[i];
        const bool stored = _state != FINALIZED ? e.iov_base == nullptr
                                                : (e.iov_base >= _stor.data() &&
                                                   e.iov_base < _stor.data() + _stor.size());
        if (at + e.iov_len >= n) {
            e.iov_len = static_cast<size_t>(n - at);
            if (stored) storedNeeded += e.iov_len;
            break;
        }
        at += e.iov_len;
        if (stored) storedNeeded += e.iov_len;
    }
    while (_v.size() > i + 1) _v.pop_back();
    if (_state != FINALIZED) {
        _stor.resize(storedNeeded);
        _state = _v.back().iov_base == nullptr ? LAST_IS_STORED : LAST_IS_REFERENCE;
    }
    _size = n;
}

// ---------------------------------------------------------------- iteration

void SerializedResult::const_iterator::passEmptyElements() {
    const PortableIovec& v = _owner->_v;
    while (_elem < v.size() && _offset == v[_elem].iov_len) {
        if (_owner->_state != FINALIZED && v[_elem].iov_base == nullptr) _stor += v[_elem].iov_len;
        ++_elem;
        _offset = 0;
    }
}

char SerializedResult::const_iterator::operator*() const {
    const struct iovec& e = _owner->_v[_elem];
    const char* base = e.iov_base != nullptr ? static_cast<const char*>(e.iov_base) : _stor;
    return base[_offset];
}

SerializedResult::const_iterator& SerializedResult::const_iterator::operator+=(uint64_t n) {
    const PortableIovec& v = _owner->_v;
    while (n > 0) {
        ASSERT(_elem < v.size());
        const size_t left = v[_elem].iov_len - _offset;
        if (n < left) {
            _offset += static_cast<size_t>(n);
            return *this;
        }
        n -= left;
        _offset = v[_elem].iov_len;
        passEmptyElements();
    }
    return *this;
}

SerializedResult::const_iterator SerializedResult::begin() const {
    const_iterator it;
    it._owner = this;
    it._stor = _stor.data();
    it.passEmptyElements();
    return it;
}

SerializedResult::const_iterator SerializedResult::end() const {
    const_iterator it;
    it._owner = this;
    it._stor = _stor.data();
    it._elem = _v.size();
    if (_state != FINALIZED) {
        for (size_t i = 0; i < _v.size(); ++i) {
            if (_v[i].iov_base == nullptr) it._stor += _v[i].iov_len;
        }
    }
    return it;
}

void append_stringified(Str* dest, const SerializedResult::const_iterator& it) {
    dest->appendFormat("String pointer=%p, Iterator Offset=%zu", static_cast<const void*>(it._stor),
                       it._offset);
}

// ---------------------------------------------------------------- writing out

void append_stringified(Str* dest, const SerializedResult& r) {
    dest->reserve(dest->size() + r.size());
    r.forEachPiece([dest](const char* p, size_t n) { dest->append(p, n); });
}

std::ostream& operator<<(std::ostream& out, const SerializedResult& r) {
    r.forEachPiece(
        [&out](const char* p, size_t n) { out.write(p, static_cast<std::streamsize>(n)); });
    return out;
}

PortableIovec& PortableIovec::operator<<(const SerializedResult& r) {
    r.forEachPiece([this](const char* p, size_t n) { push_back(p, n); });
    return *this;
}

void PortableIovecCursor::start(const SerializedResult& r) {
    ASSERT(r.finalized());
    start(r._iovec());
}

ssize_t FileDescriptor::write(const SerializedResult& r) {
    PortableIovecCursor cursor;
    cursor.start(r);  // asserts that it is finalised
    return cursor.writeAll(*this);
}
