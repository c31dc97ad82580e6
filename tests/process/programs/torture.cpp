// torture.cpp: torture DELAY_US SIGNAL...: after the delay the process sends its threads the signals, or exits if there
// are none, while they open and close semaphores, allocate, record, dump and wake each other.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "corvex/corvex.h"

namespace {

std::atomic<p_os_thread> ring[4];

void open_and_close(unsigned seed)
{
    a_sysv_semaphore kept[8] = {};
    for (;;) {
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

void wake_next(void* number)
{
    for (;;) {
        OS_Wakeup(ring[(a_ptrint(number) + 1) % 4], number);
        OS_Wait();
    }
}

void dump(int, void*, a_bool, a_bool, a_bool, void*, void*) { raise(SIGUSR1); }

// Goes on after the library has stopped: other components then get the library's key.
__attribute__((destructor(101))) void use_keys_late()
{
    for (int i = 0; i < 8; i++) {
        pthread_key_t key;
        pthread_key_create(&key, nullptr);
        pthread_setspecific(key, &ring);
    }
    OS_Wait();
    usleep(20000);
}

}  // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_DUMPABLE, 0);  // no core
    OS_Init();
    ut_onsig_call_add(1, dump, nullptr);
    ut_onsig_install_signal_handlers(FALSE);
    std::thread workers[] = {std::thread(open_and_close, 1), std::thread(open_and_close, 2),
                             std::thread(record_and_allocate)};
    for (auto& each : ring)
        each = OS_Me();
    for (a_ptrint i = 0; i < 4; i++)
        ring[i] = OS_Begin_Thread_Attachable(wake_next, nullptr, 0, reinterpret_cast<void*>(i), nullptr, FALSE);
    usleep(useconds_t(atoi(argv[1])));
    for (int i = 2; i < argc; i++)
        pthread_kill(workers[(atoi(argv[1]) + i) % 3].native_handle(), atoi(argv[i]));
    sleep(argc > 2 ? 60 : 0);  // a process that does not die of them has failed
    exit(0);
}
