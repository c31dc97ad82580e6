// utcore.cpp: installs the library's handler for nine signals, and decides on each delivery whether an earlier handler
// gets the signal or the library cleans up and aborts the process.
//
// Whole dispositions are saved and put back; the library's own handler is never saved as an earlier one. Installation
// and removal run at start-up and shut-down, not beside each other. No locks. Signal-safe: all of it, but what says
// otherwise.
#include "utils/unix/utcore.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "utils/etc/utenv.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utcrash.h"
#include "utils/unix/utcrashguard.h"
#include "utils/unix/utending.h"

namespace {

constexpr unsigned default_delay = 2;  // seconds before the abort
constexpr unsigned max_delay = 3600;   // a process that is to die does so within the hour

// A handled signal, and the disposition in force before the library's, all zero (the default action) for none.
struct a_handled_signal {
    int signal = 0;
    bool crash = false;
    struct sigaction oldhandler = {};
    bool installed = false;   // and not removed since
    bool left_alone = false;  // the last installation found another handler on top of the library's
};
// In the order in which they are installed and removed.
struct a_handled_table {
    constexpr a_handled_table()
    {
        a_handled_signal* row = rows;
        for (const an_ending_signal& ending : unix_ending_signals) {
            row->signal = ending.signal;
            row++->crash = ending.crash;
        }
    }
    a_handled_signal rows[sizeof unix_ending_signals / sizeof(an_ending_signal)];
};
constinit a_handled_table handled;

a_bool sig_handlers_installed = FALSE;
a_bool install_sig_handlers_at_lib_init = FALSE;
a_bool linux_kill_other_threads = FALSE;

// Whether this thread is inside the handler for SIGABRT and runs callbacks. A child which one of them forks is, too:
// when it aborts, no callback forks again. initial-exec: no first touch allocates.
constinit __attribute__((tls_model("initial-exec"))) thread_local bool in_abort = false;

void ut_onsig_sig_handler(int sig, siginfo_t* siginfo, void* context);

a_handled_signal* find_handled(int sig)
{
    for (a_handled_signal& row : handled.rows)
        if (row.signal == sig)
            return &row;
    return nullptr;
}

// The ignore disposition counts as none: after a removal the signal has its default action.
void keep_earlier(a_handled_signal& row, const struct sigaction& earlier)
{
    const a_signal_handler_func handler = unix_saved_handler(&earlier);
    if (handler == nullptr)
        row.oldhandler = {};
    else if (handler != ut_onsig_sig_handler)
        row.oldhandler = earlier;
}

// Puts the library's handler in place and keeps the earlier disposition: before the handler is in force, since a signal
// may come at once, and as it was replaced. A handler put on top of the library's stays there: it may pass signals on
// to the library's, and being saved as the earlier one it would get them back without end.
void install(a_handled_signal& row)
{
    struct sigaction previous;
    if (sigaction(row.signal, nullptr, &previous) != 0)
        return;
    const a_signal_handler_func in_force = unix_saved_handler(&previous);
    row.left_alone = row.installed && in_force != nullptr && in_force != ut_onsig_sig_handler;
    if (row.left_alone)
        return;
    const struct sigaction kept = row.oldhandler;
    keep_earlier(row, previous);
    if (unix_handle_signal_keeping(row.signal, ut_onsig_sig_handler, &previous)) {
        keep_earlier(row, previous);
        row.installed = true;
    } else {
        row.oldhandler = kept;
    }
}

void remove(a_handled_signal& row)
{
    if (!row.left_alone)
        sigaction(row.signal, &row.oldhandler, nullptr);
    __atomic_store_n(&row.oldhandler.sa_sigaction, nullptr, __ATOMIC_RELAXED);  // a second thread's handler may look
    row.installed = false;
}

// Whether another handler is in force, installed after the library's: then that has passed the signal on. It is only
// looked at: to install the library's again and put the other back could take it away beside a second signal.
a_bool reached_through_another(int sig)
{
    struct sigaction in_force;
    return sigaction(sig, nullptr, &in_force) == 0 && in_force.sa_sigaction != ut_onsig_sig_handler;
}

void delay_abort()
{
    const char* value = ut_getenv2("ZT_LINUX_COREDUMP_DELAY");
    if (value == nullptr && !linux_kill_other_threads)
        return;
    // Another signal may cut a sleep short.
    unsigned left = value != nullptr && *value != '\0' ? ut_seconds_of(value, max_delay) : default_delay;
    do
        left = sleep(left);
    while (left > 0);
}

// A crash-only installation is still in place for SIGABRT: the first abort comes back to the handler, which runs the
// chain once more; the second one must end the process.
[[noreturn]] ENDS_THE_PROCESS void abort_process()
{
    if (!unix_aborts_again()) {
        in_abort = false;
        unix_release_signal(SIGABRT);
        raise(SIGABRT);
    }
    unix_abort_by_default();
}

// In a process for which the library's state is not made up (unixfork.h) all of that is left alone: an earlier handler
// gets the signal, or its default action ends the process.
void pass_on(int sig, siginfo_t* siginfo, void* context, a_signal_handler_func earlier)
{
    if (earlier != nullptr)
        earlier(sig, siginfo, context);
    else
        unix_raise_by_default(sig);
}

[[noreturn]] ENDS_THE_PROCESS void end_process(const an_onsig_call& call, bool core_allowed)
{
    unix_thread_ends_process();
    ut_crash_run(call);
    ut_onsig_remove_signal_handlers();
    if (!core_allowed)
        ut_want_no_core();
    delay_abort();
    abort_process();
}

ENDS_THE_PROCESS void ut_onsig_sig_handler(int sig, siginfo_t* siginfo, void* context)
{
    const a_handled_signal* row = find_handled(sig);
    const a_signal_handler_func earlier = row != nullptr ? unix_saved_handler(&row->oldhandler) : nullptr;
    const a_bool chaining = earlier != nullptr;
    const a_bool cleanup = !chaining;
    const int kept = errno;
    if (!unix_is_home_process()) {
        pass_on(sig, siginfo, context, earlier);
        errno = kept;
        return;
    }
    if (ut_crash_interrupted(sig, siginfo, context)) {
        errno = kept;
        return;
    }
    if (sig == SIGABRT && in_abort)
        unix_abort_by_default();  // a callback has aborted
    in_abort = in_abort || sig == SIGABRT;
    const a_bool chained = reached_through_another(sig);
    // A thread which is cancelled must not vanish here: the process would live on half cleaned up.
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    unix_leave_it_to_the_first(cleanup, ut_crash_patience_ms());
    const an_onsig_call call = {sig, chained, chaining, cleanup, siginfo, context};
    if (cleanup)
        end_process(call, row == nullptr || row->crash);
    ut_onsig_call_now(sig, chained, chaining, cleanup, siginfo, context);
    pthread_setcancelstate(cancel_state, nullptr);
    if (sig == SIGABRT)
        in_abort = false;  // first: the earlier handler may leave by a jump
    earlier(sig, siginfo, context);
    errno = kept;
}

}  // namespace

// Not signal-safe: sscanf.
void ut_onsig_init()
{
    install_sig_handlers_at_lib_init = TRUE;
    struct utsname system;
    int major, minor, patch;
    if (uname(&system) == 0 && sscanf(system.release, "%d.%d.%d", &major, &minor, &patch) >= 2 && major == 2 &&
        minor <= 4)
        linux_kill_other_threads = TRUE;
}

void ut_onsig_fini() { ut_onsig_remove_signal_handlers(); }

// Not signal-safe: it changes what the handler reads.
void ut_onsig_install_signal_handlers(a_bool called_during_lib_init)
{
    if ((called_during_lib_init && !install_sig_handlers_at_lib_init) || sig_handlers_installed)
        return;
    const char* value = ut_getenv2("ZT_INSTALL_SIG_HANDLERS");
    const char mode = value != nullptr ? *value : '\0';
    if (mode == 'N' || mode == 'n')
        return;
    ut_crash_configure();
    const bool crash_only = mode == 'C' || mode == 'c' || mode == 'S' || mode == 's';
    sig_handlers_installed = !crash_only;
    for (a_handled_signal& row : handled.rows)
        if (row.crash || !crash_only)
            install(row);
}

void ut_onsig_remove_signal_handlers()
{
    // Exchanged: of two threads which are hit by signals at once only one takes the handlers away.
    if (!__atomic_exchange_n(&sig_handlers_installed, FALSE, __ATOMIC_ACQ_REL))
        return;
    for (a_handled_signal& row : handled.rows)
        remove(row);
}

void ut_onsig_unload()
{
    for (a_handled_signal& row : handled.rows)
        if (unix_current_handler(row.signal) == ut_onsig_sig_handler)
            remove(row);
}

void ut_want_no_core(void)
{
    struct rlimit limit;
    if (ut_getenv2("ZT_ALWAYS_GEN_CORE") != nullptr || getrlimit(RLIMIT_CORE, &limit) != 0)
        return;
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_CORE, &limit);
}
