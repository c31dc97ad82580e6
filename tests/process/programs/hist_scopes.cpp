// hist_scopes.cpp: the instrumentation macros and the scope object in C++.
#include "corvex/corvex.h"

static void leave(a_ut_hist_id id, bool by_throw)
{
    UT_HIST_SCOPE(id, by_throw ? "throw" : "return");
    if (!by_throw)
        return;
    UT_HIST_EV(UT_HIST_ID_NONE, "inside", reinterpret_cast<void*>(1), 2L, size_t(3), 1.0);
    throw 1;
}

int main()
{
    const a_ut_hist_id id = ut_hist_id_alloc("scopes.cpp", 1, "scope");
    leave(id, false);
    try {
        leave(id, true);
    } catch (int) {
    }
    {
        UT_HIST_SCOPE(id, "half");
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    }
    UT_HIST_SCOPE(id, "off");
    ut_hist_setting(UT_HIST_SET_EVENTS_ON);
    return 0;
}
