#pragma once
// Small random numbers where no strength is needed.

#include <cstdint>

// The classic linear congruential generator, the same sequence on every
// platform: state = (state * 1103515245 + 12345) & 0x7FFFFFFF, returned.
// Shared by the whole process; safe from any thread.
int32_t portable_rand();
