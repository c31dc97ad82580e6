// osident.cpp: facts about the process (corvex/identity.h). Plain values, set before others ask; the temporary-file
// cleaner mutex lives while the process runs as the engine. Not signal-safe but for the root process and the fork step.
#include <string.h>
#include <unistd.h>

#include "corvex/identity.h"
#include "utils/etc/osthread.h"

namespace {

constexpr pid_t no_pid = -1;
constexpr size_t engname_size = 251;

pid_t root_pid = no_pid;
char os_engname[engname_size];
int os_engname_len = 0;
a_bool os_running_as_engine = FALSE;
a_mutex os_tmp_cleaner_mutex;
pthread_mutex_t cleaner_mutex_reserve = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

void OS_SetRootPid(pid_t pid)
{
    if (root_pid == no_pid)
        root_pid = pid;
}

void OS_ResetRootPid(void) { root_pid = no_pid; }
pid_t OS_GetRootPid(void) { return root_pid != no_pid ? root_pid : getpid(); }

void OS_SetEngineName(const char* name)
{
    const size_t len = name != nullptr ? strnlen(name, engname_size - 1) : 0;
    memcpy(os_engname, name != nullptr ? name : "", len);
    os_engname[len] = '\0';
    os_engname_len = int(len);
}

a_bool OS_IsEngineName(const char* name)
{
    return os_engname_len > 0 && name != nullptr && strcmp(name, os_engname) == 0;
}

void OS_SetRunningAsEngine(a_bool flag)
{
    const a_bool engine = flag != FALSE;
    if (engine == os_running_as_engine)
        return;
    os_running_as_engine = engine;
    if (engine)
        os_mutex_init(&os_tmp_cleaner_mutex, cleaner_mutex_reserve);
    else
        os_mutex_fini(&os_tmp_cleaner_mutex, cleaner_mutex_reserve);
}

void OS_GetTmpCleanerMutex(void)
{
    if (os_running_as_engine)
        OS_MutexGet(&os_tmp_cleaner_mutex);
}

void OS_GiveTmpCleanerMutex(void)
{
    if (os_running_as_engine)
        OS_MutexGive(&os_tmp_cleaner_mutex);
}

void os_ident_fork_child()
{
    if (os_running_as_engine)
        os_mutex_fork_child(&os_tmp_cleaner_mutex);
}
