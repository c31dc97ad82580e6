/* ptmutex.h: POSIX mutexes, for C99 and C++11: plain wrappers, and safe mutexes from a pool that the library owns.
 *
 * A safe mutex is a handle of one pointer to a pooled mutex with default attributes, never recursive. The pool makes
 * its mutexes 50 at a time, hands them out again without initialising them anew, and frees all of them with the last
 * handle. A handle is taken once and given back once, by then unlocked and used by nobody; it is not validated. When
 * the process exits the pool stops with the library: no thread may take or give back then. The library's own shut-down
 * waits at most a second for the pool, which an exit from a signal handler may have interrupted, and then leaves its
 * mutexes alone. ThreadSanitizer takes a mutex that is handed out again for the old one, and may report a lock order of
 * two owners: TSAN_OPTIONS=detect_deadlocks=0 silences that. */
#pragma once

#include <pthread.h>

#include "corvex/types.h"

CORVEX_C_BEGIN

typedef struct a_ut_safe_pthread_mutex_t {
    pthread_mutex_t* p_mutex; /* owned by the pool; null when not taken */
} a_ut_safe_pthread_mutex_t;
typedef a_ut_safe_pthread_mutex_t a_critical_sect;
typedef a_critical_sect a_mutex_internal;
CORVEX_LAYOUT(sizeof(a_ut_safe_pthread_mutex_t) == 8);

/* The POSIX functions of the same names; their results, 0 or an errno value, unchanged. */
CORVEX_API int ut_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);
CORVEX_API int ut_pthread_mutex_destroy(pthread_mutex_t* mutex);
CORVEX_API int ut_pthread_mutex_lock(pthread_mutex_t* mutex);
CORVEX_API int ut_pthread_mutex_trylock(pthread_mutex_t* mutex);
CORVEX_API int ut_pthread_mutex_unlock(pthread_mutex_t* mutex);

/* Takes a mutex from the pool; attr is ignored. Returns 0, or ENOMEM with a null handle when the pool is
 * empty and no memory can be had. Thread-safe. Not signal-safe: it locks and may allocate. */
CORVEX_API int ut_safe_pthread_mutex_init(a_ut_safe_pthread_mutex_t* _mx, const pthread_mutexattr_t* attr);

/* Gives the mutex back and makes the handle null; a null handle is left alone. Returns 0. Thread-safe. Not
 * signal-safe: it locks and may free. */
CORVEX_API int ut_safe_pthread_mutex_destroy(a_ut_safe_pthread_mutex_t* _mx);

/* The POSIX operation on the handle's mutex and its result. No lock of the pool is taken. */
CORVEX_API int ut_safe_pthread_mutex_lock(a_ut_safe_pthread_mutex_t* _mx);
CORVEX_API int ut_safe_pthread_mutex_trylock(a_ut_safe_pthread_mutex_t* _mx);
CORVEX_API int ut_safe_pthread_mutex_unlock(a_ut_safe_pthread_mutex_t* _mx);

/* Makes num more free mutexes, as far as memory goes. They are freed with all others when the last handle is
 * given back. Thread-safe. Not signal-safe. */
CORVEX_API void ut_safe_pthread_mutex_alloc(unsigned int num);

/* Frees all mutexes that no handle holds. Thread-safe. Not signal-safe. */
CORVEX_API void ut_safe_pthread_mutex_clean(void);

CORVEX_C_END
