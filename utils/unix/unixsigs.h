// unixsigs.h: signal dispositions and masks, kept whole: a handler's flags and mask go with its address.
#pragma once

#include <signal.h>

#include "corvex/types.h"

using a_signal_handler_func_with_context = void (*)(int signal_number, siginfo_t* siginfo, void* context);
using a_signal_handler_func = a_signal_handler_func_with_context;  // saved handlers are called with all three

// Installs handler (null: the default action) for the signal, restarting interrupted system calls and blocking only the
// signal itself meanwhile; on the alternate signal stack of a thread which has one. Stores the previous handler,
// null for none, through pprev_handler unless that is null. TRUE when it was installed; else nothing is stored.
a_bool unix_handle_signal_with_context(int signal_number, a_signal_handler_func_with_context handler,
                                       a_signal_handler_func_with_context* pprev_handler);

// The same, storing the whole previous disposition.
a_bool unix_handle_signal_keeping(int signal_number, a_signal_handler_func_with_context handler,
                                  struct sigaction* previous);

// The handler of a disposition; null for the default action, the ignore disposition and the two values that are none.
a_signal_handler_func_with_context unix_saved_handler(const struct sigaction* disposition);
a_signal_handler_func_with_context unix_current_handler(int signal_number);

// The signals that the library handles because they end a process, in the order in which handlers are installed.
struct an_ending_signal {
    int signal;
    bool crash;  // of a fault: its core dump is allowed
};
inline constexpr an_ending_signal unix_ending_signals[] = {
    {SIGILL, true},  {SIGABRT, true}, {SIGBUS, true},   {SIGFPE, true},   {SIGSEGV, true},
    {SIGHUP, false}, {SIGINT, false}, {SIGQUIT, false}, {SIGTERM, false},
};
bool unix_is_ending_signal(int signal_number);

// Ends the parts of a crash that take too long; nobody else's.
inline int unix_limit_signal() { return SIGRTMAX - 1; }
bool unix_is_crash_signal(int signal_number);

void unix_hold_signal(int signal_number);     // adds to the calling thread's blocked set
void unix_release_signal(int signal_number);  // removes from it
void unix_sigpause(int signal_number);        // removes and suspends until a signal arrives, in one step
