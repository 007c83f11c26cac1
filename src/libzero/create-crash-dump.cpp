#include "libzero/create-crash-dump.h"

get_current_threadname_func_t crashdumper_get_current_threadname = nullptr;
get_threadcount_func_t crashdumper_get_threadcount = nullptr;
get_crashlog_notation_perthread_state_func_t crashdumper_get_notation_state = nullptr;

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
