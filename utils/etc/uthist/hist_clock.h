// hist_clock.h: local time without localtime_r, which a signal handler may not call.
//
// A table of the offsets from UTC, with the changes of the next ten years, is made at start-up and looked at again by
// every dump outside a handler; a forked child keeps its parent's, but for one of a process with one thread that has
// got another TZ since. Lookups are signal-safe and never wait.
#pragma once

#include <sys/time.h>
#include <time.h>

#include "corvex/types.h"
#include "utils/etc/uthist/hist_text.h"

struct a_hist_civil {
    int32 yr, mo, da, hr, mi, se;  // month and day from 1
};

void hist_zone_refresh(bool exits = false);
a_hist_civil hist_local(time_t seconds);
void ut_hist_cur_timestamp_str(a_hist_text& out);
void ut_hist_timestamp_str(a_hist_text& out, const struct timeval& time_of_day);
void hist_put_begin(a_hist_text& out, const char* what);                     // the begin banner of a table
void hist_put_seconds(a_hist_text& out, uint32 microseconds, size_t width);  // and all six decimals
