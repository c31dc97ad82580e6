// utcancel.h: keeps a thread from being cancelled where it holds what others need.
#pragma once

#include <pthread.h>

// A cancellation that is pending, or comes, waits for the end of the scope. Signal-safe.
class an_uncancelled_scope {
public:
    an_uncancelled_scope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &kept); }
    ~an_uncancelled_scope() { pthread_setcancelstate(kept, nullptr); }
    an_uncancelled_scope& operator=(an_uncancelled_scope&&) = delete;  // nor copies

private:
    int kept;
};
