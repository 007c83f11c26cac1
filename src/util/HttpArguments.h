#pragma once
// Request arguments: a multimap from key to value in the order they came,
// looked up by the key's djb2 hash, and the push parser of URL-encoded text
// ("a=1&b=x+y") that fills it as the bytes arrive.
//
// Lookups take the key's bytes, length and djb2_hash_n of them, so that a
// caller hashes a constant key once. Keys compare by exact bytes, case
// included.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "util/HashedStr.h"
#include "util/Str.h"

template <class T>
using ScopedPointer = std::unique_ptr<T>;

constexpr str_hash_t DJB2_INITIAL_HASH_STATE = DJB2_INITIAL;

class HttpArgumentsRemoveActor;

class HttpArguments {
public:
    struct argument {
        argument* next = nullptr;       // insertion order
        argument** prevp = nullptr;     // the link that points here
        argument* chainNext = nullptr;  // the next one of the same hash
        Str key;
        Str value;
    };
    struct chain_head {
        argument* root;
        argument** chain_lastp;  // the chainNext of the chain's last argument
    };

    class UrlEncodedKeyValueParser;
    class FillFromUrlEncodedParser;

    class const_iterator {
    public:
        const_iterator() = default;
        explicit const_iterator(const argument* a) : _a(a) {}
        const argument& operator*() const { return *_a; }
        const argument* operator->() const { return _a; }
        const_iterator& operator++() {
            _a = _a->next;
            return *this;
        }
        // On to the next argument with this one's key, or the end.
        const_iterator& advanceWithSameKey();
        bool operator==(const const_iterator&) const = default;

    private:
        const argument* _a = nullptr;
    };

    HttpArguments() = default;
    HttpArguments(const HttpArguments& other);
    HttpArguments(HttpArguments&& other) noexcept { swap(other); }
    HttpArguments& operator=(const HttpArguments& other);
    HttpArguments& operator=(HttpArguments&& other) noexcept {
        swap(other);
        return *this;
    }
    ~HttpArguments();

    // Appends one more argument, whatever keys are there.
    void add(const char* key, size_t size, str_hash_t hash, StrSegment value);
    // The first value of the key becomes `value`, any later ones stay; a new
    // argument at the end when the key is absent.
    void set(const char* key, size_t size, str_hash_t hash, const Str& value);
    // As set(), moving the caller's text in and leaving `value` empty.
    void setDestructive(const char* key, size_t size, str_hash_t hash, Str& value);

    size_t count(const char* key, size_t size, str_hash_t hash) const;
    // The first argument with the key, or end().
    const_iterator find(const char* key, size_t size, str_hash_t hash) const;
    // The first value, or null.
    const Str* get(const char* key, size_t size, str_hash_t hash) const;
    // The nth value of the key (from 0), or null.
    const Str* index(const char* key, size_t size, str_hash_t hash, size_t n) const;

    // Removes every argument with the key, showing each to `actor` first;
    // how many went.
    size_t removeKey(const char* key, size_t size, str_hash_t hash,
                     HttpArgumentsRemoveActor& actor);
    size_t removeKey(const char* key, size_t size, str_hash_t hash);
    // Removes every argument with the key, the first value moved to *value;
    // false (and *value untouched) when there was none.
    bool fetchAndRemoveKey(const char* key, size_t size, str_hash_t hash, Str* value);

    // Removed arguments and tree nodes stay for reuse.
    void clear();
    void swap(HttpArguments& other) noexcept;

    size_t size() const { return _size; }
    bool empty() const { return _size == 0; }
    const_iterator begin() const { return const_iterator(_first); }
    const_iterator end() const { return const_iterator(); }

    // Same keys and values in the same order.
    friend bool operator==(const HttpArguments& a, const HttpArguments& b);

private:
    // std::map rather than a hash table: hostile keys can be made to agree in
    // any chosen bits of djb2, and a tree keeps each lookup logarithmic
    // whatever the keys. Its nodes are kept on `_spareHeads` when a chain
    // empties, so a reused object reaches a state where nothing allocates.
    using Tree = std::map<str_hash_t, chain_head>;

    argument* _allocate();
    void _append(str_hash_t hash, argument* a);
    void _recycle(argument* a);
    const argument* _findFirst(const char* key, size_t size, str_hash_t hash) const;
    argument* _findFirst(const char* key, size_t size, str_hash_t hash) {
        return const_cast<argument*>(std::as_const(*this)._findFirst(key, size, hash));
    }
    void _fixSelfLinks() noexcept;

    argument* _first = nullptr;
    argument** _lastp = &_first;  // the next link of the last argument
    size_t _size = 0;
    Tree _tree;
    std::vector<Tree::node_type> _spareHeads;
    argument* _free = nullptr;  // linked through `next`
};

// What is done with each argument that a removal takes out.
class HttpArgumentsRemoveActor {
public:
    virtual ~HttpArgumentsRemoveActor();
    virtual void removing(HttpArguments::argument& a) = 0;
};

class NoopHttpArgumentsRemoveActor : public HttpArgumentsRemoveActor {
public:
    void removing(HttpArguments::argument&) override {}
};

// Moves the first removed value into the target.
class FetchHttpArgumentsRemoveActor : public HttpArgumentsRemoveActor {
public:
    explicit FetchHttpArgumentsRemoveActor(Str* target) : _target(target) {}
    void removing(HttpArguments::argument& a) override;
    bool fetched() const { return _fetched; }

private:
    Str* _target;
    bool _fetched = false;
};

// Takes URL-encoded text in pieces of any size: "&" or ";" ends a pair, the
// first "=" of a pair ends its key, "+" is a blank and %XX a byte. Keys are
// hashed as their bytes are appended.
class HttpArguments::UrlEncodedKeyValueParser {
public:
    static constexpr uint8_t ESCSTATE_GROUND = 16;
    static constexpr uint8_t ESCSTATE_FIRST_DIGIT_DUE = 17;  // 0 to 15: the first digit

    UrlEncodedKeyValueParser() = default;
    UrlEncodedKeyValueParser(const UrlEncodedKeyValueParser&) = delete;
    UrlEncodedKeyValueParser& operator=(const UrlEncodedKeyValueParser&) = delete;
    virtual ~UrlEncodedKeyValueParser();

    // False when a "%" was followed by a byte that is not a hex digit; that
    // byte is dropped and parsing goes on.
    bool parse(const StrSegment& data);
    // Hands on a pair still open; false when the text ended inside an
    // escape. The parser is then ready for a new text.
    bool finish();

protected:
    // Takes a completed pair; one left in `arg` is emptied for the next.
    virtual void acceptArgument(str_hash_t hash, ScopedPointer<argument>& arg) = 0;
    // Provides an argument with empty key and value.
    virtual void allocateArgument(ScopedPointer<argument>& arg);

    ScopedPointer<argument> _arg;

private:
    void _endPair();
    void _appendByte(char c);

    bool _inValue = false;
    str_hash_t _keyHash = DJB2_INITIAL_HASH_STATE;
    uint8_t _escState = ESCSTATE_GROUND;
};

// Appends each pair to an HttpArguments, taking nodes from its free list.
class HttpArguments::FillFromUrlEncodedParser : public UrlEncodedKeyValueParser {
public:
    explicit FillFromUrlEncodedParser(HttpArguments* target) : _target(target) {}
    // The argument held for a next pair goes back to the target.
    ~FillFromUrlEncodedParser() override;

protected:
    void acceptArgument(str_hash_t hash, ScopedPointer<argument>& arg) override;
    void allocateArgument(ScopedPointer<argument>& arg) override;

private:
    HttpArguments* _target;
};

// Clears `dest` and parses the whole text; false on a bad or cut escape,
// with what parsed kept.
bool mem_parse_into(const char* data, size_t length, HttpArguments* dest);
// URL-encoded again: "key=value&...", every byte outside "-_.~" and
// alphanumerics as %XX.
void append_stringified(Str* dest, const HttpArguments& args);
