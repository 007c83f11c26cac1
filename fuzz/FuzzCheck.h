#pragma once
// A failed property in a fuzz target: print it and abort, so that libFuzzer
// keeps the input as a crash.
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                \
    do {                                                                                \
        if (!(cond)) {                                                                  \
            fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                    \
        }                                                                               \
    } while (0)
