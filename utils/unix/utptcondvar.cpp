// utptcondvar.cpp: the plain condition-variable wrappers and the safe condition variables, which come from a pool
// (utpool.h). Not signal-safe but for the fork steps.
#include <errno.h>

#include "utils/unix/utptmutex.h"

namespace {

constinit a_pool<pthread_cond_t> pool;

}  // namespace

int ut_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr) { return pthread_cond_init(cond, attr); }
int ut_pthread_cond_destroy(pthread_cond_t* cond) { return pthread_cond_destroy(cond); }
int ut_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) { return pthread_cond_wait(cond, mutex); }

int ut_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* abstime)
{
    return pthread_cond_timedwait(cond, mutex, abstime);
}

int ut_pthread_cond_signal(pthread_cond_t* cond) { return pthread_cond_signal(cond); }
int ut_pthread_cond_broadcast(pthread_cond_t* cond) { return pthread_cond_broadcast(cond); }

int ut_safe_pthread_cond_init(a_ut_safe_pthread_cond_t* _cv, const pthread_condattr_t* /*attr*/)
{
    _cv->p_cond = pool.take();
    return _cv->p_cond != nullptr ? 0 : ENOMEM;
}

int ut_safe_pthread_cond_destroy(a_ut_safe_pthread_cond_t* _cv)
{
    pool.give_back(_cv->p_cond);
    _cv->p_cond = nullptr;
    return 0;
}

void ut_safe_pthread_cond_alloc(unsigned int num) { pool.alloc(num); }
void ut_safe_pthread_cond_clean(void) { pool.clean(); }
void ut_safe_pthread_cond_crit_init() { pool.crit_init(); }
void ut_safe_pthread_cond_crit_fini() { pool.crit_fini(); }
void ut_safe_pthread_cond_pool_fork_child() { pool.fork_child(); }

void ut_safe_pthread_cond_fork_child(a_ut_safe_pthread_cond_t* _cv)
{
    if (_cv->p_cond != nullptr)
        pthread_cond_init(_cv->p_cond, nullptr);
}
