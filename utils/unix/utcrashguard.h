// utcrashguard.h: what a thread's handler is at while it ends the process, and the guard around each part of that.
//
// A part may fault: what it reads may be what the process died of. While an a_crash stands in crash_now, its thread's
// crash signals are unblocked and a fault jumps back to the innermost guard; one of another thread finds no a_crash of
// its own and goes the usual way. Signal-safe: all of it.
#pragma once

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include "utils/unix/unixcrash.h"
#include "utils/unix/utcallers.h"
#include "utils/unix/utonsig.h"

struct a_cause {
    int sig, code;
    uint64 address;
};

bool ut_has_address(int sig, int code);  // the system's record of the signal does
uint64 ut_pc_of(const void* context);

// It lies on the handler's stack.
struct a_crash {
    const an_onsig_call& call;
    const a_crash_hooks* const hooks;
    const unsigned limit;  // in seconds, for all parts; 0: none
    const pid_t process = getpid();
    const char* part = "the chain";         // what runs; or
    a_sig_handler_func callback = nullptr;  // this callback,
    void* callback_arg = nullptr;           // with this argument
    sigjmp_buf* guard = nullptr;            // where a fault goes
    a_cause fault = {};                     // the last one,
    uint64 fault_pc = 0;                    // and where it was
    a_place place = {};                     // what was looked up last
    int64_t end = 0;                        // of the limit, in milliseconds of the monotonic clock
    int timers[2] = {-1, -1};               // the kernel's: the limit, the last resort; -1 for none
};

// initial-exec: no first touch allocates.
extern constinit __attribute__((tls_model("initial-exec"))) thread_local a_crash* crash_now;

// False when the body has faulted. A fault jumps over what the body was in: there nothing needs its destructor.
bool ut_guarded(a_crash& crash, void (*body)(a_crash&));

// For each handled signal first: true when this thread has an a_crash and was sent another signal, which then does
// nothing. A fault does not return.
bool ut_crash_interrupted(int sig, const siginfo_t* info, const void* context);
