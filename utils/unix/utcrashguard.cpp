// utcrashguard.cpp: faults inside the handler that ends the process (see utcrashguard.h).
//
// What a guarded body leaves behind is in memory: setjmp and longjmp keep no registers. No state but crash_now, no
// locks. Signal-safe: all of it.
#include "utils/unix/utcrashguard.h"

#include "utils/unix/unixsigs.h"
#include "utils/unix/utending.h"

constinit __attribute__((tls_model("initial-exec"))) thread_local a_crash* crash_now = nullptr;

bool ut_has_address(int sig, int code)
{
    return unix_is_crash_signal(sig) && sig != SIGABRT && code > 0 && code != SI_KERNEL;
}

uint64 ut_pc_of(const void* context)
{
    return uint64(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
}

__attribute__((noinline)) bool ut_guarded(a_crash& crash, void (*body)(a_crash&))
{
    sigjmp_buf guard;
    sigjmp_buf* const outer = crash.guard;
    const bool whole = sigsetjmp(guard, 1) == 0;
    if (whole) {
        crash.guard = &guard;
        body(crash);
    }
    crash.guard = outer;
    return whole;
}

// In a child that a callback has forked the signal has its default action: no callback runs, and forks, again. An abort
// on this thread counts as a fault of what it is in.
ENDS_THE_PROCESS bool ut_crash_interrupted(int sig, const siginfo_t* info, const void* context)
{
    a_crash* const crash = crash_now;
    if (crash == nullptr)
        return false;
    if (crash->process != getpid()) {
        unix_raise_by_default(sig);
        return true;
    }
    const bool aborts = sig == SIGABRT && info->si_code == SI_TKILL && info->si_pid == crash->process;
    if (!aborts && !(unix_is_crash_signal(sig) && info->si_code > 0))
        return true;
    if (crash->guard == nullptr)
        unix_abort_by_default();
    crash->fault = {sig, info->si_code, ut_has_address(sig, info->si_code) ? uint64(info->si_addr) : 0};
    crash->fault_pc = ut_pc_of(context);
    siglongjmp(*crash->guard, 1);
}
