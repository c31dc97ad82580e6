// utending.cpp: what says that the process is ending (see utending.h). No locks: each word stands for itself, and only
// will_do_cleanup and ending_thread order what other threads see, as said there. Signal-safe: all of it.
#include "utils/unix/utending.h"

#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "utils/unix/unixcrash.h"
#include "utils/unix/unixsigs.h"

int will_do_cleanup = 0;
const a_crash_hooks* unix_crash_hooks = nullptr;
void (*unix_prepare_reports)() = nullptr;
a_ut_crash_record* unix_crash_copy = nullptr;
constinit __attribute__((tls_model("initial-exec"))) thread_local bool unix_ends_process = false;
constinit __attribute__((tls_model("initial-exec"))) thread_local bool unix_shuts_down = false;

namespace {

constexpr int all_waits_ms = 1900;  // for streams: under two seconds with what the calls themselves take

bool ending = false;
int waits_left_ms = all_waits_ms;
int aborting = 0;         // 1 once the handler has aborted the process
int32 ending_thread = 0;  // the first thread whose handler ends the process; 0 while none does

// Relaxed: neither word orders anything.
void set_ending(bool ends)
{
    __atomic_store_n(&waits_left_ms, all_waits_ms, __ATOMIC_RELAXED);
    __atomic_store_n(&ending, ends, __ATOMIC_RELAXED);
}

// Whether another thread's handler is ending the process.
bool another_ends(int32 me)
{
    const int32 first = __atomic_load_n(&ending_thread, __ATOMIC_ACQUIRE);
    return first != 0 && first != me;
}

}  // namespace

void unix_process_starts()
{
    set_ending(false);
    unix_shuts_down = false;
}

// A clean-up inside a shut-down has the waits that are left.
void unix_process_ends()
{
    if (!unix_process_is_ending())
        set_ending(true);
}

// Relaxed: it tells how long to wait, no more.
bool unix_process_is_ending() { return __atomic_load_n(&ending, __ATOMIC_RELAXED); }

void unix_thread_ends_process()
{
    unix_process_ends();
    unix_ends_process = true;
    // Sequentially consistent: see the making of kernel sets, which looks at it.
    __atomic_store_n(&will_do_cleanup, 1, __ATOMIC_SEQ_CST);
}

int unix_ending_wait_ms(int wanted)
{
    if (!unix_process_is_ending())
        return wanted;
    int left = __atomic_load_n(&waits_left_ms, __ATOMIC_RELAXED), granted;
    do
        granted = wanted < left ? wanted : left;
    while (
        !__atomic_compare_exchange_n(&waits_left_ms, &left, left - granted, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return granted;
}

// By a plain system call: poll is a cancellation point.
void unix_pause(int ms) { syscall(SYS_poll, nullptr, 0, ms); }

int64_t unix_milliseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t(1000) + now.tv_nsec / 1000000;
}

void unix_leave_it_to_the_first(bool ends, int patience_ms)
{
    int32 none = 0;
    const int32 me = gettid();
    if (ends)
        __atomic_compare_exchange_n(&ending_thread, &none, me, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    unix_in_time([me] { return !another_ends(me); }, patience_ms);
}

bool unix_aborts_again() { return __atomic_exchange_n(&aborting, 1, __ATOMIC_RELAXED) != 0; }

void unix_raise_by_default(int sig)
{
    unix_handle_signal_keeping(sig, nullptr, nullptr);
    unix_release_signal(sig);
    raise(sig);
}

// SIGABRT is let through first: abort does so itself, but not where it was interrupted by another one that was pending.
// The first process of a container survives the default action: there abort goes on to an instruction that traps, whose
// SIGSEGV ends that process too when it has no handler.
ENDS_THE_PROCESS void unix_abort_by_default()
{
    unix_raise_by_default(SIGABRT);
    unix_handle_signal_keeping(SIGSEGV, nullptr, nullptr);
    abort();
}

// The child is a process of its own, and nobody ends it yet.
void unix_ending_fork_child()
{
    set_ending(false);
    __atomic_store_n(&ending_thread, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&aborting, 0, __ATOMIC_RELAXED);
    unix_ends_process = false;
}
