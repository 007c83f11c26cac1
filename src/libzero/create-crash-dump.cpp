#include "libzero/create-crash-dump.h"

#include <cpuid.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"

crashdumper_init_state_t crashdumper_init_state = CRASHDUMPER_NOT_SET_UP_YET;

get_current_threadname_func_t crashdumper_get_current_threadname = nullptr;
get_threadcount_func_t crashdumper_get_threadcount = nullptr;
get_crashlog_notation_perthread_state_func_t crashdumper_get_notation_state = nullptr;

namespace {

dump_cxx_exception_helper_func_t dump_cxx_exception_helper = nullptr;
crash_log_vformat_func_t registered_vformat = nullptr;

crashlog_notation_list global_notations = {nullptr, nullptr};
crashlog_notation_list single_threaded_notations = {nullptr, nullptr};

char report_prefix[PATH_MAX];
char stderr_file[PATH_MAX];
timespec start_time;

// Found in the C library at set-up; each may stay null.
const char* (*libc_release)() = nullptr;
const char* (*libc_version)() = nullptr;
struct abort_msg_s {
    unsigned int size;
    char msg[];
};
abort_msg_s** libc_abort_msg = nullptr;

// Executable mappings of named files, read at set-up while malloc is safe.
struct exec_mapping {
    uintptr_t start;
    uintptr_t end;
    unsigned long long file_offset;
};
exec_mapping* exec_mappings = nullptr;
size_t exec_mapping_count = 0;

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGABRT, SIGFPE};
constexpr size_t kSingleWriteLimit = 51200;
constexpr size_t kReportLimit = 524287;
constexpr size_t kLoopCheckInterval = 2097152;
constexpr unsigned kMaxNotations = 1024;

// ---------------------------------------------------------------- built-in formatter

// Collects one formatted call in a stack buffer, so that a line is one write.
struct LineBuffer {
    explicit LineBuffer(backtrace_writing_handler* h) : handler(h) {}
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    backtrace_writing_handler* handler;
    char data[512];
    size_t used = 0;

    void put(const char* p, size_t n) {
        while (n > 0) {
            if (used == sizeof data) flush();
            const size_t take = n < sizeof data - used ? n : sizeof data - used;
            memcpy(data + used, p, take);
            used += take;
            p += take;
            n -= take;
        }
    }
    void repeat(char c, size_t n) {
        while (n-- > 0) put(&c, 1);
    }
    void flush() {
        if (used > 0) handler->do_write(handler, data, used);
        used = 0;
    }
};

// printf's integer, string and pointer conversions, with flags '-' and '0',
// width and precision; enough for the report's own lines and for callers
// that never registered the library's engine.
void builtin_vformat(backtrace_writing_handler* handler, const char* format, va_list args) {
    static constexpr char lower[] = "0123456789abcdef";
    static constexpr char upper[] = "0123456789ABCDEF";
    LineBuffer out(handler);
    const char* p = format;
    while (*p != '\0') {
        if (*p != '%') {
            const char* run = p;
            while (*p != '\0' && *p != '%') ++p;
            out.put(run, static_cast<size_t>(p - run));
            continue;
        }
        const char* directive = p++;
        bool left = false, zero = false;
        for (;; ++p) {
            if (*p == '-') {
                left = true;
            } else if (*p == '0') {
                zero = true;
            } else if (*p != '+' && *p != ' ' && *p != '#') {
                break;
            }
        }
        size_t width = 0;
        if (*p == '*') {
            const int w = va_arg(args, int);
            width = w < 0 ? 0 : static_cast<size_t>(w);
            ++p;
        }
        while (*p >= '0' && *p <= '9') width = width * 10 + static_cast<size_t>(*p++ - '0');
        long precision = -1;
        if (*p == '.') {
            ++p;
            precision = 0;
            if (*p == '*') {
                precision = va_arg(args, int);
                ++p;
            }
            while (*p >= '0' && *p <= '9') precision = precision * 10 + (*p++ - '0');
        }
        int longs = 0;
        bool size = false;
        for (;; ++p) {
            if (*p == 'l') {
                ++longs;
            } else if (*p == 'z') {
                size = true;
            } else if (*p != 'h') {
                break;
            }
        }
        char digits[24];
        const char* text = digits;
        size_t length = 0;
        bool negative = false;
        const char conversion = *p;
        if (conversion == '\0') {
            out.put(directive, static_cast<size_t>(p - directive));
            break;
        }
        ++p;
        switch (conversion) {
            case 'd':
            case 'i': {
                long long v = size || longs > 1 ? va_arg(args, long long)
                              : longs == 1      ? va_arg(args, long)
                                                : va_arg(args, int);
                negative = v < 0;
                const unsigned long long magnitude =
                    negative ? 0ULL - static_cast<unsigned long long>(v) : v;
                length = convertU64ToAscii(magnitude, digits);
                break;
            }
            case 'u':
            case 'x':
            case 'X':
            case 'p': {
                unsigned long long v;
                if (conversion == 'p') {
                    v = reinterpret_cast<uintptr_t>(va_arg(args, void*));
                } else if (size || longs > 1) {
                    v = va_arg(args, unsigned long long);
                } else if (longs == 1) {
                    v = va_arg(args, unsigned long);
                } else {
                    v = va_arg(args, unsigned);
                }
                if (conversion == 'u') {
                    length = convertU64ToAscii(v, digits);
                } else {
                    const char* set = conversion == 'X' ? upper : lower;
                    char* end = digits + sizeof digits;
                    char* q = end;
                    do {
                        *--q = set[v & 15];
                        v >>= 4;
                    } while (v != 0);
                    if (conversion == 'p') {
                        *--q = 'x';
                        *--q = '0';
                    }
                    text = q;
                    length = static_cast<size_t>(end - q);
                }
                break;
            }
            case 's': {
                text = va_arg(args, const char*);
                if (text == nullptr) text = "(null)";
                length =
                    precision >= 0 ? strnlen(text, static_cast<size_t>(precision)) : strlen(text);
                zero = false;
                break;
            }
            case 'c':
                digits[0] = static_cast<char>(va_arg(args, int));
                length = 1;
                zero = false;
                break;
            case '%':
                out.put("%", 1);
                continue;
            default:  // not ours: shown as written
                out.put(directive, static_cast<size_t>(p - directive));
                continue;
        }
        const size_t shown = length + (negative ? 1 : 0);
        const size_t pad = width > shown ? width - shown : 0;
        if (!left && !zero) out.repeat(' ', pad);
        if (negative) out.put("-", 1);
        if (!left && zero) out.repeat('0', pad);
        out.put(text, length);
        if (left) out.repeat(' ', pad);
    }
    out.flush();
}

void report_format(backtrace_writing_handler* h, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void report_format(backtrace_writing_handler* h, const char* format, ...) {
    va_list args;
    va_start(args, format);
    builtin_vformat(h, format, args);
    va_end(args);
}

void put(backtrace_writing_handler* h, const char* text) { h->do_write(h, text, strlen(text)); }

// ---------------------------------------------------------------- the report's writer

struct report_handler {
    backtrace_writing_handler base;
    int fd;
    size_t written;
    size_t overflow;  // 0 until the limit is reached
    timespec overflow_time;
};

// _exit() without anyone's interposition: a sanitizer runtime's _exit runs
// its leak check, which stops the world and never returns from a handler.
// Nor may it look like it does not return, as ASan precedes calls to such
// functions with a stack clean-up that allocates.
void die_now(int status) { syscall(SYS_exit_group, status); }

long elapsed_seconds(const timespec& since) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>(now.tv_sec - since.tv_sec) - (now.tv_nsec < since.tv_nsec ? 1 : 0);
}

void default_crash_log_write(backtrace_writing_handler* base, const char* data, size_t length) {
    report_handler* h = reinterpret_cast<report_handler*>(base);
    if (length > kSingleWriteLimit) {
        static constexpr char kTooBig[] =
            "Crash log write attempted over the limit of (50kB), skipping.\n";
        data = kTooBig;
        length = sizeof kTooBig - 1;
    }
    if (h->overflow != 0) {
        const size_t before = h->overflow;
        h->overflow += length;
        if (before / kLoopCheckInterval != h->overflow / kLoopCheckInterval) {
            timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            const long seconds = elapsed_seconds(h->overflow_time);
            if (seconds > 3 || now.tv_sec < h->overflow_time.tv_sec) {
                static constexpr char kLooping[] =
                    "Crash log writes still attempted after 3 seconds, maybe something is "
                    "looping?\n";
                crash_log_write_all(h->fd, kLooping, sizeof kLooping - 1);
                die_now(87);
            }
        }
        return;
    }
    if (h->written + length > kReportLimit) {
        static constexpr char kOverflow[] =
            "Crash log has overflowed the allowed limit (512kB), truncated.\n";
        h->overflow = 63;
        clock_gettime(CLOCK_MONOTONIC, &h->overflow_time);
        crash_log_write_all(h->fd, kOverflow, sizeof kOverflow - 1);
        return;
    }
    h->written += length;
    crash_log_write_all(h->fd, data, length);
}

// ---------------------------------------------------------------- file copies

bool is_printable(unsigned char c) { return c >= 0x20 && c < 0x7F; }

// Line-wise cleaning for embedded files: each line indented, CR and NUL
// dropped, tabs as blanks, other unprintable bytes as '?'.
struct IndentingCleaner {
    IndentingCleaner(backtrace_writing_handler* h, const char* prefix) : out(h), indent(prefix) {}

    LineBuffer out;
    const char* indent;
    bool at_line_start = true;

    void add(unsigned char c) {
        if (c == '\r' || c == '\0') return;
        if (at_line_start) {
            out.put(indent, strlen(indent));
            at_line_start = false;
        }
        if (c == '\n') {
            out.put("\n", 1);
            at_line_start = true;
            return;
        }
        const char shown = c == '\t' ? ' ' : is_printable(c) ? static_cast<char>(c) : '?';
        out.put(&shown, 1);
    }
};

int open_for_report(const char* path) {
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t read_some(int fd, char* buf, size_t n) {
    ssize_t got;
    do {
        got = read(fd, buf, n);
    } while (got < 0 && errno == EINTR);
    return got;
}

int insert_file(backtrace_writing_handler* h, const char* path, size_t limit, bool single_line) {
    const int fd = open_for_report(path);
    if (fd < 0) return -1;
    char buf[1024];
    size_t copied = 0;
    bool done = false;
    while (!done && copied < limit) {
        const size_t want = limit - copied < sizeof buf ? limit - copied : sizeof buf;
        const ssize_t got = read_some(fd, buf, want);
        if (got <= 0) break;
        size_t n = static_cast<size_t>(got);
        for (size_t i = 0; i < n; ++i) {
            const unsigned char c = static_cast<unsigned char>(buf[i]);
            if (single_line && (c == '\n' || c == '\r' || c == '\0')) {
                n = i;
                done = true;
                break;
            }
            if (c == '\t') {
                buf[i] = ' ';
            } else if (c != '\n' && !is_printable(c)) {
                buf[i] = '?';
            }
        }
        h->do_write(h, buf, n);
        copied += n;
    }
    if (!done && copied >= limit) {
        // Something is left only if one more byte can be read.
        char probe;
        if (read_some(fd, &probe, 1) == 1 &&
            !(single_line && (probe == '\n' || probe == '\r' || probe == '\0'))) {
            put(h, "<truncating output>\n");
        }
    }
    close(fd);
    return 0;
}

int insert_tail(backtrace_writing_handler* h, const char* path, size_t n, const char* title) {
    const int fd = open_for_report(path);
    if (fd < 0) return -1;
    const off_t size = lseek(fd, 0, SEEK_END);
    char buf[1024];
    bool skip_partial_line = false;
    if (size > 0 && static_cast<unsigned long long>(size) > n) {
        lseek(fd, size - static_cast<off_t>(n), SEEK_SET);
        skip_partial_line = true;
    } else {
        lseek(fd, 0, SEEK_SET);
    }
    put(h, title);
    IndentingCleaner clean(h, "    ");
    ssize_t got;
    while ((got = read_some(fd, buf, sizeof buf)) > 0) {
        for (ssize_t i = 0; i < got; ++i) {
            if (skip_partial_line) {
                if (buf[i] == '\n') skip_partial_line = false;
                continue;
            }
            clean.add(static_cast<unsigned char>(buf[i]));
        }
    }
    if (!clean.at_line_start) clean.out.put("\n", 1);
    clean.out.flush();
    close(fd);
    return 0;
}

// ---------------------------------------------------------------- notations

struct counting_handler {
    backtrace_writing_handler base;
    backtrace_writing_handler* target;
    size_t bytes;
};

void counting_write(backtrace_writing_handler* base, const char* data, size_t length) {
    counting_handler* h = reinterpret_cast<counting_handler*>(base);
    h->bytes += length;
    h->target->do_write(h->target, data, length);
}

void write_notation_list(backtrace_writing_handler* handler, const crashlog_notation_list* list) {
    if (list == nullptr) return;
    counting_handler counter = {{counting_write}, handler, 0};
    unsigned count = 0;
    for (crashlog_notation_entry* e = list->root; e != nullptr; e = e->next) {
        if (++count > kMaxNotations) {
            put(handler,
                "Max crashlog notation count exceeded (1024), probably linked list of "
                "notations corrupted. breaking out.\n");
            return;
        }
        const size_t before = counter.bytes;
        if (e->render != nullptr) e->render(e, &counter.base);
        if (counter.bytes != before) handler->do_write(handler, "\n", 1);
    }
}

crashlog_notation_list* get_single_threaded_notations() { return &single_threaded_notations; }

void free_string_notation(crashlog_notation_entry* entry) { free(entry); }

crashlog_notation_entry* make_string_notation(const char* text, size_t length) {
    auto* e = static_cast<crashlog_notation_string_entry*>(
        malloc(sizeof(crashlog_notation_string_entry) + length));
    if (e == nullptr) return nullptr;
    char* copy = reinterpret_cast<char*>(e + 1);
    memcpy(copy, text, length);
    e->entry = {crashlog_notation_write_string, free_string_notation, nullptr, nullptr};
    e->text = copy;
    e->length = length;
    return &e->entry;
}

// ---------------------------------------------------------------- the handler's sections

const char* cause_text(int signal, const siginfo_t* info) {
    const int code = info->si_code;
    switch (signal) {
        case SIGILL:
            switch (code) {
                case ILL_ILLOPC:
                    return "Illegal opcode";
                case ILL_ILLOPN:
                    return "Illegal operand for opcode";
                case ILL_ILLADR:
                    return "Illegal addressing mode for opcode";
                case ILL_ILLTRP:
                    return "Illegal trap";
                case ILL_PRVOPC:
                    return "Privileged opcode";
                case ILL_PRVREG:
                    return "Privileged register access";
                case ILL_COPROC:
                    return "Coprocessor error";
                case ILL_BADSTK:
                    return "Internal stack error";
            }
            break;
        case SIGFPE:
            switch (code) {
                case FPE_INTDIV:
                    return "Integer division by zero";
                case FPE_INTOVF:
                    return "Integer overflow";
                case FPE_FLTDIV:
                    return "Floating point division by zero";
                case FPE_FLTOVF:
                    return "Floating point overflow";
                case FPE_FLTUND:
                    return "Floating point underflow";
                case FPE_FLTRES:
                    return "Inexact floating point result";
                case FPE_FLTINV:
                    return "Invalid floating point operation";
                case FPE_FLTSUB:
                    return "Floating point subscript out of range";
            }
            break;
        case SIGSEGV:
            switch (code) {
                case SEGV_MAPERR:
                    return "No memory mapped";
                case SEGV_ACCERR:
                    return "Memory access denied";
            }
            break;
        case SIGBUS:
            switch (code) {
                case BUS_ADRALN:
                    return "Unaligned memory access";
                case BUS_ADRERR:
                    return "Non-existent accessed physical address";
                case BUS_OBJERR:
                    return info->si_errno == ENOMEM ? "Out of swap space" : "Hardware error";
            }
            break;
    }
    return nullptr;
}

void write_cause(backtrace_writing_handler* h, int signal, const siginfo_t* info) {
    if (info->si_signo != signal) {
        report_format(h, "   [siginfo has different signal number: %d!]\n", info->si_signo);
    }
    put(h, " Cause:\n");
    const unsigned long long address = reinterpret_cast<uintptr_t>(info->si_addr);
    const char* text = cause_text(signal, info);
    if (text != nullptr) report_format(h, "   %s at address [0x%016llX].\n", text, address);
    const int code = info->si_code;
    if (code == SI_KERNEL) {
        put(h, "   Signal sent by kernel.\n");
    } else if (code == SI_TKILL || code == SI_QUEUE || code == SI_USER) {
        report_format(h, "   Signal sent by PID %ld running under UID %ld.\n",
                      static_cast<long>(info->si_pid), static_cast<long>(info->si_uid));
    } else if (text == nullptr) {
        report_format(h, "   Unknown signal origin (si_code=%d, si_addr=[0x%016llX]", code,
                      address);
        if (info->si_errno != 0) report_format(h, ", si_errno=%d", info->si_errno);
        put(h, ").\n");
    }
}

// `return_address`: the address follows a call. A call to a function that
// never returns (abort, a failed assertion) can be the last instruction of
// its caller, so that the address is already the next function's: the
// symbol is the one of the byte before.
void write_address_line(backtrace_writing_handler* h, const void* address, bool return_address) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(address);
    report_format(h, "  [0x%016llX] ", static_cast<unsigned long long>(a));
    backtrace_symbol_information info;
    backtrace_symbol_information_get(&info, address);
    if (return_address && a > 0) {
        backtrace_symbol_information caller;
        backtrace_symbol_information_get(&caller, reinterpret_cast<const void*>(a - 1));
        info.symbol_name = caller.symbol_name;
        info.offset_in_symbol = caller.offset_in_symbol + 1;
        info.symbol_size = caller.symbol_size;
    }
    backtrace_symbol_information_print(h, &info);
    put(h, "\n");
}

void write_registers(backtrace_writing_handler* h, const ucontext_t* uc) {
    const greg_t* r = uc->uc_mcontext.gregs;
    static constexpr struct {
        const char* name;
        int index;
    } kRegisters[] = {
        {"RDI", REG_RDI},         {"RSI", REG_RSI},       {"RBP", REG_RBP}, {"RSP", REG_RSP},
        {"RAX", REG_RAX},         {"RBX", REG_RBX},       {"RCX", REG_RCX}, {"RDX", REG_RDX},
        {"R8", REG_R8},           {"R9", REG_R9},         {"R10", REG_R10}, {"R11", REG_R11},
        {"R12", REG_R12},         {"R13", REG_R13},       {"R14", REG_R14}, {"R15", REG_R15},
        {"EFL", REG_EFL},         {"TRAPNO", REG_TRAPNO}, {"ERR", REG_ERR}, {"CSGSFS", REG_CSGSFS},
        {"OLDMASK", REG_OLDMASK},
    };
    put(h, " Registers:\n    RIP:");
    write_address_line(h, reinterpret_cast<const void*>(r[REG_RIP]), false);
    for (const auto& reg : kRegisters) {
        report_format(h, "    %s:  [0x%016llX]\n", reg.name,
                      static_cast<unsigned long long>(r[reg.index]));
    }
}

// Kept out of line so that the frames to skip are always the same three: this
// function, the handler and the kernel's signal trampoline. The interrupted
// instruction itself (`pc`, when known) is exact; the frames under it are
// return addresses.
__attribute__((noinline)) void write_backtrace(backtrace_writing_handler* h, const void* pc) {
    void* frames[1024];
    const int n = get_backtrace(frames, 1024);
    bool below_pc = pc == nullptr;
    for (int i = 3; i < n; ++i) {
        const bool interrupted = frames[i] == pc;
        write_address_line(h, frames[i], below_pc && !interrupted);
        below_pc = below_pc || interrupted;
    }
    asm volatile("" ::: "memory");  // no tail call: this frame must stay
}

void write_open_descriptors(backtrace_writing_handler* h) {
    put(h, "\nFile descriptors open:");
    unsigned total = 0;
    unsigned failures = 0;
    for (int fd = 0; failures < 20; ++fd) {
        char link[32] = "/proc/self/fd/";
        convertU32ToAscii(static_cast<uint32_t>(fd), link + 14);  // NUL-terminated by the init
        char target[PATH_MAX];
        const ssize_t n = readlink(link, target, sizeof target);
        if (n < 0) {
            ++failures;
            continue;
        }
        failures = 0;
        ++total;
        report_format(h, "\n%d: ", fd);
        h->do_write(h, target, static_cast<size_t>(n));
    }
    report_format(h, "\n(Total %u)\n", total);
}

void write_assertion(backtrace_writing_handler* h) {
    if (libc_abort_msg != nullptr && *libc_abort_msg != nullptr) {
        put(h, " Libc abort message: ");
        crash_log_fputs_bounded(h, (*libc_abort_msg)->msg, 4096);
        put(h, "\n");
    } else if (last_assertion_failure.expression != nullptr) {
        report_format(h,
                      "assertion_failure=\"%s\" assertion_function=\"%s\" "
                      "assertion_file=\"%s:%u\"\n",
                      last_assertion_failure.expression, last_assertion_failure.function,
                      last_assertion_failure.file, last_assertion_failure.line);
    }
}

void write_os_release(backtrace_writing_handler* h) {
    static constexpr const char* kFiles[] = {
        "/etc/fedora-release",   "/etc/redhat-release",    "/etc/debian_version",
        "/etc/SuSE-release",     "/etc/slackware-version", "/etc/gentoo-release",
        "/etc/mandrake-release", "/etc/os-release",
    };
    for (const char* path : kFiles) {
        if (access(path, R_OK) != 0) continue;
        report_format(h, " %s: ", path);
        insert_file(h, path, 1000, true);
        put(h, "\n");
        return;
    }
}

void write_maps(backtrace_writing_handler* h) {
    const int fd = open_for_report("/proc/self/maps");
    if (fd < 0) return;
    IndentingCleaner clean(h, " MAP: ");
    char c;
    while (read_some(fd, &c, 1) == 1) {
        clean.add(static_cast<unsigned char>(c));
        if (c == '\n') clean.out.flush();  // a line per write, as bytes come
    }
    if (!clean.at_line_start) clean.out.put("\n", 1);
    clean.out.flush();
    close(fd);
}

void write_cpuid(backtrace_writing_handler* h) {
    put(h, "\nx86 CPUID registers:\n");
    unsigned a, b, c, d;
    for (unsigned base : {0u, 0x80000000u}) {
        __cpuid(base, a, b, c, d);
        const unsigned last = base == 0 ? (a & 0xFFFF) : a;
        if (base != 0 && (last < base || last > base + 0xFFFF)) continue;
        for (unsigned leaf = base;; ++leaf) {
            __cpuid_count(leaf, 0, a, b, c, d);
            report_format(h, "  %8X: %08X %08X %08X %08X\n", leaf, a, b, c, d);
            if (leaf == last) break;
        }
    }
}

void reset_fatal_signals() {
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int s : kFatalSignals) sigaction(s, &dfl, nullptr);
}

// Opens the report; -1 when there is to be none. Sets *out_of_fds when the
// descriptor it got was descriptor 0, given up for it.
int open_report(const tm& t, bool* out_of_fds) {
    *out_of_fds = false;
    if (crashdumper_init_state == CRASHDUMPER_WRITE_STDERR) return STDERR_FILENO;
    char path[PATH_MAX];
    const size_t prefix_length = strlen(report_prefix);
    memcpy(path, report_prefix, prefix_length);
    size_t used = prefix_length;
    if (used > 0 && path[used - 1] != '/') path[used++] = '/';
    const size_t n = strftime(path + used, sizeof path - used, "crash-%Y-%m-%d-%H:%M:%S.log", &t);
    if (n == 0) return -1;
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC;
    int fd = open(path, flags, 0600);
    if (fd < 0 && (errno == ENFILE || errno == EMFILE)) {
        close(STDIN_FILENO);
        fd = open(path, flags, 0600);
        *out_of_fds = fd >= 0;
    }
    return fd;
}

void crash_handler(int signal, siginfo_t* info, void* ucontext) {
    const int saved_errno = errno;
    reset_fatal_signals();

    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm t;
    localtime_r(&now.tv_sec, &t);
    bool out_of_fds;
    const int fd = open_report(t, &out_of_fds);
    if (fd < 0) return;
    report_handler report = {{default_crash_log_write}, fd, 0, 0, {0, 0}};
    backtrace_writing_handler* h = &report.base;

    if (out_of_fds) put(h, "(Out of file descriptors!)\n");
    report_format(h, "[build %s] %04d-%02d-%02d %02d:%02d:%02d\n", tarvex_build_id,
                  t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    if (out_of_fds) write_open_descriptors(h);
    // sigdescr_np() is strsignal() without the message catalogue, whose lookup
    // takes a lock and may allocate.
    const char* description = sigdescr_np(signal);
    report_format(h, "Received fatal signal %d (%s) on PID %ld.\n", signal,
                  description != nullptr ? description : "Unknown signal",
                  static_cast<long>(getpid()));
    if (info != nullptr) write_cause(h, signal, info);
    if (crashdumper_get_current_threadname != nullptr) {
        report_format(h, " Crashing thread: %s\n", crashdumper_get_current_threadname());
    }
    if (ucontext != nullptr) write_registers(h, static_cast<const ucontext_t*>(ucontext));

    put(h, "\n OS: Linux\n Arch: x86-64\n\n Backtrace (PIC build):\n");
    const void* pc = nullptr;
    if (ucontext != nullptr) {
        pc = reinterpret_cast<const void*>(
            static_cast<const ucontext_t*>(ucontext)->uc_mcontext.gregs[REG_RIP]);
    }
    write_backtrace(h, pc);

    struct utsname u;
    if (uname(&u) == 0) {
        report_format(h, " %s / %s / %s / %s / %s\n", u.sysname, u.nodename, u.release, u.version,
                      u.machine);
    }
    write_assertion(h);
    const int dumped = dump_cxx_exception_helper != nullptr ? dump_cxx_exception_helper(h) : 0;
    if (dumped == 0 && signal == SIGABRT && stderr_file[0] != '\0') {
        insert_tail(h, stderr_file, 800,
                    " Last few lines of stderr (may contain info on assertion failure, but also "
                    "could be old):\n");
        put(h, "\n");
    }
    write_os_release(h);
    if (libc_version != nullptr) report_format(h, " glibc version: %s\n", libc_version());
    if (libc_release != nullptr) report_format(h, " glibc release: %s\n", libc_release());
    if (signal == SIGBUS || signal == SIGSEGV) write_maps(h);

    report_format(h, "Last errno: %d\n", saved_errno);
    if (crashdumper_get_threadcount != nullptr) {
        report_format(h, "Threads running: %u\n", crashdumper_get_threadcount());
    }
    timespec mono;
    clock_gettime(CLOCK_MONOTONIC, &mono);
    long seconds = mono.tv_sec - start_time.tv_sec;
    long nanos = mono.tv_nsec - start_time.tv_nsec;
    if (nanos < 0) {
        nanos += 1000000000;
        --seconds;
    }
    report_format(h, "Runtime: %lu.%06us\n", static_cast<unsigned long>(seconds),
                  static_cast<unsigned>(nanos / 1000));

    crash_log_write_notations(h);
    write_cpuid(h);
    put(h, "terminating...\n");
    if (fd != STDERR_FILENO) close(fd);

    const char* wait = getenv("TARVEX_WAIT_ON_CRASH");
    if (wait != nullptr && strcmp(wait, "1") == 0) sleep(120);
    errno = saved_errno;
    // A signal sent by a process has no faulting instruction to run again:
    // returning would let the process carry on after its crash report. It is
    // sent once more, to this thread, under the default action.
    if (info != nullptr && info->si_code <= 0) raise(signal);
    // Returning re-runs the faulting instruction under the default action, so
    // the process ends by the real signal, with its core.
}

void init_message(const char* text) { crash_log_write_all(STDERR_FILENO, text, strlen(text)); }

struct fd_handler {
    backtrace_writing_handler base;
    int fd;
};

void fd_write(backtrace_writing_handler* base, const char* data, size_t length) {
    crash_log_write_all(reinterpret_cast<fd_handler*>(base)->fd, data, length);
}

int read_exec_mappings() {
    FILE* maps = fopen("/proc/self/maps", "re");
    if (maps == nullptr) {
        init_message("could not open /proc/self/maps\n");
        return -1;
    }
    char* line = nullptr;
    size_t capacity = 0;
    size_t allocated = 0;
    int result = 0;
    while (getline(&line, &capacity, maps) > 0) {
        void* start;
        void* end;
        char exec;
        unsigned long long offset;
        char path_start;
        if (sscanf(line, "%p-%p %*c%*c%c%*c %llx %*X:%*X %*X %c", &start, &end, &exec, &offset,
                   &path_start) != 5 ||
            exec != 'x' || path_start != '/') {
            continue;
        }
        if (exec_mapping_count == allocated) {
            const size_t grown = allocated == 0 ? 32 : allocated * 2;
            auto* bigger =
                static_cast<exec_mapping*>(realloc(exec_mappings, grown * sizeof(exec_mapping)));
            if (bigger == nullptr) {
                init_message("map_init(): malloc() failed\n");
                result = -1;
                break;
            }
            exec_mappings = bigger;
            allocated = grown;
        }
        exec_mappings[exec_mapping_count++] = {reinterpret_cast<uintptr_t>(start),
                                               reinterpret_cast<uintptr_t>(end), offset};
    }
    free(line);
    fclose(maps);
    return result;
}

}  // namespace

// ---------------------------------------------------------------- registration

void register_get_current_threadname_func(get_current_threadname_func_t func) {
    crashdumper_get_current_threadname = func;
}

void register_get_threadcount_func(get_threadcount_func_t func) {
    crashdumper_get_threadcount = func;
}

void register_get_crashlog_notation_perthread_state_func(
    get_crashlog_notation_perthread_state_func_t func) {
    crashdumper_get_notation_state = func;
}

void register_fake_get_crashlog_notation_perthread_state_func_for_single_threaded_programs() {
    crashdumper_get_notation_state = get_single_threaded_notations;
}

void register_dump_cxx_exception_helper_func(dump_cxx_exception_helper_func_t func) {
    dump_cxx_exception_helper = func;
}

void register_crash_log_vformat_func(crash_log_vformat_func_t func) { registered_vformat = func; }

void register_stderr_file_location(const char* path) {
    if (path == nullptr || strlen(path) >= sizeof stderr_file) {
        stderr_file[0] = '\0';
        return;
    }
    strcpy(stderr_file, path);
}

// ---------------------------------------------------------------- set-up

namespace {

// Stacks of threads that ended, guard pages and all, kept for the next
// threads: a server that starts threads often pays for the mappings once
// instead of three system calls and page faults a thread. Lock-free slots,
// so that install and remove stay safe anywhere a thread starts or ends.
constexpr int SPARE_ALT_STACKS = 8;
std::atomic<void*> spare_alt_stacks[SPARE_ALT_STACKS];

void* take_spare_alt_stack() {
    for (std::atomic<void*>& slot : spare_alt_stacks) {
        if (slot.load(std::memory_order_relaxed) == nullptr) continue;
        if (void* m = slot.exchange(nullptr, std::memory_order_acquire)) return m;
    }
    return nullptr;
}

bool keep_spare_alt_stack(void* mapping) {
    for (std::atomic<void*>& slot : spare_alt_stacks) {
        void* expected = nullptr;
        if (slot.compare_exchange_strong(expected, mapping, std::memory_order_release,
                                         std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

size_t alt_stack_page_size() {
    static const long page = sysconf(_SC_PAGESIZE);
    return page > 0 ? static_cast<size_t>(page) : 0;
}

}  // namespace

int crash_log_alt_stack_install(crashdumper_alt_stack* stack) {
    const size_t p = alt_stack_page_size();
    if (p == 0) return -1;
    const size_t pages = 2047 / p + 11;
    void* mapping = take_spare_alt_stack();
    const bool fresh = mapping == nullptr;
    if (fresh) {
        mapping = mmap(nullptr, pages * p, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapping == MAP_FAILED) return -1;
    }
    char* inner = static_cast<char*>(mapping) + p;
    const size_t inner_length = (pages - 2) * p;
    stack_t ss = {};
    ss.ss_sp = inner;
    ss.ss_size = inner_length;
    ss.ss_flags = 0;
    int failed_step = 0;
    if (fresh && mprotect(inner, inner_length, PROT_READ | PROT_WRITE) != 0) {
        failed_step = -2;
    } else if (sigaltstack(&ss, &stack->previous) != 0) {
        failed_step = -3;
    }
    if (failed_step != 0) {
        const int e = errno;
        munmap(mapping, pages * p);
        errno = e;
        return failed_step;
    }
    stack->mapping = mapping;
    stack->mapping_length = pages * p;
    return 0;
}

void crash_log_alt_stack_remove(crashdumper_alt_stack* stack) {
    if (stack->mapping == nullptr) return;
    stack_t restore = stack->previous;
    if (restore.ss_sp == nullptr) restore.ss_flags = SS_DISABLE;
    if (sigaltstack(&restore, nullptr) != 0) {
        // Still in use by this thread's kernel state: leaking it beats a
        // handler running on unmapped memory.
        return;
    }
    if (!keep_spare_alt_stack(stack->mapping)) munmap(stack->mapping, stack->mapping_length);
    stack->mapping = nullptr;
}

int crash_log_creator_init(const char* prefix) {
    if (crashdumper_init_state != CRASHDUMPER_NOT_SET_UP_YET) return -1;
    clock_gettime(CLOCK_MONOTONIC, &start_time);

    if (prefix != nullptr) {
        if (strlen(prefix) >= sizeof report_prefix - 40) {  // room for "/crash-...log"
            fd_handler err = {{fd_write}, STDERR_FILENO};
            report_format(&err.base, "Prefix too long: \"%s\"\n", prefix);
            return -1;
        }
        strcpy(report_prefix, prefix);
    }

    // By soname: a fixed /lib64 path is not where Debian keeps it.
    if (void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD)) {
        libc_release = reinterpret_cast<const char* (*)()>(dlsym(libc, "gnu_get_libc_release"));
        libc_version = reinterpret_cast<const char* (*)()>(dlsym(libc, "gnu_get_libc_version"));
        libc_abort_msg = static_cast<abort_msg_s**>(dlsym(libc, "__abort_msg"));
        dlclose(libc);
    }

    if (sysconf(_SC_PAGESIZE) <= 0) {
        perror("cannot find process page size");
        return -1;
    }
    static crashdumper_alt_stack init_stack;
    switch (crash_log_alt_stack_install(&init_stack)) {
        case 0:
            break;
        case -1:
            perror("cannot allocate alternate stack");
            return -1;
        case -2:
            perror("cannot change memory protection on alternate stack");
            return -1;
        default:
            perror("cannot set alternate stack");
            return -1;
    }

    if (read_exec_mappings() != 0) return -1;

    // Work the handler must not be the first to do: the unwinder's library is
    // loaded by its first use, and the time zone is read by the first
    // localtime_r().
    void* frame;
    backtrace(&frame, 1);
    tzset();

    struct sigaction sa = {};
    sa.sa_sigaction = crash_handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (size_t i = 0; i < sizeof kFatalSignals / sizeof kFatalSignals[0]; ++i) {
        if (sigaction(kFatalSignals[i], &sa, nullptr) != 0) {
            const int e = errno;
            fd_handler err = {{fd_write}, STDERR_FILENO};
            report_format(&err.base, "cannot sigaction signal %d (%s)\n", kFatalSignals[i],
                          strerrordesc_np(e));
            for (size_t j = 0; j < i; ++j) signal(kFatalSignals[j], SIG_DFL);
            return -1;
        }
    }
    crashdumper_init_state = prefix != nullptr ? CRASHDUMPER_WRITE_FILE : CRASHDUMPER_WRITE_STDERR;
    return 0;
}

int crash_log_creator_init_with_default_prefix() {
    const char* home = getenv("TARVEX_HOME");
    if (home == nullptr) return crash_log_creator_init(".");
    char prefix[PATH_MAX];
    const size_t n = strlen(home);
    static constexpr char kTail[] = "/var/log/tarvex";
    if (n + sizeof kTail > sizeof prefix)
        return crash_log_creator_init(home);  // reports the length
    memcpy(prefix, home, n);
    memcpy(prefix + n, kTail, sizeof kTail);
    return crash_log_creator_init(prefix);
}

bool crash_log_creator_is_initialized() {
    return crashdumper_init_state != CRASHDUMPER_NOT_SET_UP_YET;
}

// ---------------------------------------------------------------- notations

void crashlog_notation_write_string(crashlog_notation_entry* entry,
                                    backtrace_writing_handler* handler) {
    auto* e = reinterpret_cast<crashlog_notation_string_entry*>(entry);
    handler->do_write(handler, e->text, e->length);
}

void noop_crashlog_notation_destruct_func(crashlog_notation_entry*) {}

int crashlog_notation_global_add_func(crashlog_notation_entry* entry) {
    crashlog_notation_list_append(&global_notations, entry);
    return 0;
}

int crashlog_notation_perthread_push_func(crashlog_notation_entry* entry) {
    crashlog_notation_list* list =
        crashdumper_get_notation_state != nullptr ? crashdumper_get_notation_state() : nullptr;
    if (list == nullptr) return -1;
    crashlog_notation_list_append(list, entry);
    return 0;
}

int crashlog_notation_global_add(const char* text, size_t length) {
    crashlog_notation_entry* e = make_string_notation(text, length);
    if (e == nullptr) return -1;
    return crashlog_notation_global_add_func(e);
}

int crashlog_notation_perthread_push(const char* text, size_t length) {
    crashlog_notation_list* list =
        crashdumper_get_notation_state != nullptr ? crashdumper_get_notation_state() : nullptr;
    if (list == nullptr) return -1;
    crashlog_notation_entry* e = make_string_notation(text, length);
    if (e == nullptr) return -1;
    crashlog_notation_list_append(list, e);
    return 0;
}

void crashlog_notation_perthread_pop() {
    // clang-format off
    ASSERT(crashdumper_get_notation_state != nullptr);
    crashlog_notation_list* list = crashdumper_get_notation_state();
    ASSERT(list != nullptr);
    crashlog_notation_entry* last = list->last;
    ASSERT(last != nullptr);
    // clang-format on
    crashlog_notation_list_unlink(list, last);
    if (last->destruct != nullptr) last->destruct(last);
}

void crash_log_write_notations(backtrace_writing_handler* handler) {
    write_notation_list(handler, &global_notations);
    if (crashdumper_get_notation_state != nullptr) {
        write_notation_list(handler, crashdumper_get_notation_state());
    }
}

// ---------------------------------------------------------------- back-traces

int get_backtrace(void** frames, int size) {
    int n = backtrace(frames, size);
    while (n > 0 && reinterpret_cast<uintptr_t>(frames[n - 1]) < 4096) --n;
    return n;
}

void backtrace_symbol_information_init(backtrace_symbol_information* info) {
    *info = {nullptr, 0, 0, 0, nullptr, 0, nullptr, 0};
}

int backtrace_symbol_information_get(backtrace_symbol_information* info, const void* address) {
    backtrace_symbol_information_init(info);
    Dl_info dl;
    void* symbol_entry = nullptr;
    if (dladdr1(address, &dl, &symbol_entry, RTLD_DL_SYMENT) == 0) return -1;
    const ElfW(Sym)* symbol = static_cast<const ElfW(Sym)*>(symbol_entry);
    const uintptr_t a = reinterpret_cast<uintptr_t>(address);
    if (dl.dli_sname != nullptr) {
        info->symbol_name = dl.dli_sname;
        info->offset_in_symbol = a - reinterpret_cast<uintptr_t>(dl.dli_saddr);
        if (symbol != nullptr) info->symbol_size = symbol->st_size;
    }
    if (dl.dli_fname != nullptr) {
        const char* name = dl.dli_fname;
        for (const char* p = dl.dli_fname; *p != '\0'; ++p) {
            if (*p == '/' || *p == '[') name = p + 1;
        }
        size_t n = 0;
        while (n < 100 && name[n] != '\0' && name[n] != ' ' && name[n] != '\t' && name[n] != ']') {
            ++n;
        }
        info->module_name = name;
        info->module_name_length = n;
    }
    // The file offset is what `addr2line -e` takes for position-independent
    // objects, whose text is linked at its file offset.
    for (size_t i = 0; i < exec_mapping_count; ++i) {
        if (a >= exec_mappings[i].start && a < exec_mappings[i].end) {
            info->offset_in_module = a - exec_mappings[i].start + exec_mappings[i].file_offset;
            break;
        }
    }
    return 0;
}

void backtrace_symbol_information_print(backtrace_writing_handler* h,
                                        const backtrace_symbol_information* info) {
    if (info->symbol_name != nullptr) {
        report_format(h, "%s + %lu", info->symbol_name, info->offset_in_symbol);
        if (info->symbol_size != 0) report_format(h, "/%llu", info->symbol_size);
    } else {
        put(h, "?");
    }
    put(h, " (");
    if (info->module_name != nullptr) h->do_write(h, info->module_name, info->module_name_length);
    if (info->offset_in_module != 0) report_format(h, " + 0x%llX", info->offset_in_module);
    put(h, ")");
    if (info->source_file != nullptr) {
        report_format(h, " [%s:%u]", info->source_file, info->source_line);
    }
}

// ---------------------------------------------------------------- output

void crash_log_write_all(int fd, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        length -= static_cast<size_t>(n);
    }
}

void crash_log_fputs(backtrace_writing_handler* handler, const char* text) { put(handler, text); }

void crash_log_fputs_bounded(backtrace_writing_handler* handler, const char* text,
                             size_t max_length) {
    handler->do_write(handler, text, strnlen(text, max_length));
}

void crash_log_vformat(backtrace_writing_handler* handler, const char* format, va_list args) {
    if (registered_vformat != nullptr) {
        registered_vformat(handler, format, args);
    } else {
        builtin_vformat(handler, format, args);
    }
}

void crash_log_format(backtrace_writing_handler* handler, const char* format, ...) {
    va_list args;
    va_start(args, format);
    crash_log_vformat(handler, format, args);
    va_end(args);
}

int crash_log_insert_file(backtrace_writing_handler* handler, const char* path, size_t limit) {
    return insert_file(handler, path, limit, false);
}

int crash_log_insert_file_last_n_bytes(backtrace_writing_handler* handler, const char* path,
                                       size_t n) {
    return insert_tail(handler, path, n, " Last few lines of the file):\n");
}
