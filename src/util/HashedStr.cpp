#include "util/HashedStr.h"

#include <memory>
#include <new>

#include "util/CrashLog.h"

namespace {

// Room for one more element, growing geometrically (reserve alone would grow
// by exactly one).
template <class T>
void reserve_one_more(std::vector<T>& v) {
    if (v.size() == v.capacity()) v.reserve(v.empty() ? 8 : 2 * v.size());
}

}  // namespace

void append_stringified(Str* dest, const HashedStrReference& v) {
    dest->append(v.data(), v.length());
}

void crashlog_write(CrashLogWriteHandler& h, const HashedStrReference& v) {
    h.writeQuotedString(v.data(), v.length());
}

// ---------------------------------------------------------------- HashedStrMap_KeyPool

HashedStrMap_KeyPool::internal_metadata* HashedStrMap_KeyPool::createBlock(const char* text,
                                                                           size_t length,
                                                                           str_hash_t hash) {
    ASSERT(length < ~size_t{0} - 40);
    void* memory = ::operator new(internal_metadata::allocationSize(length));
    internal_metadata* block = new (memory) internal_metadata{nullptr, _head, length, hash};
    if (length != 0) memcpy(block->text(), text, length);
    block->text()[length] = '\0';
    if (_head != nullptr) _head->_prev = block;
    _head = block;
    ++_count;
    return block;
}

void HashedStrMap_KeyPool::destroy(const internal_metadata* block) {
    internal_metadata* b = const_cast<internal_metadata*>(block);
    if (b->_prev != nullptr) {
        b->_prev->_next = b->_next;
    } else {
        ASSERT(_head == b);
        _head = b->_next;
    }
    if (b->_next != nullptr) b->_next->_prev = b->_prev;
    --_count;
    ::operator delete(b);
}

void HashedStrMap_KeyPool::freeAll() {
    internal_metadata* b = _head;
    while (b != nullptr) {
        internal_metadata* next = b->_next;
        ::operator delete(b);
        b = next;
    }
    _head = nullptr;
    _count = 0;
}

// ---------------------------------------------------------------- HashedStrIndex

bool HashedStrIndex::_locate(const char* text, size_t length, str_hash_t hash, Position* lower,
                             Position* match) const {
    const size_t nleaves = _leaves.size();
    size_t li = str_hash_lower_bound(_lastHashes.data(), nleaves, hash);
    if (li == nleaves) {
        // Above every hash present: the end of the last leaf.
        *lower = nleaves == 0 ? Position{0, 0} : Position{nleaves - 1, _leaves.back()->count};
        return false;
    }
    const Leaf* leaf = _leaves[li];
    size_t slot = str_hash_lower_bound(leaf->hashes, leaf->count, hash);
    *lower = {li, static_cast<unsigned>(slot)};
    // Equal hashes may run on into the following leaves.
    for (;;) {
        for (; slot < leaf->count && leaf->hashes[slot] == hash; ++slot) {
            if (leaf->keys[slot]->equals(text, length)) {
                *match = {li, static_cast<unsigned>(slot)};
                return true;
            }
        }
        if (slot < leaf->count || ++li == nleaves) return false;
        leaf = _leaves[li];
        slot = 0;
    }
}

HashedStrIndex::internal_metadata* HashedStrIndex::find(const char* text, size_t length,
                                                        str_hash_t hash, Position* where) const {
    Position lower, match;
    const bool found = _locate(text, length, hash, &lower, &match);
    if (where != nullptr) *where = lower;
    return found ? at(match) : nullptr;
}

void HashedStrIndex::insertAt(Position where, internal_metadata* block) {
    const str_hash_t hash = block->hash;
    if (_leaves.empty()) {
        ASSERT(where == Position({0, 0}));
        std::unique_ptr<Leaf> leaf(new Leaf);
        reserve_one_more(_lastHashes);
        reserve_one_more(_leaves);
        leaf->count = 1;
        leaf->hashes[0] = hash;
        leaf->keys[0] = block;
        _lastHashes.push_back(hash);
        _leaves.push_back(leaf.release());
        ++_size;
        return;
    }
    ASSERT(where.leaf < _leaves.size());
    Leaf* leaf = _leaves[where.leaf];
    ASSERT(where.slot <= leaf->count);
    if (leaf->count == LEAF_CAPACITY) {
        // Everything that can fail comes first, so that failure changes nothing.
        std::unique_ptr<Leaf> upper(new Leaf);
        reserve_one_more(_lastHashes);
        reserve_one_more(_leaves);
        constexpr unsigned keep = LEAF_CAPACITY / 2;
        upper->count = LEAF_CAPACITY - keep;
        memcpy(upper->hashes, leaf->hashes + keep, upper->count * sizeof(str_hash_t));
        memcpy(upper->keys, leaf->keys + keep, upper->count * sizeof(internal_metadata*));
        leaf->count = keep;
        _leaves.insert(_leaves.begin() + static_cast<ptrdiff_t>(where.leaf) + 1, upper.get());
        _lastHashes.insert(_lastHashes.begin() + static_cast<ptrdiff_t>(where.leaf) + 1,
                           upper->hashes[upper->count - 1]);
        _lastHashes[where.leaf] = leaf->hashes[keep - 1];
        if (where.slot > keep) {
            where = {where.leaf + 1, where.slot - keep};
            leaf = upper.get();
        }
        upper.release();
    }
    const unsigned tail = leaf->count - where.slot;
    memmove(leaf->hashes + where.slot + 1, leaf->hashes + where.slot, tail * sizeof(str_hash_t));
    memmove(leaf->keys + where.slot + 1, leaf->keys + where.slot,
            tail * sizeof(internal_metadata*));
    leaf->hashes[where.slot] = hash;
    leaf->keys[where.slot] = block;
    if (++leaf->count == where.slot + 1) _lastHashes[where.leaf] = hash;
    ++_size;
}

void HashedStrIndex::append(internal_metadata* block) {
    ASSERT(_lastHashes.empty() || _lastHashes.back() <= block->hash);
    if (_leaves.empty() || _leaves.back()->count == LEAF_CAPACITY) {
        std::unique_ptr<Leaf> leaf(new Leaf);
        leaf->count = 0;
        reserve_one_more(_lastHashes);
        reserve_one_more(_leaves);
        _lastHashes.push_back(block->hash);
        _leaves.push_back(leaf.release());
    }
    insertAt({_leaves.size() - 1, _leaves.back()->count}, block);
}

HashedStrIndex::internal_metadata* HashedStrIndex::erase(const char* text, size_t length,
                                                         str_hash_t hash) {
    Position lower, match;
    if (!_locate(text, length, hash, &lower, &match)) return nullptr;
    Leaf* leaf = _leaves[match.leaf];
    internal_metadata* block = leaf->keys[match.slot];
    const unsigned tail = leaf->count - match.slot - 1;
    memmove(leaf->hashes + match.slot, leaf->hashes + match.slot + 1, tail * sizeof(str_hash_t));
    memmove(leaf->keys + match.slot, leaf->keys + match.slot + 1,
            tail * sizeof(internal_metadata*));
    --_size;
    if (--leaf->count == 0) {
        _removeLeaf(match.leaf);
    } else {
        _lastHashes[match.leaf] = leaf->hashes[leaf->count - 1];
        _mergeIfSparse(match.leaf);
    }
    return block;
}

void HashedStrIndex::_removeLeaf(size_t leaf) {
    delete _leaves[leaf];
    _leaves.erase(_leaves.begin() + static_cast<ptrdiff_t>(leaf));
    _lastHashes.erase(_lastHashes.begin() + static_cast<ptrdiff_t>(leaf));
}

// Keeps leaves at least a quarter full on average after erasures, so that an
// index that shrank does not keep one leaf per entry.
void HashedStrIndex::_mergeIfSparse(size_t leaf) {
    constexpr unsigned limit = LEAF_CAPACITY / 2;
    size_t into;
    if (leaf + 1 < _leaves.size() && _leaves[leaf]->count + _leaves[leaf + 1]->count <= limit) {
        into = leaf;
    } else if (leaf > 0 && _leaves[leaf - 1]->count + _leaves[leaf]->count <= limit) {
        into = leaf - 1;
    } else {
        return;
    }
    Leaf* a = _leaves[into];
    const Leaf* b = _leaves[into + 1];
    memcpy(a->hashes + a->count, b->hashes, b->count * sizeof(str_hash_t));
    memcpy(a->keys + a->count, b->keys, b->count * sizeof(internal_metadata*));
    a->count += b->count;
    _lastHashes[into] = _lastHashes[into + 1];
    _removeLeaf(into + 1);
}

void HashedStrIndex::clear() {
    for (Leaf* leaf : _leaves) delete leaf;
    _leaves.clear();
    _lastHashes.clear();
    _size = 0;
}

void HashedStrIndex::swap(HashedStrIndex& other) noexcept {
    _lastHashes.swap(other._lastHashes);
    _leaves.swap(other._leaves);
    std::swap(_size, other._size);
}

void HashedStrIndex::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.write("{", 1);
    for (Position p = begin(); p != end(); p = next(p)) {
        if (p != begin()) h.write(", ", 2);
        const internal_metadata* key = at(p);
        h.writeQuotedString(key->text(), key->length);
    }
    h.write("}", 1);
}

HashedStrIndex::internal_metadata* HashedStrIndex::findOrCreate(HashedStrMap_KeyPool& pool,
                                                                const char* text, size_t length,
                                                                str_hash_t hash, bool* created) {
    Position where;
    internal_metadata* block = find(text, length, hash, &where);
    *created = block == nullptr;
    if (block != nullptr) return block;
    block = pool.createBlock(text, length, hash);
    try {
        insertAt(where, block);
    } catch (...) {
        pool.destroy(block);
        throw;
    }
    return block;
}

// ---------------------------------------------------------------- HashedStrVector

void HashedStrVector::push_back(const char* text, size_t length, str_hash_t hash) {
    // Room first: a block made for a push that then fails would only be kept
    // by the generator, never leaked, but this way nothing changes at all
    // when the push can't be done.
    reserve_one_more(_v);
    _v.push_back(_generator.getBlock(text, length, hash));
}

void HashedStrVector::_freeMem() {
    std::vector<internal_metadata*>().swap(_v);
    _generator.free_all();
}
