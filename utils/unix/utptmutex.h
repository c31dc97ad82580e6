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
