#pragma once
// Texts keyed by their djb2 hash. A key lives in one block (header and text
// together) owned by a pool, and is passed around as one pointer to its text.
// Containers keep their entries in hash order, so a lookup with the hash at
// hand is a search over 64-bit values, and bytes are compared only where
// hashes are equal; colliding texts simply sit side by side.
//
// Every lookup comes in three forms: (text), (text, length) and
// (text, length, hash). The hash given must be djb2_hash_n of the text, or
// the lookup finds nothing.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "libzero/assertion.h"
#include "libzero/djb2.h"
#include "util/Str.h"

class CrashLogWriteHandler;

typedef uint64_t str_hash_t;

// The first of `n` sorted hashes that is not below `hash` (n when none is).
inline size_t str_hash_lower_bound(const str_hash_t* hashes, size_t n, str_hash_t hash) {
    if (n == 0) return 0;
    const str_hash_t* base = hashes;
    // Without a branch on the comparison: lookups of random hashes defeat
    // the predictor anyway.
    while (n > 1) {
        const size_t half = n / 2;
        base = base[half] < hash ? base + half : base;
        n -= half;
    }
    return static_cast<size_t>(base - hashes) + (*base < hash);
}

// One pointer to a key's text; the header sits just before the text.
class HashedStrReference {
public:
    struct internal_metadata {
        internal_metadata* _prev;  // the owning pool's list
        internal_metadata* _next;
        size_t length;
        str_hash_t hash;
        // The text follows, then a zero byte.

        char* text() { return reinterpret_cast<char*>(this) + sizeof(internal_metadata); }
        const char* text() const {
            return reinterpret_cast<const char*>(this) + sizeof(internal_metadata);
        }
        bool equals(const char* data, size_t len) const {
            return length == len && (len == 0 || memcmp(text(), data, len) == 0);
        }
        // Rounded down to 8 from length + 40: header, text and its zero byte
        // always fit.
        static constexpr size_t allocationSize(size_t length) { return (length + 40) & ~size_t{7}; }
    };

    explicit HashedStrReference(const internal_metadata* m) : _text(m->text()) {}

    const char* data() const { return _text; }
    const char* c_str() const { return _text; }
    size_t length() const { return metadata()->length; }
    size_t size() const { return metadata()->length; }
    str_hash_t hash() const { return metadata()->hash; }
    StrSegment seg() const { return StrSegment(_text, length()); }
    const internal_metadata* metadata() const {
        return reinterpret_cast<const internal_metadata*>(_text - sizeof(internal_metadata));
    }

    bool equals(const char* data, size_t len) const { return metadata()->equals(data, len); }
    bool operator==(const HashedStrReference& other) const {
        return _text == other._text ||
               (hash() == other.hash() && equals(other._text, other.length()));
    }

private:
    const char* _text;
};

static_assert(sizeof(HashedStrReference::internal_metadata) == 32);
static_assert(sizeof(HashedStrReference) == sizeof(void*));
// Every remainder of the length by 8: header, text and zero byte fit.
static_assert([] {
    using M = HashedStrReference::internal_metadata;
    for (size_t length = 0; length < 16; ++length) {
        if (M::allocationSize(length) < sizeof(M) + length + 1) return false;
        if (M::allocationSize(length) % 8 != 0) return false;
    }
    return true;
}());

void append_stringified(Str* dest, const HashedStrReference& v);            // the text itself
void crashlog_write(CrashLogWriteHandler& h, const HashedStrReference& v);  // quoted

// Owns key blocks in a doubly linked list, so that one can be released
// without a search and all of them at once.
class HashedStrMap_KeyPool {
public:
    using internal_metadata = HashedStrReference::internal_metadata;

    HashedStrMap_KeyPool() = default;
    HashedStrMap_KeyPool(const HashedStrMap_KeyPool&) = delete;
    HashedStrMap_KeyPool& operator=(const HashedStrMap_KeyPool&) = delete;
    ~HashedStrMap_KeyPool() { freeAll(); }

    // A new block each time, even for a text already in the pool.
    HashedStrReference create(const char* text) {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return create(text, length, hash);
    }
    HashedStrReference create(const char* text, size_t length) {
        return create(text, length, djb2_hash_n(text, length));
    }
    HashedStrReference create(const char* text, size_t length, str_hash_t hash) {
        return HashedStrReference(createBlock(text, length, hash));
    }
    internal_metadata* createBlock(const char* text, size_t length, str_hash_t hash);

    // Releases one block of this pool.
    void destroy(const internal_metadata* block);
    void freeAll();
    void swap(HashedStrMap_KeyPool& other) {
        std::swap(_head, other._head);
        std::swap(_count, other._count);
    }

    size_t size() const { return _count; }

private:
    internal_metadata* _head = nullptr;
    size_t _count = 0;
};

// Key blocks in hash order: leaves of at most LEAF_CAPACITY sorted entries,
// found through the last hash of each leaf. Two binary searches over
// contiguous hashes per lookup, and an insertion moves at most one leaf.
// Holds the blocks without owning them.
class HashedStrIndex {
public:
    using internal_metadata = HashedStrReference::internal_metadata;
    static constexpr unsigned LEAF_CAPACITY = 64;

    struct Position {
        size_t leaf;
        unsigned slot;
        bool operator==(const Position&) const = default;
    };

    HashedStrIndex() = default;
    HashedStrIndex(const HashedStrIndex&) = delete;
    HashedStrIndex& operator=(const HashedStrIndex&) = delete;
    HashedStrIndex(HashedStrIndex&& other) noexcept { swap(other); }
    HashedStrIndex& operator=(HashedStrIndex&& other) noexcept {
        swap(other);
        return *this;
    }
    ~HashedStrIndex() { clear(); }

    // The block holding the text, or null; `*where` (if given) is then where
    // the text would be inserted.
    internal_metadata* find(const char* text, size_t length, str_hash_t hash,
                            Position* where = nullptr) const;
    // At a position find() gave for the block's text, with nothing inserted
    // or erased since. On exhausted memory the index is unchanged.
    void insertAt(Position where, internal_metadata* block);
    // After every block present: for building from blocks already in order.
    void append(internal_metadata* block);
    // The text's block, made in `pool` and inserted when absent; `*created`
    // says which. On exhausted memory nothing changes.
    internal_metadata* findOrCreate(HashedStrMap_KeyPool& pool, const char* text, size_t length,
                                    str_hash_t hash, bool* created);
    // Removes the text's block from the index and returns it, or null.
    internal_metadata* erase(const char* text, size_t length, str_hash_t hash);
    void clear();
    void swap(HashedStrIndex& other) noexcept;

    size_t size() const { return _size; }
    bool empty() const { return _size == 0; }

    Position begin() const { return {0, 0}; }
    Position end() const { return {_leaves.size(), 0}; }
    internal_metadata* at(Position p) const { return _leaves[p.leaf]->keys[p.slot]; }
    Position next(Position p) const {
        if (++p.slot == _leaves[p.leaf]->count) return {p.leaf + 1, 0};
        return p;
    }

    // Writes {"a", "b"} in hash order, without allocating.
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

private:
    struct Leaf {
        unsigned count;
        str_hash_t hashes[LEAF_CAPACITY];
        internal_metadata* keys[LEAF_CAPACITY];
    };

    // Finds the text's entry into `*match`; `*lower` is the first entry not
    // below the hash, or the end of the last leaf.
    bool _locate(const char* text, size_t length, str_hash_t hash, Position* lower,
                 Position* match) const;
    void _removeLeaf(size_t leaf);
    void _mergeIfSparse(size_t leaf);

    // The hash of each leaf's last entry, parallel to _leaves.
    std::vector<str_hash_t> _lastHashes;
    std::vector<Leaf*> _leaves;
    size_t _size = 0;
};

// Equal texts get the same block: a pool with an index over it.
class HashedStrMapKeyGenerator {
public:
    using internal_metadata = HashedStrReference::internal_metadata;

    HashedStrMapKeyGenerator() = default;
    HashedStrMapKeyGenerator(HashedStrMapKeyGenerator&& other) noexcept { swap(other); }
    HashedStrMapKeyGenerator& operator=(HashedStrMapKeyGenerator&& other) noexcept {
        swap(other);
        return *this;
    }

    HashedStrReference get(const char* text) {
        size_t length;
        const str_hash_t hash = djb2_hash_and_strlen(text, &length);
        return get(text, length, hash);
    }
    HashedStrReference get(const char* text, size_t length) {
        return get(text, length, djb2_hash_n(text, length));
    }
    HashedStrReference get(const char* text, size_t length, str_hash_t hash) {
        return HashedStrReference(getBlock(text, length, hash));
    }
    internal_metadata* getBlock(const char* text, size_t length, str_hash_t hash) {
        bool created;
        return _index.findOrCreate(_pool, text, length, hash, &created);
    }

    // Every reference handed out so far dangles afterwards.
    void free_all() {
        _index.clear();
        _pool.freeAll();
    }
    void swap(HashedStrMapKeyGenerator& other) noexcept {
        _pool.swap(other._pool);
        _index.swap(other._index);
    }
    size_t size() const { return _index.size(); }

private:
    HashedStrMap_KeyPool _pool;
    HashedStrIndex _index;
};

// A sorted multimap from hash to (key, value); keys are the map's own copies.
template <class V>
class HashedStrMap {
public:
    struct Entry {
        HashedStrReference key;
        V value;
    };
    using tree_type = std::multimap<str_hash_t, Entry>;
    using iterator = typename tree_type::iterator;
    using const_iterator = typename tree_type::const_iterator;

    HashedStrMap() = default;
    HashedStrMap(const HashedStrMap& other) { _copy_from(other); }
    HashedStrMap(HashedStrMap&& other) noexcept { swap(other); }
    HashedStrMap& operator=(const HashedStrMap& other) {
        if (this != &other) {
            HashedStrMap copy(other);
            swap(copy);
        }
        return *this;
    }
    HashedStrMap& operator=(HashedStrMap&& other) noexcept {
        swap(other);
        return *this;
    }
    iterator find(const char* text) { return _internal_find(text, strlen(text)); }
    iterator find(const char* text, size_t length) { return _internal_find(text, length); }
    iterator find(const char* text, size_t length, str_hash_t hash) {
        return _internal_find(text, length, hash);
    }
    const_iterator find(const char* text) const { return _internal_find(text, strlen(text)); }
    const_iterator find(const char* text, size_t length) const {
        return _internal_find(text, length);
    }
    const_iterator find(const char* text, size_t length, str_hash_t hash) const {
        return _internal_find(text, length, hash);
    }

    bool contains(const char* text) const { return find(text) != end(); }
    bool contains(const char* text, size_t length) const { return find(text, length) != end(); }
    bool contains(const char* text, size_t length, str_hash_t hash) const {
        return find(text, length, hash) != end();
    }

    // The value stored for the text, or null.
    V* get(const char* text, size_t length, str_hash_t hash) {
        iterator it = _internal_find(text, length, hash);
        return it == end() ? nullptr : &it->second.value;
    }
    const V* get(const char* text, size_t length, str_hash_t hash) const {
        const_iterator it = _internal_find(text, length, hash);
        return it == end() ? nullptr : &it->second.value;
    }
    V* get(const char* text, size_t length) { return get(text, length, djb2_hash_n(text, length)); }
    const V* get(const char* text, size_t length) const {
        return get(text, length, djb2_hash_n(text, length));
    }
    V* get(const char* text) { return get(text, strlen(text)); }
    const V* get(const char* text) const { return get(text, strlen(text)); }

    // Adds the entry unless the text is present; either way, the entry of
    // the text and whether it is new.
    template <class... Args>
    std::pair<iterator, bool> emplace(const char* text, size_t length, str_hash_t hash,
                                      Args&&... args) {
        iterator it = _internal_find(text, length, hash);
        if (it != end()) return {it, false};
        HashedStrReference key = _keys.create(text, length, hash);
        try {
            return {_entries.emplace(hash, Entry{key, V(std::forward<Args>(args)...)}), true};
        } catch (...) {
            _keys.destroy(key.metadata());
            throw;
        }
    }
    std::pair<iterator, bool> insert(const char* text, size_t length, str_hash_t hash,
                                     const V& value) {
        return emplace(text, length, hash, value);
    }
    std::pair<iterator, bool> insert(const char* text, size_t length, const V& value) {
        return emplace(text, length, djb2_hash_n(text, length), value);
    }
    std::pair<iterator, bool> insert(const char* text, const V& value) {
        return insert(text, strlen(text), value);
    }
    // The value of the text, value-initialised if it was absent.
    V& operator[](StrSegment text) {
        return emplace(text._data, text._len, djb2_hash_n(text._data, text._len))
            .first->second.value;
    }

    bool erase(const char* text, size_t length, str_hash_t hash) {
        iterator it = _internal_find(text, length, hash);
        if (it == end()) return false;
        erase(it);
        return true;
    }
    bool erase(const char* text, size_t length) {
        return erase(text, length, djb2_hash_n(text, length));
    }
    bool erase(const char* text) { return erase(text, strlen(text)); }
    iterator erase(iterator it) {
        const HashedStrReference key = it->second.key;
        iterator following = _entries.erase(it);
        _keys.destroy(key.metadata());
        return following;
    }

    void clear() {
        _entries.clear();
        _keys.freeAll();
    }
    void swap(HashedStrMap& other) noexcept {
        _entries.swap(other._entries);
        _keys.swap(other._keys);
    }

    size_t size() const { return _entries.size(); }
    bool empty() const { return _entries.empty(); }
    // In hash order; it->second.key and it->second.value.
    iterator begin() { return _entries.begin(); }
    iterator end() { return _entries.end(); }
    const_iterator begin() const { return _entries.begin(); }
    const_iterator end() const { return _entries.end(); }

    iterator _internal_find(const char* text, size_t length) {
        return _internal_find(text, length, djb2_hash_n(text, length));
    }
    const_iterator _internal_find(const char* text, size_t length) const {
        return _internal_find(text, length, djb2_hash_n(text, length));
    }
    iterator _internal_find(const char* text, size_t length, str_hash_t hash) {
        // One walk down the tree; equal_range would make two.
        auto it = _entries.lower_bound(hash);
        for (; it != _entries.end() && it->first == hash; ++it) {
            if (it->second.key.equals(text, length)) return it;
        }
        return end();
    }
    const_iterator _internal_find(const char* text, size_t length, str_hash_t hash) const {
        // One walk down the tree; equal_range would make two.
        auto it = _entries.lower_bound(hash);
        for (; it != _entries.end() && it->first == hash; ++it) {
            if (it->second.key.equals(text, length)) return it;
        }
        return end();
    }

    // Into an empty map; every key gets a block of this map's own pool.
    void _copy_from(const HashedStrMap& other) {
        ASSERT(_entries.empty());
        for (const auto& [hash, entry] : other._entries) {
            HashedStrReference key = _keys.create(entry.key.data(), entry.key.length(), hash);
            _entries.emplace_hint(_entries.end(), hash, Entry{key, entry.value});
        }
    }

private:
    // Declared first, so that it outlives the entries pointing into it.
    HashedStrMap_KeyPool _keys;
    tree_type _entries;
};

// Texts in the order pushed; equal texts share one block.
class HashedStrVector {
public:
    using internal_metadata = HashedStrReference::internal_metadata;

    HashedStrVector() = default;
    HashedStrVector(HashedStrVector&& other) noexcept { swap(other); }
    HashedStrVector& operator=(HashedStrVector&& other) noexcept {
        swap(other);
        return *this;
    }
    ~HashedStrVector() { _freeMem(); }

    void push_back(const char* text) { push_back(text, strlen(text)); }
    void push_back(const char* text, size_t length) {
        push_back(text, length, djb2_hash_n(text, length));
    }
    void push_back(const char* text, size_t length, str_hash_t hash);

    size_t size() const { return _v.size(); }
    bool empty() const { return _v.empty(); }
    HashedStrReference operator[](size_t i) const { return HashedStrReference(_v[i]); }
    const std::vector<internal_metadata*>& blocks() const { return _v; }

    // Releases the array and every block: the vector is empty afterwards.
    void _freeMem();
    void swap(HashedStrVector& other) noexcept {
        _v.swap(other._v);
        _generator.swap(other._generator);
    }

private:
    // Declared first, so that it outlives _v.
    HashedStrMapKeyGenerator _generator;
    std::vector<internal_metadata*> _v;
};
