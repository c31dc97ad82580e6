// hist_shortage.cpp: lets the k-th allocation fail, for every k, of start-up and of a whole life of the history, and
// counts the blocks that are left.
#include <stdio.h>
#include <stdlib.h>

#include <initializer_list>

#include "corvex/corvex.h"
#include "failing_calls.h"

namespace {

void live_on(a_ut_hist_id id)
{
    UT_HIST_LOC(at);
    for (int i = 0; i < 3; i++) {
        UT_HIST_BEG(&at, id, "begin");
        UT_HIST_DATA(id, "block", "bytes", 5L);
        UT_HIST_END(&at, id, "end");
    }
    ut_hist_dump_to_log();
}

}  // namespace

int main(int, char** argv)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    setenv("UT_HIST", argv[1], 1);
    ut_hist_init();  // what the C library keeps for good it allocates now
    live_on(ut_hist_id_alloc("f.c", 1, "id"));
    ut_hist_fini();
    const long before = live_blocks;
    int off = 0, leaks = 0;
    for (const bool at_start : {true, false}) {
        bool failed = true;
        for (long k = 1; failed; k++) {
            fail_in = at_start ? k : 0;
            ut_hist_init();
            failed = at_start && fail_in == 0;
            off += ut_hist_debug == 0;
            fail_in = at_start ? 0 : k;
            for (int i = at_start ? 30 : 1; i <= 30; i++)  // more locks than one batch of the pool
                live_on(ut_hist_id_alloc("f.c", 1, "id"));
            failed = failed || (!at_start && fail_in == 0);
            fail_in = 0;
            ut_hist_fini();
            leaks += live_blocks != before;
        }
    }
    // A store that was kept, and a start-up with more queues that gets none.
    setenv("UT_HIST", "x-", 1);
    ut_hist_init();
    ut_hist_fini();
    setenv("UT_HIST", "x-q32", 1);
    fail_in = 1;
    ut_hist_init();
    printf("off %d, leaks %d\n", off, leaks);
    return 0;
}
