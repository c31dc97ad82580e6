// dbthread.cpp: starts, parks, wakes and ends the threads of the thread layer.
//
// A start: the starter fills a block on its stack, creates the thread and waits for child_started; the new thread
// registers, takes what it needs from the block, and signals. From then on it does not touch the block, which goes with
// the starter's frame. The starter is always signalled, also when the registration failed.
//
// A wake-up stores the value, then signals the descriptor's semaphore; a park waits for the semaphore, then reads the
// value. The semaphore sees to it that the last value is read, or another wake-up follows (utptsem.cpp).
// ThreadTableMutex is never held across a join or a body. Not signal-safe.
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "utils/etc/osthread.h"
#include "utils/etc/utcancel.h"
#include "utils/etc/utenv.h"
#include "utils/etc/uttext.h"
#include "utils/unix/unixaltstack.h"
#include "utils/unix/unixout.h"

namespace {

constexpr uint32 interface_version = 0x10000b5d;
constexpr int line_before_body = 514;  // what a mismatch is reported under
constexpr int line_after_body = 516;
constexpr size_t name_size = 16;  // the kernel's limit, the terminating NUL included

struct os_helper_parms {
    p_os_thread parent;
    p_os_thread child;  // null until the new thread has registered
    a_semaphore child_started;
    an_os_thread_start_address func;
    void* parm;
    a_bool attachable;
    char name[name_size];
};

// The first bytes of a name, without a UTF-8 character cut in two.
void copy_name(char (&dst)[name_size], const char* name)
{
    if (name == nullptr)
        name = "";
    size_t len = strnlen(name, name_size);
    if (len == name_size)
        len = ut_whole_utf8(name, name_size - 1);
    memcpy(dst, name, len);
    dst[len] = '\0';
}

void leave_layer(void*)
{
    unix_take_signal_stack();
    const an_in_flight_guard guard;
    if (guard.started)
        remove_current_thread();
}

// However the body ends, by return, pthread_exit or cancellation, the thread leaves the layer. Not by a destructor: an
// unwinding runs none in code that is built without exceptions.
void run_thread_body(an_os_thread_start_address func, void* parm)
{
    pthread_cleanup_push(leave_layer, nullptr);
    Perform_Version_Check(interface_version, line_before_body);
    func(parm);
    Perform_Version_Check(interface_version, line_after_body);
    pthread_cleanup_pop(1);
}

// Null, too, when the last OS_Fini has come meanwhile: by an exit in a handler of the starter.
p_os_thread enter_layer(a_bool attachable)
{
    const an_in_flight_guard guard;
    return guard.started ? add_current_thread(attachable) : nullptr;
}

void* begin_helper(void* _parms)
{
    os_helper_parms* block = static_cast<os_helper_parms*>(_parms);
    if (block->name[0] != '\0')
        pthread_setname_np(pthread_self(), block->name);
    unix_give_signal_stack();  // before the starter knows the thread
    p_os_thread me = enter_layer(block->attachable);
    const an_os_thread_start_address func = block->func;
    void* const parm = block->parm;
    block->child = me;
    ut_pthread_signal_semaphore(&block->child_started);
    if (me != nullptr)
        run_thread_body(func, parm);
    else
        unix_take_signal_stack();
    return nullptr;
}

// Acquire: see OS_Wakeup.
void* park(p_os_thread me)
{
    ut_pthread_waiton_semaphore(&me->wait);
    return __atomic_load_n(&me->parm, __ATOMIC_ACQUIRE);
}

// One guard over both: the waiter may be the one that calls OS_Fini.
void detach_and_wake(p_os_thread waiter, void* parm)
{
    const an_in_flight_guard guard;
    if (!guard.started)
        return;
    OS_Detach_Thread();
    if (waiter != nullptr)
        OS_Wakeup(waiter, parm);
}

}  // namespace

void Perform_Version_Check(uint32 version, int line)
{
    if (version == interface_version)
        return;
    const char* wanted = ut_getenv2("ZT_PRINT_VERSION_ON_STARTUP");
    if (wanted == nullptr || wanted[0] == '\0')
        return;
    const a_quiet_scope quiet;
    fprintf(stderr, "[%d] Version: %d vs %d\n", line, int(version), int(interface_version));
}

p_os_thread OS_Begin_Thread_Attachable(an_os_thread_start_address start_address, void* stack_bottom,
                                       unsigned int stack_size, void* arg, const char* name, a_bool attachable)
{
    const an_uncancelled_scope uncancelled;  // the new thread uses this frame
    os_helper_parms block = {OS_Me(), nullptr, {}, start_address, arg, attachable, ""};
    copy_name(block.name, name);
    if (ut_pthread_open_semaphore(&block.child_started, 0) != 0)
        return nullptr;
    const a_thread_id id = attachable
                               ? os_beginthread_attachable(begin_helper, stack_bottom, stack_size, &block, nullptr)
                               : os_beginthread(begin_helper, stack_bottom, stack_size, &block, nullptr);
    if (id != os_no_thread) {
        ut_pthread_waiton_semaphore(&block.child_started);
        // A thread which could not register has ended, or soon will: its stack is given back.
        if (block.child == nullptr && attachable)
            pthread_join(id, nullptr);
    }
    ut_pthread_close_semaphore(&block.child_started);
    return block.child;
}

void* OS_WaitEx(p_os_thread me)
{
    const an_in_flight_guard guard;
    return guard.started ? park(me) : nullptr;
}

void* OS_Wait(void)
{
    const an_in_flight_guard guard;
    p_os_thread me = guard.started ? OS_Me() : nullptr;
    return me != nullptr ? park(me) : nullptr;
}

// Release: the sleeper may find the value of a wake-up that has not signalled yet, and with it what it points to.
void OS_Wakeup(p_os_thread thread, void* parm)
{
    __atomic_store_n(&thread->parm, parm, __ATOMIC_RELEASE);
    ut_pthread_signal_semaphore(&thread->wait);
}

void OS_End_Thread(void)
{
    detach_and_wake(nullptr, nullptr);
    os_endthread();
}

void OS_End_Thread_Wakeup(p_os_thread waiter, void* parm)
{
    detach_and_wake(waiter, parm);
    os_endthread();
}

a_bool OS_TerminateThread(p_os_thread thread)
{
    return thread->tid != os_no_thread && pthread_kill(thread->tid, SIGKILL) == 0;
}

int OS_WaitOnThreadTermination(p_os_thread thread)
{
    if (!os_in_table(thread))
        return 0;
    // In a forked child a thread of the parent has no id.
    const int joined = thread->tid != os_no_thread ? pthread_join(thread->tid, nullptr) : 0;
    os_remove_from_table(thread);
    delete thread;
    return joined;
}
