// hist_storm.cpp: sends as many SIGUSR1 as its argument says at threads that allocate, print, convert local time,
// record and dump. What an event shows follows from its number within its thread, so that a row made of two shows.
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "corvex/corvex.h"

namespace {

std::atomic<bool> stop{false};
FILE* nowhere;
a_ut_hist_id ids[2];
thread_local uint32 handled = 0;

// Each begins with a blank: a row recorded after the widths were found may be wider than its columns.
const char* const texts[] = {" t-0", " text--1", " long-text-----2", " the-longest-text-of-all-these3"};
const char* const files[] = {"f-0", "file--1", "long-file-----2", "/some/way/long-file-3.cc"};

void record(uint32 thread, uint32 k, a_ut_hist_id id)
{
    a_ut_hist_loc loc = UT_HIST_LOC_INIT;
    const auto p = [](uint32 value) { return reinterpret_cast<void*>(a_ptrint(value)); };
    ut_hist_add(files[k % 4], k % 9973, &loc, k % 2 != 0 ? UT_HIST_CL_BEG : UT_HIST_CL_END, id, texts[k % 4], 3, p(k),
                p(k ^ 0x5A5A), p(thread + 1), nullptr, nullptr, nullptr, nullptr, nullptr);
    if (k % 16 == 0 && id != UT_HIST_ID_SIGHANDLER) {
        const std::string block = std::to_string(k) + "=" + std::string(k % 64, char('a' + k % 26));
        UT_HIST_DATA(id, " data", block.c_str(), block.size());
    }
}

// Queue 1's only writer: this thread gets all the SIGUSR2.
void on_usr2(int) { record(6, ++handled, UT_HIST_ID_SIGHANDLER); }

void churn(uint32)
{
    void* block = malloc(1 + size_t(rand()) % 5000);
    fprintf(nowhere, "%p %s\n", block, std::string(100, 'x').c_str());
    fflush(nowhere);
    const time_t t = time(nullptr) + rand() % 100000000;
    struct tm local;
    localtime_r(&t, &local);
    mktime(&local);
    free(block);
}

const std::vector<void (*)(uint32)> work = {
    churn,
    [](uint32 k) { record(1, k, ids[k % 2]); },
    [](uint32 k) { record(2, k, UT_HIST_ID_NONE); },
    [](uint32 k) { record(3, k, UT_HIST_ID_Q2); },
    [](uint32 k) {
        k % 2 == 0 ? ut_hist_dump_to_log() : ut_hist_dump_to_file(nowhere);
        usleep(300);
    },
    [](uint32) { usleep(50); },  // gets SIGUSR2
};

}  // namespace

int main(int, char** argv)
{
    nowhere = fopen("/dev/null", "w");
    signal(SIGUSR2, on_usr2);
    ids[0] = ut_hist_id_alloc("storm.c", 1, "even");
    ids[1] = ut_hist_id_alloc("storm.c", 2, "odd");
    record(0, 1, UT_HIST_ID_NONE);  // takes the first slot, whose own queue would be queue 1
    std::vector<std::thread> threads;
    for (const auto& one : work)
        threads.emplace_back([&one] {
            for (uint32 k = 1; !stop; k++)
                one(k);
        });
    const int signals = atoi(argv[1]);
    for (int i = 0; i < signals; i++) {
        pthread_kill(threads[size_t(i) % threads.size()].native_handle(), SIGUSR1);
        pthread_kill(threads.back().native_handle(), SIGUSR2);
        usleep(100);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}
