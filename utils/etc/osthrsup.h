// osthrsup.h: the thread calls below the layer's start of threads.
#ifndef ETC_OSTHRSUP_H
#define ETC_OSTHRSUP_H

#include "utils/etc/osthread.h"

using an_os_start_routine = void* (*)(void* arglist);

// Starts a thread with system contention scope, joinable when attachable, with a stack of at least
// system_min_stack_size when a size is asked for. Returns its id; all ones, and the error number through pErrorCode
// unless that is null, when it cannot be created.
a_thread_id os_beginthread_with_attrib(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                                       void* arglist, int attachable, uint32* pErrorCode);
a_thread_id os_beginthread_attachable(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                                      void* arglist, uint32* pErrorCode);
a_thread_id os_beginthread(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                           void* arglist, uint32* pErrorCode);
[[noreturn]] void os_endthread();

void Perform_Version_Check(uint32 version, int line);

#endif
