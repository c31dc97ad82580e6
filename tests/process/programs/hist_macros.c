/* hist_macros.c: the instrumentation macros in C, with every number of parameters and every kind of them. */
#include <stdint.h>

#include "corvex/corvex.h"

static int evaluated = 0;

static long once(void) { return ++evaluated; }

int main(void)
{
    a_ut_hist_id id = ut_hist_id_alloc(__FILE__, __LINE__, "work");
    const char* pointer = (const char*)16;
    char array[8] = "bytes";
    UT_HIST_LOC(at);
    if (at.q != -1 || at.n != 0 || at.num != 0)
        return 1;
    UT_HIST_EV(id, "none");
    UT_HIST_EV(id, "one", 1L);
    UT_HIST_EV(UT_HIST_ID_TEXT("text"), "two", -1L, pointer);
    UT_HIST_EV(UT_HIST_ID_NONE, "three", 1.0, (size_t)2, (int64_t)3);
    UT_HIST_EV(UT_HIST_ID_NONE, "four", 1L, 2L, 3L, once());
    UT_HIST_EV(UT_HIST_ID_NONE, "five", 1L, 2L, 3L, 4L, 5L);
    UT_HIST_EV(UT_HIST_ID_NONE, "six", 1L, 2L, 3L, 4L, 5L, 6L);
    UT_HIST_EV(UT_HIST_ID_NONE, "seven", 1L, 2L, 3L, 4L, 5L, 6L, 7L);
    UT_HIST_BEG(&at, id, "eight", 1L, 2L, 3L, 4L, 5L, 6L, 7L, 8L);
    if (id == (a_ut_hist_id)0)
        UT_HIST_END(&at, id, "end");
    else
        UT_HIST_EV(id, "never");
    UT_HIST_DATA(id, "data", array, 5L);
    ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    UT_HIST_EV(id, "off", once());
    return evaluated == 1 ? 0 : 2;
}
