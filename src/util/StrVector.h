#pragma once
// Vectors and ordered sets of byte strings, and the split functions that fill
// them.

#include <set>
#include <vector>

#include "util/Str.h"

// An ordered set of Str (a balanced tree), by byte comparison.
class StrSet : public std::set<Str> {
public:
    using std::set<Str>::set;
};

class StrSegmentVector;

class StrVector : public std::vector<Str> {
public:
    using std::vector<Str>::vector;
    using std::vector<Str>::push_back;

    StrVector() = default;
    // Zero-terminated texts up to a null argument.
    explicit StrVector(const char* first, ...) __attribute__((sentinel));

    static const StrVector EMPTY_STRVECTOR;

    void push_back(const char* z) { emplace_back(z); }
    void push_back(const char* data, size_t length) { emplace_back(data, length); }

    void append(const StrVector& other) { insert(end(), other.begin(), other.end()); }
    void append(const std::vector<StrSegment>& segments);
    // Adds one element and swaps `s` into it, leaving `s` empty.
    void appendDestructive(Str* s);
    // Takes the whole array when that is cheaper, else element by element;
    // `source` is left empty.
    void appendDestructive(StrVector* source);

    bool contains(const char* z) const { return contains(z, strlen(z)); }
    bool contains(const char* data, size_t length) const;

    // Append the elements, separated, to `dest`.
    void joinInto(Str& dest, char sep) const;
    void joinInto(Str& dest, const char* sep) const;
    void joinInto(AppendStr* dest, char sep) const;
    void joinInto(AppendStr* dest, const char* sep) const;
    void joinIntoAsEscapedSearchTerms(Str& dest, char sep) const;

    void reverse();
    // Ascending by byte comparison.
    void sort();
    void shuffle();
    // Keeps the first occurrence of each value and the order of the rest.
    void dedup();
    // The same against the caller's set, so that several vectors share one history.
    void dedup(StrSet& seen);
    void dedupAlreadySorted();

    // The array's capacity in bytes plus each element's capacity.
    size_t estimateHeapUsage() const;

    // {[0]='a' [1]='b'}
    Str toString() const;
    // [a 'b c']: quoted only where white space occurs.
    Str toString_concise() const;
};

class StrSegmentVector : public std::vector<StrSegment> {
public:
    using std::vector<StrSegment>::vector;
    using std::vector<StrSegment>::push_back;

    void push_back(const char* z) { emplace_back(z); }
    // Views into `v`, valid as long as its elements are.
    void append(const StrVector& v);
    void append(const std::vector<StrSegment>& segments) {
        insert(end(), segments.begin(), segments.end());
    }
    void joinInto(Str& dest, char sep) const;
    void joinInto(Str& dest, const char* sep) const;
};

// The two acceptors behind the _into forms: one copies the bytes, the other
// keeps views into the input.
class acceptor_PopulateStrVector : public StrSegmentTokenAcceptor {
public:
    explicit acceptor_PopulateStrVector(StrVector* target) : _target(target) {}
    void accept(StrSegment token) override { _target->emplace_back(token._data, token._len); }

private:
    StrVector* _target;
};

class acceptor_PopulateStrSegmentVector : public StrSegmentTokenAcceptor {
public:
    explicit acceptor_PopulateStrSegmentVector(StrSegmentVector* target) : _target(target) {}
    void accept(StrSegment token) override { _target->push_back(token); }

private:
    StrSegmentVector* _target;
};

// The split family into vectors. They append: the target is not cleared.
#define TX_DECLARE_SPLIT_INTO(Vector)                                                           \
    void mem_split_into(Vector* v, const char* data, size_t length, char sep,                   \
                        uint32_t maximum = SPLIT_NO_LIMIT);                                     \
    void mem_split_into(Vector* v, const char* data, size_t length, const CharacterClass& sep,  \
                        uint32_t maximum = SPLIT_NO_LIMIT);                                     \
    void mem_split_into_mbyte(Vector* v, const char* data, size_t length, const char* sep,      \
                              size_t seplen, uint32_t maximum = SPLIT_NO_LIMIT);                \
    void mem_split_into_mbytez(Vector* v, const char* data, size_t length, const char* sep,     \
                               uint32_t maximum = SPLIT_NO_LIMIT);                              \
    void mem_split_into_nonempty(Vector* v, const char* data, size_t length, char sep,          \
                                 uint32_t maximum = SPLIT_NO_LIMIT);                            \
    void mem_split_into_nonempty(Vector* v, const char* data, size_t length,                    \
                                 const CharacterClass& sep, uint32_t maximum = SPLIT_NO_LIMIT); \
    void mem_split_into_nonempty_mbyte(Vector* v, const char* data, size_t length,              \
                                       const char* sep, size_t seplen,                          \
                                       uint32_t maximum = SPLIT_NO_LIMIT);                      \
    void mem_split_into_nonempty_mbytez(Vector* v, const char* data, size_t length,             \
                                        const char* sep, uint32_t maximum = SPLIT_NO_LIMIT);    \
    void mem_split_lines_into(Vector* v, const char* data, size_t length);

TX_DECLARE_SPLIT_INTO(StrVector)
TX_DECLARE_SPLIT_INTO(StrSegmentVector)
#undef TX_DECLARE_SPLIT_INTO
