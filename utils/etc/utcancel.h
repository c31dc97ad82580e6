// utcancel.h: keeps a thread from being cancelled where it holds what others need.
#ifndef ETC_UTCANCEL_H
#define ETC_UTCANCEL_H

#include <pthread.h>

// A cancellation that is pending, or comes, waits for the end of the scope.
class an_uncancelled_scope {
public:
    // Signal-safe.
    an_uncancelled_scope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &kept); }
    // Signal-safe.
    ~an_uncancelled_scope() { pthread_setcancelstate(kept, nullptr); }
    an_uncancelled_scope(const an_uncancelled_scope&) = delete;
    an_uncancelled_scope& operator=(const an_uncancelled_scope&) = delete;

private:
    int kept;
};

#endif
