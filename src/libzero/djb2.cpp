#include "libzero/djb2.h"

namespace {

inline uint64_t step(uint64_t h, char c) {
    return h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

}  // namespace

uint64_t djb2_hash_n_cumulative(uint64_t hash, const char* data, size_t length) {
    for (size_t i = 0; i < length; ++i) hash = step(hash, data[i]);
    return hash;
}

uint64_t djb2_hash_n(const char* data, size_t length) {
    return djb2_hash_n_cumulative(DJB2_INITIAL, data, length);
}

uint64_t djb2_hash_and_strlen(const char* text, size_t* length) {
    uint64_t h = DJB2_INITIAL;
    const char* p = text;
    for (; *p; ++p) h = step(h, *p);
    *length = static_cast<size_t>(p - text);
    return h;
}

uint64_t djb2_hash(const char* text) {
    size_t ignored;
    return djb2_hash_and_strlen(text, &ignored);
}

uint64_t djb2_hash_n_nocase(const char* data, size_t length) {
    uint64_t h = DJB2_INITIAL;
    for (size_t i = 0; i < length; ++i) {
        char c = data[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        h = step(h, c);
    }
    return h;
}
