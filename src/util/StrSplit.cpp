// The split family. Each splitter is written once, over a separator matcher,
// and serves the byte, class and multi-byte forms alike.

#include "util/Str.h"
#include "util/StrVector.h"

StrSegmentTokenAcceptor::~StrSegmentTokenAcceptor() = default;

namespace {

// Separator matchers: find the next separator from a position, and tell
// whether one starts exactly at a position. `size` is the separator's length.
struct ByteSep {
    char c;
    size_t size() const { return 1; }
    size_t find(const char* data, size_t length, size_t from) const {
        return mem_find(data, length, c, from);
    }
    bool at(const char* data, size_t length, size_t i) const { return i < length && data[i] == c; }
};

struct ClassSep {
    const CharacterClass& cls;
    size_t size() const { return 1; }
    size_t find(const char* data, size_t length, size_t from) const {
        return mem_find(data, length, cls, from, true);
    }
    bool at(const char* data, size_t length, size_t i) const {
        return i < length && cls.contains(data[i]);
    }
};

struct StringSep {
    const char* s;
    size_t n;  // at least 2
    size_t size() const { return n; }
    size_t find(const char* data, size_t length, size_t from) const {
        return mem_find(data, length, s, n, from);
    }
    bool at(const char* data, size_t length, size_t i) const {
        return i < length && mem_startswith(data + i, length - i, s, n);
    }
};

inline void countDown(uint32_t* left) {
    if (*left != SPLIT_NO_LIMIT) --*left;
}

// Empty input gives no token in the byte and class forms, and one empty
// token with a separator of two bytes or more, whose rule is that the rest is
// always emitted.
template <class Sep>
void splitAll(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, Sep sep,
              uint32_t maximum) {
    if (length == 0 && sep.size() == 1) return;
    uint32_t left = maximum;
    size_t start = 0;
    while (left > 0) {
        const size_t pos = sep.find(data, length, start);
        if (pos == MEM_NPOS) break;
        acceptor.accept(StrSegment(data + start, pos - start));
        start = pos + sep.size();
        countDown(&left);
    }
    // Also when empty: a trailing separator gives a final empty token.
    acceptor.accept(StrSegment(data + start, length - start));
}

template <class Sep>
void splitNonEmpty(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, Sep sep,
                   uint32_t maximum) {
    uint32_t left = maximum;
    size_t i = 0;
    for (;;) {
        while (sep.at(data, length, i)) i += sep.size();
        if (i >= length) return;
        if (left == 0) {
            // The rest as it stands, separators and all.
            acceptor.accept(StrSegment(data + i, length - i));
            return;
        }
        const size_t pos = sep.find(data, length, i);
        if (pos == MEM_NPOS) {
            acceptor.accept(StrSegment(data + i, length - i));
            return;
        }
        acceptor.accept(StrSegment(data + i, pos - i));
        countDown(&left);
        i = pos + sep.size();
    }
}

// A separator of length 0 splits between every two bytes.
void splitBytes(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                uint32_t maximum) {
    if (length == 0) return;
    uint32_t left = maximum;
    size_t i = 0;
    for (; i + 1 < length && left > 0; ++i) {
        acceptor.accept(StrSegment(data + i, 1));
        countDown(&left);
    }
    acceptor.accept(StrSegment(data + i, length - i));
}

}  // namespace

void mem_split(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, char sep,
               uint32_t maximum) {
    splitAll(data, length, acceptor, ByteSep{sep}, maximum);
}

void mem_split(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
               const CharacterClass& sep, uint32_t maximum) {
    splitAll(data, length, acceptor, ClassSep{sep}, maximum);
}

void mem_split_mbyte(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                     const char* sep, size_t seplen, uint32_t maximum) {
    if (seplen == 0) return splitBytes(data, length, acceptor, maximum);
    if (seplen == 1) return splitAll(data, length, acceptor, ByteSep{sep[0]}, maximum);
    splitAll(data, length, acceptor, StringSep{sep, seplen}, maximum);
}

void mem_split_mbytez(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                      const char* sep, uint32_t maximum) {
    mem_split_mbyte(data, length, acceptor, sep, strlen(sep), maximum);
}

void mem_splitNonEmpty(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, char sep,
                       uint32_t maximum) {
    splitNonEmpty(data, length, acceptor, ByteSep{sep}, maximum);
}

void mem_splitNonEmpty(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                       const CharacterClass& sep, uint32_t maximum) {
    splitNonEmpty(data, length, acceptor, ClassSep{sep}, maximum);
}

void mem_splitNonEmpty_mbyte(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                             const char* sep, size_t seplen, uint32_t maximum) {
    if (seplen == 0) return splitBytes(data, length, acceptor, maximum);
    if (seplen == 1) return splitNonEmpty(data, length, acceptor, ByteSep{sep[0]}, maximum);
    splitNonEmpty(data, length, acceptor, StringSep{sep, seplen}, maximum);
}

void mem_splitNonEmpty_mbytez(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                              const char* sep, uint32_t maximum) {
    mem_splitNonEmpty_mbyte(data, length, acceptor, sep, strlen(sep), maximum);
}

void mem_split_lines(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor) {
    size_t start = 0;
    while (start < length) {
        const size_t pos = mem_find(data, length, '\n', start);
        if (pos == MEM_NPOS) {
            acceptor.accept(StrSegment(data + start, length - start));  // keeps a CR
            return;
        }
        size_t end = pos;
        if (end > start && data[end - 1] == '\r') --end;
        acceptor.accept(StrSegment(data + start, end - start));
        start = pos + 1;
    }
}

// ---------------------------------------------------------------- into vectors

namespace {

template <class Vector>
struct AcceptorFor;
template <>
struct AcceptorFor<StrVector> {
    using type = acceptor_PopulateStrVector;
};
template <>
struct AcceptorFor<StrSegmentVector> {
    using type = acceptor_PopulateStrSegmentVector;
};

}  // namespace

#define TX_DEFINE_SPLIT_INTO(Vector)                                                              \
    void mem_split_into(Vector* v, const char* data, size_t length, char sep, uint32_t maximum) { \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_split(data, length, acceptor, sep, maximum);                                          \
    }                                                                                             \
    void mem_split_into(Vector* v, const char* data, size_t length, const CharacterClass& sep,    \
                        uint32_t maximum) {                                                       \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_split(data, length, acceptor, sep, maximum);                                          \
    }                                                                                             \
    void mem_split_into_mbyte(Vector* v, const char* data, size_t length, const char* sep,        \
                              size_t seplen, uint32_t maximum) {                                  \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_split_mbyte(data, length, acceptor, sep, seplen, maximum);                            \
    }                                                                                             \
    void mem_split_into_mbytez(Vector* v, const char* data, size_t length, const char* sep,       \
                               uint32_t maximum) {                                                \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_split_mbytez(data, length, acceptor, sep, maximum);                                   \
    }                                                                                             \
    void mem_split_into_nonempty(Vector* v, const char* data, size_t length, char sep,            \
                                 uint32_t maximum) {                                              \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_splitNonEmpty(data, length, acceptor, sep, maximum);                                  \
    }                                                                                             \
    void mem_split_into_nonempty(Vector* v, const char* data, size_t length,                      \
                                 const CharacterClass& sep, uint32_t maximum) {                   \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_splitNonEmpty(data, length, acceptor, sep, maximum);                                  \
    }                                                                                             \
    void mem_split_into_nonempty_mbyte(Vector* v, const char* data, size_t length,                \
                                       const char* sep, size_t seplen, uint32_t maximum) {        \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_splitNonEmpty_mbyte(data, length, acceptor, sep, seplen, maximum);                    \
    }                                                                                             \
    void mem_split_into_nonempty_mbytez(Vector* v, const char* data, size_t length,               \
                                        const char* sep, uint32_t maximum) {                      \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_splitNonEmpty_mbytez(data, length, acceptor, sep, maximum);                           \
    }                                                                                             \
    void mem_split_lines_into(Vector* v, const char* data, size_t length) {                       \
        AcceptorFor<Vector>::type acceptor(v);                                                    \
        mem_split_lines(data, length, acceptor);                                                  \
    }

TX_DEFINE_SPLIT_INTO(StrVector)
TX_DEFINE_SPLIT_INTO(StrSegmentVector)
#undef TX_DEFINE_SPLIT_INTO
