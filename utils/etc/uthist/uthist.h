// uthist.h: what the library's load and unload sequence calls of the event history, beside the exported
// ut_hist_init and ut_hist_fini.
#pragma once

#include "corvex/hist.h"

void ut_hist_static_defaults();  // while the library loads, before ut_hist_init
void ut_hist_fork_child();       // in a forked child
void ut_hist_unload();           // last of all, before the library leaves the process
