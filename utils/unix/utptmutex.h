// utptmutex.h: the small lock class of the pools, and what the library itself needs of the safe mutexes
// beyond corvex/ptmutex.h.
#ifndef UNIX_UTPTMUTEX_H
#define UNIX_UTPTMUTEX_H

#include "corvex/ptcondvar.h"
#include "corvex/ptmutex.h"
#include "utils/utmem/utmem.h"

// One POSIX mutex with default attributes.
class a_utpt_mutex {
public:
    a_utpt_mutex() { pthread_mutex_init(&mutex, nullptr); }
    ~a_utpt_mutex() { pthread_mutex_destroy(&mutex); }
    a_utpt_mutex(const a_utpt_mutex&) = delete;
    a_utpt_mutex& operator=(const a_utpt_mutex&) = delete;

    void get() { pthread_mutex_lock(&mutex); }
    void give() { pthread_mutex_unlock(&mutex); }
    int try_get() { return pthread_mutex_trylock(&mutex); }
    // Within a second, for a shut-down: exit may have been called in a handler that interrupted the holder.
    a_bool get_in_time()
    {
        timespec end;
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_sec++;
        return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &end) == 0;
    }

    // In a forked child: free, whoever of the parent held it. A holder interrupted by the handler that forked unlocks a
    // free mutex later, which the C library's default mutex takes without harm.
    // Signal-safe.
    void fork_child() { pthread_mutex_init(&mutex, nullptr); }

    void* operator new(size_t size) noexcept { return ut_alloc(size); }
    void operator delete(void* block) noexcept { ut_free(block); }

private:
    pthread_mutex_t mutex;
};

void ut_safe_pthread_mutex_crit_init();
void ut_safe_pthread_mutex_crit_fini();
void ut_safe_pthread_cond_crit_init();
void ut_safe_pthread_cond_crit_fini();

// In a forked child: the pools' own locks, and one handle's mutex, are free, and nobody waits on one handle's condition
// variable. A null handle is left alone.
void ut_safe_pthread_mutex_pool_fork_child();
void ut_safe_pthread_cond_pool_fork_child();
void ut_safe_pthread_mutex_fork_child(a_ut_safe_pthread_mutex_t* _mx);
void ut_safe_pthread_cond_fork_child(a_ut_safe_pthread_cond_t* _cv);

#endif
