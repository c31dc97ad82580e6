// unixfork.cpp: marks a process created by fork. The system drops the fork handlers when the library is unloaded. The
// mark is one word, changed right after a fork (where only one thread exists) and by a reset. Signal-safe: all of it,
// but what says otherwise.
#include "utils/unix/unixfork.h"

#include <pthread.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include "corvex/forkprotection.h"

namespace {

int initialization_count = 0;
a_bool in_child_process = FALSE;
pid_t home_pid = 0;
uint32 forks = 0;
bool alone = true;           // of unix_forked_alone
bool alone_in_fork = false;  // the process has one thread at the fork under way: of two threads that fork both say no

void atfork_prepare() { __atomic_store_n(&alone_in_fork, __libc_single_threaded != 0, __ATOMIC_RELAXED); }

void atfork_child()
{
    __atomic_add_fetch(&forks, 1u, __ATOMIC_RELAXED);
    alone = alone && alone_in_fork;
    __atomic_store_n(&in_child_process, TRUE, __ATOMIC_RELAXED);
}

}  // namespace

// Not signal-safe: the registration allocates.
void UnixForkProtection_Init()
{
    if (initialization_count++ > 0)
        return;
    in_child_process = FALSE;
    pthread_atfork(atfork_prepare, nullptr, atfork_child);
}

// Relaxed: the mark orders nothing.
a_bool UnixForkProtection_IsChild() { return __atomic_load_n(&in_child_process, __ATOMIC_RELAXED) != FALSE; }
void UnixForkProtection_Reset() { __atomic_store_n(&in_child_process, FALSE, __ATOMIC_RELAXED); }

// Acquire: who finds the process at home finds all that its fork handlers did before.
bool unix_is_home_process() { return __atomic_load_n(&home_pid, __ATOMIC_ACQUIRE) == getpid(); }
void unix_make_home_process() { __atomic_store_n(&home_pid, getpid(), __ATOMIC_RELEASE); }

// Relaxed: it changes only where there is one thread.
uint32 unix_fork_count() { return __atomic_load_n(&forks, __ATOMIC_RELAXED); }
bool unix_forked_alone() { return alone; }
