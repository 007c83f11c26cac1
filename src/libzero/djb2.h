#pragma once
// djb2: h = h * 33 + byte, from 5381, in 64 bits, each byte taken as signed.
// A fast, stable, non-cryptographic hash for tables of names.

#include <cstddef>
#include <cstdint>

constexpr uint64_t DJB2_INITIAL = 5381;

uint64_t djb2_hash(const char* text);
uint64_t djb2_hash_n(const char* data, size_t length);
// Continues from `hash`, as if the bytes had followed the earlier ones.
uint64_t djb2_hash_n_cumulative(uint64_t hash, const char* data, size_t length);
// The hash of a zero-terminated text, with its length.
uint64_t djb2_hash_and_strlen(const char* text, size_t* length);
// ASCII letters folded to lower case first.
uint64_t djb2_hash_n_nocase(const char* data, size_t length);
