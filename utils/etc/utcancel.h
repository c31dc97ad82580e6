// utcancel.h: keeps a thread from being cancelled, or interrupted, where it holds what others need. Signal-safe.
#pragma once

#include <pthread.h>
#include <signal.h>

// A cancellation that is pending, or comes, waits for the end of the scope.
class an_uncancelled_scope {
public:
    an_uncancelled_scope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &kept); }
    ~an_uncancelled_scope() { pthread_setcancelstate(kept, nullptr); }
    an_uncancelled_scope& operator=(an_uncancelled_scope&&) = delete;  // nor copies

private:
    int kept;
};

// All signals are blocked for a scope.
class a_blocked_scope {
public:
    a_blocked_scope()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &kept);
    }
    ~a_blocked_scope() { pthread_sigmask(SIG_SETMASK, &kept, nullptr); }
    a_blocked_scope& operator=(a_blocked_scope&&) = delete;  // nor copies

private:
    sigset_t kept;
};
