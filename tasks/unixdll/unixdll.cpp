// unixdll.cpp: starts the library when the loader maps it and stops it when it is unmapped or the process exits.
//
// The static objects at the end of this file stand in the order in which they must be built; their destructors run in
// reverse. Each subsystem has one line in the start, the stop and, where it owns locks, the fork sequence; the stop is
// the reverse of the start. Everything runs under the loader's serialisation, so the load count needs no lock; the fork
// sequence runs on the child's only thread and is signal-safe.
#include "tasks/unixdll/unixdll.h"

#include <pthread.h>

#include "corvex/forkprotection.h"
#include "utils/etc/osthread.h"
#include "utils/etc/uthist/uthist.h"
#include "utils/unix/sysvsemo.h"
#include "utils/unix/unixaltstack.h"
#include "utils/unix/unixfork.h"
#include "utils/unix/utcore.h"
#include "utils/unix/utending.h"
#include "utils/unix/utptmutex.h"

int init_fini_call_count_corvex = 0;  // start-up calls minus shut-down calls

namespace {

void InitTheInternalStuff_corvex()
{
    unix_process_starts();
    UnixForkProtection_Init();
    ut_safe_pthread_mutex_crit_init();
    ut_safe_pthread_cond_crit_init();
    ut_onsig_init();
    sysv_list_init_semaphore();
    ut_hist_init();
}

void FiniTheInternalStuff_corvex()
{
    unix_process_ends();
    unix_shuts_down = true;
    ut_hist_fini();
    sysv_list_fini_semaphore();
    ut_onsig_fini();
    ut_safe_pthread_cond_crit_fini();
    ut_safe_pthread_mutex_crit_fini();
}

// Frees every lock of the library in a forked child, but recursive ones that the forking thread itself holds: nothing
// is locked before a fork, since crash handlers fork, so a thread which the child does not have may have held any.
void FreeLocksInChild_corvex()
{
    unix_ending_fork_child();
    ut_safe_pthread_mutex_pool_fork_child();
    ut_safe_pthread_cond_pool_fork_child();
    os_thread_fork_child();
    os_ident_fork_child();
    sysv_list_fork_child();
    ut_hist_fork_child();
    unix_make_home_process();
}

// What must hold from the first to the last moment in the process: a child's locks are free, and no signal handler
// points into the library once it is gone, whatever the stop sequence left installed or a forked child never stopped.
// Fork handlers run in the order of their registration: the child is marked as one before its locks are freed.
class an_outermost_corvex {
public:
    an_outermost_corvex()
    {
        unix_make_home_process();
        UnixForkProtection_Init();
        pthread_atfork(nullptr, nullptr, FreeLocksInChild_corvex);
        ut_hist_static_defaults();
    }
    ~an_outermost_corvex()
    {
        ut_hist_unload();
        ut_onsig_unload();
        unix_release_signal_stacks();
    }
};

class an_init_fini_execute_me_corvex {
public:
    an_init_fini_execute_me_corvex() { LibInit_corvex(); }
    ~an_init_fini_execute_me_corvex() { LibFini_corvex(); }
};

dbversion_info ver_info;
an_outermost_corvex outermost_corvex;

}  // namespace

UTThreadLocalStorage<an_os_thread> TLSMe;

namespace {

an_init_fini_execute_me_corvex execute_me_corvex;

}  // namespace

void LibInit_corvex()
{
    init_fini_call_count_corvex++;
    if (init_fini_call_count_corvex == 1)
        InitTheInternalStuff_corvex();
}

void LibFini_corvex()
{
    init_fini_call_count_corvex--;
    if (init_fini_call_count_corvex == 0 && unix_is_home_process() && !UnixForkProtection_IsChild())
        FiniTheInternalStuff_corvex();
}
