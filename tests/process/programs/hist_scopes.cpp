// hist_scopes.cpp: the instrumentation macros and the scope object in C++.
#include <stdexcept>

#include "corvex/corvex.h"

namespace {

void leave(a_ut_hist_id id, int how)
{
    UT_HIST_SCOPE(id, how == 0 ? "return" : "throw");
    if (how == 0)
        return;
    UT_HIST_EV(UT_HIST_ID_NONE, "inside", reinterpret_cast<void*>(1), 2L, size_t(3), 1.0);
    throw std::runtime_error("left early");
}

}  // namespace

int main()
{
    const a_ut_hist_id id = ut_hist_id_alloc("scopes.cpp", 1, "scope");
    leave(id, 0);
    try {
        leave(id, 1);
    } catch (const std::runtime_error&) {
    }
    {
        UT_HIST_SCOPE(id, "half");
        ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    }
    UT_HIST_SCOPE(id, "off");
    ut_hist_setting(UT_HIST_SET_EVENTS_ON);
    return 0;
}
