// Number parsers on (pointer, length).
//
// The accept set is strtol(3)'s in the C locale, with every byte consumed. For
// base 10, the common case, the digits are read here directly, with the same
// accept set, instead of copying into a scratch buffer for the C library;
// other bases go through the C library on a terminated copy. The result says
// everything: errno is the caller's before and after, so that parsing on an
// error path does not lose the error.

#include <double-conversion/double-conversion.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/Str.h"

namespace {

inline bool isCSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Above 9 for anything but a digit.
inline unsigned digitValue(char c) { return static_cast<unsigned>(c - '0'); }

// Eight ASCII digits at once, in one 64-bit word (first digit lowest).
inline bool eightDigits(uint64_t w) {
    return (w & 0xF0F0F0F0F0F0F0F0) == 0x3030303030303030 &&
           ((w + 0x0606060606060606) & 0xF0F0F0F0F0F0F0F0) == 0x3030303030303030;
}

inline uint64_t eightDigitsValue(uint64_t w) {
    w -= 0x3030303030303030;
    w = w * 10 + (w >> 8);  // pairs
    return (((w & 0x000000FF000000FF) * (100 + (1000000ull << 32))) +
            (((w >> 16) & 0x000000FF000000FF) * (1 + (10000ull << 32)))) >>
           32;
}

// Base 10 as strtoul/strtol read it: white space, a sign, digits, then the end
// of the data. `negativeLimit` is the magnitude a minus sign may reach (0 when
// a minus is refused).
[[gnu::always_inline]] inline bool parseDecimal(const char* p, size_t n, uint64_t positiveLimit,
                                                uint64_t negativeLimit, bool allowMinus,
                                                uint64_t* magnitude, bool* negative) {
    size_t i = 0;
    // Every C-locale space is at or below ' '; digits and signs are above.
    if (n > 0 && static_cast<unsigned char>(p[0]) <= ' ') {
        while (i < n && isCSpace(p[i])) ++i;
    }
    bool minus = false;
    if (i < n && static_cast<unsigned char>(p[i]) <= '-' && (p[i] == '+' || p[i] == '-')) {
        minus = p[i] == '-';
        if (minus && !allowMinus) return false;
        ++i;
    }
    // Nineteen digits stay below 10^19 < 2^64; only longer runs (leading
    // zeros, or overflow) need checked arithmetic.
    const size_t first = i;
    const size_t unchecked = std::min(n, i + 19);
    uint64_t v = 0;
    for (uint64_t w; i + 8 <= unchecked && (memcpy(&w, p + i, 8), eightDigits(w)); i += 8) {
        v = v * 100000000 + eightDigitsValue(w);
    }
    for (unsigned d; i < unchecked && (d = digitValue(p[i])) <= 9; ++i) v = v * 10 + d;
    if (i == first) return false;
    bool overflow = false;
    for (unsigned d; i < n && (d = digitValue(p[i])) <= 9; ++i) {
        overflow =
            overflow || __builtin_mul_overflow(v, 10u, &v) || __builtin_add_overflow(v, d, &v);
    }
    if (overflow || v > (minus ? negativeLimit : positiveLimit) || i != n) return false;
    *magnitude = v;
    *negative = minus;
    return true;
}

// Any base, by the C library on a terminated copy.
template <class T, class Fn>
[[gnu::noinline, gnu::cold]] bool parseWithLibc(const char* data, size_t length, int base, Fn fn,
                                                T* value) {
    if (length == 0) return false;
    char stackBuf[64];
    std::unique_ptr<char[]> heapBuf;
    char* buf = stackBuf;
    if (length >= sizeof stackBuf) {
        heapBuf.reset(new char[length + 1]);
        buf = heapBuf.get();
    }
    memcpy(buf, data, length);
    buf[length] = '\0';
    const int saved = errno;
    errno = 0;
    char* end = nullptr;
    T v = fn(buf, &end, base);
    const bool outOfRange = errno == ERANGE;
    errno = saved;
    if (end == buf || end != buf + length || outOfRange) return false;
    *value = v;
    return true;
}

// The unsigned C library functions wrap a negative number around: refuse a
// minus before it gets there.
bool startsWithMinus(const char* data, size_t length) {
    size_t i = 0;
    while (i < length && isCSpace(data[i])) ++i;
    return i < length && data[i] == '-';
}

[[gnu::always_inline]] inline bool tryUnsigned64(const char* data, size_t length, uint64_t* out,
                                                 int base) {
    if (base == 10) {
        uint64_t v;
        bool negative;
        if (!parseDecimal(data, length, UINT64_MAX, 0, false, &v, &negative)) return false;
        *out = v;
        return true;
    }
    if (startsWithMinus(data, length)) return false;
    unsigned long long v;
    if (!parseWithLibc(data, length, base, strtoull, &v)) return false;
    *out = v;
    return true;
}

[[gnu::always_inline]] inline bool trySigned64(const char* data, size_t length, int64_t* out,
                                               int base) {
    if (base == 10) {
        uint64_t magnitude;
        bool negative;
        if (!parseDecimal(data, length, uint64_t{INT64_MAX}, uint64_t{INT64_MAX} + 1, true,
                          &magnitude, &negative)) {
            return false;
        }
        *out = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
        return true;
    }
    long long v;
    if (!parseWithLibc(data, length, base, strtoll, &v)) return false;
    *out = v;
    return true;
}

// Strict: the whole text is one finite number; no white space, no hex, no
// "Infinity" or "NaN" (the converter has no symbols for them).
const double_conversion::StringToDoubleConverter& doubleConverter() {
    static const double_conversion::StringToDoubleConverter converter(
        double_conversion::StringToDoubleConverter::NO_FLAGS, 0.0, NAN, nullptr, nullptr);
    return converter;
}

bool equalsCaseless(const char* p, size_t n, const char* lower) {
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        if (c != lower[i] || lower[i] == '\0') return false;
    }
    return lower[n] == '\0';
}

}  // namespace

bool mem_tryToUnsignedLongLong(const char* data, size_t length, unsigned long long* out, int base) {
    uint64_t v;
    if (!tryUnsigned64(data, length, &v, base)) return false;
    *out = v;
    return true;
}

bool mem_tryToUnsignedLong(const char* data, size_t length, unsigned long* out, int base) {
    uint64_t v;
    if (!tryUnsigned64(data, length, &v, base)) return false;
    *out = v;
    return true;
}

bool mem_tryToSizet(const char* data, size_t length, size_t* out, int base) {
    size_t i = 0;
    while (i < length && (data[i] == ' ' || data[i] == '\t')) ++i;
    if (i < length && data[i] == '-') return false;
    uint64_t v;
    if (!tryUnsigned64(data, length, &v, base)) return false;
    *out = v;
    return true;
}

bool mem_tryToLong(const char* data, size_t length, long* out, int base) {
    int64_t v;
    if (!trySigned64(data, length, &v, base)) return false;
    *out = v;
    return true;
}

bool mem_tryToLongLong(const char* data, size_t length, long long* out, int base) {
    int64_t v;
    if (!trySigned64(data, length, &v, base)) return false;
    *out = v;
    return true;
}

bool mem_tryToInt(const char* data, size_t length, int* out, int base) {
    int64_t v;
    if (!trySigned64(data, length, &v, base) || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

bool mem_tryToUnsigned(const char* data, size_t length, unsigned* out, int base) {
    uint64_t v;
    if (!tryUnsigned64(data, length, &v, base) || v > 0xFFFFFFFFu) return false;
    *out = static_cast<unsigned>(v);
    return true;
}

bool mem_tryToDouble(const char* data, size_t length, double* out) {
    if (data == nullptr || length == 0 || length > INT_MAX) return false;
    int processed = 0;
    const double v = doubleConverter().StringToDouble(data, static_cast<int>(length), &processed);
    if (static_cast<size_t>(processed) != length || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

bool mem_tryToBool(const char* data, size_t length, bool* out) {
    if (length == 0) return false;
    if (equalsCaseless(data, length, "f") || equalsCaseless(data, length, "false") ||
        equalsCaseless(data, length, "no") || mem_equals_cstring(data, length, "0")) {
        *out = false;
        return true;
    }
    if (equalsCaseless(data, length, "t") || equalsCaseless(data, length, "true") ||
        equalsCaseless(data, length, "yes") || mem_equals_cstring(data, length, "1")) {
        *out = true;
        return true;
    }
    return false;
}

unsigned long long mem_toUnsignedLongLong(const char* data, size_t length, unsigned long long dflt,
                                          int base) {
    mem_tryToUnsignedLongLong(data, length, &dflt, base);
    return dflt;
}

unsigned long mem_toUnsignedLong(const char* data, size_t length, unsigned long dflt, int base) {
    mem_tryToUnsignedLong(data, length, &dflt, base);
    return dflt;
}

size_t mem_toSizet(const char* data, size_t length, size_t dflt, int base) {
    mem_tryToSizet(data, length, &dflt, base);
    return dflt;
}

long mem_toLong(const char* data, size_t length, long dflt, int base) {
    mem_tryToLong(data, length, &dflt, base);
    return dflt;
}

long long mem_toLongLong(const char* data, size_t length, long long dflt, int base) {
    mem_tryToLongLong(data, length, &dflt, base);
    return dflt;
}

int mem_toInt(const char* data, size_t length, int dflt, int base) {
    mem_tryToInt(data, length, &dflt, base);
    return dflt;
}

unsigned mem_toUnsigned(const char* data, size_t length, unsigned dflt, int base) {
    mem_tryToUnsigned(data, length, &dflt, base);
    return dflt;
}

double mem_toDouble(const char* data, size_t length, double dflt) {
    mem_tryToDouble(data, length, &dflt);
    return dflt;
}

bool mem_toBool(const char* data, size_t length, bool ifEmpty, bool ifInvalid) {
    if (length == 0) return ifEmpty;
    bool v;
    return mem_tryToBool(data, length, &v) ? v : ifInvalid;
}
