/* minimal.c: the smallest instrumented program. It keeps three rounds of work in the history and prints them.
 *
 *     UT_HIST=k8f- UT_HIST_THREAD_SLOT=dense ./minimal
 *
 * k8 keeps statistics on 8 ids, f- leaves out the second dump that the library writes by itself at exit.
 * Without UT_HIST the history is off: nothing is recorded and nothing is printed. */
#include "corvex/hist.h"

int main(void)
{
    static const char note[] = "any bytes, copied with their event";
    a_ut_hist_id work = ut_hist_id_alloc(__FILE__, __LINE__, "work");
    UT_HIST_LOC(at);

    for (long number = 1; number <= 3; number++) {
        UT_HIST_BEG(&at, work, "round", number);
        UT_HIST_DATA(UT_HIST_ID_TEXT("note"), "a block", note, sizeof note - 1);
        UT_HIST_END(&at, work, "round done", number);
    }
    ut_hist_dump_to_file(stdout);
    return 0;
}
