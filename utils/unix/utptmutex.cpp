// utptmutex.cpp: the plain mutex wrappers and the safe mutexes, which come from a pool (utpool.h). Not signal-safe but
// for the fork steps.
#include "utils/unix/utptmutex.h"

#include <errno.h>

namespace {

constinit a_pool<pthread_mutex_t> pool;

}  // namespace

int ut_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    return pthread_mutex_init(mutex, attr);
}

int ut_pthread_mutex_destroy(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }
int ut_pthread_mutex_lock(pthread_mutex_t* mutex) { return pthread_mutex_lock(mutex); }
int ut_pthread_mutex_trylock(pthread_mutex_t* mutex) { return pthread_mutex_trylock(mutex); }
int ut_pthread_mutex_unlock(pthread_mutex_t* mutex) { return pthread_mutex_unlock(mutex); }

int ut_safe_pthread_mutex_init(a_ut_safe_pthread_mutex_t* _mx, const pthread_mutexattr_t* /*attr*/)
{
    _mx->p_mutex = pool.take();
    return _mx->p_mutex != nullptr ? 0 : ENOMEM;
}

int ut_safe_pthread_mutex_destroy(a_ut_safe_pthread_mutex_t* _mx)
{
    pool.give_back(_mx->p_mutex);
    _mx->p_mutex = nullptr;
    return 0;
}

int ut_safe_pthread_mutex_lock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_lock(_mx->p_mutex); }
int ut_safe_pthread_mutex_trylock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_trylock(_mx->p_mutex); }
int ut_safe_pthread_mutex_unlock(a_ut_safe_pthread_mutex_t* _mx) { return pthread_mutex_unlock(_mx->p_mutex); }
void ut_safe_pthread_mutex_alloc(unsigned int num) { pool.alloc(num); }
void ut_safe_pthread_mutex_clean(void) { pool.clean(); }
void ut_safe_pthread_mutex_crit_init() { pool.crit_init(); }
void ut_safe_pthread_mutex_crit_fini() { pool.crit_fini(); }
void ut_safe_pthread_mutex_pool_fork_child() { pool.fork_child(); }

void ut_safe_pthread_mutex_fork_child(a_ut_safe_pthread_mutex_t* _mx)
{
    if (_mx->p_mutex != nullptr)
        pthread_mutex_init(_mx->p_mutex, nullptr);
}
