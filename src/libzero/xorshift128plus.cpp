#include "libzero/xorshift128plus.h"

#include <errno.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <x86intrin.h>

namespace {

// The standard 64-bit finisher (splitmix64's).
inline uint64_t finish(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Whether rdtsc may be read here: not under PR_TSC_SIGSEGV. Decided once per
// process.
bool cycleCounterAvailable() {
    static const bool available = [] {
        int mode = 0;
        return !(prctl(PR_GET_TSC, &mode, 0, 0, 0) == 0 && mode == PR_TSC_SIGSEGV);
    }();
    return available;
}

inline uint64_t errnoAddressBits() { return reinterpret_cast<uintptr_t>(&errno) >> 2; }

inline uint64_t pidSwapped() { return __builtin_bswap64(static_cast<uint64_t>(getpid())); }

// The two clock-and-counter words every non-deterministic seed starts from.
void clockWords(uint64_t* w0, uint64_t* w1) {
    struct timeval tv;
    const bool haveCounter = cycleCounterAvailable();
    // Where the clock source is the TSC, the vDSO's gettimeofday reads rdtsc
    // too and faults under PR_TSC_SIGSEGV; the system call does not.
    if (haveCounter)
        gettimeofday(&tv, nullptr);
    else
        syscall(SYS_gettimeofday, &tv, nullptr);
    const uint64_t counter = haveCounter ? __rdtsc() : 0;
    *w0 = finish(counter - __builtin_bswap64(static_cast<uint64_t>(tv.tv_sec)));
    *w1 = finish(static_cast<uint64_t>(tv.tv_usec) + __builtin_bswap64(counter));
}

}  // namespace

uint64_t xorshift128plus_next(xorshift128plus_state* state) {
    uint64_t x = state->s[0];
    const uint64_t y = state->s[1];
    state->s[0] = y;
    x ^= x << 23;
    state->s[1] = x ^ y ^ (x >> 17) ^ (y >> 26);
    return state->s[1] + y;
}

void xorshift128plus_init(xorshift128plus_state* state) {
    uint64_t w0, w1;
    clockWords(&w0, &w1);
    state->s[0] = w0 ^ pidSwapped() ^ errnoAddressBits() ^ 0x9B391DC19A7337CDull;
    state->s[1] = w1 ^ reinterpret_cast<uintptr_t>(state) ^ 0x273B2DBAF60DF78Bull;
}

void xorshift128plus_init_with_seed(xorshift128plus_state* state, uint64_t seed) {
    state->s[0] = finish(seed);
    uint64_t z = (seed ^ (seed >> 31)) * 0x7FB5D329728EA185ull;
    z = (z ^ (z >> 27)) * 0x81DADEF4BC2DD44Dull;
    state->s[1] = z ^ (z >> 33);
}

void xorshift128plus_init_with_mixers(xorshift128plus_state* state, uint64_t a, uint64_t b) {
    uint64_t w0, w1;
    clockWords(&w0, &w1);
    state->s[0] = w0 ^ a;
    state->s[1] = w1 ^ b;
}

void xorshift128plus_mix_in_initial_seed(xorshift128plus_state* state) {
    const uint64_t old0 = state->s[0];
    const uint64_t old1 = state->s[1];
    uint64_t w0, w1;
    clockWords(&w0, &w1);
    state->s[0] = w0 ^ ((pidSwapped() ^ errnoAddressBits()) + old1);
    state->s[1] = w1 ^ old0;
}

double xorshift128plus_get_ratio(xorshift128plus_state* state) {
    // 52 random mantissa bits under the exponent of 1.0: a value in [1, 2).
    const uint64_t bits =
        0x3FF0000000000000ull | (xorshift128plus_next(state) & 0x000FFFFFFFFFFFFFull);
    double d;
    memcpy(&d, &bits, sizeof d);
    return d - 1.0;
}

void xorshift128plus_fill_memory(xorshift128plus_state* state, void* dest, size_t length) {
    unsigned char* p = static_cast<unsigned char*>(dest);
    while (length >= 8) {
        const uint64_t v = xorshift128plus_next(state);
        memcpy(p, &v, 8);
        p += 8;
        length -= 8;
    }
    if (length > 0) {
        const uint64_t v = xorshift128plus_next(state);
        memcpy(p, &v, length);
    }
}
