#pragma once
// A result assembled for one gather write: small pieces are copied into one
// string, large ones referenced where they lie, and spaces can be reserved
// and filled in later (length fields known only at the end). The copied
// bytes' addresses are resolved by finalize(), as the string may move until
// then. A referenced piece must stay alive and unmoved until the write.

#include <cstdarg>
#include <cstdint>
#include <iosfwd>

#include "util/AppendStr.h"
#include "util/Str.h"

class SerializedResult {
public:
    enum State : uint8_t { LAST_IS_REFERENCE = 0, LAST_IS_STORED = 1, FINALIZED = 2 };
    // Pieces this long are referenced; shorter ones cost less to copy than a
    // gather element.
    static constexpr size_t MIN_REFERENCE = 48;

    void addReference(const void* data, size_t length);
    // Copies only when that is free (short, and the last piece is copied
    // bytes); otherwise references, even short data.
    void addReferenceFinal(const void* data, size_t length);
    void addReference(const AppendStr& s);
    void addReference(const SerializedResult& r);
    // Takes the string's bytes, by a swap when nothing is stored yet.
    void addDestructive(Str* s);
    // n zero bytes to be filled in later: the token is their offset.
    size_t reserveSpace(size_t n);
    // Also after finalize().
    void fillInReservedSpace(size_t token, const void* data, size_t length);
    void appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void appendVformat(const char* fmt, va_list args);

    void finalize();
    bool finalized() const { return _state == FINALIZED; }
    void swap(SerializedResult& other) noexcept;
    // Cuts to n bytes (n at most size()).
    void resize(uint64_t n);
    uint64_t size() const { return _size; }
    bool empty() const { return _size == 0; }
    State state() const { return _state; }

    // Calls f(pointer, length) for each piece in order, in either state.
    template <typename F>
    void forEachPiece(F f) const {
        const char* stored = _stor.data();
        for (size_t i = 0; i < _v.size(); ++i) {
            const struct iovec& e = _v[i];
            if (_state == FINALIZED || e.iov_base != nullptr) {
                f(static_cast<const char*>(e.iov_base), e.iov_len);
            } else {
                f(stored, e.iov_len);
            }
            if (_state != FINALIZED && e.iov_base == nullptr) stored += e.iov_len;
        }
    }

    // A byte position: the element, the offset in it, and where the bytes of
    // the next stored element begin in _stor.
    class const_iterator {
    public:
        const_iterator() = default;
        char operator*() const;
        const_iterator& operator+=(uint64_t n);
        friend bool operator==(const const_iterator& a, const const_iterator& b) {
            return a._stor == b._stor && a._elem == b._elem && a._offset == b._offset;
        }
        const char* _stor = nullptr;
        size_t _elem = 0;
        size_t _offset = 0;
        const SerializedResult* _owner = nullptr;

    private:
        friend class SerializedResult;
        void passEmptyElements();
    };
    const_iterator begin() const;
    const_iterator end() const;

    const PortableIovec& _iovec() const { return _v; }

private:
    void _justAddedToStor(size_t n);
    void _post_swap_fix_finalized(const char* formerData, size_t formerSize);
    void addReferenceElement(const void* data, size_t length);

    PortableIovec _v;
    State _state = LAST_IS_REFERENCE;
    Str _stor;
    uint64_t _size = 0;
};

// An empty, finalised value: a neutral result to return.
extern const SerializedResult EmptySerializedResult;

void append_stringified(Str* dest, const SerializedResult& r);
void append_stringified(Str* dest, const SerializedResult::const_iterator& it);
std::ostream& operator<<(std::ostream& out, const SerializedResult& r);
