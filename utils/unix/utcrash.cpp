// utcrash.cpp: the parts of a crash in their order, each in a guard, and the limit to all of them (see utcrash.h).
//
// The limit is kept by two timers of the kernel, since a thread might not start any more. The signal of the first comes
// to the crashing thread, where its handler removes the kernel sets and ends the process; the second, for a part that
// has blocked even that, is SIGKILL. No locks, no allocation. Signal-safe: all of it, but what says otherwise.
#include "utils/unix/utcrash.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>

#include "utils/etc/utenv.h"
#include "utils/unix/unixaltstack.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utcrashreport.h"
#include "utils/unix/utending.h"

namespace {

constexpr unsigned default_limit = 30;  // seconds, when crashes are reported
constexpr unsigned max_limit = 3600;
constexpr unsigned last_resort = 5;    // seconds from the limit to SIGKILL
constexpr int usual_patience = 10000;  // milliseconds

bool limited = false;  // ZT_CRASH_TIMEOUT is set,
unsigned limit = 0;    // to so many seconds; 0: for ever

pid_t limited_thread = 0;  // whose parts the limit ends; 0: nobody's

unsigned limit_for(const a_crash_hooks* hooks) { return limited ? limit : ut_reports(hooks) ? default_limit : 0; }

void call_began(a_crash& crash)
{
    crash.hooks->began(ut_crash_record.sig, ut_crash_record.code, reinterpret_cast<void*>(ut_crash_record.address));
}

void call_dump(a_crash& crash) { crash.hooks->dump(); }

void call_callback(a_crash& crash)
{
    const an_onsig_call& call = crash.call;
    crash.callback(call.sig, crash.callback_arg, call.chained, call.chaining, call.cleanup, call.siginfo, call.context);
}

void run_part(a_crash& crash, const char* name, void (*body)(a_crash&))
{
    crash.part = name;
    if (!ut_guarded(crash, body))
        ut_note_fault(crash);
    crash.part = "the chain";
}

void run_callback(a_sig_handler_func func, void* arg, const an_onsig_call&)
{
    a_crash& crash = *crash_now;
    const a_sig_handler_func outer = crash.callback;  // that the limit has interrupted
    void* const outer_arg = crash.callback_arg;
    crash.callback = func;
    crash.callback_arg = arg;
    if (!ut_guarded(crash, call_callback))
        ut_note_fault(crash);
    crash.callback = outer;
    crash.callback_arg = outer_arg;
}

// One that the limit has interrupted is not run again.
void run_another(a_sig_handler_func func, void* arg, const an_onsig_call& call)
{
    if (func != crash_now->callback || arg != crash_now->callback_arg)
        run_callback(func, arg, call);
}

// By plain system calls: the C library's timers may make a thread.
int start_timer(int notify, int sig, unsigned seconds)
{
    struct sigevent event = {};
    event.sigev_notify = notify;
    event.sigev_signo = sig;
    event._sigev_un._tid = gettid();
    const struct itimerspec time = {{}, {time_t(seconds), 0}};
    int timer = -1;
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0)
        return -1;
    syscall(SYS_timer_settime, timer, 0, &time, nullptr);
    return timer;
}

void stop_timers(const a_crash& crash)
{
    __atomic_store_n(&limited_thread, 0, __ATOMIC_RELAXED);
    for (const int timer : crash.timers)
        if (timer >= 0)
            syscall(SYS_timer_delete, timer);
}

// The part that was running never goes on. Without the timers: writing a core may take its time. An alarm may have come
// to another thread; the same signals from others say nothing.
ENDS_THE_PROCESS void limit_is_over(int sig, siginfo_t*, void*)
{
    const pid_t crashing = __atomic_load_n(&limited_thread, __ATOMIC_RELAXED);
    if (crash_now == nullptr && crashing != 0)
        tgkill(getpid(), crashing, sig);
    if (crash_now == nullptr || unix_milliseconds() < crash_now->end)
        return;
    a_crash& crash = *crash_now;
    ut_onsig_call_range(onsig_cleanup_priority, onsig_cleanup_priority, crash.call, run_another);
    ut_note_limit(crash);
    stop_timers(crash);
    if (!unix_is_crash_signal(crash.call.sig))
        ut_want_no_core();
    unix_abort_by_default();
}

// The alarm stands for timers that cannot be had: each needs one of the user's pending signals.
void start_limit(a_crash& crash, sigset_t& through)
{
    crash.end = unix_milliseconds() + int64_t(crash.limit) * 1000;
    __atomic_store_n(&limited_thread, gettid(), __ATOMIC_RELAXED);
    unix_handle_signal_keeping(unix_limit_signal(), limit_is_over, nullptr);
    sigaddset(&through, unix_limit_signal());
    crash.timers[0] = start_timer(SIGEV_THREAD_ID, unix_limit_signal(), crash.limit);
    crash.timers[1] = start_timer(SIGEV_SIGNAL, SIGKILL, crash.limit + last_resort);
    if (crash.timers[0] >= 0)
        return;
    unix_handle_signal_keeping(SIGALRM, limit_is_over, nullptr);
    sigaddset(&through, SIGALRM);
    const struct itimerval limit_passed = {{1, 0}, {time_t(crash.limit), 1000}};
    setitimer(ITIMER_REAL, &limit_passed, nullptr);
}

// Lets faults, and the end of the limit, through.
void enter(a_crash& crash, sigset_t& kept)
{
    sigset_t through;
    sigemptyset(&through);
    for (const an_ending_signal& row : unix_ending_signals)
        if (row.crash)
            sigaddset(&through, row.signal);
    crash_now = &crash;
    if (crash.limit > 0)
        start_limit(crash, through);
    unix_use_nested_signal_stack();
    pthread_sigmask(SIG_UNBLOCK, &through, &kept);
}

void leave(const a_crash& crash, const sigset_t& kept)
{
    stop_timers(crash);
    crash_now = nullptr;
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
}

}  // namespace

void ut_crash_configure()
{
    const char* const value = ut_getenv2("ZT_CRASH_TIMEOUT");
    limited = value != nullptr && *value >= '0' && *value <= '9';
    limit = limited ? ut_seconds_of(value, max_limit) : 0;
    ut_report_configure();
}

int ut_crash_patience_ms()
{
    const unsigned seconds = limit_for(unix_get_crash_hooks());
    return usual_patience + (seconds > 0 ? int(seconds + last_resort) * 1000 : 0);
}

void ut_crash_run(const an_onsig_call& call)
{
    const bool first = ut_keep_record(call);
    const a_crash_hooks* const hooks = unix_get_crash_hooks();
    const unsigned seconds = limit_for(hooks);
    if (!ut_reports(hooks) && hooks == nullptr && seconds == 0) {
        ut_onsig_call_now(call.sig, call.chained, call.chaining, call.cleanup, call.siginfo, call.context);
        return;
    }
    sigset_t kept;
    a_crash crash = {call, hooks, seconds};
    ut_report_program();
    enter(crash, kept);
    if (first && ut_reports(hooks))
        run_part(crash, "the crash report", ut_write_report);
    if (first && hooks != nullptr)
        run_part(crash, "the history's event", call_began);
    ut_onsig_call_range(0, onsig_cleanup_priority - 1, call, run_callback);
    if (first && hooks != nullptr && crash.process == getpid())
        run_part(crash, "the history's dump", call_dump);
    ut_onsig_call_range(onsig_cleanup_priority, onsig_last_priority, call, run_callback);
    leave(crash, kept);
}
