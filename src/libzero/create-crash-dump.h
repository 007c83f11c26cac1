#pragma once
// The crash report's plain layer. Everything reachable from here runs inside
// a signal handler: no malloc, no locks, no stream output.

#include <cstddef>

// Where crash-time output goes. Implementations embed this as their first
// member and add what they need behind it.
struct backtrace_writing_handler {
    void (*do_write)(backtrace_writing_handler* handler, const char* data, size_t length);
};
