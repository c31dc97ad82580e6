// utonsig.h: the chain of on-signal callbacks for the library's own handler: run in parts, each callback as the handler
// wants it. Signal-safe: all of it, as far as callbacks and runners are.
#pragma once

#include "corvex/onsig.h"

// What every callback of one signal is called with.
struct an_onsig_call {
    int sig;
    a_bool chained, chaining, cleanup;
    void* siginfo;
    void* context;
};

constexpr int onsig_cleanup_priority = 1000;  // of the callback that removes the library's kernel sets
constexpr int onsig_last_priority = 32000;    // the highest that runs

using an_onsig_runner = void (*)(a_sig_handler_func func, void* arg, const an_onsig_call& call);

// Runs the callbacks with these priorities, lowest first.
void ut_onsig_call_range(int first, int last, const an_onsig_call& call, an_onsig_runner run);
