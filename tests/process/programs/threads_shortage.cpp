// threads_shortage.cpp: lets the k-th allocation fail, for every k, of a life of the thread layer and of the starting
// of threads in one; the layer stays usable, a start gives null or runs its body, and no block is left.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "corvex/corvex.h"
#include "failing_calls.h"

namespace {

int bodies = 0;

void body(void* waiter) { OS_End_Thread_Wakeup(static_cast<p_os_thread>(waiter), &bodies); }

// A thread that is still going keeps its stack, and with it some blocks, from the next.
void wait_until_alone()
{
    for (struct stat task; stat("/proc/self/task", &task) == 0 && task.st_nlink > 3;)
        usleep(50);
}

// Whether the thread was started; only then its body ran.
bool start_and_wait(a_bool attachable, long k)
{
    p_os_thread me = OS_Me();
    if (me == nullptr)
        return false;
    p_os_thread thread = OS_Begin_Thread_Attachable(body, nullptr, 0, me, "short", attachable);
    if (thread == nullptr) {
        check(!ut_pthread_test_semaphore(&me->wait), "a refused start ran its body", k);
        return false;
    }
    check(OS_Wait() == &bodies, "no wake-up", k);
    const bool ended = !attachable || OS_WaitOnThreadTermination(thread) == 0;
    wait_until_alone();
    return ended;
}

void live(long k)
{
    OS_Init();
    OS_SetRunningAsEngine(1);
    OS_GetTmpCleanerMutex();
    start_and_wait(TRUE, k);
    start_and_wait(FALSE, k);
    fail_in = 0;
    check(start_and_wait(TRUE, k) && start_and_wait(FALSE, k), "the layer does not work any more", k);
    OS_GiveTmpCleanerMutex();
    OS_SetRunningAsEngine(0);
    OS_Fini();
}

}  // namespace

int main()
{
    static char buffer[BUFSIZ];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);  // standard output allocates nothing then
    freopen("/dev/null", "w", stderr);               // where the library says that memory is short
    alarm(60);
    fail_in = 1;  // the first report to the system log keeps some memory for the next
    live(0);
    live(0);
    const long blocks = live_blocks;
    for (long k = 1; k < 20; k++) {
        fail_in = k;
        live(k);
        check(live_blocks == blocks, "a block is left", k);
    }
    printf("nothing is left\n");
    return 0;
}
