// hist_forks.cpp: forks as often as its argument says while other threads record, register ids, dump and set the time
// zone. Every child records, registers an id and dumps at once; it must not meet a lock of a thread it does not have.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corvex/corvex.h"

namespace {

std::atomic<bool> stop{false};

const std::vector<void (*)()> work = {
    [] { UT_HIST_SCOPE(ut_hist_id_alloc("forks.c", 1, "parent"), "timed"); },
    [] { ut_hist_id_alloc(nullptr, 2, "more"); },
    [] { ut_hist_dump_to_log(); },
    [] { tzset(); },
};

// Gives 0 when the child's own event is in the child's own dump.
int child()
{
    static char text[1 << 23];
    alarm(20);
    UT_HIST_EV(ut_hist_id_alloc(nullptr, 3, "child"), "child-was-here");
    ut_hist_dump_to_log();
    FILE* f = fmemopen(text, sizeof text - 1, "w");
    ut_hist_dump_to_file(f);
    fclose(f);
    const char* seen = strstr(text, "child-was-here");
    return seen != nullptr && strstr(seen, "HISTORY DUMP END") != nullptr ? 0 : 1;
}

}  // namespace

int main(int, char** argv)
{
    std::vector<std::thread> threads;
    for (const auto one : work)
        threads.emplace_back([one] {
            while (!stop)
                one();
        });
    int failed = 0;
    for (int round = atoi(argv[1]); round > 0; round--) {
        const pid_t forked = fork();
        if (forked == 0) {
            const int result = child();
            fflush(nullptr);  // as exit does
            _exit(result);
        }
        int status;
        waitpid(forked, &status, 0);
        failed += status != 0;
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    printf("failed %d\n", failed);
}
