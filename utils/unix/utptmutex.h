// utptmutex.h: what the library itself needs of the safe mutexes and condition variables beyond their public headers.
#pragma once

#include "corvex/ptcondvar.h"
#include "corvex/ptmutex.h"
#include "utils/unix/utpool.h"

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

// A safe mutex for a scope.
class a_safe_lock {
public:
    // Not signal-safe: it locks.
    explicit a_safe_lock(a_ut_safe_pthread_mutex_t& of) : section(of) { pthread_mutex_lock(section.p_mutex); }
    // Not signal-safe: it unlocks.
    ~a_safe_lock() { pthread_mutex_unlock(section.p_mutex); }
    a_safe_lock& operator=(a_safe_lock&&) = delete;  // nor copies

private:
    a_ut_safe_pthread_mutex_t& section;
};
