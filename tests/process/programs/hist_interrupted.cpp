// hist_interrupted.cpp: a signal handler dumps and forks at the moment of each queue's and the registry's lock and of
// each look at the clock by clock_gettime, or a thread is cancelled inside its dump; the history must go on, in the
// child and in the other threads.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "corvex/corvex.h"

namespace {

int locks_until_fork = 0;
volatile pid_t child;
FILE* nowhere;
std::atomic<bool> running{false};

void use_history()
{
    UT_HIST_EV(UT_HIST_ID_NONE, "event");
    ut_hist_id_alloc(nullptr, 1, "id");
    ut_hist_dump_to_file(nowhere);
}

// A handler forks before the n-th lock of these operations; the child then returns into the interrupted one.
int fork_before_lock(int n)
{
    child = -1;
    locks_until_fork = n;
    use_history();
    locks_until_fork = 0;
    if (child == 0) {
        alarm(30);
        use_history();
        _exit(0);
    }
    int status = -1;  // stays so where there are fewer locks
    waitpid(child, &status, 0);
    return status;
}

void* compute(void*)
{
    for (running = true;;)
        if (locks_until_fork == 77)  // never: only a handler gets to a cancellation point
            pthread_testcancel();
}

// The thread has its cancellation pending when it dumps, by signal.
void cancel_in_dump()
{
    pthread_t thread;
    pthread_create(&thread, nullptr, compute, nullptr);
    while (!running)
        usleep(100);
    pthread_cancel(thread);
    pthread_kill(thread, SIGUSR1);
    usleep(200000);
    use_history();
    ut_hist_dump_to_log();
}

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    if (locks_until_fork > 0 && --locks_until_fork == 0)
        raise(SIGUSR2);
    return real(mutex);
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    static const auto real = reinterpret_cast<int (*)(clockid_t, struct timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (clock == CLOCK_REALTIME && locks_until_fork > 0 && --locks_until_fork == 0)
        raise(SIGUSR2);
    return real(clock, time);
}

int main()
{
    nowhere = fopen("/dev/null", "w");
    signal(SIGUSR2, [](int) {
        raise(SIGUSR1);
        child = fork();
    });
    int points = 0, hung = 0;
    for (int status; (status = fork_before_lock(points + 1)) != -1; points++)
        hung += status != 0;
    cancel_in_dump();
    printf("%s, %d hung\n", points > 3 ? "forked at every lock" : "not forked", hung);
}
