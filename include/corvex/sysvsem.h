/* sysvsem.h: single System V semaphores out of kernel sets that the library creates and removes, for C99 and C++11.
 *
 * A handle names one member of one set. The caller operates on it with the kernel's own calls (semop, semctl); the
 * library hands members out, sets their first value, takes them back, and removes a set from the kernel with its
 * last member, at shut-down, and, if the program has installed the library's signal handlers (onsig.h), when it dies
 * on a signal that no earlier handler gets. What ends by _exit or SIGKILL leaves its sets. When exit is called in a
 * handler that interrupted an open or a close, shut-down waits a second and then removes the sets all the same. Sets
 * have the mode 0777: any user may operate on them, but on members that are handed out only.
 *
 * TBX_MAX_NSEMS, read once, sets how many members a set has; the default is the kernel's limit. A size that the
 * kernel refuses makes sets of one. The kernel's SETVAL, by which a member gets its first value, visits every member of
 * its set: 0.5 us in a set of 16, 480 us in one of 32000, the default. In sets of more than 64 only a member that was
 * used before needs it; the others take one semop of 0.4 us, or nothing for the value 0.
 *
 * In a forked child the parent's sets stay the parent's: the child hands out members of sets of its own only, and
 * its death by a signal removes no other; its exit removes nothing, so it closes its own first.
 * UnixForkProtection_Reset makes it the owner of all. */
#pragma once

#include "corvex/types.h"

CORVEX_C_BEGIN

typedef struct a_sysv_semaphore {
    int ident;  /* the kernel set; only values above 0 name one */
    int offset; /* the member, from 0 */
} a_sysv_semaphore;
CORVEX_LAYOUT(sizeof(a_sysv_semaphore) == 8 && offsetof(a_sysv_semaphore, offset) == 4);

/* Makes s name a fresh member whose value is initial_value. FALSE, with s unchanged, when the library is not
 * started, when memory or kernel sets are short, while a cleanup runs that the process survives (ut_onsig_call_now),
 * and once the library's signal handler has begun to end the process (in children forked from then on, too); FALSE,
 * with s naming the member that was given back already, when the kernel refuses the value (below 0 or above its
 * limit, 32767) or somebody else has removed the set (of which an open with the value 0 may know nothing); that
 * set's handles are stale then, and the next open makes a new set. Thread-safe. Not signal-safe: it locks. */
CORVEX_API a_bool sysv_open_semaphore(a_sysv_semaphore* s, int initial_value);

/* Gives the member back; s is not changed. Ignored for null, for an ident of 0 or below and for a set that no longer
 * exists. Close each handle once: a second close counts as one of another member and may remove the set under its
 * users. Thread-safe. Not signal-safe. */
CORVEX_API void sysv_close_semaphore(a_sysv_semaphore* s);

/* TRUE while the library is started, no cleanup runs and no set is open. Thread-safe and signal-safe; the answer may
 * be old at once. */
CORVEX_API a_bool sysv_list_is_empty(void);

CORVEX_C_END
