#pragma once
// Sets of texts in hash order, on the djb2 hash of util/HashedStr.h:
//
//   StrHashSet        owns its texts; insert, erase, contains.
//   FixedStrHashSet   built once from a list into one allocation; contains.
//   StaticStrHashSet  points at texts owned elsewhere, for sets filled by
//                     static initialisers and read-only once threads run.
//
// A lookup with the hash at hand is a binary search over 64-bit hashes, and
// bytes are compared only for equal hashes.
//
// append_stringified and crashlog_write write {"a", "b"}: each text quoted and
// escaped as CrashLogWriteHandler::writeQuotedString does (so a text past 240
// bytes is shortened), in the set's order (hash order, or for a
// StaticStrHashSet not yet finalized, the order of insertion); {} when empty.

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <vector>

#include "util/HashedStr.h"
#include "util/Str.h"

class CrashLogWriteHandler;

// ---------------------------------------------------------------- StrHashSet

class StrHashSet {
public:
    StrHashSet() = default;
    StrHashSet(std::initializer_list<StrSegment> texts);
    StrHashSet(const StrHashSet& other);
    StrHashSet(StrHashSet&& other) noexcept { swap(other); }
    StrHashSet& operator=(const StrHashSet& other);
    StrHashSet& operator=(StrHashSet&& other) noexcept {
        swap(other);
        return *this;
    }

    // True when the text was added, false when it was present. On exhausted
    // memory the set is unchanged.
    bool insert(const char* text) {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return insert(text, length, hash);
    }
    bool insert(const char* text, size_t length) {
        return insert(text, length, djb2_hash_n(text, length));
    }
    bool insert(const char* text, size_t length, str_hash_t hash);
    bool insert(StrSegment text) { return insert(text._data, text._len); }

    bool contains(const char* text) const {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return contains(text, length, hash);
    }
    bool contains(const char* text, size_t length) const {
        return contains(text, length, djb2_hash_n(text, length));
    }
    bool contains(const char* text, size_t length, str_hash_t hash) const {
        return _index.find(text, length, hash) != nullptr;
    }
    bool contains(StrSegment text) const { return contains(text._data, text._len); }

    // True when the text was present.
    bool erase(const char* text) {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return erase(text, length, hash);
    }
    bool erase(const char* text, size_t length) {
        return erase(text, length, djb2_hash_n(text, length));
    }
    bool erase(const char* text, size_t length, str_hash_t hash);
    bool erase(StrSegment text) { return erase(text._data, text._len); }

    void clear();
    void swap(StrHashSet& other) noexcept {
        _pool.swap(other._pool);
        _index.swap(other._index);
    }

    size_t size() const { return _index.size(); }
    bool empty() const { return _index.empty(); }

    // In hash order; an insertion or erasure invalidates iterators.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = HashedStrReference;
        using difference_type = ptrdiff_t;
        using pointer = void;
        using reference = HashedStrReference;

        const_iterator() = default;
        const_iterator(const HashedStrIndex* index, HashedStrIndex::Position pos)
            : _index(index), _pos(pos) {}
        HashedStrReference operator*() const { return HashedStrReference(_index->at(_pos)); }
        const_iterator& operator++() {
            _pos = _index->next(_pos);
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const const_iterator& other) const { return _pos == other._pos; }

    private:
        const HashedStrIndex* _index = nullptr;
        HashedStrIndex::Position _pos{0, 0};
    };
    const_iterator begin() const { return {&_index, _index.begin()}; }
    const_iterator end() const { return {&_index, _index.end()}; }

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const { _index.renderCrashLogInfoTo(h); }

private:
    // Declared first, so that it outlives the index pointing into it.
    HashedStrMap_KeyPool _pool;
    HashedStrIndex _index;
};

void append_stringified(Str* dest, const StrHashSet& v);
void crashlog_write(CrashLogWriteHandler& h, const StrHashSet& v);

// ---------------------------------------------------------------- FixedStrHashSet

// One allocation: the sorted hashes, then each text's place, then the texts,
// each with a zero byte. A text given twice is kept once.
class FixedStrHashSet {
public:
    FixedStrHashSet() = default;
    FixedStrHashSet(std::initializer_list<StrSegment> texts);
    explicit FixedStrHashSet(const std::vector<StrSegment>& texts);
    explicit FixedStrHashSet(const std::vector<Str>& texts);
    FixedStrHashSet(const char* const* texts, size_t count);
    FixedStrHashSet(const FixedStrHashSet& other) { _copy_op(other); }
    FixedStrHashSet(FixedStrHashSet&& other) noexcept { swap(other); }
    FixedStrHashSet& operator=(const FixedStrHashSet& other) {
        if (this != &other) _copy_op(other);
        return *this;
    }
    FixedStrHashSet& operator=(FixedStrHashSet&& other) noexcept {
        swap(other);
        return *this;
    }
    ~FixedStrHashSet() { clear(); }

    bool contains(const char* text) const {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return contains(text, length, hash);
    }
    bool contains(const char* text, size_t length) const {
        return contains(text, length, djb2_hash_n(text, length));
    }
    bool contains(const char* text, size_t length, str_hash_t hash) const;
    bool contains(StrSegment text) const { return contains(text._data, text._len); }

    void clear();
    void swap(FixedStrHashSet& other) noexcept {
        std::swap(_block, other._block);
        std::swap(_count, other._count);
        std::swap(_blockSize, other._blockSize);
    }

    size_t size() const { return _count; }
    bool empty() const { return _count == 0; }
    // The ith text in hash order.
    StrSegment operator[](size_t i) const {
        return StrSegment(_texts() + _slots()[i].offset, _slots()[i].length);
    }

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    // Replaces the contents with a copy of `other`'s; on exhausted memory the
    // set is unchanged.
    void _copy_op(const FixedStrHashSet& other);

private:
    struct Slot {
        size_t offset;
        size_t length;
    };

    void _build(const StrSegment* texts, size_t count);
    const str_hash_t* _hashes() const { return reinterpret_cast<const str_hash_t*>(_block); }
    const Slot* _slots() const {
        return reinterpret_cast<const Slot*>(_block + _count * sizeof(str_hash_t));
    }
    const char* _texts() const { return _block + _count * (sizeof(str_hash_t) + sizeof(Slot)); }

    char* _block = nullptr;
    size_t _count = 0;
    size_t _blockSize = 0;
};

void append_stringified(Str* dest, const FixedStrHashSet& v);
void crashlog_write(CrashLogWriteHandler& h, const FixedStrHashSet& v);

// ---------------------------------------------------------------- StaticStrHashSet

// Filled while the process is single-threaded, typically by static
// initialisers, with texts that outlive the set; hashes are taken when the
// set is finalized, so the texts need not be constructed before insert().
// Every set still populating is finalized by the first lookup in any of
// them, or by finalizeAll() (which the main thread's start-up calls); after
// that, lookups are read-only and safe from any thread.
//
// The constructor is constexpr, so a set declared at namespace scope is
// usable from any static initialiser, whatever the order of initialisation.
class StaticStrHashSet {
public:
    enum State { STATE_UNPOPULATED = 1, STATE_POPULATING = 2, STATE_FINISHED = 3 };

    constexpr StaticStrHashSet() = default;
    StaticStrHashSet(const StaticStrHashSet&) = delete;
    StaticStrHashSet& operator=(const StaticStrHashSet&) = delete;
    ~StaticStrHashSet();

    // Only before finalizing and before any thread has started.
    void insert(const Str* text);

    bool contains(const char* text) const {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return contains(text, length, hash);
    }
    bool contains(const char* text, size_t length) const {
        return contains(text, length, djb2_hash_n(text, length));
    }
    bool contains(const char* text, size_t length, str_hash_t hash) const;
    bool contains(StrSegment text) const { return contains(text._data, text._len); }

    // Texts inserted twice count twice.
    size_t size() const { return _i == nullptr ? 0 : _i->v.size(); }
    const Str* const* begin() const { return _i == nullptr ? nullptr : _i->v.data(); }
    const Str* const* end() const { return _i == nullptr ? nullptr : _i->v.data() + _i->v.size(); }
    State state() const { return _state; }

    static void finalizeAll();
    void _finalize();

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

private:
    struct Internal {
        std::vector<const Str*> v;
        std::vector<str_hash_t> hashes;  // parallel to v once finalized
    };

    bool _linearContains(const char* text, size_t length) const;
    void _unlinkPopulating();

    Internal* _i = nullptr;
    State _state = STATE_UNPOPULATED;
    // The process-wide list of sets still populating, without allocation.
    StaticStrHashSet* _nextPopulating = nullptr;
    StaticStrHashSet** _prevp = nullptr;
    static constinit StaticStrHashSet* _firstPopulating;
};

void append_stringified(Str* dest, const StaticStrHashSet& v);
void crashlog_write(CrashLogWriteHandler& h, const StaticStrHashSet& v);
