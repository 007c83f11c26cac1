#include "util/StrHashSet.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "util/CrashLog.h"
#include "util/Thread.h"

namespace {

template <class T>
void append_via_crashlog(Str* dest, const T& v) {
    CrashLogWriteHandlerAppendToStr h(dest);
    v.renderCrashLogInfoTo(h);
    if (h.oomError()) throw std::bad_alloc();
}

}  // namespace

// ---------------------------------------------------------------- StrHashSet

StrHashSet::StrHashSet(std::initializer_list<StrSegment> texts) {
    for (StrSegment t : texts) insert(t);
}

StrHashSet::StrHashSet(const StrHashSet& other) {
    // The source is in hash order already: every key goes after the last.
    for (HashedStrIndex::Position p = other._index.begin(); p != other._index.end();
         p = other._index.next(p)) {
        const HashedStrReference::internal_metadata* key = other._index.at(p);
        HashedStrReference::internal_metadata* copy =
            _pool.createBlock(key->text(), key->length, key->hash);
        try {
            _index.append(copy);
        } catch (...) {
            _pool.destroy(copy);
            throw;
        }
    }
}

StrHashSet& StrHashSet::operator=(const StrHashSet& other) {
    if (this != &other) {
        StrHashSet copy(other);
        swap(copy);
    }
    return *this;
}

bool StrHashSet::insert(const char* text, size_t length, str_hash_t hash) {
    bool created;
    _index.findOrCreate(_pool, text, length, hash, &created);
    return created;
}

bool StrHashSet::erase(const char* text, size_t length, str_hash_t hash) {
    const HashedStrReference::internal_metadata* key = _index.erase(text, length, hash);
    if (key == nullptr) return false;
    _pool.destroy(key);
    return true;
}

void StrHashSet::clear() {
    _index.clear();
    _pool.freeAll();
}

void append_stringified(Str* dest, const StrHashSet& v) { append_via_crashlog(dest, v); }

void crashlog_write(CrashLogWriteHandler& h, const StrHashSet& v) { v.renderCrashLogInfoTo(h); }

// ---------------------------------------------------------------- FixedStrHashSet

FixedStrHashSet::FixedStrHashSet(std::initializer_list<StrSegment> texts) {
    _build(texts.begin(), texts.size());
}

FixedStrHashSet::FixedStrHashSet(const std::vector<StrSegment>& texts) {
    _build(texts.data(), texts.size());
}

FixedStrHashSet::FixedStrHashSet(const std::vector<Str>& texts) {
    std::vector<StrSegment> segments;
    segments.reserve(texts.size());
    for (const Str& t : texts) segments.push_back(t.seg());
    _build(segments.data(), segments.size());
}

FixedStrHashSet::FixedStrHashSet(const char* const* texts, size_t count) {
    std::vector<StrSegment> segments;
    segments.reserve(count);
    for (size_t i = 0; i < count; ++i) segments.emplace_back(texts[i]);
    _build(segments.data(), segments.size());
}

void FixedStrHashSet::_build(const StrSegment* texts, size_t count) {
    struct Item {
        str_hash_t hash;
        StrSegment text;
    };
    std::vector<Item> items;
    items.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        items.push_back({djb2_hash_n(texts[i]._data, texts[i]._len), texts[i]});
    }
    std::sort(items.begin(), items.end(),
              [](const Item& a, const Item& b) { return a.hash < b.hash; });

    // Drop repeated texts: each is compared with the earlier ones of its hash.
    size_t kept = 0;
    size_t textBytes = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        bool repeated = false;
        for (size_t j = kept; j-- > 0 && items[j].hash == items[i].hash;) {
            if (items[j].text.equals(items[i].text)) {
                repeated = true;
                break;
            }
        }
        if (repeated) continue;
        items[kept++] = items[i];
        textBytes += items[i].text._len + 1;
    }
    if (kept == 0) return;

    const size_t blockSize = kept * (sizeof(str_hash_t) + sizeof(Slot)) + textBytes;
    _block = static_cast<char*>(::operator new(blockSize));
    _count = kept;
    _blockSize = blockSize;
    str_hash_t* hashes = reinterpret_cast<str_hash_t*>(_block);
    Slot* slots = reinterpret_cast<Slot*>(_block + kept * sizeof(str_hash_t));
    char* out = _block + kept * (sizeof(str_hash_t) + sizeof(Slot));
    size_t offset = 0;
    for (size_t i = 0; i < kept; ++i) {
        const StrSegment t = items[i].text;
        hashes[i] = items[i].hash;
        slots[i] = {offset, t._len};
        if (t._len != 0) memcpy(out + offset, t._data, t._len);
        out[offset + t._len] = '\0';
        offset += t._len + 1;
    }
}

void FixedStrHashSet::_copy_op(const FixedStrHashSet& other) {
    char* block = nullptr;
    if (other._count != 0) {
        block = static_cast<char*>(::operator new(other._blockSize));
        memcpy(block, other._block, other._blockSize);
    }
    clear();
    _block = block;
    _count = other._count;
    _blockSize = other._blockSize;
}

bool FixedStrHashSet::contains(const char* text, size_t length, str_hash_t hash) const {
    const str_hash_t* hashes = _hashes();
    const Slot* slots = _slots();
    for (size_t i = str_hash_lower_bound(hashes, _count, hash); i < _count && hashes[i] == hash;
         ++i) {
        if (slots[i].length == length &&
            (length == 0 || memcmp(_texts() + slots[i].offset, text, length) == 0)) {
            return true;
        }
    }
    return false;
}

void FixedStrHashSet::clear() {
    ::operator delete(_block);
    _block = nullptr;
    _count = 0;
    _blockSize = 0;
}

void FixedStrHashSet::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("{", 1);
    for (size_t i = 0; i < _count; ++i) {
        if (i != 0) h.write(", ", 2);
        const StrSegment t = (*this)[i];
        h.writeQuotedString(t._data, t._len);
    }
    h.write("}", 1);
}

void append_stringified(Str* dest, const FixedStrHashSet& v) { append_via_crashlog(dest, v); }

void crashlog_write(CrashLogWriteHandler& h, const FixedStrHashSet& v) {
    v.renderCrashLogInfoTo(h);
}

// ---------------------------------------------------------------- StaticStrHashSet

constinit StaticStrHashSet* StaticStrHashSet::_firstPopulating = nullptr;

StaticStrHashSet::~StaticStrHashSet() {
    if (_state == STATE_POPULATING) _unlinkPopulating();
    delete _i;
}

void StaticStrHashSet::insert(const Str* text) {
    Thread::assertNotMultithreadedYet();
    if (_state != STATE_POPULATING) {
        ASSERT(_state == STATE_UNPOPULATED);
        Internal* i = new Internal;
        try {
            i->v.reserve(8);
        } catch (...) {
            delete i;
            throw;
        }
        _i = i;
        _state = STATE_POPULATING;
        _prevp = &_firstPopulating;
        _nextPopulating = _firstPopulating;
        if (_nextPopulating != nullptr) _nextPopulating->_prevp = &_nextPopulating;
        _firstPopulating = this;
    }
    _i->v.push_back(text);
}

void StaticStrHashSet::_unlinkPopulating() {
    *_prevp = _nextPopulating;
    if (_nextPopulating != nullptr) _nextPopulating->_prevp = _prevp;
    _nextPopulating = nullptr;
    _prevp = nullptr;
}

void StaticStrHashSet::finalizeAll() {
    // Each set leaves the list as it is finalized.
    while (_firstPopulating != nullptr) _firstPopulating->_finalize();
}

void StaticStrHashSet::_finalize() {
    Thread::assertNotMultithreadedYet();
    if (_state == STATE_UNPOPULATED) {
        _state = STATE_FINISHED;
        return;
    }
    ASSERT(_state == STATE_POPULATING);
    ASSERT(!_i->v.empty());
    ASSERT(_i->hashes.empty());

    // All allocation first: a failure leaves the set populating, as it was.
    const size_t n = _i->v.size();
    std::vector<std::pair<str_hash_t, const Str*>> scratch;
    scratch.reserve(n);
    std::vector<str_hash_t> hashes;
    hashes.reserve(n);

    for (const Str* s : _i->v) scratch.emplace_back(djb2_hash_n(s->data(), s->size()), s);
    std::sort(scratch.begin(), scratch.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (size_t k = 0; k < n; ++k) {
        _i->v[k] = scratch[k].second;
        hashes.push_back(scratch[k].first);
    }
    _i->hashes.swap(hashes);
    ASSERT(!_i->hashes.empty());
    _unlinkPopulating();
    _state = STATE_FINISHED;
}

bool StaticStrHashSet::_linearContains(const char* text, size_t length) const {
    for (const Str* s : _i->v) {
        if (s->size() == length && (length == 0 || memcmp(s->data(), text, length) == 0)) {
            return true;
        }
    }
    return false;
}

bool StaticStrHashSet::contains(const char* text, size_t length, str_hash_t hash) const {
    if (_state == STATE_UNPOPULATED) return false;
    if (_state == STATE_POPULATING) {
        try {
            finalizeAll();
        } catch (const std::exception&) {
            // Out of memory part way: this set may be finalized or not.
            if (_state == STATE_POPULATING) return _linearContains(text, length);
        }
    }
    if (_i == nullptr) return false;  // finalized while empty
    const str_hash_t* hashes = _i->hashes.data();
    const size_t n = _i->hashes.size();
    for (size_t k = str_hash_lower_bound(hashes, n, hash); k < n && hashes[k] == hash; ++k) {
        const Str* s = _i->v[k];
        if (s->size() == length && (length == 0 || memcmp(s->data(), text, length) == 0)) {
            return true;
        }
    }
    return false;
}

void StaticStrHashSet::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("{", 1);
    bool first = true;
    for (const Str* s : *this) {
        if (!first) h.write(", ", 2);
        first = false;
        h.writeQuotedString(s->data(), s->size());
    }
    h.write("}", 1);
}

void append_stringified(Str* dest, const StaticStrHashSet& v) { append_via_crashlog(dest, v); }

void crashlog_write(CrashLogWriteHandler& h, const StaticStrHashSet& v) {
    v.renderCrashLogInfoTo(h);
}
