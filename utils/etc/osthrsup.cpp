// osthrsup.cpp: creates and ends POSIX threads for the thread layer. No state, no locks; not signal-safe.
#include "utils/etc/osthread.h"

#include <stdlib.h>

a_thread_id os_beginthread_with_attrib(an_os_start_routine start_address, void* /*stack_bottom*/,
                                       unsigned int stack_size, void* arglist, int attachable, uint32* pErrorCode)
{
    constexpr size_t min_stack_size = 0x80000;  // that a thread is given when a size is asked for
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setdetachstate(&attributes, attachable != 0 ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED);
    if (stack_size != 0)
        pthread_attr_setstacksize(&attributes, stack_size >= min_stack_size ? stack_size : min_stack_size);
    a_thread_id id;
    const int error = pthread_create(&id, &attributes, start_address, arglist);
    pthread_attr_destroy(&attributes);
    if (error == 0)
        return id;
    if (pErrorCode != nullptr)
        *pErrorCode = uint32(error);
    return os_no_thread;
}

a_thread_id os_beginthread_attachable(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                                      void* arglist, uint32* pErrorCode)
{
    return os_beginthread_with_attrib(start_address, stack_bottom, stack_size, arglist, 1, pErrorCode);
}

a_thread_id os_beginthread(an_os_start_routine start_address, void* stack_bottom, unsigned int stack_size,
                           void* arglist, uint32* pErrorCode)
{
    return os_beginthread_with_attrib(start_address, stack_bottom, stack_size, arglist, 0, pErrorCode);
}

void os_endthread() { pthread_exit(nullptr); }
