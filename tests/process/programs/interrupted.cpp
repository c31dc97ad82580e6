// interrupted.cpp: where the main thread holds a lock, each in a process of its own, and where it is parked, a signal's
// handler calls exit, which shuts the library down: every such process must end.
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "corvex/corvex.h"

namespace {

enum { AT_A_LOCK, PARKED };

long points_left = 0;  // until the signal
pid_t main_thread = 0;
bool walks = false;

void at_point()
{
    if (gettid() == main_thread && points_left > 0 && --points_left == 0)
        raise(SIGUSR2);
}

void park(void*) { OS_Wait(); }

int live(long point)
{
    alarm(20);
    signal(SIGUSR2, [](int) { exit(points_left == 0 ? AT_A_LOCK : PARKED); });
    OS_Init();
    atexit([] {  // after OS_Fini: no mutex that the interrupted walk still holds has gone back to the pool
        for (int i = 0; i < 60 && walks; i++)
            UT_Vmutex_Create()->get();
    });
    atexit(OS_Fini);
    OS_Begin_Thread_Attachable(park, nullptr, 0, nullptr, nullptr, FALSE);
    main_thread = gettid();
    points_left = point;
    a_sysv_semaphore kept, closed;
    sysv_open_semaphore(&kept, 1);
    sysv_open_semaphore(&closed, 1);
    sysv_close_semaphore(&closed);
    a_semaphore semaphore;
    ut_pthread_open_semaphore(&semaphore, 1);
    ut_pthread_waiton_semaphore(&semaphore);
    ut_pthread_close_semaphore(&semaphore);
    p_os_thread thread = OS_Begin_Thread_Attachable(park, nullptr, 0, nullptr, nullptr, TRUE);
    OS_ThreadWalk(
        [](p_os_thread, void*) {
            walks = true;
            at_point();
            walks = false;
            return OS_THREAD_STOP;
        },
        nullptr);
    OS_Wakeup(thread, nullptr);
    OS_WaitOnThreadTermination(thread);
    std::thread([] { usleep(20000), kill(main_thread, SIGUSR2); }).detach();
    for (;;)
        OS_Wait();
}

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = decltype(&pthread_mutex_lock)(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int rc = real(mutex);
    at_point();
    return rc;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto real = decltype(&pthread_mutex_unlock)(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    at_point();
    return real(mutex);
}

int main(int argc, char** argv)
{
    if (argc > 1)
        return live(atol(argv[1]));
    constexpr int points = 60;  // somewhat more than there are
    int ended[256] = {}, status;
    for (int i = 1; i <= points; i++)
        if (fork() == 0)
            execl(argv[0], argv[0], std::to_string(i).c_str(), nullptr);
    while (wait(&status) > 0)
        ended[WIFEXITED(status) ? WEXITSTATUS(status) : 255]++;
    printf("at locks %d, parked %d, all %d\n", ended[AT_A_LOCK], ended[PARKED], points);
    return ended[AT_A_LOCK] > 30 && ended[PARKED] > 0 && ended[AT_A_LOCK] + ended[PARKED] == points ? 0 : 1;
}
