// shortage.cpp: lets the k-th kernel call or allocation fail, for every k, of opening and closing System V semaphores
// and of a life of the thread layer: no set and no block is left, both stay usable, and a start of a thread gives null
// or runs its body.
#include <sys/ipc.h>  // sem.h would declare semctl with an ellipsis
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "corvex/corvex.h"
#include "failing_calls.h"

namespace {

long live_sets = 0;
int bodies = 0;

bool open_and_close()
{
    a_sysv_semaphore s[3];
    int opened = 0;
    while (opened < 3 && sysv_open_semaphore(&s[opened], 1))
        opened++;
    for (int i = 0; i < opened; i++)
        sysv_close_semaphore(&s[i]);
    return opened == 3;
}

void body(void* waiter) { OS_End_Thread_Wakeup(static_cast<p_os_thread>(waiter), &bodies); }

// Whether the thread was started; only then its body ran.
bool start_and_wait(a_bool attachable, long k)
{
    p_os_thread me = OS_Me();
    p_os_thread thread =
        me == nullptr ? nullptr : OS_Begin_Thread_Attachable(body, nullptr, 0, me, "short", attachable);
    if (thread != nullptr)
        check(OS_Wait() == &bodies, "no wake-up", k);
    else
        check(me == nullptr || !ut_pthread_test_semaphore(&me->wait), "a refused start ran its body", k);
    const bool ended = thread != nullptr && (!attachable || OS_WaitOnThreadTermination(thread) == 0);
    // A thread that is still going keeps its stack, and with it some blocks, from the next.
    for (struct stat task; stat("/proc/self/task", &task) == 0 && task.st_nlink > 3;)
        usleep(50);
    return ended;
}

// Whether the k-th failure was still to come.
bool live(long k)
{
    fail_in = k;
    open_and_close();
    OS_Init();
    OS_SetRunningAsEngine(1);
    OS_GetTmpCleanerMutex();
    start_and_wait(TRUE, k);
    start_and_wait(FALSE, k);
    const bool missed = fail_in > 0;
    fail_in = 0;
    check(start_and_wait(TRUE, k) && start_and_wait(FALSE, k), "the thread layer does not work any more", k);
    OS_GiveTmpCleanerMutex();
    OS_SetRunningAsEngine(0);
    OS_Fini();
    check(live_sets == 0, "a kernel set is left", k);
    return missed;
}

}  // namespace

extern "C" int semget(key_t key, int n, int flags) noexcept
{
    const int id = fails() ? -1 : int(syscall(SYS_semget, key, n, flags));
    live_sets += id >= 0;
    return id;
}

extern "C" int semctl(int id, int n, int command, void* arg) noexcept
{
    const int result = command != IPC_RMID && fails() ? -1 : int(syscall(SYS_semctl, id, n, command, arg));
    live_sets -= command == IPC_RMID && result == 0;
    return result;
}

int main()
{
    live(1);  // the first report keeps some memory for the next
    live(0);
    const long blocks = live_blocks;
    for (long k = 1; !live(k); k++) {
        check(live_blocks == blocks, "a block is left", k);
        check(open_and_close(), "semaphores do not work any more", k);
    }
}
