#include "support/AllocCounter.h"

#include <cstddef>

namespace alloccounter {
namespace {
std::atomic<int> openScopes{0};
std::atomic<long> counted{0};

[[maybe_unused]] void note() {
    if (openScopes.load(std::memory_order_relaxed) > 0) {
        counted.fetch_add(1, std::memory_order_relaxed);
    }
}
}  // namespace
}  // namespace alloccounter

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers own malloc; they call these hooks on every allocation. (GCC
// ships no header for this; libasan and libtsan export it.)
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void*));

namespace {
void onMalloc(const volatile void*, size_t) { alloccounter::note(); }
void onFree(const volatile void*) {}
const bool hooksInstalled = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree) != 0;
}  // namespace

bool alloccounter::available() { return hooksInstalled; }

#elif !defined(TARVEX_WITH_JEMALLOC)
// glibc's allocator: interpose its entry points. operator new ends up here.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

void* malloc(size_t n) {
    alloccounter::note();
    return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
    alloccounter::note();
    return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
    alloccounter::note();
    return __libc_realloc(p, n);
}
}

bool alloccounter::available() { return true; }

#else
bool alloccounter::available() { return false; }
#endif

namespace alloccounter {

Scope::Scope() : _start(counted.load()) { openScopes.fetch_add(1); }

Scope::~Scope() { openScopes.fetch_sub(1); }

long Scope::allocations() const { return counted.load() - _start; }

}  // namespace alloccounter
