#include "libzero/int-to-ascii.h"

namespace {

constexpr char kDigitPairs[201] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes the digits backwards from `end`, two at a time.
inline void writeBackwards(uint64_t value, char* end) {
    while (value >= 100) {
        unsigned pair = static_cast<unsigned>(value % 100) * 2;
        value /= 100;
        *--end = kDigitPairs[pair + 1];
        *--end = kDigitPairs[pair];
    }
    if (value >= 10) {
        unsigned pair = static_cast<unsigned>(value) * 2;
        *--end = kDigitPairs[pair + 1];
        *--end = kDigitPairs[pair];
    } else {
        *--end = static_cast<char>('0' + value);
    }
}

// Magnitude of a signed value without overflowing on the most negative one.
inline uint64_t magnitude(int64_t value) {
    return value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

}  // namespace

// An estimate of log10 from the bit length (1233/4096 ~ log10(2)), then one
// comparison to correct it. Entry 0 is 0 so that 0 and 1 count one digit.
unsigned decimalCharactersU64(uint64_t value) {
    static constexpr uint64_t kPowers[20] = {0,
                                             10ull,
                                             100ull,
                                             1000ull,
                                             10000ull,
                                             100000ull,
                                             1000000ull,
                                             10000000ull,
                                             100000000ull,
                                             1000000000ull,
                                             10000000000ull,
                                             100000000000ull,
                                             1000000000000ull,
                                             10000000000000ull,
                                             100000000000000ull,
                                             1000000000000000ull,
                                             10000000000000000ull,
                                             100000000000000000ull,
                                             1000000000000000000ull,
                                             10000000000000000000ull};
    const unsigned bits = 64 - static_cast<unsigned>(__builtin_clzll(value | 1));
    const unsigned t = (bits * 1233) >> 12;
    return t + 1 - (value < kPowers[t] ? 1 : 0);
}

unsigned decimalCharactersU32(uint32_t value) { return decimalCharactersU64(value); }

unsigned decimalCharactersI64(int64_t value) {
    return decimalCharactersU64(magnitude(value)) + (value < 0 ? 1 : 0);
}

unsigned decimalCharactersI32(int32_t value) { return decimalCharactersI64(value); }

void convertU64ToAsciiSizeKnown(uint64_t value, char* out, unsigned count) {
    writeBackwards(value, out + count);
}

void convertU32ToAsciiSizeKnown(uint32_t value, char* out, unsigned count) {
    writeBackwards(value, out + count);
}

void convertI64ToAsciiSizeKnown(int64_t value, char* out, unsigned count) {
    if (value < 0) *out = '-';
    writeBackwards(magnitude(value), out + count);
}

void convertI32ToAsciiSizeKnown(int32_t value, char* out, unsigned count) {
    convertI64ToAsciiSizeKnown(value, out, count);
}

size_t convertU64ToAscii(uint64_t value, char* out) {
    unsigned n = decimalCharactersU64(value);
    writeBackwards(value, out + n);
    return n;
}

size_t convertU32ToAscii(uint32_t value, char* out) { return convertU64ToAscii(value, out); }

size_t convertI64ToAscii(int64_t value, char* out) {
    unsigned n = decimalCharactersI64(value);
    convertI64ToAsciiSizeKnown(value, out, n);
    return n;
}

size_t convertI32ToAscii(int32_t value, char* out) { return convertI64ToAscii(value, out); }
