// sysv_shortage.cpp: lets the k-th kernel call or allocation of an opening and closing fail, for every k, and the first
// sets come back with identifier 0; afterwards no kernel set and no block may be left, and the library still works.
// With an argument: exit is called by a handler that interrupts the removing of a set.
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include "corvex/corvex.h"
#include "failing_calls.h"

namespace {

long live_sets = 0;
long zeros = 0;  // sets that are still to come back as 0
bool zero_lives = false;
bool exit_next = false;  // by a signal at the next removal

bool open_and_close()
{
    a_sysv_semaphore s[3];
    bool open[3];
    for (int i = 0; i < 3; i++)
        open[i] = sysv_open_semaphore(&s[i], 1);
    for (int i = 0; i < 3; i++)
        if (open[i])
            sysv_close_semaphore(&s[i]);
    return open[0] && open[1] && open[2];
}

}  // namespace

extern "C" int semget(key_t key, int n, int flags) noexcept
{
    if (fails())
        return -1;
    if (zeros > 0) {
        zeros--;
        zero_lives = true;
        live_sets++;
        return 0;
    }
    const int id = int(syscall(SYS_semget, key, n, flags));
    live_sets += id >= 0;
    return id;
}

extern "C" int semctl(int id, int n, int command, ...) noexcept
{
    va_list args;
    va_start(args, command);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (command == IPC_RMID && exit_next) {
        exit_next = false;
        raise(SIGUSR2);
    }
    if (command == IPC_RMID && id == 0 && zero_lives) {
        zero_lives = false;
        live_sets--;
        return 0;
    }
    if (command != IPC_RMID && fails())
        return -1;
    const int result = int(syscall(SYS_semctl, id, n, command, arg));
    live_sets -= command == IPC_RMID && result == 0;
    return result;
}

int main(int argc, char**)
{
    if (argc > 1) {
        signal(SIGUSR2, [](int) { exit(live_sets == 2 ? 0 : 1); });
        a_sysv_semaphore s[9];
        for (a_sysv_semaphore& each : s)
            sysv_open_semaphore(&each, 1);
        exit_next = true;
        sysv_close_semaphore(&s[8]);
        return 2;
    }
    static char buffer[BUFSIZ];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);  // standard output allocates nothing then
    zeros = 2;                                       // the probe, and its second asking
    check(open_and_close(), "opening fails after a probe numbered 0", 0);
    zeros = 1;
    check(open_and_close(), "a first set numbered 0 is not asked for again", 0);
    zeros = 2;
    open_and_close();
    check(live_sets == 0, "a set numbered 0 is left", 0);
    fail_in = 1;  // the first report to the system log keeps some memory for the next
    open_and_close();
    const long blocks = live_blocks;
    for (long k = 1; k < 40; k++) {
        fail_in = k;
        open_and_close();
        fail_in = 0;
        check(live_sets == 0, "a kernel set is left", k);
        check(live_blocks == blocks, "a block is left", k);
        check(open_and_close(), "the library does not work any more", k);
    }
    printf("nothing is left\n");
    return 0;
}
