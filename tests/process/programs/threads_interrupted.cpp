// threads_interrupted.cpp: at each point where the main thread holds a lock, and where it is parked, a signal's handler
// calls exit, which shuts the thread layer and the library down: every such process must end. Each runs this program
// anew.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "corvex/corvex.h"

namespace {

enum { INTERRUPTED, PARKED = 1000, NOT_INTERRUPTED = 3 };

long points_left = 0;  // until the signal; 0: none comes
pid_t main_thread = 0;

void at_point()
{
    if (gettid() == main_thread && points_left > 0 && --points_left == 0)
        raise(SIGUSR2);
}

void exit_here(int) { exit(INTERRUPTED); }

void park(void*) { OS_Wait(); }

int live(long point)
{
    alarm(20);
    signal(SIGUSR2, exit_here);
    OS_Init();
    atexit(OS_Fini);
    OS_Begin_Thread_Attachable(park, nullptr, 0, nullptr, nullptr, FALSE);
    main_thread = gettid();
    points_left = point;
    if (point == PARKED) {
        std::thread([] { usleep(20000), kill(main_thread, SIGUSR2); }).detach();
        OS_Wait();
    }
    a_semaphore semaphore;
    ut_pthread_open_semaphore(&semaphore, 1);
    ut_pthread_waiton_semaphore(&semaphore);
    ut_pthread_close_semaphore(&semaphore);
    p_os_thread thread = OS_Begin_Thread_Attachable(park, nullptr, 0, nullptr, nullptr, TRUE);
    OS_ThreadWalk([](p_os_thread, void*) { return OS_THREAD_STOP; }, nullptr);
    OS_Wakeup(thread, nullptr);
    OS_WaitOnThreadTermination(thread);
    points_left = 0;
    return NOT_INTERRUPTED;
}

pid_t start(const char* program, long point)
{
    const pid_t child = fork();
    if (child == 0) {
        execl(program, program, std::to_string(point).c_str(), nullptr);
        _exit(127);
    }
    return child;
}

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int rc = real(mutex);
    at_point();
    return rc;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    at_point();
    return real(mutex);
}

int main(int argc, char** argv)
{
    if (argc > 1)
        return live(atol(argv[1]));
    constexpr int points = 60;  // somewhat more than there are
    pid_t children[points];
    int hung = 0, interrupted = 0;
    for (int i = 0; i < points; i++)
        children[i] = start(argv[0], i == 0 ? PARKED : i);
    for (pid_t child : children) {
        int status;
        waitpid(child, &status, 0);
        interrupted += status == 0;
        hung += WIFSIGNALED(status);
    }
    printf("%s, %d hung or crashed\n", interrupted > 20 ? "exited at every lock" : "not interrupted", hung);
    return 0;
}
