#pragma once
// The crash report's plain layer. Everything reachable from here runs inside
// a signal handler: no malloc, no locks, no stream output.

#include <cstddef>

// Where crash-time output goes. Implementations embed this as their first
// member and add what they need behind it.
struct backtrace_writing_handler {
    void (*do_write)(backtrace_writing_handler* handler, const char* data, size_t length);
};

// Notations: what a thread (or the process) was doing, printed in the
// report innermost last. Entries live inside the objects that push them.
struct crashlog_notation_entry {
    void (*render)(crashlog_notation_entry* entry, backtrace_writing_handler* handler);
    void (*destruct)(crashlog_notation_entry* entry);
    crashlog_notation_entry* prev;
    crashlog_notation_entry* next;
};

struct crashlog_notation_list {
    crashlog_notation_entry* root;
    crashlog_notation_entry* last;
};

// What the report asks of the thread layer; each may be left unregistered.
typedef const char* (*get_current_threadname_func_t)(void);
typedef unsigned (*get_threadcount_func_t)(void);
typedef crashlog_notation_list* (*get_crashlog_notation_perthread_state_func_t)(void);

void register_get_current_threadname_func(get_current_threadname_func_t func);
void register_get_threadcount_func(get_threadcount_func_t func);
void register_get_crashlog_notation_perthread_state_func(
    get_crashlog_notation_perthread_state_func_t func);

extern get_current_threadname_func_t crashdumper_get_current_threadname;
extern get_threadcount_func_t crashdumper_get_threadcount;
extern get_crashlog_notation_perthread_state_func_t crashdumper_get_notation_state;
