// A program that installs the crash report and then dies in the way its
// arguments ask, for the crash report tests to read what it left.
//
//   crash_victim DIR SCENARIO [worker]
//
// DIR "-" sends the report to standard error. The functions that crash are
// extern "C" and never inlined, so that the tests can find them by name in a
// back-trace and hand their offsets to addr2line.
//
// Throughout, a guard ends the process with status 86 if malloc or free is
// called on an alternate signal stack, which is where the crash handler runs.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "libzero/assertion.h"
#include "util/CrashLog.h"
#include "util/Pathname.h"
#include "util/Thread.h"

extern "C" void __libc_free(void*);

// ---------------------------------------------------------------- the guard

namespace {

// Nothing here may look like it does not return: ASan precedes calls to
// such functions with a stack clean-up that itself allocates.
void guard(const char* what) {
    stack_t ss;
    if (sigaltstack(nullptr, &ss) != 0 || (ss.ss_flags & SS_ONSTACK) == 0) return;
    static constexpr char kPrefix[] = "crash_victim: ";
    static constexpr char kSuffix[] = " called inside the crash handler\n";
    // Raw system calls: inside an allocator hook the sanitizers' own wrappers
    // of write and _exit may wait on the allocator's lock.
    syscall(SYS_write, STDERR_FILENO, kPrefix, sizeof kPrefix - 1);
    syscall(SYS_write, STDERR_FILENO, what, strlen(what));
    syscall(SYS_write, STDERR_FILENO, kSuffix, sizeof kSuffix - 1);
    syscall(SYS_exit_group, 86);
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers own malloc; they call these on every allocation and free.
// (Part of their runtime's interface; GCC ships no header for it.)
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void*));

namespace {
void installGuard() {
    __sanitizer_install_malloc_and_free_hooks([](const volatile void*, size_t) { guard("malloc"); },
                                              [](const volatile void*) { guard("free"); });
}
}  // namespace
#else
// Without a sanitizer the program's own definitions replace the C library's
// for every caller in the process, the C library included.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t n) { return guard("malloc"), __libc_malloc(n); }
void* calloc(size_t n, size_t size) { return guard("calloc"), __libc_calloc(n, size); }
void* realloc(void* p, size_t n) { return guard("realloc"), __libc_realloc(p, n); }
void* memalign(size_t alignment, size_t n) {
    return guard("memalign"), __libc_memalign(alignment, n);
}
void* aligned_alloc(size_t alignment, size_t n) { return memalign(alignment, n); }
int posix_memalign(void** out, size_t alignment, size_t n) {
    return (*out = memalign(alignment, n)) == nullptr ? ENOMEM : 0;
}
void free(void* p) { guard("free"), __libc_free(p); }
}
namespace {
void installGuard() {}
}  // namespace
#endif

// ---------------------------------------------------------------- ways to die

extern "C" {

// The compiler must not see through these, so each does its damage through
// a volatile or in assembly.
__attribute__((noinline)) void crash_victim_segv() {
    int* volatile p = reinterpret_cast<int*>(16);
    *p = 1;
}

__attribute__((noinline)) void crash_victim_bus() {
    // Touching a mapped page past the end of its file.
    char path[] = "/tmp/crash_victim_bus.XXXXXX";
    const int fd = mkstemp(path);
    unlink(path);
    if (fd < 0 || ftruncate(fd, 0) != 0) abort();
    auto* p = static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
    if (p == MAP_FAILED) abort();
    (void)p[0];
}

__attribute__((noinline)) void crash_victim_ill() { asm volatile("ud2"); }

__attribute__((noinline)) void crash_victim_abrt() { abort(); }

__attribute__((noinline)) int crash_victim_fpe(int numerator, int divisor) {
    int result = numerator;
    asm volatile("cltd\n\tidivl %1" : "+a"(result) : "r"(divisor) : "edx", "cc");
    return result;
}

__attribute__((noinline)) void crash_victim_assert(int value) {
    // clang-format off
    ASSERT(value == 42);
    // clang-format on
}

__attribute__((noinline)) void crash_victim_throw() {
    throw std::runtime_error("boom in the worker");
}

volatile int crash_victim_recursion_limit = -1;  // never reached

__attribute__((noinline)) int crash_victim_recurse(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (depth == crash_victim_recursion_limit) return 0;
    return crash_victim_recurse(depth + 1) + frame[0];
}

__attribute__((noinline)) void crash_victim_lock_error() {
    // Unlocking as if others waited when none do is fatal.
    MutexByte b;
    MutexByte::waiting_list chain;
    chain.construct();
    if (b.tryLock()) b.unlockWithSleepers(&chain);
}

__attribute__((noinline)) void crash_victim_kill_self() { kill(getpid(), SIGSEGV); }

__attribute__((noinline)) void crash_victim_bad_free() {
    // The C library's own check, which leaves its message for the report.
    static char notFromMalloc[64] __attribute__((aligned(16)));
    __libc_free(notFromMalloc + 16);
}

}  // extern "C"

// ---------------------------------------------------------------- notations

namespace {

// A notation of this thread that renders with `render`.
template <class F>
class Notation : public ScopedPerThreadCrashLogNotation {
public:
    explicit Notation(F render) : _render(render) { publish(); }
    void renderTo(CrashLogWriteHandler& h) const override { _render(h); }

private:
    F _render;
};

// Writes `total` bytes of text, 1000 at a time; forever when total is 0.
auto flooding(size_t total) {
    return [total](CrashLogWriteHandler& h) {
        char line[1000];
        memset(line, 'x', sizeof line - 1);
        line[sizeof line - 1] = '\n';
        for (size_t done = 0; total == 0 || done < total; done += sizeof line) {
            h.write(line, sizeof line);
        }
    };
}

auto numbered(const char* who, int depth) {
    return [who, depth](CrashLogWriteHandler& h) { h.format("notation %s depth %d", who, depth); };
}

// Two threads each hold two nested notations; the one named `crasher`
// ("A", "B" or "main") crashes while all of them stand.
void crashAmongNotations(const char* crasher) {
    addGlobalCrashLogNotation("global notation of pid %d", static_cast<int>(getpid()));
    std::atomic<int> standing{0};
    auto body = [&](const char* who) {
        Notation outer(numbered(who, 1));
        Notation inner(numbered(who, 2));
        for (++standing; standing.load() < 3;) sched_yield();
        if (strcmp(who, crasher) == 0) crash_victim_segv();
        pause();  // the crash ends the process
    };
    ThreadFunction a([&] { body("A"); }, "NotationsA");
    ThreadFunction b([&] { body("B"); }, "NotationsB");
    a.go();
    b.go();
    body("main");
}

// On the main thread, or on a worker with the "worker" argument.
const std::map<std::string, void (*)()> kDeaths = {
    {"segv", crash_victim_segv},
    {"bus", crash_victim_bus},
    {"ill", crash_victim_ill},
    {"abrt", crash_victim_abrt},
    {"fpe", [] { crash_victim_fpe(7, 0); }},
    {"assert", [] { crash_victim_assert(41); }},
    {"exception", crash_victim_throw},
    {"stack-overflow", [] { crash_victim_recurse(0); }},
    {"lock-error", crash_victim_lock_error},
    {"kill-segv", crash_victim_kill_self},
    {"bad-free", crash_victim_bad_free},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: crash_victim DIR SCENARIO [worker]\n");
        return 2;
    }
    EmptyMainThread mainThread;
    const std::string dir = argv[1], scenario = argv[2];
    const bool worker = argc > 3 && strcmp(argv[3], "worker") == 0;

    if (scenario == "stderr-tail") {
        // Standard error goes to a file the report is told about.
        const std::string path = dir + "/stderr.txt";
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) return 3;
        close(fd);
        register_stderr_file_location(path.c_str());
    }
    const bool installed = dir == "-" ? InitBacktracerToStderr() : InitBacktracer(Pathname(dir));
    if (!installed) return 4;
    installGuard();

    if (auto death = kDeaths.find(scenario); death != kDeaths.end() && !worker) {
        death->second();
    } else if (death != kDeaths.end()) {
        ThreadFunction t(death->second, "CrashWorker");
        t.go();
        t.join();
    } else if (scenario.starts_with("notations-")) {
        crashAmongNotations(scenario.c_str() + strlen("notations-"));
    } else if (scenario == "overflow" || scenario == "loop") {
        Notation flood(flooding(scenario == "loop" ? 0 : 600 * 1000));
        crash_victim_segv();
    } else if (scenario == "fault-in-handler") {
        Notation faulting([](CrashLogWriteHandler& h) {
            h.write("about to fault in a notation");
            crash_victim_segv();
        });
        crash_victim_segv();
    } else if (scenario == "malloc-in-handler") {
        // Breaks the rule the guard enforces, to show that the guard bites.
        Notation allocating([](CrashLogWriteHandler& h) {
            void* volatile p = malloc(64);
            free(p);
            h.write("allocated");
        });
        crash_victim_segv();
    } else if (scenario == "emfile") {
        struct rlimit limit = {64, 64};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 5;
        while (open("/dev/null", O_RDONLY) >= 0) {}
        crash_victim_segv();
    } else if (scenario == "stderr-tail") {
        for (int i = 1; i <= 100; ++i) fprintf(stderr, "stderr line %d\t(tab)\r\n", i);
        fflush(stderr);
        crash_victim_abrt();
    } else {
        fprintf(stderr, "crash_victim: no scenario %s\n", scenario.c_str());
        return 2;
    }
    return 1;  // survived: the test says so
}
