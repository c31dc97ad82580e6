// hist_recorders.cpp: threads that record until the process is killed. What an event shows follows from its first
// parameter, so that a row made of two shows.
#include <stdio.h>
#include <unistd.h>

#include <thread>

#include "corvex/corvex.h"

namespace {

const char* const texts[] = {"t-0", "text--1", "long-text-----2", "the-longest-text-of-all-these3"};

void record(uint32 thread)
{
    const auto p = [](uint32 value) { return reinterpret_cast<void*>(a_ptrint(value)); };
    for (uint32 k = 1;; k++) {
        ut_hist_add("r.c", k % 9973, nullptr, UT_HIST_CL_EV, UT_HIST_ID_NONE, texts[k % 4], 3, p(k), p(k ^ 0x5A5A),
                    p(thread + 1), nullptr, nullptr, nullptr, nullptr, nullptr);
        if (k % 1000 == 0)
            usleep(5000);  // a ring that is always overwritten from end to end shows a reader nothing
    }
}

}  // namespace

int main()
{
    alarm(60);
    for (uint32 thread = 0; thread < 3; thread++)
        std::thread(record, thread).detach();
    printf("%d\n", getpid());
    fflush(stdout);
    pause();
}
