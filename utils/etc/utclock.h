// utclock.h: local time without localtime_r, which a signal handler may not call.
//
// A table of the offsets from UTC, with the changes of the next ten years, is made at start-up and looked at again by
// every dump outside a handler; a forked child keeps its parent's, but for one of a process with one thread that has
// got another TZ since. Lookups are signal-safe and never wait.
#pragma once

#include <sys/time.h>
#include <time.h>

#include "corvex/types.h"
#include "utils/etc/uttext.h"

struct a_civil_time {
    int32 yr, mo, da, hr, mi, se;  // month and day from 1
};

// Local time is ahead of UTC by `offset` seconds from the second `from` on.
struct a_zone_change {
    int64_t from;
    int64_t offset;
};
inline constexpr uint32 ut_zone_changes = 64;

void ut_zone_refresh(bool exits = false);
uint32 ut_zone_get(a_zone_change (&changes)[ut_zone_changes]);  // the table in force; gives how many it has
void ut_zone_set(const a_zone_change* changes, uint32 count);   // a table that is another process's
a_civil_time ut_local_time(time_t seconds);
void ut_hist_cur_timestamp_str(a_text& out);
void ut_hist_timestamp_str(a_text& out, const struct timeval& time_of_day);
void ut_put_stamp(a_text& out, const struct timeval& time_of_day);    // date, time with microseconds, zone
void ut_put_begin(a_text& out, const char* what);                     // the begin banner of a table
void ut_put_seconds(a_text& out, uint64 microseconds, size_t width);  // and all six decimals
