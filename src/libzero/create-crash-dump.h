#pragma once
// The crash report's plain layer. Everything reachable from the handler runs
// inside a signal handler, on an alternate stack, after any kind of damage:
// no malloc, no locks, no stream output.

#include <signal.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>

// Where crash-time output goes. Implementations embed this as their first
// member and add what they need behind it.
struct backtrace_writing_handler {
    void (*do_write)(backtrace_writing_handler* handler, const char* data, size_t length);
};

// ---------------------------------------------------------------- set-up

enum crashdumper_init_state_t {
    CRASHDUMPER_NOT_SET_UP_YET = 0,
    CRASHDUMPER_WRITE_FILE = 1,    // "crash-<time>.log" under the prefix
    CRASHDUMPER_WRITE_STDERR = 2,  // descriptor 2
};
extern crashdumper_init_state_t crashdumper_init_state;

// Installs the handlers, once. A null prefix writes reports to standard
// error. Returns 0 when installed; -1 (having said why on standard error) when
// not, or when already installed.
int crash_log_creator_init(const char* prefix);
// $TARVEX_HOME/var/log/tarvex when the variable is set, else ".".
int crash_log_creator_init_with_default_prefix();
bool crash_log_creator_is_initialized();

// A file standard error is redirected to; an abort report shows its tail.
void register_stderr_file_location(const char* path);

// The identifier of the build, twelve hexadecimal digits; set by the build.
extern "C" const char tarvex_build_id[];

// ---------------------------------------------------------------- notations

// What a thread (or the process) was doing, printed in the report innermost
// last. Entries live inside the objects that add them, or on the heap for the
// string forms.
struct crashlog_notation_entry {
    void (*render)(crashlog_notation_entry* entry, backtrace_writing_handler* handler);
    void (*destruct)(crashlog_notation_entry* entry);
    crashlog_notation_entry* prev;
    crashlog_notation_entry* next;
};

struct crashlog_notation_string_entry {
    crashlog_notation_entry entry;
    const char* text;
    size_t length;
};

struct crashlog_notation_list {
    crashlog_notation_entry* root;
    crashlog_notation_entry* last;
};

// Appends in an order that keeps the list whole for a crash handler that
// interrupts this very thread between any two stores.
inline void crashlog_notation_list_append(crashlog_notation_list* list,
                                          crashlog_notation_entry* entry) {
    entry->next = nullptr;
    entry->prev = list->last;
    std::atomic_signal_fence(std::memory_order_release);
    if (list->last != nullptr) {
        list->last->next = entry;
    } else {
        list->root = entry;
    }
    std::atomic_signal_fence(std::memory_order_release);
    list->last = entry;
}

inline void crashlog_notation_list_unlink(crashlog_notation_list* list,
                                          crashlog_notation_entry* entry) {
    if (entry->prev != nullptr) {
        entry->prev->next = entry->next;
    } else {
        list->root = entry->next;
    }
    std::atomic_signal_fence(std::memory_order_release);
    if (entry->next != nullptr) {
        entry->next->prev = entry->prev;
    } else {
        list->last = entry->prev;
    }
}

// What the report asks of the thread layer; each may be left unregistered.
typedef const char* (*get_current_threadname_func_t)(void);
typedef unsigned (*get_threadcount_func_t)(void);
typedef crashlog_notation_list* (*get_crashlog_notation_perthread_state_func_t)(void);
// Writes what is known of the exception that ends the process; nonzero when
// it wrote anything.
typedef int (*dump_cxx_exception_helper_func_t)(backtrace_writing_handler* handler);
// A signal-safe printf for crash_log_format; without one a small built-in
// formatter serves.
typedef void (*crash_log_vformat_func_t)(backtrace_writing_handler* handler, const char* format,
                                         va_list args);

void register_get_current_threadname_func(get_current_threadname_func_t func);
void register_get_threadcount_func(get_threadcount_func_t func);
void register_get_crashlog_notation_perthread_state_func(
    get_crashlog_notation_perthread_state_func_t func);
// One list for the whole process, for programs that never start a thread.
void register_fake_get_crashlog_notation_perthread_state_func_for_single_threaded_programs();
void register_dump_cxx_exception_helper_func(dump_cxx_exception_helper_func_t func);
void register_crash_log_vformat_func(crash_log_vformat_func_t func);

extern get_current_threadname_func_t crashdumper_get_current_threadname;
extern get_threadcount_func_t crashdumper_get_threadcount;
extern get_crashlog_notation_perthread_state_func_t crashdumper_get_notation_state;

// The string forms copy the text into one allocation; -1 when that fails or,
// per thread, when the thread has no notation state.
int crashlog_notation_global_add(const char* text, size_t length);
int crashlog_notation_perthread_push(const char* text, size_t length);
// The entry forms take an entry the caller owns; -1 without a thread state.
int crashlog_notation_perthread_push_func(crashlog_notation_entry* entry);
int crashlog_notation_global_add_func(crashlog_notation_entry* entry);
// Unlinks the calling thread's last entry and destructs it.
void crashlog_notation_perthread_pop();

void crashlog_notation_write_string(crashlog_notation_entry* entry,
                                    backtrace_writing_handler* handler);
void noop_crashlog_notation_destruct_func(crashlog_notation_entry* entry);

// The global notations, then the calling thread's, each followed by a newline
// when it wrote anything. This is the report's notation section.
void crash_log_write_notations(backtrace_writing_handler* handler);

// ---------------------------------------------------------------- back-traces

// backtrace(3) without the trailing frames below 4096 that some unwinds end
// with. Returns the number of frames.
int get_backtrace(void** frames, int size);

struct backtrace_symbol_information {
    const char* symbol_name;  // null when unknown
    unsigned long offset_in_symbol;
    unsigned long long symbol_size;  // 0 when unknown
    unsigned long long offset_in_module;
    const char* module_name;  // points into the loader's copy of the path
    size_t module_name_length;
    const char* source_file;  // null when unknown
    unsigned source_line;
};

void backtrace_symbol_information_init(backtrace_symbol_information* info);
// Returns 0 when the address lies in a loaded object, -1 otherwise.
int backtrace_symbol_information_get(backtrace_symbol_information* info, const void* address);
// "name + offset/size (module + 0xOFFSET) [file:line]"
void backtrace_symbol_information_print(backtrace_writing_handler* handler,
                                        const backtrace_symbol_information* info);

// ---------------------------------------------------------------- output

// write(2) until all is written or an error other than EINTR; for the paths
// that end a process, where nothing buffered may be trusted.
void crash_log_write_all(int fd, const char* data, size_t length);

void crash_log_fputs(backtrace_writing_handler* handler, const char* text);
void crash_log_fputs_bounded(backtrace_writing_handler* handler, const char* text,
                             size_t max_length);
void crash_log_format(backtrace_writing_handler* handler, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void crash_log_vformat(backtrace_writing_handler* handler, const char* format, va_list args);

// Copies at most `limit` bytes of the file, cleaned for the report. Returns
// -1 with errno when the file cannot be opened.
int crash_log_insert_file(backtrace_writing_handler* handler, const char* path, size_t limit);
// The last lines within `n` bytes of the file, indented.
int crash_log_insert_file_last_n_bytes(backtrace_writing_handler* handler, const char* path,
                                       size_t n);

// ---------------------------------------------------------------- alternate stacks

// A signal stack with a no-access guard page at each end, so that a stack
// overflow can still be reported and an overflow of the handler itself ends
// the process instead of corrupting memory.
struct crashdumper_alt_stack {
    void* mapping;
    size_t mapping_length;
    stack_t previous;
};

// For the calling thread. Returns 0, or with errno set (nothing installed)
// the step that failed: -1 allocating, -2 protecting, -3 installing.
int crash_log_alt_stack_install(crashdumper_alt_stack* stack);
// Puts back the stack that was there before, then frees this one.
void crash_log_alt_stack_remove(crashdumper_alt_stack* stack);
