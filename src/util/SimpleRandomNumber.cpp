#include "util/SimpleRandomNumber.h"

#include <unistd.h>

#include <atomic>

#include "libzero/assertion.h"
#include "util/Str.h"
#include "util/Thread.h"

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

xorshift128plus_state* SimpleRandomNumber::perThread() {
    Thread* thr = Thread::current();
    if (thr == nullptr || thr->_scratchp.load(std::memory_order_relaxed) == nullptr) {
        static xorshift128plus_state processWide = [] {
            xorshift128plus_state s;
            xorshift128plus_init_with_mixers(
                &s, static_cast<uint64_t>(getpid()) ^ 0x3C46C5A19D794B4Dull, 0xE948F79CCCC409C2ull);
            return s;
        }();
        return &processWide;
    }
    xorshift128plus_state* s = &thr->_scratchp.load(std::memory_order_relaxed)->random;
    if (s->s[0] == 0 && s->s[1] == 0) {
        xorshift128plus_init(s);
        s->s[0] ^= reinterpret_cast<uintptr_t>(thr);
    }
    return s;
}

void SimpleRandomNumber::randStr(unsigned char min, unsigned char max, size_t length, Str* out) {
    ASSERT(min <= max);
    out->resize(length);
    char* p = out->data();
    xorshift128plus_fill_memory(perThread(), p, length);
    const unsigned span = unsigned(max) - min + 1;
    for (size_t i = 0; i < length; ++i) {
        p[i] = static_cast<char>(min + static_cast<unsigned char>(p[i]) % span);
    }
}
