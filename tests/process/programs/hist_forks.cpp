// hist_forks.cpp: forks as often as its argument says while other threads record, register ids, dump and convert local
// time. Every child records, registers an id and dumps at once; it must not meet a lock of a thread it does not have.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "corvex/corvex.h"

namespace {

std::atomic<bool> stop{false};

const std::vector<void (*)()> work = {
    [] { UT_HIST_EV(UT_HIST_ID_NONE, "locked"); },
    [] {
        static const a_ut_hist_id id = ut_hist_id_alloc("forks.c", 1, "parent");
        UT_HIST_SCOPE(id, "timed");
    },
    [] { ut_hist_id_alloc(nullptr, 2, "more"); },
    [] { ut_hist_dump_to_log(); },
    [] {
        const time_t t = time(nullptr);
        struct tm local;
        localtime_r(&t, &local);
    },
};

// Gives 0 when the child's own event is in the child's own dump.
int child()
{
    alarm(20);
    const a_ut_hist_id id = ut_hist_id_alloc(nullptr, 3, "child");
    UT_HIST_EV(id, "child-was-here");
    ut_hist_dump_to_log();
    char* text;
    size_t size;
    FILE* f = open_memstream(&text, &size);
    ut_hist_dump_to_file(f);
    fclose(f);
    const char* seen = strstr(text, "child-was-here");
    const bool whole = seen != nullptr && strstr(seen, "HISTORY DUMP END") != nullptr;
    free(text);
    return whole ? 0 : 1;
}

}  // namespace

int main(int, char** argv)
{
    alarm(120);
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
        failed += status != 0 ? 1 : 0;
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    printf("failed %d\n", failed);
    return 0;
}
