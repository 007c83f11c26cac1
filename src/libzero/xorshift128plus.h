#pragma once
// xorshift128+: a small, fast generator for where no strength is needed
// (jitter, sampling, shuffles). Not for secrets.

#include <cstddef>
#include <cstdint>

// (0, 0) means "not yet seeded".
struct xorshift128plus_state {
    uint64_t s[2];
};

// One step; the output.
uint64_t xorshift128plus_next(xorshift128plus_state* state);

// Seeded from the clock, the cycle counter, the process and addresses.
void xorshift128plus_init(xorshift128plus_state* state);
// Fully determined by the seed.
void xorshift128plus_init_with_seed(xorshift128plus_state* state, uint64_t seed);
// Clock and cycle counter, xored with the two given words.
void xorshift128plus_init_with_mixers(xorshift128plus_state* state, uint64_t a, uint64_t b);
// Stirs fresh clock and process values into an existing state.
void xorshift128plus_mix_in_initial_seed(xorshift128plus_state* state);

// A value in [0, 1).
double xorshift128plus_get_ratio(xorshift128plus_state* state);
// Whole outputs in host order; the last one supplies the last 1 to 8 bytes.
void xorshift128plus_fill_memory(xorshift128plus_state* state, void* dest, size_t length);
