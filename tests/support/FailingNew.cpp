#include "support/FailingNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace failingnew {
namespace {
std::atomic<long> countdown{0};
std::atomic<long> made{0};
}  // namespace

void failAt(long n) {
    made = 0;
    countdown = n;
}

long calls() { return made; }

}  // namespace failingnew

void* operator new(std::size_t n) {
    ++failingnew::made;
    if (failingnew::countdown > 0 && --failingnew::countdown == 0) throw std::bad_alloc();
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return operator new(n);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
