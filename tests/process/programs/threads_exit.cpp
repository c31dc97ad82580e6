// threads_exit.cpp: ends by returning from main while threads of the library wake each other and start to wait anew.
#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "corvex/corvex.h"

namespace {

std::atomic<p_os_thread> ring[4];

void body(void* number)
{
    for (;;) {
        OS_Wakeup(ring[(a_ptrint(number) + 1) % 4], number);
        OS_Wait();
    }
}

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

int main()
{
    OS_Init();
    for (a_ptrint i = 0; i < 4; i++)
        ring[i] = OS_Me();
    for (a_ptrint i = 0; i < 4; i++)
        ring[i] = OS_Begin_Thread_Attachable(body, nullptr, 0, reinterpret_cast<void*>(i), nullptr, FALSE);
    usleep(10000);
    return 0;
}
