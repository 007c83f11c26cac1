#include "util/SimpleRandomNumber.h"

#include <atomic>

namespace {
// Starts where C's rand() starts without srand(): seed 1.
std::atomic<uint32_t> portableRandState{1};
}  // namespace

int32_t portable_rand() {
    // One compare-and-swap step is the whole critical section: no lock needed.
    uint32_t old = portableRandState.load(std::memory_order_relaxed);
    uint32_t next;
    do {
        next = (old * 1103515245u + 12345u) & 0x7FFFFFFFu;
    } while (!portableRandState.compare_exchange_weak(old, next, std::memory_order_relaxed));
    return static_cast<int32_t>(next);
}
