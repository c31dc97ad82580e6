/* identity.h: facts about the process that are recorded once and asked for later, for C99 and C++11. None has a
 * lock: set them before other threads ask. Only the mutex operations are for several threads. Nothing here is
 * signal-safe but OS_GetRootPid. */
#pragma once

#include <sys/types.h>

#include "corvex/types.h"

CORVEX_C_BEGIN

/* The process id of the root process of a process family. The first one set stays until a reset. Without one,
 * OS_GetRootPid gives the caller's own id. */
CORVEX_API void OS_SetRootPid(pid_t pid);
CORVEX_API void OS_ResetRootPid(void);
CORVEX_API pid_t OS_GetRootPid(void);

/* The name of the engine that this process runs as: at most 250 characters are kept; null or empty forgets it. */
CORVEX_API void OS_SetEngineName(const char* name);
/* Whether name is exactly the one kept; FALSE when none is, and for null. */
CORVEX_API a_bool OS_IsEngineName(const char* name);

/* Whether the process runs as the engine. Switching it on makes the recursive mutex that serialises the cleaning of
 * temporary files, switching it off destroys it: no thread may hold or take it then. Only the truth of flag counts. */
CORVEX_API void OS_SetRunningAsEngine(a_bool flag);
/* Takes that mutex, or gives it back once; nothing happens in a process that does not run as the engine. */
CORVEX_API void OS_GetTmpCleanerMutex(void);
CORVEX_API void OS_GiveTmpCleanerMutex(void);

CORVEX_C_END
