/* ptcondvar.h: POSIX condition variables, for C99 and C++11: plain wrappers, and safe ones from a pool that the library
 * owns. The pool works like that of the safe mutexes (ptmutex.h). Absolute times are of the real-time clock. */
#pragma once

#include <pthread.h>
#include <time.h>

#include "corvex/ptmutex.h"
#include "corvex/types.h"

CORVEX_C_BEGIN

typedef struct a_ut_safe_pthread_cond_t {
    pthread_cond_t* p_cond; /* owned by the pool; null when not taken */
} a_ut_safe_pthread_cond_t;
CORVEX_LAYOUT(sizeof(a_ut_safe_pthread_cond_t) == 8);

/* The POSIX functions of the same names; their results, 0 or an errno value, unchanged. */
CORVEX_API int ut_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr);
CORVEX_API int ut_pthread_cond_destroy(pthread_cond_t* cond);
CORVEX_API int ut_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex);
CORVEX_API int ut_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* abstime);
CORVEX_API int ut_pthread_cond_signal(pthread_cond_t* cond);
CORVEX_API int ut_pthread_cond_broadcast(pthread_cond_t* cond);

/* Takes a condition variable from the pool; attr is ignored. Returns 0, or ENOMEM with a null handle.
 * Thread-safe. Not signal-safe: it locks and may allocate. */
CORVEX_API int ut_safe_pthread_cond_init(a_ut_safe_pthread_cond_t* _cv, const pthread_condattr_t* attr);

/* Gives it back and makes the handle null; a null handle is left alone. Returns 0. Thread-safe. Not signal-safe. */
CORVEX_API int ut_safe_pthread_cond_destroy(a_ut_safe_pthread_cond_t* _cv);

/* As for the mutex pool. */
CORVEX_API void ut_safe_pthread_cond_alloc(unsigned int num);
CORVEX_API void ut_safe_pthread_cond_clean(void);

/* The POSIX operation on the handles' objects and its result. */
static inline int ut_safe_pthread_cond_wait(a_ut_safe_pthread_cond_t* cv, a_ut_safe_pthread_mutex_t* m)
{
    return pthread_cond_wait(cv->p_cond, m->p_mutex);
}
static inline int ut_safe_pthread_cond_timedwait(a_ut_safe_pthread_cond_t* cv, a_ut_safe_pthread_mutex_t* m,
                                                 const struct timespec* ts)
{
    return pthread_cond_timedwait(cv->p_cond, m->p_mutex, ts);
}
static inline int ut_safe_pthread_cond_broadcast(a_ut_safe_pthread_cond_t* cv)
{
    return pthread_cond_broadcast(cv->p_cond);
}

CORVEX_C_END
