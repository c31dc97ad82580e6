// unixsigs.cpp: signal dispositions and masks (see unixsigs.h). No locks. Signal-safe: all of it.
#include "utils/unix/unixsigs.h"

#include <pthread.h>

namespace {

void change_mask(int how, int signal_number)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal_number);
    pthread_sigmask(how, &set, nullptr);
}

const an_ending_signal* find_ending(int signal_number)
{
    for (const an_ending_signal& row : unix_ending_signals)
        if (row.signal == signal_number)
            return &row;
    return nullptr;
}

}  // namespace

a_bool unix_handle_signal_keeping(int signal_number, a_signal_handler_func_with_context handler,
                                  struct sigaction* previous)
{
    struct sigaction disposition = {};
    if (handler != nullptr)  // SIG_DFL bears no SA_SIGINFO: the thread sanitizer would take it for a handler of its own
        disposition.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    disposition.sa_sigaction = handler;
    sigemptyset(&disposition.sa_mask);
    sigaddset(&disposition.sa_mask, signal_number);
    return sigaction(signal_number, &disposition, previous) == 0;
}

a_bool unix_handle_signal_with_context(int signal_number, a_signal_handler_func_with_context handler,
                                       a_signal_handler_func_with_context* pprev_handler)
{
    struct sigaction previous;
    const a_bool installed = unix_handle_signal_keeping(signal_number, handler, &previous);
    if (installed && pprev_handler != nullptr)
        *pprev_handler = unix_saved_handler(&previous);
    return installed;
}

a_signal_handler_func_with_context unix_saved_handler(const struct sigaction* disposition)
{
    constexpr a_ptrint held = 2;  // SIG_DFL and SIG_IGN are 0 and 1
    // Relaxed: one word, which another thread's handler may be taking away.
    const auto handler = __atomic_load_n(&disposition->sa_sigaction, __ATOMIC_RELAXED);
    const a_ptrint value = reinterpret_cast<a_ptrint>(handler);
    const bool none = value <= held || value == reinterpret_cast<a_ptrint>(SIG_ERR);
    return none ? nullptr : handler;
}

a_signal_handler_func_with_context unix_current_handler(int signal_number)
{
    struct sigaction current;
    return sigaction(signal_number, nullptr, &current) == 0 ? unix_saved_handler(&current) : nullptr;
}

bool unix_is_ending_signal(int signal_number) { return find_ending(signal_number) != nullptr; }

bool unix_is_crash_signal(int signal_number)
{
    const an_ending_signal* const row = find_ending(signal_number);
    return row != nullptr && row->crash;
}

void unix_hold_signal(int signal_number) { change_mask(SIG_BLOCK, signal_number); }
void unix_release_signal(int signal_number) { change_mask(SIG_UNBLOCK, signal_number); }

void unix_sigpause(int signal_number)
{
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    sigdelset(&set, signal_number);
    sigsuspend(&set);
}
