/* ptsem.h: a binary, auto-resetting semaphore on a pooled mutex and condition variable, for C99 and C++11.
 *
 * Signalling sets a flag, however often; a wait that returns clears it. Whatever a thread stored before it signalled is
 * seen by the thread whose wait returns next, also when the flag was set already: each of the two has a full barrier
 * between its own store and its look at the other's.
 *
 * A signal broadcasts while it holds the mutex. The report that the C library's condition variable may lose wake-ups
 * (glibc bug 25847) is about single wake-ups stolen by a thread which began to wait later; a broadcast leaves no older
 * waiter behind that could be missed, and who then finds the flag cleared waits again.
 *
 * All operations on an open semaphore are thread-safe; none is signal-safe: they lock. None is a cancellation point: a
 * cancellation of a thread which waits takes effect after the wait. */
#pragma once

#include "corvex/ptcondvar.h"
#include "corvex/ptmutex.h"
#include "corvex/types.h"

CORVEX_C_BEGIN

typedef struct a_ut_pthread_semaphore {
    a_ut_safe_pthread_cond_t cv;     /* waiters sleep on it */
    a_ut_safe_pthread_mutex_t mutex; /* every change of set is made under it */
    a_bool set;                      /* 1: signalled, and the signal not yet consumed */
} a_ut_pthread_semaphore;
typedef a_ut_pthread_semaphore a_semaphore;
CORVEX_LAYOUT(sizeof(a_ut_pthread_semaphore) == 24 && offsetof(a_ut_pthread_semaphore, mutex) == 8 &&
              offsetof(a_ut_pthread_semaphore, set) == 16);

/* Opens sem, signalled when initial_value is not 0. Returns 0 for success (not TRUE), or ENOMEM, with nothing kept,
 * when the pools have no memory. The memory stays the caller's. */
CORVEX_API a_bool ut_pthread_open_semaphore(a_ut_pthread_semaphore* sem, unsigned int initial_value);

/* Closes sem, which no thread uses any more. */
CORVEX_API void ut_pthread_close_semaphore(a_ut_pthread_semaphore* sem);

/* Signals. Returns TRUE. A semaphore that is signalled already costs one atomic instruction and no lock. */
CORVEX_API a_bool ut_pthread_signal_semaphore(a_ut_pthread_semaphore* sem);

/* Waits for a signal and consumes it, asleep but for the first few microseconds, when it looks for the signal by
 * itself. Returns TRUE. */
CORVEX_API a_bool ut_pthread_waiton_semaphore(a_ut_pthread_semaphore* sem);

/* The same for at most timeout_in_ms milliseconds of the real-time clock; setting that clock moves the end. Returns
 * TRUE when a signal was consumed, FALSE when the time ran out: a signal that came just then stays for the next
 * wait. */
CORVEX_API a_bool ut_pthread_waiton_semaphore_timed(a_ut_pthread_semaphore* sem, unsigned int timeout_in_ms);

/* Whether a signal waits to be consumed; it may have changed when the call returns. */
CORVEX_API a_bool ut_pthread_test_semaphore(a_ut_pthread_semaphore* sem);

/* Drops a signal that has not been consumed. Returns TRUE. */
CORVEX_API a_bool ut_pthread_reset_semaphore(a_ut_pthread_semaphore* sem);

CORVEX_C_END
