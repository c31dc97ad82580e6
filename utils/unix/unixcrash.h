// unixcrash.h: what the event history has to do when a signal ends the process. The handler (utcore, utcrash) calls it;
// neither knows the other. Signal-safe: all of it, but what
// says otherwise.
#pragma once

#include "corvex/crash.h"

struct a_crash_hooks {
    void (*began)(int sig, int code, const void* address);  // the report is written, callbacks have not run yet
    void (*dump)();                                         // the callbacks below the library's own cleanup have run
    int32 (*slot)();                                        // of the calling thread; -1 for none
};

// Null unless the history runs with UT_HIST_EXT=crash. Release and acquire: who finds the hooks finds the store.
extern const a_crash_hooks* unix_crash_hooks;

// Makes ready for crash reports where they are wanted; null before the handlers are installed.
extern void (*unix_prepare_reports)();

// Not signal-safe: it prepares reports.
inline void unix_set_crash_hooks(const a_crash_hooks* hooks)
{
    __atomic_store_n(&unix_crash_hooks, hooks, __ATOMIC_RELEASE);
    if (hooks != nullptr && unix_prepare_reports != nullptr)
        unix_prepare_reports();
}
inline const a_crash_hooks* unix_get_crash_hooks() { return __atomic_load_n(&unix_crash_hooks, __ATOMIC_ACQUIRE); }

// Where the record of the crash is copied to, or null. Release and acquire, as above.
extern a_ut_crash_record* unix_crash_copy;
inline void unix_set_crash_copy(a_ut_crash_record* copy) { __atomic_store_n(&unix_crash_copy, copy, __ATOMIC_RELEASE); }
inline a_ut_crash_record* unix_get_crash_copy() { return __atomic_load_n(&unix_crash_copy, __ATOMIC_ACQUIRE); }
