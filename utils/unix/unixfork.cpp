// unixfork.cpp: marks a process created by fork. The handlers are tied to the library: the system drops them
// when it is unloaded. The mark is one word, changed right after a fork (where only one thread exists) and by
// a reset.
#include "utils/unix/unixfork.h"

#include <pthread.h>
#include <unistd.h>

#include "corvex/forkprotection.h"

namespace {

int initialization_count = 0;
a_bool in_child_process = FALSE;
pid_t home_pid = 0;
uint32 forks = 0;

// Signal-safe.
void atfork_prepare() {}

// Signal-safe.
void atfork_parent() {}

// Signal-safe.
void atfork_child()
{
    __atomic_add_fetch(&forks, 1u, __ATOMIC_RELAXED);
    __atomic_store_n(&in_child_process, TRUE, __ATOMIC_RELAXED);
}

}  // namespace

// Not signal-safe: the registration allocates.
void UnixForkProtection_Init()
{
    if (initialization_count++ > 0)
        return;
    in_child_process = FALSE;
    pthread_atfork(atfork_prepare, atfork_parent, atfork_child);
}

// Relaxed: the mark orders nothing.
// Signal-safe.
a_bool UnixForkProtection_IsChild() { return __atomic_load_n(&in_child_process, __ATOMIC_RELAXED) != FALSE; }

// Signal-safe.
void UnixForkProtection_Reset() { __atomic_store_n(&in_child_process, FALSE, __ATOMIC_RELAXED); }

// Acquire: who finds the process at home finds all that its fork handlers did before.
// Signal-safe.
bool unix_is_home_process() { return __atomic_load_n(&home_pid, __ATOMIC_ACQUIRE) == getpid(); }

// Signal-safe.
void unix_make_home_process() { __atomic_store_n(&home_pid, getpid(), __ATOMIC_RELEASE); }

// Relaxed: it changes only where there is one thread.
// Signal-safe.
uint32 unix_fork_count() { return __atomic_load_n(&forks, __ATOMIC_RELAXED); }
