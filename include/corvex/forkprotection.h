/* forkprotection.h: tells a process created by fork from the one that started the library, for C99 and C++11. The exit
 * of a process so marked stops nothing of the library: kernel objects and log files stay its parent's.
 *
 * A child forked by a signal handler must end by exec or _exit: it may use the whole library until then, record and
 * dump included, but never return from the handler into what that interrupted. */
#pragma once

#include "corvex/types.h"

CORVEX_C_BEGIN

/* Registers the fork handlers, once; the library calls it at load. Later calls only count. Not thread-safe. */
CORVEX_API void UnixForkProtection_Init(void);

/* 1 in a process created by fork (its descendants included) since the first UnixForkProtection_Init, else 0.
 * Thread-safe and signal-safe. */
CORVEX_API a_bool UnixForkProtection_IsChild(void);

/* Makes a child a process of its own, whose exit shuts the library down (of fork: in a child of _Fork or vfork the
 * library stays its parent's). Thread-safe and signal-safe. */
CORVEX_API void UnixForkProtection_Reset(void);

CORVEX_C_END
