// sysv_torture.cpp: a process that does everything at once until signals kill it. sysv_torture DELAY_US SIGNAL...:
// after the delay it sends its threads the signals (without any it exits); its threads open and close semaphores,
// allocate, record, dump and wake each other.
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "corvex/corvex.h"

namespace {

void open_and_close(unsigned seed)
{
    a_sysv_semaphore kept[8] = {};
    for (unsigned i = 0;; i++) {
        a_sysv_semaphore& s = kept[rand_r(&seed) % 8];
        if (s.ident > 0)
            sysv_close_semaphore(&s);
        if (!sysv_open_semaphore(&s, 1))
            s.ident = 0;
    }
}

void record_and_allocate()
{
    for (long i = 0;; i++) {
        std::string text(size_t(i % 200), 'x');
        UT_HIST_DATA(UT_HIST_ID_TEXT("torture"), "text", text.data(), long(text.size()));
        if (i % 2000 == 0)
            ut_hist_dump_to_log();
    }
}

void park(void*)
{
    for (;;)
        OS_Wait();
}

void wake(p_os_thread thread)
{
    for (;;)
        OS_Wakeup(thread, nullptr);
}

void save_history(int, void*, a_bool, a_bool, a_bool, void*, void*) { raise(SIGUSR1); }

}  // namespace

int main(int argc, char** argv)
{
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    OS_Init();
    ut_onsig_call_add(1, save_history, nullptr);
    ut_onsig_install_signal_handlers(FALSE);
    std::thread workers[] = {std::thread(open_and_close, 1), std::thread(open_and_close, 2),
                             std::thread(record_and_allocate)};
    const pthread_t victims[] = {workers[0].native_handle(), workers[1].native_handle(), workers[2].native_handle(),
                                 pthread_self()};
    for (std::thread& worker : workers)
        worker.detach();
    // The thread layer makes no promise to threads that use it while the library stops.
    if (argc > 2)
        std::thread(wake, OS_Begin_Thread_Attachable(park, nullptr, 0, nullptr, "parked", TRUE)).detach();
    usleep(useconds_t(atoi(argv[1])));
    if (argc == 2)
        return 0;  // an exit under its threads
    // Most signals hit the threads that open and close.
    for (int i = 2; i < argc; i++)
        pthread_kill(victims[(atoi(argv[1]) + i) % 4], atoi(argv[i]));
    sleep(60);  // a process that does not die of them has failed
    return 0;
}
