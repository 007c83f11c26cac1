#pragma once
// Small random numbers where no strength is needed.

#include <cstdint>

// The classic linear congruential generator, the same sequence on every
// platform: state = (state * 1103515245 + 12345) & 0x7FFFFFFF, returned.
// Shared by the whole process; safe from any thread.
int32_t portable_rand();

#include <cstddef>

#include "libzero/xorshift128plus.h"

class Str;

// The fast generator where no strength is needed: one xorshift128+ state per
// thread, in the thread's scratch, so drawing takes no lock.
class SimpleRandomNumber {
public:
    // The calling thread's state, seeded at first use. A thread that is not a
    // Thread (or a process before its MainThread) shares one process-wide
    // state, which is then not safe from two such threads at once.
    static xorshift128plus_state* perThread();
    // `length` random bytes, each mapped to min + byte % (max - min + 1),
    // replacing the contents of `out`.
    static void randStr(unsigned char min, unsigned char max, size_t length, Str* out);
};
