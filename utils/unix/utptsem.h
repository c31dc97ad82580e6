// utptsem.h: what the thread layer needs of the semaphores beyond corvex/ptsem.h.
#ifndef UNIX_UTPTSEM_H
#define UNIX_UTPTSEM_H

#include "corvex/ptsem.h"

// In a forked child: the semaphore has no waiters and its mutex is free; its flag stays as it was.
void ut_pthread_semaphore_fork_child(a_ut_pthread_semaphore* sem);

#endif
