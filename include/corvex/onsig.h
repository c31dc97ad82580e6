/* onsig.h: what happens when a fatal or terminating signal arrives, for C99 and C++11.
 *
 * ut_onsig_install_signal_handlers installs the library's handler for SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV
 * (crash) and SIGHUP, SIGINT, SIGQUIT, SIGTERM (termination). On such a signal it runs the registered callbacks in
 * ascending priority. When another handler had been in place before, that one is called next and the process goes on
 * as it decides; otherwise the library takes its handlers away, suppresses the core dump of a termination signal and
 * aborts the process: it ends by SIGABRT, whatever the signal was (the first process of a container, for which SIGABRT
 * does nothing by default, by SIGSEGV). After an installation for crash signals only, the handler for SIGABRT is still
 * there then, and the callbacks run once more for it.
 *
 * Callbacks run in signal context and must be async-signal-safe. A callback returns, or ends the process; then
 * those of higher priority do not run, among them the one of priority 1000 that removes the library's kernel
 * semaphores. While one thread's signal ends the process, signals of other threads wait for its end, up to ten
 * seconds, and longer than a limit (below); then they run the callbacks too, since the first may be stuck (or in a
 * longer delay). To have the event history written, unblock SIGUSR1 and raise it in one (when it has a handler: its
 * default action ends the process). A dump that another thread is writing at that moment is not waited for and is cut
 * off by the abort.
 *
 * Crash reports. With ZT_CRASH_REPORT the handler first writes what ends the process and who called that, once a
 * process (crash.h keeps as much for debuggers, always). With reports or a limit, callbacks are guarded: one that
 * faults, or aborts, on the crashing thread is skipped, and a line says where; the others run. It is left by a jump:
 * its locks stay as they are. Other handled signals do nothing on that thread meanwhile; a child that a callback has
 * forked has their default action.
 *
 * Limit. When report and callbacks have not ended within ZT_CRASH_TIMEOUT seconds, the callbacks of priority 1000 run
 * that are not running, a line says which one was, and the process ends by SIGABRT. For that the crashing thread gets
 * signal SIGRTMAX - 1, whose handler the library replaces at the crash. A callback that keeps it out is ended by
 * SIGKILL five seconds later, and the kernel semaphores stay.
 *
 * In a child between fork and its fork handlers, and in one of vfork or _Fork, nothing of this happens: an earlier
 * handler gets the signal, or its default action ends the child.
 *
 * Environment, read when handlers are installed or run: ZT_INSTALL_SIG_HANDLERS (n...: none, c... or s...: the five
 * crash signals only; capitals too), ZT_ALWAYS_GEN_CORE (set: the core limit is left alone), ZT_LINUX_COREDUMP_DELAY
 * (seconds to sleep before the abort: leading decimal digits, 0 to 3600, 2 when empty), ZT_CRASH_REPORT (stderr, or a
 * file's name in which %p is the process id, %e the program, %t the time in seconds; empty or off: none; unset: stderr
 * with UT_HIST_EXT=crash, else none),
 * ZT_CRASH_TIMEOUT (0 to 3600, 0 for ever; unset: 30 with crash reports, else for ever). In a set-uid or set-gid
 * program, or one with capabilities, none of them counts. */
#pragma once

#include "corvex/types.h"

CORVEX_C_BEGIN

/* A callback: the signal; the value given at registration; whether the library's handler was reached through one
 * installed after it; whether an earlier handler gets the signal next; whether the process is cleaned up and ended
 * (then, and only then, release resources); the system's siginfo_t and ucontext_t of this delivery. */
typedef void (*a_sig_handler_func)(int sig, void* arg, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo,
                                   void* context);

/* Registers func (not null) in the first free of eight slots, one of which the library itself takes at load.
 * Priorities 0 to 32000 run, lowest first, equal ones in slot order; others never do. Returns a handle, or null when
 * all slots are taken. Thread-safe and signal-safe; a signal that arrives inside the call may find the priority and
 * arg of the slot's last registration. */
CORVEX_API void* ut_onsig_call_add(int priority, a_sig_handler_func func, void* arg);

/* Removes the registration of func under the handle; does nothing when the handle is null or its slot holds
 * another func. Thread-safe and signal-safe. */
CORVEX_API void ut_onsig_call_del(void* void_p, a_sig_handler_func func);

/* Runs the callbacks with these arguments on the calling thread, each registration at most once. Signal-safe
 * as far as they are. With cleanup true the library's own callback removes all its kernel semaphores (sysvsem.h). */
CORVEX_API void ut_onsig_call_now(int sig, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo,
                                  void* context);

/* 1 once the library's handler has begun to clean up and end the process, and in children forked from then on, else 0.
 * Thread-safe and signal-safe. */
CORVEX_API int ut_onsig_will_do_cleanup(void);

/* Installs the handlers as ZT_INSTALL_SIG_HANDLERS says; does nothing while a full set is installed.
 * called_during_lib_init: true for a call from a library's own start-up, which then only counts after this
 * library's. A handler that the program put on top of an earlier crash-only installation stays on top. A signal that
 * was ignored before counts as having no handler, and ends the process from now on.
 *
 * Handlers run on the alternate signal stack of a thread which has one (SA_ONSTACK): a thread which is to survive a
 * stack overflow needs one. With crash reports the calling thread, and each which the thread layer starts from then on,
 * is given one of 256 KiB where it has none; others bring their own, of 32 KB. Not thread-safe, not signal-safe. */
CORVEX_API void ut_onsig_install_signal_handlers(a_bool called_during_lib_init);

/* Sets the soft limit of core files to 0, unless ZT_ALWAYS_GEN_CORE is set. Thread-safe and signal-safe. */
CORVEX_API void ut_want_no_core(void);

CORVEX_C_END
